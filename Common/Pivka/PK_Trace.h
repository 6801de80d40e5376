#pragma once
// Application trace of the toolkit. Every entry has a level; an entry is
// written when its level shares a bit with the trace mask (all bits by
// default). Entries go to OutputDebugString, to the trace file when one is
// switched on (environment variable PIVKA_TRACE_FILE), and to every
// in-process listener.
#include <windows.h>
#include "PK_Export.h"

class PIVKA_API CPkTrace
{
public:
    enum : DWORD
    {
        LevelError = 0xFFFFFFFFu,   // failures and error trace lines
        LevelInfo = 0x10000000u,    // the store's fixed messages
    };

    // Receives each entry as written (already formatted, line ends kept).
    // It must not throw: no exception may cross into this DLL.
    typedef void (*Listener)(void* context, DWORD level, const char* text);

    CPkTrace();
    ~CPkTrace();

    // printf-style entry; the text is cut at 64 KiB.
    void Trace(DWORD level, const char* format, ...);
    // One entry naming a failed HRESULT at a source position, in the form of
    // the error trace line. Returns hr.
    static HRESULT TraceHr(DWORD level, HRESULT hr, const char* file, int line);

    // The system's message text for hr (default language, trailing line end
    // removed), cut to fit into buffer; returns the length written, 0 when
    // the system has none.
    static int SystemMessage(HRESULT hr, char* buffer, int size);

    static void SetMask(DWORD mask);
    static DWORD GetMask();
    // FALSE when there is no memory for it.
    static BOOL AddListener(Listener listener, void* context);
    static void RemoveListener(Listener listener, void* context);

    // Crash report framing: a report is announced, written piece by piece,
    // marked once after its first call stack, and closed.
    void BeginReport();
    void AfterCallStack();
    void EndReport();

private:
    CPkTrace(const CPkTrace&) = delete;
    CPkTrace& operator=(const CPkTrace&) = delete;
};

extern PIVKA_API CPkTrace g_StdPkTraceInstance;
