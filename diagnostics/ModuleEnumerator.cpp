// Module enumeration through PSAPI.DLL or the tool-help functions of KERNEL32.DLL.
#include "diagnostics/ModuleEnumerator.h"
#include <tlhelp32.h>
#include "diagnostics/MemoryProbe.h"

namespace
{
// Narrow forms, as exported under the undecorated names.
typedef BOOL(WINAPI* EnumProcessModulesFn)(HANDLE, HMODULE*, DWORD, LPDWORD);
typedef DWORD(WINAPI* GetModuleBaseNameAFn)(HANDLE, HMODULE, LPSTR, DWORD);
typedef DWORD(WINAPI* GetModuleFileNameExAFn)(HANDLE, HMODULE, LPSTR, DWORD);
typedef HANDLE(WINAPI* CreateToolhelp32SnapshotFn)(DWORD, DWORD);
typedef BOOL(WINAPI* Module32Fn)(HANDLE, tagMODULEENTRY32*);
typedef BOOL(WINAPI* Process32Fn)(HANDLE, tagPROCESSENTRY32*);
typedef BOOL(WINAPI* Thread32Fn)(HANDLE, LPTHREADENTRY32);

const DWORD kQueryAndRead = PROCESS_QUERY_INFORMATION | PROCESS_VM_READ;  // 0x410
static_assert(kQueryAndRead == 0x410, "access of the process-status path");
const DWORD kSnapModules = TH32CS_SNAPMODULE;  // 8
static_assert(kSnapModules == 8, "module snapshot flag");

// Finds name in library as a function of type Fn.
template <class Fn>
bool Find(HMODULE library, const char* name, Fn& function)
{
    function = reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(library, name)));
    return function != nullptr;
}

// Runs a lookup the first time only and keeps its result, failure included.
class LookedUpOnce
{
public:
    template <class Lookup>
    bool Get(Lookup lookup)
    {
        if (!m_looked)
        {
            m_looked = true;
            m_found = lookup();
        }
        return m_found;
    }

private:
    bool m_looked = false;
    bool m_found = false;
};

struct ProcessStatusLibrary
{
    LookedUpOnce once;
    EnumProcessModulesFn enumProcessModules = nullptr;
    GetModuleBaseNameAFn getModuleBaseName = nullptr;
    GetModuleFileNameExAFn getModuleFileNameEx = nullptr;

    bool Load()
    {
        return once.Get([this] {
            HMODULE library = LoadLibraryA("PSAPI.DLL");
            return library && Find(library, "EnumProcessModules", enumProcessModules) &&
                   Find(library, "GetModuleBaseNameA", getModuleBaseName) &&
                   Find(library, "GetModuleFileNameExA", getModuleFileNameEx);
        });
    }
} g_processStatus;

struct ToolHelpLibrary
{
    LookedUpOnce once;
    CreateToolhelp32SnapshotFn createSnapshot = nullptr;
    Module32Fn module32First = nullptr;
    Module32Fn module32Next = nullptr;
    Process32Fn process32First = nullptr;
    Process32Fn process32Next = nullptr;
    Thread32Fn thread32First = nullptr;
    Thread32Fn thread32Next = nullptr;

    bool Load()
    {
        return once.Get([this] {
            HMODULE library = GetModuleHandleA("KERNEL32.DLL");
            return library && Find(library, "CreateToolhelp32Snapshot", createSnapshot) &&
                   Find(library, "Module32First", module32First) && Find(library, "Module32Next", module32Next) &&
                   Find(library, "Process32First", process32First) &&
                   Find(library, "Process32Next", process32Next) && Find(library, "Thread32First", thread32First) &&
                   Find(library, "Thread32Next", thread32Next);
        });
    }
} g_toolHelp;

class ScopedHandle
{
public:
    explicit ScopedHandle(HANDLE handle) : m_handle(handle) {}
    ~ScopedHandle()
    {
        if (IsValid())
            CloseHandle(m_handle);
    }
    bool IsValid() const { return m_handle && m_handle != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return m_handle; }

private:
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;
    HANDLE m_handle;
};

BOOL Fail(DWORD error)
{
    SetLastError(error);
    return FALSE;
}
}  // namespace

bool CModuleEnumerator::UsesProcessStatus()
{
    OSVERSIONINFOA version = {};
    version.dwOSVersionInfoSize = sizeof version;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    if (!GetVersionExA(&version))
        return false;
#pragma GCC diagnostic pop
    return version.dwPlatformId == VER_PLATFORM_WIN32_NT && version.dwMajorVersion == 4;
}

BOOL CModuleEnumerator::Enumerate(DWORD processId, DWORD capacity, HMODULE* bases, DWORD* count)
{
    return UsesProcessStatus() ? EnumerateWithProcessStatus(processId, capacity, bases, count)
                               : EnumerateWithToolHelp(processId, capacity, bases, count);
}

bool CModuleEnumerator::CheckArguments(DWORD capacity, HMODULE* bases, DWORD* count)
{
    if (!CMemoryProbe::IsWritable(count, sizeof *count))
        return false;
    return (capacity == 0 && !bases) || CMemoryProbe::IsWritable(bases, DWORD64(capacity) * sizeof *bases);
}

BOOL CModuleEnumerator::Finish(DWORD seen, DWORD capacity, HMODULE* bases, DWORD* count)
{
    *count = seen;
    const bool countOnly = capacity == 0 && !bases;
    if (seen > capacity && !countOnly)
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    return TRUE;
}

BOOL CModuleEnumerator::EnumerateWithProcessStatus(DWORD processId, DWORD capacity, HMODULE* bases, DWORD* count)
{
    if (!CheckArguments(capacity, bases, count))
        return Fail(ERROR_INVALID_PARAMETER);
    if (!g_processStatus.Load())
        return Fail(ERROR_DLL_INIT_FAILED);
    if (!CMemoryProbe::IsExecutable(reinterpret_cast<const void*>(g_processStatus.enumProcessModules)))
        return Fail(ERROR_INVALID_DLL);
    ScopedHandle process(OpenProcess(kQueryAndRead, FALSE, processId));
    if (!process.IsValid())
        return FALSE;
    DWORD bytes = 0;
    if (!g_processStatus.enumProcessModules(process.Get(), bases, capacity * sizeof *bases, &bytes))
        return FALSE;
    return Finish(bytes / sizeof *bases, capacity, bases, count);
}

BOOL CModuleEnumerator::EnumerateWithToolHelp(DWORD processId, DWORD capacity, HMODULE* bases, DWORD* count)
{
    if (!CheckArguments(capacity, bases, count))
        return Fail(ERROR_INVALID_PARAMETER);
    if (!g_toolHelp.Load())
        return Fail(ERROR_DLL_INIT_FAILED);
    ScopedHandle snapshot(g_toolHelp.createSnapshot(kSnapModules, processId));
    if (!snapshot.IsValid())
        return FALSE;
    tagMODULEENTRY32 module = {};
    module.dwSize = sizeof module;
    if (!g_toolHelp.module32First(snapshot.Get(), &module))
        return FALSE;
    DWORD seen = 0;
    do
    {
        if (seen < capacity)
            bases[seen] = reinterpret_cast<HMODULE>(module.modBaseAddr);
        ++seen;
    } while (g_toolHelp.module32Next(snapshot.Get(), &module));
    return Finish(seen, capacity, bases, count);
}
