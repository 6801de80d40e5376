// The parts of the crash report that the end-to-end report of CrashProgram does not reach: C++ exceptions
// through a fault guard, and reports of exceptions made up here.
#include <gtest/gtest.h>
#include <windows.h>
#include <cstdio>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>
#include <tuple>
#include "TestSupport.h"
#include "diagnostics/ContextCapture.h"
#include "diagnostics/ExceptionReport.h"
#include "diagnostics/FaultGuard.h"

// The report's nested guards, one of them ending in a fault, are in the end-to-end report.
TEST(FaultGuard, ExceptionsAndDebugNotificationsAreNoFaults)
{
    int steps = 0;
    auto faulting = [&] {
        ++steps;
        *reinterpret_cast<volatile char*>(static_cast<ULONG_PTR>(0x20)) = 1;
        ++steps;
    };
    // An exception passes through an inner guard; a fault after it ends the outer one.
    auto outer = [&] {
        auto throwing = [] { throw std::runtime_error("passes"); };
        EXPECT_THROW(CFaultGuard::Run(throwing), std::runtime_error);
        faulting();
    };
    EXPECT_FALSE(CFaultGuard::Run(outer));
    EXPECT_EQ(1, steps);
    EXPECT_FALSE(CFaultGuard::IsProcessorFault(DBG_PRINTEXCEPTION_C));
}

namespace
{
// The report of input and the address where it must say the fault is. Null input: an access violation "raised"
// here, with this frame's context. Without readable input (no context, or a pointer that cannot be read) the
// report substitutes a single step at the start of the report function.
__attribute__((noinline)) std::string ReportHere(const EXCEPTION_POINTERS* input, std::string& fault)
{
    TraceCapture trace;
    CONTEXT context = {};
    CAPTURE_CONTEXT(&context);
#ifdef _WIN64
    const DWORD64 here = context.Rip;
#else
    const DWORD64 here = context.Eip;
#endif
    EXCEPTION_RECORD record = {EXCEPTION_ACCESS_VIOLATION};
    record.ExceptionAddress = reinterpret_cast<void*>(static_cast<ULONG_PTR>(here));
    const EXCEPTION_POINTERS pointers = {&record, &context};
    WriteExceptionReport(input ? input : &pointers);
    char text[32];
    _snprintf(text, sizeof text, sizeof(void*) == 8 ? "%016I64X" : "%08I64X",
              input ? DWORD64(reinterpret_cast<ULONG_PTR>(&WriteExceptionReport)) : here);
    fault = text;
    return trace.Text();
}
}  // namespace

TEST(ExceptionReport, CodeFaultRegistersAndBothWalksStartAtTheFault)
{
    EXCEPTION_RECORD record = {};
    const EXCEPTION_POINTERS noContext = {&record, nullptr};
    // Code, the function where both walks start, input.
    const std::tuple<const char*, const char*, const EXCEPTION_POINTERS*> cases[] = {
        {"C0000005 ACCESS_VIOLATION", "ReportHere", nullptr},
        {"80000004 SINGLE_STEP", "WriteExceptionReport", &noContext},
        {"80000004 SINGLE_STEP", "WriteExceptionReport", reinterpret_cast<const EXCEPTION_POINTERS*>(ULONG_PTR(0x10))},
    };
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    for (const auto& [code, firstFunction, input] : cases)
    {
        SCOPED_TRACE(code);
        std::string fault;
        const std::string report = ReportHere(input, fault);
        EXPECT_NE(std::string::npos, report.find(std::string("\nException code: ") + code + "\nFault address:  " +
                                                 fault + " 01:"))
            << report.substr(0, 300);
        EXPECT_NE(std::string::npos, report.find(std::string(" ") + program + "\n"));
        EXPECT_TRUE(std::regex_search(report, std::regex("\nCS:[ER]IP:[0-9A-F]{4}:" + fault + "\n")));
        // Both walks start there, in the function that is expected.
        const std::regex walk("SourceFile\n" + fault + "  [0-9A-F]+  " + firstFunction + "\\+");
        EXPECT_EQ(2, std::distance(std::sregex_iterator(report.begin(), report.end(), walk), std::sregex_iterator()));
    }
}
