// Module record: class table, lock count, class objects, type information.
#include "InstanceDataModule.h"
#include <new>


CInstanceDataModule _Module;

namespace
{
class CriticalSectionLock
{
public:
    explicit CriticalSectionLock(CRITICAL_SECTION& section) : m_section(section) { EnterCriticalSection(&m_section); }
    ~CriticalSectionLock() { LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION& m_section;
};

// The class object of entry, or null; another thread may be publishing it.
IUnknown* PublishedClassObject(ClassTableEntry& entry)
{
    return static_cast<IUnknown*>(InterlockedCompareExchangePointer(
        reinterpret_cast<PVOID volatile*>(&entry.pCachedClassObject), nullptr, nullptr));
}

void ReleaseTypeInfo(DWORD_PTR slot)
{
    ITypeInfo** cache = reinterpret_cast<ITypeInfo**>(slot);
    if (*cache)
        (*cache)->Release();
    *cache = nullptr;
}
}  // namespace

HRESULT CInstanceDataModule::Init(ClassTableEntry* classTable, HINSTANCE instance, const GUID* libid)
{
    if (!classTable)
        return E_INVALIDARG;
    m_hInst = instance;
    m_pClassTable = classTable;
    m_nLockCnt.store(0);
    m_pTermFuncs = nullptr;
    InitializeCriticalSection(&m_csObjMap);
    InitializeCriticalSection(&m_csTypeInfoHolder);
    InitializeCriticalSection(&m_csStaticDataInit);
    m_bInitialized = true;
    for (ClassTableEntry* entry = m_pClassTable; entry->pclsid; ++entry)
        if (entry->pfnObjectMain)
            entry->pfnObjectMain(true);
    if (libid)
        m_libid = *libid;
    return S_OK;
}

void CInstanceDataModule::Term()
{
    if (!m_bInitialized)
        return;
    for (ClassTableEntry* entry = m_pClassTable; entry->pclsid; ++entry)
    {
        if (entry->pCachedClassObject)
            entry->pCachedClassObject->Release();
        entry->pCachedClassObject = nullptr;
        if (entry->pfnObjectMain)
            entry->pfnObjectMain(false);
    }
    DeleteCriticalSection(&m_csObjMap);
    DeleteCriticalSection(&m_csStaticDataInit);
    // The termination list runs last, the function added last first.
    while (TermFunc* func = m_pTermFuncs)
    {
        m_pTermFuncs = func->next;
        func->function(func->argument);
        delete func;
    }
    DeleteCriticalSection(&m_csTypeInfoHolder);
    m_bInitialized = false;
}

LONG CInstanceDataModule::Lock()
{
    return ++m_nLockCnt;
}

LONG CInstanceDataModule::Unlock()
{
    return --m_nLockCnt;
}

HRESULT CInstanceDataModule::GetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    if (!m_pClassTable)
        return E_INVALIDARG;
    for (ClassTableEntry* entry = m_pClassTable; entry->pclsid; ++entry)
    {
        if (!entry->pfnCreateClassObject || !IsEqualCLSID(*entry->pclsid, clsid))
            continue;
        IUnknown* classObject = PublishedClassObject(*entry);
        if (!classObject)
        {
            // Made once under the lock, and published whole for the threads
            // that look without it.
            CriticalSectionLock guard(m_csObjMap);
            classObject = PublishedClassObject(*entry);
            if (!classObject)
            {
                const HRESULT hr = entry->pfnCreateClassObject(IID_IUnknown, reinterpret_cast<void**>(&classObject));
                if (FAILED(hr))
                    return hr;
                InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(&entry->pCachedClassObject), classObject);
            }
        }
        return classObject->QueryInterface(iid, object);
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

void CInstanceDataModule::AddTermFunc(void (*function)(DWORD_PTR), DWORD_PTR argument)
{
    TermFunc* func = new (std::nothrow) TermFunc{function, argument, nullptr};
    if (!func)
        return;
    CriticalSectionLock guard(m_csTypeInfoHolder);
    func->next = m_pTermFuncs;
    m_pTermFuncs = func;
}

HRESULT CInstanceDataModule::GetTypeInfo(const GUID& libid, WORD major, WORD minor, REFIID iid, LCID lcid,
                                         ITypeInfo** cache)
{
    if (*cache)
        return S_OK;
    CriticalSectionLock guard(m_csTypeInfoHolder);
    if (*cache)
        return S_OK;
    ITypeLib* library = nullptr;
    HRESULT hr = LoadRegTypeLib(libid, major, minor, lcid, &library);
    if (FAILED(hr))
        return hr;
    ITypeInfo* info = nullptr;
    hr = library->GetTypeInfoOfGuid(iid, &info);
    library->Release();
    if (FAILED(hr))
        return hr;
    if (!info)
        return E_FAIL;
    *cache = info;
    AddTermFunc(ReleaseTypeInfo, reinterpret_cast<DWORD_PTR>(cache));
    return S_OK;
}
