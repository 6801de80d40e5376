// Instances: creation from descriptors of any implementation, numbering,
// deleting, duplicating, locking, and damaged streams.
#include <cwchar>
#include "InstanceTestSupport.h"

namespace
{
const _bstr_t kOne(L"1"), kTwo(L"2"), kThree(L"3"), kP(L"P"), kQ(L"Q");
const std::wstring kDefaults = L"1,0,,,20001fe,400;1,;DVL/QTS-WMR-VQ_INSTANCEDATA";

// The identification of id as "dtm;communication;instance data": category,
// classification, device, node, application and language (hex); category and
// name; name.
std::wstring Identify(IFbInstanceData* store, const wchar_t* id)
{
    ComPtr<IFdtDescriptor> descriptor;
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    ComPtr<IFdtInstanceDataDescriptor> data;
    EXPECT_EQ(S_OK, store->ReadIdentification(nullptr, _bstr_t(id), descriptor.GetAddressOf()));
    if (!descriptor || FAILED(descriptor->get_m_dtm(dtm.GetAddressOf())) ||
        FAILED(descriptor->get_m_communication(comm.GetAddressOf())) ||
        FAILED(descriptor->get_m_instanceData(data.GetAddressOf())))
        return L"<none>";
    BYTE category = 0, commCategory = 0;
    LONG classification = 0, application = 0, language = 0;
    _bstr_t device, node, commName, name;
    dtm->get_m_category(&category);
    dtm->get_m_classification(&classification);
    dtm->get_m_device(device.GetAddress());
    dtm->get_m_node(node.GetAddress());
    dtm->get_m_application(&application);
    dtm->get_m_language(&language);
    comm->get_m_category(&commCategory);
    comm->get_m_name(commName.GetAddress());
    data->get_m_name(name.GetAddress());
    wchar_t result[512];
    swprintf(result, 512, L"%d,%ld,%ls,%ls,%lx,%lx;%d,%ls;%ls", category, classification, Str(device).c_str(),
             Str(node).c_str(), application, language, commCategory, Str(commName).c_str(), Str(name).c_str());
    return result;
}
}  // namespace

// Writes instance-streams.stg for the byte check: instance 1 from the store's
// own new descriptor objects with communication name "A", instance 2 from the
// test's own objects.
TEST(Instances, NewInstancesAndTheirIdentification)
{
    Session session(L"instance-streams.stg");
    session.Keep();
    // An identifier without instance identifies as new descriptor objects.
    EXPECT_EQ(kDefaults, Identify(session.Store(), L"12"));
    ComPtr<IFdtDescriptor> descriptor;
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    ASSERT_EQ(S_OK, session->ReadIdentification(nullptr, _bstr_t(L"7"), descriptor.GetAddressOf()));
    ASSERT_EQ(S_OK, descriptor->get_m_dtm(dtm.GetAddressOf()));
    ASSERT_EQ(S_OK, descriptor->get_m_communication(comm.GetAddressOf()));
    ASSERT_EQ(S_OK, comm->put_m_name(_bstr_t(L"A")));
    EXPECT_EQ(L"1", NewInstance(session.Store(), dtm.Get(), comm.Get()));

    ComPtr<TestDtmDescriptor> ownDtm = new TestDtmDescriptor;
    ownDtm->category = 7;
    ownDtm->classification = -2;
    ownDtm->device = L"Dev";
    ownDtm->application = 0x12345678;
    ownDtm->language = 0x407;
    ComPtr<TestCommDescriptor> ownComm = new TestCommDescriptor;
    ownComm->category = 0xFE;
    ownComm->name = L"HART";
    EXPECT_EQ(L"2", NewInstance(session.Store(), ownDtm.Get(), ownComm.Get()));
    EXPECT_EQ(L"7,-2,Dev,,12345678,407;254,HART;DVL/QTS-WMR-VQ_INSTANCEDATA", Identify(session.Store(), L"2"));
    EXPECT_EQ(L"1,0,,,20001fe,400;1,A;DVL/QTS-WMR-VQ_INSTANCEDATA", Identify(session.Store(), L"1"));
    session.Commit();
}

TEST(Instances, CreateChecksItsDescriptors)
{
    Session session;
    ComPtr<TestDtmDescriptor> dtm = new TestDtmDescriptor;
    ComPtr<TestCommDescriptor> comm = new TestCommDescriptor;
    BSTR id = nullptr;
    EXPECT_EQ(E_POINTER, session->Create(nullptr, dtm.Get(), comm.Get(), nullptr));
    TraceCapture trace;
    EXPECT_EQ(E_POINTER, session->Create(nullptr, nullptr, comm.Get(), &id));
    EXPECT_TRUE(trace.Contains("FbInstanceData::Create WriteToInstance(DtmDescriptor) failed\n")) << trace.Text();
    EXPECT_EQ(E_POINTER, session->Create(nullptr, dtm.Get(), nullptr, &id));
    EXPECT_TRUE(trace.Contains("FbInstanceData::Create WriteToInstance(CommunicationDescriptor) failed\n"));
    // A caller's descriptor that fails to give a property fails the creation with its result.
    comm->failGet = E_ACCESSDENIED;
    EXPECT_EQ(E_ACCESSDENIED, session->Create(nullptr, dtm.Get(), comm.Get(), &id));
    EXPECT_TRUE(trace.Contains(": error 0x80070005: ")) << trace.Text();
    EXPECT_EQ(nullptr, id);
    // A failed creation leaves nothing behind, not even a used number.
    comm->failGet = S_OK;
    EXPECT_EQ(L"1", NewInstance(session.Store(), dtm.Get(), comm.Get()));
    EXPECT_EQ((Ids{L"1"}), InstanceList(session.Store()));
}

TEST(Instances, WithoutAnOpenFile)
{
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    GiveUpFile(manager.Get());
    ComPtr<IFdtDescriptor> descriptor;
    BSTR id = nullptr;
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, store->Create(nullptr, nullptr, nullptr, &id));
    EXPECT_EQ(E_FAIL, store->ReadIdentification(nullptr, kOne, descriptor.GetAddressOf()));
    EXPECT_EQ("FbInstanceData::Create storage not init\nFbInstanceData::ReadIdentification storage not init\n",
              trace.Text());
    EXPECT_EQ(CPkTrace::LevelInfo, trace.Levels().back());
    EXPECT_EQ(E_UNEXPECTED, store->Delete(nullptr, kOne));
}

TEST(Instances, NumbersAreNeverHandedOutTwice)
{
    Session session;
    EXPECT_EQ(Ids(), InstanceList(session.Store()));
    for (const wchar_t* expected : {L"1", L"2", L"3"})
        EXPECT_EQ(expected, NewInstance(session.Store()));
    EXPECT_EQ(S_OK, session->Delete(nullptr, kTwo));
    EXPECT_EQ(L"4", NewInstance(session.Store()));
    EXPECT_EQ((Ids{L"1", L"3", L"4"}), InstanceList(session.Store()));
    {
        // An unknown name changes nothing; the administration stream is no instance.
        TraceCapture trace;
        EXPECT_EQ(STG_E_FILENOTFOUND, session->Delete(nullptr, kTwo));
        EXPECT_EQ(STG_E_FILENOTFOUND, session->Delete(nullptr, _bstr_t(L"99")));
        EXPECT_EQ(E_INVALIDARG, session->Delete(nullptr, _bstr_t(L"admin")));
        EXPECT_EQ("FbInstanceData::Delete admin is not an instance\n", trace.Text());
    }
    EXPECT_EQ(Dwords({1, 5}), session.Stream(nullptr, L"admin"));
    session.Reopen();
    EXPECT_EQ((Ids{L"1", L"3", L"4"}), InstanceList(session.Store()));
    EXPECT_EQ(L"5", NewInstance(session.Store()));
}

TEST(Instances, ListTakesOnlyInstanceStorages)
{
    Session session;
    NewInstance(session.Store());
    NewInstance(session.Store());
    ComPtr<IStorage> other;
    for (const wchar_t* name : {L"01", L"x", L"2a", L"3", L"4294967296"})
        ASSERT_EQ(S_OK, session.Root()->CreateStorage(name, Session::kMode, 0, 0, other.ReleaseAndGetAddressOf()));
    other.Reset();
    session.Replace(nullptr, L"4", Bytes(4));
    // 3 is a storage of a number not handed out yet.
    EXPECT_EQ((Ids{L"1", L"2"}), InstanceList(session.Store()));

    // A damaged next number lists no more than was handed out and never wraps to 0.
    session.Replace(nullptr, L"admin", Dwords({1, 0xFFFFFFFF}));
    EXPECT_EQ((Ids{L"1", L"2", L"3"}), InstanceList(session.Store()));
    EXPECT_EQ(L"4294967295", NewInstance(session.Store()));
    BSTR id = nullptr;
    ComPtr<TestDtmDescriptor> dtm = new TestDtmDescriptor;
    ComPtr<TestCommDescriptor> comm = new TestCommDescriptor;
    EXPECT_EQ(E_FAIL, session->Create(nullptr, dtm.Get(), comm.Get(), &id));
    EXPECT_EQ(Dwords({1, 0}), session.Stream(nullptr, L"admin"));
}

// Delete destroys the storage that the store holds open, and its map: nothing
// of it is seen again, and no later access brings the storage back.
TEST(Instances, DeletingTheCachedInstance)
{
    Session session;
    ComPtr<TestDtmDescriptor> dtm = new TestDtmDescriptor;
    dtm->device = L"Old";
    ASSERT_EQ(L"1", NewInstance(session.Store(), dtm.Get()));
    ASSERT_EQ(L"2", NewInstance(session.Store()));
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(S_OK, session->GetAllParameters(nullptr, kOne, &names));
    SafeArrayDestroy(names);
    ASSERT_EQ(S_OK, session->LockInstance(nullptr, kOne));

    EXPECT_EQ(S_OK, session->Delete(nullptr, kOne));
    EXPECT_EQ(kDefaults, Identify(session.Store(), L"1"));
    names = nullptr;
    EXPECT_EQ(STG_E_FILENOTFOUND, session->GetAllParameters(nullptr, kOne, &names));
    EXPECT_EQ(nullptr, names);
    EXPECT_EQ(STG_E_FILENOTFOUND, session->LockInstance(nullptr, kOne));
    EXPECT_EQ(STG_E_FILENOTFOUND, session->UnlockInstance(nullptr, kOne));
    EXPECT_EQ(Ids{L"2"}, InstanceList(session.Store()));
}

TEST(Instances, DuplicateCopiesEverything)
{
    Session session;
    ComPtr<TestDtmDescriptor> dtm = new TestDtmDescriptor;
    dtm->device = L"D1";
    for (const wchar_t* expected : {L"1", L"2", L"3"})
        ASSERT_EQ(expected, NewInstance(session.Store(), dtm.Get()));
    ASSERT_EQ(S_OK, session->LockInstance(nullptr, kOne));
    ASSERT_EQ(S_OK, session->LockInstance(nullptr, kOne));
    ASSERT_EQ(S_OK, session->AddInstanceDataReference(nullptr, kOne, kP, kTwo));
    ASSERT_EQ(S_OK, session->AddInstanceDataReference(nullptr, kThree, kQ, kOne));
    // Parameter and group streams, as the parameter operations leave them.
    session.Replace(L"1", L"0", Bytes{1, 0, 0, 0, 2, 0, 0, 0, 0xAB});
    session.Replace(L"1", L"1", Bytes{1, 0, 0, 0, 1, 0, 0, 0, 0xCD});

    _bstr_t copy;
    EXPECT_EQ(E_POINTER, session->Duplicate(nullptr, kOne, nullptr));
    ASSERT_EQ(S_OK, session->Duplicate(nullptr, kOne, copy.GetAddress()));
    EXPECT_EQ(L"4", Str(copy));
    session.Reopen();
    for (const wchar_t* stream : {L"instance", L"dtm", L"comm", L"map", L"0", L"1"})
    {
        const Bytes copied = session.Stream(L"4", stream);
        EXPECT_FALSE(copied.empty()) << stream;
        EXPECT_EQ(session.Stream(L"1", stream), copied) << stream;
    }
    EXPECT_EQ((References{{L"2", L"P"}}), SubReferences(session.Store(), copy));
    EXPECT_EQ(Reference(L"3", L"Q"), SuperReference(session.Store(), copy));
    EXPECT_EQ(Identify(session.Store(), L"1"), Identify(session.Store(), L"4"));
    // Both locks came along, and the copy's locks are its own.
    const Bytes source = session.Stream(L"1", L"instance");
    ASSERT_GT(source.size(), 8u);
    EXPECT_EQ(2, source[4]);
    EXPECT_EQ(S_OK, session->UnlockInstance(nullptr, copy));
    EXPECT_EQ(S_OK, session->UnlockInstance(nullptr, copy));
    EXPECT_EQ(E_FAIL, session->UnlockInstance(nullptr, copy));
    EXPECT_EQ(source, session.Stream(L"1", L"instance"));
}

TEST(Instances, LocksCountPerInstanceAndLeaveReferencesAlone)
{
    Session session;
    NewInstance(session.Store());
    NewInstance(session.Store());
    ASSERT_EQ(S_OK, session->AddInstanceDataReference(nullptr, kOne, kP, kTwo));
    ASSERT_EQ(S_OK, session->AddInstanceDataReference(nullptr, kTwo, kQ, kOne));
    Bytes one = session.Stream(L"1", L"instance"), two = session.Stream(L"2", L"instance");
    ASSERT_TRUE(one.size() > 8 && two.size() > 8);
    EXPECT_EQ(S_OK, session->LockInstance(nullptr, kOne));
    EXPECT_EQ(S_OK, session->LockInstance(nullptr, kOne));
    EXPECT_EQ(S_OK, session->LockInstance(nullptr, kTwo));
    session.Reopen();
    one[4] = 2;   // only the lock counts move
    two[4] = 1;
    EXPECT_EQ(one, session.Stream(L"1", L"instance"));
    EXPECT_EQ(two, session.Stream(L"2", L"instance"));

    EXPECT_EQ(S_OK, session->UnlockInstance(nullptr, kOne));
    EXPECT_EQ(S_OK, session->UnlockInstance(nullptr, kOne));
    one[4] = 0;
    {
        TraceCapture trace;
        EXPECT_EQ(E_FAIL, session->UnlockInstance(nullptr, kOne));
        EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    }
    EXPECT_EQ(one, session.Stream(L"1", L"instance"));
    EXPECT_EQ(two, session.Stream(L"2", L"instance"));
}

// Each damaged stream goes into a new instance; locking reads the "instance"
// stream, the identification the "dtm" and "comm" streams.
TEST(Instances, DamagedStreamsGiveAnError)
{
    const char* const kFailed = ": error 0x80004005: ";
    const std::wstring kName = L";DVL/QTS-WMR-VQ_INSTANCEDATA";
    struct
    {
        const wchar_t* stream;
        Bytes bytes;
        HRESULT lock;
        const char* trace;
        std::wstring identification;
    } const cases[] = {
        {L"instance", Dwords({1}) + Bytes{3}, E_FAIL, kFailed, kDefaults},
        {L"instance", Bytes(), E_FAIL, kFailed, kDefaults},
        {L"instance", Dwords({2, 0, 0, 0, 0}), E_FAIL, "FbInstanceData::ReadInstanceStream invalid version\n",
         kDefaults},
        // What was read before the end is kept; the rest keeps its new-object values.
        {L"dtm", Dwords({1}) + Bytes{9, 0x44}, S_OK, kFailed, L"9,0,,,20001fe,400;1," + kName},
        {L"dtm", Dwords({1}) + Bytes{3} + Dwords({5, 100}) + Bytes{'a', 0}, S_OK, kFailed,
         L"3,5,,,20001fe,400;1," + kName},
        {L"dtm", Dwords({2}) + Bytes{9} + Dwords({5}) + Text(L"x") + Text(L"y") + Dwords({1, 2}), S_OK,
         "internal error 0xa: FbInstanceData::ReadFromInstance(DTM) invalid version", kDefaults},
        {L"comm", Dwords({0}) + Bytes{9} + Text(L"x"), S_OK,
         "internal error 0xa: FbInstanceData::ReadFromInstance(COMM) invalid version", kDefaults},
        {L"comm", Dwords({1}) + Bytes{9} + Dwords({4}) + Bytes{'x'}, S_OK, kFailed, L"1,0,,,20001fe,400;9," + kName},
        {L"comm", Bytes{1, 0}, S_OK, kFailed, kDefaults},
    };
    Session session;
    for (const auto& damage : cases)
    {
        const std::wstring id = NewInstance(session.Store());
        SCOPED_TRACE(testing::Message() << "instance " << id);
        session.Replace(id.c_str(), damage.stream, damage.bytes);
        TraceCapture trace;
        EXPECT_EQ(damage.lock, session->LockInstance(nullptr, _bstr_t(id.c_str())));
        EXPECT_EQ(damage.identification, Identify(session.Store(), id.c_str()));
        EXPECT_TRUE(trace.Contains(damage.trace)) << trace.Text();
        if (FAILED(damage.lock))
        {
            EXPECT_EQ(damage.bytes, session.Stream(id.c_str(), L"instance"));
        }
    }
}
