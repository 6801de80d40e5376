// Parameters: the parameter streams and the value encoding, access to single
// parameters and lists, and the locked and protected flags.
#include "FbInstanceData.h"
#include "PersistedObject.h"
#include <wrl/client.h>
#include <cstring>
#include "Common/ErrorTrace.h"
#include "Common/VariantCopy.h"
#include "NonCreateables/FdtParameter.h"

using Microsoft::WRL::ComPtr;

static const char THIS_FILE[] = "InstanceData/FbInstanceDataParameters";

static_assert(sizeof(VARTYPE) == 2 && sizeof(VARIANT_BOOL) == 2, "value encoding widths");
static_assert(sizeof(ParameterRecord::isLocked) == 4 && sizeof(ParameterRecord::dataType) == 4,
              "the flags and the data type are stored as 32 bits");

namespace
{
// The equality of WriteParameter: an equal value is not written again. Only
// the VARTYPEs below can be equal; any other value is always written.
// Floating-point values compare as the processor compares them, so a NaN is
// never equal (and always written) and 0 equals -0.
bool SameValue(const VARIANT& left, const VARIANT& right)
{
    if (&left == &right)
        return true;
    if (V_VT(&left) != V_VT(&right))
        return false;
    switch (V_VT(&left))
    {
    case VT_EMPTY:
    case VT_NULL:
        return true;
    case VT_I2:
    case VT_BOOL:
        return V_I2(&left) == V_I2(&right);
    case VT_UI1:
        return V_UI1(&left) == V_UI1(&right);
    case VT_I4:
    case VT_ERROR:
        return V_I4(&left) == V_I4(&right);
    case VT_R4:
        return V_R4(&left) == V_R4(&right);
    case VT_R8:
        return V_R8(&left) == V_R8(&right);
    case VT_BSTR:
    {
        // By byte length: a null string and an empty one are equal.
        const UINT bytes = SysStringByteLen(V_BSTR(&left));
        return bytes == SysStringByteLen(V_BSTR(&right)) &&
               (!bytes || std::memcmp(V_BSTR(&left), V_BSTR(&right), bytes) == 0);
    }
    case VT_DISPATCH:
    case VT_UNKNOWN:
        return V_UNKNOWN(&left) == V_UNKNOWN(&right);
    default:
        return false;
    }
}

// A copy of source in target; a copy that fails is kept as VT_ERROR holding
// the copy's failure.
void CopyValue(_variant_t& target, const VARIANT& source)
{
    VARIANT copy;
    const HRESULT hr = CopyVariant(source, copy);
    if (FAILED(hr))
    {
        V_VT(&copy) = VT_ERROR;
        V_ERROR(&copy) = hr;
    }
    target.Attach(copy);
}

// Gives hr back, after message when it failed.
HRESULT WithMessage(HRESULT hr, const char* message)
{
    if (FAILED(hr))
        g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, "%s", message);
    return hr;
}

VARIANT_BOOL AsVariantBool(DWORD flag)
{
    return flag ? VARIANT_TRUE : VARIANT_FALSE;
}
}  // namespace

// ------------------------------------------- parameter and group streams

HRESULT FbInstanceData::OpenElementStream(BSTR instanceId, bool group, ElementLookup lookup)
{
    // An element of another instance is let go before the lookup opens this
    // one: the platform does not open a storage twice.
    if (m_element.stream && !SameElementName(instanceId, m_szInstanceStorageName))
        m_element.Reset();
    if (lookup == ElementLookup::Allocate)
        RETURN_IF_FAILED(AllocateStreamName(instanceId, group));
    else
        RETURN_IF_FAILED(GetStreamName(instanceId, group, lookup == ElementLookup::FindOrAllocate));
    // A stream just allocated is new and empty; AllocateStreamName holds it open.
    if (m_bElementNew)
        return S_OK;
    // The stream that this operation read last is written back through.
    if (m_element.stream && m_element.storage.Get() == m_pInstanceStorage && m_element.name == m_szStreamName)
        return S_OK;
    // A name of the map whose stream is gone gets a new one when written.
    RETURN_IF_FAILED_QUIET(ReadRecord(instanceId, m_szStreamName, lookup != ElementLookup::Find, m_element));
    return S_OK;
}

HRESULT FbInstanceData::CheckElementHead(HRESULT read, bool group, const StoredString& storedName)
{
    if (read == IDS_E_STREAM_VERSION)
    {
        g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, group ? "FbInstanceData::ReadGroup invalid version\n"
                                                              : "FbInstanceData::ReadPara invalid version\n");
        return E_FAIL;
    }
    if (read == IDS_E_NOT_GROUP_STREAM || read == IDS_E_NOT_PARAMETER_STREAM)
    {
        g_StdPkTraceInstance.Trace(CPkTrace::LevelInfo, group ? "FbInstanceData::ReadGroup stream isn't a group\n"
                                                              : "FbInstanceData::ReadPara stream isn't a group\n");
        return read;
    }
    RETURN_IF_FAILED(read);
    if (!storedName.Equals(m_elementName.Get(), m_elementName.Length()))
    {
        CError::ImplHandleInternal(nullptr, THIS_FILE, __LINE__, 0xAA);
        return E_FAIL;
    }
    return S_OK;
}

HRESULT FbInstanceData::DestroyElementStream(BSTR instanceId, BSTR name, bool group)
{
    m_elementName.Assign(name);
    RETURN_IF_FAILED(GetStreamName(instanceId, group, false));
    ComPtr<IStorage> storage;
    RETURN_IF_FAILED_QUIET(OpenInstanceStorage(instanceId, storage.GetAddressOf()));
    RETURN_IF_FAILED(storage->DestroyElement(m_szStreamName));
    RETURN_IF_FAILED(storage->Commit(STGC_DEFAULT));
    return S_OK;
}

HRESULT FbInstanceData::ReadPara(BSTR instanceId, bool readValue, bool readAll)
{
    RETURN_IF_FAILED_QUIET(OpenElementStream(instanceId, false, ElementLookup::Find));
    ByteReader in(m_element.bytes);
    const ParameterPart part = readAll ? ParameterPart::Body : readValue ? ParameterPart::Value : ParameterPart::Head;
    ParameterPart failedAt = ParameterPart::Head;
    ParameterRecord read;
    const HRESULT hr = ReadParameterRecord(in, read, part, failedAt);
    // The head speaks first: a stream of another kind or name fails as such,
    // whatever its values.
    RETURN_IF_FAILED_QUIET(CheckElementHead(failedAt == ParameterPart::Head ? hr : S_OK, false, read.storedName));
    m_element.headEnd = read.headEnd;
    if (failedAt == ParameterPart::Value)
        RETURN_IF_FAILED_QUIET(WithMessage(hr, "FbInstanceData::ReadPara() ReadFromStream(value) failed\n"));
    else if (failedAt == ParameterPart::DefaultValue)
        RETURN_IF_FAILED_QUIET(WithMessage(hr, "FbInstanceData::ReadPara() ReadFromStream(default value) failed\n"));
    RETURN_IF_FAILED(hr);
    // Only what was read replaces the working record.
    m_parameter.isLocked = read.isLocked;
    m_parameter.isProtected = read.isProtected;
    m_parameter.isMandatory = read.isMandatory;
    m_parameter.isPrivate = read.isPrivate;
    if (part == ParameterPart::Head)
        return S_OK;
    VARIANT value = read.value.Detach();
    m_parameter.value.Attach(value);
    if (part == ParameterPart::Value)
        return S_OK;
    VARIANT defaultValue = read.defaultValue.Detach();
    m_parameter.defaultValue.Attach(defaultValue);
    m_parameter.index = read.index;
    m_parameter.dataType = read.dataType;
    m_parameter.size = read.size;
    m_parameter.objectType = read.objectType;
    return S_OK;
}

HRESULT FbInstanceData::WritePara(BSTR instanceId, bool writeAll, bool create)
{
    // The record is built whole before the stream is touched: a value that
    // cannot be encoded fails with the stream as it was.
    m_parameter.bstrName = m_elementName.Copy();
    ByteWriter out;
    ParameterPart failedAt = ParameterPart::Head;
    const HRESULT hr = WriteParameterRecord(out, m_parameter, writeAll, failedAt);
    if (failedAt == ParameterPart::Value)
        RETURN_IF_FAILED_QUIET(WithMessage(hr, "FbInstanceData::WritePara() CStreamTool::Write(value) failed\n"));
    RETURN_IF_FAILED_QUIET(WithMessage(hr, "FbInstanceData::WritePara() CStreamTool::Write(default value) failed\n"));
    RETURN_IF_FAILED_QUIET(
        OpenElementStream(instanceId, false, create ? ElementLookup::FindOrAllocate : ElementLookup::Find));
    // Without writeAll the new head goes before the body as read: the name
    // was just read from there, so the body keeps its place.
    if (!writeAll)
    {
        const Bytes& old = m_element.bytes;
        const size_t headEnd = m_element.headEnd < old.size() ? m_element.headEnd : old.size();
        out.Append(old.data() + headEnd, old.size() - headEnd);
    }
    if (m_allOrNothingDepth)
        m_rewritten.push_back({m_element.storage, m_element.name, m_element.bytes, out.Buffer().size()});
    RETURN_IF_FAILED(m_element.Save(out.Buffer()));
    return S_OK;
}

HRESULT FbInstanceData::GetNameList(IFdtContext*, BSTR instanceId, SAFEARRAY** names, bool groups)
{
    RETURN_IF_NULL(names, E_POINTER);
    RETURN_IF_FAILED(ReadStreamNameMap(instanceId));
    const DWORD kind = groups ? ElementKindGroup : ElementKindParameter;
    ULONG count = 0;
    for (const auto& entry : m_streamNameMap.entries)
        count += entry.second.kind == kind;

    ComVectorArray list;
    RETURN_IF_FAILED_QUIET(list.Create<BSTR>(count, 0, true));
    ComVectorAccess<BSTR> access;
    RETURN_IF_FAILED_QUIET(AccessList(access, list.Get()));
    ULONG index = 0;
    for (const auto& entry : m_streamNameMap.entries)
        if (entry.second.kind == kind)
            access[index++] = entry.first.copy();
    RETURN_IF_FAILED_QUIET(access.Release());
    return list.DetachTo(names);
}

HRESULT FbInstanceData::ChangeParameterFlag(BSTR instanceId, SAFEARRAY** nameList, DWORD ParameterRecord::*flag,
                                            DWORD from, DWORD to)
{
    RETURN_IF_NULL(nameList, E_POINTER);
    // The caller's array is declared [in, out] but never changed: work on a copy.
    ComVectorArray copy(*nameList);
    RETURN_IF_NULL(copy.Get(), E_OUTOFMEMORY);
    ComVectorAccess<BSTR> names;
    RETURN_IF_FAILED_QUIET(AccessList(names, copy.Get()));
    RETURN_IF_FAILED(AllOrNothing([&]() -> HRESULT {
        for (ULONG i = 0; i < names.Count(); ++i)
        {
            m_elementName.Assign(names[i]);
            RETURN_IF_FAILED(ReadPara(instanceId, false, false));
            if (m_parameter.*flag != from)
                continue;
            m_parameter.*flag = to;
            RETURN_IF_FAILED(WritePara(instanceId, false, false));
        }
        return S_OK;
    }));
    return S_OK;
}

// ------------------------------------------------------- single parameters

STDMETHODIMP FbInstanceData::ReadParameter(IFdtContext*, BSTR InstanceID, BSTR Name, VARIANT* ParameterValue)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(ParameterValue, E_POINTER);
        m_elementName.Assign(Name);
        RETURN_IF_FAILED(ReadPara(InstanceID, true, false));
        RETURN_IF_FAILED(VariantClear(ParameterValue));
        // The value read is the caller's: nothing after the read needs it.
        *ParameterValue = m_parameter.value.Detach();
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::WriteParameter(IFdtContext*, BSTR InstanceID, BSTR Name, VARIANT ParameterValue)
{
    STORE_STATE();
    // An object value is saved before the store is held.
    _variant_t saved;
    const HRESULT save = IsCallerObject(ParameterValue) ? EXCEPTION_GUARD([&]() -> HRESULT {
        SaveCallerValue(ParameterValue, saved);
        return S_OK;
    }) : S_OK;
    const VARIANT& value = IsCallerObject(ParameterValue) ? saved : ParameterValue;
    STORE_LOCK();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_FAILED_QUIET(save);
        m_elementName.Assign(Name);
        RETURN_IF_FAILED(ReadPara(InstanceID, true, true));
        if (SameValue(value, m_parameter.value))
            return S_OK;
        // The stored VARTYPE wins: a value of another one is converted to it.
        if (V_VT(&value) == V_VT(&m_parameter.value))
            CopyValue(m_parameter.value, value);
        else
        {
            _variant_t converted;
            CopyValue(converted, value);
            if (FAILED(VariantChangeType(&converted, &converted, 0, V_VT(&m_parameter.value))))
            {
                g_StdPkTraceInstance.Trace(CPkTrace::LevelError, "FbInstanceData::WriteParameter can't convert type\n");
                return E_FAIL;
            }
            CopyValue(m_parameter.value, converted);
        }
        RETURN_IF_FAILED(WritePara(InstanceID, true, false));
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::ReadParameterInfo(IFdtContext*, BSTR InstanceID, BSTR Name, IFdtParameter** Parameter)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(Parameter, E_POINTER);
        m_elementName.Assign(Name);
        RETURN_IF_FAILED(ReadPara(InstanceID, true, true));
        ComPtr<IFdtParameter> object;
        RETURN_IF_FAILED(MakeDataObject<FdtParameter>(object));
        RETURN_IF_FAILED(object->put_m_name(Name));
        RETURN_IF_FAILED(object->put_m_value(m_parameter.value));
        RETURN_IF_FAILED(object->put_m_defaultValue(m_parameter.defaultValue));
        RETURN_IF_FAILED(object->put_m_index(m_parameter.index));
        RETURN_IF_FAILED(object->put_m_dataType(static_cast<BYTE>(m_parameter.dataType)));
        RETURN_IF_FAILED(object->put_m_size(m_parameter.size));
        RETURN_IF_FAILED(object->put_m_objectType(m_parameter.objectType));
        RETURN_IF_FAILED(object->put_m_mandatory(AsVariantBool(m_parameter.isMandatory)));
        RETURN_IF_FAILED(object->put_m_private(AsVariantBool(m_parameter.isPrivate)));
        RETURN_IF_FAILED(object->put_m_protected(AsVariantBool(m_parameter.isProtected)));
        RETURN_IF_FAILED(object->put_m_locked(AsVariantBool(m_parameter.isLocked)));
        *Parameter = object.Detach();
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::WriteParameterInfo(IFdtContext*, BSTR InstanceID, IFdtParameter* Parameter)
{
    STORE_STATE();
    // The caller's object is read whole before the store is held.
    ParameterRecord record;
    const HRESULT read = EXCEPTION_GUARD([&]() -> HRESULT {
        // A null object is refused like every other null argument.
        RETURN_IF_NULL(Parameter, E_POINTER);
        BYTE dataType = 0;
        VARIANT_BOOL isMandatory = VARIANT_FALSE;
        VARIANT_BOOL isPrivate = VARIANT_FALSE;
        VARIANT_BOOL isProtected = VARIANT_FALSE;
        VARIANT_BOOL isLocked = VARIANT_FALSE;
        RETURN_IF_FAILED(Parameter->get_m_name(record.bstrName.GetAddress()));
        RETURN_IF_FAILED(Parameter->get_m_value(record.value.GetAddress()));
        RETURN_IF_FAILED(Parameter->get_m_defaultValue(record.defaultValue.GetAddress()));
        RETURN_IF_FAILED(Parameter->get_m_index(&record.index));
        RETURN_IF_FAILED(Parameter->get_m_dataType(&dataType));
        record.dataType = dataType;
        RETURN_IF_FAILED(Parameter->get_m_size(&record.size));
        RETURN_IF_FAILED(Parameter->get_m_objectType(&record.objectType));
        RETURN_IF_FAILED(Parameter->get_m_mandatory(&isMandatory));
        RETURN_IF_FAILED(Parameter->get_m_private(&isPrivate));
        RETURN_IF_FAILED(Parameter->get_m_protected(&isProtected));
        RETURN_IF_FAILED(Parameter->get_m_locked(&isLocked));
        record.isMandatory = isMandatory != 0;
        record.isPrivate = isPrivate != 0;
        record.isProtected = isProtected != 0;
        record.isLocked = isLocked != 0;
        // Object values are saved now, before the store is held.
        for (_variant_t* value : {&record.value, &record.defaultValue})
            if (IsCallerObject(*value))
                SaveCallerValue(_variant_t(*value), *value);
        return S_OK;
    });
    STORE_LOCK();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_FAILED_QUIET(read);
        // The values move over whole: a copy would make a null string empty.
        m_parameter = record;
        VARIANT value = record.value.Detach(), defaultValue = record.defaultValue.Detach();
        m_parameter.value.Attach(value);
        m_parameter.defaultValue.Attach(defaultValue);
        m_elementName.Assign(m_parameter.bstrName);
        RETURN_IF_FAILED(WritePara(InstanceID, true, true));
        return S_OK;
    });
}

STDMETHODIMP FbInstanceData::DeleteParameter(IFdtContext*, BSTR InstanceID, BSTR Name)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT { return DestroyElementStream(InstanceID, Name, false); });
}

STDMETHODIMP FbInstanceData::GetAllParameters(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT { return GetNameList(Context, InstanceID, NameList, false); });
}

// ------------------------------------------------------------------ lists

STDMETHODIMP FbInstanceData::ReadList(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList,
                                      SAFEARRAY** ParameterValueSequence)
{
    STORE_ENTRY();
    return STORE_OPERATION([&]() -> HRESULT {
        RETURN_IF_NULL(NameList, E_POINTER);
        RETURN_IF_NULL(ParameterValueSequence, E_POINTER);
        ComVectorAccess<BSTR> names;
        RETURN_IF_FAILED_QUIET(AccessList(names, *NameList));
        ComVectorArray result;
        RETURN_IF_FAILED_QUIET(result.Create<VARIANT>(names.Count(), 0, true));
        ComVectorAccess<VARIANT> values;
        RETURN_IF_FAILED_QUIET(AccessList(values, result.Get()));
        for (ULONG i = 0; i < names.Count(); ++i)
        {
            _variant_t value;
            RETURN_IF_FAILED_QUIET(ReadParameter(Context, InstanceID, names[i], &value));
            values[i] = value.Detach();
        }
        RETURN_IF_FAILED_QUIET(values.Release());
        return result.DetachTo(ParameterValueSequence);
    });
}

STDMETHODIMP FbInstanceData::WriteList(IFdtContext* Context, BSTR InstanceID, SAFEARRAY** NameList,
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
        RETURN_IF_NULL(NameList, E_POINTER);
        RETURN_IF_NULL(ParameterValueSequence, E_POINTER);
        ComVectorAccess<BSTR> names;
        ComVectorAccess<VARIANT> values;
        RETURN_IF_FAILED_QUIET(AccessList(names, *NameList));
        RETURN_IF_FAILED_QUIET(AccessList(values, saved.Get() ? saved.Get() : *ParameterValueSequence));
        // Name i takes value i: fewer values than names is refused before
        // anything is written, instead of reading past the values.
        if (values.Count() < names.Count())
            return E_INVALIDARG;
        // All names or none: a failing member takes back the values before it.
        RETURN_IF_FAILED(AllOrNothing([&]() -> HRESULT {
            for (ULONG i = 0; i < names.Count(); ++i)
                RETURN_IF_FAILED(WriteParameter(Context, InstanceID, names[i], values[i]));
            return S_OK;
        }));
        return S_OK;
    });
}

// ------------------------------------------------------ lock and protection

STDMETHODIMP FbInstanceData::LockParameter(IFdtContext*, BSTR InstanceID, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION(
        [&]() -> HRESULT { return ChangeParameterFlag(InstanceID, NameList, &ParameterRecord::isLocked, 0, 1); });
}

STDMETHODIMP FbInstanceData::UnlockParameter(IFdtContext*, BSTR InstanceID, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION(
        [&]() -> HRESULT { return ChangeParameterFlag(InstanceID, NameList, &ParameterRecord::isLocked, 1, 0); });
}

STDMETHODIMP FbInstanceData::ProtectParameter(IFdtContext*, BSTR InstanceID, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION(
        [&]() -> HRESULT { return ChangeParameterFlag(InstanceID, NameList, &ParameterRecord::isProtected, 0, 1); });
}

STDMETHODIMP FbInstanceData::ReleaseParameter(IFdtContext*, BSTR InstanceID, SAFEARRAY** NameList)
{
    STORE_ENTRY();
    return STORE_OPERATION(
        [&]() -> HRESULT { return ChangeParameterFlag(InstanceID, NameList, &ParameterRecord::isProtected, 1, 0); });
}
