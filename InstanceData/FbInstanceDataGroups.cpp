// Parameter groups (being completed).
#include "FbInstanceData.h"

HRESULT FbInstanceData::ReadGroup(BSTR, bool)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::WriteGroup(BSTR, bool)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::GroupMemberNames(BSTR, SAFEARRAY**)
{
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::DefineGroup(IFdtContext*, BSTR, BSTR, unsigned char, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::DeleteGroup(IFdtContext*, BSTR, BSTR)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::GetGroupInfo(IFdtContext*, BSTR, BSTR, unsigned char*)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::GetGroup(IFdtContext*, BSTR, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::GetAllGroups(IFdtContext*, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::ReadGroup(IFdtContext*, BSTR, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::WriteGroup(IFdtContext*, BSTR, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

