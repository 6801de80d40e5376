// The store object: state, conventions, IInstanceDataMgr, the administration
// stream, the instance storage cache and the stream name map.
#include "FbInstanceData.h"
#include <wrl/client.h>
#include <cwchar>
#include "Common/ErrorTrace.h"
#include "Common/StreamIo.h"
#include "afxstub.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceData";

const WCHAR kInstanceDataDescriptorName[] = L"DVL/QTS-WMR-VQ_INSTANCEDATA";

static_assert(sizeof(AdminRecord) == 8, "the administration stream is exactly 8 bytes");

namespace
{
// Copies at most 31 characters of text (null reads as empty) into a 32-unit buffer.
void CopyName(WCHAR (&target)[32], const WCHAR* text)
{
    lstrcpynW(target, text ? text : L"", 32);
}

// Both null, or both not null with the same characters (case-sensitive).
bool SameBstr(BSTR left, BSTR right)
{
    if (!left || !right)
        return !left && !right;
    const UINT length = SysStringLen(left);
    return length == SysStringLen(right) && wmemcmp(left, right, length) == 0;
}

bool SameText(const WCHAR* left, const WCHAR* right)
{
    return wcscmp(left ? left : L"", right ? right : L"") == 0;
}
}  // namespace

bool ElementNameLess::operator()(const _bstr_t& left, const _bstr_t& right) const
{
    const WCHAR* a = left;
    const WCHAR* b = right;
    if (!a || !b)
        return !a && b;
    for (;; ++a, ++b)
    {
        const unsigned ua = static_cast<unsigned short>(*a), ub = static_cast<unsigned short>(*b);
        if (ua != ub)
            return ua < ub;
        if (ua == 0)
            return false;
    }
}

void InstanceRecord::Reset()
{
    lockCount = 0;
    bstrSuperInstanceId = _bstr_t();
    bstrSuperParameterName = _bstr_t();
    subInstances.clear();
}

void StreamNameMapRecord::Clear()
{
    nextStreamNumber = 0;
    szInstanceId[0] = L'\0';
    entries.clear();
}

FbInstanceData::FbInstanceData() {}

FbInstanceData::~FbInstanceData()
{
    if (m_bStorageOpen && m_pRootStorage)
        m_pRootStorage->Release();
    if (m_pInstanceStorage)
        m_pInstanceStorage->Release();
    SysFreeString(m_bstrStoragePath);
}

// ---------------------------------------------------------------- IUnknown

STDMETHODIMP FbInstanceData::QueryInterface(REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, IID_IFbInstanceData))
        *object = static_cast<IFbInstanceData*>(this);
    else if (IsEqualIID(iid, IID_IInstanceDataMgr))
        *object = static_cast<IInstanceDataMgr*>(this);
    else if (IsEqualIID(iid, IID_ISupportErrorInfo))
        *object = static_cast<ISupportErrorInfo*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

STDMETHODIMP_(ULONG) FbInstanceData::AddRef()
{
    return static_cast<ULONG>(_Module.Lock());
}

STDMETHODIMP_(ULONG) FbInstanceData::Release()
{
    return static_cast<ULONG>(_Module.Unlock());
}

STDMETHODIMP FbInstanceData::InterfaceSupportsErrorInfo(REFIID iid)
{
    return (IsEqualIID(iid, IID_IFbInstanceData) || IsEqualIID(iid, IID_IInstanceDataMgr)) ? S_OK : S_FALSE;
}

// -------------------------------------------------------- IInstanceDataMgr

STDMETHODIMP FbInstanceData::OpenStorage(BSTR bstrPath, IStorage** ppIStorage)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        if (!bstrPath || !bstrPath[0] || !ppIStorage)
            return E_POINTER;
        m_streamNameMap.Clear();

        if (m_bStorageOpen || m_pRootStorage)
        {
            if (SameBstr(bstrPath, m_bstrStoragePath))
            {
                m_pRootStorage->AddRef();
                *ppIStorage = m_pRootStorage;
                return S_OK;
            }
            if (m_pRootStorage)
                m_pRootStorage->Release();
            m_pRootStorage = nullptr;
            m_bStorageOpen = false;
        }
        m_szInstanceStorageName[0] = L'\0';

        HRESULT hr = StgOpenStorage(bstrPath, nullptr, IDS_STORAGE_MODE, nullptr, 0, &m_pRootStorage);
        if (SUCCEEDED(hr) && m_pRootStorage)
        {
            hr = ReadAdmin();
            if (FAILED(hr))
                return GiveUpRoot(hr, __LINE__);
        }
        else
        {
            if (m_pRootStorage)
                m_pRootStorage->Release();
            m_pRootStorage = nullptr;
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo,
                                       "FbInstanceData::OpenStorage StgOpenStorage(%ls) failed -> create new storage file\n",
                                       bstrPath);
            hr = StgCreateDocfile(bstrPath, IDS_STORAGE_MODE | STGM_CREATE, 0, &m_pRootStorage);
            if (FAILED(hr) || !m_pRootStorage)
            {
                if (m_pRootStorage)
                    m_pRootStorage->Release();
                m_pRootStorage = nullptr;
                return TraceErrorLine(THIS_FILE, __LINE__, FAILED(hr) ? hr : E_FAIL);
            }
            m_admin.version = 1;
            m_admin.nextInstanceNumber = 1;
            hr = WriteAdmin();
            if (FAILED(hr))
                return GiveUpRoot(hr, __LINE__);
        }

        BSTR path = SysAllocStringLen(bstrPath, SysStringLen(bstrPath));
        if (!path)
            AfxThrowMemoryException();
        SysFreeString(m_bstrStoragePath);
        m_bstrStoragePath = path;
        m_bStorageOpen = true;
        m_pRootStorage->AddRef();
        *ppIStorage = m_pRootStorage;
        return S_OK;
    });
}

// Reverts and releases a root storage that could not be taken into use.
HRESULT FbInstanceData::GiveUpRoot(HRESULT hr, int line)
{
    m_pRootStorage->Revert();
    m_pRootStorage->Release();
    m_pRootStorage = nullptr;
    return TraceErrorLine(THIS_FILE, line, hr);
}

STDMETHODIMP FbInstanceData::GetStorage(IStorage** ppIStorage)
{
    STORE_LOCK();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        if (!ppIStorage)
            return E_POINTER;
        *ppIStorage = nullptr;
        if (!StorageReady())
            return E_FAIL;
        m_pRootStorage->AddRef();
        *ppIStorage = m_pRootStorage;
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::GetStoragePath(BSTR* pbstrPath)
{
    STORE_LOCK();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        if (!pbstrPath)
            return TraceErrorLine(THIS_FILE, __LINE__, E_POINTER);
        BSTR path = SysAllocStringLen(m_bstrStoragePath ? m_bstrStoragePath : L"", SysStringLen(m_bstrStoragePath));
        if (!path)
            return E_OUTOFMEMORY;
        *pbstrPath = path;
        return S_OK;
    });
}

// ----------------------------------------------- administration and storage

HRESULT FbInstanceData::ReadAdmin()
{
    ComPtr<IStream> stream;
    RETURN_IF_FAILED(CStreamTool::Open(m_pRootStorage, L"admin", stream.GetAddressOf(), IDS_STREAM_MODE));
    return CStreamTool::Read(stream.Get(), &m_admin, sizeof m_admin, nullptr);
}

HRESULT FbInstanceData::WriteAdmin()
{
    ComPtr<IStream> stream;
    RETURN_IF_FAILED(CStreamTool::Open(m_pRootStorage, L"admin", stream.GetAddressOf(), IDS_STREAM_MODE));
    RETURN_IF_FAILED(CStreamTool::SetStreamSize(stream.Get(), 0));
    return CStreamTool::Write(stream.Get(), &m_admin, sizeof m_admin, nullptr);
}

HRESULT FbInstanceData::OpenInstanceStorage(BSTR instanceId, IStorage** storage)
{
    if (!storage)
        return E_POINTER;
    // Windows refuses an element without a name; Wine would make one.
    if (!instanceId || !instanceId[0])
        return TraceErrorLine(THIS_FILE, __LINE__, STG_E_INVALIDNAME);
    const bool cached = m_pInstanceStorage && m_szInstanceStorageName[0] && SameText(m_szInstanceStorageName, instanceId);
    if (!cached)
    {
        CopyName(m_szInstanceStorageName, instanceId);
        if (m_pInstanceStorage)
            m_pInstanceStorage->Release();
        m_pInstanceStorage = nullptr;
        // Only Create brings an instance storage into being: an operation on an
        // identifier without instance must not leave an empty storage behind,
        // which the instance list would then show.
        const HRESULT hr =
            m_bCreatingInstance || !m_pRootStorage
                ? CStreamTool::Open(m_pRootStorage, m_szInstanceStorageName, &m_pInstanceStorage, IDS_STORAGE_MODE)
                : m_pRootStorage->OpenStorage(m_szInstanceStorageName, nullptr, IDS_STORAGE_MODE, nullptr, 0,
                                              &m_pInstanceStorage);
        if (FAILED(hr))
        {
            m_szInstanceStorageName[0] = L'\0';
            return TraceErrorLine(THIS_FILE, __LINE__, hr);
        }
    }
    m_pInstanceStorage->AddRef();
    *storage = m_pInstanceStorage;
    return S_OK;
}

void FbInstanceData::ForgetInstanceStorage(BSTR instanceId)
{
    WCHAR name[32];
    CopyName(name, instanceId);
    if (m_szInstanceStorageName[0] && SameText(name, m_szInstanceStorageName))
    {
        m_szInstanceStorageName[0] = L'\0';
        if (m_pInstanceStorage)
            m_pInstanceStorage->Release();
        m_pInstanceStorage = nullptr;
    }
    if (m_streamNameMap.szInstanceId[0] && SameText(name, m_streamNameMap.szInstanceId))
        m_streamNameMap.Clear();
}

HRESULT FbInstanceData::OpenInstanceStream(BSTR instanceId, const wchar_t* name, IStorage** storage, IStream** stream)
{
    RETURN_IF_FAILED_QUIET(OpenInstanceStorage(instanceId, storage));
    RETURN_IF_FAILED(CStreamTool::Open(*storage, name, stream, IDS_STREAM_MODE));
    return S_OK;
}

// -------------------------------------------------------- stream name map

HRESULT FbInstanceData::ReadStreamNameMap(BSTR instanceId)
{
    if (m_streamNameMap.szInstanceId[0] && SameText(m_streamNameMap.szInstanceId, instanceId))
        return S_OK;
    m_streamNameMap.Clear();

    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(OpenInstanceStream(instanceId, L"map", storage.GetAddressOf(), stream.GetAddressOf()));
    StreamReader in(stream.Get());
    DWORD version = 0;
    RETURN_IF_FAILED(in.Read(version));
    if (version != IDS_STREAM_VERSION)
    {
        g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::ReadStreamNameMap invalid version\n");
        return E_FAIL;
    }
    DWORD count = 0;
    RETURN_IF_FAILED(in.Read(m_streamNameMap.nextStreamNumber));
    RETURN_IF_FAILED(in.Read(count));
    for (DWORD i = 0; i < count; ++i)
    {
        _bstr_t name;
        StreamNameEntry entry;
        RETURN_IF_FAILED(in.Read(name));
        RETURN_IF_FAILED(in.Read(entry.kind));
        RETURN_IF_FAILED(in.Read(entry.number));
        m_streamNameMap.entries[name] = entry;
    }
    CopyName(m_streamNameMap.szInstanceId, instanceId);
    return S_OK;
}

HRESULT FbInstanceData::WriteStreamNameMap(BSTR instanceId)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(OpenInstanceStream(instanceId, L"map", storage.GetAddressOf(), stream.GetAddressOf()));
    RETURN_IF_FAILED(CStreamTool::SetStreamSize(stream.Get(), 0));
    StreamWriter out(stream.Get());
    RETURN_IF_FAILED(out.Write(DWORD(IDS_STREAM_VERSION)));
    RETURN_IF_FAILED(out.Write(m_streamNameMap.nextStreamNumber));
    RETURN_IF_FAILED(out.Write(static_cast<DWORD>(m_streamNameMap.entries.size())));
    for (const auto& entry : m_streamNameMap.entries)
    {
        RETURN_IF_FAILED(out.Write(entry.first));
        RETURN_IF_FAILED(out.Write(entry.second.kind));
        RETURN_IF_FAILED(out.Write(entry.second.number));
    }
    return storage->Commit(STGC_DEFAULT);
}

HRESULT FbInstanceData::GetStreamName(BSTR instanceId, bool group, bool create)
{
    RETURN_IF_FAILED_QUIET(ReadStreamNameMap(instanceId));
    const auto found = m_streamNameMap.entries.find(m_bstrElementName);
    if (found == m_streamNameMap.entries.end())
        return create ? AllocateStreamName(instanceId, group) : IDS_E_NAME_UNKNOWN;
    if (found->second.kind != (group ? ElementKindGroup : ElementKindParameter))
    {
        m_szStreamName[0] = L'\0';
        return E_FAIL;
    }
    _ultow(found->second.number, m_szStreamName, 10);
    return S_OK;
}

HRESULT FbInstanceData::AllocateStreamName(BSTR instanceId, bool group)
{
    RETURN_IF_FAILED_QUIET(ReadStreamNameMap(instanceId));
    if (m_streamNameMap.entries.count(m_bstrElementName))
        return IDS_E_NAME_EXISTS;
    try
    {
        StreamNameEntry& entry = m_streamNameMap.entries[m_bstrElementName];
        entry.kind = group ? ElementKindGroup : ElementKindParameter;
        entry.number = m_streamNameMap.nextStreamNumber;
    }
    catch (...)
    {
        return E_FAIL;
    }
    _ultow(m_streamNameMap.nextStreamNumber, m_szStreamName, 10);
    ++m_streamNameMap.nextStreamNumber;
    return WriteStreamNameMap(instanceId);
}
