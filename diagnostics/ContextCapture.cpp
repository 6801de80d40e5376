// The processor state at the return into the caller, on i386.
#include "diagnostics/ContextCapture.h"
#include <cstddef>

#ifndef _WIN64
static_assert(offsetof(CONTEXT, SegGs) == 0x8C && offsetof(CONTEXT, Edi) == 0x9C &&
                  offsetof(CONTEXT, Ebp) == 0xB4 && offsetof(CONTEXT, Esp) == 0xC4 &&
                  offsetof(CONTEXT, SegSs) == 0xC8,
              "context of the i386 machine");
void CaptureCallerContext(CONTEXT*)
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
