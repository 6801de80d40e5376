#pragma once
// Field-by-field access to one open stream, so that each format reads like
// its table: one call per field, each giving an HRESULT. Integers are
// little-endian, strings in the stream string encoding, values in the value
// encoding (see PK_StreamTool.h).
#include <windows.h>
#include <objidl.h>
#include <comutil.h>
#include "PK_StreamTool.h"

class StreamReader
{
public:
    explicit StreamReader(IStream* stream) : m_stream(stream) {}

    // Fixed-width fields: BYTE, WORD, DWORD, LONG, ...; the variable is
    // written only when all its bytes were read.
    template <class T>
    HRESULT Read(T& field)
    {
        T value{};
        const HRESULT hr = CStreamTool::Read(m_stream, &value, sizeof value, nullptr);
        if (SUCCEEDED(hr))
            field = value;
        return hr;
    }
    HRESULT Read(_bstr_t& field) { return CStreamTool::Read(m_stream, field); }

    IStream* Stream() const { return m_stream; }

private:
    IStream* m_stream;
};

class StreamWriter
{
public:
    explicit StreamWriter(IStream* stream) : m_stream(stream) {}

    template <class T>
    HRESULT Write(const T& field)
    {
        return CStreamTool::Write(m_stream, &field, sizeof field, nullptr);
    }
    HRESULT Write(const _bstr_t& field) { return CStreamTool::Write(m_stream, static_cast<BSTR>(const_cast<_bstr_t&>(field))); }
    HRESULT WriteString(BSTR field) { return CStreamTool::Write(m_stream, field); }
    HRESULT Write(const VARIANT& field) { return CStreamTool::Write(m_stream, field); }

    IStream* Stream() const { return m_stream; }

private:
    IStream* m_stream;
};
