// Parameter streams and the value encoding: the file of the independent byte
// check, every VARTYPE there and back, persisted objects and values that have
// no stored form.
#include <olectl.h>
#include "TestSupport.h"

namespace
{
using ParameterStreams = InstanceSession;

// Built in place: a copy through the platform's VariantCopy may turn a null string into an empty one.
template <class T>
_variant_t Typed(VARTYPE vt, T payload)
{
    VARIANT value = {};
    memcpy(&V_UI1(&value), &payload, sizeof payload);
    V_VT(&value) = vt;
    return _variant_t(value, false);
}

_variant_t Decimal(const wchar_t* text)
{
    VARIANT value;
    EXPECT_EQ(S_OK, VarDecFromStr(const_cast<LPOLESTR>(text), LOCALE_USER_DEFAULT, 0, &V_DECIMAL(&value)));
    V_VT(&value) = VT_DECIMAL;
    return _variant_t(value, false);
}

ComPtr<IFont> AsFont(const VARIANT& value)
{
    ComPtr<IFont> font;
    if (V_UNKNOWN(&value))
        V_UNKNOWN(&value)->QueryInterface(IID_IFont, reinterpret_cast<void**>(font.GetAddressOf()));
    return font;
}
}  // namespace

TEST_F(ParameterStreams, FileForTheIndependentCheck)
{
    const struct
    {
        const wchar_t *id, *name;
        _variant_t value, defaultValue;
        LONG index, dataType, size, objectType;
        VARIANT_BOOL locked, isProtected, mandatory, isPrivate;
    } rows[] = {
        {L"1", L"b", Typed<LONG>(VT_I4, 0x01020304), Typed<SHORT>(VT_BOOL, -1), -5, 0xFF, 7, 9, VARIANT_TRUE, 0, 0, 0},
        {L"1", L"a", _variant_t(), BstrValue(nullptr), 0x11, 0x22, 0x33, 0x44, 0, VARIANT_TRUE, 0, 0},
        {L"2", L"m", BstrValue(L""), Typed<SHORT>(VT_BOOL, 0), 0, 0, 0, 0, 0, 0, VARIANT_TRUE, 0},
        {L"2", L"p", BstrValue(L"abc"), Typed<double>(VT_R8, 1.5), 0, 0, 0, 0, 0, 0, 0, -1},
        {L"2", L"w", Typed<CHAR>(VT_I1, -2), Typed<LONGLONG>(VT_CY, 12345), 0, 0, 0, 0, 0, 0, 0, 0},
        {L"2", L"x", Typed<USHORT>(VT_UI2, 0xBEEF), Typed<LONGLONG>(VT_I8, -7), 0, 0, 0, 0, 0, 0, 0, 0},
    };
    ASSERT_EQ(L"2", NewInstance());
    for (const auto& row : rows)
    {
        ComPtr<ParameterDescription> p = new ParameterDescription(row.name, row.value, row.defaultValue, row.dataType);
        p->index = row.index, p->size = row.size, p->objectType = row.objectType, p->locked = row.locked;
        p->isProtected = row.isProtected, p->mandatory = row.mandatory, p->isPrivate = row.isPrivate;
        ASSERT_EQ(S_OK, Define(p.Get(), row.id));
    }
    Commit();
    Keep();
}

// Each value comes back equal, as the value and as the default value of another.
TEST_F(ParameterStreams, EveryValueTypeComesBackEqual)
{
    const _variant_t samples[] = {
        Typed<CHAR>(VT_I1, -100), Typed<BYTE>(VT_UI1, 200), Typed<SHORT>(VT_I2, -30000),
        Typed<USHORT>(VT_UI2, 60000), Typed<SHORT>(VT_BOOL, VARIANT_TRUE), Typed<SHORT>(VT_BOOL, VARIANT_FALSE),
        Typed<LONG>(VT_I4, -123456789), Typed<ULONG>(VT_UI4, 4000000000u), Typed<float>(VT_R4, 3.25f),
        Typed<INT>(VT_INT, -7), Typed<UINT>(VT_UINT, 7), Typed<LONG>(VT_ERROR, E_FAIL),
        Typed<double>(VT_R8, -1.0 / 3), Typed<LONGLONG>(VT_CY, 123456789012345),
        Typed<double>(VT_DATE, 45000.123456789), _variant_t(), BstrValue(L"text \x00e4\x4e2d"), BstrValue(nullptr),
        BstrValue(L""), Decimal(L"-79228162514264337593543950.335"), Decimal(L"0.0001"),
        Typed<LONGLONG>(VT_I8, -9223372036854775807LL), Typed<ULONGLONG>(VT_UI8, 18446744073709551615ULL),
    };
    const size_t count = sizeof samples / sizeof samples[0];
    for (size_t i = 0; i < count; ++i)
    {
        SCOPED_TRACE(i);
        const std::wstring name = L"v" + std::to_wstring(i);
        ASSERT_EQ(S_OK, Define(name.c_str(), samples[i], samples[(i + 1) % count]));
        ExpectSame(samples[i], Read(name.c_str()));
        ComPtr<IFdtParameter> info = Info(name.c_str());
        _variant_t value, defaultValue;
        ASSERT_TRUE(info && info->get_m_value(&value) == S_OK && info->get_m_defaultValue(&defaultValue) == S_OK);
        ExpectSame(samples[i], value);
        ExpectSame(samples[(i + 1) % count], defaultValue);
    }
}

TEST_F(ParameterStreams, ObjectsTravelInThePlatformPersistedForm)
{
    FONTDESC description = {sizeof description, const_cast<LPOLESTR>(L"Courier New"), {{135000, 0}}, 700,
                            ANSI_CHARSET, TRUE, TRUE, FALSE};
    ComPtr<IFont> font;
    ComPtr<IDispatch> dispatch;
    ASSERT_EQ(S_OK, OleCreateFontIndirect(&description, IID_IFont, reinterpret_cast<void**>(font.GetAddressOf())));
    ASSERT_EQ(S_OK, font.As(&dispatch));
    ComPtr<ParameterDescription> parameter =
        new ParameterDescription(L"font", _variant_t(dispatch.Get()), _variant_t(static_cast<IUnknown*>(font.Get())));
    parameter->objectType = 42;
    ASSERT_EQ(S_OK, Define(parameter.Get()));

    ComPtr<IFdtParameter> info = Info(L"font");
    _variant_t value, stored;
    LONG objectType = 0;
    ASSERT_TRUE(info && info->get_m_value(&value) == S_OK && info->get_m_defaultValue(&stored) == S_OK);
    ASSERT_EQ(VT_DISPATCH, V_VT(&value));
    ASSERT_EQ(VT_UNKNOWN, V_VT(&stored));
    EXPECT_NE(static_cast<IUnknown*>(dispatch.Get()), V_DISPATCH(&value));
    EXPECT_EQ(S_OK, font->IsEqual(AsFont(value).Get()));
    EXPECT_EQ(S_OK, font->IsEqual(AsFont(stored).Get()));
    // The fields after the objects are read from where the loads stopped.
    info->get_m_objectType(&objectType);
    EXPECT_EQ(42, objectType);
    const _variant_t none(static_cast<IDispatch*>(nullptr));
    ASSERT_EQ(S_OK, Define(L"none", none));
    EXPECT_EQ(none, Read(L"none"));
}

TEST_F(ParameterStreams, ValuesWithoutAStoredFormAreRefused)
{
    // An array has no text: the write gives the conversion's own result.
    VARIANT array;
    V_VT(&array) = VT_ARRAY | VT_I4;
    V_ARRAY(&array) = SafeArrayCreateVector(VT_I4, 0, 2);
    _variant_t arrayValue(array, false), text;
    const HRESULT conversion = VariantChangeType(&text, &arrayValue, 0, VT_BSTR);
    EXPECT_TRUE(FAILED(conversion));
    ComPtr<ParameterDescription> notPersistable = new ParameterDescription(L"x", _variant_t());

    TraceCapture trace;
    EXPECT_EQ(conversion, Define(L"array", arrayValue));
    EXPECT_EQ(conversion, Define(L"array", _variant_t(1L), arrayValue));
    EXPECT_EQ(DISP_E_TYPEMISMATCH, Define(L"null", NullValue()));
    EXPECT_EQ(E_NOINTERFACE, Define(L"object", _variant_t(static_cast<IUnknown*>(notPersistable.Get()))));
    EXPECT_EQ(3u, trace.Count("FbInstanceData::WritePara() CStreamTool::Write(value) failed\n")) << trace.Text();
    EXPECT_EQ(1u, trace.Count("FbInstanceData::WritePara() CStreamTool::Write(default value) failed\n"));
}
