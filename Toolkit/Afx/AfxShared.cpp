// Shared part of the framework stand-in: exceptions, the per-thread current
// module state and the application base.
#include "afxstub.h"
#include <cstring>

CException::CException(BOOL autoDelete) : m_bAutoDelete(autoDelete) {}
CException::~CException() {}

BOOL CException::GetErrorMessage(char* buffer, UINT size, UINT* helpContext) const
{
    if (helpContext)
        *helpContext = 0;
    if (buffer && size)
        buffer[0] = '\0';
    return FALSE;
}

void CException::Delete()
{
    if (m_bAutoDelete)
        delete this;
}

BOOL CMemoryException::GetErrorMessage(char* buffer, UINT size, UINT* helpContext) const
{
    if (helpContext)
        *helpContext = 0;
    if (!buffer || !size)
        return FALSE;
    lstrcpynA(buffer, "Out of memory.", static_cast<int>(size));
    return TRUE;
}

CSimpleException::CSimpleException(const char* message)
{
    lstrcpynA(m_message, message ? message : "", sizeof m_message);
}

BOOL CSimpleException::GetErrorMessage(char* buffer, UINT size, UINT* helpContext) const
{
    if (helpContext)
        *helpContext = 0;
    if (!buffer || !size)
        return FALSE;
    lstrcpynA(buffer, m_message, static_cast<int>(size));
    return TRUE;
}

namespace
{
AFX_MODULE_STATE g_processState;   // current where no module made its own current

AFX_MODULE_STATE*& CurrentSlot()
{
    thread_local AFX_MODULE_STATE* current = nullptr;
    return current;
}
}  // namespace

AFX_MODULE_STATE* AfxGetModuleState()
{
    AFX_MODULE_STATE* current = CurrentSlot();
    return current ? current : &g_processState;
}

AFX_MODULE_STATE* AfxSetModuleState(AFX_MODULE_STATE* state)
{
    AFX_MODULE_STATE* previous = CurrentSlot();
    CurrentSlot() = state;
    return previous;
}

CWinApp* AfxGetApp()
{
    return AfxGetModuleState()->m_pCurrentWinApp;
}

HINSTANCE AfxGetInstanceHandle()
{
    return AfxGetModuleState()->m_hCurrentInstanceHandle;
}

HINSTANCE AfxGetResourceHandle()
{
    return AfxGetModuleState()->m_hCurrentResourceHandle;
}

void AfxOleLockApp()
{
    InterlockedIncrement(&AfxGetModuleState()->m_nObjectCount);
}

void AfxOleUnlockApp()
{
    InterlockedDecrement(&AfxGetModuleState()->m_nObjectCount);
}

HRESULT AfxDllCanUnloadNow()
{
    return AfxGetModuleState()->m_nObjectCount == 0 ? S_OK : S_FALSE;
}

CWinApp::CWinApp(const char* appName) : m_pszAppName(appName)
{
    // Constructed during the static initialisation of its module, while that
    // module's state is current (AfxDllModule.cpp).
    AfxGetModuleState()->m_pCurrentWinApp = this;
    AfxGetModuleState()->m_lpszCurrentAppName = appName;
}

CWinApp::~CWinApp()
{
    AFX_MODULE_STATE* state = AfxGetModuleState();
    if (state->m_pCurrentWinApp == this)
        state->m_pCurrentWinApp = nullptr;
}

BOOL CWinApp::InitApplication()
{
    return TRUE;
}

BOOL CWinApp::InitInstance()
{
    return TRUE;
}

int CWinApp::ExitInstance()
{
    return 0;
}

LRESULT CWinApp::ProcessWndProcException(CException*, const MSG*)
{
    return 0;
}
