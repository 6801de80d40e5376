// Parameters: parameter streams, value encoding, access, lock and protection (being completed).
#include "FbInstanceData.h"

HRESULT FbInstanceData::ReadPara(BSTR, bool, bool)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::WritePara(BSTR, bool, bool)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::GetNameList(IFdtContext*, BSTR, SAFEARRAY**, bool)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::ChangeParameterFlag(BSTR, SAFEARRAY**, DWORD ParameterRecord::*, DWORD, DWORD)
{
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::ReadParameter(IFdtContext*, BSTR, BSTR, VARIANT*)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::WriteParameter(IFdtContext*, BSTR, BSTR, VARIANT)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::ReadParameterInfo(IFdtContext*, BSTR, BSTR, IFdtParameter**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::WriteParameterInfo(IFdtContext*, BSTR, IFdtParameter*)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::DeleteParameter(IFdtContext*, BSTR, BSTR)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::GetAllParameters(IFdtContext*, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::ReadList(IFdtContext*, BSTR, SAFEARRAY**, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::WriteList(IFdtContext*, BSTR, SAFEARRAY**, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::LockParameter(IFdtContext*, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::UnlockParameter(IFdtContext*, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::ProtectParameter(IFdtContext*, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::ReleaseParameter(IFdtContext*, BSTR, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

