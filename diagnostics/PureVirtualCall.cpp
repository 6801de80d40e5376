// The module's handler of pure virtual calls: the linker takes this
// definition before the runtime library's, so it stands in every unfilled
// virtual slot of the module's abstract classes.
#include <windows.h>
#include <cstdio>
#include "PK_ProcessInfo.h"
#include "diagnostics/ExceptionReport.h"

namespace
{
const char kMessage[] =
    "Runtime Error!\n\nR6025 - pure virtual function call in module:\n\n'%s'\n\n"
    "The application will be closed after a callstack dump was written\n"
    "to the application trace file when previously actived via Lumen.exe\n\n"
    "Please pass this file along with additional information to the support personal.";

const UINT kExitCode = 42;

// Not inlined: the report shows the handler as a frame of its own.
[[noreturn]] __attribute__((noinline)) void HandlePureVirtualCall()
{
    char modulePath[MAX_PATH] = "";
    CProcessInfo::GetModuleFileNameA(CProcessInfo::GetModuleHandleFromAddress(kMessage), modulePath,
                                     sizeof modulePath);
    char caption[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, caption, MAX_PATH);
    caption[MAX_PATH - 1] = '\0';
    char text[sizeof kMessage + MAX_PATH] = "";
    _snprintf(text, sizeof text - 1, kMessage, modulePath);

    // Waits until the user closes the box.
    MessageBoxA(nullptr, text, caption, MB_ICONERROR);
    WriteExceptionReport(nullptr);
    // Without a debugger the break would end the process by another way
    // (or start one), and the exit code must stay 42.
    if (IsDebuggerPresent())
        DebugBreak();
    ExitProcess(kExitCode);
}
}  // namespace

extern "C" void __cxa_pure_virtual()
{
    HandlePureVirtualCall();
}
