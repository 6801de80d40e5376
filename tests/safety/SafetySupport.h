#pragma once
// The data safety tests' model file, written by the module with every kind of
// content, and a snapshot of everything that reads from a store.
#include <map>
#include <string>
#include "TestSupport.h"
#include "TestObject.h"

namespace safety
{
inline _bstr_t B(const wchar_t* text)
{
    return _bstr_t(text);
}
inline std::string Narrow(const std::wstring& text)
{
    return std::string(text.begin(), text.end());
}

// Instances 1-3 with descriptors; parameters of several value types (an
// object value among them) with default values and flags; groups, references
// both ways and an instance lock. Written once per program through the
// interface, committed and given up.
const std::wstring& ModelFile();

// Everything that reads, by key "<instance>|<what>|<name>": the text of what
// was read (every property of a data object), or "!<hresult>" when it failed.
typedef std::map<std::string, std::string> Snapshot;
Snapshot Take(IFbInstanceData* store);
inline bool Readable(const std::string& text)
{
    return !text.empty() && text[0] != '!';
}

std::string Hex(HRESULT hr);
// Whether the store may give hr: anything else is garbage.
bool KnownResult(HRESULT hr);
// Records hr against what when it is not a known result; returns hr.
HRESULT Note(HRESULT hr, const std::string& what);
// The notes since the last call.
std::vector<std::string> TakeUnknownResults();

// Gives up the file the store holds (by a failed open of a missing folder, so
// that the store never answers from its cache), then opens path unless empty.
HRESULT OpenIn(IInstanceDataMgr* manager, const std::wstring& path, ComPtr<IStorage>& root);

// An array a call gives or takes, destroyed with its holder.
struct Array
{
    SAFEARRAY* p = nullptr;
    ~Array() { SafeArrayDestroy(p); }
};

// The store's writers with the test's own objects.
HRESULT CreateIn(IFbInstanceData* store, _bstr_t* id = nullptr);
HRESULT DefineIn(IFbInstanceData* store, const wchar_t* id, const wchar_t* name, const _variant_t& value,
               const _variant_t& defaultValue = _variant_t());
HRESULT GroupIn(IFbInstanceData* store, const wchar_t* id, const wchar_t* name, BYTE groupId, const Names& members);
inline _variant_t NullValue()
{
    _variant_t value;
    V_VT(&value) = VT_NULL;
    return value;
}
}  // namespace safety

using namespace safety;
