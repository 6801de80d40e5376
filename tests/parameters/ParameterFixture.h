#pragma once
// Support for the parameter and group tests: a frame's own IFdtParameter, a
// store file per test with instances made directly through the root storage,
// and access to the bytes of their streams.
#include <gtest/gtest.h>
#include <olectl.h>
#include <string>
#include <vector>
#include "TestSupport.h"

typedef std::vector<unsigned char> Bytes;

// Stream contents built field by field, in the store's encodings.
struct ByteBuilder
{
    Bytes bytes;
    ByteBuilder& U16(WORD value);
    ByteBuilder& U32(DWORD value);
    ByteBuilder& Raw(const void* data, size_t size);
    // The string encoding: u32 byte count, UTF-16LE units, a 0 unit; count 0 for null.
    ByteBuilder& Str(const wchar_t* text);
    // Version, kind and name, as every parameter and group stream begins.
    ByteBuilder& Header(const wchar_t* name, DWORD kind = 2, DWORD version = 1);
};

// A parameter description as a frame implements it; a getter fails with
// failWith when it names that property.
class TestParameter : public IFdtParameter
{
public:
    static ComPtr<TestParameter> Make(const wchar_t* name, const _variant_t& value,
                                      const _variant_t& defaultValue = _variant_t());

    _bstr_t name;
    _variant_t value;
    _variant_t defaultValue;
    LONG index = 0;
    BYTE dataType = 0;
    LONG size = 0;
    LONG objectType = 0;
    VARIANT_BOOL mandatory = VARIANT_FALSE;
    VARIANT_BOOL isPrivate = VARIANT_FALSE;
    VARIANT_BOOL isProtected = VARIANT_FALSE;
    VARIANT_BOOL locked = VARIANT_FALSE;
    std::string failingProperty;
    HRESULT failWith = E_ACCESSDENIED;

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
    STDMETHODIMP get_m_name(BSTR* out) override;
    STDMETHODIMP put_m_name(BSTR in) override;
    STDMETHODIMP get_m_value(VARIANT* out) override;
    STDMETHODIMP put_m_value(VARIANT in) override;
    STDMETHODIMP get_m_defaultValue(VARIANT* out) override;
    STDMETHODIMP put_m_defaultValue(VARIANT in) override;
    STDMETHODIMP get_m_index(LONG* out) override;
    STDMETHODIMP put_m_index(LONG in) override;
    STDMETHODIMP get_m_dataType(unsigned char* out) override;
    STDMETHODIMP put_m_dataType(unsigned char in) override;
    STDMETHODIMP get_m_size(LONG* out) override;
    STDMETHODIMP put_m_size(LONG in) override;
    STDMETHODIMP get_m_objectType(LONG* out) override;
    STDMETHODIMP put_m_objectType(LONG in) override;
    STDMETHODIMP get_m_mandatory(VARIANT_BOOL* out) override;
    STDMETHODIMP put_m_mandatory(VARIANT_BOOL in) override;
    STDMETHODIMP get_m_private(VARIANT_BOOL* out) override;
    STDMETHODIMP put_m_private(VARIANT_BOOL in) override;
    STDMETHODIMP get_m_protected(VARIANT_BOOL* out) override;
    STDMETHODIMP put_m_protected(VARIANT_BOOL in) override;
    STDMETHODIMP get_m_locked(VARIANT_BOOL* out) override;
    STDMETHODIMP put_m_locked(VARIANT_BOOL in) override;

private:
    template <class T>
    HRESULT Give(const char* property, T* out, const T& field);
    ULONG m_refs = 0;

protected:
    virtual ~TestParameter() = default;
};

// One store file per test, named after the test, with the instance "1" that
// the tests work on and a spare instance "9"; both made through the root.
class StoreFixture : public ::testing::Test
{
protected:
    void SetUp() override;

    IFbInstanceData* Store() const { return m_open.store.Get(); }
    IStorage* Root() const { return m_open.root.Get(); }
    // Makes an instance storage with an empty stream name map.
    void MakeInstance(const wchar_t* id);

    HRESULT Define(TestParameter* parameter, const wchar_t* id = L"1");
    HRESULT Define(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue = _variant_t());
    _variant_t Read(const wchar_t* name, HRESULT expected = S_OK);
    HRESULT Write(const wchar_t* name, const _variant_t& value);
    ComPtr<IFdtParameter> Info(const wchar_t* name);

    // Points the store at the spare instance, which gives up its cached
    // instance "1": what that instance did not commit is dropped, and its
    // streams can be reached through the root.
    void Park();
    Bytes StreamBytes(const wchar_t* stream, const wchar_t* id = L"1");
    void PutStreamBytes(const wchar_t* stream, const Bytes& bytes, const wchar_t* id = L"1");
    // The kept file of a test that an independent check reads afterwards.
    void KeepFile() { m_file->Keep(); }
    void CommitFile() { m_open.Commit(); }
    // Commits the file as its holder does, gives it up and opens it again.
    void Reopen();

    _bstr_t m_id{L"1"};

private:
    std::unique_ptr<TempStoreFile> m_file;
    OpenStore m_open;
};

// A standard font: a platform object that persists itself into a stream.
ComPtr<IFont> MakeFont();
void ExpectSameFont(IUnknown* expected, IUnknown* actual);

// A VARIANT holding one BSTR built from text (which may be null).
_variant_t BstrValue(const wchar_t* text);
