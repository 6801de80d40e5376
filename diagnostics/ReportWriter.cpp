// Crash report text to the application trace.
#include "diagnostics/ReportWriter.h"
#include <cstdarg>
#include <cstdio>
#include <vector>
#include "PK_Trace.h"

namespace
{
// Kept out of the classes: the debug information of this platform shows a
// static member of a local object as if it were stored in the object.
const size_t kPieceSizes[] = {2049, 6145, 12289, 20481, 30721, 43009};
const size_t kValuePieceSize = 1023;

std::string FormatPiece(const char* format, va_list args)
{
    std::vector<char> buffer;
    for (size_t size : kPieceSizes)
    {
        buffer.assign(size, '\0');
        va_list copy;
        va_copy(copy, args);
        // The system's formatter: the report uses its forms (%I64X, %S, %C).
        const int length = _vsnprintf(buffer.data(), size - 1, format, copy);
        va_end(copy);
        if (length >= 0)
            break;
    }
    return std::string(buffer.data());
}
}  // namespace

void CReportWriter::Begin()
{
    g_StdPkTraceInstance.BeginReport();
}

void CReportWriter::AfterCallStack()
{
    g_StdPkTraceInstance.AfterCallStack();
}

void CReportWriter::End()
{
    g_StdPkTraceInstance.EndReport();
}

void CReportWriter::Write(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string piece = FormatPiece(format, args);
    va_end(args);
    g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "%s", piece.c_str());
}

void CValueText::Append(const char* format, ...)
{
    char piece[kValuePieceSize];
    va_list args;
    va_start(args, format);
    const int length = _vsnprintf(piece, sizeof piece - 1, format, args);
    va_end(args);
    if (length >= 0)
    {
        piece[length] = '\0';
        m_text += piece;
    }
}
