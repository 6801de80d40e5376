#pragma once
// Records of the store's streams are read whole into memory and written whole
// from memory: one platform call per stream each way costs about as much as
// a small record, so fields are never read or written one by one. ByteReader
// and ByteWriter walk such a buffer field by field, little-endian, with the
// string and value encodings of the store; every bound is checked here.
#include <windows.h>
#include <objidl.h>
#include <comutil.h>
#include <cstring>
#include <type_traits>
#include <vector>

using Bytes = std::vector<BYTE>;

// The whole content of stream from its seek pointer on; the pointer ends at
// the end of the stream. A stream shorter than one read needs one call.
HRESULT ReadWholeStream(IStream* stream, Bytes& bytes);
// Replaces the content of stream, whose current size is oldSize and whose
// seek pointer is at oldPosition, by bytes: one write, and a size change only
// when the stream shrinks.
HRESULT WriteWholeStream(IStream* stream, const Bytes& bytes, ULONGLONG oldSize, ULONGLONG oldPosition);

// A string of the stream string encoding where it lies in a buffer read:
// null, or length code units (without the terminating 0) at units, which
// need not be aligned. Reading one allocates nothing.
struct StoredString
{
    const BYTE* units = nullptr;   // null for the null string
    UINT length = 0;

    // The same code units as the textLength of text; the null string equals only null.
    bool Equals(const WCHAR* text, UINT textLength) const;
    HRESULT Copy(_bstr_t& string) const;
};

class ByteReader
{
public:
    ByteReader(const BYTE* data, size_t size) : m_data(data), m_size(size) {}
    explicit ByteReader(const Bytes& bytes) : ByteReader(bytes.data(), bytes.size()) {}

    // A fixed-width field; E_FAIL, and the field untouched, when the buffer
    // ends before it.
    template <class T>
    HRESULT Read(T& field)
    {
        static_assert(std::is_trivially_copyable<T>::value, "fixed-width fields only");
        if (Remaining() < sizeof(T))
            return E_FAIL;
        std::memcpy(&field, m_data + m_offset, sizeof(T));
        m_offset += sizeof(T);
        return S_OK;
    }
    // A string in the stream string encoding: u32 byte count, 0 for a null
    // string, else an even count of at least 2 whose last unit is 0. Any
    // other count, or one beyond the buffer, is E_FAIL before anything is
    // allocated.
    HRESULT Read(StoredString& string);
    HRESULT Read(_bstr_t& string);
    // A value in the value encoding. A fixed-width payload is copied; an
    // object is made again from its persisted bytes (one whose class cannot
    // be made reads as no object, the reader then standing where the load
    // stopped); a value stored as text is converted back to its VARTYPE.
    // A value that could not be read is left VT_EMPTY.
    HRESULT ReadValue(VARIANT& value);

    size_t Offset() const { return m_offset; }
    size_t Remaining() const { return m_size - m_offset; }
    const BYTE* Data() const { return m_data; }

private:
    const BYTE* m_data;
    size_t m_size;
    size_t m_offset = 0;
};

class ByteWriter
{
public:
    // Room for a whole record of the usual size: growing a field at a time
    // would allocate over and over.
    ByteWriter() { m_bytes.reserve(256); }

    template <class T>
    void Write(const T& field)
    {
        static_assert(std::is_trivially_copyable<T>::value, "fixed-width fields only");
        const BYTE* bytes = reinterpret_cast<const BYTE*>(&field);
        m_bytes.insert(m_bytes.end(), bytes, bytes + sizeof(T));
    }
    void Write(const _bstr_t& string) { WriteString(static_cast<BSTR>(const_cast<_bstr_t&>(string))); }
    void WriteString(BSTR string);
    // The value encoding: the 2-byte VARTYPE, then the fixed-width payload,
    // the object persisted with its class (the null class for no object), or
    // the value's text. A value that cannot be encoded (no text form, an
    // object that cannot persist itself) fails and leaves the buffer as it was.
    HRESULT WriteValue(const VARIANT& value);
    void Append(const BYTE* data, size_t size) { m_bytes.insert(m_bytes.end(), data, data + size); }

    Bytes& Buffer() { return m_bytes; }

private:
    Bytes m_bytes;
};
