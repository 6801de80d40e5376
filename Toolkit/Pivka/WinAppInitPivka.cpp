// Application base of toolkit components.
#include "PK_WinAppInitPivka.h"
#include "PK_Trace.h"

CWinAppInitPivka::CWinAppInitPivka(const char* appName) : CWinApp(appName) {}

CWinAppInitPivka::~CWinAppInitPivka() {}

BOOL CWinAppInitPivka::InitApplication()
{
    return CWinApp::InitApplication();
}

BOOL CWinAppInitPivka::InitInstance()
{
    return CWinApp::InitInstance();
}

int CWinAppInitPivka::ExitInstance()
{
    return CWinApp::ExitInstance();
}

LRESULT CWinAppInitPivka::ProcessWndProcException(CException* e, const MSG* msg)
{
    char text[256] = "";
    if (e)
        e->GetErrorMessage(text, sizeof text);
    g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "%s: unhandled exception in window procedure: %s\n",
                               m_pszAppName ? m_pszAppName : "", text);
    return CWinApp::ProcessWndProcException(e, msg);
}
