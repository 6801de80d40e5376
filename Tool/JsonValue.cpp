#include "Tool/JsonValue.h"
#include <cmath>
#include <cstdio>
#include <cstring>
#include <cctype>
#include "Common/PersistedBytes.h"

namespace
{
const struct
{
    VARTYPE vt;
    const char* name;
} kTypeNames[] = {{VT_EMPTY, "VT_EMPTY"},   {VT_NULL, "VT_NULL"},         {VT_I2, "VT_I2"},
                  {VT_I4, "VT_I4"},         {VT_R4, "VT_R4"},             {VT_R8, "VT_R8"},
                  {VT_CY, "VT_CY"},         {VT_DATE, "VT_DATE"},         {VT_BSTR, "VT_BSTR"},
                  {VT_DISPATCH, "VT_DISPATCH"}, {VT_ERROR, "VT_ERROR"},   {VT_BOOL, "VT_BOOL"},
                  {VT_DECIMAL, "VT_DECIMAL"}, {VT_UNKNOWN, "VT_UNKNOWN"}, {VT_I1, "VT_I1"},
                  {VT_UI1, "VT_UI1"},       {VT_UI2, "VT_UI2"},           {VT_UI4, "VT_UI4"},
                  {VT_I8, "VT_I8"},         {VT_UI8, "VT_UI8"},           {VT_INT, "VT_INT"},
                  {VT_UINT, "VT_UINT"}};

// A VARTYPE without a name is shown as its number.
Json TypeJson(VARTYPE vt)
{
    for (const auto& entry : kTypeNames)
        if (entry.vt == vt)
            return entry.name;
    return vt;
}

bool TypeFromJson(const Json& json, VARTYPE& vt)
{
    if (json.is_number_unsigned() && json.get<unsigned>() <= 0xFFFF)
        return vt = static_cast<VARTYPE>(json.get<unsigned>()), true;
    for (const auto& entry : kTypeNames)
        if (json.is_string() && json.get<std::string>() == entry.name)
            return vt = entry.vt, true;
    return false;
}

// JSON has no NaN or infinities: those are strings.
Json FloatJson(double number)
{
    if (std::isnan(number))
        return "NaN";
    if (std::isinf(number))
        return number > 0 ? "Infinity" : "-Infinity";
    return number;
}

bool FloatFromJson(const Json& json, double& number)
{
    if (json.is_number())
        return number = json.get<double>(), true;
    const std::string text = json.is_string() ? json.get<std::string>() : "";
    if (text == "NaN")
        return number = NAN, true;
    if (text == "Infinity" || text == "-Infinity")
        return number = text[0] == '-' ? -INFINITY : INFINITY, true;
    return false;
}

// A currency as its exact decimal text with four places.
Json CurrencyJson(CY value)
{
    const unsigned long long magnitude =
        value.int64 < 0 ? 0ULL - static_cast<unsigned long long>(value.int64) : value.int64;
    char text[40];
    std::snprintf(text, sizeof text, "%s%llu.%04llu", value.int64 < 0 ? "-" : "", magnitude / 10000, magnitude % 10000);
    return text;
}

bool CurrencyFromJson(const Json& json, CY& value)
{
    if (!json.is_string())
        return false;
    std::string text = json.get<std::string>();
    const size_t dot = text.find('.');
    if (dot == std::string::npos || text.size() - dot != 5)
        return false;
    text.erase(dot, 1);
    try
    {
        size_t used = 0;
        value.int64 = std::stoll(text, &used);
        return used == text.size();
    }
    catch (const std::exception&)
    {
        return false;
    }
}

std::string Hex(const BYTE* bytes, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i)
        text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return text;
}

bool FromHex(const std::string& text, Bytes& bytes)
{
    if (text.size() % 2)
        return false;
    bytes.clear();
    for (size_t i = 0; i < text.size(); i += 2)
    {
        unsigned value = 0;
        if (std::sscanf(text.substr(i, 2).c_str(), "%2x", &value) != 1 || !isxdigit(text[i + 1]))
            return false;
        bytes.push_back(static_cast<BYTE>(value));
    }
    return true;
}

template <class T>
bool Integer(const Json& json, T& value)
{
    if (!json.is_number_integer())
        return false;
    if (json.is_number_unsigned())
    {
        const unsigned long long number = json.get<unsigned long long>();
        value = static_cast<T>(number);
        return number == static_cast<unsigned long long>(value) && !(value < T(0));
    }
    const long long number = json.get<long long>();
    value = static_cast<T>(number);
    return number == static_cast<long long>(value);
}
}  // namespace

std::string Utf8(const wchar_t* text)
{
    if (!text || !*text)
        return std::string();
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(size > 0 ? size - 1 : 0, '\0');
    if (size > 1)
        WideCharToMultiByte(CP_UTF8, 0, text, -1, &result[0], size, nullptr, nullptr);
    return result;
}

_bstr_t Wide(const std::string& text)
{
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    BSTR wide = SysAllocStringLen(nullptr, size);
    if (size)
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide, size);
    return _bstr_t(wide, false);
}

Json StringJson(const _bstr_t& text)
{
    const wchar_t* units = text;
    return units ? Json(Utf8(units)) : Json(nullptr);
}

HRESULT StringFromJson(const Json& json, _bstr_t& text)
{
    if (json.is_null())
        return text = _bstr_t(), S_OK;
    if (!json.is_string())
        return E_INVALIDARG;
    text = Wide(json.get<std::string>());
    return S_OK;
}

std::string HresultText(HRESULT hr)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

bool IsObjectType(VARTYPE vt)
{
    return vt == VT_UNKNOWN || vt == VT_DISPATCH;
}

Json ValueJson(const VARIANT& value)
{
    Json json = {{"type", TypeJson(V_VT(&value))}};
    Json& shown = json["value"];
    switch (V_VT(&value))
    {
    case VT_EMPTY: json.erase("value"); break;
    case VT_I1: shown = V_I1(&value); break;
    case VT_I2: shown = V_I2(&value); break;
    case VT_I4: shown = V_I4(&value); break;
    case VT_INT: shown = V_INT(&value); break;
    case VT_I8: shown = V_I8(&value); break;
    case VT_UI1: shown = V_UI1(&value); break;
    case VT_UI2: shown = V_UI2(&value); break;
    case VT_UI4: shown = V_UI4(&value); break;
    case VT_UINT: shown = V_UINT(&value); break;
    case VT_UI8: shown = V_UI8(&value); break;
    case VT_ERROR: shown = static_cast<ULONG>(V_ERROR(&value)); break;
    case VT_R4: shown = FloatJson(V_R4(&value)); break;
    case VT_R8: shown = FloatJson(V_R8(&value)); break;
    case VT_DATE: shown = FloatJson(V_DATE(&value)); break;
    case VT_CY: shown = CurrencyJson(V_CY(&value)); break;
    case VT_BOOL:
        // Only the two canonical values are booleans; any other stored bits stay a number.
        if (V_BOOL(&value) == VARIANT_TRUE || V_BOOL(&value) == VARIANT_FALSE)
            shown = V_BOOL(&value) == VARIANT_TRUE;
        else
            shown = V_BOOL(&value);
        break;
    case VT_BSTR: shown = StringJson(_bstr_t(V_BSTR(&value))); break;
    case VT_DECIMAL:
    {
        BSTR text = nullptr;
        if (SUCCEEDED(VarBstrFromDec(const_cast<DECIMAL*>(&V_DECIMAL(&value)), LOCALE_INVARIANT, 0, &text)))
            shown = Utf8(text);
        SysFreeString(text);
        break;
    }
    default: json.erase("value"); break;
    }
    return json;
}

Json ObjectJson(VARTYPE vt, const CLSID& clsid, const BYTE* bytes, size_t size)
{
    wchar_t text[40] = {};
    StringFromGUID2(clsid, text, 40);
    return {{"type", TypeJson(vt)}, {"class", Utf8(text)}, {"bytes", Hex(bytes, size)}};
}

HRESULT ValueFromJson(const Json& json, _variant_t& value, std::string& error)
{
    value.Clear();
    VARTYPE vt = VT_EMPTY;
    if (!json.is_object() || !json.contains("type") || !TypeFromJson(json["type"], vt))
        return error = "a value needs a known \"type\"", E_INVALIDARG;
    if (IsObjectType(vt))
    {
        CLSID clsid = CLSID_NULL;
        Bytes bytes;
        const std::string text = json.value("class", std::string());
        if (FAILED(CLSIDFromString(Wide(text), &clsid)) || !FromHex(json.value("bytes", std::string()), bytes))
            return error = "an object value needs \"class\" and hexadecimal \"bytes\"", E_INVALIDARG;
        V_VT(&value) = vt;
        // The null class is no object, which the store writes as that class.
        V_UNKNOWN(&value) = IsEqualCLSID(clsid, CLSID_NULL) && bytes.empty()
                                ? nullptr
                                : static_cast<IPersistStream*>(new PersistedBytes(clsid, std::move(bytes)));
        return S_OK;
    }
    const Json shown = json.contains("value") ? json["value"] : Json();
    VARIANT read;
    std::memset(&read, 0, sizeof read);
    V_VT(&read) = vt;
    double number = 0;
    bool ok = true;
    switch (vt)
    {
    case VT_EMPTY: ok = shown.is_null(); break;
    case VT_I1: ok = Integer(shown, V_I1(&read)); break;
    case VT_I2: ok = Integer(shown, V_I2(&read)); break;
    case VT_I4: ok = Integer(shown, V_I4(&read)); break;
    case VT_INT: ok = Integer(shown, V_INT(&read)); break;
    case VT_I8: ok = Integer(shown, V_I8(&read)); break;
    case VT_UI1: ok = Integer(shown, V_UI1(&read)); break;
    case VT_UI2: ok = Integer(shown, V_UI2(&read)); break;
    case VT_UI4: ok = Integer(shown, V_UI4(&read)); break;
    case VT_UINT: ok = Integer(shown, V_UINT(&read)); break;
    case VT_UI8: ok = Integer(shown, V_UI8(&read)); break;
    case VT_ERROR: ok = Integer(shown, *reinterpret_cast<ULONG*>(&V_ERROR(&read))); break;
    case VT_R4: ok = FloatFromJson(shown, number), V_R4(&read) = static_cast<float>(number); break;
    case VT_R8: ok = FloatFromJson(shown, V_R8(&read)); break;
    case VT_DATE: ok = FloatFromJson(shown, V_DATE(&read)); break;
    case VT_CY: ok = CurrencyFromJson(shown, V_CY(&read)); break;
    case VT_BOOL:
        if (shown.is_boolean())
            V_BOOL(&read) = shown.get<bool>() ? VARIANT_TRUE : VARIANT_FALSE;
        else
            ok = Integer(shown, V_BOOL(&read));
        break;
    case VT_BSTR:
    {
        _bstr_t text;
        ok = SUCCEEDED(StringFromJson(shown, text));
        V_BSTR(&read) = static_cast<const wchar_t*>(text) ? text.Detach() : nullptr;   // null detaches as an error
        break;
    }
    case VT_DECIMAL:
        ok = shown.is_string() &&
             SUCCEEDED(VarDecFromStr(Wide(shown.get<std::string>()), LOCALE_INVARIANT, 0, &V_DECIMAL(&read)));
        V_VT(&read) = VT_DECIMAL;   // the decimal's header overlays the VARTYPE
        break;
    default: ok = false; break;
    }
    if (!ok)
    {
        VariantClear(&read);
        return error = "a value of type " + json["type"].dump() + " with " + shown.dump() + " cannot be stored",
               E_INVALIDARG;
    }
    value.Attach(read);
    return S_OK;
}
