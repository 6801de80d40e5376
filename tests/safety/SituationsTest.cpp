// The ways the store could destroy data it did not mean to destroy, each a
// table: refused deletes, failed rewrites, lagging counters, unreadable
// files, damaged strings, exceptions in the middle and a killed frame.
#include <algorithm>
#include <functional>
#include "SafetySupport.h"

namespace
{
typedef std::vector<unsigned char> Data;
const DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

_bstr_t B(const wchar_t* text)
{
    return _bstr_t(text);
}

// Changes one stream of a file that nobody holds open: "admin", or "<instance>/<stream>".
void Rewrite(const std::wstring& file, const std::wstring& path, const std::function<void(Data&)>& change)
{
    Data bytes = ReadStreamBytes(file.c_str(), path.c_str());
    ASSERT_FALSE(bytes.empty()) << "no stream " << static_cast<const char*>(_bstr_t(path.c_str()));
    change(bytes);
    ComPtr<IStorage> root, child;
    ComPtr<IStream> stream;
    ASSERT_EQ(S_OK, StgOpenStorage(file.c_str(), nullptr, kMode, nullptr, 0, root.GetAddressOf()));
    const size_t slash = path.find(L'/');
    if (slash != std::wstring::npos)
    {
        ASSERT_EQ(S_OK, root->OpenStorage(path.substr(0, slash).c_str(), nullptr, kMode, nullptr, 0, child.GetAddressOf()));
    }
    IStorage* storage = child ? child.Get() : root.Get();
    const std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
    ASSERT_EQ(S_OK, storage->CreateStream(name.c_str(), kMode | STGM_CREATE, 0, 0, stream.GetAddressOf()));
    ASSERT_EQ(S_OK, stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr));
}

DWORD DwordAt(const Data& bytes, size_t at)
{
    DWORD value = 0;
    memcpy(&value, &bytes[at], sizeof value);
    return value;
}

// Names of the elements of the root, as a frame's file shows them.
std::set<std::wstring> RootNames(IStorage* root)
{
    std::set<std::wstring> names;
    ComPtr<IEnumSTATSTG> list;
    STATSTG item;
    if (SUCCEEDED(root->EnumElements(0, nullptr, 0, list.GetAddressOf())))
        while (list->Next(1, &item, nullptr) == S_OK)
            names.insert(item.pwcsName), CoTaskMemFree(item.pwcsName);
    return names;
}

// Every entry of expected reads the same in actual, except keys containing one of skip.
void ExpectSame(const Snapshot& expected, const Snapshot& actual, std::initializer_list<const char*> skip = {})
{
    for (const auto& entry : expected)
    {
        const auto skipped = [&](const char* part) { return entry.first.find(part) != std::string::npos; };
        if (std::none_of(skip.begin(), skip.end(), skipped))
        {
            EXPECT_EQ(entry.second, actual.count(entry.first) ? actual.at(entry.first) : "!missing") << entry.first;
        }
    }
}

// A copy of the model file per test, opened as a frame opens it.
class Situations : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        m_file = TestFilesDirectory() + L"safety-" + std::wstring(name.begin(), name.end()) + L".stg";
        ASSERT_TRUE(CopyFileW(ModelFile().c_str(), m_file.c_str(), FALSE));
        m_store = CreateStore();
        ASSERT_EQ(S_OK, m_store.As(&m_manager));
    }
    void TearDown() override
    {
        Close();
        for (const wchar_t* suffix : {L"", L".unreadable", L".unreadable.1"})
            DeleteFileW((m_file + suffix).c_str());
    }
    HRESULT Open() { return OpenIn(m_manager.Get(), m_file, m_root); }
    void Close()
    {
        m_root.Reset();
        GiveUp(m_manager.Get());
    }
    void Reopen()
    {
        ASSERT_EQ(S_OK, m_root->Commit(STGC_DEFAULT));
        ASSERT_EQ(S_OK, Open());
    }

public:
    IFbInstanceData* Store() { return m_store.Get(); }

protected:

    std::wstring m_file;
    ComPtr<IFbInstanceData> m_store;
    ComPtr<IInstanceDataMgr> m_manager;
    ComPtr<IStorage> m_root;
};
}  // namespace

// Delete removes instance storages only: the administration stream in any
// letter case and any other element are refused, and nothing changes.
TEST_F(Situations, DeleteRefusesWhatIsNoInstance)
{
    ASSERT_EQ(S_OK, Open());
    ComPtr<IStream> stream;
    ComPtr<IStorage> storage;
    ASSERT_EQ(S_OK, m_root->CreateStream(L"5", kMode, 0, 0, stream.GetAddressOf()));
    ASSERT_EQ(S_OK, m_root->CreateStorage(L"x", kMode, 0, 0, storage.GetAddressOf()));
    ASSERT_EQ(S_OK, m_root->CreateStorage(L"01", kMode, 0, 0, storage.ReleaseAndGetAddressOf()));
    stream.Reset(), storage.Reset();
    const Snapshot before = Take(Store());
    const std::set<std::wstring> names = RootNames(m_root.Get());
    for (const wchar_t* name : {L"ADMIN", L"Admin", L"admin", L"5", L"x", L"01", L"0", L"-1"})
    {
        TraceCapture trace;
        EXPECT_EQ(E_INVALIDARG, Store()->Delete(nullptr, B(name))) << static_cast<const char*>(_bstr_t(name));
        EXPECT_TRUE(trace.Contains("FbInstanceData::Delete " + std::string(_bstr_t(name)) + " is not an instance"))
            << trace.Text();
        EXPECT_EQ(names, RootNames(m_root.Get())) << static_cast<const char*>(_bstr_t(name));
    }
    Reopen();
    ExpectSame(before, Take(Store()));
}

// A writer that fails half way leaves the instance as it was, also once a
// later write of the same instance is committed.
TEST_F(Situations, FailedRewriteLeavesTheInstance)
{
    VARIANT null, array;
    V_VT(&null) = VT_NULL;
    V_VT(&array) = VT_ARRAY | VT_I4;
    V_ARRAY(&array) = SafeArrayCreateVector(VT_I4, 0, 2);
    const _variant_t nullValue(null), arrayValue(array, false);
    const std::function<HRESULT(IFbInstanceData*)> writers[] = {
        [&](IFbInstanceData* s) { return s->WriteParameterInfo(nullptr, B(L"1"), TestParameter::Make(L"str", nullValue).Get()); },
        [&](IFbInstanceData* s) { return s->WriteParameterInfo(nullptr, B(L"1"), TestParameter::Make(L"i4", arrayValue).Get()); },
        [&](IFbInstanceData* s) {
            return s->WriteParameterInfo(nullptr, B(L"1"), TestParameter::Make(L"r8", _variant_t(1.0), nullValue).Get());
        },
        [&](IFbInstanceData* s) { return s->WriteParameter(nullptr, B(L"1"), B(L"date"), nullValue); },
    };
    ASSERT_EQ(S_OK, Open());
    const Snapshot before = Take(Store());
    for (size_t i = 0; i < sizeof writers / sizeof writers[0]; ++i)
    {
        SCOPED_TRACE(i);
        EXPECT_TRUE(FAILED(writers[i](Store())));
        ASSERT_EQ(S_OK, Store()->WriteParameter(nullptr, B(L"1"), B(L"flag"), _variant_t(i % 2 == 0)));
        Reopen();
        ExpectSame(before, Take(Store()), {"flag", "1|list"});
    }
}

// Counters behind the names in use are skipped over, repaired and traced;
// nothing in use is taken again.
TEST_F(Situations, LaggingCountersAreRepaired)
{
    const struct
    {
        const wchar_t* stream;
        DWORD lagging, taken;
        std::function<HRESULT(IFbInstanceData*)> write;
        const char* message;
    } rows[] = {
        {L"admin", 1, 4,
         [](IFbInstanceData* s) {
             _bstr_t id;
             return s->Create(nullptr, ComPtr<TestDtmDescriptor>(new TestDtmDescriptor).Get(),
                              ComPtr<TestCommDescriptor>(new TestCommDescriptor).Get(), id.GetAddress());
         },
         "FbInstanceData::Create next instance number 1 is in use: 4 taken"},
        {L"1/map", 0, 9,
         [](IFbInstanceData* s) { return s->WriteParameterInfo(nullptr, B(L"1"), TestParameter::Make(L"new", _variant_t(1L)).Get()); },
         "FbInstanceData::AllocateStreamName next stream number 0 of instance 1 is in use: 9 taken"},
        {L"2/map", 1, 3,
         [](IFbInstanceData* s) {
             SAFEARRAY* members = MakeBstrArray({L"x"});
             const HRESULT hr = s->DefineGroup(nullptr, B(L"2"), B(L"gnew"), 1, &members);
             SafeArrayDestroy(members);
             return hr;
         },
         "FbInstanceData::AllocateStreamName next stream number 1 of instance 2 is in use: 3 taken"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(static_cast<const char*>(_bstr_t(row.stream)));
        Close();
        ASSERT_TRUE(CopyFileW(ModelFile().c_str(), m_file.c_str(), FALSE));
        Rewrite(m_file, row.stream, [&](Data& bytes) { memcpy(&bytes[4], &row.lagging, 4); });
        ASSERT_EQ(S_OK, Open());
        const Snapshot before = Take(Store());
        TraceCapture trace;
        ASSERT_EQ(S_OK, row.write(Store()));
        EXPECT_TRUE(trace.Contains(row.message)) << trace.Text();
        Reopen();
        ExpectSame(before, Take(Store()), {"instances", "params", "groups", "list"});   // the lists grow
        Close();
        EXPECT_EQ(row.taken + 1, DwordAt(ReadStreamBytes(m_file.c_str(), row.stream), 4));
    }
}

// A file that is no compound file is kept aside before a new store replaces
// it; an earlier kept file stays; a file that is held fails and stays as it is.
TEST_F(Situations, UnreadableFileIsKeptAside)
{
    const std::string noise = "not a store file";
    const struct
    {
        bool earlierKept, held;
        const wchar_t* keptAt;   // null: the open fails
    } rows[] = {{false, false, L".unreadable"}, {true, false, L".unreadable.1"}, {false, true, nullptr}};
    auto contentOf = [](const std::wstring& path) {
        HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        char buffer[64] = {};
        DWORD read = 0;
        ReadFile(file, buffer, sizeof buffer, &read, nullptr);
        CloseHandle(file);
        return file == INVALID_HANDLE_VALUE ? std::string("<none>") : std::string(buffer, read);
    };
    auto put = [](const std::wstring& path, const std::string& text) {
        HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        DWORD written = 0;
        WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        CloseHandle(file);
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.keptAt ? static_cast<const char*>(_bstr_t(row.keptAt)) : "held");
        Close();
        TearDown();
        put(m_file, noise);
        if (row.earlierKept)
            put(m_file + L".unreadable", "kept before");
        HANDLE holder = row.held ? CreateFileW(m_file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                                 : INVALID_HANDLE_VALUE;
        TraceCapture trace;
        const HRESULT hr = Open();
        if (holder != INVALID_HANDLE_VALUE)
            CloseHandle(holder);
        if (!row.keptAt)
        {
            EXPECT_TRUE(FAILED(hr));
            EXPECT_EQ(noise, contentOf(m_file));
            EXPECT_EQ("<none>", contentOf(m_file + L".unreadable"));
            continue;
        }
        ASSERT_EQ(S_OK, hr);
        EXPECT_EQ(noise, contentOf(m_file + row.keptAt));
        if (row.earlierKept)
        {
            EXPECT_EQ("kept before", contentOf(m_file + L".unreadable"));
        }
        EXPECT_TRUE(trace.Contains(std::string("is not a readable storage file: kept as ") + std::string(_bstr_t((m_file + row.keptAt).c_str()))))
            << trace.Text();
    }
}

// A stored string whose last unit is not 0, or whose count is odd, is
// refused before it is used: the read that needs it fails.
TEST_F(Situations, DamagedStringsAreRefused)
{
    const struct
    {
        const wchar_t* stream;   // where the string is
        const wchar_t* text;
        bool oddCount;           // else the last unit is not 0
        std::function<HRESULT(IFbInstanceData*)> read;
    } rows[] = {
        {L"1/1", L"text", false, [](IFbInstanceData* s) { _variant_t v; return s->ReadParameter(nullptr, B(L"1"), B(L"str"), &v); }},
        {L"1/1", L"text", true, [](IFbInstanceData* s) { _variant_t v; return s->ReadParameter(nullptr, B(L"1"), B(L"str"), &v); }},
        {L"1/7", L"str", false, [](IFbInstanceData* s) { SAFEARRAY* m = nullptr; return s->GetGroup(nullptr, B(L"1"), B(L"g1"), &m); }},
        {L"1/map", L"i4", true, [](IFbInstanceData* s) { SAFEARRAY* m = nullptr; return s->GetAllParameters(nullptr, B(L"1"), &m); }},
        {L"2/instance", L"1", false, [](IFbInstanceData* s) {
             ComPtr<IFdtInstanceDataRef> r;
             return s->GetSuperInstanceData(nullptr, B(L"2"), r.GetAddressOf());
         }},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(std::string(_bstr_t(row.stream)) + " " + std::string(_bstr_t(row.text)));
        Close();
        ASSERT_TRUE(CopyFileW(ModelFile().c_str(), m_file.c_str(), FALSE));
        ASSERT_EQ(S_OK, Open());
        ASSERT_EQ(S_OK, row.read(Store()));
        Close();
        Rewrite(m_file, row.stream, [&](Data& bytes) {
            const DWORD count = static_cast<DWORD>(wcslen(row.text) + 1) * 2;
            Data pattern(4 + count);
            memcpy(pattern.data(), &count, 4);
            memcpy(pattern.data() + 4, row.text, count);
            const auto at = std::search(bytes.begin(), bytes.end(), pattern.begin(), pattern.end());
            ASSERT_NE(bytes.end(), at);
            if (row.oddCount)
                at[0] = static_cast<unsigned char>(count - 1);
            else
                at[4 + count - 2] = 'Z';
        });
        ASSERT_EQ(S_OK, Open());
        EXPECT_TRUE(FAILED(row.read(Store())));
    }
}

namespace
{
// Allocations of the module fail on request: the k-th call of malloc (the
// C++ allocator's) or of the BSTR allocators from now on fails once. The
// module's import slots are bent to the counting functions.
struct FailingAllocation
{
    static LONG countdown;
    static void* (*realMalloc)(size_t);
    static BSTR(WINAPI* realAllocLen)(const OLECHAR*, UINT);
    static BSTR(WINAPI* realAlloc)(const OLECHAR*);
    static bool Fail() { return countdown > 0 && --countdown == 0; }
    static void* Malloc(size_t size) { return Fail() ? nullptr : realMalloc(size); }
    static BSTR WINAPI AllocLen(const OLECHAR* text, UINT length) { return Fail() ? nullptr : realAllocLen(text, length); }
    static BSTR WINAPI Alloc(const OLECHAR* text) { return Fail() ? nullptr : realAlloc(text); }

    template <class Function>
    static void Bend(const char* dll, const char* name, Function replacement, Function& real)
    {
        BYTE* base = reinterpret_cast<BYTE*>(ServerModule::Handle());
        auto nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
        auto import = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(
            base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
        for (; import->Name; ++import)
        {
            if (_stricmp(reinterpret_cast<char*>(base + import->Name), dll))
                continue;
            auto names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
            auto slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->FirstThunk);
            for (; names->u1.AddressOfData; ++names, ++slots)
                if (!IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal) &&
                    !strcmp(reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name, name))
                {
                    DWORD protection = 0;
                    VirtualProtect(&slots->u1.Function, sizeof(void*), PAGE_READWRITE, &protection);
                    if (!real)
                        real = reinterpret_cast<Function>(slots->u1.Function);
                    slots->u1.Function = reinterpret_cast<ULONG_PTR>(replacement);
                    VirtualProtect(&slots->u1.Function, sizeof(void*), protection, &protection);
                    return;
                }
        }
        ADD_FAILURE() << "the module imports no " << name;
    }
    FailingAllocation()
    {
        Bend("msvcrt.dll", "malloc", &Malloc, realMalloc);
        Bend("oleaut32.dll", "SysAllocStringLen", &AllocLen, realAllocLen);
        Bend("oleaut32.dll", "SysAllocString", &Alloc, realAlloc);
    }
    ~FailingAllocation()
    {
        countdown = 0;
        Bend("msvcrt.dll", "malloc", realMalloc, realMalloc);
        Bend("oleaut32.dll", "SysAllocStringLen", realAllocLen, realAllocLen);
        Bend("oleaut32.dll", "SysAllocString", realAlloc, realAlloc);
    }
};
LONG FailingAllocation::countdown = 0;
void* (*FailingAllocation::realMalloc)(size_t) = nullptr;
BSTR(WINAPI* FailingAllocation::realAllocLen)(const OLECHAR*, UINT) = nullptr;
BSTR(WINAPI* FailingAllocation::realAlloc)(const OLECHAR*) = nullptr;
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
        std::function<HRESULT(Situations&, _bstr_t&)> run;   // null: OpenStorage
    } rows[] = {
        {"OpenStorage", nullptr},
        {"Create", [](Situations& t, _bstr_t& id) {
             return t.Store()->Create(nullptr, ComPtr<TestDtmDescriptor>(new TestDtmDescriptor).Get(),
                                      ComPtr<TestCommDescriptor>(new TestCommDescriptor).Get(), id.GetAddress());
         }},
        {"Duplicate", [](Situations& t, _bstr_t& id) { return t.Store()->Duplicate(nullptr, B(L"1"), id.GetAddress()); }},
        {"WriteParameterInfo", [](Situations& t, _bstr_t&) {
             return t.Store()->WriteParameterInfo(nullptr, B(L"1"), TestParameter::Make(L"new", _variant_t(L"n")).Get());
         }},
        {"DefineGroup", [](Situations& t, _bstr_t&) {
             SAFEARRAY* members = MakeBstrArray({L"i4"});
             const HRESULT hr = t.Store()->DefineGroup(nullptr, B(L"1"), B(L"gnew"), 1, &members);
             SafeArrayDestroy(members);
             return hr;
         }},
    };
    ASSERT_EQ(S_OK, Open());
    const Snapshot model = Take(Store());
    const std::set<std::wstring> names = RootNames(m_root.Get());
    for (const auto& row : rows)
    {
        bool reached = true;
        for (LONG k = 1; reached && k < 1000; ++k)
        {
            SCOPED_TRACE(std::string(row.name) + ", allocation " + std::to_string(k));
            Close();
            ASSERT_TRUE(CopyFileW(ModelFile().c_str(), m_file.c_str(), FALSE));
            if (row.run)
            {
                ASSERT_EQ(S_OK, Open());
                Take(Store());   // the instance storage and its map are cached, as in a session
            }
            ComPtr<IStorage> root;
            _bstr_t id;
            HRESULT hr;
            {
                FailingAllocation failing;
                FailingAllocation::countdown = k;
                hr = row.run ? row.run(*this, id) : m_manager->OpenStorage(B(m_file.c_str()), root.GetAddressOf());
                reached = FailingAllocation::countdown == 0;
            }
            EXPECT_TRUE(KnownResult(hr)) << Hex(hr);
            if (SUCCEEDED(hr))
                continue;
            if (row.run)
            {
                _variant_t value;
                EXPECT_TRUE(FAILED(Store()->ReadParameter(nullptr, B(L"77"), B(L"i4"), &value)));
                EXPECT_EQ(names, RootNames(m_root.Get()));
                ExpectSame(model, Take(Store()));
                continue;
            }
            ComPtr<IStorage> held;
            EXPECT_TRUE(FAILED(m_manager->GetStorage(held.GetAddressOf())));
            ComPtr<IStorage> free;
            EXPECT_EQ(S_OK, StgOpenStorage(m_file.c_str(), nullptr, kMode, nullptr, 0, free.GetAddressOf()));
            free.Reset();
            ASSERT_EQ(S_OK, m_manager->OpenStorage(B(m_file.c_str()), m_root.GetAddressOf()));
            ExpectSame(model, Take(Store()));
        }
        EXPECT_FALSE(reached) << row.name << ": every allocation failed once and it still did not succeed";
    }
}

// A frame killed in the middle of a session leaves its file as it last
// committed it. The child is this program, run with SAFETY_CHILD_FILE.
namespace
{
void CommittedPart(IFbInstanceData* store)
{
    _bstr_t id;
    ASSERT_EQ(S_OK, store->Create(nullptr, ComPtr<TestDtmDescriptor>(new TestDtmDescriptor).Get(),
                                  ComPtr<TestCommDescriptor>(new TestCommDescriptor).Get(), id.GetAddress()));
    ASSERT_EQ(S_OK, store->WriteParameter(nullptr, B(L"1"), B(L"i4"), _variant_t(99L)));
    ASSERT_EQ(S_OK, store->WriteParameterInfo(nullptr, id, TestParameter::Make(L"p", _variant_t(L"kept")).Get()));
}

void UncommittedPart(IFbInstanceData* store)
{
    _bstr_t id;
    ASSERT_EQ(S_OK, store->Create(nullptr, ComPtr<TestDtmDescriptor>(new TestDtmDescriptor).Get(),
                                  ComPtr<TestCommDescriptor>(new TestCommDescriptor).Get(), id.GetAddress()));
    ASSERT_EQ(S_OK, store->WriteParameter(nullptr, B(L"1"), B(L"str"), _variant_t(L"lost")));
    ASSERT_EQ(S_OK, store->DeleteParameter(nullptr, B(L"1"), B(L"r8")));
    ASSERT_EQ(S_OK, store->Delete(nullptr, B(L"2")));
}
}  // namespace

TEST(KilledFrame, Child)
{
    wchar_t file[MAX_PATH], event[64];
    if (!GetEnvironmentVariableW(L"SAFETY_CHILD_FILE", file, MAX_PATH) ||
        !GetEnvironmentVariableW(L"SAFETY_CHILD_EVENT", event, 64))
        return;   // only as the child of FileIsAsLastCommitted
    OpenStore open = OpenStore::At(_bstr_t(file));
    CommittedPart(open.store.Get());
    open.Commit();
    UncommittedPart(open.store.Get());
    SetEvent(OpenEventW(EVENT_MODIFY_STATE, FALSE, event));
    Sleep(INFINITE);
}

TEST_F(Situations, FileIsAsLastCommitted)
{
    ASSERT_EQ(S_OK, Open());
    CommittedPart(Store());
    Reopen();
    const Snapshot expected = Take(Store());
    Close();
    ASSERT_TRUE(CopyFileW(ModelFile().c_str(), m_file.c_str(), FALSE));

    const std::wstring event = L"SafetyChildReady" + std::to_wstring(GetCurrentProcessId());
    HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, event.c_str());
    SetEnvironmentVariableW(L"SAFETY_CHILD_FILE", m_file.c_str());
    SetEnvironmentVariableW(L"SAFETY_CHILD_EVENT", event.c_str());
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(program) + L"\" --gtest_filter=KilledFrame.Child";
    STARTUPINFOW startup = {sizeof startup};
    PROCESS_INFORMATION child = {};
    ASSERT_TRUE(CreateProcessW(program, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child));
    SetEnvironmentVariableW(L"SAFETY_CHILD_FILE", nullptr);
    SetEnvironmentVariableW(L"SAFETY_CHILD_EVENT", nullptr);
    HANDLE both[2] = {ready, child.hProcess};
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, both, FALSE, 120000)) << "the child did not get ready";
    TerminateProcess(child.hProcess, 9);
    WaitForSingleObject(child.hProcess, INFINITE);
    CloseHandle(child.hProcess), CloseHandle(child.hThread), CloseHandle(ready);

    ASSERT_EQ(S_OK, Open());
    const Snapshot after = Take(Store());
    EXPECT_EQ(expected, after);
}
