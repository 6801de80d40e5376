// Every operation of the store on damaged copies of a real store file: no
// crash, no hang, every failure a known result, and nothing that read before
// an operation unreadable after it. SAFETY_DAMAGE_COUNT copies (default two of
// each kind) from seed SAFETY_DAMAGE_FIRST (default 0); scripts/damage-campaign.sh
// runs long campaigns.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <sstream>
#include "DamagedCopies.h"
#include "SafetySupport.h"

namespace
{
unsigned Setting(const char* name, unsigned fallback)
{
    const char* text = getenv(name);
    return text && *text ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : fallback;
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

typedef IFbInstanceData* S;
const Operation kOperations[] = {
    {"Create", {}, nullptr, [](S s) { return CreateIn(s); }},
    {"Duplicate", {}, nullptr, [](S s) { _bstr_t id; return s->Duplicate(nullptr, B(L"1"), id.GetAddress()); }},
    {"WriteParameter", {"1"}, nullptr, [](S s) { return s->WriteParameter(nullptr, B(L"1"), B(L"i4"), _variant_t(11L)); }},
    {"WriteParameterInfo new", {"1"}, nullptr, [](S s) { return DefineIn(s, L"1", L"new", L"n"); }},
    {"WriteParameterInfo existing", {"2"}, nullptr, [](S s) { return DefineIn(s, L"2", L"x", 8.5); }},
    {"WriteParameterInfo failing", {"1"}, nullptr, [](S s) { return DefineIn(s, L"1", L"str", NullValue()); }},
    {"WriteList", {"1"}, nullptr, [](S s) {
         Array names{MakeBstrArray({L"r8", L"str"})}, values{MakeValueArray({3.5, L"list"})};
         return s->WriteList(nullptr, B(L"1"), &names.p, &values.p);
     }},
    {"WriteGroup", {"2"}, nullptr,
     [](S s) { Array values{MakeValueArray({9L, L"group"})}; return s->WriteGroup(nullptr, B(L"2"), B(L"gb"), &values.p); }},
    {"DefineGroup", {"1"}, nullptr, [](S s) { return GroupIn(s, L"1", L"gnew", 9, {L"i4", L"date"}); }},
    // Protect and Release take the same path as Lock and Unlock.
    {"LockParameter", {"2"}, nullptr,
     [](S s) { Array n{MakeBstrArray({L"x"})}; return s->LockParameter(nullptr, B(L"2"), &n.p); }},
    {"UnlockParameter", {"1"}, nullptr,
     [](S s) { Array n{MakeBstrArray({L"i4"})}; return s->UnlockParameter(nullptr, B(L"1"), &n.p); }},
    {"LockInstance", {"2"}, nullptr, [](S s) { return s->LockInstance(nullptr, B(L"2")); }},
    {"UnlockInstance", {"3"}, nullptr, [](S s) { return s->UnlockInstance(nullptr, B(L"3")); }},
    {"AddInstanceDataReference", {"2", "3"}, nullptr,
     [](S s) { return s->AddInstanceDataReference(nullptr, B(L"2"), B(L"x"), B(L"3")); }},
    {"RemoveInstanceDataReference", {"1", "2"}, nullptr,
     [](S s) { return s->RemoveInstanceDataReference(nullptr, B(L"1"), B(L"i4"), B(L"2")); }},
    {"DeleteGroup", {"1"}, "g2", [](S s) { return s->DeleteGroup(nullptr, B(L"1"), B(L"g2")); }},
    {"DeleteParameter", {"1"}, "date", [](S s) { return s->DeleteParameter(nullptr, B(L"1"), B(L"date")); }},
    {"Delete", {"3"}, "", [](S s) { return s->Delete(nullptr, B(L"3")); }},
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
        std::istringstream fields(entry.first);
        for (std::string& field : key)
            std::getline(fields, field, '|');
        const bool mine = std::count(op.instances.begin(), op.instances.end(), key[0]) > 0;
        const bool removed = op.removes && mine && (!*op.removes || key[2].empty() || key[2] == op.removes || key[1] == "g");
        const bool mustEqual = FAILED(hr) || (!mine && !key[0].empty());
        if (entry.second[0] != '!' && ((mustEqual && now != entry.second) || (!removed && now[0] == '!')))
            faults.push_back(std::string(op.name) + " (" + Hex(hr) + ") changed " + entry.first + ": " + entry.second +
                             " -> " + now);
    }
    for (const auto& entry : after)
        if (entry.second.compare(0, 2, "!?") == 0)
            faults.push_back(std::string("after ") + op.name + ": unknown result of " + entry.first + ": " + entry.second);
}

using DamagedFiles = StoreSession;
}  // namespace

TEST_F(DamagedFiles, EveryOperationOnEachCopy)
{
    const unsigned first = Setting("SAFETY_DAMAGE_FIRST", 0);
    const unsigned count = Setting("SAFETY_DAMAGE_COUNT", 2 * damaged_copies::DamageKindCount());
    const std::wstring model = ModelFile(), copy = Path();
    const auto giveUp = [&] {   // also what the store kept aside
        GiveUp();
        for (const wchar_t* suffix : {L"", L".unreadable", L".unreadable.1"})
            DeleteFileW((copy + suffix).c_str());
    };
    size_t faultyFiles = 0, failedCalls = 0;
    for (unsigned seed = first; seed < first + count; ++seed)
    {
        printf("file %u\n", seed);   // the last one shown is the one that hung, when the program is ended
        fflush(stdout);
        giveUp();
        std::string description;
        ASSERT_EQ(S_OK, damaged_copies::MakeDamagedCopy(model.c_str(), copy.c_str(), seed, description));
        std::vector<std::string> faults;
        const auto note = [&](const char* call, HRESULT hr) {
            if (!KnownResult(hr))
                faults.push_back(std::string(call) + " gave " + Hex(hr));
            return hr;
        };
        ComPtr<IStorage> root;
        HRESULT hr = note("OpenStorage", Manager()->OpenStorage(Path(), &root));
        if (SUCCEEDED(hr))
        {
            Snapshot shot = Take(Store());
            for (const Operation& op : kOperations)
            {
                hr = note(op.name, op.run(Store()));
                failedCalls += FAILED(hr);
                Snapshot next = Take(Store());
                Compare(shot, next, op, hr, faults);
                shot.swap(next);
            }
            // What the session read is what the file holds once committed.
            hr = root->Commit(STGC_DEFAULT);
            root.Reset();
            GiveUp();
            if (FAILED(hr) || FAILED(hr = Manager()->OpenStorage(Path(), &root)))
                faults.push_back("commit and reopen failed: " + Hex(hr));
            else
                Compare(shot, Take(Store()), Operation{"reopen", {}, nullptr, nullptr}, E_FAIL, faults);
        }
        faultyFiles += !faults.empty();
        for (size_t i = 0; i < faults.size() && i < 5; ++i)
            ADD_FAILURE() << "seed " << seed << " (" << description << "): " << faults[i];
    }
    giveUp();
    printf("damaged files: %u from seed %u, %zu with faults, %zu failed operations\n", count, first, faultyFiles,
           failedCalls);
}
