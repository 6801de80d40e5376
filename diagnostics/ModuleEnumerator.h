#pragma once
// Base addresses of the modules of a process, through the process-status
// library on Windows NT 4 and through the tool-help functions elsewhere.
// Both libraries are looked up at run time, once per process.
#include <windows.h>

class CModuleEnumerator
{
public:
    // Stores up to capacity module bases into bases and the number of
    // modules into *count. Capacity 0 with a null array asks for the count
    // only. Fails with last error 122 when the process has more modules than
    // capacity, 87 when count or bases (capacity entries) is not writable,
    // 1114 when the library or one of its functions is missing.
    static BOOL Enumerate(DWORD processId, DWORD capacity, HMODULE* bases, DWORD* count);

    // The two ways, each as Enumerate describes.
    static BOOL EnumerateWithProcessStatus(DWORD processId, DWORD capacity, HMODULE* bases, DWORD* count);
    static BOOL EnumerateWithToolHelp(DWORD processId, DWORD capacity, HMODULE* bases, DWORD* count);

private:
    static bool UsesProcessStatus();
    static bool CheckArguments(DWORD capacity, HMODULE* bases, DWORD* count);
    static BOOL Finish(DWORD seen, DWORD capacity, HMODULE* bases, DWORD* count);
};
