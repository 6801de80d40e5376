// The pure virtual call of CrashProgram.exe: the error box, the crash report
// in the application trace and the exit code 42.
#include <gtest/gtest.h>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>
#include "CrashProcess.h"
#include "TestSupport.h"

namespace
{
// Addresses of this machine: 16 hex digits, 8 on a 32-bit one.
const std::string kAddress = sizeof(void*) == 8 ? "[0-9A-F]{16}" : "[0-9A-F]{8}";
#ifdef _WIN64
const char* const kRegisters[] = {"RAX", "RBX", "RCX", "RDX", "RSI", "RDI", "R8",
                                  "R9",  "R10", "R11", "R12", "R13", "R14", "R15"};
const char kInstructionPointer[] = "CS:RIP:";
const char kStackPointers[] = "\nSS:RSP:[0-9A-F]{4}:ADDRESS  RBP:ADDRESS";
#else
const char* const kRegisters[] = {"EAX", "EBX", "ECX", "EDX", "ESI", "EDI"};
const char kInstructionPointer[] = "CS:EIP:";
const char kStackPointers[] = "\nSS:ESP:[0-9A-F]{4}:ADDRESS  EBP:ADDRESS";
#endif

std::string WithAddresses(std::string pattern)
{
    for (size_t at = pattern.find("ADDRESS"); at != std::string::npos; at = pattern.find("ADDRESS", at))
        pattern.replace(at, 7, kAddress);
    return pattern;
}

// One line of a call stack: address, frame, function, source part.
struct FrameLine
{
    std::string address;
    std::string function;  // without its displacement
    std::string source;    // "  <file> line <n>[ + <d>]", or empty
};

std::vector<FrameLine> CallStackLines(const std::string& section)
{
    std::vector<FrameLine> frames;
    static const std::regex line(WithAddresses("^(ADDRESS)  ADDRESS  (.+?)\\+[0-9A-F]+(  .* line [0-9]+.*)?$"));
    std::istringstream lines(section);
    for (std::string text; std::getline(lines, text);)
    {
        std::smatch match;
        if (std::regex_match(text, match, line))
            frames.push_back({match[1], match[2], match[3]});
    }
    return frames;
}

// The first call stack: from its column heads to the next section.
std::string FirstCallStack(const std::string& report)
{
    const size_t start = report.find("Address   Frame     Function            SourceFile\n");
    const size_t end = report.find("========================\n", start);
    return start == std::string::npos || end == std::string::npos ? std::string() : report.substr(start, end - start);
}

// What the second walk shows under the frame of function: the text after
// its frame line up to the blank line that ends the frame.
std::string FrameVariables(const std::string& report, const std::string& function)
{
    const size_t walk = report.find("Local Variables And Parameters\n");
    const size_t frame = report.find("  " + function + "+", walk);
    if (walk == std::string::npos || frame == std::string::npos)
        return "<frame not found>";
    const size_t start = report.find('\n', frame) + 1;
    return report.substr(start, report.find("\n\n", start) + 1 - start);
}

// 1-based number of the source line of CrashProgram.cpp that holds text.
int SourceLine(const std::string& text)
{
    std::ifstream source(CRASH_PROGRAM_SOURCE);
    int number = 0;
    for (std::string line; std::getline(source, line);)
    {
        ++number;
        if (line.find(text) != std::string::npos)
            return number;
    }
    return -1;
}

// The section's relative address and the image base of CrashProgram.exe.
bool ProgramLayout(DWORD64& imageBase, DWORD& textAddress)
{
    std::ifstream file(CrashProcess::ProgramPath().c_str(), std::ios::binary);
    std::vector<char> head(4096);
    if (!file.read(head.data(), head.size()))
        return false;
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(head.data());
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(head.data() + dos->e_lfanew);
    imageBase = nt->OptionalHeader.ImageBase;
    textAddress = IMAGE_FIRST_SECTION(nt)->VirtualAddress;
    return true;
}

std::string ExpectedNumbers()
{
    std::string text = "\t[";
    for (int i = 0; i < 256; ++i)
    {
        if (i > 0)
            text += i % 32 ? " " : "\n\t ";
        text += std::to_string(i * 3);
    }
    return text + "]\n";
}
}  // namespace

class CrashReport : public ::testing::Test
{
protected:
    // One crash for all the checks of its report.
    static void SetUpTestSuite()
    {
        CrashProcess program(TestFilesDirectory() + L"crash_report.txt");
        s_started = program.Started();
        s_ended = program.WaitForExit(60000, s_exitCode);
        s_report = new std::string(program.Trace());
    }
    static void TearDownTestSuite()
    {
        delete s_report;
        s_report = nullptr;
    }
    const std::string& Report() const { return *s_report; }

    static bool s_started;
    static bool s_ended;
    static DWORD s_exitCode;
    static std::string* s_report;
};

bool CrashReport::s_started = false;
bool CrashReport::s_ended = false;
DWORD CrashReport::s_exitCode = 0;
std::string* CrashReport::s_report = nullptr;

TEST_F(CrashReport, ProcessEndsWithExitCode42)
{
    // Without a display the box does not stay, and nothing holds the process.
    ASSERT_TRUE(s_started);
    ASSERT_TRUE(s_ended);
    EXPECT_EQ(42u, s_exitCode);
}

TEST_F(CrashReport, HeaderFaultAddressAndRegisters)
{
    const std::string head = "//--- begin of report ---\n//=====================================================\n"
                             "Exception code: 80000004 SINGLE_STEP\n";
    ASSERT_EQ(head, Report().substr(0, head.size())) << Report().substr(0, 500);

    // The fault is the start of the report function, in the first section.
    std::smatch fault;
    const std::regex faultLine("Fault address:  (" + kAddress + ") 01:([0-9A-F]{8}) (.*)\n");
    ASSERT_TRUE(std::regex_search(Report(), fault, faultLine));
    EXPECT_EQ(Narrow(CrashProcess::ProgramPath()), fault[3].str());
    DWORD64 imageBase = 0;
    DWORD textAddress = 0;
    ASSERT_TRUE(ProgramLayout(imageBase, textAddress));
    EXPECT_EQ(std::stoull(fault[1].str(), nullptr, 16),
              imageBase + textAddress + std::stoull(fault[2].str(), nullptr, 16));
    const std::vector<FrameLine> frames = CallStackLines(FirstCallStack(Report()));
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(fault[1].str(), frames[0].address);
    EXPECT_EQ("WriteExceptionReport", frames[0].function);

    // Registers in their order and widths; the instruction pointer is the fault address.
    std::string registers = "\nRegisters:\n";
    for (const char* name : kRegisters)
        registers += std::string(name) + ":" + kAddress + "\n";
    registers += kInstructionPointer + std::string("[0-9A-F]{4}:") + fault[1].str() + WithAddresses(kStackPointers) +
                 "\nDS:[0-9A-F]{4}  ES:[0-9A-F]{4}  FS:[0-9A-F]{4}  GS:[0-9A-F]{4}\nFlags:[0-9A-F]{8}\n\nCall stack:\n";
    const size_t start = Report().find("\nRegisters:\n");
    ASSERT_NE(std::string::npos, start);
    EXPECT_TRUE(std::regex_search(Report().substr(start, 800), std::regex("^" + registers)))
        << Report().substr(start, 800);
}

TEST_F(CrashReport, CallStackNamesTheFunctionsWithTheirSourceLines)
{
    const std::vector<FrameLine> frames = CallStackLines(FirstCallStack(Report()));
    const std::vector<std::string> expected = {"WriteExceptionReport", "HandlePureVirtualCall", "__cxa_pure_virtual",
                                               "Abstract::Start",      "Abstract",              "Concrete",
                                               "MakeObject",           "HoldSpecialValues",     "HoldArray",
                                               "HoldLocals",           "main"};
    ASSERT_GE(frames.size(), expected.size()) << FirstCallStack(Report());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(expected[i], frames[i].function) << i;
    EXPECT_NE(std::string::npos, frames[0].source.find("diagnostics\\ExceptionReport.cpp line "));
    // The start-up code has no symbol: its logical address, and no source part.
    const std::string program = Narrow(CrashProcess::ProgramPath());
    EXPECT_TRUE(std::regex_search(FirstCallStack(Report()),
                                  std::regex(WithAddresses("\nADDRESS  ADDRESS  0001:[0-9A-F]{8} ") +
                                             std::regex_replace(program, std::regex("[\\\\.]"), "\\$&") + "\n")))
        << FirstCallStack(Report());

    // Each frame of the program shows the line it returns to: the call's own
    // line or the statement after it.
    const std::pair<size_t, const char*> calls[] = {
        {3, "void Start() { Run(); }"},      {4, "Abstract() { Start(); }"},
        {6, "    Concrete object;"},          {7, "    MakeObject(depth + 1);"},
        {8, "    HoldSpecialValues(depth + 1);"}, {9, "    HoldArray(depth + 1);"},
        {10, "    HoldLocals(1);"}};
    const std::regex programLine("  .*\\\\CrashProgram\\.cpp line ([0-9]+)( \\+ [0-9]+)?");
    for (const auto& call : calls)
    {
        const int callLine = SourceLine(call.second);
        ASSERT_GT(callLine, 0) << call.second;
        std::smatch match;
        const std::string& source = frames[call.first].source;
        ASSERT_TRUE(std::regex_match(source, match, programLine))
            << frames[call.first].function << ": " << source;
        const int line = std::stoi(match[1].str());
        EXPECT_GE(line, callLine) << frames[call.first].function;
        EXPECT_LE(line, callLine + 2) << frames[call.first].function;
    }
}

TEST_F(CrashReport, SecondWalkShowsParametersAndLocals)
{
    EXPECT_EQ(2u, [&] {
        size_t count = 0;
        for (size_t at = Report().find("\nCall stack:\n"); at != std::string::npos;
             at = Report().find("\nCall stack:\n", at + 1))
            ++count;
        return count;
    }());
    EXPECT_TRUE(std::regex_match(FrameVariables(Report(), "HoldLocals"),
                                 std::regex("Parameter 'depth': 1\nLocal 'x': 5\nLocal 'p': \\*\"abc\"\\(" + kAddress +
                                            "\\)\n")))
        << FrameVariables(Report(), "HoldLocals");
    EXPECT_EQ("Parameter 'depth': 4\nLocal 'object':  class\n", FrameVariables(Report(), "MakeObject"));
    EXPECT_EQ(0u, FrameVariables(Report(), "Abstract::Start").find("Parameter 'this': *("));
}

TEST_F(CrashReport, ArrayShowsTheFirst256ItemsAndTheSelfLinkOnce)
{
    const std::string variables = FrameVariables(Report(), "HoldArray");
    const std::string numbers = "Parameter 'depth': 2\nLocal 'numbers': \n"
                                "\t= 300 array items (only the first 256 items are dumped)\n" +
                                ExpectedNumbers();
    ASSERT_EQ(numbers, variables.substr(0, numbers.size()));
    std::smatch link;
    ASSERT_TRUE(std::regex_search(variables, link, std::regex("- 'self'\\*\\((" + kAddress + ")\\)\n")))
        << variables;
    const std::string address = link[1];
    EXPECT_EQ(numbers + "Local 'link':  struct\n\t- 'value'7\n\t- 'self'*(" + address +
                  ")\nLocal 'linkPointer': *(" + address + ") struct\n\t- 'value'7\n\t- 'self'\n",
              variables);
}

TEST_F(CrashReport, SpecialFormsAndUnreadableValues)
{
    const std::string variables = FrameVariables(Report(), "HoldSpecialValues");
    const std::string expected = std::string("Parameter 'depth': 3\n"
                                             "Local 'guid': \\{12345678-9ABC-DEF0-0123-456789ABCDEF\\}\n"
                                             "Local 'number': 4711\n"
                                             "Local 'broken': punting on symbol 'broken'\n"
                                             "Local 'window': HWND=0x1234 is not a window\n"
                                             "Local 'wide': \\*L\"wide text\"\\(") +
                                 kAddress +
                                 "\\) = 0x77\n"
                                 "Local 'dangling': \\*@ 0x" + std::string(sizeof(void*) * 2 - 2, '0') + "10\n"
                                 "Local 'colour': 0x2\n"
                                 "Local 'pair':  struct\n\t- 'low'-3\n\t- 'inner' struct\n\t\t- 'ratio'0.5\n"
                                 "\t\t- 'tag''q'\n"
                                 "Local 'newline': '\\\\n'\n";
    EXPECT_TRUE(std::regex_match(variables, std::regex(expected))) << variables;
}

TEST_F(CrashReport, GlobalsOfTheFaultingModuleAndTheEnd)
{
    const size_t globals = Report().find("========================\nGlobal Variables\n");
    ASSERT_NE(std::string::npos, globals);
    EXPECT_LT(Report().find("Local Variables And Parameters\n"), globals);
    const std::string tail = Report().substr(globals);
    EXPECT_NE(std::string::npos, tail.find("\nVar 'g_counter': 77\n"));
    EXPECT_TRUE(std::regex_search(
        tail, std::regex("\nVar 'g_link':  struct\n\t- 'value'11\n\t- 'self'\\*\\(" + kAddress + "\\)\n")));
    const std::string end = "\n\n//--- end of report ---\n";
    ASSERT_GE(Report().size(), end.size());
    EXPECT_EQ(end, Report().substr(Report().size() - end.size()));
}

// --- the error box, on a display (see error_box_test.sh) -------------------

namespace
{
struct BoxSearch
{
    DWORD processId;
    std::string caption;
    HWND found;
    std::vector<std::string> seen;
};

std::string WindowText(HWND window)
{
    std::vector<char> text(4096);
    const int length = GetWindowTextA(window, text.data(), static_cast<int>(text.size()));
    return std::string(text.data(), length > 0 ? length : 0);
}

BOOL CALLBACK FindBox(HWND window, LPARAM context)
{
    auto* search = reinterpret_cast<BoxSearch*>(context);
    DWORD processId = 0;
    GetWindowThreadProcessId(window, &processId);
    if (processId != search->processId || !IsWindowVisible(window))
        return TRUE;
    search->seen.push_back(WindowText(window));
    if (search->seen.back() != search->caption)
        return TRUE;
    search->found = window;
    return FALSE;
}

struct BoxContents
{
    std::string text;
    bool icon = false;
};

BOOL CALLBACK ReadBox(HWND child, LPARAM context)
{
    auto* contents = reinterpret_cast<BoxContents*>(context);
    char name[64] = "";
    GetClassNameA(child, name, sizeof name);
    if (lstrcmpiA(name, "Static") != 0)
        return TRUE;
    if ((GetWindowLongA(child, GWL_STYLE) & SS_TYPEMASK) == SS_ICON)
        contents->icon = true;
    else if (contents->text.empty())
        contents->text = WindowText(child);
    return TRUE;
}
}  // namespace

TEST(ErrorBox, StaysUntilOkIsPressedThenTheReportIsWritten)
{
    char display[256];
    if (!GetEnvironmentVariableA("DISPLAY", display, sizeof display))
    {
        if (GetEnvironmentVariableA("CRASH_ERROR_BOX_REQUIRED", display, sizeof display))
            FAIL() << "no DISPLAY for the error box";
        GTEST_SKIP() << "no display: run by error_box_test.sh";
    }
    CrashProcess program(TestFilesDirectory() + L"crash_box.txt");
    ASSERT_TRUE(program.Started());
    BoxSearch search = {program.Id(), Narrow(CrashProcess::ProgramPath()), nullptr, {}};
    for (int attempt = 0; attempt < 300 && !search.found && program.IsRunning(); ++attempt)
    {
        search.seen.clear();
        EnumWindows(FindBox, reinterpret_cast<LPARAM>(&search));
        if (!search.found)
            Sleep(100);
    }
    ASSERT_NE(nullptr, search.found) << "windows of the program: " << ::testing::PrintToString(search.seen);

    BoxContents contents;
    EnumChildWindows(search.found, ReadBox, reinterpret_cast<LPARAM>(&contents));
    EXPECT_EQ("Runtime Error!\n\nR6025 - pure virtual function call in module:\n\n'" + search.caption +
                  "'\n\nThe application will be closed after a callstack dump was written\nto the application trace "
                  "file when previously actived via Lumen.exe\n\nPlease pass this file along with additional "
                  "information to the support personal.",
              contents.text);
    EXPECT_TRUE(contents.icon);

    // While the box is open the handler waits: no report yet.
    Sleep(300);
    EXPECT_TRUE(program.IsRunning());
    EXPECT_EQ(std::string::npos, program.Trace().find("Exception code"));

    HWND ok = GetDlgItem(search.found, IDOK);
    ASSERT_NE(nullptr, ok);
    DWORD_PTR result = 0;
    SendMessageTimeoutA(ok, BM_CLICK, 0, 0, SMTO_ABORTIFHUNG, 5000, &result);
    DWORD exitCode = 0;
    ASSERT_TRUE(program.WaitForExit(60000, exitCode));
    EXPECT_EQ(42u, exitCode);
    EXPECT_NE(std::string::npos, program.Trace().find("\nException code: 80000004 SINGLE_STEP\n"));
    EXPECT_NE(std::string::npos, program.Trace().find("\n//--- end of report ---\n"));
}
