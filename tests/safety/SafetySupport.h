#pragma once
// Support for the data safety tests: a store file written by the module with
// every kind of content, and a snapshot of everything that reads from a store.
#include <map>
#include <set>
#include <string>
#include "../parameters/ParameterFixture.h"
#include "../instances/InstanceTestSupport.h"

namespace safety
{
// The instances of the model file and the elements of each.
extern const wchar_t* const kModelIds[3];
extern const wchar_t* const kModelParameters[];
extern const wchar_t* const kModelGroups[];

// The model file, written once per program by the module through the
// interface: instances 1-3 with descriptors, parameters of several value
// types (an object value among them) with default values and flags, groups,
// references both ways and an instance lock; committed and given up.
const std::wstring& ModelFile();

// Everything that reads, by key "<instance>|<what>|<name>": the text of what
// was read, or "!<hresult>" when the read failed.
typedef std::map<std::string, std::string> Snapshot;
Snapshot Take(IFbInstanceData* store);
inline bool Readable(const std::string& text)
{
    return !text.empty() && text[0] != '!';
}

// Results that the store may give; anything else is garbage.
bool KnownResult(HRESULT hr);
std::string Hex(HRESULT hr);
// The results outside KnownResult since the last call, with the call that gave them.
std::vector<std::string> TakeUnknownResults();
// Records hr against what when it is not a known result; returns hr.
HRESULT Note(HRESULT hr, const std::string& what);

// Makes the store give up its file (by a failed open of a missing folder).
void GiveUp(IInstanceDataMgr* manager);
// Opens path in the store (a failed open of a missing folder first gives
// up the file before, so the store never answers from its cache).
HRESULT OpenIn(IInstanceDataMgr* manager, const std::wstring& path, ComPtr<IStorage>& root);
}  // namespace safety

using namespace safety;
