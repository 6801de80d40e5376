// The "instance", "dtm" and "comm" streams: their bytes, descriptors of any
// implementation, and damaged streams.
#include <gtest/gtest.h>
#include "InstanceTestSupport.h"

namespace
{
typedef std::vector<unsigned char> Bytes;

Bytes Dwords(std::initializer_list<DWORD> values)
{
    Bytes bytes;
    for (DWORD value : values)
        AppendDword(bytes, value);
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes String(const wchar_t* text)
{
    Bytes bytes;
    AppendString(bytes, text);
    return bytes;
}

Bytes Byte(unsigned char value)
{
    return Bytes(1, value);
}

const Bytes kNewInstance = Dwords({1, 0, 0, 0, 0});
const Bytes kDefaultDtm = Dwords({1}) + Byte(1) + Dwords({0}) + String(L"") + String(L"") + Dwords({0x020001FE, 0x400});
const Bytes kCommA = Dwords({1}) + Byte(1) + String(L"A");

// The identification of an instance, as plain values.
struct Identification
{
    BYTE dtmCategory = 0;
    LONG classification = 0, application = 0, language = 0;
    std::wstring device, node, instanceData, commName;
    BYTE commCategory = 0;
};

std::wstring Text(BSTR text)
{
    std::wstring result(text ? text : L"", text ? SysStringLen(text) : 0);
    SysFreeString(text);
    return result;
}

Identification Identify(IFbInstanceData* store, const wchar_t* id)
{
    Identification result;
    ComPtr<IFdtDescriptor> descriptor;
    EXPECT_EQ(S_OK, store->ReadIdentification(nullptr, _bstr_t(id), descriptor.GetAddressOf()));
    if (!descriptor)
        return result;
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtInstanceDataDescriptor> instanceData;
    ComPtr<IFdtCommunicationDescriptor> comm;
    EXPECT_EQ(S_OK, descriptor->get_m_dtm(dtm.GetAddressOf()));
    EXPECT_EQ(S_OK, descriptor->get_m_instanceData(instanceData.GetAddressOf()));
    EXPECT_EQ(S_OK, descriptor->get_m_communication(comm.GetAddressOf()));
    BSTR text = nullptr;
    dtm->get_m_category(&result.dtmCategory);
    dtm->get_m_classification(&result.classification);
    dtm->get_m_device(&text);
    result.device = Text(text);
    dtm->get_m_node(&text);
    result.node = Text(text);
    dtm->get_m_application(&result.application);
    dtm->get_m_language(&result.language);
    instanceData->get_m_name(&text);
    result.instanceData = Text(text);
    comm->get_m_category(&result.commCategory);
    comm->get_m_name(&text);
    result.commName = Text(text);
    return result;
}

void ExpectDefaultDtm(const Identification& found)
{
    EXPECT_EQ(1, found.dtmCategory);
    EXPECT_EQ(0, found.classification);
    EXPECT_EQ(L"", found.device);
    EXPECT_EQ(L"", found.node);
    EXPECT_EQ(0x020001FE, found.application);
    EXPECT_EQ(0x400, found.language);
}
}  // namespace

// Writes instance-streams.stg for the independent byte check: instance 1
// from the store's own new descriptor objects (communication category 1,
// name "A"), instance 2 from the caller's own descriptor objects.
TEST(InstanceStreams, NewInstanceLayout)
{
    // The store's own descriptors with their new-object values: the
    // identification of an identifier that names no instance.
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    {
        StoreSession scratch;
        ComPtr<IFdtDescriptor> descriptor;
        ASSERT_EQ(S_OK, scratch.Store()->ReadIdentification(nullptr, _bstr_t(L"7"), descriptor.GetAddressOf()));
        ASSERT_EQ(S_OK, descriptor->get_m_dtm(dtm.GetAddressOf()));
        ASSERT_EQ(S_OK, descriptor->get_m_communication(comm.GetAddressOf()));
    }
    ASSERT_EQ(S_OK, comm->put_m_name(_bstr_t(L"A")));

    StoreSession session(L"instance-streams.stg");
    session.Keep();
    IFbInstanceData* store = session.Store();
    EXPECT_EQ(L"1", NewInstance(store, dtm.Get(), comm.Get()));

    ComPtr<TestDtmDescriptor> ownDtm = Make<TestDtmDescriptor>();
    ownDtm->category = 7;
    ownDtm->classification = -2;
    ownDtm->device = L"Dev";
    ownDtm->node = _bstr_t();
    ownDtm->application = 0x12345678;
    ownDtm->language = 0x407;
    ComPtr<TestCommDescriptor> ownComm = Make<TestCommDescriptor>();
    ownComm->category = 0xFE;
    ownComm->name = L"HART";
    EXPECT_EQ(L"2", NewInstance(store, ownDtm.Get(), ownComm.Get()));

    ParkStoreOn(store, L"2");
    EXPECT_EQ(kNewInstance, InstanceStream(session.Root(), L"1", L"instance"));
    EXPECT_EQ(29u, kDefaultDtm.size());
    EXPECT_EQ(kDefaultDtm, InstanceStream(session.Root(), L"1", L"dtm"));
    EXPECT_EQ(13u, kCommA.size());
    EXPECT_EQ(kCommA, InstanceStream(session.Root(), L"1", L"comm"));
    EXPECT_EQ(Dwords({1, 0, 0}), InstanceStream(session.Root(), L"1", L"map"));
    ParkStoreOn(store, L"1");
    EXPECT_EQ(Dwords({1}) + Byte(7) + Dwords({static_cast<DWORD>(-2)}) + String(L"Dev") + String(nullptr) +
                  Dwords({0x12345678, 0x407}),
              InstanceStream(session.Root(), L"2", L"dtm"));
    EXPECT_EQ(Dwords({1}) + Byte(0xFE) + String(L"HART"), InstanceStream(session.Root(), L"2", L"comm"));

    // What was written is what the identification gives back, in the store's objects.
    const Identification second = Identify(store, L"2");
    EXPECT_EQ(7, second.dtmCategory);
    EXPECT_EQ(-2, second.classification);
    EXPECT_EQ(L"Dev", second.device);
    EXPECT_EQ(L"", second.node);
    EXPECT_EQ(0x12345678, second.application);
    EXPECT_EQ(0x407, second.language);
    EXPECT_EQ(0xFE, second.commCategory);
    EXPECT_EQ(L"HART", second.commName);
    EXPECT_EQ(L"DVL/QTS-WMR-VQ_INSTANCEDATA", second.instanceData);
    session.Close();
    EXPECT_EQ(Dwords({1, 3}), ReadStreamBytes(session.Path(), L"admin"));
}

TEST(InstanceStreams, CreateChecksItsArguments)
{
    ComPtr<TestDtmDescriptor> dtm = Make<TestDtmDescriptor>();
    ComPtr<TestCommDescriptor> comm = Make<TestCommDescriptor>();
    StoreSession session;
    IFbInstanceData* store = session.Store();
    EXPECT_EQ(E_POINTER, store->Create(nullptr, dtm.Get(), comm.Get(), nullptr));

    // A missing descriptor fails after the number was taken: it is not handed out again.
    TraceCapture trace;
    BSTR id = nullptr;
    EXPECT_EQ(E_POINTER, store->Create(nullptr, nullptr, comm.Get(), &id));
    EXPECT_EQ(nullptr, id);
    EXPECT_TRUE(trace.Contains("FbInstanceData::Create WriteToInstance(DtmDescriptor) failed\n")) << trace.Text();
    EXPECT_EQ(E_POINTER, store->Create(nullptr, dtm.Get(), nullptr, &id));
    EXPECT_TRUE(trace.Contains("FbInstanceData::Create WriteToInstance(CommunicationDescriptor) failed\n"))
        << trace.Text();

    // A caller's descriptor that fails to give a property fails the creation with its result.
    comm->failGet = E_ACCESSDENIED;
    trace.Clear();
    EXPECT_EQ(E_ACCESSDENIED, store->Create(nullptr, dtm.Get(), comm.Get(), &id));
    EXPECT_EQ(nullptr, id);
    EXPECT_TRUE(trace.Contains(": error 0x80070005: ")) << trace.Text();
    comm->failGet = S_OK;
    dtm->failGet = E_ACCESSDENIED;
    EXPECT_EQ(E_ACCESSDENIED, store->Create(nullptr, dtm.Get(), comm.Get(), &id));
    dtm->failGet = S_OK;
    EXPECT_EQ(L"5", NewInstance(store, dtm.Get(), comm.Get()));
    EXPECT_EQ((std::vector<std::wstring>{L"1", L"2", L"3", L"4", L"5"}), InstanceList(store));
}

TEST(InstanceStreams, WithoutAnOpenFile)
{
    ComPtr<TestDtmDescriptor> dtm = Make<TestDtmDescriptor>();
    ComPtr<TestCommDescriptor> comm = Make<TestCommDescriptor>();
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    ComPtr<IStorage> none;
    _bstr_t impossible((TestFilesDirectory() + L"no such folder\\x.stg").c_str());
    ASSERT_TRUE(FAILED(manager->OpenStorage(impossible, none.GetAddressOf())));

    TraceCapture trace;
    BSTR id = nullptr;
    EXPECT_EQ(E_FAIL, store->Create(nullptr, dtm.Get(), comm.Get(), &id));
    EXPECT_TRUE(trace.Contains("FbInstanceData::Create storage not init\n")) << trace.Text();
    EXPECT_EQ(CPkTrace::LevelInfo, trace.Levels().back());
    ComPtr<IFdtDescriptor> descriptor;
    EXPECT_EQ(E_POINTER, store->ReadIdentification(nullptr, _bstr_t(L"1"), nullptr));
    EXPECT_EQ(E_FAIL, store->ReadIdentification(nullptr, _bstr_t(L"1"), descriptor.GetAddressOf()));
    EXPECT_TRUE(trace.Contains("FbInstanceData::ReadIdentification storage not init\n")) << trace.Text();
    EXPECT_EQ(E_UNEXPECTED, store->Delete(nullptr, _bstr_t(L"1")));
    EXPECT_EQ(E_FAIL, store->Duplicate(nullptr, _bstr_t(L"1"), &id));
    EXPECT_TRUE(FAILED(store->LockInstance(nullptr, _bstr_t(L"1"))));
    EXPECT_TRUE(FAILED(store->UnlockInstance(nullptr, _bstr_t(L"1"))));
    SAFEARRAY* list = nullptr;
    EXPECT_TRUE(FAILED(store->GetInstanceDataList(nullptr, &list)));
    EXPECT_EQ(nullptr, list);
}

TEST(InstanceStreams, IdentificationOfAnUnknownInstanceHasNewObjectValues)
{
    StoreSession session;
    const Identification found = Identify(session.Store(), L"12");
    ExpectDefaultDtm(found);
    EXPECT_EQ(1, found.commCategory);
    EXPECT_EQ(L"", found.commName);
    EXPECT_EQ(L"DVL/QTS-WMR-VQ_INSTANCEDATA", found.instanceData);
    EXPECT_EQ(E_POINTER, session.Store()->ReadIdentification(nullptr, _bstr_t(L"12"), nullptr));
}

// Instance 1 of a fresh file gets a damaged stream; instance 2 is the bystander
// that the store holds open meanwhile.
class DamagedInstance : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(L"1", NewInstance(Store()));
        ASSERT_EQ(L"2", NewInstance(Store()));
        ParkStoreOn(Store(), L"2");
    }
    IFbInstanceData* Store() const { return m_session.Store(); }
    void Damage(const wchar_t* stream, const Bytes& bytes)
    {
        ParkStoreOn(Store(), L"2");
        ReplaceInstanceStream(m_session.Root(), L"1", stream, bytes);
    }
    Bytes Stream(const wchar_t* stream)
    {
        ParkStoreOn(Store(), L"2");
        return InstanceStream(m_session.Root(), L"1", stream);
    }

    StoreSession m_session;
    _bstr_t m_id{L"1"};
};

TEST_F(DamagedInstance, TruncatedInstanceHead)
{
    Damage(L"instance", Dwords({1}) + Byte(3));
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, Store()->LockInstance(nullptr, m_id));
    EXPECT_EQ(E_FAIL, Store()->UnlockInstance(nullptr, m_id));
    EXPECT_TRUE(trace.Contains(": error 0x80004005: ")) << trace.Text();
    EXPECT_EQ(Dwords({1}) + Byte(3), Stream(L"instance"));
}

TEST_F(DamagedInstance, OtherInstanceVersion)
{
    const Bytes version2 = Dwords({2, 0, 0, 0, 0});
    Damage(L"instance", version2);
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, Store()->LockInstance(nullptr, m_id));
    EXPECT_EQ(1u, trace.Count("FbInstanceData::ReadInstanceStream invalid version\n")) << trace.Text();
    EXPECT_EQ(E_FAIL, Store()->AddInstanceDataReference(nullptr, m_id, _bstr_t(L"P"), _bstr_t(L"2")));
    EXPECT_EQ(version2, Stream(L"instance"));
}

TEST_F(DamagedInstance, HeadWithoutReferences)
{
    // Locks need the head alone; the references need the rest of the stream.
    Damage(L"instance", Dwords({1, 4}));
    EXPECT_EQ(S_OK, Store()->UnlockInstance(nullptr, m_id));
    EXPECT_EQ(Dwords({1, 3}), Stream(L"instance"));
    SAFEARRAY* list = nullptr;
    EXPECT_EQ(E_FAIL, Store()->GetSubInstanceData(nullptr, m_id, &list));
    EXPECT_EQ(nullptr, list);
}

TEST_F(DamagedInstance, TruncatedDtmKeepsWhatWasRead)
{
    // Category read, classification cut short: the rest keeps its new-object values.
    Damage(L"dtm", Dwords({1}) + Byte(9) + Byte(0x44));
    TraceCapture trace;
    const Identification found = Identify(Store(), L"1");
    EXPECT_EQ(9, found.dtmCategory);
    EXPECT_EQ(0, found.classification);
    EXPECT_EQ(0x020001FE, found.application);
    EXPECT_EQ(L"DVL/QTS-WMR-VQ_INSTANCEDATA", found.instanceData);
    EXPECT_TRUE(trace.Contains(": error 0x80004005: ")) << trace.Text();
}

TEST_F(DamagedInstance, DtmStringLongerThanItsStream)
{
    Damage(L"dtm", Dwords({1}) + Byte(3) + Dwords({5, 100}) + Bytes{'a', 0});
    const Identification found = Identify(Store(), L"1");
    EXPECT_EQ(3, found.dtmCategory);
    EXPECT_EQ(5, found.classification);
    EXPECT_EQ(L"", found.device);
    EXPECT_EQ(0x400, found.language);
}

TEST_F(DamagedInstance, OtherDtmVersion)
{
    Damage(L"dtm", Dwords({2}) + Byte(9) + Dwords({5}) + String(L"x") + String(L"y") + Dwords({1, 2}));
    TraceCapture trace;
    ExpectDefaultDtm(Identify(Store(), L"1"));
    EXPECT_TRUE(trace.Contains("internal error 0xa: FbInstanceData::ReadFromInstance(DTM) invalid version"))
        << trace.Text();
}

TEST_F(DamagedInstance, OtherAndTruncatedCommunication)
{
    Damage(L"comm", Dwords({0}) + Byte(9) + String(L"x"));
    TraceCapture trace;
    EXPECT_EQ(1, Identify(Store(), L"1").commCategory);
    EXPECT_TRUE(trace.Contains("internal error 0xa: FbInstanceData::ReadFromInstance(COMM) invalid version"))
        << trace.Text();
    Damage(L"comm", Dwords({1}) + Byte(9) + Dwords({4}) + Byte('x'));
    const Identification found = Identify(Store(), L"1");
    EXPECT_EQ(9, found.commCategory);
    EXPECT_EQ(L"", found.commName);
    Damage(L"comm", Bytes{1, 0});
    EXPECT_EQ(1, Identify(Store(), L"1").commCategory);
}

TEST_F(DamagedInstance, EmptyStreamsDuplicateAsTheyAre)
{
    // An instance whose streams are all empty still has an identification;
    // its copy takes the empty streams along.
    Damage(L"dtm", Bytes());
    Damage(L"comm", Bytes());
    Damage(L"instance", Bytes());
    BSTR copy = nullptr;
    EXPECT_EQ(S_OK, Store()->Duplicate(nullptr, m_id, &copy));
    EXPECT_STREQ(L"3", copy);
    EXPECT_EQ(E_FAIL, Store()->LockInstance(nullptr, copy));
    SysFreeString(copy);
}
