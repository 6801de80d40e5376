// Instances: the "instance", "dtm" and "comm" streams of an instance storage,
// and the lifecycle operations Create, ReadIdentification, Delete, Duplicate,
// LockInstance, UnlockInstance and GetInstanceDataList.
#include "FbInstanceData.h"
#include <set>
#include "Common/ErrorTrace.h"
#include "Common/StreamIo.h"
#include "NonCreateables/FdtCommunicationDescriptor.h"
#include "NonCreateables/FdtDescriptor.h"
#include "NonCreateables/FdtDtmDescriptor.h"
#include "NonCreateables/FdtInstanceDataDescriptor.h"
#include "PK_ComVector.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceData";

namespace
{
// Every stream of an instance begins with this version.

// The head of the "instance" stream: version and lock count.
struct InstanceHead
{
    DWORD version;
    DWORD lockCount;
};
static_assert(sizeof(InstanceHead) == 8, "the head of the instance stream is 8 bytes");

// Reads the version of a descriptor stream; another version is reported as
// an internal error with message at line.
HRESULT ReadDescriptorVersion(StreamReader& in, const char* message, int line)
{
    DWORD version = 0;
    RETURN_IF_FAILED(in.Read(version));
    if (version == DWORD(IDS_STREAM_VERSION))
        return S_OK;
    CError::ImplHandleInternal(message, THIS_FILE, line, 10);
    return E_FAIL;
}

// The instance number that a root element name stands for: digits only, no
// sign, no leading zero, at least 1; 0 for any other name.
DWORD InstanceNumberOf(const WCHAR* name)
{
    if (!name || name[0] < L'1' || name[0] > L'9')
        return 0;
    ULONGLONG number = 0;
    for (const WCHAR* digit = name; *digit; ++digit)
    {
        if (*digit < L'0' || *digit > L'9')
            return 0;
        number = number * 10 + static_cast<ULONGLONG>(*digit - L'0');
        if (number > MAXDWORD)
            return 0;
    }
    return static_cast<DWORD>(number);
}

// Numbers of the instance storages in the root, ascending. Enumerating finds
// the storage that the store keeps open too, where a probing open would be
// refused; the enumeration never creates anything.
HRESULT InstanceNumbersIn(IStorage* root, std::set<DWORD>& numbers)
{
    ComPtr<IEnumSTATSTG> elements;
    RETURN_IF_FAILED(root->EnumElements(0, nullptr, 0, elements.GetAddressOf()));
    STATSTG element;
    while (elements->Next(1, &element, nullptr) == S_OK)
    {
        if (element.type == STGTY_STORAGE)
            numbers.insert(InstanceNumberOf(element.pwcsName));
        CoTaskMemFree(element.pwcsName);
    }
    numbers.erase(0);
    return S_OK;
}
}  // namespace

// ------------------------------------------------------------ instance stream

HRESULT FbInstanceData::ReadInstanceStream(BSTR instanceId, bool headerOnly)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(OpenInstanceStream(instanceId, L"instance", storage.GetAddressOf(), stream.GetAddressOf()));
    StreamReader in(stream.Get());
    DWORD version = 0;
    RETURN_IF_FAILED(in.Read(version));
    if (version != DWORD(IDS_STREAM_VERSION))
    {
        g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::ReadInstanceStream invalid version\n");
        return E_FAIL;
    }
    RETURN_IF_FAILED(in.Read(m_instance.lockCount));
    if (headerOnly)
        return S_OK;

    m_instance.bstrSuperInstanceId = _bstr_t();
    RETURN_IF_FAILED(in.Read(m_instance.bstrSuperInstanceId));
    m_instance.bstrSuperParameterName = _bstr_t();
    RETURN_IF_FAILED(in.Read(m_instance.bstrSuperParameterName));
    DWORD count = 0;
    RETURN_IF_FAILED(in.Read(count));
    // Entries are added as they are read, never sized from the count: a
    // damaged count then ends at the stream's end instead of in a huge list.
    m_instance.subInstances.clear();
    for (DWORD i = 0; i < count; ++i)
    {
        m_instance.subInstances.emplace_back();
        SubInstanceRef& entry = m_instance.subInstances.back();
        RETURN_IF_FAILED(in.Read(entry.bstrInstanceId));
        RETURN_IF_FAILED_HR(in.Read(entry.bstrParameterName));
    }
    return S_OK;
}

HRESULT FbInstanceData::WriteInstanceStream(BSTR instanceId, bool headerOnly)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(OpenInstanceStream(instanceId, L"instance", storage.GetAddressOf(), stream.GetAddressOf()));
    StreamWriter out(stream.Get());
    if (headerOnly)
    {
        // Over the first 8 bytes only: size and references stay as they are.
        const InstanceHead head = {DWORD(IDS_STREAM_VERSION), m_instance.lockCount};
        RETURN_IF_FAILED(out.Write(head));
        return storage->Commit(STGC_DEFAULT);
    }
    RETURN_IF_FAILED(CStreamTool::SetStreamSize(stream.Get(), 0));
    RETURN_IF_FAILED(out.Write(DWORD(IDS_STREAM_VERSION)));
    RETURN_IF_FAILED(out.Write(m_instance.lockCount));
    RETURN_IF_FAILED(out.Write(m_instance.bstrSuperInstanceId));
    RETURN_IF_FAILED(out.Write(m_instance.bstrSuperParameterName));
    RETURN_IF_FAILED(out.Write(static_cast<DWORD>(m_instance.subInstances.size())));
    for (const SubInstanceRef& entry : m_instance.subInstances)
    {
        RETURN_IF_FAILED_HR(out.Write(entry.bstrInstanceId));
        RETURN_IF_FAILED_HR(out.Write(entry.bstrParameterName));
    }
    return storage->Commit(STGC_DEFAULT);
}

// --------------------------------------------------------- descriptor streams

HRESULT FbInstanceData::OpenDescriptorStream(IDispatch* descriptor, BSTR instanceId, const wchar_t* name, bool rewrite,
                                             IStorage** storage, IStream** stream)
{
    RETURN_IF_NULL(StorageReady(), E_FAIL);
    RETURN_IF_NULL(descriptor && instanceId, E_POINTER);
    RETURN_IF_FAILED_QUIET(OpenInstanceStream(instanceId, name, storage, stream));
    if (!rewrite)
        return S_OK;
    RETURN_IF_FAILED(CStreamTool::SetStreamSize(*stream, 0));
    RETURN_IF_FAILED(StreamWriter(*stream).Write(DWORD(IDS_STREAM_VERSION)));
    return S_OK;
}

HRESULT FbInstanceData::ReadFromInstance(IFdtCommunicationDescriptor* descriptor, BSTR instanceId)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(
        OpenDescriptorStream(descriptor, instanceId, L"comm", false, storage.GetAddressOf(), stream.GetAddressOf()));
    StreamReader in(stream.Get());
    RETURN_IF_FAILED_QUIET(ReadDescriptorVersion(in, "FbInstanceData::ReadFromInstance(COMM) invalid version", __LINE__));
    BYTE category = 0;
    _bstr_t name;
    RETURN_IF_FAILED(in.Read(category));
    RETURN_IF_FAILED(descriptor->put_m_category(category));
    RETURN_IF_FAILED(in.Read(name));
    RETURN_IF_FAILED(descriptor->put_m_name(name));
    return S_OK;
}

HRESULT FbInstanceData::ReadFromInstance(IFdtDtmDescriptor* descriptor, BSTR instanceId)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(
        OpenDescriptorStream(descriptor, instanceId, L"dtm", false, storage.GetAddressOf(), stream.GetAddressOf()));
    StreamReader in(stream.Get());
    RETURN_IF_FAILED_QUIET(ReadDescriptorVersion(in, "FbInstanceData::ReadFromInstance(DTM) invalid version", __LINE__));
    BYTE category = 0;
    LONG classification = 0, application = 0, language = 0;
    _bstr_t device, node;
    RETURN_IF_FAILED(in.Read(category));
    RETURN_IF_FAILED(descriptor->put_m_category(category));
    RETURN_IF_FAILED(in.Read(classification));
    RETURN_IF_FAILED(descriptor->put_m_classification(classification));
    RETURN_IF_FAILED(in.Read(device));
    RETURN_IF_FAILED(descriptor->put_m_device(device));
    RETURN_IF_FAILED(in.Read(node));
    RETURN_IF_FAILED(descriptor->put_m_node(node));
    RETURN_IF_FAILED(in.Read(application));
    RETURN_IF_FAILED(descriptor->put_m_application(application));
    RETURN_IF_FAILED(in.Read(language));
    RETURN_IF_FAILED_HR(descriptor->put_m_language(language));
    return S_OK;
}

HRESULT FbInstanceData::WriteToInstance(IFdtCommunicationDescriptor* descriptor, BSTR instanceId)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(
        OpenDescriptorStream(descriptor, instanceId, L"comm", true, storage.GetAddressOf(), stream.GetAddressOf()));
    StreamWriter out(stream.Get());
    BYTE category = 0;
    _bstr_t name;
    RETURN_IF_FAILED(descriptor->get_m_category(&category));
    RETURN_IF_FAILED(out.Write(category));
    RETURN_IF_FAILED(descriptor->get_m_name(name.GetAddress()));
    RETURN_IF_FAILED(out.Write(name));
    return storage->Commit(STGC_DEFAULT);
}

HRESULT FbInstanceData::WriteToInstance(IFdtDtmDescriptor* descriptor, BSTR instanceId)
{
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED_QUIET(
        OpenDescriptorStream(descriptor, instanceId, L"dtm", true, storage.GetAddressOf(), stream.GetAddressOf()));
    StreamWriter out(stream.Get());
    BYTE category = 0;
    LONG classification = 0, application = 0, language = 0;
    _bstr_t device, node;
    RETURN_IF_FAILED(descriptor->get_m_category(&category));
    RETURN_IF_FAILED(out.Write(category));
    RETURN_IF_FAILED(descriptor->get_m_classification(&classification));
    RETURN_IF_FAILED(out.Write(classification));
    RETURN_IF_FAILED(descriptor->get_m_device(device.GetAddress()));
    RETURN_IF_FAILED(out.Write(device));
    RETURN_IF_FAILED(descriptor->get_m_node(node.GetAddress()));
    RETURN_IF_FAILED(out.Write(node));
    RETURN_IF_FAILED(descriptor->get_m_application(&application));
    RETURN_IF_FAILED(out.Write(application));
    RETURN_IF_FAILED_HR(descriptor->get_m_language(&language));
    RETURN_IF_FAILED_HR(out.Write(language));
    return storage->Commit(STGC_DEFAULT);
}

// ------------------------------------------------------------------ lifecycle

STDMETHODIMP FbInstanceData::Create(IFdtContext*, IFdtDtmDescriptor* DtmDescriptor,
                                    IFdtCommunicationDescriptor* CommunicationDescriptor, BSTR* InstanceID)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(InstanceID, E_POINTER);
        if (!StorageReady())
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, "FbInstanceData::Create storage not init\n");
            return E_FAIL;
        }
        RETURN_IF_FAILED(ReadAdmin());
        // Numbers start at 1 and only grow; a 0 can only come from a damaged record.
        RETURN_IF_FAILED(m_admin.nextInstanceNumber ? S_OK : E_FAIL);
        WCHAR digits[16];
        _ultow(m_admin.nextInstanceNumber++, digits, 10);
        _bstr_t id(digits);
        RETURN_IF_FAILED(WriteAdmin());

        m_instance.Reset();
        m_bCreatingInstance = true;
        const HRESULT created = WriteInstanceStream(id, false);
        m_bCreatingInstance = false;
        RETURN_IF_FAILED_QUIET(created);
        m_streamNameMap.Clear();
        RETURN_IF_FAILED_QUIET(WriteStreamNameMap(id));
        HRESULT hr = WriteToInstance(DtmDescriptor, id);
        if (FAILED(hr))
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, "FbInstanceData::Create WriteToInstance(DtmDescriptor) failed\n");
            return hr;
        }
        hr = WriteToInstance(CommunicationDescriptor, id);
        if (FAILED(hr))
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo,
                                       "FbInstanceData::Create WriteToInstance(CommunicationDescriptor) failed\n");
            return hr;
        }
        *InstanceID = id.Detach();
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::ReadIdentification(IFdtContext*, BSTR InstanceID, IFdtDescriptor** Descriptor)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(Descriptor, E_POINTER);
        if (!StorageReady())
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, "FbInstanceData::ReadIdentification storage not init\n");
            return E_FAIL;
        }
        ComPtr<IFdtDescriptor> descriptor;
        ComPtr<IFdtDtmDescriptor> dtm;
        ComPtr<IFdtInstanceDataDescriptor> instanceData;
        ComPtr<IFdtCommunicationDescriptor> communication;
        RETURN_IF_FAILED(MakeDataObject<FdtDescriptor>(descriptor));
        RETURN_IF_FAILED(MakeDataObject<FdtDtmDescriptor>(dtm));
        RETURN_IF_FAILED(MakeDataObject<FdtInstanceDataDescriptor>(instanceData));
        RETURN_IF_FAILED(MakeDataObject<FdtCommunicationDescriptor>(communication));
        // An instance that cannot be read still gets its identification: each
        // descriptor keeps what was read before the failure and its new-object
        // values otherwise.
        ReadFromInstance(dtm.Get(), InstanceID);
        RETURN_IF_FAILED(instanceData->put_m_name(_bstr_t(kInstanceDataDescriptorName)));
        ReadFromInstance(communication.Get(), InstanceID);
        RETURN_IF_FAILED(descriptor->put_m_dtm(dtm.Get()));
        RETURN_IF_FAILED(descriptor->put_m_instanceData(instanceData.Get()));
        RETURN_IF_FAILED(descriptor->put_m_communication(communication.Get()));
        *Descriptor = descriptor.Detach();
        return S_OK;
    });
}

// Delete works on the root alone, without the module state switch. The
// instance storage is destroyed while the store may still hold it open in its
// cache (the platform allows that), so the cache and a stream name map loaded
// for that instance are dropped first: a destroyed storage is never used
// again, and a later read of the same name opens the element anew instead of
// seeing the old data (the toolkit's open then makes an empty storage of that
// name, which holds no instance stream and fails every instance read). The
// administration stream is not an instance and is refused, as destroying it
// would make the file unusable.
STDMETHODIMP FbInstanceData::Delete(IFdtContext*, BSTR InstanceID)
{
    STORE_LOCK();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(StorageReady(), E_UNEXPECTED);
        WCHAR name[32];
        lstrcpynW(name, InstanceID ? InstanceID : L"", 32);
        RETURN_IF_NULL(lstrcmpW(name, L"admin") != 0, E_INVALIDARG);
        ForgetInstanceStorage(InstanceID);
        return m_pRootStorage->DestroyElement(name);
    });
}

STDMETHODIMP FbInstanceData::Duplicate(IFdtContext* Context, BSTR InstanceID, BSTR* InstanceIDOut)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(InstanceIDOut, E_POINTER);
        IFbInstanceData* self = this;
        ComPtr<IFdtDescriptor> identification;
        ComPtr<IFdtDtmDescriptor> dtm;
        ComPtr<IFdtCommunicationDescriptor> communication;
        RETURN_IF_FAILED_QUIET(self->ReadIdentification(Context, InstanceID, identification.GetAddressOf()));
        RETURN_IF_FAILED_QUIET(identification->get_m_dtm(dtm.GetAddressOf()));
        RETURN_IF_FAILED_QUIET(identification->get_m_communication(communication.GetAddressOf()));
        RETURN_IF_FAILED_QUIET(self->Create(Context, dtm.Get(), communication.Get(), InstanceIDOut));

        ComPtr<IStorage> source;
        ComPtr<IStorage> copy;
        RETURN_IF_FAILED(OpenInstanceStorage(InstanceID, source.GetAddressOf()));
        // The new storage is opened by name beside the cache, which must not
        // hold it (a second open is refused). Opening the source has just
        // replaced the cache; the new instance is dropped from it all the same,
        // map included, so that nothing cached before the copy outlives it.
        ForgetInstanceStorage(*InstanceIDOut);
        RETURN_IF_FAILED(CStreamTool::Open(m_pRootStorage, *InstanceIDOut, copy.GetAddressOf(), IDS_STORAGE_MODE));
        source->CopyTo(0, nullptr, nullptr, copy.Get());
        return copy->Commit(STGC_DEFAULT);
    });
}

STDMETHODIMP FbInstanceData::LockInstance(IFdtContext*, BSTR InstanceID)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_FAILED(ReadInstanceStream(InstanceID, true));
        ++m_instance.lockCount;
        return WriteInstanceStream(InstanceID, true);
    });
}

STDMETHODIMP FbInstanceData::UnlockInstance(IFdtContext*, BSTR InstanceID)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_FAILED(ReadInstanceStream(InstanceID, true));
        RETURN_IF_NULL(m_instance.lockCount, E_FAIL);
        --m_instance.lockCount;
        return WriteInstanceStream(InstanceID, true);
    });
}

STDMETHODIMP FbInstanceData::GetInstanceDataList(IFdtContext*, SAFEARRAY** InstanceDataIDList)
{
    STORE_ENTRY();
    return EXCEPTION_GUARD([&]() -> HRESULT {
        RETURN_IF_NULL(InstanceDataIDList, E_POINTER);
        RETURN_IF_FAILED(ReadAdmin());
        // Only numbers handed out so far count; walking the root's elements
        // instead of every number below the next one keeps a damaged next
        // number from turning into billions of probes.
        std::set<DWORD> numbers;
        RETURN_IF_FAILED_QUIET(InstanceNumbersIn(m_pRootStorage, numbers));
        numbers.erase(numbers.lower_bound(m_admin.nextInstanceNumber), numbers.end());

        ComVectorArray array;
        ComVectorAccess<BSTR> elements;
        RETURN_IF_NULL(SUCCEEDED(array.Create<BSTR>(static_cast<ULONG>(numbers.size()), 0, true)), E_OUTOFMEMORY);
        RETURN_IF_FAILED_QUIET(AccessList(elements, array.Get()));
        ULONG k = 0;
        for (DWORD number : numbers)
        {
            WCHAR digits[16];
            _ultow(number, digits, 10);
            elements[k] = SysAllocString(digits);
            RETURN_IF_NULL(elements[k++], E_OUTOFMEMORY);
        }
        RETURN_IF_FAILED_QUIET(elements.Release());
        return array.DetachTo(InstanceDataIDList);
    });
}
