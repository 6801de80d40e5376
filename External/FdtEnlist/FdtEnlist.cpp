// FdtEnlist.exe: the FDT module registration server program.
//
//     FdtEnlist /i /{class id} [/s] [/u]
//
// /i enlists an instance data module, /d a DTM, /c a communication module;
// /u takes the module out of the list again; /s works silently. The module
// must be registered as a class first. An instance data module is created
// and describes itself by its Register operation, through the registration
// component. Exit code 0: done; 1: bad command line; 2: not done.
//
// For tests, from the environment only:
//     FDTENLIST_LOG        file that receives "pid <n>" and "args <command line>"
//     FDTENLIST_DELAY_MS   sleeps this long before anything else
//     FDTENLIST_EXIT_CODE  ends with this exit code without doing anything
#include <windows.h>
#include <ole2.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include "FdtInterfaces.h"
#include "FdtModuleList.h"

namespace
{
enum ExitCode
{
    kDone = 0,
    kBadCommandLine = 1,
    kNotDone = 2,
};

struct Request
{
    const wchar_t* kind = nullptr;
    CLSID clsid = {};
    bool silent = false;
    bool unregister = false;
};

bool Environment(const char* name, std::string& value)
{
    char buffer[MAX_PATH];
    const DWORD length = GetEnvironmentVariableA(name, buffer, sizeof buffer);
    if (length == 0 || length >= sizeof buffer)
        return false;
    value.assign(buffer, length);
    return true;
}

void ApplyTestHooks()
{
    std::string value;
    if (Environment("FDTENLIST_LOG", value))
    {
        if (FILE* log = fopen(value.c_str(), "a"))
        {
            fprintf(log, "pid %lu\nargs %s\n", GetCurrentProcessId(), GetCommandLineA());
            fclose(log);
        }
    }
    if (Environment("FDTENLIST_DELAY_MS", value))
        Sleep(strtoul(value.c_str(), nullptr, 10));
    if (Environment("FDTENLIST_EXIT_CODE", value))
        ExitProcess(strtoul(value.c_str(), nullptr, 10));
}

bool Parse(int argc, char** argv, Request& request)
{
    bool haveClass = false;
    for (int i = 1; i < argc; ++i)
    {
        const char* arg = argv[i];
        if (!lstrcmpiA(arg, "/i"))
            request.kind = L"instance data";
        else if (!lstrcmpiA(arg, "/d"))
            request.kind = L"dtm";
        else if (!lstrcmpiA(arg, "/c"))
            request.kind = L"communication";
        else if (!lstrcmpiA(arg, "/s"))
            request.silent = true;
        else if (!lstrcmpiA(arg, "/u"))
            request.unregister = true;
        else if (arg[0] == '/' && arg[1] == '{')
        {
            wchar_t text[64];
            haveClass = MultiByteToWideChar(CP_ACP, 0, arg + 1, -1, text, 64) &&
                        SUCCEEDED(CLSIDFromString(text, &request.clsid));
            if (!haveClass)
                return false;
        }
        else
            return false;
    }
    return request.kind && haveClass;
}

// The module file of a registered class.
bool InprocServerPath(const std::wstring& classId, std::wstring& path)
{
    wchar_t buffer[MAX_PATH];
    LONG size = sizeof buffer;
    if (RegQueryValueW(HKEY_CLASSES_ROOT, (L"CLSID\\" + classId + L"\\InprocServer32").c_str(), buffer, &size) !=
        ERROR_SUCCESS)
        return false;
    path = buffer;
    return true;
}

// An instance data module registers itself through the registration component.
HRESULT RegisterInstanceDataModule(REFCLSID clsid)
{
    IFbInstanceData* module = nullptr;
    HRESULT hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IFbInstanceData,
                                  reinterpret_cast<void**>(&module));
    if (FAILED(hr))
        return hr;
    hr = module->Register();
    module->Release();
    return hr;
}

HRESULT Enlist(const Request& request, const std::wstring& classId)
{
    if (request.unregister)
        return FdtModuleList::Remove(classId);
    std::wstring path;
    if (!InprocServerPath(classId, path))
        return REGDB_E_CLASSNOTREG;
    if (!lstrcmpW(request.kind, L"instance data"))
    {
        const HRESULT hr = RegisterInstanceDataModule(request.clsid);
        if (FAILED(hr))
            return hr;
    }
    return FdtModuleList::Write(classId, {{FdtModuleList::kKind, request.kind}, {FdtModuleList::kModulePath, path}});
}
}  // namespace

int main(int argc, char** argv)
{
    ApplyTestHooks();
    Request request;
    if (!Parse(argc, argv, request))
    {
        fprintf(stderr, "usage: FdtEnlist /i|/d|/c /{class id} [/s] [/u]\n");
        return kBadCommandLine;
    }
    wchar_t classId[40];
    StringFromGUID2(request.clsid, classId, 40);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return kNotDone;
    const HRESULT hr = Enlist(request, classId);
    CoUninitialize();
    if (!request.silent)
        printf("FdtEnlist: %ls %s (0x%08lx)\n", classId, FAILED(hr) ? "failed" : "done",
               static_cast<unsigned long>(hr));
    return FAILED(hr) ? kNotDone : kDone;
}
