// Several single-threaded apartments on the one store of the process, as a
// frame's DTM, communication and own threads use it. Worker threads never
// assert (GoogleTest is built without thread support): they note what went
// wrong, and the main thread checks the notes.
#include <olectl.h>
#include <functional>
#include <memory>
#include <set>
#include "TestSupport.h"

namespace
{
constexpr int kThreads = 4, kRounds = 12, kParameters = 5;

// The checks that failed on one thread.
struct Outcome
{
    std::string failed;
    void Check(bool ok, const std::string& what) { failed += ok ? "" : what + "; "; }
};

// Waits for handle, servicing the calls that come to this thread's apartment.
void WaitPumping(HANDLE handle, DWORD milliseconds = INFINITE)
{
    DWORD index = 0;
    CoWaitForMultipleHandles(0, milliseconds, 1, &handle, &index);
}

struct Event
{
    HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ~Event() { CloseHandle(handle); }
    operator HANDLE() const { return handle; }
};

// Runs work on a thread of its own, in a single-threaded apartment of its own,
// and waits for it (pumping) when it goes.
class Apartment
{
public:
    explicit Apartment(std::function<void()> work) : m_work(std::move(work)) {}
    ~Apartment()
    {
        WaitPumping(m_thread);
        CloseHandle(m_thread);
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
    HANDLE m_thread = CreateThread(nullptr, 0, &Apartment::Run, this, 0, nullptr);
};

_bstr_t Name(int p)
{
    return _bstr_t(("P" + std::to_string(p)).c_str());
}

// Parameter p as thread t writes it in round r: a number (even p) or its text
// (odd p), from which p, t and r can be read back.
_variant_t ValueOf(int p, int t, int r)
{
    const LONG number = p * 1000000 + t * 1000 + r;
    return p % 2 ? _variant_t(std::to_wstring(number).c_str()) : _variant_t(number);
}

bool WrittenBySomeThread(int p, const _variant_t& value)
{
    if (V_VT(&value) != (p % 2 ? VT_BSTR : VT_I4))
        return false;
    const LONG number = p % 2 ? std::wcstol(V_BSTR(&value), nullptr, 10) : V_I4(&value);
    return number / 1000000 == p && number % 1000000 / 1000 < kThreads && number % 1000 < kRounds;
}

// A new instance with every parameter described.
HRESULT NewDescribed(IFbInstanceData* store, _bstr_t& id, IFdtDtmDescriptor* dtm = nullptr)
{
    ComPtr<IFdtDtmDescriptor> ownDtm = dtm ? dtm : new DtmDescriptor;
    ComPtr<IFdtCommunicationDescriptor> comm = new CommunicationDescriptor;
    HRESULT hr = store->Create(nullptr, ownDtm.Get(), comm.Get(), id.GetAddress());
    for (int p = 0; SUCCEEDED(hr) && p < kParameters; ++p)
    {
        ComPtr<IFdtParameter> parameter = new ParameterDescription(Name(p), ValueOf(p, 0, 0));
        hr = store->WriteParameterInfo(nullptr, id, parameter.Get());
    }
    return hr;
}

// One round of thread t: every parameter written, then read and checked.
void Round(IFbInstanceData* store, BSTR id, bool shared, bool lists, int t, int r, Outcome& outcome)
{
    const std::string where = " (round " + std::to_string(r) + ")";
    Values written, read(kParameters);
    Names names;
    for (int p = 0; p < kParameters; ++p)
        written.push_back(ValueOf(p, t, r)), names.push_back(Str(Name(p)));
    Array nameArray{MakeBstrArray(names)}, values{MakeValueArray(written)};
    if (lists)
    {
        outcome.Check(store->WriteList(nullptr, id, &nameArray.p, &values.p) == S_OK, "WriteList" + where);
        outcome.Check(store->ReadList(nullptr, id, &nameArray.p, &values.p) == S_OK, "ReadList" + where);
        read = ReadValueArray(values.p);
        read.resize(kParameters);
    }
    for (int p = 0; !lists && p < kParameters; ++p)
        outcome.Check(store->WriteParameter(nullptr, id, Name(p), written[p]) == S_OK, "WriteParameter" + where);
    for (int p = 0; !lists && p < kParameters; ++p)
        outcome.Check(store->ReadParameter(nullptr, id, Name(p), read[p].GetAddress()) == S_OK, "ReadParameter" + where);
    for (int p = 0; p < kParameters; ++p)
        outcome.Check(shared ? WrittenBySomeThread(p, read[p]) : read[p] == written[p],
                      "value of P" + std::to_string(p) + where);
}

HRESULT MakeFont(REFIID iid, void** font)
{
    FONTDESC description = {sizeof description, const_cast<LPOLESTR>(L"Arial"), {{100000, 0}}, 400, ANSI_CHARSET};
    return OleCreateFontIndirect(&description, iid, font);
}

// An object value as a frame hands it over: a font that runs onSave, which
// calls the store, before it saves itself.
class CallingBackFont final : public IPersistStream
{
public:
    explicit CallingBackFont(std::function<void()> onSave) : m_onSave(std::move(onSave))
    {
        MakeFont(IID_IPersistStream, reinterpret_cast<void**>(m_font.GetAddressOf()));
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        const bool known = iid == IID_IUnknown || iid == IID_IPersist || iid == IID_IPersistStream;
        *object = known ? static_cast<IPersistStream*>(this) : nullptr;
        return known ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --m_references;
        return left ? left : (delete this, 0);
    }
    STDMETHODIMP GetClassID(CLSID* clsid) override { return m_font->GetClassID(clsid); }
    STDMETHODIMP IsDirty() override { return S_OK; }
    STDMETHODIMP Load(IStream* stream) override { return m_font->Load(stream); }
    STDMETHODIMP Save(IStream* stream, BOOL clear) override { return m_onSave(), m_font->Save(stream, clear); }
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override { return m_font->GetSizeMax(size); }

private:
    std::function<void()> m_onSave;
    ComPtr<IPersistStream> m_font;
    ULONG m_references = 0;
};

using Concurrency = StoreSession;
}  // namespace

// Every call succeeds and every read gives a value that was written: by the
// thread itself on its own instance, by some thread on a shared one.
TEST_F(Concurrency, ManyApartmentsAtOnce)
{
    for (const bool shared : {false, true})   // all threads on one instance, or each on one it creates
        for (const bool lists : {false, true})   // WriteList and ReadList, or single parameters
        {
            SCOPED_TRACE(std::string(shared ? "shared" : "own") + (lists ? " lists" : ""));
            _bstr_t sharedId, ids[kThreads];
            Outcome outcomes[kThreads];
            ASSERT_TRUE(!shared || NewDescribed(Store(), sharedId) == S_OK);
            {
                // Every thread has started and got the store before any goes on.
                Event ready[kThreads], go;
                std::vector<std::unique_ptr<Apartment>> apartments;
                for (int t = 0; t < kThreads; ++t)
                    apartments.push_back(std::make_unique<Apartment>([&, t] {
                        ComPtr<IFbInstanceData> store = CreateStore();
                        SetEvent(ready[t]);
                        WaitForSingleObject(go, INFINITE);
                        ids[t] = sharedId;
                        outcomes[t].Check(store && (shared || NewDescribed(store.Get(), ids[t]) == S_OK), "Create");
                        for (int r = 0; store && r < kRounds; ++r)
                            Round(store.Get(), ids[t], shared, lists, t, r, outcomes[t]);
                    }));
                for (const Event& started : ready)
                    WaitPumping(started);
                SetEvent(go);
            }
            std::set<std::wstring> distinct;
            for (int t = 0; t < kThreads; ++t)
            {
                EXPECT_EQ("", outcomes[t].failed);
                distinct.insert(Str(m_id = ids[t]));
                for (int p = 0; !shared && p < kParameters; ++p)   // the last values stayed in the thread's instance
                    EXPECT_TRUE(ValueOf(p, t, kRounds - 1) == Read(Name(p))) << t << " P" << p;
            }
            EXPECT_EQ(shared ? 1u : size_t(kThreads), distinct.size());
        }
}

// The caller's objects that Create, WriteParameterInfo and WriteParameter read
// or save are proxies into an apartment that uses the store meanwhile (and
// whose object value calls it while it saves), or objects that call the
// store back: every call completes with what they gave.
TEST_F(Concurrency, CallerObjectsOfAnyApartment)
{
    for (const bool otherApartment : {true, false})
    {
        SCOPED_TRACE(otherApartment ? "proxies into a busy apartment" : "objects calling back");
        _bstr_t busy, id;
        ASSERT_EQ(S_OK, NewDescribed(Store(), busy));
        Outcome outcome;
        Event ready, done;
        ComPtr<IFdtDtmDescriptor> dtm;
        ComPtr<IFdtParameter> parameter;
        // Each getter and the value's save read a parameter that no other call changes.
        const auto makeObjects = [&](IFbInstanceData* store, bool callingBack) {
            const auto readBack = [&outcome, &busy, store] {
                _variant_t value;
                outcome.Check(store->ReadParameter(nullptr, busy, Name(1), value.GetAddress()) == S_OK &&
                                  value == ValueOf(1, 0, 0),
                              "ReadParameter from the caller's object");
            };
            auto* descriptor = new DtmDescriptor(1, 0, L"caller's device");
            auto* info = new ParameterDescription(L"FromCaller", static_cast<IUnknown*>(new CallingBackFont(readBack)));
            if (callingBack)
                descriptor->beforeGet = info->beforeGet = [readBack](const char*) { return readBack(), S_OK; };
            dtm = descriptor, parameter = info;
        };
        std::unique_ptr<Apartment> other;
        if (otherApartment)
        {
            // Its objects marshaled for this thread, then the store in a loop until
            // this thread is done, servicing calls between its own.
            IStream* marshaled[2] = {};
            other = std::make_unique<Apartment>([&] {
                ComPtr<IFbInstanceData> store = CreateStore();
                makeObjects(store.Get(), false);
                CoMarshalInterThreadInterfaceInStream(IID_IFdtDtmDescriptor, dtm.Get(), &marshaled[0]);
                CoMarshalInterThreadInterfaceInStream(IID_IFdtParameter, parameter.Get(), &marshaled[1]);
                dtm.Reset(), parameter.Reset();
                for (LONG loop = 0; outcome.failed.empty() && WaitForSingleObject(done, 0) == WAIT_TIMEOUT; ++loop)
                {
                    _variant_t value;
                    outcome.Check(store->WriteParameter(nullptr, busy, Name(0), _variant_t(loop)) == S_OK &&
                                      store->ReadParameter(nullptr, busy, Name(0), value.GetAddress()) == S_OK &&
                                      value == _variant_t(loop),
                                  "busy apartment's round");
                    SetEvent(ready);
                    WaitPumping(done, 0);
                }
                SetEvent(ready);
            });
            WaitPumping(ready);
            EXPECT_EQ(S_OK, CoGetInterfaceAndReleaseStream(marshaled[0], IID_PPV_ARGS(&dtm)));
            EXPECT_EQ(S_OK, CoGetInterfaceAndReleaseStream(marshaled[1], IID_PPV_ARGS(&parameter)));
        }
        else
            makeObjects(Store(), true);
        if (dtm && parameter)
        {
            _variant_t value;
            EXPECT_EQ(S_OK, NewDescribed(Store(), id, dtm.Get()));
            EXPECT_EQ(S_OK, Store()->WriteParameterInfo(nullptr, id, parameter.Get()));
            EXPECT_EQ(S_OK, parameter->get_m_value(value.GetAddress()));
            EXPECT_EQ(S_OK, Store()->WriteParameter(nullptr, id, _bstr_t(L"FromCaller"), value));
        }
        dtm.Reset(), parameter.Reset();
        SetEvent(done);
        other.reset();
        EXPECT_EQ("", outcome.failed);

        ComPtr<IFdtDescriptor> identification;
        ComPtr<IFont> font, given;
        ASSERT_EQ(S_OK, Store()->ReadIdentification(nullptr, id, &identification));
        const std::string described = Describe(identification.Get());
        EXPECT_NE(std::string::npos, described.find(" 8:caller's device ")) << described;
        m_id = id;
        const _variant_t value = Read(L"FromCaller");
        ASSERT_EQ(VT_UNKNOWN, V_VT(&value));
        ASSERT_EQ(S_OK, V_UNKNOWN(&value)->QueryInterface(IID_IFont, reinterpret_cast<void**>(font.GetAddressOf())));
        ASSERT_EQ(S_OK, MakeFont(IID_IFont, reinterpret_cast<void**>(given.GetAddressOf())));
        EXPECT_EQ(S_OK, given->IsEqual(font.Get()));
    }
}
