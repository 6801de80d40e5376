// FDT module registration of the store: Register and Unregister hand the
// module's identity to the FDT module registration component.
#include "FbInstanceData.h"
#include <wrl/client.h>
#include "Common/ErrorTrace.h"
#include "NonCreateables/FdtClassID.h"
#include "NonCreateables/FdtInstanceDataDescriptor.h"
#include "NonCreateables/FdtInstanceDataInfo.h"
#include "PK_ProcessInfo.h"
#include "PK_VersionResource.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceData";

namespace
{
const WCHAR kRegistrationComponent[] = L"Korvo.VQ.FdtEnlist.FdtRegisterComp";
// In-process server and handler, local and remote server.
constexpr DWORD kRegistrationContext =
    CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER;
static_assert(kRegistrationContext == 0x17, "class context of the registration component");

// An unknown programmatic identifier leaves the null class id, whose
// creation then fails.
HRESULT CreateModuleRegistry(ComPtr<IFbModuleRegistry>& registry)
{
    CLSID clsid;
    if (FAILED(CLSIDFromProgID(kRegistrationComponent, &clsid)))
        clsid = CLSID_NULL;
    return CoCreateInstance(clsid, nullptr, kRegistrationContext, IID_IFbModuleRegistry,
                            reinterpret_cast<void**>(registry.ReleaseAndGetAddressOf()));
}

// The setters' results are not looked at.
HRESULT NewDescriptor(ComPtr<IFdtInstanceDataDescriptor>& descriptor)
{
    RETURN_IF_FAILED_QUIET(MakeDataObject<FdtInstanceDataDescriptor>(descriptor));
    descriptor->put_m_name(_bstr_t(kInstanceDataDescriptorName));
    return S_OK;
}

// Display name and description, and vendor, version and build time from
// the module's version resource.
HRESULT NewInfo(ComPtr<IFdtInstanceDataInfo>& info)
{
    RETURN_IF_FAILED_QUIET(MakeDataObject<FdtInstanceDataInfo>(info));
    CVersionResource version;
    version.InitFromModuleHandle(CProcessInfo::GetModuleHandleFromAddress(kRegistrationComponent));
    info->put_m_displayName(_bstr_t(L"VQ instance data"));
    info->put_m_description(_bstr_t(L"all instruments instance data"));
    info->put_m_vendor(_bstr_t(version.GetCompanyName()));
    info->put_m_version(_bstr_t(version.GetUserReadableVersion(false)));
    info->put_m_buildTime(_bstr_t(version.GetBuildTime()));
    return S_OK;
}

HRESULT NewClassId(ComPtr<IFdtClassID>& classId)
{
    RETURN_IF_FAILED_QUIET(MakeDataObject<FdtClassID>(classId));
    LPOLESTR text = nullptr;
    RETURN_IF_FAILED_QUIET(StringFromCLSID(CLSID_FbInstanceData, &text));
    const _bstr_t registryForm(text);
    CoTaskMemFree(text);
    classId->put_m_classID(registryForm);
    return S_OK;
}
}  // namespace

STDMETHODIMP FbInstanceData::Register()
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        ComPtr<IFbModuleRegistry> registry;
        RETURN_IF_FAILED_QUIET(CreateModuleRegistry(registry));
        ComPtr<IFdtInstanceDataDescriptor> descriptor;
        RETURN_IF_FAILED_QUIET(NewDescriptor(descriptor));
        ComPtr<IFdtInstanceDataInfo> info;
        RETURN_IF_FAILED_QUIET(NewInfo(info));
        ComPtr<IFdtClassID> classId;
        RETURN_IF_FAILED_QUIET(NewClassId(classId));
        return registry->RegisterModule(descriptor.Get(), info.Get(), static_cast<IFbInstanceData*>(this),
                                        classId.Get());
    });
}

STDMETHODIMP FbInstanceData::Unregister()
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        ComPtr<IFbModuleRegistry> registry;
        RETURN_IF_FAILED_QUIET(CreateModuleRegistry(registry));
        ComPtr<IFdtInstanceDataDescriptor> descriptor;
        RETURN_IF_FAILED_QUIET(NewDescriptor(descriptor));
        return registry->UnregisterModule(descriptor.Get());
    });
}
