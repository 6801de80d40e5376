// Access tests on the process's own memory.
#include "diagnostics/MemoryProbe.h"

namespace
{
const DWORD kReadable = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                        PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
const DWORD kWritable = PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
const DWORD kExecutable = PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
}  // namespace

bool CMemoryProbe::HasAccess(DWORD64 address, DWORD64 size, DWORD accessMask)
{
    // Addresses beyond the pointer width do not exist in this process.
    const DWORD64 limit = static_cast<DWORD64>(static_cast<ULONG_PTR>(-1));
    if (address == 0 || address > limit || size > limit - address + 1)
        return false;
    DWORD64 next = address;
    const DWORD64 last = size ? address + size - 1 : address;
    for (;;)
    {
        MEMORY_BASIC_INFORMATION region;
        if (VirtualQuery(AsPointer(next), &region, sizeof region) != sizeof region)
            return false;
        if (region.State != MEM_COMMIT || (region.Protect & (PAGE_GUARD | PAGE_NOACCESS)) ||
            !(region.Protect & accessMask))
            return false;
        const DWORD64 regionLast = AsAddress(region.BaseAddress) + region.RegionSize - 1;
        if (regionLast >= last)
            return true;
        next = regionLast + 1;
    }
}

bool CMemoryProbe::IsReadable(DWORD64 address, DWORD64 size)
{
    return HasAccess(address, size, kReadable);
}

bool CMemoryProbe::IsWritable(const void* address, DWORD64 size)
{
    return HasAccess(AsAddress(address), size, kWritable);
}

bool CMemoryProbe::IsExecutable(const void* address)
{
    return HasAccess(AsAddress(address), 1, kExecutable);
}

template <class Char>
bool CMemoryProbe::ReadZeroTerminated(DWORD64 address, Char* text, size_t maxLength)
{
    size_t length = 0;
    for (; length < maxLength; ++length)
    {
        Char c;
        if (!Read(address + length * sizeof(Char), c))
            return false;
        if (c == 0)
            break;
        text[length] = c;
    }
    text[length] = 0;
    return true;
}

bool CMemoryProbe::ReadString(DWORD64 address, char* text, size_t maxLength)
{
    return ReadZeroTerminated(address, text, maxLength);
}

bool CMemoryProbe::ReadWideString(DWORD64 address, wchar_t* text, size_t maxLength)
{
    return ReadZeroTerminated(address, text, maxLength);
}
