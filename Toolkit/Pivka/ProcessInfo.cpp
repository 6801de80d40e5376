// Module and process information.
#include "PK_ProcessInfo.h"

HMODULE CProcessInfo::GetModuleHandleFromAddress(const void* address)
{
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<LPCSTR>(address), &module))
        return nullptr;
    return module;
}

BOOL CProcessInfo::GetModuleFileNameA(HMODULE module, char* path, DWORD size)
{
    if (!path || size == 0)
        return FALSE;
    path[0] = '\0';
    const DWORD length = ::GetModuleFileNameA(module, path, size);
    if (length == 0 || length >= size)
    {
        path[size - 1] = '\0';
        return FALSE;
    }
    return TRUE;
}
