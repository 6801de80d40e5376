#pragma once
// The least a caller's object of a dual FDT interface has: IUnknown and an
// IDispatch without type information. Tests implement the interfaces that a
// frame passes to the store (descriptors, parameter descriptions) on it.
#include <windows.h>
#include <oaidl.h>
#include <comutil.h>

template <class Interface>
class TestObject : public Interface
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        const bool known =
            IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, __uuidof(Interface));
        *object = known ? static_cast<Interface*>(this) : nullptr;
        return known ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refCount; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG count = --m_refCount;
        if (!count)
            delete this;
        return count;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override { return *count = 0, S_OK; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
    virtual ~TestObject() = default;

    HRESULT failGet = S_OK;   // every getter fails with this result when set

protected:
    template <class T>
    HRESULT Give(T* out, T field) { return FAILED(failGet) ? failGet : (*out = field, S_OK); }
    HRESULT Give(BSTR* out, const _bstr_t& field) { return FAILED(failGet) ? failGet : (*out = field.copy(), S_OK); }

private:
    ULONG m_refCount = 0;
};

