// Stack walk of the crash report.
#include "diagnostics/CallStack.h"
#include <dbghelp.h>
#include "diagnostics/LogicalAddress.h"

namespace
{
#ifdef _WIN64
const DWORD kMachine = IMAGE_FILE_MACHINE_AMD64;
#else
const DWORD kMachine = IMAGE_FILE_MACHINE_I386;  // 0x14C
#endif

// A corrupt stack can loop; no real stack of this component is this deep.
const unsigned kMaxFrames = 4096;

void Seed(ADDRESS64& address, DWORD64 offset)
{
    address.Offset = offset;
    address.Mode = AddrModeFlat;
}

// Aligned room for a symbol with a name of up to 1024 characters.
union SymbolBuffer
{
    SYMBOL_INFO symbol;
    char bytes[sizeof(SYMBOL_INFO) + 1024];
};
}  // namespace

void CCallStack::Write(CONTEXT& context, bool withVariables)
{
    m_writer.Write("\nCall stack:\n");
    m_writer.Write("Address   Frame     Function            SourceFile\n");
    STACKFRAME64 frame = {};
#ifdef _WIN64
    Seed(frame.AddrPC, context.Rip);
    Seed(frame.AddrFrame, context.Rbp);
    Seed(frame.AddrStack, context.Rsp);
#else
    Seed(frame.AddrPC, context.Eip);
    Seed(frame.AddrFrame, context.Ebp);
    Seed(frame.AddrStack, context.Esp);
#endif
    for (unsigned count = 0; count < kMaxFrames; ++count)
    {
        if (!StackWalk64(kMachine, m_process, GetCurrentThread(), &frame, &context, nullptr,
                         SymFunctionTableAccess64, SymGetModuleBase64, nullptr))
            break;
        if (frame.AddrFrame.Offset == 0)
            break;
        m_writer.Write(REPORT_ADDRESS "  " REPORT_ADDRESS "  ", frame.AddrPC.Offset, frame.AddrFrame.Offset);
        WriteFunction(frame.AddrPC.Offset);
        WriteSourceLine(frame.AddrPC.Offset);
        m_writer.Write("\n");
        if (withVariables)
            WriteVariables(frame);
    }
}

void CCallStack::WriteFunction(DWORD64 address)
{
    SymbolBuffer buffer = {};
    buffer.symbol.SizeOfStruct = sizeof(SYMBOL_INFO);
    buffer.symbol.MaxNameLen = 1024;
    DWORD64 displacement = 0;
    if (SymFromAddr(m_process, address, &displacement, &buffer.symbol))
    {
        m_writer.Write("%s+%I64X", buffer.symbol.Name, displacement);
        return;
    }
    // A call that does not return can be a function's last instruction: its
    // return address is then just past the function's end.
    if (SymFromAddr(m_process, address - 1, &displacement, &buffer.symbol))
    {
        m_writer.Write("%s+%I64X", buffer.symbol.Name, displacement + 1);
        return;
    }
    char path[MAX_PATH] = "";
    DWORD section = 0;
    DWORD64 offset = 0;
    CLogicalAddress::Find(address, path, sizeof path, section, offset);
    m_writer.Write("%04X:%08X %s", static_cast<unsigned>(section), static_cast<unsigned>(offset), path);
}

void CCallStack::WriteSourceLine(DWORD64 address)
{
    IMAGEHLP_LINE64 line = {};
    line.SizeOfStruct = sizeof line;
    DWORD displacement = 0;
    for (DWORD back = 0; back < kLineTries; ++back)
    {
        if (!SymGetLineFromAddr64(m_process, address - back, &displacement, &line))
            continue;
        if (back > 0)
            displacement = back;
        if (displacement == 0)
            m_writer.Write("  %s line %u", line.FileName, static_cast<unsigned>(line.LineNumber));
        else
            m_writer.Write("  %s line %u + %lu", line.FileName, static_cast<unsigned>(line.LineNumber),
                           displacement);
        return;
    }
}

void CCallStack::WriteVariables(const STACKFRAME64& frame)
{
    IMAGEHLP_STACK_FRAME scope = {};
    scope.InstructionOffset = frame.AddrPC.Offset;
    scope.FrameOffset = frame.AddrFrame.Offset;
    scope.StackOffset = frame.AddrStack.Offset;
    SymSetContext(m_process, &scope, nullptr);
    m_dumper.DumpScope(frame.AddrFrame.Offset, frame.AddrStack.Offset);
    m_writer.Write("\n");
}
