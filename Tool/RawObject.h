#pragma once
// An object value replayed from its stored class and persisted bytes: saved
// with OleSaveToStream it writes exactly what was stored, so the module
// stores an object whose class the tool does not have.
#include <windows.h>
#include <ole2.h>
#include "Common/ByteStream.h"

class RawObject final : public IPersistStream, public IDispatch
{
public:
    RawObject(const CLSID& clsid, Bytes bytes) : m_class(clsid), m_bytes(std::move(bytes)) {}

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (iid == IID_IUnknown || iid == IID_IPersist || iid == IID_IPersistStream)
            *object = static_cast<IPersistStream*>(this);
        else if (iid == IID_IDispatch)
            *object = static_cast<IDispatch*>(this);
        else
            return *object = nullptr, E_NOINTERFACE;
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
    STDMETHODIMP GetClassID(CLSID* clsid) override { return clsid ? (*clsid = m_class, S_OK) : E_POINTER; }
    STDMETHODIMP IsDirty() override { return S_OK; }
    STDMETHODIMP Load(IStream*) override { return E_NOTIMPL; }
    STDMETHODIMP Save(IStream* stream, BOOL) override
    {
        ULONG written = 0;
        const HRESULT hr = stream->Write(m_bytes.data(), static_cast<ULONG>(m_bytes.size()), &written);
        return FAILED(hr) ? hr : written == m_bytes.size() ? S_OK : STG_E_MEDIUMFULL;
    }
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override
    {
        return size ? (size->QuadPart = m_bytes.size(), S_OK) : E_POINTER;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override { return count ? (*count = 0, S_OK) : E_POINTER; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }

private:
    ~RawObject() = default;
    CLSID m_class;
    Bytes m_bytes;
    ULONG m_references = 1;
};
