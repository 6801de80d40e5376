#pragma once
// Damaged copies of a store file, as a disk, a crash or another program can
// leave one: same-size rewrites of a stream and structural damage to the
// storage tree, made through the platform's compound files (and plain
// truncation of the file). A seed picks the damage: seed % DamageKindCount()
// is the kind, the rest of the seed its details, so a campaign can walk
// through many variants and any one of them can be made again.
// Needs COM initialised on the calling thread; links ole32 only.
#include <windows.h>
#include <string>

namespace damaged_copies
{
size_t DamageKindCount();
const char* DamageKindName(size_t kind);

// Copies source to target (replacing target) and damages the copy as seed
// says; description tells what was done, e.g. "bit flips: 2/map at 5.3".
// A kind that finds nothing to damage in this file (no string, say) falls
// back to a bit flip and says so. Fails only when the copy cannot be made.
HRESULT MakeDamagedCopy(const wchar_t* source, const wchar_t* target, unsigned seed, std::string& description);
}  // namespace damaged_copies
