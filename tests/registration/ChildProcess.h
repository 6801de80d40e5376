#pragma once
// Runs a program to its end, as an administrator's command line would.
#include <windows.h>
#include <string>

namespace child_process
{
constexpr DWORD kNotFinished = 0xFFFFFFFF;

// The exit code of the command line run in directory (nullptr: this one);
// kNotFinished when it could not start or did not end within timeoutMs.
inline DWORD Run(std::wstring commandLine, const wchar_t* directory = nullptr, DWORD timeoutMs = 120000)
{
    STARTUPINFOW startup = {sizeof startup};
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, directory, &startup, &process))
        return kNotFinished;
    CloseHandle(process.hThread);
    DWORD exitCode = kNotFinished;
    if (WaitForSingleObject(process.hProcess, timeoutMs) == WAIT_OBJECT_0)
        GetExitCodeProcess(process.hProcess, &exitCode);
    else
        TerminateProcess(process.hProcess, kNotFinished);
    CloseHandle(process.hProcess);
    return exitCode;
}

inline std::wstring SystemProgram(const wchar_t* name)
{
    wchar_t directory[MAX_PATH];
    const UINT length = GetSystemDirectoryW(directory, MAX_PATH);
    return L"\"" + std::wstring(directory, length) + L"\\" + name + L"\"";
}

// The folder of this program, with a trailing backslash.
inline std::wstring ProgramDirectory()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring program(path, length);
    return program.substr(0, program.find_last_of(L"\\/") + 1);
}
}  // namespace child_process
