#include "Common/ErrorTrace.h"

HRESULT TraceErrorLine(const char* file, int line, HRESULT hr)
{
    char message[128];
    const int length = CPkTrace::SystemMessage(hr, message, sizeof message);
    g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "%s(%d) : error 0x%x: %s\n", file, line,
                               static_cast<unsigned>(hr), length ? message : "<unknown>");
    return hr;
}
