// WriteExceptionReport inside this process: with exception input, and
// without it (or with input that cannot be read) on its substitute.
#include <gtest/gtest.h>
#include <windows.h>
#include <cstdio>
#include <string>
#include "TestSupport.h"
#include "diagnostics/ExceptionReport.h"

namespace
{
std::string Hex(const char* format, DWORD64 value)
{
    char text[64];
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

DWORD64 InstructionPointer(const CONTEXT& context)
{
#ifdef _WIN64
    return context.Rip;
#else
    return context.Eip;
#endif
}

// A report for an exception "raised" here, with this frame's context.
__attribute__((noinline)) std::string ReportRaisedHere(DWORD code, CONTEXT& context)
{
    TraceCapture trace;
    int marker = 1234;
    RtlCaptureContext(&context);
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = code;
    record.ExceptionAddress = reinterpret_cast<void*>(static_cast<ULONG_PTR>(InstructionPointer(context)));
    EXCEPTION_POINTERS pointers = {&record, &context};
    WriteExceptionReport(&pointers);
    return marker == 1234 ? trace.Text() : std::string();
}

__attribute__((noinline)) std::string ReportWithoutInput(const EXCEPTION_POINTERS* input)
{
    TraceCapture trace;
    WriteExceptionReport(input);
    return trace.Text();
}

size_t Occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}
}  // namespace

TEST(ExceptionReport, ExceptionInputGivesItsCodeAddressAndRegisters)
{
    CONTEXT context = {};
    const std::string report = ReportRaisedHere(0xC0000005, context);
    const std::string header = "//--- begin of report ---\n//=====================================================\n"
                               "Exception code: C0000005 ACCESS_VIOLATION\nFault address:  " +
                               Address(InstructionPointer(context)) + " 01:";
    ASSERT_EQ(header, report.substr(0, header.size()));
    const std::string faultLineEnd = " " + ModulePath() + "\n";
    EXPECT_EQ(faultLineEnd, report.substr(header.size() + 8, faultLineEnd.size()));
    EXPECT_EQ(1u, Occurrences(report, RegisterLines(context)));

    // The walk starts in the raising function, and its locals are there.
    const std::string firstFrame = "Address   Frame     Function            SourceFile\n" +
                                   Address(InstructionPointer(context)) + "  ";
    EXPECT_EQ(2u, Occurrences(report, firstFrame));
    EXPECT_NE(std::string::npos, report.find("ReportRaisedHere+"));
    EXPECT_NE(std::string::npos, report.find("ReportTest.cpp line "));
    EXPECT_NE(std::string::npos, report.find("Local 'marker': 1234\n"));
    EXPECT_NE(std::string::npos, report.find("Parameter 'code': 0xC0000005\n"));
    EXPECT_NE(std::string::npos, report.find("========================\nLocal Variables And Parameters\n"));
    EXPECT_NE(std::string::npos, report.find("========================\nGlobal Variables\n"));
    const std::string end = "\n//--- end of report ---\n";
    EXPECT_EQ(end, report.substr(report.size() - end.size()));
}

TEST(ExceptionReport, CodeOutsideTheTableShowsTheSystemText)
{
    CONTEXT context = {};
    const std::string report = ReportRaisedHere(0xE0000001, context);
    char text[512] = "";
    FormatMessageA(FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE, GetModuleHandleA("NTDLL.DLL"),
                   0xE0000001, 0, text, sizeof text, nullptr);
    EXPECT_NE(std::string::npos, report.find("\nException code: E0000001 " + std::string(text) + "\n"));
}

TEST(ExceptionReport, WithoutInputTheSubstituteStartsInTheReportFunction)
{
    const DWORD64 start = reinterpret_cast<ULONG_PTR>(&WriteExceptionReport);
    EXCEPTION_RECORD record = {};
    const EXCEPTION_POINTERS noContext = {&record, nullptr};
    for (const EXCEPTION_POINTERS* input :
         {static_cast<const EXCEPTION_POINTERS*>(nullptr), &noContext,
          reinterpret_cast<const EXCEPTION_POINTERS*>(static_cast<ULONG_PTR>(0x10))})
    {
        const std::string report = ReportWithoutInput(input);
        EXPECT_NE(std::string::npos, report.find("\nException code: 80000004 SINGLE_STEP\nFault address:  " +
                                                 Address(start) + " 01:"));
        EXPECT_NE(std::string::npos, report.find("\nCS:" + std::string(sizeof(void*) == 8 ? "RIP" : "EIP") + ":"));
        EXPECT_NE(std::string::npos, report.find(":" + Address(start) + "\n"));
        // First frame: the report function at its start; then its caller.
        const std::string frames = "SourceFile\n" + Address(start) + "  ";
        const size_t first = report.find(frames);
        ASSERT_NE(std::string::npos, first);
        const size_t lineEnd = report.find('\n', first + frames.size());
        EXPECT_NE(std::string::npos, report.substr(first, lineEnd - first).find("  WriteExceptionReport+0"));
        const size_t secondEnd = report.find('\n', lineEnd + 1);
        EXPECT_NE(std::string::npos, report.substr(lineEnd, secondEnd - lineEnd).find("  ReportWithoutInput+"));
        EXPECT_EQ(2u, Occurrences(report, frames));
    }
}
