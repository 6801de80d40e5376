// Static part of the framework stand-in that each component DLL links: its
// own module state, made current while the DLL's static objects (the
// application object among them) are constructed, and its DllMain, which
// runs the application object's InitInstance and ExitInstance.
#include "afxstub.h"

namespace
{
AFX_MODULE_STATE g_moduleState;
AFX_MODULE_STATE* g_previousState = nullptr;

// Runs before every other static constructor of the module.
struct ModuleStateActivator
{
    ModuleStateActivator()
    {
        g_moduleState.m_bDLL = TRUE;
        g_previousState = AfxSetModuleState(&g_moduleState);
    }
};
ModuleStateActivator g_activator __attribute__((init_priority(101)));
}  // namespace

AFX_MODULE_STATE* AfxGetStaticModuleState()
{
    return &g_moduleState;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
    {
        // The static constructors have run: give the caller its state back.
        AfxSetModuleState(g_previousState);
        g_moduleState.m_hCurrentInstanceHandle = instance;
        g_moduleState.m_hCurrentResourceHandle = instance;
        AFX_MANAGE_STATE(&g_moduleState);
        CWinApp* app = g_moduleState.m_pCurrentWinApp;
        if (!app)
            return TRUE;
        app->m_hInstance = instance;
        if (!app->InitInstance())
        {
            app->ExitInstance();
            return FALSE;
        }
    }
    else if (reason == DLL_PROCESS_DETACH)
    {
        AFX_MANAGE_STATE(&g_moduleState);
        if (CWinApp* app = g_moduleState.m_pCurrentWinApp)
            app->ExitInstance();
    }
    return TRUE;
}
