#pragma once
// Access tests on the process's own memory, made with VirtualQuery so that
// testing never faults (the crash report reads memory it knows nothing about).
#include <windows.h>

class CMemoryProbe
{
public:
    static bool IsReadable(DWORD64 address, DWORD64 size);
    static bool IsWritable(const void* address, DWORD64 size);
    static bool IsExecutable(const void* address);

    // Copies sizeof(T) bytes when all of them are readable.
    template <class T>
    static bool Read(DWORD64 address, T& value)
    {
        if (!IsReadable(address, sizeof value))
            return false;
        CopyMemory(&value, reinterpret_cast<const void*>(static_cast<ULONG_PTR>(address)), sizeof value);
        return true;
    }

    // A zero-terminated string of up to maxLength characters (the terminator
    // counted among them) into text[maxLength + 1]; false when a character
    // before the end is unreadable.
    static bool ReadString(DWORD64 address, char* text, size_t maxLength);
    static bool ReadWideString(DWORD64 address, wchar_t* text, size_t maxLength);

private:
    static bool HasAccess(DWORD64 address, DWORD64 size, DWORD accessMask);
    template <class Char>
    static bool ReadZeroTerminated(DWORD64 address, Char* text, size_t maxLength);
};

// Pointer form of an address of the process (32-bit clean: addresses beyond
// the pointer width never reach here, IsReadable rejects them first).
inline void* AsPointer(DWORD64 address)
{
    return reinterpret_cast<void*>(static_cast<ULONG_PTR>(address));
}

inline DWORD64 AsAddress(const void* pointer)
{
    return static_cast<DWORD64>(reinterpret_cast<ULONG_PTR>(pointer));
}
