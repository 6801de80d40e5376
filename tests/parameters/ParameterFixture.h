#pragma once
// Support for the parameter and group tests: a frame's own IFdtParameter, a
// store file per test with instances made through the root storage, and the
// bytes of their streams.
#include <gtest/gtest.h>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>
#include "TestSupport.h"
#include "TestObject.h"

typedef std::vector<unsigned char> Bytes;
typedef std::vector<_variant_t> Values;
typedef std::vector<std::wstring> Names;

// Stream contents built field by field, in the store's encodings.
struct ByteBuilder
{
    Bytes bytes;
    ByteBuilder& Raw(const void* data, size_t size)
    {
        const unsigned char* begin = static_cast<const unsigned char*>(data);
        bytes.insert(bytes.end(), begin, begin + size);
        return *this;
    }
    ByteBuilder& U16(WORD value) { return Raw(&value, sizeof value); }
    ByteBuilder& U32(DWORD value) { return Raw(&value, sizeof value); }
    // u32 byte count, UTF-16LE units and a 0 unit; count 0 for null.
    ByteBuilder& Str(const wchar_t* text)
    {
        const DWORD size = text ? static_cast<DWORD>(wcslen(text) + 1) * 2 : 0;
        return U32(size).Raw(text, size);
    }
    // Version, kind and name, as every parameter and group stream begins.
    ByteBuilder& Header(const wchar_t* name, DWORD kind = 2, DWORD version = 1)
    {
        return U32(version).U32(kind).Str(name);
    }
};

// A copy that keeps a null string null, as the platform's copy may not.
inline HRESULT CopyOut(VARIANT* out, const VARIANT& value)
{
    VariantInit(out);
    if (V_VT(&value) != VT_BSTR || V_BSTR(&value))
        return VariantCopy(out, const_cast<VARIANT*>(&value));
    V_VT(out) = VT_BSTR;
    V_BSTR(out) = nullptr;
    return S_OK;
}

// A VARIANT holding one BSTR built from text (which may be null).
inline _variant_t BstrValue(const wchar_t* text)
{
    VARIANT value;
    V_VT(&value) = VT_BSTR;
    V_BSTR(&value) = text ? SysAllocString(text) : nullptr;
    return _variant_t(value, false);
}

inline SAFEARRAY* MakeValueArray(const Values& values)
{
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i)
        SafeArrayPutElement(array, &i, const_cast<_variant_t*>(&values[i]));
    return array;
}

inline Values ReadValueArray(SAFEARRAY* array, LONG* lowerBound = nullptr)
{
    Values values;
    LONG lower = -1, upper = -2;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    if (lowerBound)
        *lowerBound = lower;
    for (LONG i = lower; i <= upper; ++i)
    {
        values.emplace_back();
        SafeArrayGetElement(array, &i, &values.back());
    }
    return values;
}

// A parameter description as a frame implements it; the getter named by
// failingProperty fails with E_ACCESSDENIED.
class TestParameter : public TestObject<IFdtParameter>
{
public:
    static ComPtr<TestParameter> Make(const wchar_t* name, const _variant_t& value,
                                      const _variant_t& defaultValue = _variant_t())
    {
        ComPtr<TestParameter> parameter(new TestParameter);
        parameter->name = name;
        CopyOut(&parameter->value, value);
        CopyOut(&parameter->defaultValue, defaultValue);
        return parameter;
    }

    _bstr_t name;
    _variant_t value, defaultValue;
    LONG index = 0, size = 0, objectType = 0;
    BYTE dataType = 0;
    VARIANT_BOOL mandatory = 0, isPrivate = 0, isProtected = 0, locked = 0;
    std::string failingProperty;

#define TEST_PARAMETER_PROPERTY(Property, Type, field)                                                                 \
    STDMETHODIMP get_m_##Property(Type* out) override { return Give(#Property, out, field); }                         \
    STDMETHODIMP put_m_##Property(Type in) override { return field = in, S_OK; }
    TEST_PARAMETER_PROPERTY(name, BSTR, name)
    TEST_PARAMETER_PROPERTY(value, VARIANT, value)
    TEST_PARAMETER_PROPERTY(defaultValue, VARIANT, defaultValue)
    TEST_PARAMETER_PROPERTY(index, LONG, index)
    TEST_PARAMETER_PROPERTY(dataType, unsigned char, dataType)
    TEST_PARAMETER_PROPERTY(size, LONG, size)
    TEST_PARAMETER_PROPERTY(objectType, LONG, objectType)
    TEST_PARAMETER_PROPERTY(mandatory, VARIANT_BOOL, mandatory)
    TEST_PARAMETER_PROPERTY(private, VARIANT_BOOL, isPrivate)
    TEST_PARAMETER_PROPERTY(protected, VARIANT_BOOL, isProtected)
    TEST_PARAMETER_PROPERTY(locked, VARIANT_BOOL, locked)
#undef TEST_PARAMETER_PROPERTY

private:
    template <class Out, class Field>
    HRESULT Give(const char* property, Out* out, const Field& field)
    {
        return failingProperty == property ? E_ACCESSDENIED : Copy(out, field);
    }
    static HRESULT Copy(BSTR* out, const _bstr_t& field) { return *out = field.copy(), S_OK; }
    static HRESULT Copy(VARIANT* out, const _variant_t& field) { return CopyOut(out, field); }
    template <class T>
    static HRESULT Copy(T* out, T field) { return *out = field, S_OK; }
};

// One store file per test, named after the test, with the instance "1" that
// the tests work on and a spare instance "9"; both made through the root.
class StoreFixture : public ::testing::Test
{
protected:
    static constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

    void SetUp() override
    {
        const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
        const std::string name = std::string(test->test_suite_name()) + "-" + test->name() + ".stg";
        m_file.reset(new TempStoreFile(std::wstring(name.begin(), name.end()).c_str()));
        m_open = OpenStore::At(m_file->Bstr());
        ASSERT_TRUE(m_open.root);
        MakeInstance(L"1");
        MakeInstance(L"9");
    }
    IFbInstanceData* Store() const { return m_open.store.Get(); }
    // An instance storage with an empty stream name map.
    void MakeInstance(const wchar_t* id)
    {
        ComPtr<IStorage> instance;
        ComPtr<IStream> map;
        ASSERT_EQ(S_OK, m_open.root->CreateStorage(id, kMode | STGM_CREATE, 0, 0, instance.GetAddressOf()));
        ASSERT_EQ(S_OK, instance->CreateStream(L"map", kMode | STGM_CREATE, 0, 0, map.GetAddressOf()));
        const DWORD empty[3] = {1, 0, 0};
        ASSERT_EQ(S_OK, map->Write(empty, sizeof empty, nullptr));
    }

    HRESULT Define(TestParameter* parameter, const wchar_t* id = L"1")
    {
        return Store()->WriteParameterInfo(nullptr, _bstr_t(id), parameter);
    }
    HRESULT Define(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue = _variant_t())
    {
        return Define(TestParameter::Make(name, value, defaultValue).Get());
    }
    _variant_t Read(const wchar_t* name, HRESULT expected = S_OK)
    {
        _variant_t value;
        EXPECT_EQ(expected, Store()->ReadParameter(nullptr, m_id, _bstr_t(name), &value))
            << "reading " << static_cast<const char*>(_bstr_t(name));
        return value;
    }
    HRESULT Write(const wchar_t* name, const _variant_t& value)
    {
        return Store()->WriteParameter(nullptr, m_id, _bstr_t(name), value);
    }
    ComPtr<IFdtParameter> Info(const wchar_t* name)
    {
        ComPtr<IFdtParameter> parameter;
        EXPECT_EQ(S_OK, Store()->ReadParameterInfo(nullptr, m_id, _bstr_t(name), parameter.GetAddressOf()));
        return parameter;
    }
    // GetAllParameters or GetAllGroups; the names start at 0.
    Names All(HRESULT (STDMETHODCALLTYPE IFbInstanceData::*list)(IFdtContext*, BSTR, SAFEARRAY**))
    {
        SAFEARRAY* names = nullptr;
        LONG lower = -1;
        EXPECT_EQ(S_OK, (Store()->*list)(nullptr, m_id, &names));
        EXPECT_TRUE(SUCCEEDED(SafeArrayGetLBound(names, 1, &lower)) && lower == 0);
        const Names result = ReadBstrArray(names);
        SafeArrayDestroy(names);
        return result;
    }

    // Points the store at the spare instance, which gives up its cached
    // instance "1": what that instance did not commit is dropped, and its
    // streams can be reached through the root.
    void Park()
    {
        SAFEARRAY* names = nullptr;
        ASSERT_EQ(S_OK, Store()->GetAllParameters(nullptr, _bstr_t(L"9"), &names));
        SafeArrayDestroy(names);
    }
    // A stream of instance "1", read or written through the root.
    Bytes StreamBytes(const wchar_t* name)
    {
        const ComPtr<IStorage> instance = Instance();
        ComPtr<IStream> stream;
        Bytes bytes(1 << 16);
        ULONG read = 0;
        if (instance && SUCCEEDED(instance->OpenStream(name, nullptr, kMode, 0, stream.GetAddressOf())))
        {
            EXPECT_EQ(S_OK, stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read));
        }
        bytes.resize(read);
        return bytes;
    }
    void PutStreamBytes(const wchar_t* name, const Bytes& bytes)
    {
        const ComPtr<IStorage> instance = Instance();
        ComPtr<IStream> stream;
        ASSERT_TRUE(instance);
        ASSERT_EQ(S_OK, instance->CreateStream(name, kMode | STGM_CREATE, 0, 0, stream.GetAddressOf()));
        if (!bytes.empty())
        {
            ASSERT_EQ(S_OK, stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr));
        }
    }
    // Commits the file and keeps it for an independent check afterwards.
    void KeepFile()
    {
        m_open.Commit();
        m_file->Keep();
    }
    // Commits the file as its holder does, and opens it again once the store
    // has given it up for another file.
    void Reopen()
    {
        static TempStoreFile parking(L"parameters-parking.stg");
        m_open.Commit();
        ComPtr<IStorage> other;
        ASSERT_EQ(S_OK, m_open.manager->OpenStorage(parking.Bstr(), other.GetAddressOf()));
        m_open.root.Reset();
        ASSERT_EQ(S_OK, m_open.manager->OpenStorage(m_file->Bstr(), m_open.root.GetAddressOf()));
    }

    _bstr_t m_id{L"1"};

private:
    ComPtr<IStorage> Instance()
    {
        ComPtr<IStorage> instance;
        EXPECT_EQ(S_OK, m_open.root->OpenStorage(L"1", nullptr, kMode, nullptr, 0, instance.GetAddressOf()));
        return instance;
    }
    std::unique_ptr<TempStoreFile> m_file;
    OpenStore m_open;
};
