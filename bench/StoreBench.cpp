// Measures the store's cost per operation as a ratio to the raw storage calls
// that the operation cannot avoid, and the process's memory.
//   StoreBench [instances] [parameters]
#include <windows.h>
#include <ole2.h>
#include <psapi.h>
#include <comutil.h>
#include <wrl/client.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
#include "FdtInterfaces.h"
#include "InstanceDataLib.h"
#include "demo/FrameObjects.h"

using Microsoft::WRL::ComPtr;

namespace
{
double Now()
{
    static LARGE_INTEGER frequency = [] { LARGE_INTEGER f; QueryPerformanceFrequency(&f); return f; }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / frequency.QuadPart;
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

size_t PeakMemory()
{
    PROCESS_MEMORY_COUNTERS counters = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return counters.PeakWorkingSetSize;
}

// The raw calls one parameter write needs: open the stream in the instance
// sub-storage, rewrite it, commit the sub-storage. With reopen the
// sub-storage (transacted) is opened for every write, as an alternation
// between two instances forces it; otherwise once, as the store's cache keeps it.
double RawWrite(IStorage* root, const wchar_t* instance, const wchar_t* stream, int rounds, bool reopen)
{
    ComPtr<IStorage> storage;
    const double start = Now();
    for (int i = 0; i < rounds; ++i)
    {
        if (reopen || !storage)
        {
            storage.Reset();
            root->OpenStorage(instance, nullptr, STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                              storage.GetAddressOf());
        }
        ComPtr<IStream> data;
        if (!storage)
            return -1;
        storage->OpenStream(stream, nullptr, STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, data.GetAddressOf());
        if (!data)
            return -1;
        ULARGE_INTEGER zero = {};
        data->SetSize(zero);
        const unsigned char record[64] = {1};
        data->Write(record, sizeof record, nullptr);
        storage->Commit(STGC_DEFAULT);
    }
    return (Now() - start) / rounds;
}
}  // namespace

int main(int argc, char** argv)
{
    const int instances = argc > 1 ? atoi(argv[1]) : 20;
    const int parameters = argc > 2 ? atoi(argv[2]) : 10;
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const std::wstring directory = Directory();
    Register(directory + L"FdtInterfaces.tlb");
    Register(directory + L"InstanceData.tlb");

    HMODULE module = LoadLibraryW((directory + L"InstanceData.dll").c_str());
    auto getClassObject = reinterpret_cast<HRESULT(WINAPI*)(REFCLSID, REFIID, void**)>(
        GetProcAddress(module, "DllGetClassObject"));
    ComPtr<IClassFactory> factory;
    ComPtr<IFbInstanceData> store;
    ComPtr<IInstanceDataMgr> manager;
    if (!getClassObject || FAILED(getClassObject(CLSID_FbInstanceData, IID_IClassFactory, &factory)) ||
        FAILED(factory->CreateInstance(nullptr, IID_IFbInstanceData, &store)) || FAILED(store.As(&manager)))
    {
        fprintf(stderr, "cannot create the store\n");
        return 1;
    }
    const std::wstring file = directory + L"bench.stg";
    DeleteFileW(file.c_str());
    ComPtr<IStorage> root;
    if (FAILED(manager->OpenStorage(_bstr_t(file.c_str()), &root)))
        return 1;

    // Descriptors of the frame's own, as a frame passes them.
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    dtm.Attach(new frame::DtmDescriptor(1, 0, L"Bench device", L"Bench node"));
    comm.Attach(new frame::CommunicationDescriptor(1, L"Bench"));

    std::vector<_bstr_t> ids;
    double start = Now();
    for (int i = 0; i < instances; ++i)
    {
        _bstr_t id;
        if (FAILED(store->Create(nullptr, dtm.Get(), comm.Get(), id.GetAddress())))
            break;
        ids.push_back(id);
    }
    const double createTime = (Now() - start) / (ids.empty() ? 1 : ids.size());

    printf("instances %d, parameters per instance %d\n", instances, parameters);
    printf("Create                      %8.3f ms per instance\n", createTime * 1000);
    if (ids.empty())
    {
        printf("(Create failed: nothing more to measure)\n");
        return 1;
    }

    // Parameters are defined with a frame's own description objects, then
    // written with new values (each write rewrites the record and commits
    // the instance storage) and read back.
    start = Now();
    for (const _bstr_t& id : ids)
        for (int p = 0; p < parameters; ++p)
        {
            wchar_t name[32];
            swprintf(name, 32, L"P%d", p);
            ComPtr<IFdtParameter> description;
            description.Attach(new frame::ParameterDescription(name, _variant_t(0L), _variant_t(0L), VT_I4));
            store->WriteParameterInfo(nullptr, id, description.Get());
        }
    const double defineTime = (Now() - start) / (ids.size() * parameters);
    printf("WriteParameterInfo (define) %8.3f ms per parameter\n", defineTime * 1000);

    int written = 0;
    start = Now();
    for (const _bstr_t& id : ids)
        for (int p = 0; p < parameters; ++p)
        {
            wchar_t name[32];
            swprintf(name, 32, L"P%d", p);
            if (SUCCEEDED(store->WriteParameter(nullptr, id, _bstr_t(name), _variant_t(static_cast<long>(p + 1)))))
                ++written;
        }
    const double writeTime = written ? (Now() - start) / written : 0;

    start = Now();
    int read = 0;
    for (const _bstr_t& id : ids)
        for (int p = 0; p < parameters; ++p)
        {
            wchar_t name[32];
            swprintf(name, 32, L"P%d", p);
            _variant_t value;
            if (SUCCEEDED(store->ReadParameter(nullptr, id, _bstr_t(name), value.GetAddress())))
                ++read;
        }
    const double readTime = read ? (Now() - start) / read : 0;

    // Raw reference on a scratch instance, so that the store's cache keeps its own.
    _bstr_t scratch;
    store->Create(nullptr, dtm.Get(), comm.Get(), scratch.GetAddress());
    store->LockInstance(nullptr, ids.front());   // moves the store's cache off the scratch instance
    const double raw = RawWrite(root.Get(), scratch, L"map", 50, false);
    const double rawReopen = RawWrite(root.Get(), scratch, L"map", 20, true);
    printf("raw write+commit            %8.3f ms per write (sub-storage open: %.3f ms more)\n", raw * 1000,
           (rawReopen - raw) * 1000);
    if (written)
        printf("WriteParameter              %8.3f ms per write (%.2f x raw; the writes go instance by instance,\n"
               "                            so the store's cache keeps each sub-storage open)\n",
               writeTime * 1000, writeTime / raw);
    else
        printf("WriteParameter              not measured (no parameter defined)\n");
    if (read)
        printf("ReadParameter               %8.3f ms per read\n", readTime * 1000);

    start = Now();
    SAFEARRAY* list = nullptr;
    const int listRounds = 20;
    for (int i = 0; i < listRounds; ++i)
    {
        if (list)
            SafeArrayDestroy(list);
        list = nullptr;
        store->GetInstanceDataList(nullptr, &list);
    }
    if (list)
        SafeArrayDestroy(list);
    printf("GetInstanceDataList         %8.3f ms per call\n", (Now() - start) / listRounds * 1000);

    start = Now();
    root->Commit(STGC_DEFAULT);
    printf("root commit                 %8.3f ms\n", (Now() - start) * 1000);
    printf("peak working set            %8.1f MiB\n", PeakMemory() / 1048576.0);
    root.Reset();
    manager.Reset();
    store.Reset();
    factory.Reset();
    CoUninitialize();
    return 0;
}
