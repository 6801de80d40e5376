#pragma once
// An object value as its class and the bytes that its Save wrote. Saved with
// OleSaveToStream it writes exactly those again, so a value travels without
// its class at hand: the store keeps a caller's object saved before it holds
// the store, the store tool replays the objects of a store file. It answers
// IDispatch as well, so that a VT_DISPATCH value stays a dispatch interface;
// with no members, a conversion to another type fails.
#include <windows.h>
#include <ole2.h>
#include <atomic>
#include <utility>
#include "Common/ByteStream.h"

// Asked for to tell such an object from a caller's own.
inline const IID IID_PersistedBytes = {0x5d0f3c21, 0x8a4e, 0x4b7e, {0x9f, 0x13, 0x62, 0x0c, 0x4d, 0xa8, 0x71, 0xe5}};

class PersistedBytes final : public IPersistStream, public IDispatch
{
public:
    // saved: what saving the object gave; a failure comes back from
    // GetClassID and Save instead of the class and the bytes.
    PersistedBytes(const CLSID& clsid, Bytes bytes, HRESULT saved = S_OK)
        : m_class(clsid), m_bytes(std::move(bytes)), m_saved(saved)
    {
    }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (iid == IID_IUnknown || iid == IID_IPersist || iid == IID_IPersistStream || iid == IID_PersistedBytes)
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
        *clsid = m_class;
        return S_OK;
    }
    STDMETHODIMP IsDirty() override { return S_OK; }
    STDMETHODIMP Load(IStream*) override { return E_NOTIMPL; }
    STDMETHODIMP Save(IStream* stream, BOOL) override
    {
        if (FAILED(m_saved))
            return m_saved;
        ULONG written = 0;
        const HRESULT hr = stream->Write(m_bytes.data(), static_cast<ULONG>(m_bytes.size()), &written);
        return FAILED(hr) ? hr : written == m_bytes.size() ? S_OK : STG_E_MEDIUMFULL;
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
    ~PersistedBytes() = default;

    std::atomic<ULONG> m_references{1};
    const CLSID m_class;
    const Bytes m_bytes;
    const HRESULT m_saved;
};
