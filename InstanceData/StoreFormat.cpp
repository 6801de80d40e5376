#include "InstanceData/StoreFormat.h"
#include <cstring>
#include <cwchar>
#include "Common/ErrorTrace.h"

// The formats give their failures back untraced: the callers trace them.

static_assert(sizeof(AdminRecord) == 8, "the administration stream is exactly 8 bytes");

bool CutInsideSector(const wchar_t* path)
{
    static const BYTE kSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    BYTE header[32];
    DWORD read = 0;
    LARGE_INTEGER size = {};
    const bool looked = ReadFile(file, header, sizeof header, &read, nullptr) && read == sizeof header &&
                        GetFileSizeEx(file, &size);
    CloseHandle(file);
    if (!looked || std::memcmp(header, kSignature, sizeof kSignature) != 0)
        return false;
    WORD sectorShift = 0;
    std::memcpy(&sectorShift, header + 30, sizeof sectorShift);
    return sectorShift >= 9 && sectorShift <= 12 && size.QuadPart % (LONGLONG(1) << sectorShift) != 0;
}

namespace
{
HRESULT ReadVersion(ByteReader& in)
{
    DWORD version = 0;
    RETURN_IF_FAILED_QUIET(in.Read(version));
    return version == IDS_STREAM_VERSION ? S_OK : IDS_E_STREAM_VERSION;
}

void WriteVersion(ByteWriter& out)
{
    out.Write(DWORD(IDS_STREAM_VERSION));
}

void WriteElementHead(ByteWriter& out, DWORD kind, const _bstr_t& name)
{
    WriteVersion(out);
    out.Write(kind);
    out.Write(name);
}
}  // namespace

void CopyName(WCHAR (&target)[32], const WCHAR* text)
{
    size_t i = 0;
    for (; text && text[i] && i < 31; ++i)
        target[i] = text[i];
    target[i] = L'\0';
}

bool SameElementName(const WCHAR* left, const WCHAR* right)
{
    left = left ? left : L"";
    right = right ? right : L"";
    // Most names come back in the letter case they were stored in.
    return wcscmp(left, right) == 0 || CompareStringOrdinal(left, -1, right, -1, TRUE) == CSTR_EQUAL;
}

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

// ------------------------------------------------------------ administration

HRESULT ReadAdminRecord(ByteReader& in, AdminRecord& record)
{
    AdminRecord read;
    RETURN_IF_FAILED_QUIET(in.Read(read.version));
    RETURN_IF_FAILED_QUIET(in.Read(read.nextInstanceNumber));
    record = read;
    return S_OK;
}

void WriteAdminRecord(ByteWriter& out, const AdminRecord& record)
{
    out.Write(record.version);
    out.Write(record.nextInstanceNumber);
}

// ---------------------------------------------------------- stream name map

bool ElementNameLess::operator()(const WCHAR* a, const WCHAR* b) const
{
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

void StreamNameMapRecord::Clear()
{
    nextStreamNumber = 0;
    szInstanceId[0] = L'\0';
    entries.clear();
}

HRESULT ReadStreamNameMapRecord(ByteReader& in, StreamNameMapRecord& record)
{
    RETURN_IF_FAILED_QUIET(ReadVersion(in));
    DWORD count = 0;
    RETURN_IF_FAILED_QUIET(in.Read(record.nextStreamNumber));
    RETURN_IF_FAILED_QUIET(in.Read(count));
    // Entries are added as they are read, never sized from the count: a
    // damaged count then ends at the buffer's end.
    for (DWORD i = 0; i < count; ++i)
    {
        _bstr_t name;
        StreamNameEntry entry;
        RETURN_IF_FAILED_QUIET(in.Read(name));
        RETURN_IF_FAILED_QUIET(in.Read(entry.kind));
        RETURN_IF_FAILED_QUIET(in.Read(entry.number));
        record.entries[name] = entry;
    }
    return S_OK;
}

void WriteStreamNameMapRecord(ByteWriter& out, const StreamNameMapRecord& record)
{
    WriteVersion(out);
    out.Write(record.nextStreamNumber);
    out.Write(static_cast<DWORD>(record.entries.size()));
    for (const auto& entry : record.entries)
    {
        out.Write(entry.first);
        out.Write(entry.second.kind);
        out.Write(entry.second.number);
    }
}

// ------------------------------------------------------------------ instance

void InstanceRecord::Reset()
{
    lockCount = 0;
    bstrSuperInstanceId = _bstr_t();
    bstrSuperParameterName = _bstr_t();
    subInstances.clear();
}

HRESULT ReadInstanceRecord(ByteReader& in, InstanceRecord& record, bool headOnly)
{
    RETURN_IF_FAILED_QUIET(ReadVersion(in));
    RETURN_IF_FAILED_QUIET(in.Read(record.lockCount));
    if (headOnly)
        return S_OK;
    record.bstrSuperInstanceId = _bstr_t();
    RETURN_IF_FAILED_QUIET(in.Read(record.bstrSuperInstanceId));
    record.bstrSuperParameterName = _bstr_t();
    RETURN_IF_FAILED_QUIET(in.Read(record.bstrSuperParameterName));
    DWORD count = 0;
    RETURN_IF_FAILED_QUIET(in.Read(count));
    record.subInstances.clear();
    for (DWORD i = 0; i < count; ++i)
    {
        record.subInstances.emplace_back();
        SubInstanceRef& entry = record.subInstances.back();
        RETURN_IF_FAILED_QUIET(in.Read(entry.bstrInstanceId));
        RETURN_IF_FAILED_QUIET(in.Read(entry.bstrParameterName));
    }
    return S_OK;
}

void WriteInstanceRecord(ByteWriter& out, const InstanceRecord& record, bool headOnly)
{
    WriteVersion(out);
    out.Write(record.lockCount);
    if (headOnly)
        return;
    out.Write(record.bstrSuperInstanceId);
    out.Write(record.bstrSuperParameterName);
    out.Write(static_cast<DWORD>(record.subInstances.size()));
    for (const SubInstanceRef& entry : record.subInstances)
    {
        out.Write(entry.bstrInstanceId);
        out.Write(entry.bstrParameterName);
    }
}

// --------------------------------------------------------------- descriptors

HRESULT ReadDtmDescriptorRecord(ByteReader& in, DtmDescriptorRecord& record)
{
    RETURN_IF_FAILED_QUIET(ReadVersion(in));
    RETURN_IF_FAILED_QUIET(in.Read(record.category));
    RETURN_IF_FAILED_QUIET(in.Read(record.classification));
    RETURN_IF_FAILED_QUIET(in.Read(record.device));
    RETURN_IF_FAILED_QUIET(in.Read(record.node));
    RETURN_IF_FAILED_QUIET(in.Read(record.application));
    RETURN_IF_FAILED_QUIET(in.Read(record.language));
    return S_OK;
}

void WriteDtmDescriptorRecord(ByteWriter& out, const DtmDescriptorRecord& record)
{
    WriteVersion(out);
    out.Write(record.category);
    out.Write(record.classification);
    out.Write(record.device);
    out.Write(record.node);
    out.Write(record.application);
    out.Write(record.language);
}

HRESULT ReadCommDescriptorRecord(ByteReader& in, CommDescriptorRecord& record)
{
    RETURN_IF_FAILED_QUIET(ReadVersion(in));
    RETURN_IF_FAILED_QUIET(in.Read(record.category));
    RETURN_IF_FAILED_QUIET(in.Read(record.name));
    return S_OK;
}

void WriteCommDescriptorRecord(ByteWriter& out, const CommDescriptorRecord& record)
{
    WriteVersion(out);
    out.Write(record.category);
    out.Write(record.name);
}

// ------------------------------------------------------ parameters and groups

HRESULT ReadElementHead(ByteReader& in, DWORD kind, StoredString& name)
{
    RETURN_IF_FAILED_QUIET(ReadVersion(in));
    DWORD storedKind = 0;
    RETURN_IF_FAILED_QUIET(in.Read(storedKind));
    if (storedKind != kind)
        return kind == ElementKindGroup ? IDS_E_NOT_GROUP_STREAM : IDS_E_NOT_PARAMETER_STREAM;
    return in.Read(name);
}

HRESULT ReadParameterRecord(ByteReader& in, ParameterRecord& record, ParameterPart part, ParameterPart& failedAt)
{
    failedAt = ParameterPart::Head;
    RETURN_IF_FAILED_QUIET(ReadElementHead(in, ElementKindParameter, record.storedName));
    RETURN_IF_FAILED_QUIET(in.Read(record.isLocked));
    RETURN_IF_FAILED_QUIET(in.Read(record.isProtected));
    RETURN_IF_FAILED_QUIET(in.Read(record.isMandatory));
    RETURN_IF_FAILED_QUIET(in.Read(record.isPrivate));
    record.headEnd = in.Offset();
    if (part == ParameterPart::Head)
        return S_OK;
    failedAt = ParameterPart::Value;
    RETURN_IF_FAILED_QUIET(in.ReadValue(record.value));
    if (part == ParameterPart::Value)
        return S_OK;
    failedAt = ParameterPart::DefaultValue;
    RETURN_IF_FAILED_QUIET(in.ReadValue(record.defaultValue));
    failedAt = ParameterPart::Body;
    return ReadParameterBody(in, record);
}

HRESULT ReadParameterBody(ByteReader& in, ParameterRecord& record)
{
    RETURN_IF_FAILED_QUIET(in.Read(record.index));
    RETURN_IF_FAILED_QUIET(in.Read(record.dataType));
    RETURN_IF_FAILED_QUIET(in.Read(record.size));
    RETURN_IF_FAILED_QUIET(in.Read(record.objectType));
    return S_OK;
}

HRESULT WriteParameterRecord(ByteWriter& out, const ParameterRecord& record, bool withBody, ParameterPart& failedAt)
{
    ByteWriter built;
    WriteElementHead(built, ElementKindParameter, record.bstrName);
    built.Write(record.isLocked);
    built.Write(record.isProtected);
    built.Write(record.isMandatory);
    built.Write(record.isPrivate);
    if (withBody)
    {
        failedAt = ParameterPart::Value;
        RETURN_IF_FAILED_QUIET(built.WriteValue(record.value));
        failedAt = ParameterPart::DefaultValue;
        RETURN_IF_FAILED_QUIET(built.WriteValue(record.defaultValue));
        built.Write(record.index);
        built.Write(record.dataType);
        built.Write(record.size);
        built.Write(record.objectType);
    }
    if (out.Buffer().empty())
        out.Buffer().swap(built.Buffer());
    else
        out.Append(built.Buffer().data(), built.Buffer().size());
    return S_OK;
}

HRESULT ReadGroupRecord(ByteReader& in, GroupRecord& record, bool withMembers)
{
    RETURN_IF_FAILED_QUIET(ReadElementHead(in, ElementKindGroup, record.storedName));
    DWORD groupId = 0;
    RETURN_IF_FAILED_QUIET(in.Read(groupId));
    record.groupId = static_cast<BYTE>(groupId);
    if (!withMembers)
        return S_OK;
    DWORD count = 0;
    RETURN_IF_FAILED_QUIET(in.Read(count));
    record.members.clear();
    // Each member takes at least its 4-byte count: a damaged count reserves no more than the buffer backs.
    record.members.reserve(count < in.Remaining() / 4 ? count : in.Remaining() / 4);
    for (DWORD i = 0; i < count; ++i)
    {
        _bstr_t member;
        RETURN_IF_FAILED_QUIET(in.Read(member));
        record.members.push_back(member);
    }
    return S_OK;
}

void WriteGroupRecord(ByteWriter& out, const GroupRecord& record, bool withMembers)
{
    WriteElementHead(out, ElementKindGroup, record.bstrName);
    out.Write(DWORD(record.groupId));
    if (!withMembers)
        return;
    out.Write(static_cast<DWORD>(record.members.size()));
    for (const _bstr_t& member : record.members)
        out.Write(member);
}
