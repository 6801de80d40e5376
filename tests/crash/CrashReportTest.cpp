// The pure virtual call of CrashProgram.exe: the crash report in its
// application trace, the exit code 42 and, on a display, the error box.
#include <gtest/gtest.h>
#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>
#include "TestSupport.h"

namespace
{
std::wstring ProgramPath()
{
    return ProgramDirectory() + L"CrashProgram.exe";
}

// The path as the program names itself in its box and report.
std::string NarrowProgramPath()
{
    return static_cast<const char*>(_bstr_t(ProgramPath().c_str()));
}

// CrashProgram.exe as a child process, its application trace in a file of its own.
class CrashProcess
{
public:
    explicit CrashProcess(const wchar_t* traceName) : m_traceFile(TestFilesDirectory() + traceName)
    {
        DeleteFileW(m_traceFile.c_str());
        // The child copies the environment when it is made; this process's
        // own trace must not go to the file.
        SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", m_traceFile.c_str());
        std::wstring commandLine = L"\"" + ProgramPath() + L"\"";
        STARTUPINFOW startup = {sizeof startup};
        if (!CreateProcessW(ProgramPath().c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                            &startup, &m_process))
            m_process = {};
        SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", nullptr);
    }
    ~CrashProcess()
    {
        TerminateProcess(m_process.hProcess, 1);  // fails when it has ended
        WaitForSingleObject(m_process.hProcess, 10000);
        CloseHandle(m_process.hThread);
        CloseHandle(m_process.hProcess);
    }
    DWORD Id() const { return m_process.dwProcessId; }
    bool IsRunning() const { return WaitForSingleObject(m_process.hProcess, 0) == WAIT_TIMEOUT; }
    // STILL_ACTIVE when the program did not end in time.
    DWORD ExitCode(DWORD milliseconds) const
    {
        DWORD code = STILL_ACTIVE;
        WaitForSingleObject(m_process.hProcess, milliseconds);
        GetExitCodeProcess(m_process.hProcess, &code);
        return code;
    }
    std::string Trace() const
    {
        std::ifstream file(m_traceFile.c_str(), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

private:
    std::wstring m_traceFile;
    PROCESS_INFORMATION m_process = {};
};

// One crash without a display (the box returns at once) for all the checks of its report.
struct Crash { DWORD exitCode; std::string report; };
const Crash& TheCrash()
{
    static const Crash crash = [] {
        CrashProcess program(L"crash_report.txt");
        const DWORD exitCode = program.ExitCode(60000);
        return Crash{exitCode, program.Trace()};
    }();
    return crash;
}

// Addresses of this machine: 16 hex digits, 8 on a 32-bit one.
const std::string kAddress = sizeof(void*) == 8 ? "[0-9A-F]{16}" : "[0-9A-F]{8}";

// One line of a call stack: address, function without its displacement, and
// "  <file> line <n>[ + <d>]" or nothing.
struct FrameLine { std::string address, function, source; };

// The first call stack: from its column heads to the next section.
std::string FirstCallStack(const std::string& report)
{
    const size_t start = report.find("Address   Frame     Function            SourceFile\n");
    const size_t end = report.find("========================\n", start);
    return start == std::string::npos || end == std::string::npos ? std::string() : report.substr(start, end - start);
}

std::vector<FrameLine> CallStackLines(const std::string& report)
{
    std::vector<FrameLine> frames;
    const std::regex line("^(" + kAddress + ")  " + kAddress + "  (.+?)\\+[0-9A-F]+(  .* line [0-9]+.*)?$");
    std::istringstream lines(FirstCallStack(report));
    std::smatch match;
    for (std::string text; std::getline(lines, text);)
        if (std::regex_match(text, match, line))
            frames.push_back({match[1], match[2], match[3]});
    return frames;
}

// What the second walk shows under the frame of function, up to the blank
// line that ends the frame.
std::string FrameVariables(const std::string& report, const std::string& function)
{
    const size_t walk = report.find("Local Variables And Parameters\n");
    const size_t frame = report.find("  " + function + "+", walk);
    if (walk == std::string::npos || frame == std::string::npos)
        return "<frame not found>";
    const size_t start = report.find('\n', frame) + 1;
    return report.substr(start, report.find("\n\n", start) + 1 - start);
}

// The box: a visible window of the program, captioned with its path.
HWND FindBox(DWORD processId, const std::string& caption)
{
    for (HWND window = FindWindowExA(nullptr, nullptr, nullptr, caption.c_str()); window;
         window = FindWindowExA(nullptr, window, nullptr, caption.c_str()))
    {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (owner == processId && IsWindowVisible(window))
            return window;
    }
    return nullptr;
}
}  // namespace

TEST(CrashReport, ExitCode42HeaderFaultAndRegisters)
{
    EXPECT_EQ(42u, TheCrash().exitCode);
    const std::string& report = TheCrash().report;
    const std::string head = "//--- begin of report ---\n//=====================================================\n"
                             "Exception code: 80000004 SINGLE_STEP\n";
    ASSERT_EQ(head, report.substr(0, head.size())) << report.substr(0, 500);

    // The fault is the start of the report function, in the program's code section.
    const std::regex faultLine("\nFault address:  (" + kAddress + ") 01:[0-9A-F]{8} (.*)\n");
    std::smatch fault;
    ASSERT_TRUE(std::regex_search(report, fault, faultLine));
    EXPECT_EQ(NarrowProgramPath(), fault[2].str());
    const std::vector<FrameLine> frames = CallStackLines(report);
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(fault[1].str(), frames[0].address);

    // The register block in this machine's own layout (values: DiagnosticsTest): segment registers of
    // 4 digits, the instruction pointer at the fault.
    const bool wide = sizeof(void*) == 8;
    const std::vector<std::string> generals =
        wide ? std::vector<std::string>{"RAX", "RBX", "RCX", "RDX", "RSI", "RDI", "R8", "R9", "R10", "R11", "R12",
                                        "R13", "R14", "R15"}
             : std::vector<std::string>{"EAX", "EBX", "ECX", "EDX", "ESI", "EDI"};
    const std::string r = wide ? "R" : "E", segment = "[0-9A-F]{4}";
    std::string block = "\nRegisters:\n";
    for (const std::string& name : generals)
        block += name + ":" + kAddress + "\n";
    block += "CS:" + r + "IP:" + segment + ":" + fault[1].str() + "\nSS:" + r + "SP:" + segment + ":" + kAddress +
             "  " + r + "BP:" + kAddress + "\nDS:" + segment + "  ES:" + segment + "  FS:" + segment +
             "  GS:" + segment + "\nFlags:[0-9A-F]{8}\n";
    const std::string registers = report.substr(report.find("\nRegisters:\n"), 800);
    EXPECT_TRUE(std::regex_search(registers, std::regex("^" + block))) << registers;
}

TEST(CrashReport, CallStackNamesTheProgramsFunctionsWithTheirSourceLines)
{
    const std::vector<FrameLine> frames = CallStackLines(TheCrash().report);
    // The program's own frames name their source file and a line.
    const std::pair<const char*, bool> expected[] = {
        {"WriteExceptionReport", false}, {"HandlePureVirtualCall", false}, {"__cxa_pure_virtual", false},
        {"Abstract::Start", true}, {"Abstract", true}, {"Concrete", false}, {"MakeObject", true},
        {"HoldSpecialValues", true}, {"HoldArray", true}, {"HoldLocals", true}, {"main", true}};
    ASSERT_GE(frames.size(), std::size(expected)) << FirstCallStack(TheCrash().report);
    EXPECT_NE(std::string::npos, frames[0].source.find("diagnostics\\ExceptionReport.cpp line "));
    for (size_t i = 0; i < std::size(expected); ++i)
    {
        EXPECT_EQ(expected[i].first, frames[i].function) << i;
        if (expected[i].second)
        {
            EXPECT_TRUE(std::regex_match(frames[i].source, std::regex("  .*\\\\CrashProgram\\.cpp line [0-9]+.*")))
                << frames[i].function << frames[i].source;
        }
    }
    // The start-up code has no symbol: its logical address, and no source part.
    EXPECT_TRUE(std::regex_search(FirstCallStack(TheCrash().report),
                                  std::regex("\n" + kAddress + "  " + kAddress + "  0001:[0-9A-F]{8} [^\n]*\\.exe\n")));
}

TEST(CrashReport, SecondWalkShowsLocalsTheCutArrayAndTheSelfLinkOnce)
{
    const std::string& report = TheCrash().report;
    const std::regex callStack("\nCall stack:\n");
    EXPECT_EQ(2, std::distance(std::sregex_iterator(report.begin(), report.end(), callStack), std::sregex_iterator()));
    EXPECT_TRUE(std::regex_match(FrameVariables(report, "HoldLocals"),
                                 std::regex("Parameter 'depth': 1\nLocal 'x': 5\nLocal 'p': \\*\"abc\"\\(" + kAddress +
                                            "\\)\n")))
        << FrameVariables(report, "HoldLocals");
    EXPECT_EQ("Parameter 'depth': 4\nLocal 'object':  class\n", FrameVariables(report, "MakeObject"));
    EXPECT_EQ(0u, FrameVariables(report, "Abstract::Start").find("Parameter 'this': *("));

    // 300 items, the first 256 shown, 32 to a line.
    std::string numbers = "Parameter 'depth': 2\nLocal 'numbers': \n"
                          "\t= 300 array items (only the first 256 items are dumped)\n\t[0";
    for (int i = 1; i < 256; ++i)
        numbers += (i % 32 ? " " : "\n\t ") + std::to_string(i * 3);
    numbers += "]\n";
    const std::string variables = FrameVariables(report, "HoldArray");
    std::smatch link;
    ASSERT_TRUE(std::regex_search(variables, link, std::regex("- 'self'\\*\\((" + kAddress + ")\\)\n"))) << variables;
    EXPECT_EQ(numbers + "Local 'link':  struct\n\t- 'value'7\n\t- 'self'*(" + link[1].str() +
                  ")\nLocal 'linkPointer': *(" + link[1].str() + ") struct\n\t- 'value'7\n\t- 'self'\n",
              variables);
}

TEST(CrashReport, SpecialFormsAndUnreadableValues)
{
    // One entry per local of HoldSpecialValues, in frame order, as patterns;
    // a nested struct is indented one tab per level.
    const std::string forms[] = {
        "Parameter 'depth': 3",
        "Local 'guid': \\{12345678-9ABC-DEF0-0123-456789ABCDEF\\}",  // registry form
        "Local 'number': 4711",                                      // the VARIANT's text
        "Local 'broken': punting on symbol 'broken'",                // copying it faults
        "Local 'window': HWND=0x1234 is not a window",
        "Local 'wide': \\*L\"wide text\"\\(" + kAddress + "\\) = 0x77",
        "Local 'dangling': \\*@ 0x" + std::string(sizeof(void*) * 2 - 2, '0') + "10",
        "Local 'colour': 0x2",
        "Local 'pair':  struct\n\t- 'low'-3\n\t- 'inner' struct\n\t\t- 'ratio'0.5\n\t\t- 'tag''q'",
        "Local 'newline': '\\\\n'"};
    std::string expected;
    for (const std::string& form : forms)
        expected += form + "\n";
    const std::string variables = FrameVariables(TheCrash().report, "HoldSpecialValues");
    EXPECT_TRUE(std::regex_match(variables, std::regex(expected))) << variables;
}

TEST(CrashReport, GlobalsOfTheFaultingModuleAndTheEnd)
{
    const std::string& report = TheCrash().report;
    const size_t globals = report.find("========================\nGlobal Variables\n");
    ASSERT_NE(std::string::npos, globals);
    EXPECT_LT(report.find("Local Variables And Parameters\n"), globals);
    EXPECT_NE(std::string::npos, report.find("\nVar 'g_counter': 77\n", globals));
    EXPECT_TRUE(std::regex_search(report.substr(globals), std::regex("\nVar 'g_link':  struct\n\t- 'value'11\n"
                                                                     "\t- 'self'\\*\\(" + kAddress + "\\)\n")));
    const std::string end = "\n\n//--- end of report ---\n";
    EXPECT_EQ(end, report.substr(report.size() - std::min(report.size(), end.size())));
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
    ASSERT_TRUE(program.IsRunning());
    const std::string caption = NarrowProgramPath();
    HWND box = nullptr;
    for (int attempt = 0; attempt < 300 && !(box = FindBox(program.Id(), caption)) && program.IsRunning(); ++attempt)
        Sleep(100);
    ASSERT_NE(nullptr, box);

    char text[2048] = "";
    GetDlgItemTextA(box, 0xFFFF, text, sizeof text);  // the box's text control
    EXPECT_EQ("Runtime Error!\n\nR6025 - pure virtual function call in module:\n\n'" + caption +
                  "'\n\nThe application will be closed after a callstack dump was written\nto the application trace "
                  "file when previously actived via Lumen.exe\n\nPlease pass this file along with additional "
                  "information to the support personal.",
              std::string(text));
    bool icon = false;
    for (HWND child = FindWindowExA(box, nullptr, "Static", nullptr); child;
         child = FindWindowExA(box, child, "Static", nullptr))
        icon = icon || (GetWindowLongA(child, GWL_STYLE) & SS_TYPEMASK) == SS_ICON;
    EXPECT_TRUE(icon);

    // While the box is open the handler waits: no report yet.
    Sleep(300);
    EXPECT_TRUE(program.IsRunning());
    EXPECT_EQ(std::string::npos, program.Trace().find("Exception code"));

    HWND ok = GetDlgItem(box, IDOK);
    ASSERT_NE(nullptr, ok);
    DWORD_PTR result = 0;
    SendMessageTimeoutA(ok, BM_CLICK, 0, 0, SMTO_ABORTIFHUNG, 5000, &result);
    EXPECT_EQ(42u, program.ExitCode(60000));
    EXPECT_NE(std::string::npos, program.Trace().find("\nException code: 80000004 SINGLE_STEP\n"));
    EXPECT_NE(std::string::npos, program.Trace().find("\n//--- end of report ---\n"));
}
