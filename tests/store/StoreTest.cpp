// The store object and its storage file: opening, creating, handing out the
// root storage, and the conventions every operation follows.
#include <gtest/gtest.h>
#include "TestSupport.h"

namespace
{
std::vector<unsigned char> AdminBytes(IStorage* root)
{
    std::vector<unsigned char> bytes;
    ComPtr<IStream> stream;
    if (FAILED(root->OpenStream(L"admin", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, stream.GetAddressOf())))
        return bytes;
    unsigned char buffer[64];
    ULONG read = 0;
    stream->Read(buffer, sizeof buffer, &read);
    return std::vector<unsigned char>(buffer, buffer + read);
}

const std::vector<unsigned char> kNewAdmin = {1, 0, 0, 0, 1, 0, 0, 0};

// Gives the file up by opening another one, so that it can be read directly.
void ReleaseFile(IInstanceDataMgr* manager)
{
    static TempStoreFile parking(L"parking.stg");
    ComPtr<IStorage> root;
    ASSERT_EQ(S_OK, manager->OpenStorage(parking.Bstr(), root.GetAddressOf()));
}
}  // namespace

// Runs first: the store has not opened any file yet in this process.
TEST(StoreBeforeOpen, HasNoStorageAndAnEmptyPath)
{
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    IStorage* storage = reinterpret_cast<IStorage*>(1);
    EXPECT_EQ(E_FAIL, manager->GetStorage(&storage));
    EXPECT_EQ(nullptr, storage);
    BSTR path = nullptr;
    ASSERT_EQ(S_OK, manager->GetStoragePath(&path));
    ASSERT_NE(nullptr, path);
    EXPECT_EQ(0u, SysStringLen(path));
    SysFreeString(path);
}

TEST(Store, ArgumentChecks)
{
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    ComPtr<IStorage> root;
    _bstr_t empty(L"");
    TempStoreFile file(L"arguments.stg");
    EXPECT_EQ(E_POINTER, manager->OpenStorage(nullptr, root.GetAddressOf()));
    EXPECT_EQ(E_POINTER, manager->OpenStorage(empty, root.GetAddressOf()));
    EXPECT_EQ(E_POINTER, manager->OpenStorage(file.Bstr(), nullptr));
    EXPECT_EQ(E_POINTER, manager->GetStorage(nullptr));
    TraceCapture trace;
    EXPECT_EQ(E_POINTER, manager->GetStoragePath(nullptr));
    EXPECT_TRUE(trace.Contains("InstanceData/FbInstanceData(")) << trace.Text();
    EXPECT_TRUE(trace.Contains(": error 0x80004003: ")) << trace.Text();
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(file.Path()));
}

TEST(Store, CreatesANewFileWithItsAdministrationRecord)
{
    TempStoreFile file(L"new.stg");
    TraceCapture trace;
    OpenStore open = OpenStore::At(file.Bstr());
    ASSERT_TRUE(open.root);
    EXPECT_TRUE(trace.Contains("FbInstanceData::OpenStorage StgOpenStorage(" + std::string(_bstr_t(file.Path())) +
                               ") failed -> create new storage file\n"))
        << trace.Text();
    EXPECT_EQ(kNewAdmin, AdminBytes(open.root.Get()));

    // Nothing reaches the disk until the frame commits the root.
    ComPtr<IStorage> same;
    ASSERT_EQ(S_OK, open.manager->GetStorage(same.GetAddressOf()));
    EXPECT_EQ(open.root.Get(), same.Get());
    open.Commit();
    same.Reset();
    open.root.Reset();
    ReleaseFile(open.manager.Get());
    EXPECT_EQ(kNewAdmin, ReadStreamBytes(file.Path(), L"admin"));
}

TEST(Store, OpeningTheOpenFileAgainHandsOutTheSameRoot)
{
    TempStoreFile file(L"same.stg");
    OpenStore open = OpenStore::At(file.Bstr());
    ASSERT_TRUE(open.root);
    // A change to the administration record through the root is not reread.
    {
        ComPtr<IStream> admin;
        ASSERT_EQ(S_OK, open.root->OpenStream(L"admin", nullptr, STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0,
                                             admin.GetAddressOf()));
        const DWORD garbage[2] = {7, 7};
        ASSERT_EQ(S_OK, admin->Write(garbage, sizeof garbage, nullptr));
    }
    TraceCapture trace;
    ComPtr<IStorage> again;
    ASSERT_EQ(S_OK, open.manager->OpenStorage(file.Bstr(), again.GetAddressOf()));
    EXPECT_EQ(open.root.Get(), again.Get());
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
}

TEST(Store, PathComparisonIsCaseSensitive)
{
    TempStoreFile file(L"case.stg");
    OpenStore open = OpenStore::At(file.Bstr());
    ASSERT_TRUE(open.root);
    open.Commit();
    std::wstring upper = file.Path();
    upper.replace(upper.size() - 8, 4, L"CASE");
    _bstr_t other(upper.c_str());
    open.root.Reset();
    ComPtr<IStorage> second;
    // The same file under another spelling is another file: the store gives
    // its root up, so the file can be opened again.
    ASSERT_EQ(S_OK, open.manager->OpenStorage(other, second.GetAddressOf()));
    BSTR path = nullptr;
    ASSERT_EQ(S_OK, open.manager->GetStoragePath(&path));
    EXPECT_STREQ(upper.c_str(), path);
    SysFreeString(path);
}

TEST(Store, ReplacesAFileThatIsNoCompoundFile)
{
    TempStoreFile file(L"plain.stg");
    HANDLE handle = CreateFileW(file.Path(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, handle);
    DWORD written = 0;
    WriteFile(handle, "not a store", 11, &written, nullptr);
    CloseHandle(handle);
    OpenStore open = OpenStore::At(file.Bstr());
    ASSERT_TRUE(open.root);
    EXPECT_EQ(kNewAdmin, AdminBytes(open.root.Get()));
}

TEST(Store, FailedOpenKeepsThePathOfTheLastFile)
{
    TempStoreFile file(L"kept.stg");
    OpenStore open = OpenStore::At(file.Bstr());
    ASSERT_TRUE(open.root);
    _bstr_t impossible((TestFilesDirectory() + L"no such folder\\x.stg").c_str());
    TraceCapture trace;
    ComPtr<IStorage> none;
    const HRESULT hr = open.manager->OpenStorage(impossible, none.GetAddressOf());
    EXPECT_TRUE(FAILED(hr));
    EXPECT_FALSE(none);
    EXPECT_TRUE(trace.Contains("failed -> create new storage file")) << trace.Text();
    char expected[64];
    sprintf(expected, ": error 0x%x: ", static_cast<unsigned>(hr));
    EXPECT_TRUE(trace.Contains(expected)) << trace.Text();
    BSTR path = nullptr;
    ASSERT_EQ(S_OK, open.manager->GetStoragePath(&path));
    EXPECT_STREQ(file.Path(), path);
    SysFreeString(path);
    ComPtr<IStorage> storage;
    EXPECT_EQ(E_FAIL, open.manager->GetStorage(storage.GetAddressOf()));
}

// The store copies the path it opens; when that copy fails, the framework's
// memory exception is thrown and caught inside the module (on i686 one that
// crossed from the toolkit DLL would end the process instead), and the open
// file stays the store's file.
TEST(Store, OutOfMemoryGivesUnexpectedAndKeepsTheOpenFile)
{
    TempStoreFile file(L"kept-without-memory.stg"), other(L"no-memory.stg");
    OpenStore open = OpenStore::At(file.Bstr());
    ASSERT_TRUE(open.root);
    // A string whose length prefix no allocation can satisfy.
    struct
    {
        DWORD bytes = 0xFFFFFFFE;
        wchar_t text[MAX_PATH] = {};
    } unallocatable;
    wcsncpy(unallocatable.text, other.Path(), MAX_PATH - 1);
    TraceCapture trace;
    ComPtr<IStorage> root;
    EXPECT_EQ(E_UNEXPECTED, open.manager->OpenStorage(unallocatable.text, root.GetAddressOf()));
    EXPECT_TRUE(trace.Contains(": exception 0xaa: Out of memory.")) << trace.Text();
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(other.Path()));
    BSTR path = nullptr;
    ASSERT_EQ(S_OK, open.manager->GetStoragePath(&path));
    EXPECT_STREQ(file.Path(), path);
    SysFreeString(path);
    EXPECT_EQ(S_OK, open.manager->GetStorage(root.GetAddressOf()));
    EXPECT_EQ(open.root.Get(), root.Get());
}

TEST(Store, ReadsTheAdministrationRecordOfAnExistingFile)
{
    TempStoreFile file(L"existing.stg");
    {
        ComPtr<IStorage> root;
        ASSERT_EQ(S_OK, StgCreateDocfile(file.Path(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0,
                                         root.GetAddressOf()));
        ComPtr<IStream> admin;
        ASSERT_EQ(S_OK, root->CreateStream(L"admin", STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, admin.GetAddressOf()));
        const DWORD record[2] = {1, 42};
        ASSERT_EQ(S_OK, admin->Write(record, sizeof record, nullptr));
    }
    TraceCapture trace;
    OpenStore open = OpenStore::At(file.Bstr());
    ASSERT_TRUE(open.root);
    EXPECT_FALSE(trace.Contains("create new storage file")) << trace.Text();
    const std::vector<unsigned char> expected = {1, 0, 0, 0, 42, 0, 0, 0};
    EXPECT_EQ(expected, AdminBytes(open.root.Get()));
}

TEST(Store, TruncatedAdministrationRecordFailsTheOpen)
{
    TempStoreFile file(L"short-admin.stg");
    {
        ComPtr<IStorage> root;
        ASSERT_EQ(S_OK, StgCreateDocfile(file.Path(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0,
                                         root.GetAddressOf()));
        ComPtr<IStream> admin;
        ASSERT_EQ(S_OK, root->CreateStream(L"admin", STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, admin.GetAddressOf()));
        ASSERT_EQ(S_OK, admin->Write("\1\0\0", 3, nullptr));
    }
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    TraceCapture trace;
    ComPtr<IStorage> root;
    EXPECT_EQ(E_FAIL, manager->OpenStorage(file.Bstr(), root.GetAddressOf()));
    EXPECT_FALSE(root);
    EXPECT_TRUE(trace.Contains(": error 0x80004005: ")) << trace.Text();
    // The file is not replaced and not held.
    EXPECT_EQ(3u, ReadStreamBytes(file.Path(), L"admin").size());
}

TEST(Store, ErrorInfoAndDispatch)
{
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<ISupportErrorInfo> errorInfo;
    ASSERT_EQ(S_OK, store.As(&errorInfo));
    EXPECT_EQ(S_OK, errorInfo->InterfaceSupportsErrorInfo(IID_IFbInstanceData));
    EXPECT_EQ(S_OK, errorInfo->InterfaceSupportsErrorInfo(IID_IInstanceDataMgr));
    EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IDispatch));
    EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_ISupportErrorInfo));

    ComPtr<IDispatch> dispatch;
    ASSERT_EQ(S_OK, store.As(&dispatch));
    UINT count = 0;
    EXPECT_EQ(S_OK, dispatch->GetTypeInfoCount(&count));
    EXPECT_EQ(1u, count);
    EXPECT_EQ(E_POINTER, dispatch->GetTypeInfo(0, 0, nullptr));
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"GetInstanceDataList"), const_cast<LPOLESTR>(L"Register"),
                        const_cast<LPOLESTR>(L"WriteParameter")};
    const DISPID expected[] = {32, 1, 20};
    for (int i = 0; i < 3; ++i)
    {
        DISPID id = 0;
        ASSERT_EQ(S_OK, dispatch->GetIDsOfNames(IID_NULL, &names[i], 1, LOCALE_USER_DEFAULT, &id));
        EXPECT_EQ(expected[i], id);
    }

    // The manager interface is described by the module's own library.
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    LPOLESTR path = const_cast<LPOLESTR>(L"GetStoragePath");
    DISPID id = 0;
    ASSERT_EQ(S_OK, manager->GetIDsOfNames(IID_NULL, &path, 1, LOCALE_USER_DEFAULT, &id));
    EXPECT_EQ(3, id);
    DISPPARAMS none = {};
    VARIANT result;
    VariantInit(&result);
    ASSERT_EQ(S_OK, manager->Invoke(3, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, &result, nullptr, nullptr));
    EXPECT_EQ(VT_BSTR, V_VT(&result));
    VariantClear(&result);
}
