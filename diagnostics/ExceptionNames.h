#pragma once
// Names of exception codes in the crash report.
#include <windows.h>

class CExceptionNames
{
public:
    // The fixed name of code, else the system's message text for it from the
    // message table of "NTDLL.DLL" (empty when it has none). The text lives
    // in one module-wide buffer that the next lookup overwrites.
    static const char* Lookup(DWORD code);

    // The message text lookup of Lookup, in the message table of module.
    static const char* LookupMessage(HMODULE module, DWORD code);

    static const size_t kMessageSize = 512;
};
