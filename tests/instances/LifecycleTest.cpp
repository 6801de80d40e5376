// Instance lifecycle: numbering, listing, deleting, duplicating and locking.
#include <gtest/gtest.h>
#include <algorithm>
#include "InstanceTestSupport.h"

namespace
{
typedef std::vector<std::wstring> Ids;
typedef std::vector<unsigned char> Bytes;

const _bstr_t kOne(L"1"), kTwo(L"2"), kThree(L"3");

Bytes RootStream(IStorage* root, const wchar_t* name)
{
    ComPtr<IStream> stream;
    Bytes bytes(64);
    ULONG read = 0;
    if (SUCCEEDED(root->OpenStream(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, stream.GetAddressOf())))
        stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read);
    bytes.resize(read);
    return bytes;
}

void WriteRootStream(IStorage* root, const wchar_t* name, const Bytes& bytes)
{
    ComPtr<IStream> stream;
    ASSERT_EQ(S_OK, root->CreateStream(name, STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0, 0,
                                       stream.GetAddressOf()));
    ASSERT_EQ(S_OK, stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr));
}

Bytes Admin(DWORD next)
{
    Bytes bytes;
    AppendDword(bytes, 1);
    AppendDword(bytes, next);
    return bytes;
}

// The device name that the identification of id gives.
std::wstring DeviceOf(IFbInstanceData* store, const wchar_t* id)
{
    ComPtr<IFdtDescriptor> descriptor;
    ComPtr<IFdtDtmDescriptor> dtm;
    BSTR device = nullptr;
    EXPECT_EQ(S_OK, store->ReadIdentification(nullptr, _bstr_t(id), descriptor.GetAddressOf()));
    if (descriptor && SUCCEEDED(descriptor->get_m_dtm(dtm.GetAddressOf())) && dtm)
        dtm->get_m_device(&device);
    std::wstring result(device ? device : L"");
    SysFreeString(device);
    return result;
}

std::wstring InstanceWithDevice(IFbInstanceData* store, const wchar_t* device)
{
    ComPtr<TestDtmDescriptor> dtm = Make<TestDtmDescriptor>();
    dtm->device = device;
    return NewInstance(store, dtm.Get());
}

// How often an instance can be unlocked: its lock count, which only shows
// through UnlockInstance refusing to go below 0. The locks are given back.
int LockCount(IFbInstanceData* store, BSTR id)
{
    int count = 0;
    while (store->UnlockInstance(nullptr, id) == S_OK)
        ++count;
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(S_OK, store->LockInstance(nullptr, id));
    return count;
}

}  // namespace

TEST(Lifecycle, NumbersAreNeverHandedOutTwice)
{
    StoreSession session;
    IFbInstanceData* store = session.Store();
    EXPECT_EQ(Ids(), InstanceList(store));
    EXPECT_EQ(L"1", NewInstance(store));
    EXPECT_EQ(L"2", NewInstance(store));
    EXPECT_EQ(L"3", NewInstance(store));
    EXPECT_EQ(S_OK, store->Delete(nullptr, kTwo));
    EXPECT_EQ(L"4", NewInstance(store));
    EXPECT_EQ((Ids{L"1", L"3", L"4"}), InstanceList(store));

    // An unknown name changes nothing; the administration stream is no instance.
    TraceCapture trace;
    EXPECT_EQ(STG_E_FILENOTFOUND, store->Delete(nullptr, kTwo));
    EXPECT_EQ(STG_E_FILENOTFOUND, store->Delete(nullptr, _bstr_t(L"99")));
    EXPECT_EQ(E_INVALIDARG, store->Delete(nullptr, _bstr_t(L"admin")));
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    EXPECT_TRUE(FAILED(store->Delete(nullptr, nullptr)));
    EXPECT_TRUE(FAILED(store->LockInstance(nullptr, nullptr)));
    BSTR copy = nullptr;
    EXPECT_TRUE(FAILED(store->Duplicate(nullptr, nullptr, &copy)));
    SysFreeString(copy);
    // The copy of nothing got its number before it failed.
    EXPECT_EQ(Admin(6), RootStream(session.Root(), L"admin"));
    EXPECT_EQ((Ids{L"1", L"3", L"4", L"5"}), InstanceList(store));

    session.Reopen();
    EXPECT_EQ((Ids{L"1", L"3", L"4", L"5"}), InstanceList(store));
    EXPECT_EQ(L"6", NewInstance(store));
}

TEST(Lifecycle, ListTakesOnlyInstanceStorages)
{
    StoreSession session;
    IFbInstanceData* store = session.Store();
    NewInstance(store);
    NewInstance(store);
    NewInstance(store);
    ComPtr<IStorage> other;
    for (const wchar_t* name : {L"01", L"x", L"2a", L"4", L"4294967296"})
    {
        ASSERT_EQ(S_OK, session.Root()->CreateStorage(name, STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0,
                                                      other.ReleaseAndGetAddressOf()));
    }
    other.Reset();
    WriteRootStream(session.Root(), L"5", Bytes(4));
    EXPECT_EQ(S_OK, store->Delete(nullptr, kTwo));
    // 4 is a storage of an instance number not handed out yet.
    EXPECT_EQ((Ids{L"1", L"3"}), InstanceList(store));

    // A damaged next number neither lists what was not handed out nor runs
    // through every number below it.
    WriteRootStream(session.Root(), L"admin", Admin(0xFFFFFFFF));
    EXPECT_EQ((Ids{L"1", L"3", L"4"}), InstanceList(store));
    EXPECT_EQ(L"4294967295", NewInstance(store));
    TraceCapture trace;
    BSTR id = nullptr;
    EXPECT_EQ(E_FAIL, store->Create(nullptr, nullptr, nullptr, &id));
    EXPECT_TRUE(trace.Contains(": error 0x80004005: ")) << trace.Text();
    EXPECT_EQ(Admin(0), RootStream(session.Root(), L"admin"));
}

TEST(Lifecycle, ListIsAnArrayOfStringsFromZero)
{
    StoreSession session;
    IFbInstanceData* store = session.Store();
    EXPECT_EQ(E_POINTER, store->GetInstanceDataList(nullptr, nullptr));
    SAFEARRAY* list = SafeArrayCreateVector(VT_BSTR, 5, 2);   // replaced, not leaked
    ASSERT_EQ(S_OK, store->GetInstanceDataList(nullptr, &list));
    ExpectListAndDestroy(list, VT_BSTR, 0);

    // Late-bound, as a scripting frame would call it.
    NewInstance(store);
    ComPtr<IDispatch> dispatch;
    ASSERT_EQ(S_OK, store->QueryInterface(IID_PPV_ARGS(&dispatch)));
    VARIANTARG context;
    VariantInit(&context);
    V_VT(&context) = VT_UNKNOWN;
    V_UNKNOWN(&context) = nullptr;
    DISPPARAMS arguments = {&context, nullptr, 1, 0};
    VARIANT result;
    VariantInit(&result);
    ASSERT_EQ(S_OK, dispatch->Invoke(32, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &arguments, &result,
                                     nullptr, nullptr));
    ASSERT_EQ(VT_ARRAY | VT_BSTR, V_VT(&result));
    EXPECT_EQ(Ids{L"1"}, ReadBstrArray(V_ARRAY(&result)));
    VariantClear(&result);
}

// Delete destroys the storage the store may hold open; nothing of it is seen again.
TEST(Lifecycle, DeletingTheInstanceInUse)
{
    StoreSession session;
    IFbInstanceData* store = session.Store();
    EXPECT_EQ(L"1", InstanceWithDevice(store, L"Old"));
    EXPECT_EQ(L"2", NewInstance(store));

    // Instance 1 gets a parameter entry in its map; listing it loads the map.
    ParkStoreOn(store, L"2");
    Bytes map;
    for (DWORD field : {1, 1, 1})
        AppendDword(map, field);
    AppendString(map, L"P");
    AppendDword(map, 2);
    AppendDword(map, 0);
    ReplaceInstanceStream(session.Root(), L"1", L"map", map);
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(S_OK, store->GetAllParameters(nullptr, kOne, &names));
    EXPECT_EQ(Ids{L"P"}, ReadBstrArray(names));
    EXPECT_EQ(L"Old", DeviceOf(store, L"1"));
    EXPECT_EQ(S_OK, store->LockInstance(nullptr, kOne));

    EXPECT_EQ(S_OK, store->Delete(nullptr, kOne));
    EXPECT_EQ(Ids{L"2"}, InstanceList(store));
    // A later access to the name finds nothing of the destroyed instance,
    // and leaves nothing behind that the instance list would show.
    EXPECT_EQ(STG_E_FILENOTFOUND, store->GetAllParameters(nullptr, kOne, &names));
    EXPECT_EQ(STG_E_FILENOTFOUND, store->LockInstance(nullptr, kOne));
    EXPECT_EQ(L"", DeviceOf(store, L"1"));
    SafeArrayDestroy(names);

    EXPECT_EQ(L"3", InstanceWithDevice(store, L"New"));
    EXPECT_EQ(L"New", DeviceOf(store, L"3"));
    EXPECT_EQ(S_OK, store->LockInstance(nullptr, kThree));
    EXPECT_EQ(1, LockCount(store, kThree));
    EXPECT_EQ(S_OK, store->Delete(nullptr, kThree));
    const Ids left = InstanceList(store);
    EXPECT_EQ(left.end(), std::find(left.begin(), left.end(), L"3"));
    EXPECT_EQ(STG_E_FILENOTFOUND, store->UnlockInstance(nullptr, kThree));
    EXPECT_EQ(Ids{L"2"}, InstanceList(store));
}

TEST(Lifecycle, DuplicateCopiesEverything)
{
    StoreSession session;
    IFbInstanceData* store = session.Store();
    ComPtr<TestDtmDescriptor> dtm = Make<TestDtmDescriptor>();
    dtm->device = L"D1";
    dtm->classification = 17;
    ComPtr<TestCommDescriptor> comm = Make<TestCommDescriptor>();
    comm->name = L"C1";
    ASSERT_EQ(L"1", NewInstance(store, dtm.Get(), comm.Get()));
    ASSERT_EQ(L"2", NewInstance(store));
    ASSERT_EQ(L"3", NewInstance(store));
    ASSERT_EQ(S_OK, store->LockInstance(nullptr, kOne));
    ASSERT_EQ(S_OK, store->LockInstance(nullptr, kOne));
    ASSERT_EQ(S_OK, store->AddInstanceDataReference(nullptr, kOne, _bstr_t(L"P"), kTwo));
    ASSERT_EQ(S_OK, store->AddInstanceDataReference(nullptr, kThree, _bstr_t(L"Q"), kOne));
    // Parameter and group streams, as the parameter operations leave them.
    ParkStoreOn(store, L"2");
    ReplaceInstanceStream(session.Root(), L"1", L"0", Bytes{1, 0, 0, 0, 2, 0, 0, 0, 0xAB});
    ReplaceInstanceStream(session.Root(), L"1", L"1", Bytes{1, 0, 0, 0, 1, 0, 0, 0, 0xCD});

    BSTR copy = nullptr;
    EXPECT_EQ(E_POINTER, store->Duplicate(nullptr, kOne, nullptr));
    ASSERT_EQ(S_OK, store->Duplicate(nullptr, kOne, &copy));
    EXPECT_STREQ(L"4", copy);
    _bstr_t four(copy, false);

    ParkStoreOn(store, L"2");
    const auto source = AllInstanceStreams(session.Root(), L"1");
    EXPECT_EQ(6u, source.size());
    EXPECT_EQ(source, AllInstanceStreams(session.Root(), L"4"));

    EXPECT_EQ(2, LockCount(store, four));
    EXPECT_EQ((References{{L"2", L"P"}}), SubReferences(store, four));
    EXPECT_EQ(Reference(L"3", L"Q"), SuperReference(store, four));
    EXPECT_EQ(L"D1", DeviceOf(store, L"4"));

    // The copy lives on its own and is in the file after a commit.
    EXPECT_EQ(S_OK, store->UnlockInstance(nullptr, four));
    EXPECT_EQ(2, LockCount(store, kOne));
    session.Reopen();
    EXPECT_EQ((Ids{L"1", L"2", L"3", L"4"}), InstanceList(store));
    EXPECT_EQ(1, LockCount(store, four));
    EXPECT_EQ(L"D1", DeviceOf(store, L"4"));
}

TEST(Lifecycle, LocksCountPerInstanceAndLeaveReferencesAlone)
{
    StoreSession session;
    IFbInstanceData* store = session.Store();
    NewInstance(store);
    NewInstance(store);
    ParkStoreOn(store, L"2");
    const Bytes fresh = InstanceStream(session.Root(), L"1", L"instance");
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, store->UnlockInstance(nullptr, kOne));
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    ParkStoreOn(store, L"2");
    EXPECT_EQ(fresh, InstanceStream(session.Root(), L"1", L"instance"));

    ASSERT_EQ(S_OK, store->AddInstanceDataReference(nullptr, kOne, _bstr_t(L"P"), kTwo));
    ASSERT_EQ(S_OK, store->AddInstanceDataReference(nullptr, kTwo, _bstr_t(L"Q"), kOne));
    ParkStoreOn(store, L"2");
    Bytes before = InstanceStream(session.Root(), L"1", L"instance");
    EXPECT_EQ(S_OK, store->LockInstance(nullptr, kOne));
    EXPECT_EQ(S_OK, store->LockInstance(nullptr, kOne));
    EXPECT_EQ(S_OK, store->LockInstance(nullptr, kTwo));
    ParkStoreOn(store, L"2");
    before[4] = 2;   // only the lock count moves
    EXPECT_EQ(before, InstanceStream(session.Root(), L"1", L"instance"));

    session.Reopen();
    EXPECT_EQ(S_OK, store->UnlockInstance(nullptr, kOne));
    EXPECT_EQ(S_OK, store->UnlockInstance(nullptr, kOne));
    ParkStoreOn(store, L"2");
    const Bytes unlocked = InstanceStream(session.Root(), L"1", L"instance");
    trace.Clear();
    EXPECT_EQ(E_FAIL, store->UnlockInstance(nullptr, kOne));
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    ParkStoreOn(store, L"2");
    EXPECT_EQ(unlocked, InstanceStream(session.Root(), L"1", L"instance"));
    EXPECT_EQ(1, LockCount(store, kTwo));
    EXPECT_EQ((References{{L"2", L"P"}}), SubReferences(store, kOne));
}
