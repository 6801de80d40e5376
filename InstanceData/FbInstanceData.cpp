// The store object: state, conventions, IInstanceDataMgr, the administration
// stream, the instance storage cache and the stream name map.
#include "FbInstanceData.h"
#include <wrl/client.h>
#include <cwchar>
#include <string>
#include "Common/ErrorTrace.h"
#include "Common/ByteStream.h"
#include "afxstub.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceData";

const WCHAR kInstanceDataDescriptorName[] = L"DVL/QTS-WMR-VQ_INSTANCEDATA";

namespace
{
// Both null, or both not null with the same characters (case-sensitive).
bool SameBstr(BSTR left, BSTR right)
{
    if (!left || !right)
        return !left && !right;
    const UINT length = SysStringLen(left);
    return length == SysStringLen(right) && wmemcmp(left, right, length) == 0;
}

// Why a file could not be opened as a storage: it is not there (a new one is
// made), it is held or guarded (the open fails and nothing is touched), or
// its bytes are not a readable compound file (it is kept aside first).
enum class OpenFailure { Missing, Held, Unreadable };

OpenFailure KindOf(HRESULT hr)
{
    switch (hr)
    {
    case STG_E_FILENOTFOUND:
    case STG_E_PATHNOTFOUND:
        return OpenFailure::Missing;
    case STG_E_SHAREVIOLATION:
    case STG_E_LOCKVIOLATION:
    case STG_E_ACCESSDENIED:
    case STG_E_INSUFFICIENTMEMORY:
    case STG_E_TOOMANYOPENFILES:
    case E_OUTOFMEMORY:
        return OpenFailure::Held;
    default:
        return OpenFailure::Unreadable;
    }
}

// Moves the file at path to "<path>.unreadable", or "<path>.unreadable.<n>"
// with the first n not taken; an existing file is never replaced.
HRESULT KeepAside(BSTR path, std::wstring& keptAt)
{
    for (unsigned n = 0; n < 10000; ++n)
    {
        keptAt = std::wstring(path) + L".unreadable";
        if (n)
            keptAt += L"." + std::to_wstring(n);
        if (MoveFileExW(path, keptAt.c_str(), 0))
            return S_OK;
        const DWORD error = GetLastError();
        if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS)
            return HRESULT_FROM_WIN32(error);
    }
    return HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
}
}  // namespace

FbInstanceData::FbInstanceData() {}

FbInstanceData::~FbInstanceData()
{
    CloseStorage();
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
    return STORE_OPERATION([&]() -> HRESULT {
        if (!bstrPath || !bstrPath[0] || !ppIStorage)
            return E_POINTER;
        // Copied first: without memory for it, the open file stays as it was.
        _bstr_t path(bstrPath, true);
        if (StorageReady() && SameBstr(bstrPath, m_bstrStoragePath))
        {
            m_pRootStorage->AddRef();
            *ppIStorage = m_pRootStorage;
            return S_OK;
        }
        // The old file is let go first, so that a new spelling of its path opens it again.
        CloseStorage();

        // The new root is taken into use only when it is complete: whatever
        // fails or throws on the way releases it and leaves the store closed.
        if (CutInsideSector(bstrPath))
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                       "FbInstanceData::OpenStorage %ls is cut short inside a sector: not opened\n",
                                       bstrPath);
            return TraceErrorLine(THIS_FILE, __LINE__, STG_E_DOCFILECORRUPT);
        }
        ComPtr<IStorage> root;
        AdminRecord admin;
        HRESULT hr = StgOpenStorage(bstrPath, nullptr, IDS_STORAGE_MODE, nullptr, 0, root.GetAddressOf());
        if (SUCCEEDED(hr))
        {
            RecordStream stream;
            hr = root->OpenStream(L"admin", nullptr, IDS_STREAM_MODE, 0, stream.stream.GetAddressOf());
            if (SUCCEEDED(hr))
                hr = ReadWholeStream(stream.stream.Get(), stream.bytes);
            if (SUCCEEDED(hr))
            {
                ByteReader in(stream.bytes);
                hr = ReadAdminRecord(in, admin);
            }
            if (FAILED(hr))
            {
                root->Revert();
                return TraceErrorLine(THIS_FILE, __LINE__, hr);
            }
        }
        else
        {
            const OpenFailure failure = KindOf(hr);
            if (failure == OpenFailure::Held)
                return TraceErrorLine(THIS_FILE, __LINE__, hr);
            if (failure == OpenFailure::Unreadable)
            {
                // The frame gets a new store, but the old bytes are kept: a
                // file that cannot be kept aside is not replaced either.
                std::wstring keptAt;
                RETURN_IF_FAILED(KeepAside(bstrPath, keptAt));
                g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                           "FbInstanceData::OpenStorage %ls is not a readable storage file: kept as %ls\n",
                                           bstrPath, keptAt.c_str());
            }
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo,
                                       "FbInstanceData::OpenStorage StgOpenStorage(%ls) failed -> create new storage file\n",
                                       bstrPath);
            RETURN_IF_FAILED(StgCreateDocfile(bstrPath, IDS_STORAGE_MODE | STGM_CREATE, 0, root.GetAddressOf()));
            admin.version = 1;
            admin.nextInstanceNumber = 1;
            ByteWriter out;
            WriteAdminRecord(out, admin);
            RecordStream stream;
            hr = root->CreateStream(L"admin", IDS_STREAM_MODE | STGM_CREATE, 0, 0, stream.stream.GetAddressOf());
            if (SUCCEEDED(hr))
                hr = stream.Save(out.Buffer(), false);
            if (FAILED(hr))
            {
                root->Revert();
                return TraceErrorLine(THIS_FILE, __LINE__, hr);
            }
        }

        // From here nothing can fail or throw.
        m_admin = admin;
        SysFreeString(m_bstrStoragePath);
        m_bstrStoragePath = path.Detach();
        m_pRootStorage = root.Detach();
        m_bStorageOpen = true;
        m_pRootStorage->AddRef();
        *ppIStorage = m_pRootStorage;
        return S_OK;
    });
}

void FbInstanceData::CloseStorage()
{
    m_streamNameMap.Clear();
    m_szInstanceStorageName[0] = L'\0';
    if (m_pInstanceStorage)
        m_pInstanceStorage->Release();
    m_pInstanceStorage = nullptr;
    if (m_pRootStorage)
        m_pRootStorage->Release();
    m_pRootStorage = nullptr;
    m_bStorageOpen = false;
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

// ------------------------------------------------------------ record streams

HRESULT RecordStream::Save(const Bytes& record, bool commit)
{
    RETURN_IF_FAILED(WriteWholeStream(stream.Get(), record, bytes.size(), bytes.size()));
    bytes = record;
    if (commit && storage)
        RETURN_IF_FAILED(storage->Commit(STGC_DEFAULT));
    return S_OK;
}

_bstr_t ElementName::Copy() const
{
    if (m_null)
        return _bstr_t();
    BSTR copy = SysAllocStringLen(m_text.data(), Length());
    if (!copy)
        _com_issue_error(E_OUTOFMEMORY);
    return _bstr_t(copy, false);
}

void RecordStream::Reset()
{
    storage.Reset();
    stream.Reset();
    name.clear();
    bytes.clear();
    headEnd = 0;
}

void FbInstanceData::TakeBackRewrittenRecords()
{
    // The stream that the operation holds may be one of them: the platform
    // does not open a stream twice.
    m_element.Reset();
    // Latest first: a record rewritten twice ends with what it held first.
    for (auto record = m_rewritten.rbegin(); record != m_rewritten.rend(); ++record)
    {
        ComPtr<IStream> stream;
        HRESULT hr = record->storage->OpenStream(record->name.c_str(), nullptr, IDS_STREAM_MODE, 0, &stream);
        if (SUCCEEDED(hr))
            hr = WriteWholeStream(stream.Get(), record->before, record->size, 0);
        if (SUCCEEDED(hr))
            hr = record->storage->Commit(STGC_DEFAULT);
        if (FAILED(hr))
            TraceErrorLine(THIS_FILE, __LINE__, hr);
    }
    m_rewritten.clear();
}

HRESULT FbInstanceData::ReadRecord(BSTR instanceId, const wchar_t* name, bool create, RecordStream& record)
{
    record.Reset();
    RETURN_IF_FAILED_QUIET(OpenInstanceStorage(instanceId, record.storage.GetAddressOf()));
    record.name = name;
    HRESULT hr = record.storage->OpenStream(name, nullptr, IDS_STREAM_MODE, 0, record.stream.GetAddressOf());
    if (hr == STG_E_FILENOTFOUND && create)
        hr = record.storage->CreateStream(name, IDS_STREAM_MODE | STGM_FAILIFTHERE, 0, 0, record.stream.GetAddressOf());
    RETURN_IF_FAILED(hr);
    RETURN_IF_FAILED(ReadWholeStream(record.stream.Get(), record.bytes));
    return S_OK;
}

// ----------------------------------------------- administration and storage

HRESULT FbInstanceData::ReadAdmin()
{
    RETURN_IF_NULL(m_pRootStorage, E_FAIL);
    m_adminStream.Reset();
    RETURN_IF_FAILED(m_pRootStorage->OpenStream(L"admin", nullptr, IDS_STREAM_MODE, 0,
                                                m_adminStream.stream.GetAddressOf()));
    RETURN_IF_FAILED(ReadWholeStream(m_adminStream.stream.Get(), m_adminStream.bytes));
    ByteReader in(m_adminStream.bytes);
    RETURN_IF_FAILED(ReadAdminRecord(in, m_admin));
    return S_OK;
}

HRESULT FbInstanceData::WriteAdmin()
{
    // Written after ReadAdmin in the same operation: the stream it read is still open.
    RETURN_IF_NULL(m_adminStream.stream, E_UNEXPECTED);
    ByteWriter out;
    WriteAdminRecord(out, m_admin);
    RETURN_IF_FAILED(m_adminStream.Save(out.Buffer(), false));
    return S_OK;
}

HRESULT FbInstanceData::OpenInstanceStorage(BSTR instanceId, IStorage** storage)
{
    if (!storage)
        return E_POINTER;
    // Windows refuses an element without a name; Wine would make one.
    if (!instanceId || !instanceId[0])
        return TraceErrorLine(THIS_FILE, __LINE__, STG_E_INVALIDNAME);
    RETURN_IF_NULL(m_pRootStorage, E_FAIL);
    WCHAR name[32];
    CopyName(name, instanceId);
    const bool cached = m_pInstanceStorage && m_szInstanceStorageName[0] && SameElementName(m_szInstanceStorageName, name);
    if (!cached)
    {
        m_szInstanceStorageName[0] = L'\0';
        if (m_pInstanceStorage)
            m_pInstanceStorage->Release();
        m_pInstanceStorage = nullptr;
        // Only Create brings an instance storage into being: an operation on an
        // identifier without instance must not leave an empty storage behind,
        // which the instance list would then show.
        RETURN_IF_FAILED(m_pRootStorage->OpenStorage(name, nullptr, IDS_STORAGE_MODE, nullptr, 0, &m_pInstanceStorage));
        CopyName(m_szInstanceStorageName, name);
    }
    m_pInstanceStorage->AddRef();
    *storage = m_pInstanceStorage;
    return S_OK;
}

void FbInstanceData::ForgetInstanceStorage(BSTR instanceId)
{
    WCHAR name[32];
    CopyName(name, instanceId);
    if (m_szInstanceStorageName[0] && (!instanceId || SameElementName(name, m_szInstanceStorageName)))
    {
        m_szInstanceStorageName[0] = L'\0';
        if (m_pInstanceStorage)
            m_pInstanceStorage->Release();
        m_pInstanceStorage = nullptr;
    }
    if (m_streamNameMap.szInstanceId[0] && (!instanceId || SameElementName(name, m_streamNameMap.szInstanceId)))
        m_streamNameMap.Clear();
}

// -------------------------------------------------------- stream name map

HRESULT FbInstanceData::ReadStreamNameMap(BSTR instanceId)
{
    WCHAR name[32];
    CopyName(name, instanceId);
    if (m_streamNameMap.szInstanceId[0] && SameElementName(m_streamNameMap.szInstanceId, name))
        return S_OK;
    m_streamNameMap.Clear();

    RecordStream record;
    RETURN_IF_FAILED_QUIET(ReadRecord(instanceId, L"map", false, record));
    ByteReader in(record.bytes);
    const HRESULT hr = ReadStreamNameMapRecord(in, m_streamNameMap);
    if (hr == IDS_E_STREAM_VERSION)
    {
        m_streamNameMap.Clear();
        g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::ReadStreamNameMap invalid version\n");
        return E_FAIL;
    }
    if (FAILED(hr))
    {
        m_streamNameMap.Clear();
        return TraceErrorLine(THIS_FILE, __LINE__, hr);
    }
    m_highestStreamNumber = 0;
    for (const auto& entry : m_streamNameMap.entries)
        m_highestStreamNumber = entry.second.number > m_highestStreamNumber ? entry.second.number : m_highestStreamNumber;
    CopyName(m_streamNameMap.szInstanceId, name);
    return S_OK;
}

HRESULT FbInstanceData::WriteStreamNameMap(BSTR instanceId)
{
    // Only a new name changes the map, so it only grows: written over what
    // is there without reading it first. Its commit is that of the new element.
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(OpenInstanceStorage(instanceId, storage.GetAddressOf()));
    RETURN_IF_FAILED(storage->OpenStream(L"map", nullptr, IDS_STREAM_MODE, 0, stream.GetAddressOf()));
    ByteWriter out;
    WriteStreamNameMapRecord(out, m_streamNameMap);
    RETURN_IF_FAILED(WriteWholeStream(stream.Get(), out.Buffer(), 0, 0));
    return S_OK;
}

HRESULT FbInstanceData::GetStreamName(BSTR instanceId, bool group, bool create)
{
    RETURN_IF_FAILED_QUIET(ReadStreamNameMap(instanceId));
    const auto found = m_streamNameMap.entries.find(m_elementName.Get());
    if (found == m_streamNameMap.entries.end())
        return create ? AllocateStreamName(instanceId, group) : IDS_E_NAME_UNKNOWN;
    if (found->second.kind != (group ? ElementKindGroup : ElementKindParameter))
    {
        m_szStreamName[0] = L'\0';
        return E_FAIL;
    }
    _ultow(found->second.number, m_szStreamName, 10);
    m_bElementNew = false;
    return S_OK;
}

HRESULT FbInstanceData::AllocateStreamName(BSTR instanceId, bool group)
{
    RETURN_IF_FAILED_QUIET(ReadStreamNameMap(instanceId));
    if (m_streamNameMap.entries.count(m_elementName.Get()))
        return IDS_E_NAME_EXISTS;
    // A counter behind the numbers in use (a damaged file, or one written by
    // another program) must not hand out a stream that holds another element:
    // it skips past every number of the map, then past every stream that
    // exists without an entry.
    DWORD number = m_streamNameMap.nextStreamNumber;
    if (!m_streamNameMap.entries.empty() && number <= m_highestStreamNumber)
        number = m_highestStreamNumber == MAXDWORD ? MAXDWORD : m_highestStreamNumber + 1;
    ComPtr<IStorage> storage;
    RETURN_IF_FAILED_QUIET(OpenInstanceStorage(instanceId, storage.GetAddressOf()));
    m_element.Reset();
    m_element.storage = storage;
    for (;; ++number)
    {
        // The last number would wrap the counter to 0, before the numbers in use.
        if (number == MAXDWORD)
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                       "FbInstanceData::AllocateStreamName no stream number is left in instance %ls\n",
                                       instanceId);
            return E_FAIL;
        }
        _ultow(number, m_szStreamName, 10);
        const HRESULT hr = storage->CreateStream(m_szStreamName, IDS_STREAM_MODE | STGM_FAILIFTHERE, 0, 0,
                                                 m_element.stream.ReleaseAndGetAddressOf());
        if (hr != STG_E_FILEALREADYEXISTS)
        {
            RETURN_IF_FAILED(hr);
            break;
        }
    }
    if (number != m_streamNameMap.nextStreamNumber)
        g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                   "FbInstanceData::AllocateStreamName next stream number %lu of instance %ls is in use: "
                                   "%lu taken\n",
                                   static_cast<unsigned long>(m_streamNameMap.nextStreamNumber), instanceId,
                                   static_cast<unsigned long>(number));
    m_element.name = m_szStreamName;
    StreamNameEntry& entry = m_streamNameMap.entries[m_elementName.Copy()];
    entry.kind = group ? ElementKindGroup : ElementKindParameter;
    entry.number = number;
    m_highestStreamNumber = number > m_highestStreamNumber ? number : m_highestStreamNumber;
    m_streamNameMap.nextStreamNumber = number + 1;
    m_bElementNew = true;
    return WriteStreamNameMap(instanceId);
}
