// Parameter groups: named, ordered lists of parameter names of one instance,
// each in a stream of its own, and the reading and writing of their values.
#include "FbInstanceData.h"
#include <wrl/client.h>
#include "Common/ErrorTrace.h"
#include "Common/StreamIo.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceDataGroups";

// ------------------------------------------------------------ group stream

HRESULT FbInstanceData::ReadGroup(BSTR instanceId, bool withMembers)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(OpenElementStream(instanceId, m_group.bstrName, true, ElementLookup::Find,
                                             storage.GetAddressOf(), stream.GetAddressOf()));
    StreamReader in(stream.Get());
    _bstr_t storedName;
    RETURN_IF_FAILED_QUIET(ReadElementHeader(in, ElementKindGroup, storedName));
    DWORD groupId = 0;
    RETURN_IF_FAILED(in.Read(groupId));
    m_group.groupId = static_cast<BYTE>(groupId);
    if (!withMembers)
        return S_OK;

    // Members are read one by one, never reserved by the stored count: each
    // needs its bytes in the stream first.
    DWORD count = 0;
    RETURN_IF_FAILED(in.Read(count));
    m_group.members.clear();
    for (DWORD i = 0; i < count; ++i)
    {
        _bstr_t member;
        RETURN_IF_FAILED(in.Read(member));
        m_group.members.push_back(member);
    }
    return S_OK;
}

HRESULT FbInstanceData::WriteGroup(BSTR instanceId, bool withMembers)
{
    // A name that the map holds, of either kind, is refused (0x80043004).
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(OpenElementStream(instanceId, m_group.bstrName, true, ElementLookup::Allocate,
                                             storage.GetAddressOf(), stream.GetAddressOf()));
    RETURN_IF_FAILED(CStreamTool::SetStreamSize(stream.Get(), 0));
    StreamWriter out(stream.Get());
    RETURN_IF_FAILED_QUIET(WriteElementHeader(out, ElementKindGroup));
    RETURN_IF_FAILED(out.Write(DWORD(m_group.groupId)));
    if (withMembers)
    {
        RETURN_IF_FAILED(out.Write(static_cast<DWORD>(m_group.members.size())));
        for (const _bstr_t& member : m_group.members)
            RETURN_IF_FAILED(out.Write(member));
    }
    RETURN_IF_FAILED(storage->Commit(STGC_DEFAULT));
    return S_OK;
}

HRESULT FbInstanceData::GroupMemberNames(BSTR instanceId, BSTR name, ComVectorArray& names, bool checkMembers)
{
    m_group.bstrName = _bstr_t(name, true);
    RETURN_IF_FAILED(ReadGroup(instanceId, true));
    // The array owns copies: a member's string may be shared with the
    // parameter record by the check below.
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
            m_parameter.bstrName = m_group.members[i];
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
    return EXCEPTION_GUARD([&]() -> HRESULT {
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
    return EXCEPTION_GUARD([&]() -> HRESULT { return DestroyElementStream(InstanceID, Name, true); });
}

STDMETHODIMP FbInstanceData::GetGroupInfo(IFdtContext*, BSTR InstanceID, BSTR Name, unsigned char* GroupID)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
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
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(NameList, E_POINTER);
        ComVectorArray names;
        RETURN_IF_FAILED_QUIET(GroupMemberNames(InstanceID, Name, names, false));
        return names.DetachTo(NameList);
    });
}

STDMETHODIMP FbInstanceData::GetAllGroups(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT { return GetNameList(Context, InstanceID, NameList, true); });
}

STDMETHODIMP FbInstanceData::ReadGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name,
                                       SAFEARRAY** ParameterValueSequence)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(ParameterValueSequence, E_POINTER);
        ComVectorArray names;
        RETURN_IF_FAILED_QUIET(GroupMemberNames(InstanceID, Name, names, true));
        SAFEARRAY* members = names.Get();
        return ReadList(Context, InstanceID, &members, ParameterValueSequence);
    });
}

STDMETHODIMP FbInstanceData::WriteGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name,
                                        SAFEARRAY** ParameterValueSequence)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(ParameterValueSequence, E_POINTER);
        // Value i goes to member i.
        ComVectorArray names;
        RETURN_IF_FAILED_QUIET(GroupMemberNames(InstanceID, Name, names, true));
        SAFEARRAY* members = names.Get();
        return WriteList(Context, InstanceID, &members, ParameterValueSequence);
    });
}
