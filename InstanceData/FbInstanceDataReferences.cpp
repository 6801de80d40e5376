// Instance data references: a super instance lists its sub-instances with the
// parameter that refers to each, and each sub-instance names its one super
// instance. Both ends live in the "instance" streams.
#include "FbInstanceData.h"
#include <cwchar>
#include "Common/ErrorTrace.h"
#include "NonCreateables/FdtInstanceDataRef.h"
#include "PK_ComVector.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceData";

namespace
{
// Both null, or both not null and equal up to their first null character.
bool SameReferenceText(const WCHAR* left, const WCHAR* right)
{
    if (!left || !right)
        return !left && !right;
    return wcscmp(left, right) == 0;
}

// A reference object naming instanceId and parameterName.
HRESULT FillReference(IFdtInstanceDataRef* reference, BSTR instanceId, BSTR parameterName)
{
    RETURN_IF_FAILED(reference->put_m_instanceID(instanceId));
    RETURN_IF_FAILED(reference->put_m_parameterName(parameterName));
    return S_OK;
}
}  // namespace

STDMETHODIMP FbInstanceData::AddInstanceDataReference(IFdtContext*, BSTR InstanceIDsuper, BSTR ParameterName,
                                                      BSTR InstanceIDsub)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        // Both ends must read before either changes: a failure leaves both as they were.
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsub, false));
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsuper, false));
        m_instance.subInstances.push_back({_bstr_t(InstanceIDsub), _bstr_t(ParameterName)});
        RETURN_IF_FAILED(WriteInstanceStream(InstanceIDsuper, false));
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsub, false));
        m_instance.bstrSuperInstanceId = InstanceIDsuper;
        m_instance.bstrSuperParameterName = ParameterName;
        RETURN_IF_FAILED(WriteInstanceStream(InstanceIDsub, false));
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::RemoveInstanceDataReference(IFdtContext*, BSTR InstanceIDsuper, BSTR ParameterName,
                                                         BSTR InstanceIDsub)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        // Both ends must read before either changes: a failure leaves both as they were.
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsub, false));
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsuper, false));
        auto& list = m_instance.subInstances;
        for (auto entry = list.begin(); entry != list.end(); ++entry)
        {
            if (!SameReferenceText(entry->bstrInstanceId, InstanceIDsub))
                continue;
            if (!SameReferenceText(entry->bstrParameterName, ParameterName))
                g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                           "FbInstanceData::RemoveInstanceDataReference wrong parameter name\n");
            list.erase(entry);
            break;
        }
        RETURN_IF_FAILED(WriteInstanceStream(InstanceIDsuper, false));
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsub, false));
        // Empty, not null: the instance had a super reference once.
        m_instance.bstrSuperInstanceId = L"";
        m_instance.bstrSuperParameterName = L"";
        RETURN_IF_FAILED(WriteInstanceStream(InstanceIDsub, false));
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::GetSubInstanceData(IFdtContext*, BSTR InstanceIDsuper, SAFEARRAY** InstanceDataRefList)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(InstanceDataRefList, E_POINTER);
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsuper, false));
        const auto& list = m_instance.subInstances;
        ComVectorArray array;
        ComVectorAccess<IUnknown*> elements;
        RETURN_IF_NULL(SUCCEEDED(array.Create<IUnknown*>(static_cast<ULONG>(list.size()), 0, true)), E_OUTOFMEMORY);
        RETURN_IF_FAILED_QUIET(AccessList(elements, array.Get()));
        for (ULONG k = 0; k < list.size(); ++k)
        {
            ComPtr<IFdtInstanceDataRef> reference;
            RETURN_IF_FAILED(MakeDataObject<FdtInstanceDataRef>(reference));
            RETURN_IF_FAILED_QUIET(FillReference(reference.Get(), list[k].bstrInstanceId, list[k].bstrParameterName));
            elements[k] = reference.Detach();
        }
        RETURN_IF_FAILED_QUIET(elements.Release());
        return array.DetachTo(InstanceDataRefList);
    });
}

STDMETHODIMP FbInstanceData::GetSuperInstanceData(IFdtContext*, BSTR InstanceIDsub,
                                                  IFdtInstanceDataRef** InstanceDataRef)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(InstanceDataRef, E_POINTER);
        ComPtr<IFdtInstanceDataRef> reference;
        RETURN_IF_FAILED(MakeDataObject<FdtInstanceDataRef>(reference));
        RETURN_IF_FAILED(ReadInstanceStream(InstanceIDsub, false));
        RETURN_IF_FAILED_QUIET(
            FillReference(reference.Get(), m_instance.bstrSuperInstanceId, m_instance.bstrSuperParameterName));
        *InstanceDataRef = reference.Detach();
        return S_OK;
    });
}
