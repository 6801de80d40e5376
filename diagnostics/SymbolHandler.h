#pragma once
// The debug-help symbol handler of the current process for one report: set
// up with every module of the process loaded, cleaned up at the end.
#include <windows.h>

class CSymbolHandler
{
public:
    explicit CSymbolHandler(HANDLE process) : m_process(process) {}
    ~CSymbolHandler() { Cleanup(); }

    // Initializes the handler and loads each module of the process (ids
    // from CModuleEnumerator); false, cleaned up, when any step fails.
    bool Initialize(DWORD processId);
    void Cleanup();

private:
    CSymbolHandler(const CSymbolHandler&) = delete;
    CSymbolHandler& operator=(const CSymbolHandler&) = delete;
    bool LoadModules(DWORD processId);
    bool LoadModule(HMODULE module);

    HANDLE m_process;
    bool m_initialized = false;
};
