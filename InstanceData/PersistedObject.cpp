#include "PersistedObject.h"
#include <ole2.h>
#include <wrl/client.h>
#include <atomic>
#include <cstring>
#include <utility>
#include "Common/ByteStream.h"
#include "Common/VariantCopy.h"
#include "PK_ComVector.h"

using Microsoft::WRL::ComPtr;

namespace
{
// Asked for by SaveCallerValue to know its own saved objects: saving one again is a copy.
const IID IID_PersistedObject = {0x5d0f3c21, 0x8a4e, 0x4b7e, {0x9f, 0x13, 0x62, 0x0c, 0x4d, 0xa8, 0x71, 0xe5}};

// Answers IDispatch as well, so that a VT_DISPATCH value stays a real
// dispatch interface: it has no members, so a conversion to another type fails.
class PersistedObject : public IPersistStream, public IDispatch
{
public:
    PersistedObject(HRESULT saved, Bytes bytes) : m_saved(saved), m_bytes(std::move(bytes)) {}

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (iid == IID_IUnknown || iid == IID_IPersist || iid == IID_IPersistStream || iid == IID_PersistedObject)
            *object = static_cast<IPersistStream*>(this);
        else if (iid == IID_IDispatch)
            *object = static_cast<IDispatch*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --m_references;
        if (!left)
            delete this;
        return left;
    }

    STDMETHODIMP GetClassID(CLSID* clsid) override
    {
        if (!clsid)
            return E_POINTER;
        if (FAILED(m_saved))
            return m_saved;
        std::memcpy(clsid, m_bytes.data(), sizeof *clsid);
        return S_OK;
    }
    STDMETHODIMP IsDirty() override { return S_OK; }
    STDMETHODIMP Load(IStream*) override { return E_NOTIMPL; }
    STDMETHODIMP Save(IStream* stream, BOOL) override
    {
        if (FAILED(m_saved))
            return m_saved;
        const ULONG size = static_cast<ULONG>(m_bytes.size() - sizeof(CLSID));
        ULONG written = 0;
        const HRESULT hr = stream->Write(m_bytes.data() + sizeof(CLSID), size, &written);
        return FAILED(hr) ? hr : written == size ? S_OK : STG_E_MEDIUMFULL;
    }
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override
    {
        if (!size)
            return E_POINTER;
        size->QuadPart = m_bytes.size();
        return S_OK;
    }

    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        if (!count)
            return E_POINTER;
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return DISP_E_BADINDEX; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return DISP_E_UNKNOWNNAME; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return DISP_E_MEMBERNOTFOUND;
    }

private:
    virtual ~PersistedObject() = default;

    std::atomic<ULONG> m_references{1};
    const HRESULT m_saved;   // what saving the caller's object gave
    const Bytes m_bytes;     // class identifier, then the object's own bytes
};

// The caller's object saved as the store saves an object: its class, then its bytes.
PersistedObject* SaveObject(IUnknown* object)
{
    ComPtr<IStream> memory;
    ComPtr<IPersistStream> persist;
    Bytes bytes;
    HRESULT hr = CreateStreamOnHGlobal(nullptr, TRUE, memory.GetAddressOf());
    if (SUCCEEDED(hr))
        hr = object->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(persist.GetAddressOf()));
    if (SUCCEEDED(hr))
        hr = OleSaveToStream(persist.Get(), memory.Get());
    LARGE_INTEGER zero = {};
    if (SUCCEEDED(hr))
        hr = memory->Seek(zero, STREAM_SEEK_SET, nullptr);
    if (SUCCEEDED(hr))
        hr = ReadWholeStream(memory.Get(), bytes);
    if (SUCCEEDED(hr) && bytes.size() < sizeof(CLSID))
        hr = E_UNEXPECTED;
    return new PersistedObject(hr, std::move(bytes));
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
        PersistedObject* saved = SUCCEEDED(object->QueryInterface(IID_PersistedObject, &known))
                                     ? static_cast<PersistedObject*>(static_cast<IPersistStream*>(known))
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
