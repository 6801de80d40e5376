// Error reports: one trace entry each.
#include "PK_Error.h"
#include "PK_Trace.h"

HRESULT CError::ImplHandleCException(CException* exception, const char* message, const char* file,
                                     int line, DWORD code)
{
    char text[256] = "<no exception>";
    if (exception && !exception->GetErrorMessage(text, sizeof text))
        lstrcpynA(text, "<no message>", sizeof text);
    g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "%s(%d) : exception 0x%x: %s%s%s\n", file ? file : "",
                               line, static_cast<unsigned>(code), text, message ? " - " : "",
                               message ? message : "");
    return E_UNEXPECTED;
}

HRESULT CError::ImplHandleInternal(const char* message, const char* file, int line, DWORD code)
{
    g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "%s(%d) : internal error 0x%x: %s\n", file ? file : "",
                               line, static_cast<unsigned>(code), message ? message : "<no message>");
    return E_FAIL;
}
