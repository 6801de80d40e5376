#pragma once
// Support for the instance and reference tests: descriptor objects of the
// test's own (the store must take any implementation of the descriptor
// interfaces), a store file per test and direct access to its streams.
#include <gtest/gtest.h>
#include <string>
#include <vector>
#include "TestSupport.h"
#include "TestObject.h"
#include "PK_Trace.h"

namespace instance_testing
{
typedef std::vector<unsigned char> Bytes;
typedef std::vector<std::wstring> Ids;
typedef std::pair<std::wstring, std::wstring> Reference;   // instance identifier, parameter name
typedef std::vector<Reference> References;

#define TEST_PROPERTY(name, type, field)                                        \
    STDMETHODIMP get_##name(type* value) override { return Give(value, field); } \
    STDMETHODIMP put_##name(type value) override { return field = value, S_OK; }

class TestDtmDescriptor final : public TestObject<IFdtDtmDescriptor>
{
public:
    BYTE category = 1;
    LONG classification = 0, application = 0x020001FE, language = 0x400;
    _bstr_t device, node;
    TEST_PROPERTY(m_category, BYTE, category)
    TEST_PROPERTY(m_classification, LONG, classification)
    TEST_PROPERTY(m_device, BSTR, device)
    TEST_PROPERTY(m_node, BSTR, node)
    TEST_PROPERTY(m_application, LONG, application)
    TEST_PROPERTY(m_language, LONG, language)
};

class TestCommDescriptor final : public TestObject<IFdtCommunicationDescriptor>
{
public:
    BYTE category = 1;
    _bstr_t name;
    TEST_PROPERTY(m_category, BYTE, category)
    TEST_PROPERTY(m_name, BSTR, name)
};
#undef TEST_PROPERTY

// The store is one per process and keeps its file until it opens another:
// a failed open makes it give the file up.
inline void GiveUpFile(IInstanceDataMgr* manager)
{
    ComPtr<IStorage> none;
    ASSERT_TRUE(FAILED(manager->OpenStorage(_bstr_t((TestFilesDirectory() + L"no such folder\\x.stg").c_str()),
                                            none.GetAddressOf())));
}

// A store file named after the running test (unless named), opened as a
// frame opens it, given up and removed (unless kept) at the end.
class Session
{
public:
    explicit Session(const wchar_t* name = nullptr) : m_file(name ? name : TestName().c_str()), m_open(Open()) {}
    ~Session()
    {
        m_open.root.Reset();
        GiveUpFile(m_open.manager.Get());
    }
    IFbInstanceData* Store() const { return m_open.store.Get(); }
    IFbInstanceData* operator->() const { return Store(); }
    IStorage* Root() const { return m_open.root.Get(); }
    void Keep() { m_file.Keep(); }
    void Commit() { m_open.Commit(); }
    // Commits, gives the file up and opens it again: the frame's next session.
    void Reopen()
    {
        Commit();
        m_open.root.Reset();
        GiveUpFile(m_open.manager.Get());
        m_open = Open();
    }

    // A stream of an instance storage (of the root when id is null), read or
    // replaced through the root. An open storage cannot be opened twice: the
    // store gives up the one it holds when asked about an identifier without
    // instance (which traces a failed open).
    Bytes Stream(const wchar_t* id, const wchar_t* name)
    {
        ComPtr<IStorage> storage = Storage(id);
        ComPtr<IStream> stream;
        Bytes bytes(4096);
        ULONG read = 0;
        if (storage && SUCCEEDED(storage->OpenStream(name, nullptr, kMode, 0, stream.GetAddressOf())))
            stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read);
        bytes.resize(read);
        return bytes;
    }
    void Replace(const wchar_t* id, const wchar_t* name, const Bytes& bytes)
    {
        ComPtr<IStorage> storage = Storage(id);
        ComPtr<IStream> stream;
        ASSERT_TRUE(storage);
        ASSERT_EQ(S_OK, storage->CreateStream(name, kMode | STGM_CREATE, 0, 0, stream.GetAddressOf()));
        const void* data = bytes.empty() ? "" : static_cast<const void*>(bytes.data());   // never null
        ASSERT_EQ(S_OK, stream->Write(data, static_cast<ULONG>(bytes.size()), nullptr));
        ASSERT_EQ(S_OK, storage->Commit(STGC_DEFAULT));
    }

    static constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

private:
    static std::wstring TestName()
    {
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        const std::string text = std::string(test->test_suite_name()) + "-" + test->name() + ".stg";
        return std::wstring(text.begin(), text.end());
    }
    OpenStore Open() const { return OpenStore::At(m_file.Bstr()); }
    ComPtr<IStorage> Storage(const wchar_t* id)
    {
        if (!id)
            return m_open.root;
        ComPtr<IFdtDescriptor> none;
        Store()->ReadIdentification(nullptr, _bstr_t(L"0"), none.GetAddressOf());
        ComPtr<IStorage> storage;
        EXPECT_EQ(S_OK, Root()->OpenStorage(id, nullptr, kMode, nullptr, 0, storage.GetAddressOf())) << id;
        return storage;
    }

    TempStoreFile m_file;
    OpenStore m_open;
};

// A string result as text; null gives "".
inline std::wstring Str(const _bstr_t& value)
{
    return value.length() ? static_cast<const wchar_t*>(value) : L"";
}

// Creates an instance from the given descriptors (new test objects when
// null); an empty string when Create fails.
inline std::wstring NewInstance(IFbInstanceData* store, IFdtDtmDescriptor* dtm = nullptr,
                                IFdtCommunicationDescriptor* comm = nullptr)
{
    ComPtr<IFdtDtmDescriptor> defaultDtm = new TestDtmDescriptor;
    ComPtr<IFdtCommunicationDescriptor> defaultComm = new TestCommDescriptor;
    _bstr_t id;
    EXPECT_EQ(S_OK, store->Create(nullptr, dtm ? dtm : defaultDtm.Get(), comm ? comm : defaultComm.Get(),
                                  id.GetAddress()));
    return Str(id);
}

inline Ids InstanceList(IFbInstanceData* store)
{
    SAFEARRAY* list = nullptr;
    EXPECT_EQ(S_OK, store->GetInstanceDataList(nullptr, &list));
    const Ids ids = ReadBstrArray(list);
    SafeArrayDestroy(list);
    return ids;
}

inline Reference ReferenceOf(IUnknown* object)
{
    ComPtr<IFdtInstanceDataRef> reference;
    _bstr_t instance, parameter;
    if (!object || FAILED(object->QueryInterface(IID_PPV_ARGS(&reference))) ||
        FAILED(reference->get_m_instanceID(instance.GetAddress())) ||
        FAILED(reference->get_m_parameterName(parameter.GetAddress())))
        return Reference(L"<none>", L"<none>");
    return Reference(Str(instance), Str(parameter));
}

// What GetSubInstanceData and GetSuperInstanceData give. The sub-instance
// list is always a one-dimensional array of objects from index 0.
inline References SubReferences(IFbInstanceData* store, BSTR id)
{
    References pairs;
    SAFEARRAY* list = nullptr;
    EXPECT_EQ(S_OK, store->GetSubInstanceData(nullptr, id, &list));
    VARTYPE type = VT_EMPTY;
    LONG lower = -1, upper = -2;
    SafeArrayGetVartype(list, &type);
    SafeArrayGetLBound(list, 1, &lower);
    SafeArrayGetUBound(list, 1, &upper);
    EXPECT_EQ((std::vector<LONG>{VT_UNKNOWN, 1, 0}), (std::vector<LONG>{type, LONG(SafeArrayGetDim(list)), lower}));
    for (LONG index = lower; index <= upper; ++index)
    {
        ComPtr<IUnknown> element;
        SafeArrayGetElement(list, &index, element.GetAddressOf());
        pairs.push_back(ReferenceOf(element.Get()));
    }
    SafeArrayDestroy(list);
    return pairs;
}

inline Reference SuperReference(IFbInstanceData* store, BSTR id)
{
    ComPtr<IFdtInstanceDataRef> reference;
    EXPECT_EQ(S_OK, store->GetSuperInstanceData(nullptr, id, reference.GetAddressOf()));
    return ReferenceOf(reference.Get());
}

// Stream fields: little-endian DWORDs; a string as its byte count with the
// terminating zero and UTF-16 units (null: count 0 alone).
inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes Dwords(std::initializer_list<DWORD> values)
{
    Bytes bytes;
    for (DWORD value : values)
        for (int shift = 0; shift < 32; shift += 8)
            bytes.push_back(static_cast<unsigned char>(value >> shift));
    return bytes;
}

inline Bytes Text(const wchar_t* text)
{
    const size_t length = text ? wcslen(text) + 1 : 0;
    const unsigned char* units = reinterpret_cast<const unsigned char*>(text);
    return Dwords({static_cast<DWORD>(length * 2)}) + Bytes(units, units + length * 2);
}
}  // namespace instance_testing

using namespace instance_testing;
