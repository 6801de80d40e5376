#pragma once
// Makes a new store file from the tool's JSON through the module itself, as
// a frame would: the file is exactly what the module writes.
#include <string>
#include <vector>
#include "Tool/JsonValue.h"

class StoreImporter
{
public:
    // On failure nothing is left at path and error says why. notes tell
    // where the new file differs from the JSON (stream numbers given anew).
    HRESULT Import(const Json& content, const wchar_t* path, std::string& error, std::vector<std::string>& notes);
};
