#pragma once
// Snapshots of everything that registering a server may touch: all of
// HKEY_CLASSES_ROOT but the file types (so HKCR\Interface, HKCR\TypeLib,
// HKCR\CLSID and the programmatic identifiers, and under Wow6432Node the
// 32-bit view of them) and the FDT module list. One line per key and per
// value: "HKCR\<key path>" and "HKCR\<key path>|<value>".
//
// The classes root is saved to a file in one call (RegSaveKey) and read back:
// walking its ten thousand keys one call at a time takes half a minute under
// Wine. The file is in Wine's registry format; key time stamps are dropped.
#include <ole2.h>
#include <cstdio>
#include <fstream>
#include <set>
#include "RegistryDump.h"

// Runs a program to its end, as an administrator's command line would.
namespace child_process
{
constexpr DWORD kNotFinished = 0xFFFFFFFF;

// The exit code of the command line run in directory (nullptr: this one);
// kNotFinished when it could not start or did not end within timeoutMs.
inline DWORD Run(std::wstring commandLine, const wchar_t* directory = nullptr, DWORD timeoutMs = 120000)
{
    STARTUPINFOW startup = {sizeof startup};
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, directory, &startup, &process))
        return kNotFinished;
    CloseHandle(process.hThread);
    DWORD exitCode = kNotFinished;
    if (WaitForSingleObject(process.hProcess, timeoutMs) == WAIT_OBJECT_0)
        GetExitCodeProcess(process.hProcess, &exitCode);
    else
        TerminateProcess(process.hProcess, kNotFinished);
    CloseHandle(process.hProcess);
    return exitCode;
}

inline std::wstring SystemProgram(const wchar_t* name)
{
    wchar_t directory[MAX_PATH];
    const UINT length = GetSystemDirectoryW(directory, MAX_PATH);
    return L"\"" + std::wstring(directory, length) + L"\\" + name + L"\"";
}

// The folder of this program, with a trailing backslash.
inline std::wstring ProgramDirectory()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring program(path, length);
    return program.substr(0, program.find_last_of(L"\\/") + 1);
}
}  // namespace child_process


namespace registry_snapshot
{
using Snapshot = std::set<std::string>;

inline bool EqualNoCase(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, a.data(), static_cast<int>(a.size()),
                                                  b.data(), static_cast<int>(b.size())) == CSTR_EQUAL;
}

// Whether line lies in key or below it, in either registry view (key names
// compare without case).
inline bool IsUnder(std::string path, const std::string& key)
{
    std::string lower = path;
    CharLowerBuffA(&lower[0], static_cast<DWORD>(lower.size()));
    const size_t wow = lower.find("\\wow6432node\\");
    if (wow != std::string::npos)
        path.erase(wow, 12);
    if (path.size() < key.size() || !EqualNoCase(path.substr(0, key.size()), key))
        return false;
    return path.size() == key.size() || path[key.size()] == '\\' || path[key.size()] == '|';
}

// Key "[a\\\\b] 1234" and value lines of a saved branch, as "<prefix><a\b>" and
// "<prefix><a\b>|<value>"; top-level file types are left out.
inline void ReadSavedBranch(const std::wstring& file, const std::string& prefix, Snapshot& snapshot)
{
    std::ifstream in(file.c_str());
    std::string key, line;
    bool skip = true;
    while (std::getline(in, line))
    {
        while (!line.empty() && line.back() == '\r')
            line.pop_back();
        for (std::string next; !line.empty() && line.back() == '\\' && std::getline(in, next);)
            line = line.substr(0, line.size() - 1) + next;
        if (line.empty() || line[0] == ';' || line[0] == '#' || line.compare(0, 4, "WINE") == 0)
            continue;
        if (line[0] == '[')
        {
            key.clear();
            for (size_t at = 1; at < line.size() && line[at] != ']'; ++at)
                key += line[at] == '\\' ? line[++at] : line[at];
            skip = key.empty() || key[0] == '.';
            if (!skip)
                snapshot.insert(prefix + key);
        }
        else if (!skip)
            snapshot.insert(prefix + key + "|" + line);
    }
}

// Saving a branch needs the backup privilege of the process token.
inline void EnableBackupPrivilege()
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token))
        return;
    TOKEN_PRIVILEGES privileges = {1};
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    if (LookupPrivilegeValueW(nullptr, L"SeBackupPrivilege", &privileges.Privileges[0].Luid))
        AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
    CloseHandle(token);
}

inline Snapshot Take()
{
    EnableBackupPrivilege();
    Snapshot snapshot;
    wchar_t directory[MAX_PATH], file[MAX_PATH];
    GetTempPathW(MAX_PATH, directory);
    GetTempFileNameW(directory, L"reg", 0, file);
    DeleteFileW(file);
    if (RegSaveKeyW(HKEY_CLASSES_ROOT, file, nullptr) == ERROR_SUCCESS)
        ReadSavedBranch(file, "HKCR\\", snapshot);
    DeleteFileW(file);
    const std::string modules = "Korvo\\FDT\\Modules";
    for (const REGSAM view : {KEY_WOW64_64KEY, KEY_WOW64_32KEY})
        for (const std::string& line : registry_dump::Dump(HKEY_LOCAL_MACHINE, "Software\\" + modules, view))
            snapshot.insert((view == KEY_WOW64_32KEY ? "HKLM\\Software\\Wow6432Node\\" : "HKLM\\Software\\") +
                            modules + (line.empty() || line[0] == '|' ? "" : "\\") + line);
    return snapshot;
}

// What the FDT installation registers from its folder before any module
// enlists: the module list, the interface library and the registration component.
inline void RegisterFdtStandIns(const std::wstring& folder)
{
    RegCloseKey(registry_dump::CreateKey(HKEY_LOCAL_MACHINE, "Software\\Korvo\\FDT\\Modules"));
    ITypeLib* library = nullptr;
    if (SUCCEEDED(LoadTypeLibEx((folder + L"FdtInterfaces.tlb").c_str(), REGKIND_REGISTER, &library)))
        library->Release();
    child_process::Run(child_process::SystemProgram(L"regsvr32.exe") + L" /s \"" + folder + L"FdtRegisterComp.dll\"");
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

// Lines only in before ("-") or only in after ("+").
inline std::vector<std::string> Difference(const Snapshot& before, const Snapshot& after)
{
    std::vector<std::string> lines;
    for (const std::string& line : before)
        if (!after.count(line))
            lines.push_back("- " + line);
    for (const std::string& line : after)
        if (!before.count(line))
            lines.push_back("+ " + line);
    return lines;
}

// The lines of the difference that lie under none of the keys.
inline std::vector<std::string> Foreign(const std::vector<std::string>& difference, const std::vector<std::string>& keys)
{
    std::vector<std::string> foreign;
    for (const std::string& line : difference)
    {
        bool owned = false;
        for (const std::string& key : keys)
            owned = owned || IsUnder(line.substr(2), key);
        if (!owned)
            foreign.push_back(line);
    }
    return foreign;
}

// The default value of HKCR\Interface\<iid>\TypeLib in the program's own view; "" when missing.
inline std::string InterfaceLibrary(const std::string& iid)
{
    return registry_dump::ReadString(HKEY_CLASSES_ROOT, "Interface\\" + iid + "\\TypeLib", nullptr);
}
}  // namespace registry_snapshot
