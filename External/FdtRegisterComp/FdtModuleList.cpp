// The machine's list of registered FDT modules in the registry.
#include "FdtModuleList.h"

namespace FdtModuleList
{
const wchar_t kName[] = L"Name";
const wchar_t kKind[] = L"Kind";
const wchar_t kModulePath[] = L"ModulePath";
const wchar_t kDisplayName[] = L"DisplayName";
const wchar_t kDescription[] = L"Description";
const wchar_t kVendor[] = L"Vendor";
const wchar_t kVersion[] = L"Version";
const wchar_t kBuildTime[] = L"BuildTime";

namespace
{
const wchar_t kListKey[] = L"Software\\Korvo\\FDT\\Modules";

class Key
{
public:
    ~Key()
    {
        if (m_key)
            RegCloseKey(m_key);
    }
    HKEY* operator&() { return &m_key; }
    operator HKEY() const { return m_key; }

private:
    HKEY m_key = nullptr;
};

HRESULT FromWin32(LONG result)
{
    return result == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(result);
}

std::wstring ModuleKey(const std::wstring& classId)
{
    return std::wstring(kListKey) + L"\\" + classId;
}
}  // namespace

HRESULT Write(const std::wstring& classId, const Values& values)
{
    if (classId.empty() || classId.find(L'\\') != std::wstring::npos)
        return E_INVALIDARG;
    Key key;
    HRESULT hr = FromWin32(RegCreateKeyExW(HKEY_LOCAL_MACHINE, ModuleKey(classId).c_str(), 0, nullptr, 0,
                                           KEY_READ | KEY_WRITE, nullptr, &key, nullptr));
    for (const auto& value : values)
    {
        if (FAILED(hr))
            break;
        hr = FromWin32(RegSetValueExW(key, value.first.c_str(), 0, REG_SZ,
                                      reinterpret_cast<const BYTE*>(value.second.c_str()),
                                      static_cast<DWORD>((value.second.size() + 1) * sizeof(wchar_t))));
    }
    return hr;
}

HRESULT Remove(const std::wstring& classId)
{
    if (classId.empty() || classId.find(L'\\') != std::wstring::npos)
        return E_INVALIDARG;
    const LONG result = RegDeleteTreeW(HKEY_LOCAL_MACHINE, ModuleKey(classId).c_str());
    return result == ERROR_FILE_NOT_FOUND ? S_FALSE : FromWin32(result);
}

HRESULT RemoveByName(const std::wstring& name)
{
    HRESULT result = S_FALSE;
    for (const std::wstring& classId : ClassIds())
    {
        std::wstring moduleName;
        if (!ReadValue(classId, kName, moduleName) || moduleName != name)
            continue;
        const HRESULT hr = Remove(classId);
        if (FAILED(hr))
            return hr;
        result = S_OK;
    }
    return result;
}

std::vector<std::wstring> ClassIds()
{
    std::vector<std::wstring> ids;
    Key list;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kListKey, 0, KEY_READ, &list) != ERROR_SUCCESS)
        return ids;
    wchar_t name[256];
    for (DWORD index = 0;; ++index)
    {
        DWORD length = 256;
        if (RegEnumKeyExW(list, index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        ids.emplace_back(name, length);
    }
    return ids;
}

bool ReadValue(const std::wstring& classId, const wchar_t* valueName, std::wstring& value)
{
    Key key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, ModuleKey(classId).c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    DWORD type = 0, size = 0;
    if (RegQueryValueExW(key, valueName, nullptr, &type, nullptr, &size) != ERROR_SUCCESS || type != REG_SZ)
        return false;
    std::wstring data(size / sizeof(wchar_t) + 1, L'\0');
    if (RegQueryValueExW(key, valueName, nullptr, nullptr, reinterpret_cast<BYTE*>(&data[0]), &size) !=
        ERROR_SUCCESS)
        return false;
    value.assign(data.c_str());
    return true;
}
}  // namespace FdtModuleList
