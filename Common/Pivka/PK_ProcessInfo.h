#pragma once
// Module and process information.
#include <windows.h>
#include "PK_Export.h"

class PIVKA_API CProcessInfo
{
public:
    // The module that contains address, or null.
    static HMODULE GetModuleHandleFromAddress(const void* address);
    // Full path of module into path (size bytes, always terminated); FALSE on failure.
    static BOOL GetModuleFileNameA(HMODULE module, char* path, DWORD size);
};
