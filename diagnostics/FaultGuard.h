#pragma once
// Runs a piece of the crash report so that a processor fault inside it (a
// read of memory that went away, a call through a broken interface pointer)
// ends only that piece. Without compiler-level structured exception handling
// the guard captures the processor state on entry and a vectored exception
// handler resumes there when the guarded thread faults; the frames in
// between are abandoned (the process ends soon after a report anyway).
// Guards nest. C++ exceptions and debug notifications pass untouched.
#include <windows.h>

class CFaultGuard
{
public:
    // Calls body(context); false when a processor fault ended it early.
    static bool Run(void (*body)(void* context), void* context);

    template <class Body>
    static bool Run(Body& body)
    {
        return Run([](void* context) { (*static_cast<Body*>(context))(); }, &body);
    }

    // Whether a fault of this code ends the guarded piece.
    static bool IsProcessorFault(DWORD code);
};
