#include "Common/ByteStream.h"
#include <ole2.h>
#include <wrl/client.h>
#include <cstddef>
#include "PK_StreamTool.h"

using Microsoft::WRL::ComPtr;

namespace
{
// A first read this large takes any record of the store whole.
const ULONG kFirstRead = 4096;

// A stream in memory holding a copy of size bytes of data.
ComPtr<IStream> MemoryStream(const BYTE* data, size_t size)
{
    ComPtr<IStream> stream;
    HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, size ? size : 1);
    if (!memory)
        return stream;
    if (void* bytes = GlobalLock(memory))
    {
        if (size)
            std::memcpy(bytes, data, size);
        GlobalUnlock(memory);
    }
    if (FAILED(CreateStreamOnHGlobal(memory, TRUE, stream.GetAddressOf())))
    {
        GlobalFree(memory);
        return stream;
    }
    ULARGE_INTEGER length;
    length.QuadPart = size;
    stream->SetSize(length);
    return stream;
}
}  // namespace

HRESULT ReadWholeStream(IStream* stream, Bytes& bytes)
{
    if (!stream)
        return E_POINTER;
    // The first read goes to a buffer on the stack: a record that fits is
    // copied at its own size, without clearing a large vector first.
    BYTE first[kFirstRead];
    ULONG read = 0;
    HRESULT hr = stream->Read(first, kFirstRead, &read);
    bytes.assign(first, first + read);
    if (FAILED(hr) || read < kFirstRead)
        return FAILED(hr) ? hr : S_OK;
    for (ULONG request = kFirstRead * 2;; request = request < 0x1000000 ? request * 2 : request)
    {
        const size_t start = bytes.size();
        bytes.resize(start + request);
        read = 0;
        hr = stream->Read(bytes.data() + start, request, &read);
        bytes.resize(start + read);
        if (FAILED(hr) || read < request)
            return FAILED(hr) ? hr : S_OK;
    }
}

HRESULT WriteWholeStream(IStream* stream, const Bytes& bytes, ULONGLONG oldSize, ULONGLONG oldPosition)
{
    if (!stream)
        return E_POINTER;
    HRESULT hr = S_OK;
    if (oldPosition != 0)
    {
        LARGE_INTEGER origin = {};
        hr = stream->Seek(origin, STREAM_SEEK_SET, nullptr);
        if (FAILED(hr))
            return hr;
    }
    ULONG written = 0;
    hr = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
    if (FAILED(hr))
        return hr;
    if (written < bytes.size())
        return STG_E_MEDIUMFULL;
    if (oldSize <= bytes.size())
        return S_OK;
    ULARGE_INTEGER size;
    size.QuadPart = bytes.size();
    return stream->SetSize(size);
}

// ----------------------------------------------------------------- reading

bool StoredString::Equals(const WCHAR* text, UINT textLength) const
{
    if (!units || !text)
        return !units && !text;
    return textLength == length && std::memcmp(units, text, length * sizeof(WCHAR)) == 0;
}

HRESULT StoredString::Copy(_bstr_t& string) const
{
    if (!units)
    {
        string = _bstr_t();
        return S_OK;
    }
    BSTR text = SysAllocStringLen(nullptr, length);
    if (!text)
        return E_OUTOFMEMORY;
    std::memcpy(text, units, length * sizeof(WCHAR));
    string.Attach(text);
    return S_OK;
}

HRESULT ByteReader::Read(StoredString& string)
{
    ULONG bytes = 0;
    if (FAILED(Read(bytes)))
        return E_FAIL;
    if (bytes == 0)
    {
        string = StoredString();
        return S_OK;
    }
    if (bytes < 2 || (bytes & 1) || bytes > Remaining())
        return E_FAIL;
    WCHAR last;
    std::memcpy(&last, m_data + m_offset + bytes - 2, sizeof last);
    if (last != 0)
        return E_FAIL;
    string.units = m_data + m_offset;
    string.length = (bytes - 2) / 2;
    m_offset += bytes;
    return S_OK;
}

HRESULT ByteReader::Read(_bstr_t& string)
{
    StoredString stored;
    const HRESULT hr = Read(stored);
    return SUCCEEDED(hr) ? stored.Copy(string) : hr;
}

HRESULT ByteReader::ReadValue(VARIANT& value)
{
    HRESULT hr = VariantClear(&value);
    if (FAILED(hr))
        return hr;
    VARTYPE vt = VT_EMPTY;
    if (FAILED(Read(vt)))
        return E_FAIL;
    if (const ULONG width = CStreamTool::ValueWidth(vt))
    {
        if (Remaining() < width)
            return E_FAIL;
        VARIANT read;
        std::memset(&read, 0, sizeof read);
        V_VT(&read) = vt;
        std::memcpy(&V_UI1(&read), m_data + m_offset, width);
        m_offset += width;
        value = read;
        return S_OK;
    }
    if (vt == VT_DISPATCH || vt == VT_UNKNOWN)
    {
        // The object reads as many bytes as it wrote: the load runs on a
        // memory stream over the rest of the buffer, and its seek pointer
        // afterwards says where the next field starts. The load's result is
        // not the read's: an object that cannot be made again reads as none.
        ComPtr<IStream> rest = MemoryStream(m_data + m_offset, Remaining());
        if (!rest)
            return E_OUTOFMEMORY;
        IUnknown* object = nullptr;
        if (FAILED(OleLoadFromStream(rest.Get(), vt == VT_DISPATCH ? IID_IDispatch : IID_IUnknown,
                                     reinterpret_cast<void**>(&object))) &&
            object)
        {
            object->Release();
            object = nullptr;
        }
        LARGE_INTEGER zero = {};
        ULARGE_INTEGER position = {};
        rest->Seek(zero, STREAM_SEEK_CUR, &position);
        m_offset += static_cast<size_t>(position.QuadPart < Remaining() ? position.QuadPart : Remaining());
        V_VT(&value) = vt;
        V_UNKNOWN(&value) = object;
        return S_OK;
    }
    _bstr_t text;
    hr = Read(text);
    if (FAILED(hr))
        return hr;
    V_BSTR(&value) = static_cast<BSTR>(text) ? text.Detach() : nullptr;
    V_VT(&value) = VT_BSTR;
    return vt == VT_BSTR ? S_OK : VariantChangeType(&value, &value, 0, vt);
}

// ----------------------------------------------------------------- writing

void ByteWriter::WriteString(BSTR string)
{
    const ULONG bytes = string ? SysStringLen(string) * 2 + 2 : 0;
    Write(bytes);
    if (!bytes)
        return;
    Append(reinterpret_cast<const BYTE*>(string), bytes - 2);
    Write(WCHAR(0));
}

// The fixed-width payloads are the first bytes of the VARIANT's value, in the
// same place on 32 and 64 bits.
static_assert(offsetof(VARIANT, bVal) == 8 && offsetof(VARIANT, cyVal) == 8, "payload starts after the header");

HRESULT ByteWriter::WriteValue(const VARIANT& value)
{
    const VARTYPE vt = V_VT(&value);
    if (const ULONG width = CStreamTool::ValueWidth(vt))
    {
        Write(vt);
        Append(&V_UI1(&value), width);
        return S_OK;
    }
    if (vt == VT_DISPATCH || vt == VT_UNKNOWN)
    {
        // No object is stored as the null class, which is what the platform
        // writes for one and its load refuses.
        ComPtr<IStream> persisted = MemoryStream(nullptr, 0);
        if (!persisted)
            return E_OUTOFMEMORY;
        HRESULT hr = S_OK;
        if (IUnknown* object = V_UNKNOWN(&value))
        {
            ComPtr<IPersistStream> persist;
            hr = object->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(persist.GetAddressOf()));
            if (SUCCEEDED(hr))
                hr = OleSaveToStream(persist.Get(), persisted.Get());
        }
        else
            hr = WriteClassStm(persisted.Get(), CLSID_NULL);
        if (FAILED(hr))
            return hr;
        LARGE_INTEGER zero = {};
        if (FAILED(hr = persisted->Seek(zero, STREAM_SEEK_SET, nullptr)))
            return hr;
        Bytes object;
        if (FAILED(hr = ReadWholeStream(persisted.Get(), object)))
            return hr;
        Write(vt);
        Append(object.data(), object.size());
        return S_OK;
    }
    if (vt == VT_BSTR)
    {
        Write(vt);
        WriteString(V_BSTR(&value));
        return S_OK;
    }
    // VariantChangeType only reads its source; the platform declares it non-const.
    _variant_t text;
    const HRESULT hr = VariantChangeType(&text, const_cast<VARIANT*>(&value), 0, VT_BSTR);
    if (FAILED(hr))
        return hr;
    Write(vt);
    WriteString(V_BSTR(&text));
    return S_OK;
}
