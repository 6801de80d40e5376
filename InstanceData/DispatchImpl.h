#pragma once
// IDispatch of a dual interface, served from the interface's registered
// type library through the module's type information cache.
#include <windows.h>
#include <oaidl.h>
#include "InstanceDataModule.h"
#include "FdtInterfaces.h"

// The library that describes an interface: the FDT interface library unless
// specialised.
template <class Interface>
struct TypeLibOf
{
    static const GUID& Id();    // {BB09346A-CC8C-11D2-8F71-000000000000}
    static constexpr WORD Major = 1;
    static constexpr WORD Minor = 0;
};

template <class Interface>
const GUID& TypeLibOf<Interface>::Id()
{
    return LIBID_FdtInterfacesLib;
}

template <class Interface>
class CDispatchImpl : public Interface
{
public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        if (!count)
            return E_POINTER;
        *count = 1;
        return S_OK;
    }

    STDMETHODIMP GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override
    {
        if (!info)
            return E_POINTER;
        *info = nullptr;
        if (index != 0)
            return DISP_E_BADINDEX;
        HRESULT hr = Load(lcid);
        if (FAILED(hr))
            return hr;
        s_typeInfo->AddRef();
        *info = s_typeInfo;
        return S_OK;
    }

    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids) override
    {
        HRESULT hr = Load(lcid);
        return FAILED(hr) ? hr : s_typeInfo->GetIDsOfNames(names, count, ids);
    }

    STDMETHODIMP Invoke(DISPID id, REFIID, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* exception, UINT* argError) override
    {
        HRESULT hr = Load(lcid);
        if (FAILED(hr))
            return hr;
        return s_typeInfo->Invoke(static_cast<Interface*>(this), id, flags, params, result, exception, argError);
    }

private:
    static HRESULT Load(LCID lcid)
    {
        return _Module.GetTypeInfo(TypeLibOf<Interface>::Id(), TypeLibOf<Interface>::Major,
                                   TypeLibOf<Interface>::Minor, __uuidof(Interface), lcid, &s_typeInfo);
    }

    static ITypeInfo* s_typeInfo;
};

template <class Interface>
ITypeInfo* CDispatchImpl<Interface>::s_typeInfo = nullptr;
