// The pure virtual call of CrashProgram.exe: the crash report in its
// application trace, the exit code 42 and, on a display, the error box.
// The report is checked for its structure and the values it shows, not for
// addresses and offsets, which change with every build.
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <vector>
#include "TestSupport.h"

namespace
{
const std::wstring kProgram = ProgramDirectory() + L"CrashProgram.exe";

// CrashProgram.exe as a child process, its application trace in a file of its own.
class CrashProcess
{
public:
    explicit CrashProcess(const wchar_t* traceName) : m_traceFile(TestFilesDirectory() + traceName)
    {
        DeleteFileW(m_traceFile.c_str());
        // The child copies the environment when it is made; this process's own trace stays here.
        SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", m_traceFile.c_str());
        STARTUPINFOW startup = {sizeof startup};
        CreateProcessW(kProgram.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &m_process);
        SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", nullptr);
    }
    ~CrashProcess()
    {
        TerminateProcess(m_process.hProcess, 1);   // fails when it has ended
        WaitForSingleObject(m_process.hProcess, 10000);
        CloseHandle(m_process.hThread), CloseHandle(m_process.hProcess);
    }
    bool IsRunning() const { return WaitForSingleObject(m_process.hProcess, 0) == WAIT_TIMEOUT; }
    // STILL_ACTIVE when the program did not end in time.
    DWORD ExitCode(DWORD milliseconds) const
    {
        DWORD code = STILL_ACTIVE;
        WaitForSingleObject(m_process.hProcess, milliseconds);
        GetExitCodeProcess(m_process.hProcess, &code);
        return code;
    }
    std::string Trace() const { return FileText(m_traceFile); }

    PROCESS_INFORMATION m_process = {};

private:
    std::wstring m_traceFile;
};

// One crash without a display (the box returns at once) for all the checks of its report.
struct Crash { DWORD exitCode; std::string report; };
const Crash& TheCrash()
{
    static CrashProcess program(L"crash_report.txt");
    static const Crash crash = {program.ExitCode(60000), program.Trace()};
    return crash;
}

// The functions of the first call stack, each with whether it names a source line.
std::vector<std::pair<std::string, bool>> FirstCallStack(const std::string& report)
{
    const size_t start = report.find("\nCall stack:\n");
    std::istringstream lines(report.substr(start, report.find("=====", start) - start));
    const std::regex frame("^[0-9A-F]+  [0-9A-F]+  ([^ ]+)\\+[0-9A-F]+(  .* line [0-9]+.*)?$");
    std::vector<std::pair<std::string, bool>> frames;
    std::smatch match;
    for (std::string text; std::getline(lines, text);)
        if (std::regex_match(text, match, frame))
            frames.emplace_back(match[1], match[2].matched);
    return frames;
}

// What the second walk shows under the frame of function, up to the blank line that ends it.
std::string FrameVariables(const std::string& report, const std::string& function)
{
    const size_t frame = report.find("  " + function + "+", report.find("Local Variables And Parameters\n"));
    if (frame == std::string::npos)
        return "<frame not found>";
    const size_t start = report.find('\n', frame) + 1;
    return report.substr(start, report.find("\n\n", start) + 1 - start);
}

size_t Count(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}
}  // namespace

TEST(CrashReport, ExitCodeAndSectionsInOrder)
{
    EXPECT_EQ(42u, TheCrash().exitCode);
    const std::string& report = TheCrash().report;
    const std::string sections[] = {"//--- begin of report ---\n", "Exception code: 80000004 SINGLE_STEP\n",
                                    "Fault address:  ", "\nRegisters:\n", "\nCall stack:\n",
                                    "\nLocal Variables And Parameters\n", "\nCall stack:\n", "\nGlobal Variables\n",
                                    "//--- end of report ---\n"};
    size_t at = 0;
    for (const std::string& section : sections)
    {
        at = report.find(section, at);
        ASSERT_NE(std::string::npos, at) << section << report.substr(0, 2000);
        at += section.size();
    }
    EXPECT_EQ(report.size(), at) << "the end line ends the report";
    EXPECT_EQ(2u, Count(report, "\nCall stack:\n"));
}

TEST(CrashReport, CallStackNamesTheFramesAndTheProgramsSourceLines)
{
    const auto frames = FirstCallStack(TheCrash().report);
    // The program's own frames (true) name a line of its source.
    const std::pair<const char*, bool> expected[] = {
        {"WriteExceptionReport", false}, {"HandlePureVirtualCall", false}, {"__cxa_pure_virtual", false},
        {"Abstract::Start", true},       {"Abstract", true},               {"Concrete", false},
        {"MakeObject", true},            {"HoldSpecialValues", true},      {"HoldArray", true},
        {"HoldLocals", true},            {"main", true}};
    ASSERT_GE(frames.size(), std::size(expected)) << TheCrash().report.substr(0, 4000);
    for (size_t i = 0; i < std::size(expected); ++i)
    {
        EXPECT_EQ(expected[i].first, frames[i].first) << i;
        EXPECT_TRUE(frames[i].second || !expected[i].second) << expected[i].first << " names no source line";
    }
}

TEST(CrashReport, LocalsAndGlobalsShowTheirValues)
{
    const std::string& report = TheCrash().report;
    const struct
    {
        const char* frame;   // null: the globals
        std::vector<std::string> parts;
    } cases[] = {
        {"HoldLocals", {"Parameter 'depth': 1\n", "Local 'x': 5\n", "Local 'p': *\"abc\"("}},
        {"MakeObject", {"Parameter 'depth': 4\n"}},
        {"HoldArray",
         {"Parameter 'depth': 2\n", "= 300 array items (only the first 256 items are dumped)\n", "[0 3 6 ", " 765]\n",
          "Local 'link':  struct\n\t- 'value'7\n\t- 'self'*(", "Local 'linkPointer': *("}},
        {"HoldSpecialValues",
         {"Local 'guid': {12345678-9ABC-DEF0-0123-456789ABCDEF}\n", "Local 'number': 4711\n",
          "Local 'broken': punting on symbol 'broken'\n", "Local 'window': HWND=0x1234 is not a window\n",
          "Local 'wide': *L\"wide text\"(", "Local 'colour': 0x2\n",
          "Local 'pair':  struct\n\t- 'low'-3\n\t- 'inner' struct\n\t\t- 'ratio'0.5\n\t\t- 'tag''q'\n",
          "Local 'newline': '\\n'\n"}},
        {nullptr, {"\nVar 'g_counter': 77\n", "\nVar 'g_link':  struct\n\t- 'value'11\n"}},
    };
    for (const auto& c : cases)
    {
        const std::string shown = c.frame ? FrameVariables(report, c.frame) : report.substr(report.find("Global Variables"));
        for (const std::string& part : c.parts)
            EXPECT_NE(std::string::npos, shown.find(part)) << part << "\nin:\n" << shown;
    }
    // The self link is followed once: one struct for each of the two locals.
    EXPECT_EQ(2u, Count(FrameVariables(report, "HoldArray"), "- 'value'7\n"));
}

// On a virtual display (error_box_test.sh): the box holds the process until OK is pressed.
TEST(ErrorBox, StaysUntilOkIsPressedThenTheReportIsWritten)
{
    char value[256];
    if (!GetEnvironmentVariableA("DISPLAY", value, sizeof value))
    {
        if (GetEnvironmentVariableA("CRASH_ERROR_BOX_REQUIRED", value, sizeof value))
            FAIL() << "no DISPLAY for the error box";
        GTEST_SKIP() << "no display: run by error_box_test.sh";
    }
    CrashProcess program(L"crash_box.txt");
    const std::string caption = static_cast<const char*>(_bstr_t(kProgram.c_str()));
    HWND box = nullptr;
    for (int attempt = 0; attempt < 300 && !box && program.IsRunning(); ++attempt, Sleep(100))
        for (HWND window = FindWindowExA(nullptr, nullptr, nullptr, caption.c_str()); window && !box;
             window = FindWindowExA(nullptr, window, nullptr, caption.c_str()))
        {
            DWORD owner = 0;
            GetWindowThreadProcessId(window, &owner);
            box = owner == program.m_process.dwProcessId && IsWindowVisible(window) ? window : nullptr;
        }
    ASSERT_NE(nullptr, box);

    char text[2048] = "";
    GetDlgItemTextA(box, 0xFFFF, text, sizeof text);   // the box's text control
    EXPECT_EQ("Runtime Error!\n\nR6025 - pure virtual function call in module:\n\n'" + caption +
                  "'\n\nThe application will be closed after a callstack dump was written\nto the application trace "
                  "file when previously actived via Lumen.exe\n\nPlease pass this file along with additional "
                  "information to the support personal.",
              std::string(text));
    // While the box is open the handler waits: no report yet.
    Sleep(300);
    EXPECT_TRUE(program.IsRunning());
    EXPECT_EQ(std::string::npos, program.Trace().find("Exception code"));

    DWORD_PTR result = 0;
    SendMessageTimeoutA(GetDlgItem(box, IDOK), BM_CLICK, 0, 0, SMTO_ABORTIFHUNG, 5000, &result);
    EXPECT_EQ(42u, program.ExitCode(60000));
    EXPECT_NE(std::string::npos, program.Trace().find("\n//--- end of report ---\n"));
}
