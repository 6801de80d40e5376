// Exception names: fixed table, then the system's message table.
#include "diagnostics/ExceptionNames.h"

namespace
{
struct ExceptionName
{
    DWORD code;
    const char* name;
};

const ExceptionName kNames[] = {
    {0x80000001, "GUARD_PAGE"},
    {0x80000002, "DATATYPE_MISALIGNMENT"},
    {0x80000003, "BREAKPOINT"},
    {0x80000004, "SINGLE_STEP"},
    {0xC0000005, "ACCESS_VIOLATION"},
    {0xC0000006, "IN_PAGE_ERROR"},
    {0xC0000008, "INVALID_HANDLE"},
    {0xC000001D, "ILLEGAL_INSTRUCTION"},
    {0xC0000025, "NONCONTINUABLE_EXCEPTION"},
    {0xC0000026, "INVALID_DISPOSITION"},
    {0xC000008C, "ARRAY_BOUNDS_EXCEEDED"},
    {0xC000008D, "FLT_DENORMAL_OPERAND"},
    {0xC000008E, "FLT_DIVIDE_BY_ZERO"},
    {0xC000008F, "FLT_INEXACT_RESULT"},
    {0xC0000090, "FLT_INVALID_OPERATION"},
    {0xC0000091, "FLT_OVERFLOW"},
    {0xC0000092, "FLT_STACK_CHECK"},
    {0xC0000093, "FLT_UNDERFLOW"},
    {0xC0000094, "INT_DIVIDE_BY_ZERO"},
    {0xC0000095, "INT_OVERFLOW"},
    {0xC0000096, "PRIV_INSTRUCTION"},
    {0xC00000FD, "STACK_OVERFLOW"},
};

char g_message[CExceptionNames::kMessageSize];
}  // namespace

const char* CExceptionNames::Lookup(DWORD code)
{
    for (const ExceptionName& entry : kNames)
        if (entry.code == code)
            return entry.name;
    return LookupMessage(GetModuleHandleA("NTDLL.DLL"), code);
}

const char* CExceptionNames::LookupMessage(HMODULE module, DWORD code)
{
    // Cleared first: a code without text must not show the previous one.
    g_message[0] = '\0';
    if (!module)  // a null module would mean the process's executable
        return g_message;
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE, module, code,
                                        0, g_message, sizeof g_message, nullptr);
    g_message[length < sizeof g_message ? length : 0] = '\0';
    return g_message;
}
