// Logical address through the allocation base and the section table.
#include "diagnostics/LogicalAddress.h"
#include <vector>
#include "diagnostics/MemoryProbe.h"

namespace
{
// The section table of the image at base, when its headers are readable.
bool ReadSections(DWORD64 base, std::vector<IMAGE_SECTION_HEADER>& sections)
{
    IMAGE_DOS_HEADER dos;
    if (!CMemoryProbe::Read(base, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE)
        return false;
    const DWORD64 ntHeaders = base + static_cast<DWORD>(dos.e_lfanew);
    DWORD signature;
    IMAGE_FILE_HEADER file;
    if (!CMemoryProbe::Read(ntHeaders, signature) || signature != IMAGE_NT_SIGNATURE ||
        !CMemoryProbe::Read(ntHeaders + sizeof signature, file))
        return false;
    // The table follows the optional header, whatever its width.
    const DWORD64 table = ntHeaders + sizeof signature + sizeof file + file.SizeOfOptionalHeader;
    sections.resize(file.NumberOfSections);
    for (WORD index = 0; index < file.NumberOfSections; ++index)
        if (!CMemoryProbe::Read(table + index * sizeof(IMAGE_SECTION_HEADER), sections[index]))
            return false;
    return !sections.empty();
}
}  // namespace

bool CLogicalAddress::Find(DWORD64 address, char* path, DWORD size, DWORD& section, DWORD64& offset)
{
    MEMORY_BASIC_INFORMATION region;
    if (address > static_cast<DWORD64>(static_cast<ULONG_PTR>(-1)))
        return false;
    if (VirtualQuery(AsPointer(address), &region, sizeof region) != sizeof region || !region.AllocationBase)
        return false;
    const DWORD64 base = AsAddress(region.AllocationBase);
    std::vector<char> modulePath(size ? size : 1, '\0');
    if (!size || !GetModuleFileNameA(static_cast<HMODULE>(region.AllocationBase), modulePath.data(), size))
        return false;
    std::vector<IMAGE_SECTION_HEADER> sections;
    if (!ReadSections(base, sections))
        return false;
    const DWORD64 rva = address - base;
    for (size_t index = 0; index < sections.size(); ++index)
    {
        const IMAGE_SECTION_HEADER& header = sections[index];
        const DWORD64 start = header.VirtualAddress;
        const DWORD64 length = header.SizeOfRawData > header.Misc.VirtualSize ? header.SizeOfRawData
                                                                             : header.Misc.VirtualSize;
        if (rva >= start && rva <= start + length)
        {
            lstrcpynA(path, modulePath.data(), size);
            section = static_cast<DWORD>(index + 1);
            offset = rva - start;
            return true;
        }
    }
    return false;
}
