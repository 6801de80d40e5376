// The parts of the crash report that the end-to-end report of CrashProgram
// does not reach (message lookup, both ways of module enumeration, long
// pieces, nested guards), and reports of exceptions made up in this process.
#include <gtest/gtest.h>
#include <windows.h>
#include <tlhelp32.h>
#include <cstdio>
#include <functional>
#include <iterator>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include "PK_Trace.h"
#include "TestMessages.h"
#include "TestSupport.h"
#include "diagnostics/ContextCapture.h"
#include "diagnostics/ExceptionNames.h"
#include "diagnostics/ExceptionReport.h"
#include "diagnostics/FaultGuard.h"
#include "diagnostics/ModuleEnumerator.h"
#include "diagnostics/ReportWriter.h"

namespace
{
std::string Address(DWORD64 value)
{
    char text[32];
    _snprintf(text, sizeof text, sizeof(void*) == 8 ? "%016I64X" : "%08I64X", value);
    return text;
}

std::string ModulePath()
{
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    return path;
}
}  // namespace

// Codes outside the table of names take the system text: Wine's NTDLL has
// none, so the lookup is tried on this program's own message table.
TEST(ExceptionNames, MessageTableLookup)
{
    const HMODULE self = GetModuleHandleW(nullptr);
    const char* text = CExceptionNames::LookupMessage(self, TEST_MESSAGE_WITH_INSERT);
    EXPECT_STREQ("The test message keeps its insert %1 as it is.\r\n", text);
    // One shared buffer: a code without text, a message beyond its 512 bytes
    // and a null module all leave it empty.
    EXPECT_EQ(text, CExceptionNames::LookupMessage(self, 0xC1230077));
    EXPECT_STREQ("", text);
    EXPECT_STREQ("", CExceptionNames::LookupMessage(self, TEST_MESSAGE_TOO_LONG));
    EXPECT_STREQ("", CExceptionNames::LookupMessage(nullptr, TEST_MESSAGE_WITH_INSERT));
}

TEST(ModuleEnumeration, BothWaysGiveAllBasesOrTheCountThatIsNeeded)
{
    using EnumerateFn = BOOL (*)(DWORD, DWORD, HMODULE*, DWORD*);
    const std::pair<const char*, EnumerateFn> ways[] = {
        {"process status", &CModuleEnumerator::EnumerateWithProcessStatus},
        {"tool help", &CModuleEnumerator::EnumerateWithToolHelp}, {"by platform", &CModuleEnumerator::Enumerate}};
    const DWORD id = GetCurrentProcessId();
    for (const auto& way : ways)
    {
        SCOPED_TRACE(way.first);
        const EnumerateFn enumerate = way.second;
        DWORD count = 0;
        ASSERT_TRUE(enumerate(id, 0, nullptr, &count)) << GetLastError();
        // After the first call: the process-status way loads its library.
        std::set<HMODULE> expected;
        HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, id);
        MODULEENTRY32W entry = {sizeof entry};
        for (BOOL more = Module32FirstW(snapshot, &entry); more; more = Module32NextW(snapshot, &entry))
            expected.insert(entry.hModule);
        CloseHandle(snapshot);
        ASSERT_TRUE(expected.count(GetModuleHandleW(nullptr)) && expected.count(GetModuleHandleW(L"kernel32.dll")));
        EXPECT_EQ(expected.size(), count);
        HMODULE bases[256] = {};
        DWORD filled = 0;
        ASSERT_TRUE(enumerate(id, count + 4, bases, &filled));
        EXPECT_EQ(count, filled);
        EXPECT_EQ(expected, std::set<HMODULE>(bases, bases + filled));

        // Too few entries: 122, with the count of all and the bases that fit.
        HMODULE two[2] = {};
        SetLastError(0);
        EXPECT_FALSE(enumerate(id, 2, two, &count));
        EXPECT_EQ(DWORD(ERROR_INSUFFICIENT_BUFFER), GetLastError());
        EXPECT_EQ(expected.size(), count);
        EXPECT_TRUE(expected.count(two[0]));
    }
}

TEST(ReportWriter, LongPiecesAreCutNotLostAtErrorLevel)
{
    TraceCapture trace;
    CReportWriter().Write("<%s>", std::string(50000, 'b').c_str());
    ASSERT_EQ(1u, trace.Lines().size());
    EXPECT_EQ(CPkTrace::LevelError, trace.Levels()[0]);
    EXPECT_GT(trace.Lines()[0].size(), 40000u);
    EXPECT_EQ(0u, trace.Lines()[0].find("<bbb"));
}

TEST(FaultGuard, FaultEndsOnlyTheGuardedPiece)
{
    int steps = 0;
    auto inner = [&] {
        ++steps;
        *reinterpret_cast<volatile char*>(static_cast<ULONG_PTR>(0x20)) = 1;
        ++steps;
    };
    auto outer = [&] {
        EXPECT_FALSE(CFaultGuard::Run(inner));
        ++steps;
    };
    EXPECT_TRUE(CFaultGuard::Run(outer));
    EXPECT_EQ(2, steps);

    // C++ exceptions pass through, and the guard is left behind cleanly; debug notifications are no faults.
    auto throwing = [] { throw std::runtime_error("passes"); };
    EXPECT_THROW(CFaultGuard::Run(throwing), std::runtime_error);
    EXPECT_FALSE(CFaultGuard::Run(inner));
    EXPECT_EQ(3, steps);

    EXPECT_FALSE(CFaultGuard::IsProcessorFault(DBG_PRINTEXCEPTION_C));
}

namespace
{
#ifdef _WIN64
DWORD64 InstructionPointer(const CONTEXT& context) { return context.Rip; }
#else
DWORD64 InstructionPointer(const CONTEXT& context) { return context.Eip; }
#endif

// A report of an exception "raised" here, with this frame's context, and the
// address where it says the fault is.
__attribute__((noinline)) std::string ReportRaisedHere(DWORD code, std::string& fault)
{
    TraceCapture trace;
    CONTEXT context = {};
    CAPTURE_CONTEXT(&context);
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = code;
    record.ExceptionAddress = reinterpret_cast<void*>(static_cast<ULONG_PTR>(InstructionPointer(context)));
    EXCEPTION_POINTERS pointers = {&record, &context};
    WriteExceptionReport(&pointers);
    fault = Address(InstructionPointer(context));
    return trace.Text();
}

// Without readable input (no context, or a pointer that cannot be read) the
// report substitutes a single step at the start of the report function.
__attribute__((noinline)) std::string ReportWithoutInput(const EXCEPTION_POINTERS* input, std::string& fault)
{
    TraceCapture trace;
    WriteExceptionReport(input);
    fault = Address(reinterpret_cast<ULONG_PTR>(&WriteExceptionReport));
    return trace.Text();
}
}  // namespace

TEST(ExceptionReport, CodeFaultRegistersAndBothWalksStartAtTheFault)
{
    EXCEPTION_RECORD record = {};
    const EXCEPTION_POINTERS noContext = {&record, nullptr};
    const struct
    {
        const char* code;
        const char* firstFunction;
        std::function<std::string(std::string&)> report;
    } cases[] = {
        {"C0000005 ACCESS_VIOLATION", "ReportRaisedHere", [](std::string& f) { return ReportRaisedHere(0xC0000005, f); }},
        {"80000004 SINGLE_STEP", "WriteExceptionReport", [&](std::string& f) { return ReportWithoutInput(&noContext, f); }},
        {"80000004 SINGLE_STEP", "WriteExceptionReport", [](std::string& f) {
             return ReportWithoutInput(reinterpret_cast<const EXCEPTION_POINTERS*>(ULONG_PTR(0x10)), f);
         }},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.code);
        std::string fault;
        const std::string report = c.report(fault);
        EXPECT_NE(std::string::npos, report.find(std::string("\nException code: ") + c.code + "\nFault address:  " +
                                                 fault + " 01:"))
            << report.substr(0, 300);
        EXPECT_NE(std::string::npos, report.find(" " + ModulePath() + "\n"));
        EXPECT_TRUE(std::regex_search(report, std::regex("\nCS:[ER]IP:[0-9A-F]{4}:" + fault + "\n")));
        // Both walks start there, in the function that is expected.
        const std::regex walk("SourceFile\n" + fault + "  [0-9A-F]+  " + c.firstFunction + "\\+");
        EXPECT_EQ(2, std::distance(std::sregex_iterator(report.begin(), report.end(), walk), std::sregex_iterator()));
    }
}
