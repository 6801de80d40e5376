#pragma once
// The store object: keeps the persistent data of DTM instances in one
// structured-storage file. One object per process (see InstanceData.cpp).
#include <windows.h>
#include <objidl.h>
#include <comutil.h>
#include <wrl/client.h>
#include <map>
#include <vector>
#include "InstanceDataIdl.h"
#include "DispatchImpl.h"
#include "afxstub.h"
#include "PK_ComVector.h"
#include "StoreLock.h"

class StreamReader;
class StreamWriter;

// Holds the store's working state for the calling thread for the rest of an
// interface operation (every apartment of the process shares the store).
#define STORE_LOCK() StoreLock storeLock_

// Makes the module's own state current for the rest of an interface
// operation, and holds the store.
#define STORE_ENTRY()                            \
    AFX_MANAGE_STATE(AfxGetStaticModuleState()); \
    STORE_LOCK()

// IInstanceDataMgr is described by the module's own library INSTANCEDATALib.
template <>
inline const GUID& TypeLibOf<IInstanceDataMgr>::Id()
{
    return LIBID_INSTANCEDATALib;
}

// Administration record: the 8 bytes of the "admin" stream.
struct AdminRecord
{
    DWORD version = 0;
    DWORD nextInstanceNumber = 0;
};

// One downward reference of an instance.
struct SubInstanceRef
{
    _bstr_t bstrInstanceId;
    _bstr_t bstrParameterName;
};

// Mirror of one "instance" stream.
struct InstanceRecord
{
    DWORD lockCount = 0;
    _bstr_t bstrSuperInstanceId;
    _bstr_t bstrSuperParameterName;
    std::vector<SubInstanceRef> subInstances;

    void Reset();
};

// Working copy of one parameter stream.
struct ParameterRecord
{
    _bstr_t bstrName;
    _variant_t value;
    _variant_t defaultValue;
    LONG index = 0;
    DWORD dataType = 0;
    LONG size = 0;
    LONG objectType = 0;
    DWORD isMandatory = 0;
    DWORD isPrivate = 0;
    DWORD isProtected = 0;
    DWORD isLocked = 0;
};

// Working copy of one group stream.
struct GroupRecord
{
    _bstr_t bstrName;
    BYTE groupId = 0;
    std::vector<_bstr_t> members;
};

// Order of element names in a stream name map: a null name first, then by
// UTF-16 code units as unsigned numbers up to the first 0 unit.
struct ElementNameLess
{
    bool operator()(const _bstr_t& left, const _bstr_t& right) const;
};

enum ElementKind : DWORD
{
    ElementKindGroup = 1,
    ElementKindParameter = 2,
};

struct StreamNameEntry
{
    DWORD kind = 0;
    DWORD number = 0;
};

// Cached stream name map of one instance.
struct StreamNameMapRecord
{
    DWORD nextStreamNumber = 0;
    WCHAR szInstanceId[32] = {};
    std::map<_bstr_t, StreamNameEntry, ElementNameLess> entries;

    void Clear();
};

// Store results of our own facility.
enum : HRESULT
{
    IDS_E_NAME_EXISTS = static_cast<HRESULT>(0x80043004),       // name already in the stream name map
    IDS_E_MEMBER_NOT_PARAMETER = static_cast<HRESULT>(0x80043005),
    IDS_E_NOT_PARAMETER_STREAM = static_cast<HRESULT>(0x80043006),
    IDS_E_NOT_GROUP_STREAM = static_cast<HRESULT>(0x80043007),
    IDS_E_NAME_UNKNOWN = static_cast<HRESULT>(0x80043008),      // name not in the stream name map
};

// The only version that the store writes and accepts at the head of its streams.
enum : DWORD
{
    IDS_STREAM_VERSION = 1,
};

// Stream and storage modes of the store.
enum : DWORD
{
    IDS_STREAM_MODE = STGM_READWRITE | STGM_SHARE_EXCLUSIVE,                       // 0x12
    IDS_STORAGE_MODE = STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_EXCLUSIVE,    // 0x10012
};

// Locks the elements of a list that the store reads; E_UNEXPECTED for a null
// array, one of another rank or element kind, or one whose data is not there.
template <class Element>
HRESULT AccessList(ComVectorAccess<Element>& access, SAFEARRAY* array)
{
    return SUCCEEDED(access.Attach(array)) && (access.Data() || !access.Count()) ? S_OK : E_UNEXPECTED;
}

extern const WCHAR kInstanceDataDescriptorName[];   // "DVL/QTS-WMR-VQ_INSTANCEDATA"

class FbInstanceData : public CDispatchImpl<IFbInstanceData>,
                       public CDispatchImpl<IInstanceDataMgr>,
                       public ISupportErrorInfo
{
public:
    FbInstanceData();

    // IUnknown: the object is shared by all clients and lives as long as its
    // class object; AddRef and Release move the module lock count.
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

    // ISupportErrorInfo
    STDMETHODIMP InterfaceSupportsErrorInfo(REFIID iid) override;

    // IInstanceDataMgr
    STDMETHODIMP OpenStorage(BSTR bstrPath, IStorage** ppIStorage) override;
    STDMETHODIMP GetStorage(IStorage** ppIStorage) override;
    STDMETHODIMP GetStoragePath(BSTR* pbstrPath) override;

    // IFbInstanceData
    STDMETHODIMP Register() override;
    STDMETHODIMP Unregister() override;
    STDMETHODIMP Create(IFdtContext* Context, IFdtDtmDescriptor* DtmDescriptor,
                        IFdtCommunicationDescriptor* CommunicationDescriptor, BSTR* InstanceID) override;
    STDMETHODIMP ReadIdentification(IFdtContext* Context, BSTR InstanceID, IFdtDescriptor** Descriptor) override;
    STDMETHODIMP Delete(IFdtContext* Context, BSTR InstanceID) override;
    STDMETHODIMP Duplicate(IFdtContext* Context, BSTR InstanceID, BSTR* InstanceIDOut) override;
    STDMETHODIMP LockInstance(IFdtContext* Context, BSTR InstanceID) override;
    STDMETHODIMP UnlockInstance(IFdtContext* Context, BSTR InstanceID) override;
    STDMETHODIMP DefineGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name, unsigned char GroupID,
                             SAFEARRAY** NameList) override;
    STDMETHODIMP DeleteGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name) override;
    STDMETHODIMP GetGroupInfo(IFdtContext* Context, BSTR InstanceID, BSTR Name, unsigned char* GroupID) override;
    STDMETHODIMP GetGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name, SAFEARRAY** NameList) override;
    STDMETHODIMP GetAllGroups(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList) override;
    STDMETHODIMP GetAllParameters(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList) override;
    STDMETHODIMP ReadGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name,
                           SAFEARRAY** ParameterValueSequence) override;
    STDMETHODIMP WriteGroup(IFdtContext* Context, BSTR InstanceID, BSTR Name,
                            SAFEARRAY** ParameterValueSequence) override;
    STDMETHODIMP ReadList(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList,
                          SAFEARRAY** ParameterValueSequence) override;
    STDMETHODIMP WriteList(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList,
                           SAFEARRAY** ParameterValueSequence) override;
    STDMETHODIMP ReadParameter(IFdtContext* Context, BSTR InstanceID, BSTR Name, VARIANT* ParameterValue) override;
    STDMETHODIMP WriteParameter(IFdtContext* Context, BSTR InstanceID, BSTR Name, VARIANT ParameterValue) override;
    STDMETHODIMP ReadParameterInfo(IFdtContext* Context, BSTR InstanceID, BSTR Name,
                                   IFdtParameter** Parameter) override;
    STDMETHODIMP WriteParameterInfo(IFdtContext* Context, BSTR InstanceID, IFdtParameter* Parameter) override;
    STDMETHODIMP DeleteParameter(IFdtContext* Context, BSTR InstanceID, BSTR Name) override;
    STDMETHODIMP LockParameter(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList) override;
    STDMETHODIMP UnlockParameter(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList) override;
    STDMETHODIMP ProtectParameter(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList) override;
    STDMETHODIMP ReleaseParameter(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList) override;
    STDMETHODIMP AddInstanceDataReference(IFdtContext* Context, BSTR InstanceIDsuper, BSTR ParameterName,
                                          BSTR InstanceIDsub) override;
    STDMETHODIMP RemoveInstanceDataReference(IFdtContext* Context, BSTR InstanceIDsuper, BSTR ParameterName,
                                             BSTR InstanceIDsub) override;
    STDMETHODIMP GetSubInstanceData(IFdtContext* Context, BSTR InstanceIDsuper,
                                    SAFEARRAY** InstanceDataRefList) override;
    STDMETHODIMP GetSuperInstanceData(IFdtContext* Context, BSTR InstanceIDsub,
                                      IFdtInstanceDataRef** InstanceDataRef) override;
    STDMETHODIMP GetInstanceDataList(IFdtContext* Context, SAFEARRAY** InstanceDataIDList) override;

    // The store's internal steps, in this slot order; always called through
    // the object.
    virtual ~FbInstanceData();
    virtual HRESULT ReadGroup(BSTR instanceId, bool withMembers);
    virtual HRESULT WriteGroup(BSTR instanceId, bool withMembers);
    virtual HRESULT ReadFromInstance(IFdtCommunicationDescriptor* descriptor, BSTR instanceId);
    virtual HRESULT ReadFromInstance(IFdtDtmDescriptor* descriptor, BSTR instanceId);
    virtual HRESULT WriteToInstance(IFdtCommunicationDescriptor* descriptor, BSTR instanceId);
    virtual HRESULT WriteToInstance(IFdtDtmDescriptor* descriptor, BSTR instanceId);
    virtual HRESULT ReadAdmin();
    virtual HRESULT WriteAdmin();
    virtual HRESULT ReadInstanceStream(BSTR instanceId, bool headerOnly);
    virtual HRESULT WriteInstanceStream(BSTR instanceId, bool headerOnly);
    virtual HRESULT ReadPara(BSTR instanceId, bool readValue, bool readAll);
    virtual HRESULT WritePara(BSTR instanceId, bool writeAll, bool create);
    virtual HRESULT GetNameList(IFdtContext* context, BSTR instanceId, SAFEARRAY** names, bool groups);
    virtual HRESULT ReadStreamNameMap(BSTR instanceId);
    virtual HRESULT WriteStreamNameMap(BSTR instanceId);
    virtual HRESULT GetStreamName(BSTR instanceId, bool group, bool create);
    virtual HRESULT AllocateStreamName(BSTR instanceId, bool group);
    virtual HRESULT OpenInstanceStorage(BSTR instanceId, IStorage** storage);

private:
    // Reverts and releases a root storage that could not be taken into use;
    // writes the error trace line for line and gives hr back.
    HRESULT GiveUpRoot(HRESULT hr, int line);
    // Drops the cached instance storage and stream name map when they belong
    // to instanceId, so that nothing destroyed or replaced is used again.
    void ForgetInstanceStorage(BSTR instanceId);
    // The named stream of an instance, created when absent, with the instance
    // storage that holds it (the caller commits that after a write).
    HRESULT OpenInstanceStream(BSTR instanceId, const wchar_t* name, IStorage** storage, IStream** stream);
    bool StorageReady() const { return m_bStorageOpen && m_pRootStorage; }
    // The storage guard and argument check of the descriptor streams, then
    // the instance storage and the stream name; a rewrite empties the stream
    // and writes its version.
    HRESULT OpenDescriptorStream(IDispatch* descriptor, BSTR instanceId, const wchar_t* name, bool rewrite,
                                 IStorage** storage, IStream** stream);
    // Common body of LockParameter and its three siblings.
    HRESULT ChangeParameterFlag(BSTR instanceId, SAFEARRAY** nameList, DWORD ParameterRecord::*flag,
                                DWORD from, DWORD to);
    // Reads the group name with its members into m_group and makes them a
    // new name array; with checkMembers a member whose stream is not a
    // parameter stream ends it first.
    HRESULT GroupMemberNames(BSTR instanceId, BSTR name, ComVectorArray& names, bool checkMembers);
    // Parameter and group streams alike: the stream of the element name (put
    // into m_bstrElementName), its name looked up, looked up or allocated,
    // or allocated; the header of version, kind and name (the stored name
    // must be m_bstrElementName); removal of the stream of name.
    enum class ElementLookup { Find, FindOrAllocate, Allocate };
    HRESULT OpenElementStream(BSTR instanceId, const _bstr_t& name, bool group, ElementLookup lookup,
                              IStorage** storage, IStream** stream);
    HRESULT ReadElementHeader(StreamReader& in, DWORD kind, _bstr_t& name);
    HRESULT WriteElementHeader(StreamWriter& out, DWORD kind);
    HRESULT DestroyElementStream(BSTR instanceId, BSTR name, bool group);

    FbInstanceData(const FbInstanceData&) = delete;
    FbInstanceData& operator=(const FbInstanceData&) = delete;

    BSTR m_bstrStoragePath = nullptr;
    bool m_bStorageOpen = false;
    IStorage* m_pRootStorage = nullptr;
    WCHAR m_szInstanceStorageName[32] = {};
    IStorage* m_pInstanceStorage = nullptr;
    bool m_bCreatingInstance = false;   // set while Create writes a new instance
    AdminRecord m_admin;
    InstanceRecord m_instance;
    _bstr_t m_bstrElementName;
    WCHAR m_szStreamName[32] = {};
    GroupRecord m_group;
    ParameterRecord m_parameter;
    StreamNameMapRecord m_streamNameMap;
};
