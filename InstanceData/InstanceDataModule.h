#pragma once
// Module record of InstanceData.dll: module instance, class table, lock
// count, the lazily created class objects, and the type information cache.
#include <windows.h>
#include <oaidl.h>
#include <atomic>

// One entry of the class table; the table ends with an all-zero entry.
struct ClassTableEntry
{
    const CLSID* pclsid;
    HRESULT (*pfnUpdateRegistry)(BOOL registerServer);
    HRESULT (*pfnCreateClassObject)(REFIID iid, void** object);   // null: not creatable
    IUnknown* pCachedClassObject;
    const char* (*pfnGetObjectDescription)();
    const void* (*pfnGetCategoryMap)();
    void (*pfnObjectMain)(bool starting);
};

class CInstanceDataModule
{
public:
    HRESULT Init(ClassTableEntry* classTable, HINSTANCE instance, const GUID* libid);
    void Term();

    LONG Lock();
    LONG Unlock();
    LONG GetLockCount() const { return m_nLockCnt.load(); }
    HINSTANCE GetModuleInstance() const { return m_hInst; }
    const GUID& GetTypeLibId() const { return m_libid; }
    ClassTableEntry* GetClassTable() const { return m_pClassTable; }

    HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** object);

    // Self-registration: class table registry updates, type library, FDT
    // module registration (InstanceDataRegistration.cpp).
    HRESULT RegisterServer();
    HRESULT UnregisterServer();

    // Functions run at Term, the one added last first.
    void AddTermFunc(void (*function)(DWORD_PTR), DWORD_PTR argument);

    // The type information of iid from the registered library libid, loaded
    // on first need and held until Term; *cache is the caller's slot.
    HRESULT GetTypeInfo(const GUID& libid, WORD major, WORD minor, REFIID iid, LCID lcid, ITypeInfo** cache);

private:
    struct TermFunc
    {
        void (*function)(DWORD_PTR);
        DWORD_PTR argument;
        TermFunc* next;
    };

    HINSTANCE m_hInst = nullptr;
    ClassTableEntry* m_pClassTable = nullptr;
    std::atomic<LONG> m_nLockCnt{0};   // clients of every apartment move it
    GUID m_libid = {};
    CRITICAL_SECTION m_csObjMap = {};
    CRITICAL_SECTION m_csTypeInfoHolder = {};
    CRITICAL_SECTION m_csStaticDataInit = {};
    TermFunc* m_pTermFuncs = nullptr;
    bool m_bInitialized = false;
};

extern CInstanceDataModule _Module;

// Holds one module lock for its lifetime (every live data object has one).
class CModuleLock
{
public:
    CModuleLock() { _Module.Lock(); }
    ~CModuleLock() { _Module.Unlock(); }
    CModuleLock(const CModuleLock&) : CModuleLock() {}
    CModuleLock& operator=(const CModuleLock&) { return *this; }
};
