// FdtRegisterComp.dll: the FDT module registration component. Its objects
// keep the machine's list of FDT modules (FdtModuleList) and describe them.
#include "FdtRegisterComp.h"
#include <ole2.h>
#include <new>
#include <string>
#include "FdtInterfaces.h"
#include "FdtModuleList.h"

namespace
{
const wchar_t kProgId[] = L"Korvo.VQ.FdtEnlist.FdtRegisterComp";
const wchar_t kClassName[] = L"FdtRegisterComp Class";

HINSTANCE g_instance = nullptr;
LONG g_lockCount = 0;    // live objects and server locks

std::wstring ClassIdText(REFCLSID clsid)
{
    wchar_t text[40];
    StringFromGUID2(clsid, text, 40);
    return text;
}

HRESULT NewBstr(const std::wstring& text, BSTR* out)
{
    if (!out)
        return E_POINTER;
    *out = SysAllocStringLen(text.c_str(), static_cast<UINT>(text.size()));
    return *out ? S_OK : E_OUTOFMEMORY;
}

// One string property read through its getter.
template <class Object>
HRESULT ReadProperty(Object* object, HRESULT (STDMETHODCALLTYPE Object::*getter)(BSTR*), std::wstring& value)
{
    BSTR text = nullptr;
    const HRESULT hr = (object->*getter)(&text);
    if (SUCCEEDED(hr))
        value.assign(text ? text : L"", SysStringLen(text));
    SysFreeString(text);
    return hr;
}

// IUnknown and IDispatch of an object of the FDT interface library.
template <class Interface>
class DispatchObject : public Interface
{
public:
    DispatchObject() { InterlockedIncrement(&g_lockCount); }
    virtual ~DispatchObject()
    {
        if (m_typeInfo)
            m_typeInfo->Release();
        InterlockedDecrement(&g_lockCount);
    }
    DispatchObject(const DispatchObject&) = delete;
    DispatchObject& operator=(const DispatchObject&) = delete;

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch) && !IsEqualIID(iid, __uuidof(Interface)))
            return E_NOINTERFACE;
        *object = static_cast<Interface*>(this);
        AddRef();
        return S_OK;
    }

    STDMETHODIMP_(ULONG) AddRef() override { return InterlockedIncrement(&m_refCount); }

    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG count = InterlockedDecrement(&m_refCount);
        if (count == 0)
            delete this;
        return count;
    }

    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        if (!count)
            return E_POINTER;
        *count = 1;
        return S_OK;
    }

    STDMETHODIMP GetTypeInfo(UINT index, LCID, ITypeInfo** info) override
    {
        if (!info)
            return E_POINTER;
        *info = nullptr;
        if (index != 0)
            return DISP_E_BADINDEX;
        const HRESULT hr = LoadTypeInfo();
        if (SUCCEEDED(hr))
        {
            m_typeInfo->AddRef();
            *info = m_typeInfo;
        }
        return hr;
    }

    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override
    {
        const HRESULT hr = LoadTypeInfo();
        return FAILED(hr) ? hr : m_typeInfo->GetIDsOfNames(names, count, ids);
    }

    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* exception, UINT* argError) override
    {
        const HRESULT hr = LoadTypeInfo();
        return FAILED(hr) ? hr
                          : m_typeInfo->Invoke(static_cast<Interface*>(this), id, flags, params, result, exception,
                                               argError);
    }

private:
    HRESULT LoadTypeInfo()
    {
        if (m_typeInfo)
            return S_OK;
        ITypeLib* library = nullptr;
        HRESULT hr = LoadRegTypeLib(LIBID_FdtInterfacesLib, 1, 0, LOCALE_NEUTRAL, &library);
        if (FAILED(hr))
            return hr;
        hr = library->GetTypeInfoOfGuid(__uuidof(Interface), &m_typeInfo);
        library->Release();
        return hr;
    }

    LONG m_refCount = 0;
    ITypeInfo* m_typeInfo = nullptr;
};

// What the list says about one module.
class ModuleInfo : public DispatchObject<IFdtInstanceDataInfo>
{
public:
    explicit ModuleInfo(const std::wstring& classId)
    {
        FdtModuleList::ReadValue(classId, FdtModuleList::kDisplayName, m_displayName);
        FdtModuleList::ReadValue(classId, FdtModuleList::kDescription, m_description);
        FdtModuleList::ReadValue(classId, FdtModuleList::kVendor, m_vendor);
        FdtModuleList::ReadValue(classId, FdtModuleList::kVersion, m_version);
        FdtModuleList::ReadValue(classId, FdtModuleList::kBuildTime, m_buildTime);
    }

    STDMETHODIMP get_m_displayName(BSTR* value) override { return NewBstr(m_displayName, value); }
    STDMETHODIMP put_m_displayName(BSTR value) override { return Put(m_displayName, value); }
    STDMETHODIMP get_m_description(BSTR* value) override { return NewBstr(m_description, value); }
    STDMETHODIMP put_m_description(BSTR value) override { return Put(m_description, value); }
    STDMETHODIMP get_m_vendor(BSTR* value) override { return NewBstr(m_vendor, value); }
    STDMETHODIMP put_m_vendor(BSTR value) override { return Put(m_vendor, value); }
    STDMETHODIMP get_m_version(BSTR* value) override { return NewBstr(m_version, value); }
    STDMETHODIMP put_m_version(BSTR value) override { return Put(m_version, value); }
    STDMETHODIMP get_m_buildTime(BSTR* value) override { return NewBstr(m_buildTime, value); }
    STDMETHODIMP put_m_buildTime(BSTR value) override { return Put(m_buildTime, value); }

private:
    static HRESULT Put(std::wstring& field, BSTR value)
    {
        field.assign(value ? value : L"", SysStringLen(value));
        return S_OK;
    }

    std::wstring m_displayName, m_description, m_vendor, m_version, m_buildTime;
};

// The module information as the list keeps it.
const struct InfoField
{
    HRESULT (STDMETHODCALLTYPE IFdtInstanceDataInfo::*getter)(BSTR*);
    const wchar_t* valueName;
} kInfoFields[] = {
    {&IFdtInstanceDataInfo::get_m_displayName, FdtModuleList::kDisplayName},
    {&IFdtInstanceDataInfo::get_m_description, FdtModuleList::kDescription},
    {&IFdtInstanceDataInfo::get_m_vendor, FdtModuleList::kVendor},
    {&IFdtInstanceDataInfo::get_m_version, FdtModuleList::kVersion},
    {&IFdtInstanceDataInfo::get_m_buildTime, FdtModuleList::kBuildTime},
};

class ModuleRegistry : public DispatchObject<IFbModuleRegistry>
{
public:
    STDMETHODIMP get_Count(LONG* count) override
    {
        if (!count)
            return E_POINTER;
        *count = static_cast<LONG>(FdtModuleList::ClassIds().size());
        return S_OK;
    }

    STDMETHODIMP GetClassIDs(SAFEARRAY** classIds) override
    {
        if (!classIds)
            return E_POINTER;
        *classIds = nullptr;
        const std::vector<std::wstring> ids = FdtModuleList::ClassIds();
        SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(ids.size()));
        if (!array)
            return E_OUTOFMEMORY;
        for (LONG i = 0; i < static_cast<LONG>(ids.size()); ++i)
        {
            BSTR id = nullptr;
            HRESULT hr = NewBstr(ids[i], &id);
            if (SUCCEEDED(hr))
                hr = SafeArrayPutElement(array, &i, id);
            SysFreeString(id);
            if (FAILED(hr))
            {
                SafeArrayDestroy(array);
                return hr;
            }
        }
        *classIds = array;
        return S_OK;
    }

    STDMETHODIMP GetModuleInfo(BSTR classId, IFdtInstanceDataInfo** info) override
    {
        if (!info)
            return E_POINTER;
        *info = nullptr;
        std::wstring id;
        const HRESULT hr = FindModule(classId, id);
        if (FAILED(hr))
            return hr;
        ModuleInfo* object = new (std::nothrow) ModuleInfo(id);
        if (!object)
            return E_OUTOFMEMORY;
        return object->QueryInterface(IID_IFdtInstanceDataInfo, reinterpret_cast<void**>(info));
    }

    STDMETHODIMP IsRegistered(BSTR classId, VARIANT_BOOL* registered) override
    {
        if (!registered)
            return E_POINTER;
        std::wstring id;
        *registered = SUCCEEDED(FindModule(classId, id)) ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }

    // The module goes into the list under its class id; nothing is kept of
    // the objects passed.
    STDMETHODIMP RegisterModule(IFdtInstanceDataDescriptor* descriptor, IFdtInstanceDataInfo* information,
                                IFbInstanceData* module, IFdtClassID* classId) override
    {
        if (!descriptor || !information || !module || !classId)
            return E_POINTER;
        std::wstring idText, name;
        HRESULT hr = ReadProperty(classId, &IFdtClassID::get_m_classID, idText);
        CLSID clsid;
        if (FAILED(hr) || FAILED(CLSIDFromString(idText.c_str(), &clsid)))
            return FAILED(hr) ? hr : E_INVALIDARG;
        hr = ReadProperty(descriptor, &IFdtInstanceDataDescriptor::get_m_name, name);
        if (FAILED(hr))
            return hr;
        FdtModuleList::Values values = {{FdtModuleList::kName, name}, {FdtModuleList::kKind, L"instance data"}};
        for (const InfoField& field : kInfoFields)
        {
            std::wstring text;
            hr = ReadProperty(information, field.getter, text);
            if (FAILED(hr))
                return hr;
            values.emplace_back(field.valueName, text);
        }
        return FdtModuleList::Write(ClassIdText(clsid), values);
    }

    // Every module registered under the descriptor's name leaves the list;
    // S_FALSE when there was none.
    STDMETHODIMP UnregisterModule(IFdtInstanceDataDescriptor* descriptor) override
    {
        if (!descriptor)
            return E_POINTER;
        std::wstring name;
        const HRESULT hr = ReadProperty(descriptor, &IFdtInstanceDataDescriptor::get_m_name, name);
        return FAILED(hr) ? hr : FdtModuleList::RemoveByName(name);
    }

private:
    // The registry form of a registered module's class id.
    static HRESULT FindModule(BSTR classId, std::wstring& id)
    {
        CLSID clsid;
        if (!classId || FAILED(CLSIDFromString(classId, &clsid)))
            return E_INVALIDARG;
        id = ClassIdText(clsid);
        std::wstring kind;
        return FdtModuleList::ReadValue(id, FdtModuleList::kKind, kind) ? S_OK
                                                                         : HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    }
};

class ClassFactory : public IClassFactory
{
public:
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
    // The factory is static: its references are server locks.
    STDMETHODIMP_(ULONG) AddRef() override { return InterlockedIncrement(&g_lockCount); }
    STDMETHODIMP_(ULONG) Release() override { return InterlockedDecrement(&g_lockCount); }

    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        ModuleRegistry* registry = new (std::nothrow) ModuleRegistry;
        if (!registry)
            return E_OUTOFMEMORY;
        registry->AddRef();
        const HRESULT hr = registry->QueryInterface(iid, object);
        registry->Release();
        return hr;
    }

    STDMETHODIMP LockServer(BOOL lock) override
    {
        if (lock)
            InterlockedIncrement(&g_lockCount);
        else
            InterlockedDecrement(&g_lockCount);
        return S_OK;
    }
};

ClassFactory g_factory;

HRESULT SetString(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& value)
{
    HKEY key = nullptr;
    LONG result = RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr);
    if (result == ERROR_SUCCESS)
    {
        result = RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
        RegCloseKey(key);
    }
    return result == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(result);
}
}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
    {
        g_instance = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    if (!IsEqualCLSID(clsid, CLSID_FdtRegisterComp))
        return CLASS_E_CLASSNOTAVAILABLE;
    return g_factory.QueryInterface(iid, object);
}

STDAPI DllCanUnloadNow()
{
    return g_lockCount == 0 ? S_OK : S_FALSE;
}

STDAPI DllRegisterServer()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(g_instance, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return E_FAIL;
    const std::wstring classKey = L"CLSID\\" + ClassIdText(CLSID_FdtRegisterComp);
    const std::wstring progIdKey = kProgId;
    const struct
    {
        const std::wstring key;
        const wchar_t* name;
        std::wstring value;
    } entries[] = {
        {progIdKey, nullptr, kClassName},
        {progIdKey + L"\\CLSID", nullptr, ClassIdText(CLSID_FdtRegisterComp)},
        {classKey, nullptr, kClassName},
        {classKey + L"\\ProgID", nullptr, kProgId},
        {classKey + L"\\InprocServer32", nullptr, path},
        {classKey + L"\\InprocServer32", L"ThreadingModel", L"Apartment"},
    };
    for (const auto& entry : entries)
    {
        const HRESULT hr = SetString(HKEY_CLASSES_ROOT, entry.key, entry.name, entry.value);
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

STDAPI DllUnregisterServer()
{
    RegDeleteTreeW(HKEY_CLASSES_ROOT, (L"CLSID\\" + ClassIdText(CLSID_FdtRegisterComp)).c_str());
    RegDeleteTreeW(HKEY_CLASSES_ROOT, kProgId);
    return S_OK;
}
