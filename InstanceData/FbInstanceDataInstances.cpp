// Instances: instance and descriptor streams, instance lifecycle (being completed).
#include "FbInstanceData.h"

HRESULT FbInstanceData::ReadInstanceStream(BSTR, bool)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::WriteInstanceStream(BSTR, bool)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::ReadFromInstance(IFdtCommunicationDescriptor*, BSTR)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::ReadFromInstance(IFdtDtmDescriptor*, BSTR)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::WriteToInstance(IFdtCommunicationDescriptor*, BSTR)
{
    return E_NOTIMPL;
}

HRESULT FbInstanceData::WriteToInstance(IFdtDtmDescriptor*, BSTR)
{
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::Create(IFdtContext*, IFdtDtmDescriptor*, IFdtCommunicationDescriptor*, BSTR*)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::ReadIdentification(IFdtContext*, BSTR, IFdtDescriptor**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::Delete(IFdtContext*, BSTR)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::Duplicate(IFdtContext*, BSTR, BSTR*)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::LockInstance(IFdtContext*, BSTR)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::UnlockInstance(IFdtContext*, BSTR)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

STDMETHODIMP FbInstanceData::GetInstanceDataList(IFdtContext*, SAFEARRAY**)
{
    STORE_ENTRY();
    return E_NOTIMPL;
}

