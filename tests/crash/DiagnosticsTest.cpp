// The parts of the crash report: exception names, logical addresses, module
// enumeration, text assembly, character forms and the fault guard.
#include <gtest/gtest.h>
#include <windows.h>
#include <tlhelp32.h>
#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include "PK_Trace.h"
#include "TestMessages.h"
#include "TestSupport.h"
#include "diagnostics/ExceptionNames.h"
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
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE, module, code,
                                        0, text, sizeof text, nullptr);
    return std::string(text, length);
}

const IMAGE_SECTION_HEADER* Sections(HMODULE module, WORD& count)
{
    const BYTE* base = reinterpret_cast<const BYTE*>(module);
    const IMAGE_NT_HEADERS* headers =
        reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    count = headers->FileHeader.NumberOfSections;
    return IMAGE_FIRST_SECTION(headers);
}

std::set<HMODULE> ToolHelpModules()
{
    std::set<HMODULE> modules;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, GetCurrentProcessId());
    MODULEENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Module32FirstW(snapshot, &entry); more; more = Module32NextW(snapshot, &entry))
        modules.insert(entry.hModule);
    CloseHandle(snapshot);
    return modules;
}

// A page of memory with the given protection, released on destruction.
class ProtectedPage
{
public:
    explicit ProtectedPage(DWORD protection)
        : m_page(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE))
    {
        DWORD old = 0;
        VirtualProtect(m_page, 4096, protection, &old);
    }
    ~ProtectedPage() { VirtualFree(m_page, 0, MEM_RELEASE); }
    template <class T>
    T* As() const
    {
        return static_cast<T*>(m_page);
    }

private:
    void* m_page;
};

using EnumerateFn = BOOL (*)(DWORD, DWORD, HMODULE*, DWORD*);
}  // namespace

// --- exception names -------------------------------------------------------

TEST(ExceptionNames, FixedTable)
{
    EXPECT_STREQ("GUARD_PAGE", CExceptionNames::Lookup(0x80000001));
    EXPECT_STREQ("BREAKPOINT", CExceptionNames::Lookup(0x80000003));
    EXPECT_STREQ("SINGLE_STEP", CExceptionNames::Lookup(0x80000004));
    EXPECT_STREQ("ACCESS_VIOLATION", CExceptionNames::Lookup(0xC0000005));
    EXPECT_STREQ("INVALID_HANDLE", CExceptionNames::Lookup(0xC0000008));
    EXPECT_STREQ("NONCONTINUABLE_EXCEPTION", CExceptionNames::Lookup(0xC0000025));
    EXPECT_STREQ("FLT_UNDERFLOW", CExceptionNames::Lookup(0xC0000093));
    EXPECT_STREQ("PRIV_INSTRUCTION", CExceptionNames::Lookup(0xC0000096));
    EXPECT_STREQ("STACK_OVERFLOW", CExceptionNames::Lookup(0xC00000FD));
}

TEST(ExceptionNames, OtherCodesGiveTheSystemTextOfNtdll)
{
    const HMODULE ntdll = GetModuleHandleA("NTDLL.DLL");
    for (DWORD code : {0xC0000017u, 0xC0000135u, 0x80000005u, 0xE06D7363u})
        EXPECT_EQ(SystemText(ntdll, code), CExceptionNames::Lookup(code)) << std::hex << code;
}

TEST(ExceptionNames, MessageLookupIgnoresInsertsAndSharesOneBuffer)
{
    const HMODULE self = GetModuleHandleW(nullptr);
    const char* text = CExceptionNames::LookupMessage(self, TEST_MESSAGE_WITH_INSERT);
    EXPECT_STREQ("The test message keeps its insert %1 as it is.\r\n", text);
    // The next lookup overwrites the same buffer; a code without text leaves it empty.
    const char* none = CExceptionNames::LookupMessage(self, 0xC1230077);
    EXPECT_EQ(text, none);
    EXPECT_STREQ("", none);
    // A message beyond the 512 bytes of the buffer does not fit.
    EXPECT_GT(SystemText(self, TEST_MESSAGE_TOO_LONG).size(), 512u) << "test message present";
    EXPECT_STREQ("", CExceptionNames::LookupMessage(self, TEST_MESSAGE_TOO_LONG));
    EXPECT_STREQ("", CExceptionNames::LookupMessage(nullptr, TEST_MESSAGE_WITH_INSERT));
}

// --- logical address -------------------------------------------------------

TEST(LogicalAddress, CodeAddressNamesSectionOffsetAndModule)
{
    const HMODULE self = GetModuleHandleW(nullptr);
    const DWORD64 base = reinterpret_cast<ULONG_PTR>(self);
    const DWORD64 address = reinterpret_cast<ULONG_PTR>(&SystemText);
    WORD count = 0;
    const IMAGE_SECTION_HEADER* sections = Sections(self, count);
    DWORD expectedSection = 0;
    for (WORD i = 0; i < count && !expectedSection; ++i)
        if (address - base >= sections[i].VirtualAddress &&
            address - base < sections[i].VirtualAddress + sections[i].Misc.VirtualSize)
            expectedSection = i + 1;
    ASSERT_NE(0u, expectedSection);

    char path[MAX_PATH] = "";
    DWORD section = 0;
    DWORD64 offset = 0;
    ASSERT_TRUE(CLogicalAddress::Find(address, path, sizeof path, section, offset));
    EXPECT_EQ(expectedSection, section);
    EXPECT_EQ(address - base - sections[expectedSection - 1].VirtualAddress, offset);
    char expectedPath[MAX_PATH];
    GetModuleFileNameA(nullptr, expectedPath, MAX_PATH);
    EXPECT_STREQ(expectedPath, path);
}

TEST(LogicalAddress, SectionEndIsIncluded)
{
    const HMODULE self = GetModuleHandleW(nullptr);
    WORD count = 0;
    const IMAGE_SECTION_HEADER* first = Sections(self, count);
    const DWORD length = std::max<DWORD>(first->SizeOfRawData, first->Misc.VirtualSize);
    char path[MAX_PATH] = "";
    DWORD section = 0;
    DWORD64 offset = 0;
    ASSERT_TRUE(CLogicalAddress::Find(reinterpret_cast<ULONG_PTR>(self) + first->VirtualAddress + length, path,
                                      sizeof path, section, offset));
    EXPECT_EQ(1u, section);
    EXPECT_EQ(length, offset);
}

TEST(LogicalAddress, AddressOutsideModulesKeepsTheOutputs)
{
    ProtectedPage heap(PAGE_READWRITE);
    char path[MAX_PATH] = "unchanged";
    DWORD section = 7;
    DWORD64 offset = 9;
    EXPECT_FALSE(CLogicalAddress::Find(reinterpret_cast<ULONG_PTR>(heap.As<char>()) + 16, path, sizeof path,
                                       section, offset));
    EXPECT_FALSE(CLogicalAddress::Find(0, path, sizeof path, section, offset));
    EXPECT_FALSE(CLogicalAddress::Find(0x10, path, sizeof path, section, offset));
    EXPECT_STREQ("unchanged", path);
    EXPECT_EQ(7u, section);
    EXPECT_EQ(9u, offset);
}

// --- module enumeration ----------------------------------------------------

class ModuleEnumeration : public ::testing::TestWithParam<EnumerateFn>
{
};

TEST_P(ModuleEnumeration, CountThenAllBases)
{
    const EnumerateFn enumerate = GetParam();
    DWORD count = 0;
    ASSERT_TRUE(enumerate(GetCurrentProcessId(), 0, nullptr, &count)) << GetLastError();
    const std::set<HMODULE> expected = ToolHelpModules();
    EXPECT_EQ(expected.size(), count);
    std::vector<HMODULE> bases(count + 4);
    DWORD filled = 0;
    ASSERT_TRUE(enumerate(GetCurrentProcessId(), static_cast<DWORD>(bases.size()), bases.data(), &filled));
    EXPECT_EQ(count, filled);
    EXPECT_EQ(expected, std::set<HMODULE>(bases.begin(), bases.begin() + filled));
    EXPECT_TRUE(expected.count(GetModuleHandleW(nullptr)));
    EXPECT_TRUE(expected.count(GetModuleHandleW(L"kernel32.dll")));
}

TEST_P(ModuleEnumeration, TooSmallArrayFailsWith122)
{
    HMODULE bases[2] = {};
    DWORD count = 0;
    SetLastError(0);
    EXPECT_FALSE(GetParam()(GetCurrentProcessId(), 2, bases, &count));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
    // The modules that fit are there, the count says how many there are.
    EXPECT_EQ(ToolHelpModules().size(), count);
    EXPECT_TRUE(ToolHelpModules().count(bases[0]));
    EXPECT_FALSE(GetParam()(GetCurrentProcessId(), 0, bases, &count));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
}

TEST_P(ModuleEnumeration, UnwritableOutputsFailWith87)
{
    ProtectedPage readOnly(PAGE_READONLY);
    HMODULE bases[64] = {};
    DWORD count = 0;
    const DWORD id = GetCurrentProcessId();
    SetLastError(0);
    EXPECT_FALSE(GetParam()(id, 64, bases, nullptr));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
    SetLastError(0);
    EXPECT_FALSE(GetParam()(id, 64, bases, readOnly.As<DWORD>()));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
    SetLastError(0);
    EXPECT_FALSE(GetParam()(id, 64, readOnly.As<HMODULE>(), &count));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
    SetLastError(0);
    EXPECT_FALSE(GetParam()(id, 64, nullptr, &count));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
}

TEST_P(ModuleEnumeration, ProcessThatDoesNotExistFails)
{
    DWORD count = 0;
    SetLastError(0);
    EXPECT_FALSE(GetParam()(0xFFFFFFF0u, 0, nullptr, &count));
    EXPECT_NE(0u, GetLastError());
}

INSTANTIATE_TEST_SUITE_P(ProcessStatus, ModuleEnumeration,
                         ::testing::Values(&CModuleEnumerator::EnumerateWithProcessStatus));
INSTANTIATE_TEST_SUITE_P(ToolHelp, ModuleEnumeration, ::testing::Values(&CModuleEnumerator::EnumerateWithToolHelp));
INSTANTIATE_TEST_SUITE_P(ByPlatform, ModuleEnumeration, ::testing::Values(&CModuleEnumerator::Enumerate));

// --- text assembly ---------------------------------------------------------

TEST(ReportWriter, PiecesGoToTheTraceAtErrorLevel)
{
    TraceCapture trace;
    CReportWriter writer;
    writer.Begin();
    writer.Write("Exception code: %08X %s\n", 0x80000004u, "SINGLE_STEP");
    writer.Write("%I64X|%s|%04X", 0x123456789ABCull, "x", 0x2Bu);
    writer.AfterCallStack();
    writer.End();
    ASSERT_EQ(4u, trace.Lines().size());
    EXPECT_EQ("//--- begin of report ---\n", trace.Lines()[0]);
    EXPECT_EQ("Exception code: 80000004 SINGLE_STEP\n", trace.Lines()[1]);
    EXPECT_EQ("123456789ABC|x|002B", trace.Lines()[2]);
    EXPECT_EQ("//--- end of report ---\n", trace.Lines()[3]);
    for (DWORD level : trace.Levels())
        EXPECT_EQ(CPkTrace::LevelError, level);
}

TEST(ReportWriter, LongPiecesGrowTheBufferUntilTheLastSize)
{
    TraceCapture trace;
    CReportWriter writer;
    for (size_t length : {2048u, 2049u, 6144u, 6145u, 20000u, 43008u})
    {
        const std::string text(length, 'a');
        writer.Write("%s", text.c_str());
        ASSERT_EQ(length, trace.Lines().back().size()) << length;
    }
    // Beyond the last size of 43,009 bytes the text is cut.
    const std::string longest(50000, 'b');
    writer.Write("<%s>", longest.c_str());
    EXPECT_EQ(43008u, trace.Lines().back().size());
    EXPECT_EQ('<', trace.Lines().back()[0]);
}

TEST(ValueText, PiecesThatDoNotFitAreLeftOut)
{
    CValueText text;
    text.Append("[%d]", 5);
    text.Append("%s", std::string(1022, 'k').c_str());
    text.Append("%s", std::string(1023, 'x').c_str());  // does not fit 1,023 characters with its end
    text.Append(std::string("|whole text appended|"));
    text.Append("%s", "]");
    EXPECT_EQ("[5]" + std::string(1022, 'k') + "|whole text appended|]", text.Text());
}

// --- name tables and characters --------------------------------------------

TEST(SymbolNames, BasicTypesKindsAndTags)
{
    EXPECT_STREQ("btNoType", CSymbolDumper::BasicTypeName(0));
    EXPECT_STREQ("btChar", CSymbolDumper::BasicTypeName(2));
    EXPECT_STREQ("btULong", CSymbolDumper::BasicTypeName(14));
    EXPECT_STREQ("btHresult", CSymbolDumper::BasicTypeName(31));
    EXPECT_STREQ("unknown BasicType", CSymbolDumper::BasicTypeName(4));
    EXPECT_STREQ("unknown BasicType", CSymbolDumper::BasicTypeName(32));
    EXPECT_EQ("struct", CSymbolDumper::UdtKindName(0));
    EXPECT_EQ("class", CSymbolDumper::UdtKindName(1));
    EXPECT_EQ("union", CSymbolDumper::UdtKindName(2));
    EXPECT_EQ("UdtKind(3)", CSymbolDumper::UdtKindName(3));
    EXPECT_EQ("Null", CSymbolDumper::SymTagName(0));
    EXPECT_EQ("FunctionType", CSymbolDumper::SymTagName(13));
    EXPECT_EQ("Dimension", CSymbolDumper::SymTagName(30));
    EXPECT_EQ("Max", CSymbolDumper::SymTagName(31));
    EXPECT_EQ("SymTagEnum(32)", CSymbolDumper::SymTagName(32));
}

TEST(SymbolNames, NarrowAndWideCharacters)
{
    const std::pair<unsigned, const char*> escaped[] = {{0, "'\\0'"},  {7, "'\\a'"},  {8, "'\\b'"}, {9, "'\\t'"},
                                                        {10, "'\\n'"}, {11, "'\\v'"}, {12, "'\\f'"}, {13, "'\\r'"}};
    for (const auto& entry : escaped)
    {
        CValueText narrow, wide;
        CSymbolDumper::AppendNarrowCharacter(narrow, static_cast<BYTE>(entry.first));
        CSymbolDumper::AppendWideCharacter(wide, static_cast<WCHAR>(entry.first));
        EXPECT_EQ(entry.second, narrow.Text()) << entry.first;
        EXPECT_EQ(std::string("L") + entry.second, wide.Text()) << entry.first;
    }
    CValueText narrow;
    for (BYTE character : {BYTE('A'), BYTE(' '), BYTE(1), BYTE(0x7F), BYTE(0xE4)})
        CSymbolDumper::AppendNarrowCharacter(narrow, character);
    EXPECT_EQ("'A'' ''0x01''0x7F''0xE4'", narrow.Text());
    CValueText wide;
    for (WCHAR character : {WCHAR(L'w'), WCHAR(0x263A), WCHAR(0x1F)})
        CSymbolDumper::AppendWideCharacter(wide, character);
    EXPECT_EQ("L'w'L'0x263A'L'0x001F'", wide.Text());
}

// --- fault guard -----------------------------------------------------------

TEST(FaultGuard, FaultEndsOnlyTheGuardedPiece)
{
    int reached = 0;
    auto faulting = [&] {
        reached = 1;
        volatile int* bad = reinterpret_cast<int*>(static_cast<ULONG_PTR>(0x10));
        reached = *bad;
        reached = 2;
    };
    EXPECT_FALSE(CFaultGuard::Run(faulting));
    EXPECT_EQ(1, reached);
    auto fine = [&] { reached = 3; };
    EXPECT_TRUE(CFaultGuard::Run(fine));
    EXPECT_EQ(3, reached);
}

TEST(FaultGuard, NestedGuardsAndExceptions)
{
    int steps = 0;
    auto outer = [&] {
        auto inner = [&] {
            ++steps;
            *reinterpret_cast<volatile char*>(static_cast<ULONG_PTR>(0x20)) = 1;
        };
        EXPECT_FALSE(CFaultGuard::Run(inner));
        ++steps;
    };
    EXPECT_TRUE(CFaultGuard::Run(outer));
    EXPECT_EQ(2, steps);

    // C++ exceptions pass through, and the guard is left behind cleanly.
    auto throwing = [] { throw std::runtime_error("passes"); };
    EXPECT_THROW(CFaultGuard::Run(throwing), std::runtime_error);
    auto faulting = [] { *reinterpret_cast<volatile int*>(static_cast<ULONG_PTR>(0x30)) = 1; };
    EXPECT_FALSE(CFaultGuard::Run(faulting));
}

TEST(FaultGuard, ProcessorFaultsOnly)
{
    EXPECT_TRUE(CFaultGuard::IsProcessorFault(EXCEPTION_ACCESS_VIOLATION));
    EXPECT_TRUE(CFaultGuard::IsProcessorFault(EXCEPTION_INT_DIVIDE_BY_ZERO));
    EXPECT_FALSE(CFaultGuard::IsProcessorFault(EXCEPTION_BREAKPOINT));
    EXPECT_FALSE(CFaultGuard::IsProcessorFault(DBG_PRINTEXCEPTION_C));
    EXPECT_FALSE(CFaultGuard::IsProcessorFault(0x20474343));  // C++ exceptions of this compiler
}
