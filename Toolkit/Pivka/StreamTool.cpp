// Stream and storage helpers, and the stream encodings of strings and values.
#include "PK_StreamTool.h"
#include <ole2.h>
#include <wrl/client.h>
#include <cstddef>

HRESULT CStreamTool::Open(IStorage* parent, const wchar_t* name, IStorage** storage, DWORD mode)
{
    if (!storage)
        return E_POINTER;
    *storage = nullptr;
    if (!parent || !name)
        return E_INVALIDARG;
    HRESULT hr = parent->OpenStorage(name, nullptr, mode, nullptr, 0, storage);
    if (hr == STG_E_FILENOTFOUND)
        hr = parent->CreateStorage(name, mode | STGM_FAILIFTHERE, 0, 0, storage);
    return hr;
}

HRESULT CStreamTool::Open(IStorage* parent, const wchar_t* name, IStream** stream, DWORD mode)
{
    if (!stream)
        return E_POINTER;
    *stream = nullptr;
    if (!parent || !name)
        return E_INVALIDARG;
    HRESULT hr = parent->OpenStream(name, nullptr, mode, 0, stream);
    if (hr == STG_E_FILENOTFOUND)
        hr = parent->CreateStream(name, mode | STGM_FAILIFTHERE, 0, 0, stream);
    return hr;
}

HRESULT CStreamTool::SetStreamSize(IStream* stream, ULONGLONG size)
{
    if (!stream)
        return E_POINTER;
    ULARGE_INTEGER newSize;
    newSize.QuadPart = size;
    HRESULT hr = stream->SetSize(newSize);
    if (FAILED(hr))
        return hr;
    LARGE_INTEGER origin;
    origin.QuadPart = static_cast<LONGLONG>(size);
    return stream->Seek(origin, STREAM_SEEK_SET, nullptr);
}

HRESULT CStreamTool::Read(IStream* stream, void* buffer, ULONG size, ULONG* count)
{
    if (!stream || (!buffer && size))
        return E_POINTER;
    ULONG read = 0;
    HRESULT hr = stream->Read(buffer, size, &read);
    if (count)
        *count = read;
    if (FAILED(hr))
        return hr;
    if (read < size)
        return count ? S_FALSE : E_FAIL;
    return S_OK;
}

HRESULT CStreamTool::Write(IStream* stream, const void* buffer, ULONG size, ULONG* count)
{
    if (!stream || (!buffer && size))
        return E_POINTER;
    ULONG written = 0;
    HRESULT hr = stream->Write(buffer, size, &written);
    if (count)
        *count = written;
    if (FAILED(hr))
        return hr;
    return written < size ? STG_E_MEDIUMFULL : S_OK;
}

namespace
{
// Bytes between the seek pointer and the end of the stream.
HRESULT Remaining(IStream* stream, ULONGLONG* remaining)
{
    LARGE_INTEGER zero = {};
    ULARGE_INTEGER position;
    HRESULT hr = stream->Seek(zero, STREAM_SEEK_CUR, &position);
    if (FAILED(hr))
        return hr;
    STATSTG stat = {};
    hr = stream->Stat(&stat, STATFLAG_NONAME);
    if (FAILED(hr))
        return hr;
    *remaining = stat.cbSize.QuadPart > position.QuadPart ? stat.cbSize.QuadPart - position.QuadPart : 0;
    return S_OK;
}
}  // namespace

HRESULT CStreamTool::Read(IStream* stream, _bstr_t& string)
{
    if (!stream)
        return E_POINTER;
    ULONG bytes = 0;
    HRESULT hr = Read(stream, &bytes, sizeof bytes, nullptr);
    if (FAILED(hr))
        return hr;
    if (bytes == 0)
    {
        string = _bstr_t();
        return S_OK;
    }
    // An odd count or one below the terminator cannot come from the writer;
    // a count beyond the stream's end is refused before anything is allocated.
    ULONGLONG remaining = 0;
    hr = Remaining(stream, &remaining);
    if (FAILED(hr))
        return hr;
    if (bytes < 2 || (bytes & 1) || bytes > remaining)
        return E_FAIL;
    BSTR text = SysAllocStringLen(nullptr, (bytes - 2) / 2);
    if (!text)
        return E_OUTOFMEMORY;
    hr = Read(stream, text, bytes, nullptr);
    if (FAILED(hr))
    {
        SysFreeString(text);
        return hr;
    }
    string.Attach(text);
    return S_OK;
}

HRESULT CStreamTool::Write(IStream* stream, BSTR string)
{
    if (!stream)
        return E_POINTER;
    const ULONG bytes = string ? SysStringLen(string) * 2 + 2 : 0;
    HRESULT hr = Write(stream, &bytes, sizeof bytes, nullptr);
    if (FAILED(hr) || !bytes)
        return hr;
    if (bytes > 2)
        hr = Write(stream, string, bytes - 2, nullptr);
    if (FAILED(hr))
        return hr;
    const WCHAR terminator = 0;
    return Write(stream, &terminator, sizeof terminator, nullptr);
}

ULONG CStreamTool::ValueWidth(VARTYPE vt)
{
    switch (vt)
    {
    case VT_I1:
    case VT_UI1:
        return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
        return 2;
    case VT_I4:
    case VT_UI4:
    case VT_R4:
    case VT_INT:
    case VT_UINT:
    case VT_ERROR:
        return 4;
    case VT_R8:
    case VT_CY:
    case VT_DATE:
        return 8;
    default:
        return 0;
    }
}

// The fixed-width payloads are the first bytes of the VARIANT's value, in the
// same place on 32 and 64 bits.
static_assert(offsetof(VARIANT, bVal) == 8 && offsetof(VARIANT, cyVal) == 8, "payload starts after the header");

HRESULT CStreamTool::Write(IStream* stream, const VARIANT& value)
{
    if (!stream)
        return E_POINTER;
    const VARTYPE vt = V_VT(&value);
    const ULONG width = ValueWidth(vt);
    const bool object = vt == VT_DISPATCH || vt == VT_UNKNOWN;

    // What cannot be stored is refused before the VARTYPE is written.
    Microsoft::WRL::ComPtr<IPersistStream> persist;
    _variant_t text;
    HRESULT hr = S_OK;
    if (object && V_UNKNOWN(&value))
        hr = V_UNKNOWN(&value)->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(persist.GetAddressOf()));
    else if (!width && !object && vt != VT_BSTR)
        // VariantChangeType only reads its source; the platform declares it non-const.
        hr = VariantChangeType(&text, const_cast<VARIANT*>(&value), 0, VT_BSTR);
    if (FAILED(hr))
        return hr;

    hr = Write(stream, &vt, sizeof vt, nullptr);
    if (FAILED(hr))
        return hr;
    if (width)
        return Write(stream, &V_UI1(&value), width, nullptr);
    if (object)
        // No object is stored as the null class, which is what the platform
        // writes for one and its load refuses.
        return persist ? OleSaveToStream(persist.Get(), stream) : WriteClassStm(stream, CLSID_NULL);
    return Write(stream, vt == VT_BSTR ? V_BSTR(&value) : V_BSTR(&text));
}
