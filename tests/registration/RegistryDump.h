#pragma once
// Reading the registry back for the registration tests, with the registry
// API only (never through the script engine).
#include <windows.h>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace registry_dump
{
inline std::vector<std::string> Sorted(std::vector<std::string> lines)
{
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Lines of the key name, and of each value ("" names the default value):
// "name|value=S:text", "|value=D:123", "|value=B:00ff". A string keeps its
// terminating zero and a number is four bytes; anything else shows as hex,
// so that a wrong size fails the comparison.
inline void DumpKey(HKEY key, const std::string& name, std::vector<std::string>& lines, REGSAM view = 0)
{
    lines.push_back(name);
    char valueName[256], child[256];
    BYTE data[8192];
    DWORD nameLength = sizeof valueName, type = 0, size = sizeof data;
    for (DWORD i = 0; RegEnumValueA(key, i, valueName, &nameLength, nullptr, &type, data, &size) == ERROR_SUCCESS;
         ++i, nameLength = sizeof valueName, size = sizeof data)
    {
        const char* text = reinterpret_cast<const char*>(data);
        std::string value = type == REG_BINARY ? "B:" : type == REG_SZ ? "S?" : "type " + std::to_string(type) + ":";
        if (type == REG_SZ && size > 0 && memchr(text, 0, size) == text + size - 1)
            value = "S:" + std::string(text, size - 1);
        else if (type == REG_DWORD && size == sizeof(DWORD))
            value = "D:" + std::to_string(*reinterpret_cast<const DWORD*>(data));
        else
            for (DWORD at = 0; at < size; ++at)
                value += std::string{"0123456789abcdef"[data[at] >> 4], "0123456789abcdef"[data[at] & 15]};
        lines.push_back(name + "|" + valueName + "=" + value);
    }
    for (DWORD i = 0, length = sizeof child;
         RegEnumKeyExA(key, i, child, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = sizeof child)
    {
        HKEY sub = nullptr;
        if (RegOpenKeyExA(key, child, 0, KEY_READ | view, &sub) != ERROR_SUCCESS)
            continue;
        DumpKey(sub, name.empty() ? child : name + "\\" + child, lines, view);
        RegCloseKey(sub);
    }
}

// Every key and value under root\path, one line each, sorted and named
// relative to path ("" is the key itself, "Sub\Inner" a subkey). Empty when
// the key does not exist. view: KEY_WOW64_32KEY or KEY_WOW64_64KEY, or 0 for
// the program's own.
inline std::vector<std::string> Dump(HKEY root, const std::string& path, REGSAM view = 0)
{
    std::vector<std::string> lines;
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ | view, &key) != ERROR_SUCCESS)
        return lines;
    DumpKey(key, "", lines, view);
    RegCloseKey(key);
    return Sorted(lines);
}

inline bool KeyExists(HKEY root, const std::string& path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

// The string value (nullptr: the default value); "" when missing.
inline std::string ReadString(HKEY root, const std::string& path, const char* name)
{
    char value[1024];
    DWORD size = sizeof value;
    return RegGetValueA(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, value, &size) == ERROR_SUCCESS ? value : "";
}

// Creates the key if needed; the caller closes it (a null key is ignored).
inline HKEY CreateKey(HKEY root, const std::string& path)
{
    HKEY key = nullptr;
    RegCreateKeyExA(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr);
    return key;
}

// Creates the key if needed and sets a string value on it.
inline void WriteString(HKEY root, const std::string& path, const char* name, const std::string& value)
{
    RegSetKeyValueA(root, path.c_str(), name, REG_SZ, value.c_str(), static_cast<DWORD>(value.size() + 1));
}
}  // namespace registry_dump
