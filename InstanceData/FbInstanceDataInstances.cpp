// Instances: the "instance", "dtm" and "comm" streams of an instance storage,
// and the lifecycle operations Create, ReadIdentification, Delete, Duplicate,
// LockInstance, UnlockInstance and GetInstanceDataList.
#include "FbInstanceData.h"
#include <set>
#include "Common/ErrorTrace.h"
#include "NonCreateables/FdtCommunicationDescriptor.h"
#include "NonCreateables/FdtDescriptor.h"
#include "NonCreateables/FdtDtmDescriptor.h"
#include "NonCreateables/FdtInstanceDataDescriptor.h"
#include "PK_ComVector.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceData";

namespace
{
// Numbers of the instance storages in the root, ascending. Enumerating finds
// the storage that the store keeps open too, where a probing open would be
// refused; the enumeration never creates anything.
HRESULT InstanceNumbersIn(IStorage* root, std::set<DWORD>& numbers)
{
    ComPtr<IEnumSTATSTG> elements;
    RETURN_IF_FAILED(root->EnumElements(0, nullptr, 0, elements.GetAddressOf()));
    // Many elements a call: each call costs about as much as a small record.
    STATSTG batch[64];
    ULONG fetched = 0;
    HRESULT hr = S_OK;
    do
    {
        hr = elements->Next(ARRAYSIZE(batch), batch, &fetched);
        RETURN_IF_FAILED(hr);
        for (ULONG i = 0; i < fetched; ++i)
        {
            if (batch[i].type == STGTY_STORAGE)
                numbers.insert(InstanceNumberOf(batch[i].pwcsName));
            CoTaskMemFree(batch[i].pwcsName);
        }
    } while (hr == S_OK);
    numbers.erase(0);
    return S_OK;
}
}  // namespace

// ------------------------------------------------------------ instance stream

HRESULT FbInstanceData::ReadInstanceStream(BSTR instanceId, bool headerOnly)
{
    RecordStream record;
    RETURN_IF_FAILED_QUIET(ReadRecord(instanceId, L"instance", false, record));
    ByteReader in(record.bytes);
    InstanceRecord read;
    const HRESULT hr = ReadInstanceRecord(in, read, headerOnly);
    if (hr == IDS_E_STREAM_VERSION)
    {
        g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::ReadInstanceStream invalid version\n");
        return E_FAIL;
    }
    RETURN_IF_FAILED(hr);
    m_instance.lockCount = read.lockCount;
    if (!headerOnly)
        m_instance = read;
    return S_OK;
}

HRESULT FbInstanceData::WriteInstanceStream(BSTR instanceId, bool headerOnly)
{
    RecordStream record;
    RETURN_IF_FAILED_QUIET(ReadRecord(instanceId, L"instance", false, record));
    ByteWriter out;
    WriteInstanceRecord(out, m_instance, headerOnly);
    // The head alone goes before the rest as it is: size and references stay.
    if (headerOnly && record.bytes.size() > kInstanceHeadSize)
        out.Append(record.bytes.data() + kInstanceHeadSize, record.bytes.size() - kInstanceHeadSize);
    RETURN_IF_FAILED_QUIET(record.Save(out.Buffer()));
    return S_OK;
}

// --------------------------------------------------------- descriptor streams

HRESULT FbInstanceData::DescriptorRecordOf(IFdtDtmDescriptor* descriptor, DtmDescriptorRecord& record)
{
    RETURN_IF_NULL(descriptor, E_POINTER);
    RETURN_IF_FAILED(descriptor->get_m_category(&record.category));
    RETURN_IF_FAILED(descriptor->get_m_classification(&record.classification));
    RETURN_IF_FAILED(descriptor->get_m_device(record.device.GetAddress()));
    RETURN_IF_FAILED(descriptor->get_m_node(record.node.GetAddress()));
    RETURN_IF_FAILED(descriptor->get_m_application(&record.application));
    RETURN_IF_FAILED_HR(descriptor->get_m_language(&record.language));
    return S_OK;
}

HRESULT FbInstanceData::DescriptorRecordOf(IFdtCommunicationDescriptor* descriptor, CommDescriptorRecord& record)
{
    RETURN_IF_NULL(descriptor, E_POINTER);
    RETURN_IF_FAILED(descriptor->get_m_category(&record.category));
    RETURN_IF_FAILED(descriptor->get_m_name(record.name.GetAddress()));
    return S_OK;
}

// An instance that cannot be read still gets its identification: each
// descriptor starts from its new-object values, and the fields read before a
// failure replace them.
HRESULT FbInstanceData::ReadFromInstance(IFdtCommunicationDescriptor* descriptor, BSTR instanceId)
{
    CommDescriptorRecord record;
    RETURN_IF_FAILED_QUIET(DescriptorRecordOf(descriptor, record));
    RecordStream stream;
    RETURN_IF_FAILED_QUIET(ReadRecord(instanceId, L"comm", false, stream));
    ByteReader in(stream.bytes);
    const HRESULT hr = ReadCommDescriptorRecord(in, record);
    if (hr == IDS_E_STREAM_VERSION)
    {
        CError::ImplHandleInternal("FbInstanceData::ReadFromInstance(COMM) invalid version", THIS_FILE, __LINE__, 10);
        return E_FAIL;
    }
    RETURN_IF_FAILED(descriptor->put_m_category(record.category));
    RETURN_IF_FAILED(descriptor->put_m_name(record.name));
    RETURN_IF_FAILED(hr);
    return S_OK;
}

HRESULT FbInstanceData::ReadFromInstance(IFdtDtmDescriptor* descriptor, BSTR instanceId)
{
    DtmDescriptorRecord record;
    RETURN_IF_FAILED_QUIET(DescriptorRecordOf(descriptor, record));
    RecordStream stream;
    RETURN_IF_FAILED_QUIET(ReadRecord(instanceId, L"dtm", false, stream));
    ByteReader in(stream.bytes);
    const HRESULT hr = ReadDtmDescriptorRecord(in, record);
    if (hr == IDS_E_STREAM_VERSION)
    {
        CError::ImplHandleInternal("FbInstanceData::ReadFromInstance(DTM) invalid version", THIS_FILE, __LINE__, 10);
        return E_FAIL;
    }
    RETURN_IF_FAILED(descriptor->put_m_category(record.category));
    RETURN_IF_FAILED(descriptor->put_m_classification(record.classification));
    RETURN_IF_FAILED(descriptor->put_m_device(record.device));
    RETURN_IF_FAILED(descriptor->put_m_node(record.node));
    RETURN_IF_FAILED(descriptor->put_m_application(record.application));
    RETURN_IF_FAILED_HR(descriptor->put_m_language(record.language));
    RETURN_IF_FAILED(hr);
    return S_OK;
}

namespace
{
// A stream of a storage that Create has just made, written whole.
HRESULT WriteNewStream(IStorage* storage, const wchar_t* name, const Bytes& bytes)
{
    RecordStream record;
    RETURN_IF_FAILED(storage->CreateStream(name, IDS_STREAM_MODE | STGM_CREATE, 0, 0, record.stream.GetAddressOf()));
    RETURN_IF_FAILED(record.Save(bytes, false));
    return S_OK;
}
}  // namespace

HRESULT FbInstanceData::WriteToInstance(const CommDescriptorRecord& descriptor, IStorage* storage)
{
    ByteWriter out;
    WriteCommDescriptorRecord(out, descriptor);
    return WriteNewStream(storage, L"comm", out.Buffer());
}

HRESULT FbInstanceData::WriteToInstance(const DtmDescriptorRecord& descriptor, IStorage* storage)
{
    ByteWriter out;
    WriteDtmDescriptorRecord(out, descriptor);
    return WriteNewStream(storage, L"dtm", out.Buffer());
}

// ------------------------------------------------------------------ lifecycle

HRESULT FbInstanceData::CreateInstanceStorage(DWORD& number, ComPtr<IStorage>& storage)
{
    // Numbers start at 1 and only grow; a 0 can only come from a damaged record.
    RETURN_IF_FAILED(m_admin.nextInstanceNumber ? S_OK : E_FAIL);
    // A next number that lags behind the elements of the root (a damaged
    // file, or one written by another program) must not reopen and empty an
    // existing instance: every name in use is skipped.
    for (number = m_admin.nextInstanceNumber;; ++number)
    {
        // The last number would wrap the next one to 0, which hides every
        // instance from the instance list: no number is left.
        if (number == MAXDWORD)
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::Create no instance number is left\n");
            return E_FAIL;
        }
        WCHAR digits[16];
        _ultow(number, digits, 10);
        const HRESULT hr = m_pRootStorage->CreateStorage(digits, IDS_STORAGE_MODE | STGM_FAILIFTHERE, 0, 0,
                                                        storage.ReleaseAndGetAddressOf());
        if (hr == STG_E_FILEALREADYEXISTS)
            continue;
        RETURN_IF_FAILED(hr);
        if (number != m_admin.nextInstanceNumber)
            g_StdPkTraceInstance.Trace(CPkTrace::LevelError,
                                       "FbInstanceData::Create next instance number %lu is in use: %lu taken\n",
                                       static_cast<unsigned long>(m_admin.nextInstanceNumber),
                                       static_cast<unsigned long>(number));
        return S_OK;
    }
}

STDMETHODIMP FbInstanceData::Create(IFdtContext*, IFdtDtmDescriptor* DtmDescriptor,
                                    IFdtCommunicationDescriptor* CommunicationDescriptor, BSTR* InstanceID)
{
    STORE_STATE();
    // The caller's descriptors are read first, before the store is held:
    // nothing is written for descriptors that cannot be read.
    DtmDescriptorRecord dtm;
    CommDescriptorRecord comm;
    HRESULT dtmRead = E_POINTER, commRead = E_POINTER;
    if (InstanceID)
        dtmRead = EXCEPTION_GUARD([&]() -> HRESULT { return DescriptorRecordOf(DtmDescriptor, dtm); });
    if (SUCCEEDED(dtmRead))
        commRead = EXCEPTION_GUARD([&]() -> HRESULT { return DescriptorRecordOf(CommunicationDescriptor, comm); });
    STORE_LOCK();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(InstanceID, E_POINTER);
        if (!StorageReady())
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, "FbInstanceData::Create storage not init\n");
            return E_FAIL;
        }
        HRESULT hr = dtmRead;
        if (FAILED(hr))
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, "FbInstanceData::Create WriteToInstance(DtmDescriptor) failed\n");
            return hr;
        }
        hr = commRead;
        if (FAILED(hr))
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo,
                                       "FbInstanceData::Create WriteToInstance(CommunicationDescriptor) failed\n");
            return hr;
        }

        RETURN_IF_FAILED(ReadAdmin());
        DWORD number = 0;
        ComPtr<IStorage> storage;
        RETURN_IF_FAILED_QUIET(CreateInstanceStorage(number, storage));
        WCHAR digits[16];
        _ultow(number, digits, 10);
        // Whatever fails or throws before the end takes the new storage away
        // again: an allocation failure must not leave half an instance.
        struct NewStorage
        {
            IStorage* root;
            const WCHAR* name;
            ComPtr<IStorage>& storage;
            bool kept;
            ~NewStorage()
            {
                if (!kept)
                    storage.Reset(), root->DestroyElement(name);
            }
        } undo{m_pRootStorage, digits, storage, false};
        _bstr_t id(digits);

        // The whole instance is written and committed once; should any step
        // fail, the new storage goes again and the file is as it was.
        InstanceRecord instance;
        StreamNameMapRecord map;
        ByteWriter instanceBytes, mapBytes;
        WriteInstanceRecord(instanceBytes, instance, false);
        WriteStreamNameMapRecord(mapBytes, map);
        hr = WriteNewStream(storage.Get(), L"instance", instanceBytes.Buffer());
        if (SUCCEEDED(hr))
            hr = WriteNewStream(storage.Get(), L"map", mapBytes.Buffer());
        if (SUCCEEDED(hr))
            hr = WriteToInstance(dtm, storage.Get());
        if (SUCCEEDED(hr))
            hr = WriteToInstance(comm, storage.Get());
        if (SUCCEEDED(hr))
            hr = storage->Commit(STGC_DEFAULT);
        if (SUCCEEDED(hr))
        {
            m_admin.nextInstanceNumber = number + 1;
            hr = WriteAdmin();
        }
        if (FAILED(hr))
            return TraceErrorLine(THIS_FILE, __LINE__, hr);
        undo.kept = true;
        // The new storage becomes the cached one, with its empty map.
        ForgetInstanceStorage(nullptr);
        m_pInstanceStorage = storage.Detach();
        CopyName(m_szInstanceStorageName, digits);
        CopyName(m_streamNameMap.szInstanceId, digits);
        m_highestStreamNumber = 0;
        m_instance.Reset();
        *InstanceID = id.Detach();
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::ReadIdentification(IFdtContext*, BSTR InstanceID, IFdtDescriptor** Descriptor)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
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

// Delete works on the root alone, without the module state switch. It
// removes an instance storage and nothing else: the administration stream
// and any element that is not an instance storage are refused. The cache and
// a stream name map loaded for that instance are dropped first: a destroyed
// storage is never used again.
STDMETHODIMP FbInstanceData::Delete(IFdtContext*, BSTR InstanceID)
{
    STORE_LOCK();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(StorageReady(), E_UNEXPECTED);
        WCHAR name[32];
        CopyName(name, InstanceID);
        if (!InstanceNumberOf(name))
        {
            g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::Delete %ls is not an instance\n", name);
            return E_INVALIDARG;
        }
        ForgetInstanceStorage(InstanceID);
        ComPtr<IStorage> storage;
        const HRESULT hr = m_pRootStorage->OpenStorage(name, nullptr, IDS_STORAGE_MODE, nullptr, 0, storage.GetAddressOf());
        if (hr == STG_E_FILENOTFOUND)
        {
            ComPtr<IStream> stream;
            if (SUCCEEDED(m_pRootStorage->OpenStream(name, nullptr, IDS_STREAM_MODE, 0, stream.GetAddressOf())))
            {
                g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::Delete %ls is not an instance\n", name);
                return E_INVALIDARG;
            }
        }
        RETURN_IF_FAILED_QUIET(hr);
        storage.Reset();
        RETURN_IF_FAILED(m_pRootStorage->DestroyElement(name));
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::Duplicate(IFdtContext* Context, BSTR InstanceID, BSTR* InstanceIDOut)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(InstanceIDOut, E_POINTER);
        IFbInstanceData* self = this;
        ComPtr<IFdtDescriptor> identification;
        ComPtr<IFdtDtmDescriptor> dtm;
        ComPtr<IFdtCommunicationDescriptor> communication;
        RETURN_IF_FAILED_QUIET(self->ReadIdentification(Context, InstanceID, identification.GetAddressOf()));
        RETURN_IF_FAILED_QUIET(identification->get_m_dtm(dtm.GetAddressOf()));
        RETURN_IF_FAILED_QUIET(identification->get_m_communication(communication.GetAddressOf()));
        // The source must be there before anything is made: its identification
        // alone reads for any identifier.
        ComPtr<IStorage> source;
        RETURN_IF_FAILED(OpenInstanceStorage(InstanceID, source.GetAddressOf()));
        RETURN_IF_FAILED(ReadAdmin());
        const AdminRecord before = m_admin;
        RETURN_IF_FAILED_QUIET(self->Create(Context, dtm.Get(), communication.Get(), InstanceIDOut));

        // The new storage is opened by name beside the cache, which must not
        // hold it (a second open is refused): Create left it there.
        ComPtr<IStorage> copy;
        ForgetInstanceStorage(*InstanceIDOut);
        HRESULT hr = m_pRootStorage->OpenStorage(*InstanceIDOut, nullptr, IDS_STORAGE_MODE, nullptr, 0, copy.GetAddressOf());
        if (SUCCEEDED(hr))
            hr = source->CopyTo(0, nullptr, nullptr, copy.Get());
        if (SUCCEEDED(hr))
            hr = copy->Commit(STGC_DEFAULT);
        if (FAILED(hr))
        {
            // A copy that failed leaves no half instance and no counter moved.
            copy.Reset();
            m_pRootStorage->DestroyElement(*InstanceIDOut);
            SysFreeString(*InstanceIDOut);
            *InstanceIDOut = nullptr;
            if (SUCCEEDED(ReadAdmin()))
            {
                m_admin = before;
                WriteAdmin();
            }
            return TraceErrorLine(THIS_FILE, __LINE__, hr);
        }
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::LockInstance(IFdtContext*, BSTR InstanceID)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_FAILED(ReadInstanceStream(InstanceID, true));
        ++m_instance.lockCount;
        return WriteInstanceStream(InstanceID, true);
    });
}

STDMETHODIMP FbInstanceData::UnlockInstance(IFdtContext*, BSTR InstanceID)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_FAILED(ReadInstanceStream(InstanceID, true));
        RETURN_IF_NULL(m_instance.lockCount, E_FAIL);
        --m_instance.lockCount;
        return WriteInstanceStream(InstanceID, true);
    });
}

STDMETHODIMP FbInstanceData::GetInstanceDataList(IFdtContext*, SAFEARRAY** InstanceDataIDList)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
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
