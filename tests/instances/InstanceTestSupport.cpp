#include "InstanceTestSupport.h"
#include <gtest/gtest.h>
#include <algorithm>

namespace instance_testing
{
namespace
{
constexpr DWORD kOpenMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

ComPtr<IStorage> OpenInstanceStorage(IStorage* root, const wchar_t* id)
{
    ComPtr<IStorage> storage;
    EXPECT_EQ(S_OK, root->OpenStorage(id, nullptr, kOpenMode, nullptr, 0, storage.GetAddressOf()))
        << "instance storage " << std::string(_bstr_t(id)) << " (is the store still holding it open?)";
    return storage;
}

std::vector<unsigned char> WholeStream(IStream* stream)
{
    std::vector<unsigned char> bytes;
    unsigned char buffer[4096];
    ULONG read = 0;
    while (SUCCEEDED(stream->Read(buffer, sizeof buffer, &read)) && read)
        bytes.insert(bytes.end(), buffer, buffer + read);
    return bytes;
}
}  // namespace

namespace
{
std::wstring TestFileName(const wchar_t* name)
{
    if (name)
        return name;
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string text = std::string(test->test_suite_name()) + "-" + test->name() + ".stg";
    return std::wstring(text.begin(), text.end());
}
}  // namespace

StoreSession::StoreSession(const wchar_t* name)
    : m_file(TestFileName(name).c_str()), m_open(OpenStore::At(m_file.Bstr()))
{
}

StoreSession::~StoreSession()
{
    m_open.root.Reset();
    if (m_open.manager)
        ReleaseStoreFile(m_open.manager.Get());
}

void StoreSession::Reopen()
{
    Close();
    ASSERT_EQ(S_OK, m_open.manager->OpenStorage(m_file.Bstr(), m_open.root.GetAddressOf()));
}

void StoreSession::Close()
{
    m_open.Commit();
    m_open.root.Reset();
    ReleaseStoreFile(m_open.manager.Get());
}

void ReleaseStoreFile(IInstanceDataMgr* manager)
{
    // One parking file per test program, so that programs can run side by side.
    static TempStoreFile parking([] {
        wchar_t path[MAX_PATH];
        const std::wstring program(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
        return program.substr(program.find_last_of(L"\\/") + 1) + L"-parking.stg";
    }().c_str());
    ComPtr<IStorage> root;
    ASSERT_EQ(S_OK, manager->OpenStorage(parking.Bstr(), root.GetAddressOf()));
    // Committed, so that the next parking finds a whole store file.
    ASSERT_EQ(S_OK, root->Commit(STGC_DEFAULT));
}

std::wstring NewInstance(IFbInstanceData* store, IFdtDtmDescriptor* dtm, IFdtCommunicationDescriptor* comm)
{
    ComPtr<TestDtmDescriptor> defaultDtm = Make<TestDtmDescriptor>();
    ComPtr<TestCommDescriptor> defaultComm = Make<TestCommDescriptor>();
    BSTR id = nullptr;
    const HRESULT hr = store->Create(nullptr, dtm ? dtm : defaultDtm.Get(), comm ? comm : defaultComm.Get(), &id);
    EXPECT_EQ(S_OK, hr);
    std::wstring result(id ? id : L"");
    SysFreeString(id);
    return result;
}

std::vector<std::wstring> InstanceList(IFbInstanceData* store)
{
    SAFEARRAY* list = nullptr;
    EXPECT_EQ(S_OK, store->GetInstanceDataList(nullptr, &list));
    std::vector<std::wstring> ids = ReadBstrArray(list);
    if (list)
        SafeArrayDestroy(list);
    return ids;
}

namespace
{
Reference ReferenceOf(IFdtInstanceDataRef* reference)
{
    _bstr_t instance, parameter;
    EXPECT_EQ(S_OK, reference->get_m_instanceID(instance.GetAddress()));
    EXPECT_EQ(S_OK, reference->get_m_parameterName(parameter.GetAddress()));
    return Reference(instance.length() ? static_cast<const wchar_t*>(instance) : L"",
                     parameter.length() ? static_cast<const wchar_t*>(parameter) : L"");
}
}  // namespace

References SubReferences(IFbInstanceData* store, BSTR id)
{
    References pairs;
    SAFEARRAY* list = nullptr;
    EXPECT_EQ(S_OK, store->GetSubInstanceData(nullptr, id, &list));
    LONG lower = 0, upper = -1;
    SafeArrayGetLBound(list, 1, &lower);
    SafeArrayGetUBound(list, 1, &upper);
    for (LONG index = lower; index <= upper; ++index)
    {
        ComPtr<IUnknown> element;
        ComPtr<IFdtInstanceDataRef> reference;
        EXPECT_EQ(S_OK, SafeArrayGetElement(list, &index, element.GetAddressOf()));
        EXPECT_TRUE(element && SUCCEEDED(element.As(&reference)));
        if (reference)
            pairs.push_back(ReferenceOf(reference.Get()));
    }
    if (list)
        SafeArrayDestroy(list);
    return pairs;
}

Reference SuperReference(IFbInstanceData* store, BSTR id)
{
    ComPtr<IFdtInstanceDataRef> reference;
    EXPECT_EQ(S_OK, store->GetSuperInstanceData(nullptr, id, reference.GetAddressOf()));
    return reference ? ReferenceOf(reference.Get()) : Reference(L"<none>", L"<none>");
}

void ParkStoreOn(IFbInstanceData* store, const wchar_t* bystander)
{
    ComPtr<IFdtDescriptor> descriptor;
    ASSERT_EQ(S_OK, store->ReadIdentification(nullptr, _bstr_t(bystander), descriptor.GetAddressOf()));
}

std::vector<unsigned char> InstanceStream(IStorage* root, const wchar_t* id, const wchar_t* name)
{
    ComPtr<IStorage> storage = OpenInstanceStorage(root, id);
    ComPtr<IStream> stream;
    if (!storage || FAILED(storage->OpenStream(name, nullptr, kOpenMode, 0, stream.GetAddressOf())))
        return {};
    return WholeStream(stream.Get());
}

void ReplaceInstanceStream(IStorage* root, const wchar_t* id, const wchar_t* name,
                           const std::vector<unsigned char>& bytes)
{
    ComPtr<IStorage> storage = OpenInstanceStorage(root, id);
    ASSERT_TRUE(storage);
    ComPtr<IStream> stream;
    ASSERT_EQ(S_OK, storage->CreateStream(name, kOpenMode | STGM_CREATE, 0, 0, stream.GetAddressOf()));
    if (!bytes.empty())
    {
        ASSERT_EQ(S_OK, stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr));
    }
    ASSERT_EQ(S_OK, storage->Commit(STGC_DEFAULT));
}

std::vector<std::pair<std::wstring, std::vector<unsigned char>>> AllInstanceStreams(IStorage* root, const wchar_t* id)
{
    std::vector<std::pair<std::wstring, std::vector<unsigned char>>> streams;
    ComPtr<IStorage> storage = OpenInstanceStorage(root, id);
    ComPtr<IEnumSTATSTG> elements;
    if (!storage || FAILED(storage->EnumElements(0, nullptr, 0, elements.GetAddressOf())))
        return streams;
    STATSTG element;
    while (elements->Next(1, &element, nullptr) == S_OK)
    {
        ComPtr<IStream> stream;
        if (element.type == STGTY_STREAM &&
            SUCCEEDED(storage->OpenStream(element.pwcsName, nullptr, kOpenMode, 0, stream.GetAddressOf())))
            streams.emplace_back(element.pwcsName, WholeStream(stream.Get()));
        CoTaskMemFree(element.pwcsName);
    }
    std::sort(streams.begin(), streams.end());
    return streams;
}

void ExpectListAndDestroy(SAFEARRAY* list, VARTYPE type, LONG count)
{
    ASSERT_NE(nullptr, list);
    VARTYPE found = VT_EMPTY;
    LONG lower = -1, upper = -2;
    EXPECT_EQ(S_OK, SafeArrayGetVartype(list, &found));
    EXPECT_EQ(type, found);
    EXPECT_EQ(1u, SafeArrayGetDim(list));
    EXPECT_EQ(S_OK, SafeArrayGetLBound(list, 1, &lower));
    EXPECT_EQ(S_OK, SafeArrayGetUBound(list, 1, &upper));
    EXPECT_EQ(0, lower);
    EXPECT_EQ(count - 1, upper);
    EXPECT_EQ(S_OK, SafeArrayDestroy(list));
}

void AppendDword(std::vector<unsigned char>& bytes, DWORD value)
{
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<unsigned char>(value >> shift));
}

void AppendString(std::vector<unsigned char>& bytes, const wchar_t* text)
{
    if (!text)
        return AppendDword(bytes, 0);
    const size_t length = wcslen(text);
    AppendDword(bytes, static_cast<DWORD>(length * 2 + 2));
    for (size_t i = 0; i <= length; ++i)
    {
        bytes.push_back(static_cast<unsigned char>(text[i] & 0xFF));
        bytes.push_back(static_cast<unsigned char>(text[i] >> 8));
    }
}
}  // namespace instance_testing
