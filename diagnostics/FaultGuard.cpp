// Resumable fault guard on a vectored exception handler.
#include "diagnostics/FaultGuard.h"
#include "diagnostics/ContextCapture.h"

namespace
{
struct GuardFrame
{
    CONTEXT resume;            // processor state at entry of the guard
    volatile LONG faulted;
    DWORD threadId;
    GuardFrame* outer;
};

// The innermost guard; a report runs on one thread at a time.
GuardFrame* volatile g_innermost = nullptr;


LONG CALLBACK ResumeAfterFault(EXCEPTION_POINTERS* info)
{
    GuardFrame* frame = g_innermost;
    if (!frame || frame->threadId != GetCurrentThreadId() ||
        !CFaultGuard::IsProcessorFault(info->ExceptionRecord->ExceptionCode))
        return EXCEPTION_CONTINUE_SEARCH;
    frame->faulted = 1;
    *info->ContextRecord = frame->resume;
    return EXCEPTION_CONTINUE_EXECUTION;
}

class VectoredHandler
{
public:
    VectoredHandler() : m_handle(AddVectoredExceptionHandler(1, ResumeAfterFault)) {}
    ~VectoredHandler()
    {
        if (m_handle)
            RemoveVectoredExceptionHandler(m_handle);
    }
    bool Installed() const { return m_handle != nullptr; }

private:
    VectoredHandler(const VectoredHandler&) = delete;
    VectoredHandler& operator=(const VectoredHandler&) = delete;
    PVOID m_handle;
};
}  // namespace

bool CFaultGuard::IsProcessorFault(DWORD code)
{
    switch (code)
    {
    case EXCEPTION_ACCESS_VIOLATION:
    case EXCEPTION_IN_PAGE_ERROR:
    case EXCEPTION_DATATYPE_MISALIGNMENT:
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
    case EXCEPTION_ILLEGAL_INSTRUCTION:
    case EXCEPTION_PRIV_INSTRUCTION:
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
    case EXCEPTION_INT_OVERFLOW:
    case EXCEPTION_FLT_DENORMAL_OPERAND:
    case EXCEPTION_FLT_DIVIDE_BY_ZERO:
    case EXCEPTION_FLT_INEXACT_RESULT:
    case EXCEPTION_FLT_INVALID_OPERATION:
    case EXCEPTION_FLT_OVERFLOW:
    case EXCEPTION_FLT_STACK_CHECK:
    case EXCEPTION_FLT_UNDERFLOW:
    case EXCEPTION_STACK_OVERFLOW:
        return true;
    default:
        return false;
    }
}

// Not inlined: the resume point must stay inside this frame, and only
// memory (the volatile flag) is trusted after a resume.
__attribute__((noinline)) bool CFaultGuard::Run(void (*body)(void* context), void* context)
{
    VectoredHandler handler;
    if (!handler.Installed())
        return false;
    GuardFrame frame;
    frame.faulted = 0;
    frame.threadId = GetCurrentThreadId();
    frame.outer = g_innermost;
    // The outer guard is innermost again however this one ends: by a fault,
    // by a return or by a C++ exception that passes through.
    struct Restore
    {
        GuardFrame* outer;
        ~Restore() { g_innermost = outer; }
    } restore = {frame.outer};
    CAPTURE_CONTEXT(&frame.resume);
    if (frame.faulted)
        return false;
    g_innermost = &frame;
    body(context);
    return true;
}
