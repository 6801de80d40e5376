// The ways the store could destroy data it did not mean to destroy, each a
// table: refused deletes, failed rewrites, damaged or lagging streams,
// unreadable files, failures in the middle of an operation and a killed frame.
#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include "SafetySupport.h"

namespace
{
typedef std::function<HRESULT(IFbInstanceData*)> Call;

// Names of the elements of the root, as a frame's file shows them.
std::set<std::wstring> RootNames(IStorage* root)
{
    std::set<std::wstring> names;
    ComPtr<IEnumSTATSTG> list;
    if (SUCCEEDED(root->EnumElements(0, nullptr, 0, &list)))
        for (STATSTG item; list->Next(1, &item, nullptr) == S_OK; CoTaskMemFree(item.pwcsName))
            names.insert(item.pwcsName);
    return names;
}

// A copy of the model file per test, opened as a frame opens it.
class Situations : public StoreSession
{
public:
    void SetUp() override
    {
        StoreSession::SetUp();
        Fresh();
    }
    void TearDown() override
    {
        StoreSession::TearDown();
        RemoveKeptFiles();
    }
    std::wstring Kept(const wchar_t* suffix) const { return std::wstring(Path()) + suffix; }
    void RemoveKeptFiles() const
    {
        for (const wchar_t* suffix : {L".unreadable", L".unreadable.1"})
            DeleteFileW(Kept(suffix).c_str());
    }
    // Gives the file up, makes it a new copy of the model and opens it.
    void Fresh(bool open = true)
    {
        GiveUp();
        ASSERT_TRUE(CopyFileW(ModelFile().c_str(), Path(), FALSE));
        if (open)
            Open();
    }
    // Every entry of expected reads the same now, except keys containing one of skip.
    void ExpectUnchanged(const Snapshot& expected, std::initializer_list<const char*> skip = {})
    {
        const Snapshot now = Take(Store());
        for (const auto& entry : expected)
        {
            const auto skipped = [&](const char* part) { return entry.first.find(part) != std::string::npos; };
            if (std::none_of(skip.begin(), skip.end(), skipped))
            {
                EXPECT_EQ(entry.second, now.count(entry.first) ? now.at(entry.first) : "!missing") << entry.first;
            }
        }
    }
};
}  // namespace

// Delete removes instance storages only: the administration stream in any
// letter case and any other element are refused and change nothing, also once
// a later write is committed. (A failed call of any other kind: the damaged
// files campaign.)
TEST_F(Situations, RefusedDeletesChangeNothing)
{
    Replace(L"5", Bytes());   // elements of the root that are no instances
    for (const wchar_t* name : {L"x", L"01"})
        ASSERT_EQ(S_OK, Root()->CreateStorage(name, kMode, 0, 0, ComPtr<IStorage>().GetAddressOf()));
    const Snapshot before = Take(Store());
    const std::set<std::wstring> names = RootNames(Root());
    bool flag = false;
    for (const wchar_t* name : {L"ADMIN", L"Admin", L"admin", L"5", L"x", L"01", L"0", L"-1"})
    {
        SCOPED_TRACE(Narrow(name));
        TraceCapture trace;
        EXPECT_EQ(E_INVALIDARG, Store()->Delete(nullptr, B(name)));
        EXPECT_TRUE(trace.Contains("FbInstanceData::Delete " + Narrow(name) + " is not an instance")) << trace.Text();
        EXPECT_EQ(names, RootNames(Root()));
        ASSERT_EQ(S_OK, Store()->WriteParameter(nullptr, B(L"1"), B(L"flag"), _variant_t(flag = !flag)));
        Reopen();
        ExpectUnchanged(before, {"flag", "1|list"});
    }
}

// A counter behind the names in use is skipped over, traced and repaired, and
// nothing in use is taken again; a map counter at the last number is refused
// rather than wrapped to 0, before the numbers in use. (Strings and counts
// damaged: the damaged streams table and the damaged files campaign.)
TEST_F(Situations, LaggingCountersAreRepaired)
{
    const struct
    {
        const wchar_t* stream;
        DWORD counter;   // written at offset 4
        Call call;
        const char* message;
        DWORD taken;   // the counter is one above it afterwards; 0: refused, the counter stays
    } rows[] = {
        {L"admin", 1, [](IFbInstanceData* s) { return CreateIn(s); },
         "FbInstanceData::Create next instance number 1 is in use: 4 taken", 4},
        {L"1/map", 0, [](IFbInstanceData* s) { return DefineIn(s, L"1", L"new", 1L); },
         "FbInstanceData::AllocateStreamName next stream number 0 of instance 1 is in use: 9 taken", 9},
        {L"2/map", 1, [](IFbInstanceData* s) { return GroupIn(s, L"2", L"gnew", 1, {L"x"}); },
         "FbInstanceData::AllocateStreamName next stream number 1 of instance 2 is in use: 3 taken", 3},
        {L"1/map", MAXDWORD, [](IFbInstanceData* s) { return DefineIn(s, L"1", L"new", 1L); },
         "FbInstanceData::AllocateStreamName no stream number is left in instance 1", 0},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.stream) + " at " + std::to_string(row.counter));
        Fresh();
        Bytes bytes = Stream(row.stream);
        memcpy(&bytes[4], &row.counter, 4);
        Replace(row.stream, bytes);
        Reopen();
        const Snapshot before = Take(Store());
        TraceCapture trace;
        EXPECT_EQ(row.taken ? S_OK : E_FAIL, row.call(Store()));
        EXPECT_TRUE(trace.Contains(row.message)) << trace.Text();
        Reopen();
        if (row.taken)
            ExpectUnchanged(before, {"instances", "params", "groups", "list"});   // the lists grow
        else
            ExpectUnchanged(before);
        bytes = Stream(row.stream);
        ASSERT_LE(8u, bytes.size());
        EXPECT_EQ(row.taken ? row.taken + 1 : MAXDWORD, DWORD(bytes[4] | bytes[5] << 8 | bytes[6] << 16 | bytes[7] << 24));
    }
}

// A file that is no compound file is kept aside before a new store replaces
// it; an earlier kept file stays. A file that is held, and a store file cut
// short inside a sector, fail and stay as they are.
TEST_F(Situations, UnreadableFileIsKeptAside)
{
    const std::string model = FileText(ModelFile());
    const struct
    {
        bool earlierKept, held;
        size_t cutTo;            // 0: the file holds text
        const wchar_t* keptAt;   // null: the open fails
    } rows[] = {{false, false, 0, L".unreadable"},
                {true, false, 0, L".unreadable.1"},
                {false, true, 0, nullptr},
                {false, false, model.size() - 486, nullptr}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.keptAt ? Narrow(row.keptAt) : row.held ? "held" : "cut");
        GiveUp();
        RemoveKeptFiles();
        const std::string content = row.cutTo ? model.substr(0, row.cutTo) : "not a store file";
        std::ofstream(Path(), std::ios::binary) << content;
        if (row.earlierKept)
            std::ofstream(Kept(L".unreadable").c_str()) << "kept before";
        HANDLE holder = row.held ? CreateFileW(Path(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                                 : INVALID_HANDLE_VALUE;
        TraceCapture trace;
        ComPtr<IStorage> root;
        const HRESULT hr = Manager()->OpenStorage(Path(), &root);
        if (holder != INVALID_HANDLE_VALUE)
            CloseHandle(holder);
        EXPECT_EQ(row.keptAt != nullptr, SUCCEEDED(hr)) << Hex(hr);
        EXPECT_EQ(content, FileText(Kept(row.keptAt ? row.keptAt : L"")));
        EXPECT_EQ(row.earlierKept ? "kept before" : row.keptAt ? content : "", FileText(Kept(L".unreadable")));
        EXPECT_TRUE(!row.keptAt || trace.Contains("is not a readable storage file: kept as " + Narrow(Kept(row.keptAt))))
            << trace.Text();
        EXPECT_TRUE(!row.cutTo || (hr == STG_E_DOCFILECORRUPT && trace.Contains("is cut short inside a sector: not opened")))
            << Hex(hr) << trace.Text();
    }
}

namespace
{
// Allocations of the module that fail on request: malloc (the C++
// allocator's) and the BSTR allocators, through its import slots.
LONG g_countdown = 0;
template <class Function>
Function Export(const wchar_t* dll, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(dll), name)));
}
const auto g_malloc = Export<void* (*)(size_t)>(L"msvcrt.dll", "malloc");
const auto g_allocLen = Export<BSTR(WINAPI*)(const OLECHAR*, UINT)>(L"oleaut32.dll", "SysAllocStringLen");
const auto g_alloc = Export<BSTR(WINAPI*)(const OLECHAR*)>(L"oleaut32.dll", "SysAllocString");
bool Fail() { return g_countdown > 0 && --g_countdown == 0; }
void* FailingMalloc(size_t size) { return Fail() ? nullptr : g_malloc(size); }
BSTR WINAPI FailingAllocLen(const OLECHAR* text, UINT length) { return Fail() ? nullptr : g_allocLen(text, length); }
BSTR WINAPI FailingAlloc(const OLECHAR* text) { return Fail() ? nullptr : g_alloc(text); }

// Points the module's import slot of real at counting, or back.
template <class Function>
void Bend(Function real, Function counting, bool failing)
{
    BYTE* base = reinterpret_cast<BYTE*>(ServerModule::Handle());
    auto nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& table = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];
    Function *first = reinterpret_cast<Function*>(base + table.VirtualAddress), *last = first + table.Size / sizeof real;
    Function* slot = std::find(first, last, failing ? real : counting);
    DWORD protection = 0;
    ASSERT_NE(last, slot) << "the module does not import that allocator";
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    *slot = failing ? counting : real;
    VirtualProtect(slot, sizeof *slot, protection, &protection);
}

// From now on the module's k-th allocation fails once; none for 0.
void FailAllocation(LONG k)
{
    g_countdown = k;
    Bend(g_malloc, &FailingMalloc, k > 0);
    Bend(g_allocLen, &FailingAllocLen, k > 0);
    Bend(g_alloc, &FailingAlloc, k > 0);
}
}  // namespace

// An allocation that fails at any point of an operation leaves no state
// half-set: after OpenStorage the store is closed and the file free; after a
// writer the file reads as it was and no read of an unknown identifier makes
// an instance.
TEST_F(Situations, FailedAllocationLeavesNoHalfState)
{
    const struct
    {
        const char* name;
        Call run;   // null: OpenStorage
    } rows[] = {
        {"OpenStorage", nullptr},
        {"Create", [](IFbInstanceData* s) { return CreateIn(s); }},
        {"Duplicate", [](IFbInstanceData* s) { _bstr_t id; return s->Duplicate(nullptr, B(L"1"), id.GetAddress()); }},
        {"WriteParameterInfo", [](IFbInstanceData* s) { return DefineIn(s, L"1", L"new", L"n"); }},
        {"DefineGroup", [](IFbInstanceData* s) { return GroupIn(s, L"1", L"gnew", 1, {L"i4"}); }},
    };
    const Snapshot model = Take(Store());
    const std::set<std::wstring> names = RootNames(Root());
    for (const auto& row : rows)
    {
        bool reached = true;
        LONG k = 1;
        for (; reached && k < 1000; ++k)
        {
            SCOPED_TRACE(std::string(row.name) + ", allocation " + std::to_string(k));
            Fresh(row.run != nullptr);
            if (row.run)
                Take(Store());   // the instance storage and its map are cached, as in a session
            ComPtr<IStorage> root;
            FailAllocation(k);
            const HRESULT hr = row.run ? row.run(Store()) : Manager()->OpenStorage(Path(), &root);
            reached = g_countdown == 0;
            FailAllocation(0);
            EXPECT_TRUE(KnownResult(hr)) << Hex(hr);
            if (SUCCEEDED(hr))
                continue;
            if (!row.run)   // the store is closed and the file free
            {
                EXPECT_TRUE(FAILED(Manager()->GetStorage(&root)));
                EXPECT_EQ(S_OK, StgOpenStorage(Path(), nullptr, kMode, nullptr, 0, &root));
                root.Reset();
                Open();
            }
            _variant_t value;
            EXPECT_TRUE(FAILED(Store()->ReadParameter(nullptr, B(L"77"), B(L"i4"), &value)));
            EXPECT_EQ(names, RootNames(Root()));
            ExpectUnchanged(model);
        }
        EXPECT_FALSE(reached) << row.name << ": every allocation failed once and it still did not succeed";
        EXPECT_LT(2, k) << row.name << ": no allocation of the module failed";
    }
}

// A frame killed in the middle of a session leaves its file as it last
// committed it. The child is this program, run with SAFETY_CHILD, that does
// the work and kills itself with the uncommitted part left.
namespace
{
void Work(IFbInstanceData* store, bool committed)
{
    _bstr_t id;
    ASSERT_EQ(S_OK, CreateIn(store, &id));
    if (committed)
    {
        ASSERT_EQ(S_OK, store->WriteParameter(nullptr, B(L"1"), B(L"i4"), _variant_t(99L)));
        ASSERT_EQ(S_OK, DefineIn(store, id, L"p", L"kept"));
        return;
    }
    ASSERT_EQ(S_OK, store->WriteParameter(nullptr, B(L"1"), B(L"str"), _variant_t(L"lost")));
    ASSERT_EQ(S_OK, store->DeleteParameter(nullptr, B(L"1"), B(L"r8")));
    ASSERT_EQ(S_OK, store->Delete(nullptr, B(L"2")));
}
}  // namespace

TEST_F(Situations, KilledChild)
{
    if (!GetEnvironmentVariableW(L"SAFETY_CHILD", nullptr, 0))
        GTEST_SKIP() << "only as the child of FileIsAsLastCommitted";
    Work(Store(), true);
    Commit();
    Work(Store(), false);
    TerminateProcess(GetCurrentProcess(), 9);
}

TEST_F(Situations, FileIsAsLastCommitted)
{
    Work(Store(), true);
    Reopen();
    const Snapshot expected = Take(Store());
    GiveUp();
    const _bstr_t child((TestFilesDirectory() + L"Situations-KilledChild.stg").c_str());
    SetEnvironmentVariableW(L"SAFETY_CHILD", L"1");
    const DWORD exitCode = RunProgram(L"\"" + ProgramDirectory() + L"SafetyTest.exe\" --gtest_filter=*.KilledChild");
    SetEnvironmentVariableW(L"SAFETY_CHILD", nullptr);
    EXPECT_EQ(9u, exitCode) << "the child failed or hung before it killed itself";
    ComPtr<IStorage> root;
    ASSERT_EQ(S_OK, Manager()->OpenStorage(child, &root));
    EXPECT_EQ(expected, Take(Store()));
    root.Reset();
    GiveUp();
    DeleteFileW(child);
}
