#pragma once
// Stand-in for the parts of the MFC 4.2 framework that the components use:
// exceptions, the application object, per-module state and the DLL unload
// test. It lives in Pivka.dll (the shared part) and in AfxDllModule.cpp,
// which every component DLL links statically (its DllMain and module state).
#include <windows.h>
#include "PK_Export.h"

class PIVKA_API CException
{
public:
    explicit CException(BOOL autoDelete = TRUE);
    virtual ~CException();
    virtual BOOL GetErrorMessage(char* buffer, UINT size, UINT* helpContext = nullptr) const;
    // Frees a heap exception (the form in which the framework throws them).
    void Delete();

private:
    BOOL m_bAutoDelete;
};

class PIVKA_API CMemoryException : public CException
{
public:
    explicit CMemoryException(BOOL autoDelete = TRUE) : CException(autoDelete) {}
    BOOL GetErrorMessage(char* buffer, UINT size, UINT* helpContext = nullptr) const override;
};

class PIVKA_API CSimpleException : public CException
{
public:
    explicit CSimpleException(const char* message);
    BOOL GetErrorMessage(char* buffer, UINT size, UINT* helpContext = nullptr) const override;

private:
    char m_message[256];
};

// Inline, so that the throw happens in the module that catches it: on i686
// each DLL has its own unwinder, and no exception may leave the DLL it was
// thrown in.
[[noreturn]] inline void AfxThrowMemoryException()
{
    throw new CMemoryException;
}

class CWinApp;

// State of one module: current while a call into that module runs.
struct PIVKA_API AFX_MODULE_STATE
{
    HINSTANCE m_hCurrentInstanceHandle = nullptr;
    HINSTANCE m_hCurrentResourceHandle = nullptr;
    CWinApp* m_pCurrentWinApp = nullptr;
    const char* m_lpszCurrentAppName = nullptr;
    volatile LONG m_nObjectCount = 0;   // AfxOleLockApp count
    BOOL m_bDLL = FALSE;
};

PIVKA_API AFX_MODULE_STATE* AfxGetModuleState();
// Makes state current for the calling thread; returns the previous one.
PIVKA_API AFX_MODULE_STATE* AfxSetModuleState(AFX_MODULE_STATE* state);
// The state of the module that calls it (defined by AfxDllModule.cpp).
AFX_MODULE_STATE* AfxGetStaticModuleState();

// Makes a module state current for a scope and restores the previous one
// on every way out.
class AFX_MAINTAIN_STATE2
{
public:
    explicit AFX_MAINTAIN_STATE2(AFX_MODULE_STATE* state) : m_pPrevious(AfxSetModuleState(state)) {}
    ~AFX_MAINTAIN_STATE2() { AfxSetModuleState(m_pPrevious); }

private:
    AFX_MODULE_STATE* m_pPrevious;
    AFX_MAINTAIN_STATE2(const AFX_MAINTAIN_STATE2&) = delete;
    AFX_MAINTAIN_STATE2& operator=(const AFX_MAINTAIN_STATE2&) = delete;
};
#define AFX_MANAGE_STATE(p) AFX_MAINTAIN_STATE2 _ctlState(p)

PIVKA_API CWinApp* AfxGetApp();
PIVKA_API HINSTANCE AfxGetInstanceHandle();
PIVKA_API HINSTANCE AfxGetResourceHandle();
PIVKA_API void AfxOleLockApp();
PIVKA_API void AfxOleUnlockApp();
// S_OK when the current module's framework holds no objects (AfxOleLockApp).
PIVKA_API HRESULT AfxDllCanUnloadNow();

class PIVKA_API CWinApp
{
public:
    explicit CWinApp(const char* appName = nullptr);
    virtual ~CWinApp();
    virtual BOOL InitApplication();
    virtual BOOL InitInstance();
    virtual int ExitInstance();
    virtual LRESULT ProcessWndProcException(CException* e, const MSG* msg);

    HINSTANCE m_hInstance = nullptr;
    const char* m_pszAppName = nullptr;

private:
    CWinApp(const CWinApp&) = delete;
    CWinApp& operator=(const CWinApp&) = delete;
};

// Message map placeholder: the components declare an empty one.
#define DECLARE_MESSAGE_MAP()
#define BEGIN_MESSAGE_MAP(theClass, baseClass)
#define END_MESSAGE_MAP()
