// Stream and storage helpers, and the stream encodings of strings and values.
#include "PK_StreamTool.h"
#include <ole2.h>

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

HRESULT CStreamTool::Write(IStream* stream, const VARIANT& value)
{
    // The value encoding is completed together with the parameter streams.
    return E_NOTIMPL;
}
