// Resumable fault guard on a vectored exception handler.
#include "diagnostics/FaultGuard.h"
#include <cstddef>

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

#ifndef _WIN64
// The state at the return into the caller, like setjmp. The system's
// capture on this machine follows the frame-pointer chain and records the
// caller's caller, whose frame the guard cannot resume in.
static_assert(offsetof(CONTEXT, SegGs) == 0x8C && offsetof(CONTEXT, Edi) == 0x9C &&
                  offsetof(CONTEXT, Ebp) == 0xB4 && offsetof(CONTEXT, Esp) == 0xC4 &&
                  offsetof(CONTEXT, SegSs) == 0xC8,
              "context of the i386 machine");
__attribute__((naked, noinline, returns_twice)) void CaptureCallerContext(CONTEXT*)
{
    asm("pushl %eax\n\t"
        "movl 8(%esp), %eax\n\t"          // the context
        "movl $0x10007, (%eax)\n\t"       // control, integer and segment registers
        "popl 0xb0(%eax)\n\t"             // Eax
        "movl %ebx, 0xa4(%eax)\n\t"
        "movl %ecx, 0xac(%eax)\n\t"
        "movl %edx, 0xa8(%eax)\n\t"
        "movl %esi, 0xa0(%eax)\n\t"
        "movl %edi, 0x9c(%eax)\n\t"
        "movl %ebp, 0xb4(%eax)\n\t"
        "movl (%esp), %ecx\n\t"
        "movl %ecx, 0xb8(%eax)\n\t"       // Eip: the return address
        "leal 4(%esp), %ecx\n\t"
        "movl %ecx, 0xc4(%eax)\n\t"       // Esp after the return
        "pushfl\n\t"
        "popl 0xc0(%eax)\n\t"
        "xorl %ecx, %ecx\n\t"
        "movw %gs, %cx\n\t"
        "movl %ecx, 0x8c(%eax)\n\t"
        "movw %fs, %cx\n\t"
        "movl %ecx, 0x90(%eax)\n\t"
        "movw %es, %cx\n\t"
        "movl %ecx, 0x94(%eax)\n\t"
        "movw %ds, %cx\n\t"
        "movl %ecx, 0x98(%eax)\n\t"
        "movw %cs, %cx\n\t"
        "movl %ecx, 0xbc(%eax)\n\t"
        "movw %ss, %cx\n\t"
        "movl %ecx, 0xc8(%eax)\n\t"
        "movl 0xac(%eax), %ecx\n\t"
        "movl 0xb0(%eax), %eax\n\t"
        "ret");
}
#endif

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
#ifdef _WIN64
    RtlCaptureContext(&frame.resume);
#else
    CaptureCallerContext(&frame.resume);
#endif
    if (frame.faulted)
    {
        g_innermost = frame.outer;
        return false;
    }
    g_innermost = &frame;
    body(context);
    g_innermost = frame.outer;
    return true;
}
