// The parts of the crash report (exception names, logical addresses, module
// enumeration, text assembly, character forms, the fault guard) and whole
// reports written inside this process.
#include <gtest/gtest.h>
#include <windows.h>
#include <tlhelp32.h>
#include <algorithm>
#include <cstdio>
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
#include "diagnostics/LogicalAddress.h"
#include "diagnostics/ModuleEnumerator.h"
#include "diagnostics/ReportWriter.h"

namespace
{
std::string SystemText(HMODULE module, DWORD code)
{
    char text[4096] = "";
    return std::string(text, FormatMessageA(FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE, module,
                                            code, 0, text, sizeof text, nullptr));
}

std::string Hex(const char* format, DWORD64 value)
{
    char text[32];
    _snprintf(text, sizeof text, format, value);
    return text;
}

std::string Address(DWORD64 value)
{
    return Hex(sizeof(void*) == 8 ? "%016I64X" : "%08I64X", value);
}

std::string ModulePath()
{
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    return path;
}

// The first section of this program, where its code lies.
const IMAGE_SECTION_HEADER& CodeSection()
{
    const auto* base = reinterpret_cast<const BYTE*>(GetModuleHandleW(nullptr));
    return *IMAGE_FIRST_SECTION(reinterpret_cast<const IMAGE_NT_HEADERS*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew));
}

DWORD64 CodeStart()
{
    return reinterpret_cast<ULONG_PTR>(GetModuleHandleW(nullptr)) + CodeSection().VirtualAddress;
}

size_t Occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}
}  // namespace

TEST(ExceptionNames, TableNamesElseTheSystemText)
{
    const std::pair<DWORD, const char*> named[] = {
        {0x80000001, "GUARD_PAGE"},       {0x80000003, "BREAKPOINT"},
        {0x80000004, "SINGLE_STEP"},      {0xC0000005, "ACCESS_VIOLATION"},
        {0xC0000008, "INVALID_HANDLE"},   {0xC0000025, "NONCONTINUABLE_EXCEPTION"},
        {0xC0000093, "FLT_UNDERFLOW"},    {0xC0000096, "PRIV_INSTRUCTION"},
        {0xC00000FD, "STACK_OVERFLOW"}};
    for (const auto& entry : named)
        EXPECT_STREQ(entry.second, CExceptionNames::Lookup(entry.first)) << std::hex << entry.first;

    // Codes outside the table take the system text: Wine's NTDLL has none, so
    // the lookup is tried on this program's own message table.
    const HMODULE self = GetModuleHandleW(nullptr);
    const char* text = CExceptionNames::LookupMessage(self, TEST_MESSAGE_WITH_INSERT);
    EXPECT_STREQ("The test message keeps its insert %1 as it is.\r\n", text);
    // One shared buffer: a code without text, a message beyond its 512 bytes
    // and a null module all leave it empty.
    EXPECT_EQ(text, CExceptionNames::LookupMessage(self, 0xC1230077));
    EXPECT_STREQ("", text);
    EXPECT_GT(SystemText(self, TEST_MESSAGE_TOO_LONG).size(), 512u);
    EXPECT_STREQ("", CExceptionNames::LookupMessage(self, TEST_MESSAGE_TOO_LONG));
    EXPECT_STREQ("", CExceptionNames::LookupMessage(nullptr, TEST_MESSAGE_WITH_INSERT));
}

TEST(LogicalAddress, SectionEndIsInsideElseTheOutputsKeepTheirValues)
{
    // Code addresses inside: the fault line of the reports below.
    const IMAGE_SECTION_HEADER& code = CodeSection();
    const DWORD64 end = std::max<DWORD>(code.SizeOfRawData, code.Misc.VirtualSize);
    char path[MAX_PATH] = "";
    DWORD section = 0;
    DWORD64 offset = 0;
    ASSERT_TRUE(CLogicalAddress::Find(CodeStart() + end, path, sizeof path, section, offset));
    EXPECT_EQ(1u, section);
    EXPECT_EQ(end, offset);
    EXPECT_EQ(ModulePath(), path);
    section = 7;
    for (DWORD64 outside : {DWORD64(reinterpret_cast<ULONG_PTR>(&offset)), DWORD64(0), DWORD64(0x10)})
        EXPECT_FALSE(CLogicalAddress::Find(outside, path, sizeof path, section, offset)) << outside;
    EXPECT_EQ(ModulePath(), path);
    EXPECT_EQ(7u, section);
    EXPECT_EQ(end, offset);
}

TEST(ModuleEnumeration, BothWaysGiveAllBasesAndTheirLastErrors)
{
    void* readOnly = VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READONLY);
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
        EXPECT_FALSE(enumerate(id, 0, two, &count));
        EXPECT_EQ(DWORD(ERROR_INSUFFICIENT_BUFFER), GetLastError());

        // Outputs that cannot be written: 87.
        const std::pair<HMODULE*, DWORD*> unwritable[] = {{bases, nullptr}, {bases, static_cast<DWORD*>(readOnly)},
                                                         {static_cast<HMODULE*>(readOnly), &count}, {nullptr, &count}};
        for (const auto& outputs : unwritable)
        {
            SetLastError(0);
            EXPECT_FALSE(enumerate(id, 64, outputs.first, outputs.second));
            EXPECT_EQ(DWORD(ERROR_INVALID_PARAMETER), GetLastError());
        }
        SetLastError(0);
        EXPECT_FALSE(enumerate(0xFFFFFFF0u, 0, nullptr, &count));  // no such process
        EXPECT_NE(0u, GetLastError());
    }
    VirtualFree(readOnly, 0, MEM_RELEASE);
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

    EXPECT_TRUE(CFaultGuard::IsProcessorFault(EXCEPTION_INT_DIVIDE_BY_ZERO));
    EXPECT_FALSE(CFaultGuard::IsProcessorFault(EXCEPTION_BREAKPOINT));
    EXPECT_FALSE(CFaultGuard::IsProcessorFault(DBG_PRINTEXCEPTION_C));
}

// --- whole reports of this process ------------------------------------------

namespace
{
#ifdef _WIN64
DWORD64 InstructionPointer(const CONTEXT& context) { return context.Rip; }
#else
DWORD64 InstructionPointer(const CONTEXT& context) { return context.Eip; }
#endif

// A report of an exception "raised" here, with this frame's context.
__attribute__((noinline)) std::string ReportRaisedHere(DWORD code, CONTEXT& context)
{
    TraceCapture trace;
    CAPTURE_CONTEXT(&context);
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = code;
    record.ExceptionAddress = reinterpret_cast<void*>(static_cast<ULONG_PTR>(InstructionPointer(context)));
    EXCEPTION_POINTERS pointers = {&record, &context};
    WriteExceptionReport(&pointers);
    return trace.Text();
}

__attribute__((noinline)) std::string ReportWithoutInput(const EXCEPTION_POINTERS* input)
{
    TraceCapture trace;
    WriteExceptionReport(input);
    return trace.Text();
}
}  // namespace

TEST(ExceptionReport, ExceptionInputGivesItsCodeFaultRegistersAndFirstFrame)
{
    for (const auto& exception : {std::make_pair(0xC0000005u, std::string("ACCESS_VIOLATION")),
                                  std::make_pair(0x80000003u, std::string("BREAKPOINT"))})
    {
        CONTEXT context = {};
        const std::string report = ReportRaisedHere(exception.first, context);
        const DWORD64 ip = InstructionPointer(context);
        const std::string head = "//--- begin of report ---\n//=====================================================\n"
                                 "Exception code: " + Hex("%08I64X", exception.first) + " " + exception.second +
                                 "\nFault address:  " + Address(ip) + " 01:" + Hex("%08I64X", ip - CodeStart()) +
                                 " " + ModulePath() + "\n";
        ASSERT_EQ(head, report.substr(0, head.size()));
        EXPECT_TRUE(std::regex_search(report, std::regex("\nRegisters:\n(.*\n){6,16}CS:[ER]IP:[0-9A-F]{4}:" +
                                                         Address(ip) + "\n")));
        // Both walks start in the raising function.
        EXPECT_EQ(2u, Occurrences(report, "SourceFile\n" + Address(ip) + "  "));
        EXPECT_NE(std::string::npos, report.find("  ReportRaisedHere+")) << report;
    }
}

// No input at all is the pure-virtual-call case of CrashReportTest.
TEST(ExceptionReport, WithoutReadableInputTheSubstituteStartsInTheReportFunction)
{
    const std::string start = Address(reinterpret_cast<ULONG_PTR>(&WriteExceptionReport));
    const std::regex firstFrames("^SourceFile\n" + start + "  [0-9A-F]+  WriteExceptionReport\\+0  [^\n]*\n"
                                 "[0-9A-F]+  [0-9A-F]+  ReportWithoutInput\\+");
    EXCEPTION_RECORD record = {};
    const EXCEPTION_POINTERS noContext = {&record, nullptr};
    for (const EXCEPTION_POINTERS* input : {&noContext, reinterpret_cast<const EXCEPTION_POINTERS*>(ULONG_PTR(0x10))})
    {
        const std::string report = ReportWithoutInput(input);
        EXPECT_NE(std::string::npos, report.find("\nException code: 80000004 SINGLE_STEP\nFault address:  " +
                                                 start + " 01:"));
        EXPECT_TRUE(std::regex_search(report.substr(report.find("\nRegisters:"), 800),
                                      std::regex("\nCS:[ER]IP:[0-9A-F]{4}:" + start + "\n")));
        // The report function at its start, then its caller; the second walk starts there too.
        EXPECT_TRUE(std::regex_search(report.substr(report.find("SourceFile\n"), 400), firstFrames)) << report;
        EXPECT_EQ(2u, Occurrences(report, "SourceFile\n" + start + "  "));
    }
}
