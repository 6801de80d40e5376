// Parameter streams and the value encoding: the bytes (checked once more by
// check_parameter_streams.py), every VARTYPE there and back, persisted
// objects, and values that cannot be stored.
#include "ParameterFixture.h"

namespace
{
class ParameterStreams : public StoreFixture
{
};

_variant_t Typed(VARTYPE vt, const void* payload, size_t size)
{
    VARIANT value;
    memset(&value, 0, sizeof value);
    memcpy(&V_UI1(&value), payload, size);
    V_VT(&value) = vt;
    return _variant_t(value, false);
}

template <class T>
_variant_t Typed(VARTYPE vt, T payload)
{
    return Typed(vt, &payload, sizeof payload);
}

_variant_t Decimal(const wchar_t* text)
{
    _variant_t value;
    DECIMAL decimal = {};
    EXPECT_EQ(S_OK, VarDecFromStr(const_cast<LPOLESTR>(text), LOCALE_USER_DEFAULT, 0, &decimal));
    V_DECIMAL(&value) = decimal;
    V_VT(&value) = VT_DECIMAL;
    return value;
}

// Equal VARTYPE and equal value; text-encoded numbers compare by value.
void ExpectSameValue(const VARIANT& expected, const VARIANT& actual)
{
    ASSERT_EQ(V_VT(&expected), V_VT(&actual));
    size_t width = 0;
    switch (V_VT(&expected))
    {
    case VT_EMPTY:
        return;
    case VT_BSTR:
        EXPECT_EQ(V_BSTR(&expected) == nullptr, V_BSTR(&actual) == nullptr);
        EXPECT_EQ(SysStringLen(V_BSTR(&expected)), SysStringLen(V_BSTR(&actual)));
        if (V_BSTR(&expected) && V_BSTR(&actual))
        {
            EXPECT_STREQ(V_BSTR(&expected), V_BSTR(&actual));
        }
        return;
    case VT_DECIMAL:
        EXPECT_EQ(VARCMP_EQ, VarDecCmp(const_cast<DECIMAL*>(&V_DECIMAL(&expected)),
                                       const_cast<DECIMAL*>(&V_DECIMAL(&actual))));
        return;
    case VT_I1:
    case VT_UI1:
        width = 1;
        break;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
        width = 2;
        break;
    case VT_I4:
    case VT_UI4:
    case VT_R4:
    case VT_INT:
    case VT_UINT:
    case VT_ERROR:
        width = 4;
        break;
    default:
        width = 8;
    }
    EXPECT_EQ(0, memcmp(&V_UI1(&expected), &V_UI1(&actual), width)) << "VARTYPE " << V_VT(&expected);
}

_variant_t Get(IFdtParameter* parameter, HRESULT (STDMETHODCALLTYPE IFdtParameter::*getter)(VARIANT*))
{
    _variant_t value;
    EXPECT_EQ(S_OK, (parameter->*getter)(&value));
    return value;
}
}  // namespace

TEST_F(ParameterStreams, FileForTheIndependentCheck)
{
    MakeInstance(L"2");
    ComPtr<TestParameter> b = TestParameter::Make(L"b", Typed<LONG>(VT_I4, 0x01020304), Typed<SHORT>(VT_BOOL, -1));
    b->index = -5;
    b->dataType = 0xFF;
    b->size = 7;
    b->objectType = 9;
    b->locked = VARIANT_TRUE;
    ComPtr<TestParameter> a = TestParameter::Make(L"a", _variant_t(), BstrValue(nullptr));
    a->isProtected = VARIANT_TRUE;
    a->index = 0x11;
    a->dataType = 0x22;
    a->size = 0x33;
    a->objectType = 0x44;
    ASSERT_EQ(S_OK, Define(b.Get()));
    ASSERT_EQ(S_OK, Define(a.Get()));

    ComPtr<TestParameter> m = TestParameter::Make(L"m", BstrValue(L""), Typed<SHORT>(VT_BOOL, 0));
    m->mandatory = VARIANT_TRUE;
    ComPtr<TestParameter> p = TestParameter::Make(L"p", BstrValue(L"abc"), Typed<double>(VT_R8, 1.5));
    p->isPrivate = -1;
    ComPtr<TestParameter> w = TestParameter::Make(L"w", Typed<CHAR>(VT_I1, -2), Typed<LONGLONG>(VT_CY, 12345));
    ComPtr<TestParameter> x = TestParameter::Make(L"x", Typed<USHORT>(VT_UI2, 0xBEEF), Typed<LONGLONG>(VT_I8, -7));
    for (TestParameter* parameter : {m.Get(), p.Get(), w.Get(), x.Get()})
        ASSERT_EQ(S_OK, Define(parameter, L"2"));

    // Allocated "b" then "a": the map holds "a" (1) before "b" (0), next 2.
    Park();
    EXPECT_EQ(ByteBuilder().U32(1).U32(2).U32(2).Str(L"a").U32(2).U32(1).Str(L"b").U32(2).U32(0).bytes,
              StreamBytes(L"map"));
    CommitFile();
    KeepFile();
}

TEST_F(ParameterStreams, EveryValueTypeComesBackEqual)
{
    // Built in place: a copy through the platform's VariantCopy may turn the
    // null string into an empty one.
    const _variant_t values[] = {
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
    const size_t count = sizeof values / sizeof values[0];
    for (size_t i = 0; i < count; ++i)
    {
        SCOPED_TRACE(i);
        const std::wstring name = L"v" + std::to_wstring(i);
        const _variant_t& defaultValue = values[(i + 1) % count];
        ASSERT_EQ(S_OK, Define(name.c_str(), values[i], defaultValue));
        ExpectSameValue(values[i], Read(name.c_str()));
        ComPtr<IFdtParameter> info = Info(name.c_str());
        ASSERT_TRUE(info);
        // The data object hands a null string back null, as the file holds it.
        ExpectSameValue(values[i], Get(info.Get(), &IFdtParameter::get_m_value));
        ExpectSameValue(defaultValue, Get(info.Get(), &IFdtParameter::get_m_defaultValue));
    }
}

TEST_F(ParameterStreams, ObjectsTravelInThePlatformPersistedForm)
{
    ComPtr<IFont> font = MakeFont();
    ASSERT_TRUE(font);
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
    ExpectSameFont(font.Get(), V_DISPATCH(&value));
    ExpectSameFont(font.Get(), V_UNKNOWN(&stored));
    // The fields after the objects are read from where the loads stopped.
    LONG index = 0, objectType = 0;
    EXPECT_EQ(S_OK, info->get_m_index(&index));
    EXPECT_EQ(S_OK, info->get_m_objectType(&objectType));
    EXPECT_EQ(41, index);
    EXPECT_EQ(42, objectType);

    // No object is stored as the null class and comes back as no object.
    ASSERT_EQ(S_OK, Define(L"none", _variant_t(static_cast<IDispatch*>(nullptr)), Typed<LONG>(VT_I4, 3)));
    const _variant_t none = Read(L"none");
    EXPECT_EQ(VT_DISPATCH, V_VT(&none));
    EXPECT_EQ(nullptr, V_DISPATCH(&none));
    Park();
    const Bytes stream = StreamBytes(L"1");
    const Bytes expected = ByteBuilder().U16(VT_DISPATCH).Raw(&CLSID_NULL, sizeof CLSID_NULL).U16(VT_I4).U32(3).bytes;
    const size_t header = ByteBuilder().Header(L"none").bytes.size() + 16;
    ASSERT_EQ(header + expected.size() + 16, stream.size());
    EXPECT_EQ(expected, Bytes(stream.begin() + header, stream.begin() + header + expected.size()));
}

TEST_F(ParameterStreams, ValuesWithoutAStoredFormAreRefused)
{
    TraceCapture trace;
    // An object that cannot persist itself.
    ComPtr<TestParameter> plain = TestParameter::Make(L"x", _variant_t());
    EXPECT_EQ(E_NOINTERFACE, Define(L"object", _variant_t(static_cast<IUnknown*>(plain.Get()))));
    EXPECT_EQ(1u, trace.Count("FbInstanceData::WritePara() CStreamTool::Write(value) failed\n"));

    // An array has no text: the write gives the conversion's own result.
    SAFEARRAY* numbers = SafeArrayCreateVector(VT_I4, 0, 2);
    VARIANT array;
    V_VT(&array) = VT_ARRAY | VT_I4;
    V_ARRAY(&array) = numbers;
    VARIANT text;
    VariantInit(&text);
    const HRESULT conversion = VariantChangeType(&text, &array, 0, VT_BSTR);
    EXPECT_TRUE(FAILED(conversion));
    const _variant_t arrayValue(array, false);
    EXPECT_EQ(conversion, Define(L"array", arrayValue));
    EXPECT_EQ(2u, trace.Count("FbInstanceData::WritePara() CStreamTool::Write(value) failed\n"));
    EXPECT_EQ(conversion, Define(L"array", _variant_t(1L), arrayValue));
    EXPECT_EQ(1u, trace.Count("FbInstanceData::WritePara() CStreamTool::Write(default value) failed\n"));

    // The platform gives no text for a null either.
    _variant_t null;
    V_VT(&null) = VT_NULL;
    EXPECT_EQ(DISP_E_TYPEMISMATCH, Define(L"null", null));
}
