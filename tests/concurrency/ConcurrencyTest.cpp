// Several single-threaded apartments on the one store of the process, as a
// frame's DTM, communication and own threads use it. Worker threads never
// assert (GoogleTest is built without thread support): they note what went
// wrong, and the main thread checks the notes.
#include <functional>
#include <memory>
#include <set>
#include <string>
#include "TestSupport.h"
#include "TestObject.h"

namespace
{
constexpr int kThreads = 4;
constexpr int kRounds = 12;
constexpr int kParameters = 5;

// What went wrong on one thread: the number of failed checks, the first described.
struct Outcome
{
    int failures = 0;
    std::string first;
    void Check(bool ok, const std::string& what)
    {
        if (!ok && !failures++)
            first = what;
    }
};

// Waits for handle, servicing the calls that come to this thread's apartment.
void WaitPumping(HANDLE handle)
{
    DWORD index = 0;
    CoWaitForMultipleHandles(0, INFINITE, 1, &handle, &index);
}

// Runs work on a thread of its own, in a single-threaded apartment of its own.
class Apartment
{
public:
    explicit Apartment(std::function<void()> work)
        : m_work(std::move(work)), m_thread(CreateThread(nullptr, 0, &Apartment::Run, this, 0, nullptr))
    {
    }
    ~Apartment() { Join(); }
    void Join()
    {
        if (m_thread)
            WaitPumping(m_thread), CloseHandle(m_thread);
        m_thread = nullptr;
    }

private:
    static DWORD WINAPI Run(void* self)
    {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        static_cast<Apartment*>(self)->m_work();
        CoUninitialize();
        return 0;
    }
    std::function<void()> m_work;
    HANDLE m_thread;
};

// The store as an apartment gets it: through the class factory, without assertions.
ComPtr<IFbInstanceData> StoreOfThisApartment()
{
    ComPtr<IClassFactory> factory;
    ComPtr<IFbInstanceData> store;
    if (SUCCEEDED(ServerModule::GetClassObject(CLSID_FbInstanceData, IID_PPV_ARGS(&factory))))
        factory->CreateInstance(nullptr, IID_PPV_ARGS(&store));
    return store;
}

class Event
{
public:
    Event() : m_handle(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Event() { CloseHandle(m_handle); }
    operator HANDLE() const { return m_handle; }

private:
    HANDLE m_handle;
};

const _bstr_t kNames[kParameters] = {L"P0", L"P1", L"P2", L"P3", L"P4"};

// The caller's objects of these tests: what the store reads of them is checked afterwards.
TestDtmDescriptor* CallerDescriptor()
{
    auto* dtm = new TestDtmDescriptor;
    dtm->device = L"caller's device";
    return dtm;
}

TestParameter* CallerParameter()
{
    return new TestParameter(L"FromCaller", _variant_t(42L));
}

// Parameter p as thread t writes it in round r: a number (even p) or its text
// (odd p), from which p, t and r can be read back.
_variant_t ValueOf(int p, int t, int r)
{
    const LONG number = p * 1000000 + t * 1000 + r;
    return p % 2 ? _variant_t(std::to_wstring(number).c_str()) : _variant_t(number);
}

// A value that some thread wrote to parameter p.
bool WrittenBySomeThread(int p, const _variant_t& value)
{
    if (V_VT(&value) != (p % 2 ? VT_BSTR : VT_I4))
        return false;
    const LONG number = p % 2 ? std::wcstol(V_BSTR(&value), nullptr, 10) : V_I4(&value);
    return number / 1000000 == p && number % 1000000 / 1000 < kThreads && number % 1000 < kRounds;
}

// One round of thread t: every parameter written, then read and checked.
void Round(IFbInstanceData* store, BSTR id, bool shared, bool lists, int t, int r, Outcome& outcome)
{
    const std::string where = " (round " + std::to_string(r) + ")";
    _variant_t read[kParameters];
    if (lists)
    {
        SAFEARRAY* names = SafeArrayCreateVector(VT_BSTR, 0, kParameters);
        SAFEARRAY* values = SafeArrayCreateVector(VT_VARIANT, 0, kParameters);
        for (LONG p = 0; p < kParameters; ++p)
        {
            _variant_t value = ValueOf(p, t, r);
            SafeArrayPutElement(names, &p, static_cast<BSTR>(kNames[p]));
            SafeArrayPutElement(values, &p, &value);
        }
        outcome.Check(store->WriteList(nullptr, id, &names, &values) == S_OK, "WriteList" + where);
        SafeArrayDestroy(values);
        values = nullptr;
        outcome.Check(store->ReadList(nullptr, id, &names, &values) == S_OK, "ReadList" + where);
        for (LONG p = 0; values && p < kParameters; ++p)
            SafeArrayGetElement(values, &p, read[p].GetAddress());
        SafeArrayDestroy(values);
        SafeArrayDestroy(names);
    }
    else
    {
        for (int p = 0; p < kParameters; ++p)
            outcome.Check(store->WriteParameter(nullptr, id, kNames[p], ValueOf(p, t, r)) == S_OK,
                          "WriteParameter" + where);
        for (int p = 0; p < kParameters; ++p)
            outcome.Check(store->ReadParameter(nullptr, id, kNames[p], read[p].GetAddress()) == S_OK,
                          "ReadParameter" + where);
    }
    for (int p = 0; p < kParameters; ++p)
        outcome.Check(shared ? WrittenBySomeThread(p, read[p]) : read[p] == ValueOf(p, t, r),
                      "value of P" + std::to_string(p) + where);
}

// Parameters are written once with their description before values alone.
HRESULT DefineParameters(IFbInstanceData* store, BSTR id)
{
    for (int p = 0; p < kParameters; ++p)
    {
        ComPtr<TestParameter> parameter = new TestParameter(kNames[p], ValueOf(p, 0, 0));
        const HRESULT hr = store->WriteParameterInfo(nullptr, id, parameter.Get());
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

HRESULT NewInstanceQuiet(IFbInstanceData* store, _bstr_t& id)
{
    ComPtr<IFdtDtmDescriptor> dtm = new TestDtmDescriptor;
    ComPtr<IFdtCommunicationDescriptor> comm = new TestCommDescriptor;
    const HRESULT hr = store->Create(nullptr, dtm.Get(), comm.Get(), id.GetAddress());
    return FAILED(hr) ? hr : DefineParameters(store, id);
}

// ------------------------------------------------- many apartments at once

struct Workload
{
    const char* name;
    bool shared;   // all threads on one instance, or each on one it creates
    bool lists;    // WriteList and ReadList, or single parameters
};

const Workload kWorkloads[] = {
    {"OwnInstances", false, false},
    {"OwnInstancesLists", false, true},
    {"SharedInstance", true, false},
    {"SharedInstanceLists", true, true},
};

class ManyApartments : public StoreSession, public testing::WithParamInterface<Workload>
{
};

TEST_P(ManyApartments, EveryCallSucceedsAndEveryReadGivesAWrittenValue)
{
    const Workload& workload = GetParam();
    _bstr_t shared;
    if (workload.shared)
    {
        ASSERT_EQ(S_OK, NewInstanceQuiet(Store(), shared));
    }
    Outcome outcomes[kThreads];
    _bstr_t ids[kThreads];
    {
        // Every thread has started and got the store before any goes on.
        Event ready[kThreads], go;
        std::vector<std::unique_ptr<Apartment>> apartments;
        for (int t = 0; t < kThreads; ++t)
            apartments.push_back(std::make_unique<Apartment>([&, t] {
                ComPtr<IFbInstanceData> store = StoreOfThisApartment();
                outcomes[t].Check(store != nullptr, "CreateInstance");
                SetEvent(ready[t]);
                WaitForSingleObject(go, INFINITE);
                if (!store)
                    return;
                ids[t] = shared;
                if (!workload.shared)
                    outcomes[t].Check(NewInstanceQuiet(store.Get(), ids[t]) == S_OK, "Create");
                for (int r = 0; r < kRounds; ++r)
                    Round(store.Get(), ids[t], workload.shared, workload.lists, t, r, outcomes[t]);
            }));
        for (const Event& started : ready)
            WaitPumping(started);
        SetEvent(go);
    }
    for (const Outcome& outcome : outcomes)
        EXPECT_EQ(0, outcome.failures) << outcome.first;
    if (workload.shared)
        return;
    // Every thread's last values stayed in its own instance.
    std::set<std::wstring> distinct;
    for (const _bstr_t& id : ids)
        distinct.insert(Str(id));
    EXPECT_EQ(size_t(kThreads), distinct.size());
    for (int t = 0; t < kThreads; ++t)
        for (int p = 0; p < kParameters; ++p)
        {
            _variant_t value;
            EXPECT_EQ(S_OK, Store()->ReadParameter(nullptr, ids[t], kNames[p], value.GetAddress()));
            EXPECT_TRUE(value == ValueOf(p, t, kRounds - 1)) << "thread " << t << " parameter " << p;
        }
}

INSTANTIATE_TEST_SUITE_P(Workloads, ManyApartments, testing::ValuesIn(kWorkloads),
                         [](const testing::TestParamInfo<Workload>& info) { return std::string(info.param.name); });

// ------------------------------------------------------- caller's objects

struct CallerCase
{
    const char* name;
    bool otherApartment;   // proxies into an apartment that uses the store meanwhile, or objects that call it back
};

const CallerCase kCallerCases[] = {
    {"ProxiesIntoBusyApartment", true},
    {"ObjectsCallingTheStoreBack", false},
};

class CallerObjects : public StoreSession, public testing::WithParamInterface<CallerCase>
{
};

// The caller's objects that Create and WriteParameterInfo read.
struct CallerObjectSet
{
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtParameter> parameter;
};

// The other apartment: objects of its own, marshaled for the main thread,
// then the store in a loop until the main thread is done. Between calls it
// services the calls to its apartment, as a thread with a message loop does.
void BusyApartment(IStream** marshaled, HANDLE ready, HANDLE done, BSTR id, Outcome& outcome)
{
    ComPtr<IFbInstanceData> store = StoreOfThisApartment();
    ComPtr<IFdtDtmDescriptor> dtm = CallerDescriptor();
    ComPtr<IFdtParameter> parameter = CallerParameter();
    outcome.Check(store && SUCCEEDED(CoMarshalInterThreadInterfaceInStream(IID_IFdtDtmDescriptor, dtm.Get(),
                                                                          &marshaled[0])) &&
                      SUCCEEDED(CoMarshalInterThreadInterfaceInStream(IID_IFdtParameter, parameter.Get(),
                                                                      &marshaled[1])),
                  "marshal");
    DWORD index = 0;
    for (LONG loop = 0; !outcome.failures; ++loop)
    {
        _variant_t value;
        outcome.Check(store->WriteParameter(nullptr, id, kNames[0], _variant_t(loop)) == S_OK, "WriteParameter");
        outcome.Check(store->ReadParameter(nullptr, id, kNames[0], value.GetAddress()) == S_OK &&
                          value == _variant_t(loop),
                      "ReadParameter");
        if (!loop)
            SetEvent(ready);
        if (CoWaitForMultipleHandles(0, 0, 1, &done, &index) != RPC_S_CALLPENDING)
            break;
    }
    SetEvent(ready);
}

TEST_P(CallerObjects, CreateAndWriteParameterInfoComplete)
{
    _bstr_t busy;
    ASSERT_EQ(S_OK, NewInstanceQuiet(Store(), busy));
    Outcome outcome;
    Event ready, done;
    std::unique_ptr<Apartment> other;
    CallerObjectSet objects;
    if (GetParam().otherApartment)
    {
        IStream* marshaled[2] = {};
        other = std::make_unique<Apartment>([&] { BusyApartment(marshaled, ready, done, busy, outcome); });
        WaitPumping(ready);
        EXPECT_EQ(S_OK, CoGetInterfaceAndReleaseStream(marshaled[0], IID_PPV_ARGS(&objects.dtm)));
        EXPECT_EQ(S_OK, CoGetInterfaceAndReleaseStream(marshaled[1], IID_PPV_ARGS(&objects.parameter)));
    }
    else
    {
        // Each getter reads a parameter that no other call changes.
        const std::function<void()> callBack = [&] {
            _variant_t value;
            outcome.Check(Store()->ReadParameter(nullptr, busy, kNames[1], value.GetAddress()) == S_OK &&
                              value == ValueOf(1, 0, 0),
                          "ReadParameter from the caller's object");
        };
        auto* dtm = CallerDescriptor();
        auto* parameter = CallerParameter();
        dtm->onGet = parameter->onGet = callBack;
        objects.dtm = dtm;
        objects.parameter = parameter;
    }
    _bstr_t id;
    ComPtr<IFdtCommunicationDescriptor> comm = new TestCommDescriptor;
    if (objects.dtm && objects.parameter)
    {
        EXPECT_EQ(S_OK, Store()->Create(nullptr, objects.dtm.Get(), comm.Get(), id.GetAddress()));
        EXPECT_EQ(S_OK, Store()->WriteParameterInfo(nullptr, id, objects.parameter.Get()));
    }
    objects = CallerObjectSet();
    SetEvent(done);
    other.reset();
    EXPECT_EQ(0, outcome.failures) << outcome.first;

    ComPtr<IFdtDescriptor> identification;
    ComPtr<IFdtDtmDescriptor> stored;
    _bstr_t device;
    _variant_t value;
    ASSERT_EQ(S_OK, Store()->ReadIdentification(nullptr, id, identification.GetAddressOf()));
    ASSERT_EQ(S_OK, identification->get_m_dtm(stored.GetAddressOf()));
    ASSERT_EQ(S_OK, stored->get_m_device(device.GetAddress()));
    EXPECT_EQ(std::wstring(L"caller's device"), Str(device));
    EXPECT_EQ(S_OK, Store()->ReadParameter(nullptr, id, _bstr_t(L"FromCaller"), value.GetAddress()));
    EXPECT_TRUE(value == _variant_t(42L));
}

INSTANTIATE_TEST_SUITE_P(Cases, CallerObjects, testing::ValuesIn(kCallerCases),
                         [](const testing::TestParamInfo<CallerCase>& info) { return std::string(info.param.name); });
}  // namespace
