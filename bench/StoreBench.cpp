// Measures each store operation against the fewest raw storage calls that
// the same work needs, side by side in one run, for 10, 100 and 1000
// parameters per instance (or the counts given), and prints the ratios.
//   StoreBench [parameters...]
#include <windows.h>
#include <ole2.h>
#include <psapi.h>
#include <comutil.h>
#include <wrl/client.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>
#include "FdtInterfaces.h"
#include "InstanceDataLib.h"
#include "demo/FrameObjects.h"

using Microsoft::WRL::ComPtr;

namespace
{
const DWORD kStreamMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const DWORD kStorageMode = STGM_TRANSACTED | kStreamMode;

double Now()
{
    static LARGE_INTEGER frequency = [] { LARGE_INTEGER f; QueryPerformanceFrequency(&f); return f; }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / frequency.QuadPart;
}

// Seconds per call of work, the best of three runs of rounds calls each.
double Time(int rounds, const std::function<void(int)>& work)
{
    double best = 1e9;
    for (int run = 0; run < 3; ++run)
    {
        const double start = Now();
        for (int i = 0; i < rounds; ++i)
            work(run * rounds + i);
        best = std::min(best, (Now() - start) / rounds);
    }
    return best;
}

std::wstring Directory()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path, length);
    return directory.substr(0, directory.find_last_of(L"\\/") + 1);
}

void Register(const std::wstring& file)
{
    ITypeLib* library = nullptr;
    if (SUCCEEDED(LoadTypeLibEx(file.c_str(), REGKIND_REGISTER, &library)))
        library->Release();
}

_bstr_t Name(int p)
{
    wchar_t name[32];
    swprintf(name, 32, L"P%d", p);
    return name;
}

std::wstring Number(unsigned n)
{
    return std::to_wstring(n);
}

SAFEARRAY* Strings(int count)
{
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, count);
    for (LONG i = 0; i < count; ++i)
        SafeArrayPutElement(array, &i, static_cast<BSTR>(Name(i)));
    return array;
}

SAFEARRAY* Values(int count, long value)
{
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, count);
    for (LONG i = 0; i < count; ++i)
    {
        _variant_t v(value + i);
        SafeArrayPutElement(array, &i, &v);
    }
    return array;
}

// ------------------------------------------------------------ raw calls

// One record stream: open, read whole; written back: seek, write; commit.
struct Raw
{
    IStorage* storage;
    BYTE buffer[4096];

    ULONG Read(const wchar_t* name, ComPtr<IStream>& stream)
    {
        ULONG read = 0;
        storage->OpenStream(name, nullptr, kStreamMode, 0, stream.ReleaseAndGetAddressOf());
        if (stream)
            stream->Read(buffer, sizeof buffer, &read);
        return read;
    }
    void ReadOnly(const wchar_t* name)
    {
        ComPtr<IStream> stream;
        Read(name, stream);
    }
    void Rewrite(const wchar_t* name)
    {
        ComPtr<IStream> stream;
        const ULONG size = Read(name, stream);
        if (!stream)
            return;
        LARGE_INTEGER zero = {};
        stream->Seek(zero, STREAM_SEEK_SET, nullptr);
        stream->Write(buffer, size, nullptr);
        storage->Commit(STGC_DEFAULT);
    }
};

void RawWriteNew(IStorage* storage, const wchar_t* name, ULONG size)
{
    static const BYTE record[256] = {1};
    ComPtr<IStream> stream;
    storage->CreateStream(name, kStreamMode | STGM_CREATE, 0, 0, stream.GetAddressOf());
    if (stream)
        stream->Write(record, size, nullptr);
}

struct Row
{
    const char* operation;
    const char* raw;
    double store = 0;
    double baseline = 0;
    std::vector<double> turns;   // reads: the ratio with the store on its own instance, then on the twin
};

void Print(int parameters, const std::vector<Row>& rows)
{
    printf("\n%d parameters per instance\n", parameters);
    printf("%-30s %10s %10s %7s  %s\n", "operation", "store ms", "raw ms", "ratio", "fewest raw calls");
    for (const Row& row : rows)
        printf("%-30s %10.3f %10.3f %6.2fx  %s\n", row.operation, row.store * 1000, row.baseline * 1000,
               row.baseline > 0 ? row.store / row.baseline : 0.0, row.raw);
    for (const Row& row : rows)
        if (row.turns.size() == 2)
            printf("%-30s store on its own instance %.2fx, on the twin %.2fx\n", row.operation, row.turns[0],
                   row.turns[1]);
}

// Runs every measurement on a new store file holding one instance of
// parameters parameters and one group of all of them.
bool Measure(IFbInstanceData* store, IInstanceDataMgr* manager, const std::wstring& file, int parameters)
{
    DeleteFileW(file.c_str());
    ComPtr<IStorage> root;
    if (FAILED(manager->OpenStorage(_bstr_t(file.c_str()), root.GetAddressOf())))
        return false;
    ComPtr<IFdtDtmDescriptor> dtm = new frame::DtmDescriptor(1, 0, L"Bench device", L"Bench node");
    ComPtr<IFdtCommunicationDescriptor> comm = new frame::CommunicationDescriptor(1, L"Bench");
    std::vector<Row> rows;
    const int rounds = parameters >= 1000 ? 3 : 10;
    const int many = 300;   // rounds of the calls that cost a few microseconds
    // Reads change nothing, so they can run long enough to measure steadily:
    // about 3000 stream reads a run whatever N is.
    const int reads = parameters >= 1000 ? 3 : 3000 / parameters;

    // Create, against: read and write the administration record, make the
    // storage and its four streams, commit it.
    unsigned rawNumber = 100000;
    Row create{"Create", "admin read+write, storage, 4 new streams, commit"};
    create.store = Time(rounds, [&](int) {
        _bstr_t id;
        store->Create(nullptr, dtm.Get(), comm.Get(), id.GetAddress());
    });
    create.baseline = Time(rounds, [&](int) {
        Raw admin{root.Get()};
        ComPtr<IStream> stream;
        const ULONG size = admin.Read(L"admin", stream);
        ComPtr<IStorage> storage;
        root->CreateStorage(Number(rawNumber++).c_str(), kStorageMode | STGM_FAILIFTHERE, 0, 0, storage.GetAddressOf());
        if (!storage || !stream)
            return;
        for (const wchar_t* name : {L"instance", L"map", L"dtm", L"comm"})
            RawWriteNew(storage.Get(), name, 40);
        storage->Commit(STGC_DEFAULT);
        LARGE_INTEGER zero = {};
        stream->Seek(zero, STREAM_SEEK_SET, nullptr);
        stream->Write(admin.buffer, size, nullptr);
    });
    rows.push_back(create);

    // The measured instance, its twin for the raw calls (the store keeps its
    // own open, the twin is opened here beside it), and a scratch instance
    // for the raw definitions.
    _bstr_t id, twin, scratch;
    store->Create(nullptr, dtm.Get(), comm.Get(), id.GetAddress());
    store->Create(nullptr, dtm.Get(), comm.Get(), twin.GetAddress());
    store->Create(nullptr, dtm.Get(), comm.Get(), scratch.GetAddress());
    // The caller's arguments are made before the clock starts, as the raw
    // calls' stream names are: only the store's own work is measured.
    std::vector<_bstr_t> names;
    std::vector<ComPtr<IFdtParameter>> descriptions(parameters);
    for (int p = 0; p < parameters; ++p)
    {
        names.push_back(Name(p));
        descriptions[p] = new frame::ParameterDescription(names[p], _variant_t(0L), _variant_t(0L), VT_I4);
    }
    const _bstr_t group(L"G");
    int defined = 0;
    const auto defineAll = [&](const _bstr_t& instance) {
        for (const ComPtr<IFdtParameter>& description : descriptions)
            defined += SUCCEEDED(store->WriteParameterInfo(nullptr, instance, description.Get()));
    };
    Row define{"WriteParameterInfo (new)", "new stream+write, map open+write, commit"};
    // Both sides start with the instance storage open: the store holds it
    // once it has looked at the instance, the raw calls open it beforehand.
    SAFEARRAY* none = nullptr;
    store->GetAllParameters(nullptr, id, &none);
    SafeArrayDestroy(none);
    double start = Now();
    defineAll(id);
    define.store = (Now() - start) / parameters;
    defineAll(twin);
    SAFEARRAY* all = Strings(parameters);
    store->DefineGroup(nullptr, id, group, 1, &all);
    store->DefineGroup(nullptr, twin, group, 1, &all);
    store->LockInstance(nullptr, id);   // the store's cache holds the measured instance
    ComPtr<IStorage> twinStorage, scratchStorage;
    if (FAILED(root->OpenStorage(twin, nullptr, kStorageMode, nullptr, 0, twinStorage.GetAddressOf())) ||
        FAILED(root->OpenStorage(scratch, nullptr, kStorageMode, nullptr, 0, scratchStorage.GetAddressOf())))
        return false;
    Raw raw{twinStorage.Get()};
    start = Now();
    for (int p = 0; p < parameters; ++p)
    {
        RawWriteNew(scratchStorage.Get(), Number(p).c_str(), 60);
        ComPtr<IStream> map;
        scratchStorage->OpenStream(L"map", nullptr, kStreamMode, 0, map.GetAddressOf());
        if (map)
            map->Write(raw.buffer, 20 + 16 * p < 4096 ? 20 + 16 * p : 4096, nullptr);
        scratchStorage->Commit(STGC_DEFAULT);
    }
    define.baseline = (Now() - start) / parameters;
    rows.push_back(define);

    std::vector<std::wstring> streams;
    for (int p = 0; p < parameters; ++p)
        streams.push_back(Number(p));
    Row write{"WriteParameter (new value)", "stream open+read, seek+write, commit"};
    write.store = Time(rounds * 10, [&](int i) {
        VARIANT value;
        V_VT(&value) = VT_I4;
        V_I4(&value) = i + 1;
        store->WriteParameter(nullptr, id, names[i % parameters], value);
    });
    write.baseline = Time(rounds * 10, [&](int i) { raw.Rewrite(streams[i % parameters].c_str()); });
    rows.push_back(write);

    Row writeList{"WriteList (all, new values)", "N x (open+read, seek+write, commit)"};
    writeList.store = Time(rounds, [&](int i) {
        SAFEARRAY* values = Values(parameters, 1000 * (i + 1));
        store->WriteList(nullptr, id, &all, &values);
        SafeArrayDestroy(values);
    });
    writeList.baseline = Time(rounds, [&](int) {
        for (const std::wstring& name : streams)
            raw.Rewrite(name.c_str());
    });
    rows.push_back(writeList);

    // Where an instance's streams lie in the file changes what reading them
    // costs by up to a fifth, whoever reads them: each read is timed twice,
    // the store on one instance while the raw calls read the other, then the
    // other way round, and each side gets its mean.
    _bstr_t readInstance = id;
    ComPtr<IStorage> rawInstance = twinStorage;
    const auto swapInstances = [&] {
        raw.storage = nullptr;
        twinStorage.Reset();
        rawInstance.Reset();
        const _bstr_t other = readInstance == id ? twin : id;
        _variant_t value;   // the store lets go of the instance it held
        store->ReadParameter(nullptr, other, names[0], value.GetAddress());
        if (FAILED(root->OpenStorage(readInstance, nullptr, kStorageMode, nullptr, 0, rawInstance.GetAddressOf())))
            return false;
        raw.storage = rawInstance.Get();
        readInstance = other;
        return true;
    };
    const auto timeReads = [&](Row& row, int count, const std::function<void(int)>& storeWork,
                               const std::function<void(int)>& rawWork) {
        const double store = Time(count, storeWork), baseline = Time(count, rawWork);
        row.store += store / 2;
        row.baseline += baseline / 2;
        row.turns.push_back(baseline > 0 ? store / baseline : 0.0);
    };
    const std::wstring groupStream = Number(parameters);
    Row read{"ReadParameter", "stream open+read"};
    Row readList{"ReadList (all)", "N x stream open+read"};
    Row readGroup{"ReadGroup (all)", "group open+read, N x stream open+read"};
    for (int turn = 0; turn < 2; ++turn)
    {
        if (turn && !swapInstances())
            return false;
        timeReads(
            read, many,
            [&](int i) {
                _variant_t value;
                store->ReadParameter(nullptr, readInstance, names[i % parameters], value.GetAddress());
            },
            [&](int i) { raw.ReadOnly(streams[i % parameters].c_str()); });
        timeReads(
            readList, reads,
            [&](int) {
                SAFEARRAY* values = nullptr;
                store->ReadList(nullptr, readInstance, &all, &values);
                if (values)
                    SafeArrayDestroy(values);
            },
            [&](int) {
                for (const std::wstring& name : streams)
                    raw.ReadOnly(name.c_str());
            });
        timeReads(
            readGroup, reads,
            [&](int) {
                SAFEARRAY* values = nullptr;
                store->ReadGroup(nullptr, readInstance, group, &values);
                if (values)
                    SafeArrayDestroy(values);
            },
            [&](int) {
                raw.ReadOnly(groupStream.c_str());
                for (const std::wstring& name : streams)
                    raw.ReadOnly(name.c_str());
            });
    }
    rows.push_back(read);
    rows.push_back(readList);
    rows.push_back(readGroup);

    Row list{"GetInstanceDataList", "one enumeration of the root"};
    list.store = Time(many, [&](int) {
        SAFEARRAY* ids = nullptr;
        store->GetInstanceDataList(nullptr, &ids);
        if (ids)
            SafeArrayDestroy(ids);
    });
    list.baseline = Time(many, [&](int) {
        ComPtr<IEnumSTATSTG> elements;
        root->EnumElements(0, nullptr, 0, elements.GetAddressOf());
        STATSTG batch[64];
        ULONG fetched = 0;
        while (elements && SUCCEEDED(elements->Next(64, batch, &fetched)) && fetched)
            for (ULONG k = 0; k < fetched; ++k)
                CoTaskMemFree(batch[k].pwcsName);
    });
    rows.push_back(list);

    SafeArrayDestroy(all);
    if (defined != parameters * 2)
        printf("(only %d of %d parameter definitions succeeded)\n", defined, parameters * 2);
    Print(parameters, rows);
    return true;
}
}  // namespace

int main(int argc, char** argv)
{
    std::vector<int> counts;
    for (int i = 1; i < argc; ++i)
        counts.push_back(atoi(argv[i]));
    if (counts.empty())
        counts = {10, 100, 1000};
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const std::wstring directory = Directory();
    Register(directory + L"FdtInterfaces.tlb");
    Register(directory + L"InstanceData.tlb");

    HMODULE module = LoadLibraryW((directory + L"InstanceData.dll").c_str());
    auto getClassObject = reinterpret_cast<HRESULT(WINAPI*)(REFCLSID, REFIID, void**)>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
    ComPtr<IClassFactory> factory;
    ComPtr<IFbInstanceData> store;
    ComPtr<IInstanceDataMgr> manager;
    if (!getClassObject || FAILED(getClassObject(CLSID_FbInstanceData, IID_IClassFactory, &factory)) ||
        FAILED(factory->CreateInstance(nullptr, IID_IFbInstanceData, &store)) || FAILED(store.As(&manager)))
    {
        fprintf(stderr, "cannot create the store\n");
        return 1;
    }
    printf("Store operations against the fewest raw storage calls for the same work (best of 3 runs).\n");
    for (int parameters : counts)
        if (!Measure(store.Get(), manager.Get(), directory + L"bench-" + std::to_wstring(parameters) + L".stg",
                     parameters))
            fprintf(stderr, "cannot measure %d parameters\n", parameters);
    PROCESS_MEMORY_COUNTERS counters = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    printf("\npeak working set %.1f MiB\n", counters.PeakWorkingSetSize / 1048576.0);
    manager.Reset();
    store.Reset();
    factory.Reset();
    CoUninitialize();
    return 0;
}
