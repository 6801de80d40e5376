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

// The raw calls one parameter write needs: open the instance sub-storage
// (transacted), open its stream, rewrite it, commit the sub-storage.
double RawWrite(IStorage* root, const wchar_t* instance, const wchar_t* stream, int rounds)
{
    const double start = Now();
    for (int i = 0; i < rounds; ++i)
    {
        ComPtr<IStorage> storage;
        ComPtr<IStream> data;
        root->OpenStorage(instance, nullptr, STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                          storage.GetAddressOf());
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

    // Descriptors as the store hands them out for an identifier without instance.
    ComPtr<IFdtDescriptor> descriptor;
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    if (FAILED(store->ReadIdentification(nullptr, _bstr_t(L"none"), &descriptor)) ||
        FAILED(descriptor->get_m_dtm(&dtm)) || FAILED(descriptor->get_m_communication(&comm)))
    {
        fprintf(stderr, "cannot read descriptors\n");
        return 1;
    }

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

    // Defining parameters goes through WriteParameterInfo with a frame's own object;
    // the figures below need it, and say so when it is not there.
    start = Now();
    int written = 0;
    for (const _bstr_t& id : ids)
        for (int p = 0; p < parameters; ++p)
        {
            wchar_t name[32];
            swprintf(name, 32, L"P%d", p);
            _variant_t value(static_cast<long>(p));
            // WriteParameter needs the parameter defined; count successes only.
            if (SUCCEEDED(store->WriteParameter(nullptr, id, _bstr_t(name), value)))
                ++written;
        }
    const double writeTime = written ? (Now() - start) / written : 0;

    // Raw reference: the same number of transacted sub-storage round trips.
    const double raw = RawWrite(root.Get(), static_cast<const wchar_t*>(ids.front()), L"map", 50);
    printf("raw sub-storage write+commit %8.3f ms per write\n", raw * 1000);
    if (written)
        printf("WriteParameter              %8.3f ms per write (%.2f x raw)\n", writeTime * 1000, writeTime / raw);
    else
        printf("WriteParameter              not measured (no parameter defined)\n");

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
