#include "RegistryDump.h"
#include <algorithm>
#include <cstdio>
#include <cstring>

namespace registry_dump
{
namespace
{
std::string Describe(DWORD type, const std::vector<BYTE>& data)
{
    char text[8];
    switch (type)
    {
    case REG_SZ:
        return "S:" + std::string(reinterpret_cast<const char*>(data.data()), strnlen(reinterpret_cast<const char*>(data.data()), data.size()));
    case REG_DWORD:
    {
        DWORD number = 0;
        memcpy(&number, data.data(), std::min<size_t>(sizeof number, data.size()));
        return "D:" + std::to_string(number);
    }
    case REG_BINARY:
    {
        std::string hex = "B:";
        for (BYTE byte : data)
        {
            snprintf(text, sizeof text, "%02x", byte);
            hex += text;
        }
        return hex;
    }
    default:
        return "type " + std::to_string(type);
    }
}

void DumpKey(HKEY key, const std::string& name, std::vector<std::string>& lines)
{
    lines.push_back(name);
    for (DWORD index = 0;; ++index)
    {
        char valueName[16384];
        DWORD nameLength = sizeof valueName, type = 0, size = 0;
        if (RegEnumValueA(key, index, valueName, &nameLength, nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
            break;
        std::vector<BYTE> data(size + 1);
        nameLength = sizeof valueName;
        RegEnumValueA(key, index, valueName, &nameLength, nullptr, &type, data.data(), &size);
        data.resize(size);
        lines.push_back(name + "|" + valueName + "=" + Describe(type, data));
    }
    std::vector<std::string> children;
    for (DWORD index = 0;; ++index)
    {
        char child[256];
        DWORD length = sizeof child;
        if (RegEnumKeyExA(key, index, child, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        children.emplace_back(child, length);
    }
    for (const std::string& child : children)
    {
        HKEY sub = nullptr;
        if (RegOpenKeyExA(key, child.c_str(), 0, KEY_READ, &sub) != ERROR_SUCCESS)
            continue;
        DumpKey(sub, name + "\\" + child, lines);
        RegCloseKey(sub);
    }
}
}  // namespace

std::vector<std::string> Dump(HKEY root, const std::string& path)
{
    std::vector<std::string> lines;
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return lines;
    DumpKey(key, path, lines);
    RegCloseKey(key);
    std::sort(lines.begin(), lines.end());
    return lines;
}

bool KeyExists(HKEY root, const std::string& path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

bool ReadString(HKEY root, const std::string& path, const char* name, std::string& value)
{
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    DWORD type = 0, size = 0;
    LONG result = RegQueryValueExA(key, name, nullptr, &type, nullptr, &size);
    std::vector<char> data(size + 1);
    if (result == ERROR_SUCCESS)
        result = RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
    RegCloseKey(key);
    if (result != ERROR_SUCCESS || type != REG_SZ)
        return false;
    value.assign(data.data(), strnlen(data.data(), size));
    return true;
}

void WriteString(HKEY root, const std::string& path, const char* name, const std::string& value)
{
    HKEY key = nullptr;
    if (RegCreateKeyExA(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) != ERROR_SUCCESS)
        return;
    RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                   static_cast<DWORD>(value.size() + 1));
    RegCloseKey(key);
}

void DeleteTree(HKEY root, const std::string& path)
{
    RegDeleteTreeA(root, path.c_str());
}
}  // namespace registry_dump
