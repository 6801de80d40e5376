#pragma once
// Deep copy of a VARIANT that keeps a null string null: the platform's
// VariantCopy may turn it into an empty string, which the store encodes
// differently (count 0 against count 2).
#include <windows.h>
#include <oaidl.h>

// copy's old content is not looked at. What a failed copy leaves may share
// source's data, so it is dropped unfreed and copy is VT_EMPTY.
HRESULT CopyVariant(const VARIANT& source, VARIANT& copy);
