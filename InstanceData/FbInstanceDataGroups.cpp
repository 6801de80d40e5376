// Parameter groups: named, ordered lists of parameter names of one instance,
// each in a stream of its own, and the reading and writing of their values.
#include "FbInstanceData.h"
#include "PersistedObject.h"
#include <wrl/client.h>
#include "Common/ErrorTrace.h"
#include "Common/VariantCopy.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceDataGroups";

// ------------------------------------------------------------ group stream

HRESULT FbInstanceData::ReadGroup(BSTR instanceId, bool withMembers)
{
    m_elementName.Assign(m_group.bstrName);
    RETURN_IF_FAILED_QUIET(OpenElementStream(instanceId, true, ElementLookup::Find));
    ByteReader in(m_element.bytes);
    GroupRecord read;
    RETURN_IF_FAILED_QUIET(CheckElementHead(ReadGroupRecord(in, read, withMembers), true, read.storedName));
    m_group.groupId = read.groupId;
    if (withMembers)
        m_group.members.swap(read.members);
    return S_OK;
}

HRESULT FbInstanceData::WriteGroup(BSTR instanceId, bool withMembers)
{
    // A name that the map holds, of either kind, is refused (0x80043004).
    ByteWriter out;
    m_elementName.Assign(m_group.bstrName);
    WriteGroupRecord(out, m_group, withMembers);
    RETURN_IF_FAILED_QUIET(OpenElementStream(instanceId, true, ElementLookup::Allocate));
    RETURN_IF_FAILED(m_element.Save(out.Buffer()));
    return S_OK;
}

HRESULT FbInstanceData::GroupMemberNames(BSTR instanceId, BSTR name, ComVectorArray& names, bool checkMembers)
{
    m_group.bstrName = _bstr_t(name, true);
    RETURN_IF_FAILED(ReadGroup(instanceId, true));
    // The array owns copies: the members stay the group record's.
    if (FAILED(names.Create<BSTR>(static_cast<ULONG>(m_group.members.size()), 0, true)))
        return E_OUTOFMEMORY;
    ComVectorAccess<BSTR> access;
    RETURN_IF_FAILED_QUIET(AccessList(access, names.Get()));
    for (size_t i = 0; i < m_group.members.size(); ++i)
    {
        // A member whose stream holds another kind ends the operation before
        // any value is read or written; every other failure comes back from
        // the list operation.
        if (checkMembers)
        {
            m_elementName.Assign(m_group.members[i]);
            if (ReadPara(instanceId, false, false) == IDS_E_NOT_PARAMETER_STREAM)
                return IDS_E_MEMBER_NOT_PARAMETER;
        }
        access[static_cast<ULONG>(i)] = m_group.members[i].copy();
    }
    return access.Release();
}

// ---------------------------------------------------------- group operations

STDMETHODIMP FbInstanceData::DefineGroup(IFdtContext*, BSTR InstanceID, BSTR Name, unsigned char GroupID,
                                         SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(NameList, E_POINTER);
        RETURN_IF_FAILED(ReadStreamNameMap(InstanceID));
        const _bstr_t name(Name, true);
        if (m_streamNameMap.entries.count(name))
            return IDS_E_NAME_EXISTS;
        m_group.bstrName = name;
        m_group.groupId = GroupID;
        ComVectorAccess<BSTR> members;
        RETURN_IF_FAILED_QUIET(AccessList(members, *NameList));
        m_group.members.clear();
        for (ULONG i = 0; i < members.Count(); ++i)
            m_group.members.push_back(_bstr_t(members[i], true));
        RETURN_IF_FAILED(WriteGroup(InstanceID, true));
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::DeleteGroup(IFdtContext*, BSTR InstanceID, BSTR Name)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT { return DestroyElementStream(InstanceID, Name, true); });
}

STDMETHODIMP FbInstanceData::GetGroupInfo(IFdtContext*, BSTR InstanceID, BSTR Name, unsigned char* GroupID)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(GroupID, E_POINTER);
        m_group.bstrName = _bstr_t(Name, true);
        RETURN_IF_FAILED(ReadGroup(InstanceID, false));
        *GroupID = m_group.groupId;
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::GetGroup(IFdtContext*, BSTR InstanceID, BSTR Name, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(NameList, E_POINTER);
        ComVectorArray names;
        RETURN_IF_FAILED_QUIET(GroupMemberNames(InstanceID, Name, names, false));
        return names.DetachTo(NameList);
    });
}

STDMETHODIMP FbInstanceData::GetAllGroups(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT { return GetNameList(Context, InstanceID, NameList, true); });
}

STDMETHODIMP FbInstanceData::ReadGroup(IFdtContext*, BSTR InstanceID, BSTR Name,
                                       SAFEARRAY** ParameterValueSequence)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(ParameterValueSequence, E_POINTER);
        m_group.bstrName = _bstr_t(Name, true);
        RETURN_IF_FAILED(ReadGroup(InstanceID, true));
        // One read of each member stream serves both the kind check and the
        // value: a member that is not a parameter wins over any other failure,
        // which comes back as the first one met.
        const size_t count = m_group.members.size();
        ComVectorArray result;
        RETURN_IF_FAILED_QUIET(result.Create<VARIANT>(static_cast<ULONG>(count), 0, true));
        ComVectorAccess<VARIANT> values;
        RETURN_IF_FAILED_QUIET(AccessList(values, result.Get()));
        HRESULT first = S_OK;
        for (size_t i = 0; i < count; ++i)
        {
            m_elementName.Assign(m_group.members[i]);
            const HRESULT hr = ReadPara(InstanceID, true, false);
            if (hr == IDS_E_NOT_PARAMETER_STREAM)
                return IDS_E_MEMBER_NOT_PARAMETER;
            if (FAILED(hr) && SUCCEEDED(first))
                first = hr;
            if (SUCCEEDED(first))
                RETURN_IF_FAILED(CopyVariant(m_parameter.value, values[static_cast<ULONG>(i)]));
        }
        RETURN_IF_FAILED_QUIET(first);
        RETURN_IF_FAILED_QUIET(values.Release());
        return result.DetachTo(ParameterValueSequence);
    });
}

STDMETHODIMP FbInstanceData::WriteGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name,
                                        SAFEARRAY** ParameterValueSequence)
{
    STORE_STATE();
    // Object values are saved before the store is held.
    ComVectorArray saved;
    const HRESULT save = EXCEPTION_GUARD([&]() -> HRESULT {
        return SaveCallerValues(ParameterValueSequence ? *ParameterValueSequence : nullptr, saved);
    });
    STORE_LOCK();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_FAILED_QUIET(save);
        RETURN_IF_NULL(ParameterValueSequence, E_POINTER);
        // Value i goes to member i.
        ComVectorArray names;
        RETURN_IF_FAILED_QUIET(GroupMemberNames(InstanceID, Name, names, true));
        SAFEARRAY* members = names.Get();
        SAFEARRAY* values = saved.Get() ? saved.Get() : *ParameterValueSequence;
        return WriteList(Context, InstanceID, &members, &values);
    });
}
