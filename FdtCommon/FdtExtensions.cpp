// Registration of FDT modules through the registration server FdtEnlist.
#include "FdtCommon/FdtExtensions.h"
#include <objbase.h>
#include <string>
#include "Common/ErrorTrace.h"

static const char THIS_FILE[] = "FdtCommon/FdtExtensions";

namespace
{
// FdtEnlist gets this long before it is stopped, and this exit code then.
constexpr DWORD kEnlistTimeoutMs = 10000;
constexpr UINT kTerminatedExitCode = 999;
// The command line buffer, terminator included.
constexpr size_t kCommandLineSize = 260;

#ifndef _WIN64
static_assert(sizeof(STARTUPINFOA) == 68, "the startup information of a 32-bit process is 68 bytes");
#endif

class HandleCloser
{
public:
    explicit HandleCloser(HANDLE handle) : m_handle(handle) {}
    ~HandleCloser() { CloseHandle(m_handle); }
    HandleCloser(const HandleCloser&) = delete;
    HandleCloser& operator=(const HandleCloser&) = delete;

private:
    HANDLE m_handle;
};

class CoTaskString
{
public:
    ~CoTaskString() { CoTaskMemFree(m_text); }
    LPOLESTR* operator&() { return &m_text; }
    LPCOLESTR Get() const { return m_text; }

private:
    LPOLESTR m_text = nullptr;
};

const char* KindSwitch(int kind)
{
    switch (kind)
    {
    case FdtModuleKindDtm:
        return "/d /";
    case FdtModuleKindInstanceData:
        return "/i /";
    case FdtModuleKindCommunication:
        return "/c /";
    default:
        return nullptr;
    }
}
}  // namespace

HRESULT FdtRegisterModule(REFCLSID clsid, int kind, const char* modulePath, BOOL registerModule)
{
    CoTaskString classId;
    RETURN_IF_FAILED(StringFromCLSID(clsid, &classId));
    const char* kindSwitch = KindSwitch(kind);
    RETURN_IF_NULL(kindSwitch, E_FAIL);

    char narrowClassId[64] = {};
    WideCharToMultiByte(CP_ACP, 0, classId.Get(), -1, narrowClassId, sizeof narrowClassId, nullptr, nullptr);
    std::string arguments = kindSwitch;
    arguments += narrowClassId;
    arguments += " /s";
    if (!registerModule)
        arguments += " /u";
    return LaunchEnlistServer(modulePath, arguments.c_str());
}

HRESULT LaunchEnlistServer(const char* modulePath, const char* arguments)
{
    RETURN_IF_NULL(modulePath, E_POINTER);
    RETURN_IF_NULL(arguments, E_POINTER);
    char commandLine[kCommandLineSize];
    lstrcpynA(commandLine, (std::string("FdtEnlist ") + arguments).c_str(), sizeof commandLine);
    g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "Start %s (%s)\n", commandLine, modulePath);

    STARTUPINFOA startup;
    ZeroMemory(&startup, sizeof startup);
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(nullptr, commandLine, nullptr, nullptr, FALSE, NORMAL_PRIORITY_CLASS, nullptr, nullptr,
                        &startup, &process))
        return E_FAIL;
    CloseHandle(process.hThread);
    HandleCloser closeProcess(process.hProcess);

    if (WaitForSingleObject(process.hProcess, kEnlistTimeoutMs) != WAIT_OBJECT_0)
    {
        if (TerminateProcess(process.hProcess, kTerminatedExitCode))
            g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                       "FdtEnlist abnormally terminated during registration of FDT module %s\n",
                                       modulePath);
        else
            g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                       "FdtEnlist could not be terminated during registration of FDT module %s\n",
                                       modulePath);
        return E_FAIL;
    }
    DWORD exitCode = 0;
    if (!GetExitCodeProcess(process.hProcess, &exitCode))
    {
        g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                   "FdtEnlist exit code not available during registration of FDT module %s\n",
                                   modulePath);
        return E_FAIL;
    }
    if (exitCode != 0)
    {
        g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                   "FdtEnlist exit code (%lu) indicates an error during registration of FDT module %s\n",
                                   exitCode, modulePath);
        return E_FAIL;
    }
    return S_OK;
}
