// Symbol set-up of the crash report.
#include "diagnostics/SymbolHandler.h"
#include <dbghelp.h>
#include <vector>
#include "diagnostics/ModuleEnumerator.h"

bool CSymbolHandler::Initialize(DWORD processId)
{
    // No search path; modules are loaded one by one below.
    if (!SymInitialize(m_process, nullptr, FALSE))
        return false;
    m_initialized = true;
    if (LoadModules(processId))
        return true;
    Cleanup();
    return false;
}

void CSymbolHandler::Cleanup()
{
    if (m_initialized)
        SymCleanup(m_process);
    m_initialized = false;
}

bool CSymbolHandler::LoadModules(DWORD processId)
{
    DWORD count = 0;
    if (!CModuleEnumerator::Enumerate(processId, 0, nullptr, &count))
        return false;
    std::vector<HMODULE> modules(count);
    if (count && !CModuleEnumerator::Enumerate(processId, count, modules.data(), &count))
        return false;
    for (HMODULE module : modules)
        if (!LoadModule(module))
            return false;
    return true;
}

bool CSymbolHandler::LoadModule(HMODULE module)
{
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(module, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return false;
    // The handle only lends the image to the loader; it is not kept.
    HANDLE file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    SetLastError(ERROR_SUCCESS);
    const DWORD64 base = SymLoadModule64(m_process, file == INVALID_HANDLE_VALUE ? nullptr : file, path, nullptr,
                                         reinterpret_cast<ULONG_PTR>(module), 0);
    // 0 with no error: the module was already known.
    const bool loaded = base != 0 || GetLastError() == ERROR_SUCCESS;
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    return loaded;
}
