// The pure virtual call of CrashProgram.exe: the crash report in its application trace (its structure and the
// values it shows, not addresses and offsets, which change with every build), the exit code 42 and, on a
// display, the error box.
#include <gtest/gtest.h>
#include <cstring>
#include <regex>
#include <string>
#include "TestSupport.h"

namespace
{
const std::wstring kProgram = ProgramDirectory() + L"CrashProgram.exe";

// CrashProgram.exe as a child process, its application trace in a file of its own.
struct CrashProcess
{
    explicit CrashProcess(const wchar_t* traceName) : trace(TestFilesDirectory() + traceName)
    {
        DeleteFileW(trace.c_str());
        // The child copies the environment when it is made; this process's own trace stays here.
        SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", trace.c_str());
        STARTUPINFOW startup = {sizeof startup};
        CreateProcessW(kProgram.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process);
        SetEnvironmentVariableW(L"PIVKA_TRACE_FILE", nullptr);
    }
    ~CrashProcess()
    {
        TerminateProcess(process.hProcess, 1);   // fails when it has ended
        CloseHandle(process.hThread), CloseHandle(process.hProcess);
    }
    // Whether it still runs after waiting up to milliseconds.
    bool Runs(DWORD milliseconds) const { return WaitForSingleObject(process.hProcess, milliseconds) == WAIT_TIMEOUT; }
    // STILL_ACTIVE when it did not end within a minute.
    DWORD ExitCode() const
    {
        DWORD code = STILL_ACTIVE;
        Runs(60000);
        GetExitCodeProcess(process.hProcess, &code);
        return code;
    }

    std::wstring trace;
    PROCESS_INFORMATION process = {};
};

size_t Count(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}
}  // namespace

// One crash without a display (the box returns at once) for all the checks of its report.
TEST(CrashReport, SectionsFramesAndValues)
{
    const CrashProcess program(L"crash_report.txt");
    EXPECT_EQ(42u, program.ExitCode());
    const std::string report = FileText(program.trace);
    size_t at = 0;
    for (const char* section : {"//--- begin of report ---\n", "Exception code: 80000004 SINGLE_STEP\n",
                                "Fault address:  ", "\nRegisters:\n", "\nCall stack:\n",
                                "\nLocal Variables And Parameters\n\nCall stack:\n", "\nGlobal Variables\n",
                                "//--- end of report ---\n"})
    {
        at = report.find(section, at);
        ASSERT_NE(std::string::npos, at) << section << report.substr(0, 2000);
        at += strlen(section);
    }
    EXPECT_EQ(report.size(), at) << "the end line ends the report";
    EXPECT_EQ(2u, Count(report, "\nCall stack:\n"));

    // The first walk from its top, a frame a line; the program's own frames (true) name a line of its source.
    const std::pair<const char*, bool> walk[] = {
        {"WriteExceptionReport", false}, {"HandlePureVirtualCall", false}, {"__cxa_pure_virtual", false},
        {"Abstract::Start", true},       {"Abstract", true},               {"Concrete", false},
        {"MakeObject", true},            {"HoldValues", true},             {"main", true}};
    std::string frames = "\nCall stack:\nAddress   Frame     Function            SourceFile\n";
    for (const auto& [function, ownLine] : walk)
        frames += std::string("[0-9A-F]+  [0-9A-F]+  ") + function + "\\+[0-9A-F]+" +
                  (ownLine ? "  .*CrashProgram\\.cpp line [0-9]+.*\n" : ".*\n");
    EXPECT_TRUE(std::regex_search(report, std::regex(frames))) << report.substr(0, 4000);

    // A frame of the second walk or the globals, up to the blank line that ends it.
    auto shown = [&](const std::string& start) {
        const size_t from = report.find(start, report.find("Local Variables And Parameters\n"));
        return from == std::string::npos ? start + " not found"
                                         : report.substr(from, report.find("\n\n", from) + 1 - from);
    };
    // Where the parts are shown, and the parts.
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"  MakeObject+", {"Parameter 'depth': 2\n", "Local 'object':  struct\n"}},
        {"  HoldValues+",
         {"Parameter 'depth': 1\n", "Local 'text': *\"abc\"(",
          "= 300 array items (only the first 256 items are dumped)\n", "[0 3 6 ", " 765]\n",
          "Local 'link':  struct\n\t- 'value'7\n\t- 'self'*(", "Local 'linkPointer': *(",
          "Local 'guid': {12345678-9ABC-DEF0-0123-456789ABCDEF}\n", "Local 'number': 4711\n",
          "Local 'broken': punting on symbol 'broken'\n", "Local 'window': HWND=0x1234 is not a window\n",
          "Local 'wide': *L\"wide text\"(", "Local 'dangling': *@ 0x", "Local 'colour': 0x2\n",
          "Local 'pair':  struct\n\t- 'low'-3\n\t- 'inner' struct\n\t\t- 'ratio'0.5\n\t\t- 'tag''q'\n",
          "Local 'newline': '\\n'\n"}},
        {"\nGlobal Variables\n", {"\nVar 'g_counter': 77\n", "\nVar 'g_link':  struct\n\t- 'value'11\n"}},
    };
    for (const auto& [start, parts] : cases)
        for (const std::string& part : parts)
            EXPECT_NE(std::string::npos, shown(start).find(part)) << part << "\nin:\n" << shown(start);
    // The self link is followed once: one struct for each of the two locals.
    EXPECT_EQ(2u, Count(shown("  HoldValues+"), "- 'value'7\n"));
}

// On a virtual display (error_box_test.sh): the box holds the process until OK is pressed.
TEST(ErrorBox, StaysUntilOkIsPressedThenTheReportIsWritten)
{
    if (!GetEnvironmentVariableA("DISPLAY", nullptr, 0))
    {
        ASSERT_FALSE(GetEnvironmentVariableA("CRASH_ERROR_BOX_REQUIRED", nullptr, 0)) << "no DISPLAY for the error box";
        GTEST_SKIP() << "no display: run by error_box_test.sh";
    }
    const CrashProcess program(L"crash_box.txt");
    const std::string caption = static_cast<const char*>(_bstr_t(kProgram.c_str()));
    HWND box = nullptr;
    for (int attempt = 0; attempt < 300 && !(box && IsWindowVisible(box)) && program.Runs(100); ++attempt)
        box = FindWindowA(nullptr, caption.c_str());
    ASSERT_TRUE(box && IsWindowVisible(box));

    char text[2048] = "";
    GetDlgItemTextA(box, 0xFFFF, text, sizeof text);   // the box's text control
    EXPECT_EQ("Runtime Error!\n\nR6025 - pure virtual function call in module:\n\n'" + caption +
                  "'\n\nThe application will be closed after a callstack dump was written\nto the application trace "
                  "file when previously actived via Lumen.exe\n\nPlease pass this file along with additional "
                  "information to the support personal.",
              std::string(text));
    // While the box is open the handler waits: no report yet.
    EXPECT_TRUE(program.Runs(300));
    EXPECT_EQ(std::string::npos, FileText(program.trace).find("Exception code"));

    DWORD_PTR result = 0;
    SendMessageTimeoutA(GetDlgItem(box, IDOK), BM_CLICK, 0, 0, SMTO_ABORTIFHUNG, 5000, &result);
    EXPECT_EQ(42u, program.ExitCode());
    EXPECT_NE(std::string::npos, FileText(program.trace).find("\n//--- end of report ---\n"));
}
