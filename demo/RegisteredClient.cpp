// A client of the registered server: creates the class by its programmatic
// identifier, opens a store file, lists its instances, and announces the
// module to the FDT module registry.
//   RegisteredClient [store-file]
#include <windows.h>
#include <ole2.h>
#include <comutil.h>
#include <wrl/client.h>
#include <cstdio>
#include "FdtInterfaces.h"
#include "InstanceDataLib.h"

using Microsoft::WRL::ComPtr;

namespace
{
int Fail(const char* step, HRESULT hr)
{
    printf("%s failed: 0x%08lx\n", step, static_cast<unsigned long>(hr));
    return 1;
}
}  // namespace

int main(int argc, char** argv)
{
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    CLSID clsid;
    HRESULT hr = CLSIDFromProgID(L"Korvo.VQ.InstanceData.FbInstanceData", &clsid);
    if (FAILED(hr))
        return Fail("CLSIDFromProgID (is the server registered?)", hr);
    wchar_t text[40];
    StringFromGUID2(clsid, text, 40);
    printf("Korvo.VQ.InstanceData.FbInstanceData -> %ls\n", text);

    ComPtr<IFbInstanceData> store;
    hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IFbInstanceData,
                          reinterpret_cast<void**>(store.GetAddressOf()));
    if (FAILED(hr))
        return Fail("CoCreateInstance", hr);
    ComPtr<IInstanceDataMgr> manager;
    if (FAILED(hr = store.As(&manager)))
        return Fail("QueryInterface(IInstanceDataMgr)", hr);

    const _bstr_t path(argc > 1 ? argv[1] : "demo.stg");
    ComPtr<IStorage> root;
    if (FAILED(hr = manager->OpenStorage(path, root.GetAddressOf())))
        return Fail("OpenStorage", hr);
    // A new file exists on disk only once the frame commits its root.
    root->Commit(STGC_DEFAULT);
    SAFEARRAY* ids = nullptr;
    if (FAILED(hr = store->GetInstanceDataList(nullptr, &ids)))
        return Fail("GetInstanceDataList", hr);
    LONG lower = 0, upper = -1;
    SafeArrayGetLBound(ids, 1, &lower);
    SafeArrayGetUBound(ids, 1, &upper);
    printf("%s holds %ld instance(s)\n", static_cast<const char*>(path), upper - lower + 1);
    SafeArrayDestroy(ids);

    // Late-bound, as a script host would call it.
    ComPtr<IDispatch> dispatch;
    store.As(&dispatch);
    DISPPARAMS none = {};
    hr = dispatch->Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr);
    printf("Register (dispatch id 1): 0x%08lx\n", static_cast<unsigned long>(hr));

    ComPtr<IFbModuleRegistry> registry;
    CLSID registryClass;
    if (SUCCEEDED(CLSIDFromProgID(L"Korvo.VQ.FdtEnlist.FdtRegisterComp", &registryClass)) &&
        SUCCEEDED(CoCreateInstance(registryClass, nullptr, CLSCTX_INPROC_SERVER, IID_IFbModuleRegistry,
                                   reinterpret_cast<void**>(registry.GetAddressOf()))))
    {
        ComPtr<IFdtInstanceDataInfo> info;
        if (SUCCEEDED(registry->GetModuleInfo(_bstr_t(text), info.GetAddressOf())) && info)
        {
            _bstr_t name, description, vendor, version, built;
            info->get_m_displayName(name.GetAddress());
            info->get_m_description(description.GetAddress());
            info->get_m_vendor(vendor.GetAddress());
            info->get_m_version(version.GetAddress());
            info->get_m_buildTime(built.GetAddress());
            printf("FDT module registry: %ls: \"%s\", \"%s\", %s %s, built %s\n", text,
                   static_cast<const char*>(name), static_cast<const char*>(description),
                   static_cast<const char*>(vendor), static_cast<const char*>(version),
                   static_cast<const char*>(built));
        }
    }
    root.Reset();
    manager.Reset();
    store.Reset();
    CoUninitialize();
    return 0;
}
