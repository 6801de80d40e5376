#pragma once
// Damaged copies of a store file, as a disk, a crash or another program can
// leave one: same-size rewrites of a stream, structural damage to the storage
// tree and truncation of the file. A seed picks the damage: seed %
// DamageKindCount() is the kind, the rest its details, so a campaign walks
// through many variants and any one of them can be made again.
// Needs COM initialised on the calling thread and TestSupport.
#include <windows.h>
#include <functional>
#include <string>

namespace damaged_copies
{
size_t DamageKindCount();

// Copies source to target and damages the copy as seed says; description tells
// what was done ("bit flips: 2/map 5.3"). A kind that finds nothing to damage
// falls back to a bit flip. Fails only when the copy cannot be made.
HRESULT MakeDamagedCopy(const wchar_t* source, const wchar_t* target, unsigned seed, std::string& description);

// Lets change rewrite the bytes of the stream at path ("admin", "1/map") of a
// file nobody holds (a missing stream starts empty); a null change destroys it.
HRESULT ChangeStream(const wchar_t* file, const std::wstring& path, const std::function<void(std::string&)>& change);
}  // namespace damaged_copies
