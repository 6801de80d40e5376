#pragma once
// The registry as the registration tests read it back. A branch is saved in one call (RegSaveKey: walking the classes root key
// by key takes half a minute under Wine) and read back as one line per key and
// value: "Sub\Inner" and "Sub\Inner|"name"="text"" ("" is the branch itself).
#include <windows.h>
#include <algorithm>
#include <fstream>
#include <set>
#include <string>
#include <tuple>
#include <vector>
#include "TestSupport.h"

namespace registry
{
using Lines = std::set<std::string>;

// Saving a branch needs the backup privilege of the process token.
inline bool EnableBackupPrivilege()
{
    HANDLE token = nullptr;
    TOKEN_PRIVILEGES privileges = {1, {{{}, SE_PRIVILEGE_ENABLED}}};
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token))
        return false;
    if (LookupPrivilegeValueW(nullptr, L"SeBackupPrivilege", &privileges.Privileges[0].Luid))
        AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
    return CloseHandle(token);
}

// Adds the line of key name and, as Wine saves no line for a key that has
// subkeys but no values, of each key above it.
inline void AddKey(Lines& lines, const std::string& prefix, std::string name)
{
    while (lines.insert(prefix + name).second && !name.empty())
    {
        const size_t parent = name.rfind('\\');
        name.erase(parent == std::string::npos ? 0 : parent);
    }
}

// The lines of root\path (none when it does not exist), each after prefix;
// top-level file types are left out. view: KEY_WOW64_32KEY, KEY_WOW64_64KEY
// or 0 for the program's own.
inline Lines Dump(HKEY root, const std::string& path, const std::string& prefix = "", REGSAM view = 0)
{
    static const bool privileged = EnableBackupPrivilege();
    Lines lines;
    HKEY key = nullptr;
    if (!privileged || RegOpenKeyExA(root, path.c_str(), 0, KEY_READ | view, &key) != ERROR_SUCCESS)
        return lines;
    wchar_t directory[MAX_PATH], file[MAX_PATH];
    GetTempPathW(MAX_PATH, directory);
    GetTempFileNameW(directory, L"reg", 0, file);
    DeleteFileW(file);
    const bool saved = RegSaveKeyW(key, file, nullptr) == ERROR_SUCCESS;
    RegCloseKey(key);
    std::ifstream in(file);
    std::string name, line;
    bool skip = true;
    while (saved && std::getline(in, line))
    {
        while (!line.empty() && line.back() == '\r')
            line.pop_back();
        for (std::string next; !line.empty() && line.back() == '\\' && std::getline(in, next);)
            line = line.substr(0, line.size() - 1) + next;
        if (line.empty() || line[0] == ';' || line[0] == '#' || line.compare(0, 4, "WINE") == 0)
            continue;
        if (line[0] == '[')
        {
            name.clear();
            for (size_t at = 1; at < line.size() && line[at] != ']'; ++at)
                name += line[at] == '\\' ? line[++at] : line[at];
            skip = !name.empty() && name[0] == '.';
            if (!skip)
                AddKey(lines, prefix, name);
        }
        else if (!skip)
            lines.insert(prefix + name + "|" + line);
    }
    in.close();
    DeleteFileW(file);
    return lines;
}

// The line of a string value of key as Dump shows it; name nullptr: the default value.
inline std::string StringValue(const std::string& key, const char* name, std::string text)
{
    for (size_t at = 0; (at = text.find_first_of("\\\"", at)) != std::string::npos; at += 2)
        text.insert(at, 1, '\\');
    return key + "|" + (name ? "\"" + std::string(name) + "\"" : "@") + "=\"" + text + "\"";
}

// The string value (nullptr: the default value); "" when missing.
inline std::string ReadString(HKEY root, const std::string& path, const char* name)
{
    char value[1024];
    DWORD size = sizeof value;
    return RegGetValueA(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, value, &size) == ERROR_SUCCESS ? value : "";
}

inline void CreateKey(HKEY root, const char* path)
{
    HKEY key = nullptr;
    if (RegCreateKeyA(root, path, &key) == ERROR_SUCCESS)
        RegCloseKey(key);
}

// Creates the key if needed and sets a string value on it.
inline void WriteString(HKEY root, const std::string& path, const char* name, const std::string& value)
{
    RegSetKeyValueA(root, path.c_str(), name, REG_SZ, value.c_str(), static_cast<DWORD>(value.size() + 1));
}

// Everything that registering a server may touch: all of the classes root
// but the file types (with the 32-bit view under Wow6432Node), and the FDT
// module list in both views.
inline Lines Snapshot()
{
    const std::string modules = "Korvo\\FDT\\Modules";
    Lines lines = Dump(HKEY_CLASSES_ROOT, "", "HKCR\\");
    lines.merge(Dump(HKEY_LOCAL_MACHINE, "Software\\" + modules, "HKLM\\Software\\" + modules + "\\", KEY_WOW64_64KEY));
    lines.merge(Dump(HKEY_LOCAL_MACHINE, "Software\\" + modules, "HKLM\\Software\\Wow6432Node\\" + modules + "\\",
                     KEY_WOW64_32KEY));
    return lines;
}

// The module's keys, and the FDT interface keys (the four descriptors) that
// its library holds while it is registered.
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

// Whether line lies in key or below it, in either view (names compare without case).
inline bool IsUnder(std::string line, std::string key)
{
    CharLowerBuffA(&line[0], static_cast<DWORD>(line.size()));
    CharLowerBuffA(&key[0], static_cast<DWORD>(key.size()));
    const size_t wow = line.find("\\wow6432node\\");
    if (wow != std::string::npos)
        line.erase(wow, 12);
    return line.compare(0, key.size(), key) == 0 &&
           (line.size() == key.size() || line[key.size()] == '\\' || line[key.size()] == '|');
}

// Lines only in before ("- ") or only in after ("+ ") that lie under none of keys.
inline std::vector<std::string> Changes(const Lines& before, const Lines& after,
                                        const std::vector<std::string>& keys = {})
{
    std::vector<std::string> changes;
    for (const auto& [from, to, sign] :
         {std::make_tuple(&before, &after, "- "), std::make_tuple(&after, &before, "+ ")})
        for (const std::string& line : *from)
            if (!to->count(line) &&
                std::none_of(keys.begin(), keys.end(), [&](const std::string& key) { return IsUnder(line, key); }))
                changes.push_back(sign + line);
    return changes;
}
}  // namespace registry
