// Instances: creation from descriptors of any implementation, numbering,
// identifiers, the cached instance storage, duplicating and locking.
#include <functional>
#include "TestSupport.h"

namespace
{
const _bstr_t kOne(L"1"), kTwo(L"2"), kP(L"P"), kQ(L"Q");

using Instances = StoreSession;

// The identification of id, every property late-bound: the DTM descriptor
// (category, classification, device, node, application, language), the
// instance data's name, the communication descriptor (category, name).
std::string Identify(IFbInstanceData* store, const wchar_t* id)
{
    ComPtr<IFdtDescriptor> descriptor;
    EXPECT_EQ(S_OK, store->ReadIdentification(nullptr, _bstr_t(id), &descriptor));
    return Describe(descriptor.Get());
}

// What Identify gives for the DTM and communication descriptors' properties.
std::string Ident(const std::string& dtm, const std::string& comm)
{
    return "{9:{" + dtm + " } 9:{8:DVL/QTS-WMR-VQ_INSTANCEDATA } 9:{" + comm + " } }";
}
const std::string kDefaults = Ident("17:1 3:0 8: 8: 3:33554942 3:1024", "17:1 8:");
}  // namespace

// Writes Instances-NewInstancesAndTheirIdentification.stg for the byte check:
// instance 1 from the store's own new descriptor objects with communication
// name "A", instance 2 from the test's own objects.
TEST_F(Instances, NewInstancesAndTheirIdentification)
{
    Keep();
    ComPtr<IFdtDescriptor> descriptor;
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    ASSERT_EQ(S_OK, Store()->ReadIdentification(nullptr, _bstr_t(L"7"), descriptor.GetAddressOf()));
    ASSERT_EQ(S_OK, descriptor->get_m_dtm(dtm.GetAddressOf()));
    ASSERT_EQ(S_OK, descriptor->get_m_communication(comm.GetAddressOf()));
    ASSERT_EQ(S_OK, comm->put_m_name(_bstr_t(L"A")));
    EXPECT_EQ(L"1", NewInstance(dtm.Get(), comm.Get()));

    ComPtr<DtmDescriptor> ownDtm = new DtmDescriptor;
    ownDtm->category = 7, ownDtm->classification = -2, ownDtm->device = L"Dev";
    ownDtm->application = 0x12345678, ownDtm->language = 0x407;
    ComPtr<CommunicationDescriptor> ownComm = new CommunicationDescriptor;
    ownComm->category = 0xFE, ownComm->name = L"HART";
    EXPECT_EQ(L"2", NewInstance(ownDtm.Get(), ownComm.Get()));
    EXPECT_EQ(Ident("17:7 3:-2 8:Dev 8: 3:305419896 3:1031", "17:254 8:HART"), Identify(Store(), L"2"));
    EXPECT_EQ(Ident("17:1 3:0 8: 8: 3:33554942 3:1024", "17:1 8:A"), Identify(Store(), L"1"));
    Commit();
}

// Create checks its descriptors before it takes a number: a getter that
// fails leaves nothing behind. Without an open file nothing works.
TEST_F(Instances, BadCreatesLeaveNothingBehind)
{
    ComPtr<DtmDescriptor> dtm = new DtmDescriptor;
    ComPtr<CommunicationDescriptor> comm = new CommunicationDescriptor;
    BSTR id = nullptr;
    EXPECT_EQ(E_POINTER, Store()->Create(nullptr, dtm.Get(), comm.Get(), nullptr));
    EXPECT_EQ(E_POINTER, Store()->Create(nullptr, nullptr, comm.Get(), &id));
    EXPECT_EQ(E_POINTER, Store()->Create(nullptr, dtm.Get(), nullptr, &id));
    comm->beforeGet = FailingGetter("name");
    EXPECT_EQ(E_ACCESSDENIED, Store()->Create(nullptr, dtm.Get(), comm.Get(), &id));
    EXPECT_EQ(nullptr, id);
    comm->beforeGet = nullptr;
    EXPECT_EQ(L"1", NewInstance(dtm.Get(), comm.Get()));
    EXPECT_EQ((Names{L"1"}), InstanceList());

    GiveUp();
    ComPtr<IFdtDescriptor> descriptor;
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, Store()->Create(nullptr, dtm.Get(), comm.Get(), &id));
    EXPECT_EQ(E_FAIL, Store()->ReadIdentification(nullptr, kOne, descriptor.GetAddressOf()));
    EXPECT_EQ(2u, trace.Count(" storage not init\n")) << trace.Text();
    EXPECT_EQ(E_UNEXPECTED, Store()->Delete(nullptr, kOne));
}

// Numbers are never handed out twice; the list takes only storages named by
// a number already handed out, and a damaged next number never wraps to 0.
TEST_F(Instances, NumberingAndTheList)
{
    for (const wchar_t* expected : {L"1", L"2", L"3"})
        EXPECT_EQ(expected, NewInstance());
    EXPECT_EQ(S_OK, Store()->Delete(nullptr, kTwo));
    EXPECT_EQ(L"4", NewInstance());
    EXPECT_EQ(STG_E_FILENOTFOUND, Store()->Delete(nullptr, kTwo));
    ComPtr<IStorage> other;
    for (const wchar_t* name : {L"01", L"x", L"2a", L"5", L"4294967296"})
        ASSERT_EQ(S_OK, Root()->CreateStorage(name, kMode, 0, 0, other.ReleaseAndGetAddressOf()));
    other.Reset();
    Replace(L"6", Bytes(4));
    Reopen();
    EXPECT_EQ((Names{L"1", L"3", L"4"}), InstanceList());
    EXPECT_EQ(Bytes(ByteBuilder().U32(1).U32(5)), Stream(L"admin"));

    // The last number is not handed out: the next one would be 0 and hide every instance.
    Replace(L"admin", ByteBuilder().U32(1).U32(0xFFFFFFFF));
    BSTR id = nullptr;
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, Store()->Create(nullptr, ComPtr<DtmDescriptor>(new DtmDescriptor).Get(),
                                      ComPtr<CommunicationDescriptor>(new CommunicationDescriptor).Get(), &id));
    EXPECT_TRUE(trace.Contains("FbInstanceData::Create no instance number is left")) << trace.Text();
    EXPECT_EQ((Names{L"1", L"3", L"4", L"5"}), InstanceList());
    EXPECT_EQ(Bytes(ByteBuilder().U32(1).U32(0xFFFFFFFF)), Stream(L"admin"));
}

// Identifiers that can name no instance (null, empty, 32 characters or more)
// fail every operation without a trace of them in the file; a long one is
// never cut down to a shorter name.
TEST_F(Instances, IdentifiersThatNameNoInstance)
{
    ASSERT_EQ(L"1", NewInstance());
    const std::wstring longId = L"1" + std::wstring(31, L' ');
    for (BSTR id : {static_cast<BSTR>(nullptr), SysAllocString(L""), SysAllocString(longId.c_str()),
                    SysAllocString((longId + L"0").c_str())})
    {
        SCOPED_TRACE(id ? SysStringLen(id) : -1);
        SAFEARRAY* names = nullptr;
        _bstr_t copy;
        _variant_t value;
        EXPECT_TRUE(FAILED(Store()->LockInstance(nullptr, id)));
        EXPECT_TRUE(FAILED(Store()->GetAllParameters(nullptr, id, &names)));
        EXPECT_TRUE(FAILED(Store()->Duplicate(nullptr, id, copy.GetAddress())));
        EXPECT_TRUE(FAILED(Store()->ReadParameter(nullptr, id, kP, &value)));
        EXPECT_TRUE(FAILED(Store()->AddInstanceDataReference(nullptr, id, kP, kOne)));
        EXPECT_TRUE(FAILED(Store()->Delete(nullptr, id)));
        EXPECT_EQ(nullptr, names);
        SysFreeString(id);
    }
    EXPECT_EQ(Names{L"1"}, InstanceList());
    EXPECT_EQ(Bytes(ByteBuilder().U32(1).U32(0).U32(0).U32(0).U32(0)), Stream(L"1/instance"));
}

// What the store caches of instance 1 (its storage and stream name map) never
// outlives what the frame or the store does to the file. Instance 1 refers
// to 2 by P, 2 to 1 by Q; 1 is locked and has parameter v.
TEST_F(Instances, TheCacheNeverOutlivesItsInstance)
{
    static const std::wstring kRefs = L"2:P ^2:Q";
    const struct
    {
        const char* what;
        std::function<void(Instances&)> run;
    } cases[] = {
        {"Delete destroys the cached instance", [](Instances& t) {
             ASSERT_EQ(S_OK, t.Store()->Delete(nullptr, kOne));
             EXPECT_EQ(kDefaults, Identify(t.Store(), L"1"));
             SAFEARRAY* names = nullptr;
             EXPECT_EQ(STG_E_FILENOTFOUND, t.Store()->GetAllParameters(nullptr, kOne, &names));
             EXPECT_EQ(STG_E_FILENOTFOUND, t.Store()->LockInstance(nullptr, kOne));
             EXPECT_EQ(Names{L"2"}, t.InstanceList());
         }},
        {"Create right after reading an instance with references", [](Instances& t) {
             EXPECT_EQ(kRefs, ReferencesOf(t.Store(), kOne));
             const _bstr_t id(t.NewInstance().c_str());
             EXPECT_EQ(L"^:", ReferencesOf(t.Store(), id));
             EXPECT_EQ(kDefaults, Identify(t.Store(), Str(id).c_str()));
             t.m_id = id;
             EXPECT_TRUE(t.All(&IFbInstanceData::GetAllParameters).empty());
             t.m_id = kOne;
         }},
        // A copy takes every stream, both ends of the references and the
        // locks, which are its own from then on; the other ends are not told.
        {"Duplicate read back at once and in the next session", [](Instances& t) {
             _bstr_t copy;
             EXPECT_EQ(E_POINTER, t.Store()->Duplicate(nullptr, kOne, nullptr));
             ASSERT_EQ(S_OK, t.Store()->Duplicate(nullptr, kOne, copy.GetAddress()));
             EXPECT_EQ(L"3", Str(copy));
             EXPECT_EQ(kRefs, ReferencesOf(t.Store(), copy));
             EXPECT_EQ(Identify(t.Store(), L"1"), Identify(t.Store(), Str(copy).c_str()));
             EXPECT_EQ(L"1:Q ^1:P", ReferencesOf(t.Store(), kTwo));
             t.Reopen();
             for (const std::wstring stream : {L"instance", L"dtm", L"comm", L"map", L"0"})
             {
                 EXPECT_FALSE(t.Stream((L"3/" + stream).c_str()).empty()) << stream;
                 EXPECT_EQ(t.Stream((L"1/" + stream).c_str()), t.Stream((L"3/" + stream).c_str())) << stream;
             }
             EXPECT_EQ(S_OK, t.Store()->UnlockInstance(nullptr, copy));
             EXPECT_EQ(E_FAIL, t.Store()->UnlockInstance(nullptr, copy));
             EXPECT_EQ(S_OK, t.Store()->UnlockInstance(nullptr, kOne));
         }},
        {"the frame reverts the root", [](Instances& t) {
             ASSERT_EQ(S_OK, t.Store()->LockInstance(nullptr, kOne));
             ASSERT_EQ(S_OK, t.Root()->Revert());
             EXPECT_EQ(S_OK, t.Store()->UnlockInstance(nullptr, kOne));
             EXPECT_EQ(E_FAIL, t.Store()->UnlockInstance(nullptr, kOne));
             EXPECT_EQ(kRefs, ReferencesOf(t.Store(), kOne));
             EXPECT_EQ(L"3", t.NewInstance());
         }},
        {"the frame opens another file with an instance 1", [](Instances& t) {
             const std::wstring other = TestFilesDirectory() + TestName() + L"-other.stg";
             DeleteFileW(other.c_str());
             ComPtr<IStorage> root;
             ASSERT_EQ(S_OK, t.Manager()->OpenStorage(_bstr_t(other.c_str()), root.GetAddressOf()));
             ComPtr<DtmDescriptor> dtm = new DtmDescriptor;
             dtm->device = L"B";
             EXPECT_EQ(L"1", t.NewInstance(dtm.Get()));
             EXPECT_EQ(Ident("17:1 3:0 8:B 8: 3:33554942 3:1024", "17:1 8:"), Identify(t.Store(), L"1"));
             EXPECT_EQ(L"^:", ReferencesOf(t.Store(), kOne));
             EXPECT_TRUE(t.All(&IFbInstanceData::GetAllParameters).empty());
             EXPECT_EQ(S_OK, t.Store()->LockInstance(nullptr, kOne));
             t.Park();
             EXPECT_EQ(Bytes(ByteBuilder().U32(1).U32(1).U32(0).U32(0).U32(0)), ReadStream(root.Get(), L"1/instance"));
             root.Reset();
             t.GiveUp();
             DeleteFileW(other.c_str());
             t.Open();
             EXPECT_EQ(kRefs, ReferencesOf(t.Store(), kOne));
             EXPECT_EQ(S_OK, t.Store()->UnlockInstance(nullptr, kOne));
         }},
    };
    for (const auto& cache : cases)
    {
        SCOPED_TRACE(cache.what);
        GiveUp();
        DeleteFileW(Path());
        ASSERT_NO_FATAL_FAILURE(Open());
        ASSERT_EQ(L"1", NewInstance());
        ASSERT_EQ(L"2", NewInstance());
        ASSERT_EQ(S_OK, Store()->AddInstanceDataReference(nullptr, kOne, kP, kTwo));
        ASSERT_EQ(S_OK, Store()->AddInstanceDataReference(nullptr, kTwo, kQ, kOne));
        ASSERT_EQ(S_OK, Store()->LockInstance(nullptr, kOne));
        ASSERT_EQ(S_OK, Define(L"v", _variant_t(1L)));   // instance 1's storage and map are now the cached ones
        Commit();
        cache.run(*this);
    }
}
