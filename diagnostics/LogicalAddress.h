#pragma once
// Where an address lies in its module: module path, section number (1 for
// the first section) and offset inside that section.
#include <windows.h>

class CLogicalAddress
{
public:
    // Fills path (size bytes), section and offset and gives true when the
    // address lies in a section of a loaded module; on false the outputs
    // keep their values.
    static bool Find(DWORD64 address, char* path, DWORD size, DWORD& section, DWORD64& offset);
};
