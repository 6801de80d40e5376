#include "PersistedObject.h"
#include <ole2.h>
#include <wrl/client.h>
#include <utility>
#include "Common/ByteStream.h"
#include "Common/PersistedBytes.h"
#include "Common/VariantCopy.h"
#include "PK_ComVector.h"

using Microsoft::WRL::ComPtr;

namespace
{
// The caller's object saved as the store saves an object: its class, then its bytes.
PersistedBytes* SaveObject(IUnknown* object)
{
    ComPtr<IStream> memory;
    ComPtr<IPersistStream> persist;
    CLSID clsid = CLSID_NULL;
    Bytes bytes;
    HRESULT hr = CreateStreamOnHGlobal(nullptr, TRUE, memory.GetAddressOf());
    if (SUCCEEDED(hr))
        hr = object->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(persist.GetAddressOf()));
    if (SUCCEEDED(hr))
        hr = persist->GetClassID(&clsid);
    if (SUCCEEDED(hr))
        hr = persist->Save(memory.Get(), TRUE);
    LARGE_INTEGER zero = {};
    if (SUCCEEDED(hr))
        hr = memory->Seek(zero, STREAM_SEEK_SET, nullptr);
    if (SUCCEEDED(hr))
        hr = ReadWholeStream(memory.Get(), bytes);
    return new PersistedBytes(clsid, std::move(bytes), hr);
}
}  // namespace

void SaveCallerValue(const VARIANT& source, _variant_t& target)
{
    VARIANT copy;
    VariantInit(&copy);
    const VARTYPE vt = V_VT(&source);
    IUnknown* object = vt == VT_UNKNOWN || vt == VT_DISPATCH ? V_UNKNOWN(&source) : nullptr;
    if (object)
    {
        void* known = nullptr;
        PersistedBytes* saved = SUCCEEDED(object->QueryInterface(IID_PersistedBytes, &known))
                                     ? static_cast<PersistedBytes*>(static_cast<IPersistStream*>(known))
                                     : SaveObject(object);
        V_VT(&copy) = vt;
        if (vt == VT_DISPATCH)
            V_DISPATCH(&copy) = saved;
        else
            V_UNKNOWN(&copy) = static_cast<IPersistStream*>(saved);
    }
    else if (const HRESULT hr = CopyVariant(source, copy); FAILED(hr))
    {
        V_VT(&copy) = VT_ERROR;
        V_ERROR(&copy) = hr;
    }
    target.Attach(copy);
}

bool IsCallerObject(const VARIANT& value)
{
    return (V_VT(&value) == VT_UNKNOWN || V_VT(&value) == VT_DISPATCH) && V_UNKNOWN(&value);
}

HRESULT SaveCallerValues(SAFEARRAY* values, ComVectorArray& saved)
{
    ComVectorAccess<VARIANT> in;
    LONG lowerBound = 0;
    if (!values || FAILED(in.Attach(values)) || !in.Data() || FAILED(SafeArrayGetLBound(values, 1, &lowerBound)))
        return S_OK;
    bool objects = false;
    for (ULONG i = 0; i < in.Count() && !objects; ++i)
        objects = IsCallerObject(in[i]);
    if (!objects)
        return S_OK;
    if (FAILED(saved.Create<VARIANT>(in.Count(), lowerBound, true)))
        return E_OUTOFMEMORY;
    ComVectorAccess<VARIANT> out;
    if (FAILED(out.Attach(saved.Get())))
    {
        saved.Destroy();
        return E_UNEXPECTED;
    }
    for (ULONG i = 0; i < in.Count(); ++i)
    {
        _variant_t value;
        SaveCallerValue(in[i], value);
        out[i] = value.Detach();
    }
    const HRESULT hr = out.Release();
    if (FAILED(hr))
        saved.Destroy();
    return hr;
}
