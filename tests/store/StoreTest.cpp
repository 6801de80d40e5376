// The store object and its storage file: opening, creating, handing out the
// root storage, and the conventions every operation follows.
#include "TestSupport.h"

namespace
{
using StoreFile = StoreSession;

Bytes FileStream(BSTR path, const wchar_t* stream)
{
    ComPtr<IStorage> root;
    StgOpenStorage(path, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, root.GetAddressOf());
    return root ? ReadStream(root.Get(), stream) : Bytes();
}

std::wstring StoragePath(IInstanceDataMgr* manager)
{
    _bstr_t path;
    EXPECT_EQ(S_OK, manager->GetStoragePath(path.GetAddress()));
    return Str(path);
}
}  // namespace

TEST_F(StoreFile, ArgumentChecks)
{
    ComPtr<IStorage> root;
    EXPECT_EQ(E_POINTER, Manager()->OpenStorage(nullptr, root.GetAddressOf()));
    EXPECT_EQ(E_POINTER, Manager()->OpenStorage(_bstr_t(L""), root.GetAddressOf()));
    EXPECT_EQ(E_POINTER, Manager()->OpenStorage(Path(), nullptr));
    EXPECT_EQ(E_POINTER, Manager()->GetStorage(nullptr));
    TraceCapture trace;
    EXPECT_EQ(E_POINTER, Manager()->GetStoragePath(nullptr));
    EXPECT_TRUE(trace.Contains(": error 0x80004003: ")) << trace.Text();
}

// A new file reaches the disk with the frame's commit. A failed open keeps
// the path of the last file; an existing file's administration record gives
// the next number, and a short one fails the open and is kept as it is.
TEST_F(StoreFile, NewAndExistingFiles)
{
    const Bytes newAdmin = ByteBuilder().U32(1).U32(1);
    GiveUp();
    DeleteFileW(Path());
    TraceCapture trace;
    Open();
    EXPECT_TRUE(trace.Contains("FbInstanceData::OpenStorage StgOpenStorage(" + std::string(_bstr_t(Path())) +
                               ") failed -> create new storage file\n"))
        << trace.Text();
    EXPECT_EQ(newAdmin, ReadStream(Root(), L"admin"));
    ComPtr<IStorage> same;
    ASSERT_EQ(S_OK, Manager()->GetStorage(same.GetAddressOf()));
    EXPECT_EQ(Root(), same.Get());
    same.Reset();
    Commit();
    GiveUp();
    EXPECT_EQ(newAdmin, FileStream(Path(), L"admin"));
    EXPECT_EQ(std::wstring(Path()), StoragePath(Manager()));
    EXPECT_EQ(E_FAIL, Manager()->GetStorage(same.GetAddressOf()));

    for (const Bytes& admin : {Bytes{1, 0, 0, 0, 42, 0, 0, 0}, Bytes{1, 0, 0}})
    {
        ComPtr<IStorage> root;
        ComPtr<IStream> stream;
        ASSERT_EQ(S_OK, StgCreateDocfile(Path(), STGM_CREATE | kMode, 0, root.GetAddressOf()));
        ASSERT_EQ(S_OK, root->CreateStream(L"admin", kMode, 0, 0, stream.GetAddressOf()));
        ASSERT_EQ(S_OK, stream->Write(admin.data(), static_cast<ULONG>(admin.size()), nullptr));
        stream.Reset(), root.Reset();
        EXPECT_EQ(admin.size() == 8 ? S_OK : E_FAIL, Manager()->OpenStorage(Path(), root.GetAddressOf()));
        EXPECT_EQ(admin.size() == 8, root != nullptr);
        if (root)
        {
            EXPECT_EQ(L"42", NewInstance());
            root.Reset();
            GiveUp();
        }
    }
    EXPECT_EQ(Bytes({1, 0, 0}), FileStream(Path(), L"admin"));
}

// The open file opened again gives the same root, and a change made through
// it is not reread; the same file under another spelling is another file.
TEST_F(StoreFile, OpeningAgainAndThePathsSpelling)
{
    Replace(L"admin", Bytes(8, 7));
    TraceCapture trace;
    ComPtr<IStorage> again;
    ASSERT_EQ(S_OK, Manager()->OpenStorage(Path(), again.GetAddressOf()));
    EXPECT_EQ(Root(), again.Get());
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    again.Reset();
    Commit();
    ReleaseRoot();
    std::wstring upper = static_cast<const wchar_t*>(Path());
    for (wchar_t& c : upper)
        c = towupper(c);
    ASSERT_EQ(S_OK, Manager()->OpenStorage(_bstr_t(upper.c_str()), again.GetAddressOf()));
    EXPECT_EQ(upper, StoragePath(Manager()));
}

// When the copy of the path fails, the framework's memory exception is thrown
// and caught inside the module (on i686 one that crossed from the toolkit DLL
// would end the process instead), and the open file stays the store's file.
TEST_F(StoreFile, OutOfMemoryGivesUnexpectedAndKeepsTheOpenFile)
{
    const std::wstring other = std::wstring(Path()) + L".other";
    // A string whose length prefix no allocation can satisfy.
    struct
    {
        DWORD bytes = 0xFFFFFFFE;
        wchar_t text[MAX_PATH] = {};
    } unallocatable;
    wcsncpy(unallocatable.text, other.c_str(), MAX_PATH - 1);
    TraceCapture trace;
    ComPtr<IStorage> root;
    EXPECT_EQ(E_UNEXPECTED, Manager()->OpenStorage(unallocatable.text, root.GetAddressOf()));
    EXPECT_TRUE(trace.Contains(": exception 0xaa: Out of memory.")) << trace.Text();
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(other.c_str()));
    EXPECT_EQ(std::wstring(Path()), StoragePath(Manager()));
    EXPECT_EQ(S_OK, Manager()->GetStorage(root.GetAddressOf()));
}

// Error information for both own interfaces; a late-bound call by the name in
// the type information.
TEST_F(StoreFile, ErrorInfoAndDispatch)
{
    ComPtr<ISupportErrorInfo> errorInfo;
    ASSERT_EQ(S_OK, Store()->QueryInterface(IID_PPV_ARGS(&errorInfo)));
    EXPECT_EQ(S_OK, errorInfo->InterfaceSupportsErrorInfo(IID_IFbInstanceData));
    EXPECT_EQ(S_OK, errorInfo->InterfaceSupportsErrorInfo(IID_IInstanceDataMgr));
    EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IDispatch));

    ASSERT_EQ(L"1", NewInstance());
    DISPID id = 0;
    LPOLESTR name = const_cast<LPOLESTR>(L"GetInstanceDataList");
    ASSERT_EQ(S_OK, Store()->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &id));
    EXPECT_EQ(32, id);
    _variant_t context(static_cast<IDispatch*>(nullptr));
    DISPPARAMS parameters = {&context.GetVARIANT(), nullptr, 1, 0};
    _variant_t result;
    ASSERT_EQ(S_OK, Store()->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &parameters,
                                    result.GetAddress(), nullptr, nullptr));
    ASSERT_EQ(VT_ARRAY | VT_BSTR, V_VT(&result));
    EXPECT_EQ(Names{L"1"}, ReadBstrArray(V_ARRAY(&result)));
}
