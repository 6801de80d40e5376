// Every operation of the store on damaged copies of a real store file: no
// crash, no hang, every failure a known result, and nothing that read before
// an operation unreadable after it. SAFETY_DAMAGE_COUNT copies (default two of
// each kind) from seed SAFETY_DAMAGE_FIRST (default 0); scripts/damage-campaign.sh
// runs long campaigns.
#include <algorithm>
#include <cstdio>
#include <functional>
#include "DamagedCopies.h"
#include "SafetySupport.h"

namespace
{
unsigned Setting(const char* name, unsigned fallback)
{
    const char* text = getenv(name);
    return text && *text ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : fallback;
}

HRESULT WithNames(IFbInstanceData* store, HRESULT (STDMETHODCALLTYPE IFbInstanceData::*call)(IFdtContext*, BSTR, SAFEARRAY**),
                  const wchar_t* id, const wchar_t* name)
{
    Array names{MakeBstrArray({name})};
    return (store->*call)(nullptr, B(id), &names.p);
}

// One writing operation, the instances it works on and what it removes there
// (null: nothing, "": the whole instance).
struct Operation
{
    const char* name;
    std::vector<std::string> instances;
    const char* removes;
    std::function<HRESULT(IFbInstanceData*)> run;
};

const Operation kOperations[] = {
    {"Create", {}, nullptr, [](IFbInstanceData* s) { return CreateIn(s); }},
    {"Duplicate", {}, nullptr, [](IFbInstanceData* s) { _bstr_t id; return s->Duplicate(nullptr, B(L"1"), id.GetAddress()); }},
    {"WriteParameter", {"1"}, nullptr, [](IFbInstanceData* s) { return s->WriteParameter(nullptr, B(L"1"), B(L"i4"), _variant_t(11L)); }},
    {"WriteParameterInfo new", {"1"}, nullptr, [](IFbInstanceData* s) { return DefineIn(s, L"1", L"new", L"n"); }},
    {"WriteParameterInfo existing", {"2"}, nullptr, [](IFbInstanceData* s) { return DefineIn(s, L"2", L"x", 8.5); }},
    {"WriteParameterInfo failing", {"1"}, nullptr, [](IFbInstanceData* s) { return DefineIn(s, L"1", L"str", NullValue()); }},
    {"WriteList", {"1"}, nullptr, [](IFbInstanceData* s) {
         Array names{MakeBstrArray({L"r8", L"str"})}, values{MakeValueArray({3.5, L"list"})};
         return s->WriteList(nullptr, B(L"1"), &names.p, &values.p);
     }},
    {"WriteGroup", {"2"}, nullptr, [](IFbInstanceData* s) {
         Array values{MakeValueArray({9L, L"group"})};
         return s->WriteGroup(nullptr, B(L"2"), B(L"gb"), &values.p);
     }},
    {"DefineGroup", {"1"}, nullptr, [](IFbInstanceData* s) { return GroupIn(s, L"1", L"gnew", 9, {L"i4", L"date"}); }},
    {"LockParameter", {"2"}, nullptr, [](IFbInstanceData* s) { return WithNames(s, &IFbInstanceData::LockParameter, L"2", L"x"); }},
    {"UnlockParameter", {"1"}, nullptr, [](IFbInstanceData* s) { return WithNames(s, &IFbInstanceData::UnlockParameter, L"1", L"i4"); }},
    {"ProtectParameter", {"1"}, nullptr, [](IFbInstanceData* s) { return WithNames(s, &IFbInstanceData::ProtectParameter, L"1", L"r8"); }},
    {"ReleaseParameter", {"1"}, nullptr, [](IFbInstanceData* s) { return WithNames(s, &IFbInstanceData::ReleaseParameter, L"1", L"i4"); }},
    {"LockInstance", {"2"}, nullptr, [](IFbInstanceData* s) { return s->LockInstance(nullptr, B(L"2")); }},
    {"UnlockInstance", {"3"}, nullptr, [](IFbInstanceData* s) { return s->UnlockInstance(nullptr, B(L"3")); }},
    {"AddInstanceDataReference", {"2", "3"}, nullptr,
     [](IFbInstanceData* s) { return s->AddInstanceDataReference(nullptr, B(L"2"), B(L"x"), B(L"3")); }},
    {"RemoveInstanceDataReference", {"1", "2"}, nullptr,
     [](IFbInstanceData* s) { return s->RemoveInstanceDataReference(nullptr, B(L"1"), B(L"i4"), B(L"2")); }},
    {"DeleteGroup", {"1"}, "g2", [](IFbInstanceData* s) { return s->DeleteGroup(nullptr, B(L"1"), B(L"g2")); }},
    {"DeleteParameter", {"1"}, "date", [](IFbInstanceData* s) { return s->DeleteParameter(nullptr, B(L"1"), B(L"date")); }},
    {"Delete", {"3"}, "", [](IFbInstanceData* s) { return s->Delete(nullptr, B(L"3")); }},
};

// What changed that the operation had no business changing: a failed one
// changes nothing; a successful one changes nothing of another instance, and
// in its own removes only what it removes (with the lists and groups that
// held it: a name stays in the map when its stream goes).
void Compare(const Snapshot& before, const Snapshot& after, const Operation& op, HRESULT hr,
             std::vector<std::string>& faults)
{
    for (const auto& entry : before)
    {
        const auto found = after.find(entry.first);
        const std::string now = found == after.end() ? "!missing" : found->second;
        std::vector<std::string> key(3);   // instance, what, name
        for (size_t field = 0, start = 0, end = 0; field < 3 && end != std::string::npos; ++field, start = end + 1)
            key[field] = entry.first.substr(start, (end = entry.first.find('|', start)) - start);
        const bool mine = std::count(op.instances.begin(), op.instances.end(), key[0]) > 0;
        const bool removed = op.removes && mine && (!*op.removes || key[2].empty() || key[2] == op.removes || key[1] == "g");
        const bool mustEqual = FAILED(hr) || (!mine && !key[0].empty());
        if (Readable(entry.second) && ((mustEqual && now != entry.second) || (!removed && !Readable(now))))
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
    const std::wstring model = ModelFile(), copy = TestFilesDirectory() + L"safety-damaged.stg";
    const unsigned first = Setting("SAFETY_DAMAGE_FIRST", 0);
    const unsigned count = Setting("SAFETY_DAMAGE_COUNT", 2 * damaged_copies::DamageKindCount());
    static volatile unsigned current = first;
    CloseHandle(CreateThread(nullptr, 0, Watchdog, const_cast<unsigned*>(&current), 0, nullptr));
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ASSERT_EQ(S_OK, store.As(&manager));
    size_t faultyFiles = 0, failedCalls = 0;
    for (unsigned seed = first; seed < first + count; ++seed)
    {
        current = seed;
        std::string description;
        ASSERT_EQ(S_OK, damaged_copies::MakeDamagedCopy(model.c_str(), copy.c_str(), seed, description));
        std::vector<std::string> faults;
        ComPtr<IStorage> root;
        if (SUCCEEDED(Note(OpenIn(manager.Get(), copy, root), "OpenStorage")))
        {
            Snapshot shot = Take(store.Get());
            for (const Operation& op : kOperations)
            {
                const HRESULT hr = Note(op.run(store.Get()), op.name);
                failedCalls += FAILED(hr);
                Snapshot next = Take(store.Get());
                Compare(shot, next, op, hr, faults);
                shot.swap(next);
            }
            // What the session read is what the file holds once committed.
            HRESULT hr = root->Commit(STGC_DEFAULT);
            if (FAILED(hr) || FAILED(hr = OpenIn(manager.Get(), copy, root)))
                faults.push_back("commit and reopen failed: " + Hex(hr));
            else
                Compare(shot, Take(store.Get()), Operation{"reopen", {}, nullptr, nullptr}, E_FAIL, faults);
        }
        for (const std::string& unknown : TakeUnknownResults())
            faults.push_back("unknown result: " + unknown);
        OpenIn(manager.Get(), L"", root);
        faultyFiles += !faults.empty();
        for (size_t i = 0; i < faults.size() && i < 5; ++i)
            ADD_FAILURE() << "seed " << seed << " (" << description << "): " << faults[i];
        for (const wchar_t* suffix : {L"", L".unreadable", L".unreadable.1"})
            DeleteFileW((copy + suffix).c_str());
    }
    printf("damaged files: %u from seed %u, %zu with faults, %zu failed operations\n", count, first, faultyFiles,
           failedCalls);
    current = ~0u - 1;
}
