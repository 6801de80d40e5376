#pragma once
// The crash report: exception, faulting module, registers, the call stack
// twice (plain, then with each frame's parameters and locals) and the global
// variables of the faulting module, all to the application trace.
#include <windows.h>

// Writes one report for exception, or, when it is null, for a substitute
// exception SINGLE_STEP raised at the start of this function in its own
// frame (the pure-virtual-call case).
void WriteExceptionReport(const EXCEPTION_POINTERS* exception);

class CReportWriter;
class CSymbolHandler;

class CExceptionReport
{
public:
    CExceptionReport(CReportWriter& writer, const EXCEPTION_RECORD& record, const CONTEXT& context)
        : m_writer(writer), m_record(record), m_context(context)
    {
    }

    // The report between its begin and end notices; a fault or an exception
    // ends it early.
    void Write(CSymbolHandler& symbols);

    // The substitute exception of WriteExceptionReport from the context that
    // function captured of itself.
    static void MakeSubstitute(EXCEPTION_RECORD& record, CONTEXT& context);

private:
    void WriteSections(CSymbolHandler& symbols);
    void WriteRegisters();

    CReportWriter& m_writer;
    const EXCEPTION_RECORD& m_record;
    const CONTEXT& m_context;
};
