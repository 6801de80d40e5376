// Crash report: header, fault, registers, call stacks and globals.
#include "diagnostics/ExceptionReport.h"
#include <dbghelp.h>
#include "diagnostics/CallStack.h"
#include "diagnostics/ContextCapture.h"
#include "diagnostics/ExceptionNames.h"
#include "diagnostics/FaultGuard.h"
#include "diagnostics/LogicalAddress.h"
#include "diagnostics/MemoryProbe.h"
#include "diagnostics/ReportWriter.h"
#include "diagnostics/SymbolDumper.h"
#include "diagnostics/SymbolHandler.h"

#ifndef _WIN64
static_assert(sizeof(EXCEPTION_RECORD) == 80, "exception record of the i386 machine");
#endif

namespace
{
const DWORD kSubstituteCode = 0x80000004;  // SINGLE_STEP
// Undecorated names, deferred loads, line numbers, nearest match through address maps.
const DWORD kSymbolOptions = SYMOPT_UNDNAME | SYMOPT_DEFERRED_LOADS | SYMOPT_LOAD_LINES | SYMOPT_OMAP_FIND_NEAREST;
static_assert(kSymbolOptions == 0x36, "symbol options of the report");

DWORD64 ReportFunctionAddress()
{
    return AsAddress(reinterpret_cast<const void*>(&WriteExceptionReport));
}
}  // namespace

void CExceptionReport::MakeSubstitute(EXCEPTION_RECORD& record, CONTEXT& context)
{
    ZeroMemory(&record, sizeof record);
    record.ExceptionCode = kSubstituteCode;
    record.ExceptionAddress = AsPointer(ReportFunctionAddress());
#ifdef _WIN64
    // The unwinder reads a frame from where the instruction pointer stands,
    // so the substitute is the state on entry of the report function: its
    // caller's registers, the stack pointer at the return address.
    DWORD64 imageBase = 0;
    if (PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(context.Rip, &imageBase, nullptr))
    {
        PVOID handlerData = nullptr;
        DWORD64 establisherFrame = 0;
        RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, context.Rip, function, &context, &handlerData,
                         &establisherFrame, nullptr);
        context.Rsp -= sizeof(DWORD64);
    }
    context.Rip = ReportFunctionAddress();
#else
    // The frame-pointer walk starts from the report function's own frame,
    // which the capture recorded.
    context.Eip = static_cast<DWORD>(ReportFunctionAddress());
#endif
}

void CExceptionReport::Write(CSymbolHandler& symbols)
{
    auto sections = [&] { WriteSections(symbols); };
    try
    {
        CFaultGuard::Run(sections);
    }
    catch (...)
    {
    }
}

void CExceptionReport::WriteSections(CSymbolHandler& symbols)
{
    const DWORD64 address = AsAddress(m_record.ExceptionAddress);
    m_writer.Write("//=====================================================\n");
    m_writer.Write("Exception code: %08X %s\n", static_cast<unsigned>(m_record.ExceptionCode),
                   CExceptionNames::Lookup(m_record.ExceptionCode));
    char modulePath[MAX_PATH] = "";
    DWORD section = 0;
    DWORD64 offset = 0;
    CLogicalAddress::Find(address, modulePath, sizeof modulePath, section, offset);
    m_writer.Write("Fault address:  " REPORT_ADDRESS " %02X:%08X %s\n", address, static_cast<unsigned>(section),
                   static_cast<unsigned>(offset), modulePath);
    WriteRegisters();

    const HANDLE process = GetCurrentProcess();
    // Set before the modules are loaded: this platform's debug-help reads
    // line numbers only for modules loaded while they are asked for.
    SymSetOptions(kSymbolOptions);
    if (!symbols.Initialize(GetCurrentProcessId()))
        return;
    CSymbolDumper dumper(m_writer, process);
    CCallStack callStack(m_writer, dumper, process);
    CONTEXT walked = m_context;
    callStack.Write(walked, false);
    m_writer.AfterCallStack();

    m_writer.Write("========================\n");
    m_writer.Write("Local Variables And Parameters\n");
    walked = m_context;
    callStack.Write(walked, true);

    m_writer.Write("========================\n");
    m_writer.Write("Global Variables\n");
    if (HMODULE module = modulePath[0] ? GetModuleHandleA(modulePath) : nullptr)
        dumper.DumpModule(AsAddress(module));
    symbols.Cleanup();
    m_writer.Write("\n");
}

void CExceptionReport::WriteRegisters()
{
    const CONTEXT& c = m_context;
    m_writer.Write("\nRegisters:\n");
#ifdef _WIN64
    m_writer.Write("RAX:%016I64X\nRBX:%016I64X\nRCX:%016I64X\nRDX:%016I64X\nRSI:%016I64X\nRDI:%016I64X\n", c.Rax,
                   c.Rbx, c.Rcx, c.Rdx, c.Rsi, c.Rdi);
    m_writer.Write("R8:%016I64X\nR9:%016I64X\nR10:%016I64X\nR11:%016I64X\n", c.R8, c.R9, c.R10, c.R11);
    m_writer.Write("R12:%016I64X\nR13:%016I64X\nR14:%016I64X\nR15:%016I64X\n", c.R12, c.R13, c.R14, c.R15);
    m_writer.Write("CS:RIP:%04X:%016I64X\n", c.SegCs, c.Rip);
    m_writer.Write("SS:RSP:%04X:%016I64X  RBP:%016I64X\n", c.SegSs, c.Rsp, c.Rbp);
#else
    m_writer.Write("EAX:%08X\nEBX:%08X\nECX:%08X\nEDX:%08X\nESI:%08X\nEDI:%08X\n", static_cast<unsigned>(c.Eax),
                   static_cast<unsigned>(c.Ebx), static_cast<unsigned>(c.Ecx), static_cast<unsigned>(c.Edx),
                   static_cast<unsigned>(c.Esi), static_cast<unsigned>(c.Edi));
    m_writer.Write("CS:EIP:%04X:%08X\n", static_cast<unsigned>(c.SegCs), static_cast<unsigned>(c.Eip));
    m_writer.Write("SS:ESP:%04X:%08X  EBP:%08X\n", static_cast<unsigned>(c.SegSs), static_cast<unsigned>(c.Esp),
                   static_cast<unsigned>(c.Ebp));
#endif
    m_writer.Write("DS:%04X  ES:%04X  FS:%04X  GS:%04X\n", static_cast<unsigned>(c.SegDs),
                   static_cast<unsigned>(c.SegEs), static_cast<unsigned>(c.SegFs), static_cast<unsigned>(c.SegGs));
    m_writer.Write("Flags:%08X\n", static_cast<unsigned>(c.EFlags));
}

// Not inlined: its start is the substitute's fault address and its frame the
// first of the walk.
__attribute__((noinline)) void WriteExceptionReport(const EXCEPTION_POINTERS* exception)
{
    CReportWriter writer;
    writer.Begin();
    EXCEPTION_POINTERS input = {};
    EXCEPTION_RECORD record;
    CONTEXT context;
    // Exception input is used only when all of it is readable.
    const bool hasInput = CMemoryProbe::Read(AsAddress(exception), input) &&
                          CMemoryProbe::Read(AsAddress(input.ExceptionRecord), record) &&
                          CMemoryProbe::Read(AsAddress(input.ContextRecord), context);
    if (!hasInput)
    {
        // A failed read may have left part of a context behind.
        ZeroMemory(&context, sizeof context);
        CAPTURE_CONTEXT(&context);
        CExceptionReport::MakeSubstitute(record, context);
    }
    // Outside the guarded part, so that a fault still cleans the handler up.
    CSymbolHandler symbols(GetCurrentProcess());
    CExceptionReport(writer, record, context).Write(symbols);
    symbols.Cleanup();
    writer.End();
}
