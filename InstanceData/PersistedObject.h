#pragma once
// An object value of a caller, saved once before the store is held: the
// store then persists the saved bytes and makes no call into the caller's
// apartment (a proxy's Save would otherwise run while other apartments wait
// for the store).
#include <windows.h>
#include <oaidl.h>
#include <comutil.h>

// target becomes a copy of source in which an object (VT_UNKNOWN or
// VT_DISPATCH) is replaced by its saved form: an object whose IPersistStream
// gives the class and bytes that the caller's object wrote, or the failure
// that saving it gave, at the same point of the store's own save. Other
// values are copied (a null string stays null); a copy that fails is kept as
// VT_ERROR holding the failure, for the store to refuse under its lock.
void SaveCallerValue(const VARIANT& source, _variant_t& target);

// True for a value that holds a caller's object: a non-null VT_UNKNOWN or VT_DISPATCH.
bool IsCallerObject(const VARIANT& value);

class ComVectorArray;
// When the caller's value array holds an object, saved becomes a copy of it
// (same count, same lower bound) made by SaveCallerValue; otherwise saved
// stays empty and the caller's array is used as it is. An array that cannot
// be read is left to the operation's own checks.
HRESULT SaveCallerValues(SAFEARRAY* values, ComVectorArray& saved);
