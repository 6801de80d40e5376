#pragma once
// The machine's list of registered FDT modules, shared by the registration
// component and the registration server FdtEnlist: one key per module,
//     HKLM\Software\Korvo\FDT\Modules\<class id in registry form>
// holding the module's strings as named values.
#include <windows.h>
#include <string>
#include <utility>
#include <vector>

namespace FdtModuleList
{
// Names of the values of one module's key.
extern const wchar_t kName[];          // the module's descriptor name
extern const wchar_t kKind[];          // "dtm", "instance data" or "communication"
extern const wchar_t kModulePath[];
extern const wchar_t kDisplayName[];
extern const wchar_t kDescription[];
extern const wchar_t kVendor[];
extern const wchar_t kVersion[];
extern const wchar_t kBuildTime[];

using Values = std::vector<std::pair<std::wstring, std::wstring>>;

// Creates the module's key when absent and sets the given values.
HRESULT Write(const std::wstring& classId, const Values& values);
// Removes the module's key; S_FALSE when it was not there.
HRESULT Remove(const std::wstring& classId);
// Removes every module whose kName value is name; S_FALSE when none had it.
HRESULT RemoveByName(const std::wstring& name);
// The class ids of all registered modules.
std::vector<std::wstring> ClassIds();
// One string value of a module; false when the module or value is missing.
bool ReadValue(const std::wstring& classId, const wchar_t* valueName, std::wstring& value);
}  // namespace FdtModuleList
