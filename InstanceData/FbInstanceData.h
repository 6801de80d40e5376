#pragma once
// The store object: keeps the persistent data of DTM instances in one
// structured-storage file. One object per process (see InstanceData.cpp).
#include <windows.h>
#include <objidl.h>
#include <comutil.h>
#include <wrl/client.h>
#include <map>
#include <utility>
#include <string>
#include <vector>
#include "InstanceDataIdl.h"
#include "DispatchImpl.h"
#include "afxstub.h"
#include "PK_ComVector.h"
#include "InstanceData/StoreFormat.h"
#include "Common/ErrorTrace.h"
#include "StoreLock.h"

// Makes the module's own state current for the rest of an interface operation.
#define STORE_STATE() AFX_MANAGE_STATE(AfxGetStaticModuleState())

// Holds the store's working state for the calling thread for the rest of an
// interface operation (every apartment of the process shares the store). An
// operation that reads the caller's objects reads them before: they may be
// proxies into an apartment that is itself waiting for the store.
#define STORE_LOCK() StoreLock storeLock_

#define STORE_ENTRY() \
    STORE_STATE();    \
    STORE_LOCK()

// IInstanceDataMgr is described by the module's own library INSTANCEDATALib.
template <>
inline const GUID& TypeLibOf<IInstanceDataMgr>::Id()
{
    return LIBID_INSTANCEDATALib;
}

// Stream and storage modes of the store.
enum : DWORD
{
    IDS_STREAM_MODE = STGM_READWRITE | STGM_SHARE_EXCLUSIVE,                       // 0x12
    IDS_STORAGE_MODE = STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_EXCLUSIVE,    // 0x10012
};

// One stream of an instance storage, read whole: its bytes, and the open
// stream and storage to write a new record back through.
struct RecordStream
{
    Microsoft::WRL::ComPtr<IStorage> storage;
    Microsoft::WRL::ComPtr<IStream> stream;
    std::wstring name;   // of a stream that was read
    Bytes bytes;
    size_t headEnd = 0;   // where the part read last ended

    // Replaces the stream's content by bytes (one write), then commits the
    // instance storage unless told not to.
    HRESULT Save(const Bytes& record, bool commit = true);
    // Lets go of the stream and forgets what it held; the buffer keeps its
    // memory for the next record.
    void Reset();
};

// The name of the element an operation works on. Its buffer stays from one
// operation to the next: naming the element allocates nothing once it has
// held a name as long.
class ElementName
{
public:
    void Assign(BSTR name)
    {
        m_null = !name;
        m_text.assign(name ? name : L"", SysStringLen(name));
    }
    const WCHAR* Get() const { return m_null ? nullptr : m_text.c_str(); }
    UINT Length() const { return static_cast<UINT>(m_text.size()); }
    // A string of its own, as a map entry or a record keeps it.
    _bstr_t Copy() const;

private:
    std::wstring m_text;
    bool m_null = true;
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
    // the object. ReadPara and WritePara move the record of the parameter
    // that m_elementName names; WritePara writes that name.
    virtual ~FbInstanceData();
    virtual HRESULT ReadGroup(BSTR instanceId, bool withMembers);
    virtual HRESULT WriteGroup(BSTR instanceId, bool withMembers);
    virtual HRESULT ReadFromInstance(IFdtCommunicationDescriptor* descriptor, BSTR instanceId);
    virtual HRESULT ReadFromInstance(IFdtDtmDescriptor* descriptor, BSTR instanceId);
    virtual HRESULT WriteToInstance(const CommDescriptorRecord& descriptor, IStorage* storage);
    virtual HRESULT WriteToInstance(const DtmDescriptorRecord& descriptor, IStorage* storage);
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
    // Runs body (a callable giving an HRESULT) as one interface operation:
    // inside the exception guard, and afterwards no stream is held and a
    // failure leaves the cached instance storage without pending changes.
    template <class Body>
    HRESULT Operation(const char* file, int line, Body&& body);
    // Runs body, which rewrites records of one instance, all or nothing: when
    // body fails, every record it rewrote gets back what it held. Each record
    // is still committed as it is written (one commit at the end is several
    // times slower for many records under Wine's transacted storages).
    template <class Body>
    HRESULT AllOrNothing(Body&& body);
    void TakeBackRewrittenRecords();
    // Drops the cached instance storage and stream name map when they belong
    // to instanceId (any instance for null), so that nothing destroyed or
    // replaced is used again.
    void ForgetInstanceStorage(BSTR instanceId);
    // Releases the root storage and everything cached from it; the path of
    // the last file stays.
    void CloseStorage();
    // The named stream of an instance, read whole; with create a missing
    // stream is made (empty) instead of failing.
    HRESULT ReadRecord(BSTR instanceId, const wchar_t* name, bool create, RecordStream& record);
    bool StorageReady() const { return m_bStorageOpen && m_pRootStorage; }
    // Brings a new instance storage into being under the first free number
    // from m_admin.nextInstanceNumber on; the number taken is left in number.
    HRESULT CreateInstanceStorage(DWORD& number, Microsoft::WRL::ComPtr<IStorage>& storage);
    // The descriptors of the caller as records, read before anything is written.
    HRESULT DescriptorRecordOf(IFdtDtmDescriptor* descriptor, DtmDescriptorRecord& record);
    HRESULT DescriptorRecordOf(IFdtCommunicationDescriptor* descriptor, CommDescriptorRecord& record);
    // Common body of LockParameter and its three siblings.
    HRESULT ChangeParameterFlag(BSTR instanceId, SAFEARRAY** nameList, DWORD ParameterRecord::*flag,
                                DWORD from, DWORD to);
    // Reads the group name with its members into m_group and makes them a
    // new name array; with checkMembers a member whose stream is not a
    // parameter stream ends it first.
    HRESULT GroupMemberNames(BSTR instanceId, BSTR name, ComVectorArray& names, bool checkMembers);
    // Parameter and group streams alike: the stream of m_elementName, looked
    // up, looked up or allocated, or allocated, read whole into m_element;
    // the stored name must be m_elementName. Removal of the stream of name.
    enum class ElementLookup { Find, FindOrAllocate, Allocate };
    HRESULT OpenElementStream(BSTR instanceId, bool group, ElementLookup lookup);
    HRESULT CheckElementHead(HRESULT read, bool group, const StoredString& storedName);
    HRESULT DestroyElementStream(BSTR instanceId, BSTR name, bool group);

    FbInstanceData(const FbInstanceData&) = delete;
    FbInstanceData& operator=(const FbInstanceData&) = delete;

    BSTR m_bstrStoragePath = nullptr;
    bool m_bStorageOpen = false;
    IStorage* m_pRootStorage = nullptr;
    WCHAR m_szInstanceStorageName[32] = {};
    IStorage* m_pInstanceStorage = nullptr;
    AdminRecord m_admin;
    InstanceRecord m_instance;
    ElementName m_elementName;   // of the parameter or group of the operation
    WCHAR m_szStreamName[32] = {};
    GroupRecord m_group;
    ParameterRecord m_parameter;
    StreamNameMapRecord m_streamNameMap;
    DWORD m_highestStreamNumber = 0;   // of the entries in m_streamNameMap
    RecordStream m_adminStream;        // the "admin" stream, while an operation runs
    RecordStream m_element;            // the parameter or group stream of the operation
    bool m_bElementNew = false;        // m_element was just allocated
    // Records rewritten under AllOrNothing, with what they held before.
    struct RewrittenRecord
    {
        // The storage, not the stream: a failing operation inside reverts the
        // storage, which ends the streams opened in it.
        Microsoft::WRL::ComPtr<IStorage> storage;
        std::wstring name;
        Bytes before;
        size_t size;   // of the record written
    };
    std::vector<RewrittenRecord> m_rewritten;
    int m_allOrNothingDepth = 0;
};

template <class Body>
HRESULT FbInstanceData::Operation(const char* file, int line, Body&& body)
{
    HRESULT hr = ExceptionGuard(file, line, body);
    if (hr == STG_E_REVERTED)
    {
        // The frame reverted the root under the cached instance storage: the
        // first call on it failed before anything changed, so the operation
        // runs once more on the storage opened anew.
        m_element.Reset();
        ForgetInstanceStorage(nullptr);
        hr = ExceptionGuard(file, line, body);
    }
    m_element.Reset();
    m_adminStream.Reset();
    if (FAILED(hr))
    {
        // What the failed operation changed in the instance storage goes, and
        // the map in memory is read again from what the file holds.
        if (m_pInstanceStorage)
            m_pInstanceStorage->Revert();
        m_streamNameMap.Clear();
    }
    return hr;
}

template <class Body>
HRESULT FbInstanceData::AllOrNothing(Body&& body)
{
    struct Depth
    {
        FbInstanceData& store;
        ~Depth()
        {
            if (!--store.m_allOrNothingDepth)
                store.m_rewritten.clear();
        }
    } depth{(++m_allOrNothingDepth, *this)};
    const HRESULT hr = body();
    if (FAILED(hr) && m_allOrNothingDepth == 1)
        TakeBackRewrittenRecords();
    return hr;
}

// The exception guard of the store's interface operations.
#define STORE_OPERATION(...) Operation(THIS_FILE, __LINE__, __VA_ARGS__)
