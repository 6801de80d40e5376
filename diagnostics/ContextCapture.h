#pragma once
// The processor state of the calling frame, as a fault guard resumes in it
// and a report starts from it. On x86_64 that is the system's capture; on
// i386 the system's capture follows the frame-pointer chain and records the
// caller's caller, so an own one records the state at the return into the
// caller, like setjmp.
#include <windows.h>

#ifndef _WIN64
__attribute__((naked, noinline, returns_twice)) void CaptureCallerContext(CONTEXT* context);
#endif

// A macro, not a function: the capture must happen in the calling frame.
#ifdef _WIN64
#define CAPTURE_CONTEXT(context) RtlCaptureContext(context)
#else
#define CAPTURE_CONTEXT(context) CaptureCallerContext(context)
#endif
