#pragma once
// Reading the registry back for the registration tests, with the registry
// API only (never through the script engine).
#include <windows.h>
#include <string>
#include <vector>

namespace registry_dump
{
// Every key and value under root\path (path itself included), one line each,
// sorted: "Key\Sub" for a key, "Key\Sub|name=S:text", "|name=D:123" or
// "|name=B:00ff" for a value ("" for the default value). Empty when the key
// does not exist.
std::vector<std::string> Dump(HKEY root, const std::string& path);

bool KeyExists(HKEY root, const std::string& path);
// The string value (nullptr: default value); false when missing or not a string.
bool ReadString(HKEY root, const std::string& path, const char* name, std::string& value);
// Creates the key and sets a string value on it (nullptr: default value).
void WriteString(HKEY root, const std::string& path, const char* name, const std::string& value);
void DeleteTree(HKEY root, const std::string& path);
}  // namespace registry_dump
