// Parameter streams and the value encoding: the file that
// check_parameter_streams.py reads, every VARTYPE there and back, persisted
// objects, and values that have no stored form.
#include "ParameterFixture.h"
#include <olectl.h>

namespace
{
using ParameterStreams = StoreFixture;

template <class T>
_variant_t Typed(VARTYPE vt, T payload)
{
    VARIANT value;
    memset(&value, 0, sizeof value);
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

// Equal VARTYPE and value, a null string null and an empty one empty.
void ExpectSame(const _variant_t& expected, const _variant_t& actual)
{
    EXPECT_EQ(expected, actual) << "VARTYPE " << V_VT(&expected);
    const auto isNull = [](const VARIANT& value) { return V_VT(&value) == VT_BSTR && !V_BSTR(&value); };
    EXPECT_EQ(isNull(expected), isNull(actual));
}

_variant_t Get(IFdtParameter* parameter, HRESULT (STDMETHODCALLTYPE IFdtParameter::*getter)(VARIANT*))
{
    _variant_t value;
    EXPECT_EQ(S_OK, (parameter->*getter)(&value));
    return value;
}

ComPtr<IFont> AsFont(IUnknown* object)
{
    ComPtr<IFont> font;
    if (object)
        object->QueryInterface(IID_IFont, reinterpret_cast<void**>(font.GetAddressOf()));
    return font;
}
}  // namespace

TEST_F(ParameterStreams, FileForTheIndependentCheck)
{
    ComPtr<TestParameter> b = TestParameter::Make(L"b", Typed<LONG>(VT_I4, 0x01020304), Typed<SHORT>(VT_BOOL, -1));
    b->index = -5, b->dataType = 0xFF, b->size = 7, b->objectType = 9, b->locked = VARIANT_TRUE;
    ComPtr<TestParameter> a = TestParameter::Make(L"a", _variant_t(), BstrValue(nullptr));
    a->index = 0x11, a->dataType = 0x22, a->size = 0x33, a->objectType = 0x44, a->isProtected = VARIANT_TRUE;
    ASSERT_EQ(S_OK, Define(b.Get()));
    ASSERT_EQ(S_OK, Define(a.Get()));

    MakeInstance(L"2");
    ComPtr<TestParameter> m = TestParameter::Make(L"m", BstrValue(L""), Typed<SHORT>(VT_BOOL, 0));
    m->mandatory = VARIANT_TRUE;
    ComPtr<TestParameter> p = TestParameter::Make(L"p", BstrValue(L"abc"), Typed<double>(VT_R8, 1.5));
    p->isPrivate = -1;
    ComPtr<TestParameter> w = TestParameter::Make(L"w", Typed<CHAR>(VT_I1, -2), Typed<LONGLONG>(VT_CY, 12345));
    ComPtr<TestParameter> x = TestParameter::Make(L"x", Typed<USHORT>(VT_UI2, 0xBEEF), Typed<LONGLONG>(VT_I8, -7));
    for (TestParameter* parameter : {m.Get(), p.Get(), w.Get(), x.Get()})
        ASSERT_EQ(S_OK, Define(parameter, L"2"));
    KeepFile();
}

TEST_F(ParameterStreams, EveryValueTypeComesBackEqual)
{
    // Built in place: a copy through the platform's VariantCopy may turn the
    // null string into an empty one.
    const _variant_t samples[] = {
        Typed<CHAR>(VT_I1, -100),
        Typed<BYTE>(VT_UI1, 200),
        Typed<SHORT>(VT_I2, -30000),
        Typed<USHORT>(VT_UI2, 60000),
        Typed<SHORT>(VT_BOOL, VARIANT_TRUE),
        Typed<SHORT>(VT_BOOL, VARIANT_FALSE),
        Typed<LONG>(VT_I4, -123456789),
        Typed<ULONG>(VT_UI4, 4000000000u),
        Typed<float>(VT_R4, 3.25f),
        Typed<INT>(VT_INT, -7),
        Typed<UINT>(VT_UINT, 7),
        Typed<LONG>(VT_ERROR, E_FAIL),
        Typed<double>(VT_R8, -1.0 / 3),
        Typed<LONGLONG>(VT_CY, 123456789012345),
        Typed<double>(VT_DATE, 45000.123456789),
        _variant_t(),
        BstrValue(L"text \x00e4\x4e2d"),
        BstrValue(nullptr),
        BstrValue(L""),
        Decimal(L"-79228162514264337593543950.335"),
        Decimal(L"0.0001"),
        Typed<LONGLONG>(VT_I8, -9223372036854775807LL),
        Typed<ULONGLONG>(VT_UI8, 18446744073709551615ULL),
    };
    const size_t count = sizeof samples / sizeof samples[0];
    for (size_t i = 0; i < count; ++i)
    {
        SCOPED_TRACE(i);
        const std::wstring name = L"v" + std::to_wstring(i);
        const _variant_t& defaultValue = samples[(i + 1) % count];
        ASSERT_EQ(S_OK, Define(name.c_str(), samples[i], defaultValue));
        ExpectSame(samples[i], Read(name.c_str()));
        ComPtr<IFdtParameter> info = Info(name.c_str());
        ASSERT_TRUE(info);
        ExpectSame(samples[i], Get(info.Get(), &IFdtParameter::get_m_value));
        ExpectSame(defaultValue, Get(info.Get(), &IFdtParameter::get_m_defaultValue));
    }
}

TEST_F(ParameterStreams, ObjectsTravelInThePlatformPersistedForm)
{
    FONTDESC description = {sizeof description, const_cast<LPOLESTR>(L"Courier New"), {{135000, 0}}, 700,
                            ANSI_CHARSET, TRUE, TRUE, FALSE};
    ComPtr<IFont> font;
    ASSERT_EQ(S_OK, OleCreateFontIndirect(&description, IID_IFont, reinterpret_cast<void**>(font.GetAddressOf())));
    ComPtr<IDispatch> dispatch;
    ASSERT_EQ(S_OK, font.As(&dispatch));
    ComPtr<TestParameter> parameter =
        TestParameter::Make(L"font", _variant_t(dispatch.Get()), _variant_t(static_cast<IUnknown*>(font.Get())));
    parameter->index = 41;
    parameter->objectType = 42;
    ASSERT_EQ(S_OK, Define(parameter.Get()));

    ComPtr<IFdtParameter> info = Info(L"font");
    ASSERT_TRUE(info);
    const _variant_t value = Get(info.Get(), &IFdtParameter::get_m_value);
    const _variant_t stored = Get(info.Get(), &IFdtParameter::get_m_defaultValue);
    ASSERT_EQ(VT_DISPATCH, V_VT(&value));
    ASSERT_EQ(VT_UNKNOWN, V_VT(&stored));
    EXPECT_NE(static_cast<IUnknown*>(dispatch.Get()), V_DISPATCH(&value));
    EXPECT_EQ(S_OK, font->IsEqual(AsFont(V_DISPATCH(&value)).Get()));
    EXPECT_EQ(S_OK, font->IsEqual(AsFont(V_UNKNOWN(&stored)).Get()));
    ComPtr<IFont> other;
    ASSERT_EQ(S_OK, font->Clone(other.GetAddressOf()));
    other->put_Weight(400);
    EXPECT_EQ(S_FALSE, other->IsEqual(AsFont(V_DISPATCH(&value)).Get()));
    // The fields after the objects are read from where the loads stopped.
    LONG index = 0, objectType = 0;
    EXPECT_EQ(S_OK, info->get_m_index(&index));
    EXPECT_EQ(S_OK, info->get_m_objectType(&objectType));
    EXPECT_EQ(41, index);
    EXPECT_EQ(42, objectType);

    // No object comes back as no object.
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
    _variant_t arrayValue(array, false), text, null;
    const HRESULT conversion = VariantChangeType(&text, &arrayValue, 0, VT_BSTR);
    EXPECT_TRUE(FAILED(conversion));
    V_VT(&null) = VT_NULL;
    ComPtr<TestParameter> notPersistable = TestParameter::Make(L"x", _variant_t());

    TraceCapture trace;
    EXPECT_EQ(conversion, Define(L"array", arrayValue));
    EXPECT_EQ(conversion, Define(L"array", _variant_t(1L), arrayValue));
    EXPECT_EQ(DISP_E_TYPEMISMATCH, Define(L"null", null));
    EXPECT_EQ(E_NOINTERFACE, Define(L"object", _variant_t(static_cast<IUnknown*>(notPersistable.Get()))));
    EXPECT_EQ(3u, trace.Count("FbInstanceData::WritePara() CStreamTool::Write(value) failed\n")) << trace.Text();
    EXPECT_EQ(1u, trace.Count("FbInstanceData::WritePara() CStreamTool::Write(default value) failed\n"));
}
