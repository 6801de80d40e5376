// The parts of the crash report (exception names, logical addresses, module
// enumeration, text assembly, the fault guard) and whole reports written
// inside this process.
#include <gtest/gtest.h>
#include <windows.h>
#include <tlhelp32.h>
#include <algorithm>
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
#include "diagnostics/LogicalAddress.h"
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

// The first section of this program, where its code lies.
const IMAGE_SECTION_HEADER& CodeSection()
{
    const auto* base = reinterpret_cast<const BYTE*>(GetModuleHandleW(nullptr));
    return *IMAGE_FIRST_SECTION(reinterpret_cast<const IMAGE_NT_HEADERS*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew));
}

}  // namespace

TEST(ExceptionNames, TableNamesElseTheMessageTable)
{
    EXPECT_STREQ("SINGLE_STEP", CExceptionNames::Lookup(0x80000004));
    EXPECT_STREQ("STACK_OVERFLOW", CExceptionNames::Lookup(0xC00000FD));
    // Codes outside the table take the system text: Wine's NTDLL has none, so
    // the lookup is tried on this program's own message table.
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

TEST(LogicalAddress, SectionEndIsInsideElseTheOutputsKeepTheirValues)
{
    // Code addresses inside: the fault line of the reports below.
    const IMAGE_SECTION_HEADER& code = CodeSection();
    const DWORD64 end = std::max<DWORD>(code.SizeOfRawData, code.Misc.VirtualSize);
    char path[MAX_PATH] = "";
    DWORD section = 0;
    DWORD64 offset = 0;
    const DWORD64 codeStart = reinterpret_cast<ULONG_PTR>(GetModuleHandleW(nullptr)) + code.VirtualAddress;
    ASSERT_TRUE(CLogicalAddress::Find(codeStart + end, path, sizeof path, section, offset));
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

        // Outputs that cannot be written: 87.
        const std::pair<HMODULE*, DWORD*> unwritable[] = {{bases, nullptr}, {bases, static_cast<DWORD*>(readOnly)},
                                                         {static_cast<HMODULE*>(readOnly), &count}, {nullptr, &count}};
        for (const auto& outputs : unwritable)
        {
            SetLastError(0);
            EXPECT_FALSE(enumerate(id, 64, outputs.first, outputs.second));
            EXPECT_EQ(DWORD(ERROR_INVALID_PARAMETER), GetLastError());
        }
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
        {"80000003 BREAKPOINT", "ReportRaisedHere", [](std::string& f) { return ReportRaisedHere(0x80000003, f); }},
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
