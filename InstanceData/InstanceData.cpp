// InstanceData.dll: application object, class table, the singleton class
// object of FbInstanceData, and the four exports.
#include <windows.h>
#include <new>
#include "Common/ErrorTrace.h"
#include "FbInstanceData.h"
#include "InstanceDataModule.h"
#include "PK_LanguageTool.h"
#include "PK_ProcessInfo.h"
#include "PK_WinAppInitPivka.h"

static const char THIS_FILE[] = "InstanceData/InstanceData";

// Registry update of the FbInstanceData entry (registrar script resource 103).
HRESULT UpdateRegistryFbInstanceData(BOOL registerServer);

namespace
{
// The class object: one per process, holding the one store object that every
// CreateInstance hands out.
class CFbInstanceDataClassObject final : public IClassFactory
{
public:
    CFbInstanceDataClassObject() { InitializeCriticalSection(&m_lock); }

    ~CFbInstanceDataClassObject()
    {
        m_count = 1;    // nothing re-enters the destruction
        CoDisconnectObject(static_cast<IFbInstanceData*>(m_store), 0);
        delete m_store;
        DeleteCriticalSection(&m_lock);
    }

    HRESULT Construct()
    {
        m_store = new (std::nothrow) FbInstanceData;
        m_storeResult = m_store ? S_OK : E_OUTOFMEMORY;
        return m_storeResult;
    }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IClassFactory))
            return E_NOINTERFACE;
        *object = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }

    // The class table's own reference does not keep the module loaded; every
    // further one does.
    STDMETHODIMP_(ULONG) AddRef() override
    {
        EnterCriticalSection(&m_lock);
        const ULONG count = ++m_count;
        if (count == 2)
            _Module.Lock();
        LeaveCriticalSection(&m_lock);
        return count;
    }

    STDMETHODIMP_(ULONG) Release() override
    {
        EnterCriticalSection(&m_lock);
        const ULONG count = --m_count;
        LeaveCriticalSection(&m_lock);
        if (count == 1)
            _Module.Unlock();
        else if (count == 0)
            delete this;
        return count;
    }

    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        if (FAILED(m_storeResult))
            return m_storeResult;
        return static_cast<IFbInstanceData*>(m_store)->QueryInterface(iid, object);
    }

    STDMETHODIMP LockServer(BOOL lock) override
    {
        if (lock)
            _Module.Lock();
        else
            _Module.Unlock();
        return S_OK;
    }

    static HRESULT CreateClassObject(REFIID iid, void** object)
    {
        *object = nullptr;
        CFbInstanceDataClassObject* classObject = new (std::nothrow) CFbInstanceDataClassObject;
        if (!classObject)
            return E_OUTOFMEMORY;
        HRESULT hr = classObject->Construct();
        if (SUCCEEDED(hr))
            hr = classObject->QueryInterface(iid, object);
        if (FAILED(hr))
            delete classObject;
        return hr;
    }

private:
    CRITICAL_SECTION m_lock;
    ULONG m_count = 0;
    FbInstanceData* m_store = nullptr;
    HRESULT m_storeResult = E_FAIL;
};

HRESULT NoRegistry(BOOL)
{
    return S_OK;
}

void NoObjectMain(bool) {}

// One creatable class; seven non-creatable entries that take part in
// registration and termination only.
ClassTableEntry g_classTable[] = {
    {&CLSID_FbInstanceData, UpdateRegistryFbInstanceData, CFbInstanceDataClassObject::CreateClassObject, nullptr,
     nullptr, nullptr, NoObjectMain},
    {&GUID_NULL, NoRegistry, nullptr, nullptr, nullptr, nullptr, NoObjectMain},
    {&GUID_NULL, NoRegistry, nullptr, nullptr, nullptr, nullptr, NoObjectMain},
    {&GUID_NULL, NoRegistry, nullptr, nullptr, nullptr, nullptr, NoObjectMain},
    {&GUID_NULL, NoRegistry, nullptr, nullptr, nullptr, nullptr, NoObjectMain},
    {&GUID_NULL, NoRegistry, nullptr, nullptr, nullptr, nullptr, NoObjectMain},
    {&GUID_NULL, NoRegistry, nullptr, nullptr, nullptr, nullptr, NoObjectMain},
    {&GUID_NULL, NoRegistry, nullptr, nullptr, nullptr, nullptr, NoObjectMain},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

class CInstanceDataApp : public CWinAppInitPivka
{
public:
    CInstanceDataApp()
    {
        CLanguageTool::AddBaseModule(CProcessInfo::GetModuleHandleFromAddress(&g_classTable), nullptr, nullptr);
    }

    BOOL InitInstance() override
    {
        if (!InitApplication())
            return FALSE;
        if (FAILED(_Module.Init(g_classTable, m_hInstance, &LIBID_INSTANCEDATALib)))
            return FALSE;
        return CWinAppInitPivka::InitInstance();
    }

    int ExitInstance() override
    {
        _Module.Term();
        return CWinAppInitPivka::ExitInstance();
    }

    DECLARE_MESSAGE_MAP()
};

BEGIN_MESSAGE_MAP(CInstanceDataApp, CWinAppInitPivka)
END_MESSAGE_MAP()

CInstanceDataApp theApp;
}  // namespace

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    return _Module.GetClassObject(clsid, iid, object);
}

STDAPI DllCanUnloadNow()
{
    AFX_MANAGE_STATE(AfxGetStaticModuleState());
    return (AfxDllCanUnloadNow() == S_OK && _Module.GetLockCount() == 0) ? S_OK : S_FALSE;
}

namespace
{
// regsvr32 and installers call these: nothing thrown may reach them. An
// exception gives E_UNEXPECTED and the error trace line of the export.
template <class Body>
HRESULT RegistrationGuard(int line, Body body)
{
    bool returned = false;
    const HRESULT hr = EXCEPTION_GUARD([&] {
        const HRESULT result = body();
        returned = true;
        return result;
    });
    return returned ? hr : TraceErrorLine(THIS_FILE, line, hr);
}
}  // namespace

STDAPI DllRegisterServer()
{
    return RegistrationGuard(__LINE__, [] { return _Module.RegisterServer(); });
}

STDAPI DllUnregisterServer()
{
    return RegistrationGuard(__LINE__, [] { return _Module.UnregisterServer(); });
}
