#pragma once
// Writer of the crash report: every piece of text goes to the application
// trace at error level; the report's begin, end and the point after its
// first call stack are announced to the trace as well.
#include <windows.h>
#include <string>

// Addresses in the report: 8 hex digits on 32-bit machines, 16 on 64-bit
// ones; always passed as DWORD64.
#ifdef _WIN64
#define REPORT_ADDRESS "%016I64X"
#else
#define REPORT_ADDRESS "%08I64X"
#endif

#define REPORT_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(ms_printf, formatIndex, firstArgument)))

class CReportWriter
{
public:
    void Begin();
    void AfterCallStack();
    void End();

    // Formats one piece and writes it: buffers of 2,049, 6,145, 12,289,
    // 20,481, 30,721 and 43,009 bytes are tried in turn, and text beyond the
    // last is cut.
    void Write(const char* format, ...) REPORT_PRINTF(2, 3);
};

// The text of one value, put together from small formatted pieces. A piece
// that does not fit a buffer of 1,023 characters is left out.
class CValueText
{
public:
    void Append(const char* format, ...) REPORT_PRINTF(2, 3);
    void Append(const std::string& text) { m_text += text; }
    const std::string& Text() const { return m_text; }

private:
    std::string m_text;
};
