// CrashProgram.exe as a child process.
#include "CrashProcess.h"
#include <fstream>
#include <sstream>
#include <vector>
#include "TestSupport.h"

std::string Narrow(const std::wstring& text)
{
    const int size = WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::string result(size > 0 ? size - 1 : 0, '\0');
    if (size > 1)
        WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, &result[0], size, nullptr, nullptr);
    return result;
}

std::wstring CrashProcess::ProgramPath()
{
    return ProgramDirectory() + L"CrashProgram.exe";
}

CrashProcess::CrashProcess(const std::wstring& traceFile) : m_traceFile(traceFile)
{
    DeleteFileW(m_traceFile.c_str());
    // The child copies the environment when it is made; this process's own
    // trace must not go to the file.
    SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", m_traceFile.c_str());
    std::wstring commandLine = L"\"" + ProgramPath() + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    if (!CreateProcessW(ProgramPath().c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &m_process))
        m_process = {};
    SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", nullptr);
}

CrashProcess::~CrashProcess()
{
    if (!Started())
        return;
    if (IsRunning())
    {
        TerminateProcess(m_process.hProcess, 1);
        WaitForSingleObject(m_process.hProcess, 10000);
    }
    CloseHandle(m_process.hThread);
    CloseHandle(m_process.hProcess);
}

bool CrashProcess::IsRunning() const
{
    return Started() && WaitForSingleObject(m_process.hProcess, 0) == WAIT_TIMEOUT;
}

bool CrashProcess::WaitForExit(DWORD milliseconds, DWORD& exitCode) const
{
    return Started() && WaitForSingleObject(m_process.hProcess, milliseconds) == WAIT_OBJECT_0 &&
           GetExitCodeProcess(m_process.hProcess, &exitCode);
}

std::string CrashProcess::Trace() const
{
    std::ifstream file(m_traceFile.c_str(), std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}
