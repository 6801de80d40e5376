#pragma once
// The data safety tests' model file, written by the module with every kind of
// content, and a snapshot of everything that reads from a store.
#include <map>
#include <string>
#include "TestSupport.h"

inline _bstr_t B(const wchar_t* text) { return _bstr_t(text); }
// Whether the store may give hr: anything else is garbage.
bool KnownResult(HRESULT hr);

// Everything that reads, by key "<instance>|<what>|<name>": the text of what
// was read (every property of a data object), or "!<hresult>" when it failed
// ("!?<hresult>" when the store may not give that result).
typedef std::map<std::string, std::string> Snapshot;
Snapshot Take(IFbInstanceData* store);

// Instances 1-3 with descriptors; parameters of several value types (an
// object value among them) with default values and flags; groups, references
// both ways and an instance lock. Written once per program through the
// interface and committed.
const std::wstring& ModelFile();

// The store's writers with the test's own objects; Create with descriptors of node when given.
HRESULT CreateIn(IFbInstanceData* store, _bstr_t* id = nullptr, const wchar_t* node = nullptr);
inline HRESULT DefineIn(IFbInstanceData* store, const wchar_t* id, const wchar_t* name, const _variant_t& value,
                        const _variant_t& defaultValue = _variant_t())
{
    ComPtr<ParameterDescription> parameter = new ParameterDescription(name, value, defaultValue);
    return store->WriteParameterInfo(nullptr, B(id), parameter.Get());
}
inline HRESULT GroupIn(IFbInstanceData* store, const wchar_t* id, const wchar_t* name, BYTE groupId, const Names& members)
{
    Array list{MakeBstrArray(members)};
    return store->DefineGroup(nullptr, B(id), B(name), groupId, &list.p);
}
