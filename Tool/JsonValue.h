#pragma once
// Store values and texts in the tool's JSON: every value keeps its VARTYPE,
// {"type":"VT_I4","value":5}; an object value is its class and persisted
// bytes, {"type":"VT_UNKNOWN","class":"{...}","bytes":"0a1b..."}; a null
// string is JSON null.
#include <windows.h>
#include <oaidl.h>
#include <comutil.h>
#include <string>
#include <nlohmann/json.hpp>
#include "Common/ByteStream.h"

using Json = nlohmann::ordered_json;

std::string Utf8(const wchar_t* text);
_bstr_t Wide(const std::string& text);
// A stored string: null stays JSON null.
Json StringJson(const _bstr_t& text);
// JSON null or a string; anything else fails.
HRESULT StringFromJson(const Json& json, _bstr_t& text);
std::string HresultText(HRESULT hr);

bool IsObjectType(VARTYPE vt);
// A value that is not an object.
Json ValueJson(const VARIANT& value);
Json ObjectJson(VARTYPE vt, const CLSID& clsid, const BYTE* bytes, size_t size);
// The value a JSON value stands for; an object value becomes a PersistedBytes.
// On failure, error says why.
HRESULT ValueFromJson(const Json& json, _variant_t& value, std::string& error);
