#pragma once
// The registry as the registration tests read it back. A branch is saved in one call (RegSaveKey: walking the
// classes root key by key takes half a minute under Wine) and read back as one line per value,
// "Sub\Inner|"name"="text"", and one per key that holds no value and no subkey, "Sub\Empty".
#include <algorithm>
#include <set>
#include <sstream>
#include <tuple>
#include "TestSupport.h"

namespace registry
{
using Lines = std::set<std::string>;

// The lines of root\path (none when it does not exist), each key named as prefix\key (the branch itself as
// prefix); top-level file types are left out. view: KEY_WOW64_32KEY, KEY_WOW64_64KEY or 0 for the program's own.
inline Lines Dump(HKEY root, const std::string& path, const std::string& prefix = "", REGSAM view = 0)
{
    HANDLE token = nullptr;   // saving needs the backup privilege
    TOKEN_PRIVILEGES privileges = {1, {{{}, SE_PRIVILEGE_ENABLED}}};
    if (LookupPrivilegeValueW(nullptr, L"SeBackupPrivilege", &privileges.Privileges[0].Luid) &&
        OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token))
    {
        AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
        CloseHandle(token);
    }
    Lines lines;
    HKEY branch = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ | view, &branch) != ERROR_SUCCESS)
        return lines;
    const std::wstring file = TestFilesDirectory() + TestName() + L".reg";
    DeleteFileW(file.c_str());
    EXPECT_EQ(ERROR_SUCCESS, RegSaveKeyW(branch, file.c_str(), nullptr)) << path;
    RegCloseKey(branch);
    std::istringstream in(FileText(file));
    DeleteFileW(file.c_str());
    std::string name, line;
    bool skip = false;
    while (std::getline(in, line))
    {
        for (std::string next; !line.empty() && line.back() == '\\' && std::getline(in, next);)
            line = line.substr(0, line.size() - 1) + next;   // a long binary value goes on over lines
        if (line[0] == '[')
        {
            std::string key;
            for (size_t at = 1; at < line.size() && line[at] != ']'; ++at)
                key += line[at] == '\\' ? line[++at] : line[at];
            name = prefix + (prefix.empty() || key.empty() ? "" : "\\") + key;
            skip = key[0] == '.';
            if (!skip)
                lines.insert(name);
        }
        else if (!skip && (line[0] == '"' || line[0] == '@'))
        {
            lines.erase(name);
            lines.insert(name + "|" + line);
        }
    }
    return lines;
}

// The string value (nullptr: the default value); "" when missing.
inline std::string ReadString(HKEY root, const std::string& path, const char* name)
{
    char value[1024];
    DWORD size = sizeof value;
    return RegGetValueA(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, value, &size) == ERROR_SUCCESS ? value : "";
}

// Creates the key if needed and sets a string value on it.
inline void WriteString(HKEY root, const std::string& path, const char* name, const std::string& value)
{
    RegSetKeyValueA(root, path.c_str(), name, REG_SZ, value.c_str(), static_cast<DWORD>(value.size() + 1));
}

// Everything that registering a server may touch: all of the classes root but the file types (with the
// 32-bit view under Wow6432Node), and the FDT module list in both views.
inline Lines Snapshot()
{
    const std::string modules = "Software\\Korvo\\FDT\\Modules";
    Lines lines = Dump(HKEY_CLASSES_ROOT, "", "HKCR");
    lines.merge(Dump(HKEY_LOCAL_MACHINE, modules, "HKLM\\" + modules, KEY_WOW64_64KEY));
    lines.merge(Dump(HKEY_LOCAL_MACHINE, modules, "HKLM\\Software\\Wow6432Node\\Korvo\\FDT\\Modules", KEY_WOW64_32KEY));
    return lines;
}

// The module's keys, and the FDT interface keys (the four descriptors) that its library holds while it is
// registered.
inline const std::vector<std::string> kModuleKeys = {
    "HKCR\\CLSID\\{dccef494-6108-11d3-b23d-00c04f5124bf}",
    "HKCR\\Korvo.VQ.InstanceData.FbInstanceData",
    "HKCR\\Korvo.VQ.InstanceData.FbInstanceData.1",
    "HKCR\\TypeLib\\{DCCEF493-6108-11D3-B23D-00C04F5124BF}",
    "HKCR\\Interface\\{DCCEF495-6108-11D3-B23D-00C04F5124BF}",
    "HKCR\\Interface\\{9BA5127D-CD5B-11D2-8F74-000000000000}",
    "HKCR\\Interface\\{AD8D15E9-CCCF-11D2-8F72-000000000000}",
    "HKCR\\Interface\\{65147D93-CD50-11D2-8F73-000000000000}",
    "HKCR\\Interface\\{9BA5126C-CD5B-11D2-8F74-000000000000}",
    "HKLM\\Software\\Korvo\\FDT\\Modules\\{DCCEF494-6108-11D3-B23D-00C04F5124BF}",
};

// The key of a line in either view, without case, with a final backslash.
inline std::string Folded(std::string line)
{
    line = line.substr(0, line.find('|')) + "\\";
    CharLowerBuffA(&line[0], static_cast<DWORD>(line.size()));
    const size_t wow = line.find("\\wow6432node\\");
    return wow == std::string::npos ? line : line.erase(wow, 12);
}

// Lines only in before ("- ") or only in after ("+ ") that lie in none of keys nor below them.
inline std::vector<std::string> Changes(const Lines& before, const Lines& after,
                                        const std::vector<std::string>& keys = {})
{
    std::vector<std::string> changes;
    for (const auto& [from, to, sign] :
         {std::make_tuple(&before, &after, "- "), std::make_tuple(&after, &before, "+ ")})
        for (const std::string& line : *from)
            if (!to->count(line) && std::none_of(keys.begin(), keys.end(), [&](const std::string& key) {
                    return Folded(line).rfind(Folded(key), 0) == 0;
                }))
                changes.push_back(sign + line);
    return changes;
}
}  // namespace registry
