#pragma once
// CrashProgram.exe run as a child process with its application trace
// switched to a file of its own.
#include <windows.h>
#include <string>

class CrashProcess
{
public:
    // Starts the program; Started() tells whether it runs.
    explicit CrashProcess(const std::wstring& traceFile);
    // Ends a program that still runs.
    ~CrashProcess();

    bool Started() const { return m_process.hProcess != nullptr; }
    DWORD Id() const { return m_process.dwProcessId; }
    bool IsRunning() const;
    // The exit code, or false when the program did not end in time.
    bool WaitForExit(DWORD milliseconds, DWORD& exitCode) const;
    // The trace file's text so far.
    std::string Trace() const;

    // The program's path, as it is started (and as it names itself).
    static std::wstring ProgramPath();

private:
    CrashProcess(const CrashProcess&) = delete;
    CrashProcess& operator=(const CrashProcess&) = delete;
    std::wstring m_traceFile;
    PROCESS_INFORMATION m_process = {};
};

// Narrow form of a path for comparisons with report text.
std::string Narrow(const std::wstring& text);
