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
#include "diagnostics/SymbolDumper.h"

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
    const HMODULE ntdll = GetModuleHandleA("NTDLL.DLL");
    for (DWORD code : {0xC0000017u, 0xC0000135u, 0x80000005u, 0xE06D7363u})
        EXPECT_EQ(SystemText(ntdll, code), CExceptionNames::Lookup(code)) << std::hex << code;

    // Wine's NTDLL has no message table: the same lookup in this program's own.
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

TEST(ReportWriter, PiecesGoToTheTraceAtErrorLevelInGrowingBuffers)
{
    TraceCapture trace;
    CReportWriter writer;
    // Each buffer (2,049 to 43,009 bytes) holds one character less than its size.
    for (size_t length : {2048u, 2049u, 6144u, 6145u, 12288u, 12289u, 20480u, 20481u, 30720u, 30721u, 43008u})
    {
        writer.Write("%s", std::string(length, 'a').c_str());
        EXPECT_EQ(length, trace.Lines().back().size());
        EXPECT_EQ(CPkTrace::LevelError, trace.Levels().back());
    }
    writer.Write("<%s>", std::string(50000, 'b').c_str());
    EXPECT_EQ("<" + std::string(43007, 'b'), trace.Lines().back());

    CValueText text;
    text.Append("[%d]", 5);
    text.Append("%s", std::string(1022, 'k').c_str());
    text.Append("%s", std::string(1023, 'x').c_str());  // beyond the 1,023 characters of a value piece
    text.Append(std::string("|whole text appended|"));
    text.Append("%s", "]");
    EXPECT_EQ("[5]" + std::string(1022, 'k') + "|whole text appended|]", text.Text());
}

TEST(SymbolNames, NamesOutsideTheTablesAndCharacterForms)
{
    EXPECT_STREQ("unknown BasicType", CSymbolDumper::BasicTypeName(32));
    EXPECT_EQ("UdtKind(3)", CSymbolDumper::UdtKindName(3));
    EXPECT_EQ("SymTagEnum(32)", CSymbolDumper::SymTagName(32));
    CValueText narrow, wide;
    for (unsigned character : {0u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 65u, 32u, 1u, 0x7Fu, 0xE4u})
    {
        CSymbolDumper::AppendNarrowCharacter(narrow, static_cast<BYTE>(character));
        CSymbolDumper::AppendWideCharacter(wide, static_cast<WCHAR>(character == 0xE4 ? 0x263A : character));
    }
    EXPECT_EQ("'\\0''\\a''\\b''\\t''\\n''\\v''\\f''\\r''A'' ''0x01''0x7F''0xE4'", narrow.Text());
    EXPECT_EQ("L'\\0'L'\\a'L'\\b'L'\\t'L'\\n'L'\\v'L'\\f'L'\\r'L'A'L' 'L'0x0001'L'0x007F'L'0x263A'", wide.Text());
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
// The register lines the report must show for context.
std::string RegisterLines(const CONTEXT& c)
{
    char text[1024];
#ifdef _WIN64
    _snprintf(text, sizeof text,
              "\nRegisters:\nRAX:%016I64X\nRBX:%016I64X\nRCX:%016I64X\nRDX:%016I64X\nRSI:%016I64X\nRDI:%016I64X\n"
              "R8:%016I64X\nR9:%016I64X\nR10:%016I64X\nR11:%016I64X\nR12:%016I64X\nR13:%016I64X\nR14:%016I64X\n"
              "R15:%016I64X\nCS:RIP:%04X:%016I64X\nSS:RSP:%04X:%016I64X  RBP:%016I64X\n"
              "DS:%04X  ES:%04X  FS:%04X  GS:%04X\nFlags:%08X\n",
              c.Rax, c.Rbx, c.Rcx, c.Rdx, c.Rsi, c.Rdi, c.R8, c.R9, c.R10, c.R11, c.R12, c.R13, c.R14, c.R15,
              c.SegCs, c.Rip, c.SegSs, c.Rsp, c.Rbp, c.SegDs, c.SegEs, c.SegFs, c.SegGs, (unsigned)c.EFlags);
#else
    _snprintf(text, sizeof text,
              "\nRegisters:\nEAX:%08X\nEBX:%08X\nECX:%08X\nEDX:%08X\nESI:%08X\nEDI:%08X\nCS:EIP:%04X:%08X\n"
              "SS:ESP:%04X:%08X  EBP:%08X\nDS:%04X  ES:%04X  FS:%04X  GS:%04X\nFlags:%08X\n",
              (unsigned)c.Eax, (unsigned)c.Ebx, (unsigned)c.Ecx, (unsigned)c.Edx, (unsigned)c.Esi, (unsigned)c.Edi,
              (unsigned)c.SegCs, (unsigned)c.Eip, (unsigned)c.SegSs, (unsigned)c.Esp, (unsigned)c.Ebp,
              (unsigned)c.SegDs, (unsigned)c.SegEs, (unsigned)c.SegFs, (unsigned)c.SegGs, (unsigned)c.EFlags);
#endif
    return text;
}

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
    const std::string systemText = SystemText(GetModuleHandleA("NTDLL.DLL"), 0xE0000001);
    for (const auto& exception : {std::make_pair(0xC0000005u, std::string("ACCESS_VIOLATION")),
                                  std::make_pair(0xE0000001u, systemText)})
    {
        CONTEXT context = {};
        const std::string report = ReportRaisedHere(exception.first, context);
        const DWORD64 ip = InstructionPointer(context);
        const std::string head = "//--- begin of report ---\n//=====================================================\n"
                                 "Exception code: " + Hex("%08I64X", exception.first) + " " + exception.second +
                                 "\nFault address:  " + Address(ip) + " 01:" + Hex("%08I64X", ip - CodeStart()) +
                                 " " + ModulePath() + "\n";
        ASSERT_EQ(head, report.substr(0, head.size()));
        EXPECT_EQ(1u, Occurrences(report, RegisterLines(context)));
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
