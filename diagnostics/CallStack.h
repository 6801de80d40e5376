#pragma once
// The call stack section of the crash report: one line per frame with
// address, frame, function and source line, optionally followed by the
// frame's parameters and locals.
#include <windows.h>
#include "diagnostics/ReportWriter.h"
#include "diagnostics/SymbolDumper.h"

class CCallStack
{
public:
    CCallStack(CReportWriter& writer, CSymbolDumper& dumper, HANDLE process)
        : m_writer(writer), m_dumper(dumper), m_process(process)
    {
    }

    // Walks from context (which the walk changes) on the current thread.
    void Write(CONTEXT& context, bool withVariables);

    // Source lines are looked for this many bytes back from an address.
    static const DWORD kLineTries = 100;

private:
    void WriteFunction(DWORD64 address);
    void WriteSourceLine(DWORD64 address);
    void WriteVariables(const STACKFRAME64& frame);

    CReportWriter& m_writer;
    CSymbolDumper& m_dumper;
    HANDLE m_process;
};
