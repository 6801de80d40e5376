#include "ParameterFixture.h"
#include <cwchar>

ByteBuilder& ByteBuilder::U16(WORD value)
{
    return Raw(&value, sizeof value);
}

ByteBuilder& ByteBuilder::U32(DWORD value)
{
    return Raw(&value, sizeof value);
}

ByteBuilder& ByteBuilder::Raw(const void* data, size_t size)
{
    const unsigned char* begin = static_cast<const unsigned char*>(data);
    bytes.insert(bytes.end(), begin, begin + size);
    return *this;
}

ByteBuilder& ByteBuilder::Str(const wchar_t* text)
{
    if (!text)
        return U32(0);
    const size_t length = wcslen(text);
    U32(static_cast<DWORD>(length * 2 + 2));
    for (size_t i = 0; i <= length; ++i)
        U16(text[i]);
    return *this;
}

ByteBuilder& ByteBuilder::Header(const wchar_t* name, DWORD kind, DWORD version)
{
    return U32(version).U32(kind).Str(name);
}

// ------------------------------------------------------------ TestParameter

// A copy that keeps a null string null, as the platform's copy may not.
static HRESULT CopyOut(VARIANT* out, const VARIANT& value)
{
    VariantInit(out);
    if (V_VT(&value) != VT_BSTR || V_BSTR(&value))
        return VariantCopy(out, const_cast<VARIANT*>(&value));
    V_VT(out) = VT_BSTR;
    V_BSTR(out) = nullptr;
    return S_OK;
}

ComPtr<TestParameter> TestParameter::Make(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue)
{
    ComPtr<TestParameter> parameter(new TestParameter);
    parameter->name = name;
    CopyOut(&parameter->value, value);
    CopyOut(&parameter->defaultValue, defaultValue);
    return parameter;
}

STDMETHODIMP TestParameter::QueryInterface(REFIID iid, void** object)
{
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, IID_IFdtParameter))
    {
        *object = static_cast<IFdtParameter*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) TestParameter::Release()
{
    const ULONG refs = --m_refs;
    if (!refs)
        delete this;
    return refs;
}

template <class T>
HRESULT TestParameter::Give(const char* property, T* out, const T& field)
{
    if (failingProperty == property)
        return failWith;
    *out = field;
    return S_OK;
}

STDMETHODIMP TestParameter::get_m_name(BSTR* out)
{
    if (failingProperty == "name")
        return failWith;
    *out = name.copy();
    return S_OK;
}

STDMETHODIMP TestParameter::get_m_value(VARIANT* out)
{
    return failingProperty == "value" ? failWith : CopyOut(out, value);
}

STDMETHODIMP TestParameter::get_m_defaultValue(VARIANT* out)
{
    return failingProperty == "defaultValue" ? failWith : CopyOut(out, defaultValue);
}

STDMETHODIMP TestParameter::get_m_index(LONG* out) { return Give("index", out, index); }
STDMETHODIMP TestParameter::get_m_dataType(unsigned char* out) { return Give("dataType", out, dataType); }
STDMETHODIMP TestParameter::get_m_size(LONG* out) { return Give("size", out, size); }
STDMETHODIMP TestParameter::get_m_objectType(LONG* out) { return Give("objectType", out, objectType); }
STDMETHODIMP TestParameter::get_m_mandatory(VARIANT_BOOL* out) { return Give("mandatory", out, mandatory); }
STDMETHODIMP TestParameter::get_m_private(VARIANT_BOOL* out) { return Give("private", out, isPrivate); }
STDMETHODIMP TestParameter::get_m_protected(VARIANT_BOOL* out) { return Give("protected", out, isProtected); }
STDMETHODIMP TestParameter::get_m_locked(VARIANT_BOOL* out) { return Give("locked", out, locked); }

STDMETHODIMP TestParameter::put_m_name(BSTR in)
{
    name = _bstr_t(in, true);
    return S_OK;
}

STDMETHODIMP TestParameter::put_m_value(VARIANT in)
{
    value = in;
    return S_OK;
}

STDMETHODIMP TestParameter::put_m_defaultValue(VARIANT in)
{
    defaultValue = in;
    return S_OK;
}

STDMETHODIMP TestParameter::put_m_index(LONG in) { return index = in, S_OK; }
STDMETHODIMP TestParameter::put_m_dataType(unsigned char in) { return dataType = in, S_OK; }
STDMETHODIMP TestParameter::put_m_size(LONG in) { return size = in, S_OK; }
STDMETHODIMP TestParameter::put_m_objectType(LONG in) { return objectType = in, S_OK; }
STDMETHODIMP TestParameter::put_m_mandatory(VARIANT_BOOL in) { return mandatory = in, S_OK; }
STDMETHODIMP TestParameter::put_m_private(VARIANT_BOOL in) { return isPrivate = in, S_OK; }
STDMETHODIMP TestParameter::put_m_protected(VARIANT_BOOL in) { return isProtected = in, S_OK; }
STDMETHODIMP TestParameter::put_m_locked(VARIANT_BOOL in) { return locked = in, S_OK; }

// ------------------------------------------------------------- StoreFixture

void StoreFixture::SetUp()
{
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string(test->test_suite_name()) + "-" + test->name() + ".stg";
    m_file.reset(new TempStoreFile(std::wstring(name.begin(), name.end()).c_str()));
    m_open = OpenStore::At(m_file->Bstr());
    ASSERT_TRUE(m_open.root);
    MakeInstance(L"1");
    MakeInstance(L"9");
}

void StoreFixture::Reopen()
{
    static TempStoreFile parking(L"parameters-parking.stg");
    CommitFile();
    ComPtr<IStorage> other;
    ASSERT_EQ(S_OK, m_open.manager->OpenStorage(parking.Bstr(), other.GetAddressOf()));
    m_open.root.Reset();
    ASSERT_EQ(S_OK, m_open.manager->OpenStorage(m_file->Bstr(), m_open.root.GetAddressOf()));
}

void StoreFixture::MakeInstance(const wchar_t* id)
{
    ComPtr<IStorage> instance;
    ASSERT_EQ(S_OK, Root()->CreateStorage(id, STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0, 0,
                                          instance.GetAddressOf()));
    ComPtr<IStream> map;
    ASSERT_EQ(S_OK, instance->CreateStream(L"map", STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0, 0,
                                           map.GetAddressOf()));
    const DWORD empty[3] = {1, 0, 0};
    ASSERT_EQ(S_OK, map->Write(empty, sizeof empty, nullptr));
}

HRESULT StoreFixture::Define(TestParameter* parameter, const wchar_t* id)
{
    return Store()->WriteParameterInfo(nullptr, _bstr_t(id), parameter);
}

HRESULT StoreFixture::Define(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue)
{
    return Define(TestParameter::Make(name, value, defaultValue).Get());
}

_variant_t StoreFixture::Read(const wchar_t* name, HRESULT expected)
{
    _variant_t value;
    EXPECT_EQ(expected, Store()->ReadParameter(nullptr, m_id, _bstr_t(name), &value)) << "reading " << static_cast<const char*>(_bstr_t(name));
    return value;
}

HRESULT StoreFixture::Write(const wchar_t* name, const _variant_t& value)
{
    return Store()->WriteParameter(nullptr, m_id, _bstr_t(name), value);
}

ComPtr<IFdtParameter> StoreFixture::Info(const wchar_t* name)
{
    ComPtr<IFdtParameter> parameter;
    EXPECT_EQ(S_OK, Store()->ReadParameterInfo(nullptr, m_id, _bstr_t(name), parameter.GetAddressOf()));
    return parameter;
}

void StoreFixture::Park()
{
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(S_OK, Store()->GetAllParameters(nullptr, _bstr_t(L"9"), &names));
    SafeArrayDestroy(names);
}

Bytes StoreFixture::StreamBytes(const wchar_t* stream, const wchar_t* id)
{
    Bytes bytes;
    ComPtr<IStorage> instance;
    ComPtr<IStream> data;
    EXPECT_EQ(S_OK, Root()->OpenStorage(id, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                        instance.GetAddressOf()));
    if (!instance || FAILED(instance->OpenStream(stream, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0,
                                                 data.GetAddressOf())))
        return bytes;
    unsigned char buffer[4096];
    ULONG read = 0;
    while (SUCCEEDED(data->Read(buffer, sizeof buffer, &read)) && read)
        bytes.insert(bytes.end(), buffer, buffer + read);
    return bytes;
}

void StoreFixture::PutStreamBytes(const wchar_t* stream, const Bytes& bytes, const wchar_t* id)
{
    ComPtr<IStorage> instance;
    ComPtr<IStream> data;
    ASSERT_EQ(S_OK, Root()->OpenStorage(id, nullptr, STGM_READWRITE | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                        instance.GetAddressOf()));
    ASSERT_EQ(S_OK, instance->CreateStream(stream, STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0, 0,
                                           data.GetAddressOf()));
    if (!bytes.empty())
    {
        ASSERT_EQ(S_OK, data->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr));
    }
}

// ------------------------------------------------------------------- fonts

ComPtr<IFont> MakeFont()
{
    FONTDESC description = {sizeof description, const_cast<LPOLESTR>(L"Courier New"), {{135000, 0}}, 700,
                            ANSI_CHARSET, TRUE, TRUE, FALSE};
    ComPtr<IFont> font;
    EXPECT_EQ(S_OK, OleCreateFontIndirect(&description, IID_IFont, reinterpret_cast<void**>(font.GetAddressOf())));
    return font;
}

void ExpectSameFont(IUnknown* expected, IUnknown* actual)
{
    ComPtr<IFont> left, right;
    ASSERT_TRUE(expected && actual);
    ASSERT_EQ(S_OK, expected->QueryInterface(IID_IFont, reinterpret_cast<void**>(left.GetAddressOf())));
    ASSERT_EQ(S_OK, actual->QueryInterface(IID_IFont, reinterpret_cast<void**>(right.GetAddressOf())));
    EXPECT_NE(left.Get(), right.Get());
    BSTR leftName = nullptr, rightName = nullptr;
    left->get_Name(&leftName);
    right->get_Name(&rightName);
    EXPECT_STREQ(leftName, rightName);
    SysFreeString(leftName);
    SysFreeString(rightName);
    CY leftSize = {}, rightSize = {};
    left->get_Size(&leftSize);
    right->get_Size(&rightSize);
    EXPECT_EQ(leftSize.int64, rightSize.int64);
    BOOL leftFlag = FALSE, rightFlag = FALSE;
    left->get_Italic(&leftFlag);
    right->get_Italic(&rightFlag);
    EXPECT_EQ(leftFlag, rightFlag);
    left->get_Underline(&leftFlag);
    right->get_Underline(&rightFlag);
    EXPECT_EQ(leftFlag, rightFlag);
    SHORT leftWeight = 0, rightWeight = 0;
    left->get_Weight(&leftWeight);
    right->get_Weight(&rightWeight);
    EXPECT_EQ(leftWeight, rightWeight);
    EXPECT_EQ(700, rightWeight);
}

_variant_t BstrValue(const wchar_t* text)
{
    VARIANT value;
    VariantInit(&value);
    V_VT(&value) = VT_BSTR;
    V_BSTR(&value) = text ? SysAllocString(text) : nullptr;
    return _variant_t(value, false);
}
