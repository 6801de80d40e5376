// Instance data references (being completed).
#include "FbInstanceData.h"

STDMETHODIMP FbInstanceData::AddInstanceDataReference(IFdtContext*, BSTR, BSTR, BSTR)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::RemoveInstanceDataReference(IFdtContext*, BSTR, BSTR, BSTR)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::GetSubInstanceData(IFdtContext*, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::GetSuperInstanceData(IFdtContext*, BSTR, IFdtInstanceDataRef**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

