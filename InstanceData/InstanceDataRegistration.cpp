// Self-registration of the module: the class table's registry entries, the
// type library, and the module's registration as an FDT instance data module.
#include "InstanceDataModule.h"
#include <oleauto.h>
#include <comutil.h>
#include <wrl/client.h>
#include <string>
#include "Common/ErrorTrace.h"
#include "FdtCommon/FdtExtensions.h"
#include "InstanceData/Registrar.h"
#include "InstanceDataIdl.h"
#include "PK_ProcessInfo.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/InstanceData";

namespace
{
// Resource "REGISTRY" of the FbInstanceData registrar script.
constexpr UINT kFbInstanceDataScriptId = 103;

// Inside a quoted script string a single quote is written twice.
std::string DoubleSingleQuotes(const char* text)
{
    std::string result;
    for (; *text; ++text)
    {
        result += *text;
        if (*text == '\'')
            result += '\'';
    }
    return result;
}

// The type library of the module file, else of the ".tlb" file beside it;
// path receives the file that loaded.
HRESULT LoadModuleTypeLib(HINSTANCE instance, ComPtr<ITypeLib>& library, std::wstring& path)
{
    WCHAR module[MAX_PATH];
    const DWORD length = GetModuleFileNameW(instance, module, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return LastErrorResult();
    path.assign(module, length);
    if (SUCCEEDED(LoadTypeLib(path.c_str(), library.ReleaseAndGetAddressOf())))
        return S_OK;
    const size_t separator = path.find_last_of(L"\\/:");
    const size_t nameStart = separator == std::wstring::npos ? 0 : separator + 1;
    size_t extension = path.rfind(L'.');
    if (extension == std::wstring::npos || extension < nameStart)
        extension = path.size();
    path.replace(extension, std::wstring::npos, L".tlb");
    return LoadTypeLib(path.c_str(), library.ReleaseAndGetAddressOf());
}

HRESULT RegisterModuleTypeLib(HINSTANCE instance)
{
    ComPtr<ITypeLib> library;
    std::wstring path;
    RETURN_IF_FAILED_QUIET(LoadModuleTypeLib(instance, library, path));
    // The help directory is the library's folder, its separator kept.
    std::wstring helpDirectory = path.substr(0, path.find_last_of(L"\\/:") + 1);
    return RegisterTypeLib(library.Get(), &path[0], &helpDirectory[0]);
}

// Nothing of this reaches the caller: unregistration goes on regardless.
void UnregisterModuleTypeLib(HINSTANCE instance)
{
    ComPtr<ITypeLib> library;
    std::wstring path;
    TLIBATTR* attributes = nullptr;
    if (FAILED(LoadModuleTypeLib(instance, library, path)) || FAILED(library->GetLibAttr(&attributes)))
        return;
    // Looked up at run time: older systems lack it.
    typedef HRESULT(WINAPI * UnRegisterTypeLibFunction)(REFGUID, WORD, WORD, LCID, SYSKIND);
    if (HMODULE automation = LoadLibraryA("oleaut32.dll"))
    {
        const auto unregister = reinterpret_cast<UnRegisterTypeLibFunction>(
            reinterpret_cast<void*>(GetProcAddress(automation, "UnRegisterTypeLib")));
        if (unregister)
            unregister(attributes->guid, attributes->wMajorVerNum, attributes->wMinorVerNum, attributes->lcid,
                       attributes->syskind);
        FreeLibrary(automation);
    }
    library->ReleaseTLibAttr(attributes);
}

// The module's library describes four descriptor interfaces of the FDT
// library too, so registering it points their interface keys at the module
// and unregistering it removes them. The FDT library's own registration is
// renewed from the registry (same file, same help folder) to give those keys
// back to it; nothing happens when the FDT library is not registered.
void RenewFdtLibraryRegistration()
{
    ComPtr<ITypeLib> library;
    BSTR path = nullptr;
    if (FAILED(LoadRegTypeLib(LIBID_FdtInterfacesLib, 1, 0, LOCALE_NEUTRAL, library.GetAddressOf())) ||
        FAILED(QueryPathOfRegTypeLib(LIBID_FdtInterfacesLib, 1, 0, LOCALE_NEUTRAL, &path)))
        return;
    _bstr_t file(path, false);
    WCHAR libraryId[40];
    StringFromGUID2(LIBID_FdtInterfacesLib, libraryId, 40);
    WCHAR helpDirectory[MAX_PATH];
    DWORD size = sizeof helpDirectory;
    const std::wstring helpKey = std::wstring(L"TypeLib\\") + libraryId + L"\\1.0\\HELPDIR";
    const bool haveHelp = RegGetValueW(HKEY_CLASSES_ROOT, helpKey.c_str(), nullptr, RRF_RT_REG_SZ, nullptr,
                                       helpDirectory, &size) == ERROR_SUCCESS;
    RegisterTypeLib(library.Get(), file.GetBSTR(), haveHelp ? helpDirectory : nullptr);
}

// FdtEnlist with this module's class id and path.
HRESULT RegisterFdtModule(BOOL registerModule)
{
    char path[MAX_PATH];
    const HMODULE module = CProcessInfo::GetModuleHandleFromAddress(&kFbInstanceDataScriptId);
    if (!CProcessInfo::GetModuleFileNameA(module, path, sizeof path))
        return TraceErrorLine(THIS_FILE, __LINE__, LastErrorResult());
    return FdtRegisterModule(CLSID_FbInstanceData, FdtModuleKindInstanceData, path, registerModule);
}
}  // namespace

HRESULT UpdateRegistryFbInstanceData(BOOL registerServer)
{
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(_Module.GetModuleInstance(), path, sizeof path);
    if (length == 0 || length >= sizeof path)
        return LastErrorResult();
    CRegistrar registrar;
    registrar.AddReplacement("Module", DoubleSingleQuotes(path).c_str());
    return registrar.RunResource(path, kFbInstanceDataScriptId, "REGISTRY", registerServer != FALSE);
}

HRESULT CInstanceDataModule::RegisterServer()
{
    RETURN_IF_NULL(m_pClassTable, TraceErrorLine(THIS_FILE, __LINE__, E_INVALIDARG));
    for (ClassTableEntry* entry = m_pClassTable; entry->pclsid; ++entry)
        if (entry->pfnUpdateRegistry)
            RETURN_IF_FAILED(entry->pfnUpdateRegistry(TRUE));
    RETURN_IF_FAILED(RegisterModuleTypeLib(m_hInst));
    return RegisterFdtModule(TRUE);
}

HRESULT CInstanceDataModule::UnregisterServer()
{
    if (m_pClassTable)
        for (ClassTableEntry* entry = m_pClassTable; entry->pclsid; ++entry)
            if (entry->pfnUpdateRegistry)
                entry->pfnUpdateRegistry(FALSE);
    UnregisterModuleTypeLib(m_hInst);
    RenewFdtLibraryRegistration();
    return RegisterFdtModule(FALSE);
}
