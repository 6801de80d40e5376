// Every operation of the store on damaged copies of a real store file: no
// crash, no hang, every failure a known result, and nothing that read before
// an operation unreadable after it. SAFETY_DAMAGE_COUNT copies (default 28)
// from seed SAFETY_DAMAGE_FIRST (default 0); scripts/damage-campaign.sh runs
// long campaigns.
#include <cstdio>
#include <cstdlib>
#include "DamagedCopies.h"
#include "SafetySupport.h"

namespace
{
unsigned Setting(const char* name, unsigned fallback)
{
    const char* text = getenv(name);
    return text && *text ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : fallback;
}

_bstr_t B(const wchar_t* text)
{
    return _bstr_t(text);
}

// Calls with a name array and, when values is given, a value array.
HRESULT WithNames(HRESULT (STDMETHODCALLTYPE IFbInstanceData::*call)(IFdtContext*, BSTR, SAFEARRAY**),
                  IFbInstanceData* store, const wchar_t* id, const std::vector<std::wstring>& names)
{
    SAFEARRAY* list = MakeBstrArray(names);
    const HRESULT hr = (store->*call)(nullptr, B(id), &list);
    SafeArrayDestroy(list);
    return hr;
}

HRESULT WriteValues(IFbInstanceData* store, const wchar_t* id, const wchar_t* group,
                    const std::vector<std::wstring>& names, const Values& values)
{
    SAFEARRAY* list = MakeBstrArray(names);
    SAFEARRAY* array = MakeValueArray(values);
    const HRESULT hr = group ? store->WriteGroup(nullptr, B(id), B(group), &array)
                             : store->WriteList(nullptr, B(id), &list, &array);
    SafeArrayDestroy(list);
    SafeArrayDestroy(array);
    return hr;
}

HRESULT Define(IFbInstanceData* store, const wchar_t* id, const wchar_t* name, const _variant_t& value)
{
    return store->WriteParameterInfo(nullptr, B(id), TestParameter::Make(name, value).Get());
}

// One writing operation: the instances it works on and, when it removes
// something, the elements it removes (none named: the whole instance).
struct Operation
{
    const char* name;
    std::vector<std::string> instances;
    bool removes;
    std::vector<std::string> removed;
    HRESULT (*run)(IFbInstanceData* store);
};

const std::vector<Operation>& Operations()
{
    static const std::vector<Operation> operations = {
        {"Create", {}, false, {}, [](IFbInstanceData* s) {
             _bstr_t id;
             return s->Create(nullptr, ComPtr<TestDtmDescriptor>(new TestDtmDescriptor).Get(),
                              ComPtr<TestCommDescriptor>(new TestCommDescriptor).Get(), id.GetAddress());
         }},
        {"Duplicate", {}, false, {}, [](IFbInstanceData* s) {
             _bstr_t id;
             return s->Duplicate(nullptr, B(L"1"), id.GetAddress());
         }},
        {"WriteParameter", {"1"}, false, {}, [](IFbInstanceData* s) {
             return s->WriteParameter(nullptr, B(L"1"), B(L"i4"), _variant_t(11L));
         }},
        {"WriteParameterInfo new", {"1"}, false, {}, [](IFbInstanceData* s) { return Define(s, L"1", L"new", _variant_t(L"n")); }},
        {"WriteParameterInfo existing", {"2"}, false, {}, [](IFbInstanceData* s) { return Define(s, L"2", L"x", _variant_t(8.5)); }},
        {"WriteParameterInfo failing", {"1"}, false, {}, [](IFbInstanceData* s) {
             VARIANT null;
             V_VT(&null) = VT_NULL;
             return Define(s, L"1", L"str", _variant_t(null));
         }},
        {"WriteList", {"1"}, false, {}, [](IFbInstanceData* s) {
             return WriteValues(s, L"1", nullptr, {L"r8", L"str"}, {_variant_t(3.5), _variant_t(L"list")});
         }},
        {"WriteGroup", {"2"}, false, {}, [](IFbInstanceData* s) {
             return WriteValues(s, L"2", L"gb", {}, {_variant_t(9L), _variant_t(L"group")});
         }},
        {"DefineGroup", {"1"}, false, {}, [](IFbInstanceData* s) {
             SAFEARRAY* members = MakeBstrArray({L"i4", L"date"});
             const HRESULT hr = s->DefineGroup(nullptr, B(L"1"), B(L"gnew"), 9, &members);
             SafeArrayDestroy(members);
             return hr;
         }},
        {"LockParameter", {"2"}, false, {}, [](IFbInstanceData* s) { return WithNames(&IFbInstanceData::LockParameter, s, L"2", {L"x"}); }},
        {"UnlockParameter", {"1"}, false, {}, [](IFbInstanceData* s) { return WithNames(&IFbInstanceData::UnlockParameter, s, L"1", {L"i4"}); }},
        {"ProtectParameter", {"1"}, false, {}, [](IFbInstanceData* s) { return WithNames(&IFbInstanceData::ProtectParameter, s, L"1", {L"r8"}); }},
        {"ReleaseParameter", {"1"}, false, {}, [](IFbInstanceData* s) { return WithNames(&IFbInstanceData::ReleaseParameter, s, L"1", {L"i4"}); }},
        {"LockInstance", {"2"}, false, {}, [](IFbInstanceData* s) { return s->LockInstance(nullptr, B(L"2")); }},
        {"UnlockInstance", {"3"}, false, {}, [](IFbInstanceData* s) { return s->UnlockInstance(nullptr, B(L"3")); }},
        {"AddInstanceDataReference", {"2", "3"}, false, {}, [](IFbInstanceData* s) {
             return s->AddInstanceDataReference(nullptr, B(L"2"), B(L"x"), B(L"3"));
         }},
        {"RemoveInstanceDataReference", {"1", "2"}, false, {}, [](IFbInstanceData* s) {
             return s->RemoveInstanceDataReference(nullptr, B(L"1"), B(L"i4"), B(L"2"));
         }},
        {"DeleteGroup", {"1"}, true, {"g2"}, [](IFbInstanceData* s) { return s->DeleteGroup(nullptr, B(L"1"), B(L"g2")); }},
        {"DeleteParameter", {"1"}, true, {"date"}, [](IFbInstanceData* s) { return s->DeleteParameter(nullptr, B(L"1"), B(L"date")); }},
        {"Delete", {"3"}, true, {}, [](IFbInstanceData* s) { return s->Delete(nullptr, B(L"3")); }},
    };
    return operations;
}

std::vector<std::string> Fields(const std::string& key)
{
    std::vector<std::string> fields;
    for (size_t start = 0, end; start <= key.size(); start = end + 1)
        fields.push_back(key.substr(start, (end = std::min(key.find('|', start), key.size())) - start));
    return fields;
}

bool Contains(const std::vector<std::string>& list, const std::string& item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

// What changed that the operation had no business changing: a failed one
// changes nothing; a successful one changes nothing of another instance, and
// in its own removes only what it removes (with the lists and groups that
// held it: a name stays in the map when its stream goes).
void Compare(const Snapshot& before, const Snapshot& after, const Operation& op, HRESULT hr,
             std::vector<std::string>& faults)
{
    for (const auto& entry : before)
    {
        if (!Readable(entry.second))
            continue;
        const auto found = after.find(entry.first);
        const std::string now = found == after.end() ? "!missing" : found->second;
        const std::vector<std::string> key = Fields(entry.first);
        const bool mine = Contains(op.instances, key[0]);
        const bool removed = op.removes && mine &&
                             (op.removed.empty() || key.size() < 3 || Contains(op.removed, key[2]) || key[1] == "g");
        const bool mustEqual = FAILED(hr) || (!mine && !key[0].empty());
        if ((mustEqual && now != entry.second) || (!removed && !Readable(now)))
            faults.push_back(std::string(op.name) + " (" + Hex(hr) + ") changed " + entry.first + ": " + entry.second +
                             " -> " + now);
    }
}

// Kills the program when one file takes longer than a hang could explain.
DWORD WINAPI Watchdog(void* current)
{
    for (unsigned last = ~0u, stuck = 0;; Sleep(1000))
    {
        const unsigned seed = *static_cast<volatile unsigned*>(current);
        stuck = seed == last ? stuck + 1 : 0;
        last = seed;
        if (stuck > Setting("SAFETY_HANG_SECONDS", 300))
        {
            printf("HANG at seed %u\n", seed);
            fflush(stdout);
            TerminateProcess(GetCurrentProcess(), 3);
        }
    }
}
}  // namespace

TEST(DamagedFiles, EveryOperationOnEachCopy)
{
    const std::wstring model = ModelFile();
    const std::wstring copy = TestFilesDirectory() + L"safety-damaged.stg";
    const unsigned first = Setting("SAFETY_DAMAGE_FIRST", 0), count = Setting("SAFETY_DAMAGE_COUNT", 28);
    static volatile unsigned current = first;
    CloseHandle(CreateThread(nullptr, 0, Watchdog, const_cast<unsigned*>(&current), 0, nullptr));
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    std::vector<size_t> perKind(damaged_copies::DamageKindCount());
    size_t faultyFiles = 0, failedCalls = 0;
    for (unsigned seed = first; seed < first + count; ++seed)
    {
        current = seed;
        std::string description;
        ASSERT_EQ(S_OK, damaged_copies::MakeDamagedCopy(model.c_str(), copy.c_str(), seed, description));
        ++perKind[seed % perKind.size()];
        std::vector<std::string> faults;
        ComPtr<IStorage> root;
        HRESULT hr = Note(OpenIn(manager.Get(), copy, root), "OpenStorage");
        if (SUCCEEDED(hr))
        {
            Snapshot shot = Take(store.Get());
            for (const Operation& op : Operations())
            {
                hr = Note(op.run(store.Get()), op.name);
                failedCalls += FAILED(hr);
                Snapshot next = Take(store.Get());
                Compare(shot, next, op, hr, faults);
                shot.swap(next);
            }
            // What the session read is what the file holds once committed.
            hr = root->Commit(STGC_DEFAULT);
            if (FAILED(hr) || FAILED(hr = OpenIn(manager.Get(), copy, root)))
                faults.push_back("commit and reopen failed: " + Hex(hr));
            else
                Compare(shot, Take(store.Get()), Operation{"reopen", {}, false, {}, nullptr}, E_FAIL, faults);
        }
        for (const std::string& unknown : TakeUnknownResults())
            faults.push_back("unknown result: " + unknown);
        root.Reset();
        GiveUp(manager.Get());
        faultyFiles += !faults.empty();
        for (size_t i = 0; i < faults.size() && i < 5; ++i)
            ADD_FAILURE() << "seed " << seed << " (" << description << "): " << faults[i];
        for (const wchar_t* suffix : {L"", L".unreadable", L".unreadable.1"})
            DeleteFileW((copy + suffix).c_str());
    }
    printf("damaged files: %u from seed %u, %zu with faults, %zu failed operations; per kind:", count, first,
           faultyFiles, failedCalls);
    for (size_t kind = 0; kind < perKind.size(); ++kind)
        printf(" %s %zu;", damaged_copies::DamageKindName(kind), perKind[kind]);
    printf("\n");
    current = ~0u - 1;
}
