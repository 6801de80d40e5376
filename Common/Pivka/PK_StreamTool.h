#pragma once
// Stream and storage helpers of the toolkit. Every function returns an
// HRESULT; callers test it with FAILED only.
#include <windows.h>
#include <objidl.h>
#include <comutil.h>
#include "PK_Export.h"

class PIVKA_API CStreamTool
{
public:
    // Opens the named child storage of parent, creating it when absent.
    // A null parent gives E_INVALIDARG and touches nothing.
    static HRESULT Open(IStorage* parent, const wchar_t* name, IStorage** storage, DWORD mode);
    // Opens the named stream of parent, creating it when absent.
    static HRESULT Open(IStorage* parent, const wchar_t* name, IStream** stream, DWORD mode);
    static HRESULT SetStreamSize(IStream* stream, ULONGLONG size);

    // Raw reads and writes. With a null count a short read fails with E_FAIL,
    // so a truncated stream never yields a half-filled field.
    static HRESULT Read(IStream* stream, void* buffer, ULONG size, ULONG* count);
    static HRESULT Write(IStream* stream, const void* buffer, ULONG size, ULONG* count);

    // One string in the stream string encoding: u32 byte count (0 for a null
    // string, else 2 * characters + 2), UTF-16LE units and a 0 unit.
    // A count larger than the rest of the stream fails with E_FAIL before
    // anything is allocated.
    static HRESULT Read(IStream* stream, _bstr_t& string);
    static HRESULT Write(IStream* stream, BSTR string);

    // One value in the value encoding: the 2-byte VARTYPE, then a fixed-width
    // payload, a persisted object, or the value's text as a string.
    static HRESULT Write(IStream* stream, const VARIANT& value);
    // Payload width of a VARTYPE stored as fixed-width bytes; 0 for objects
    // and for every VARTYPE stored as text.
    static ULONG ValueWidth(VARTYPE vt);
};
