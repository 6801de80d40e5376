#pragma once
// The formats of the streams in a store file, each in one place: a record,
// its reader and its writer over bytes. The store object and the store tool
// both read and write through these; nothing here opens a storage.
//
// root storage
//   "admin"            AdminRecord
//   "1", "2", ...      one storage per instance
//     "instance"       InstanceRecord
//     "map"            StreamNameMapRecord
//     "dtm", "comm"    DtmDescriptorRecord, CommDescriptorRecord
//     "0", "1", ...    ParameterRecord or GroupRecord, named by the map
#include <windows.h>
#include <comutil.h>
#include <map>
#include <vector>
#include "Common/ByteStream.h"

// A compound file is whole sectors (the header fills the first). In one cut
// inside a sector, as a lost write leaves it, the platform reads the cut
// sector two ways (zero-filled as a whole, short as part of a stream), and a
// commit on it can lose streams: the store does not open it. False for
// whatever is no compound file or cannot be looked at.
bool CutInsideSector(const wchar_t* path);

// Copies at most 31 characters of text (null reads as empty) into a 32-unit
// buffer: the store uses no more of an element name.
void CopyName(WCHAR (&target)[32], const WCHAR* text);
// Element names compare as the compound file compares them: without regard
// to letter case.
bool SameElementName(const WCHAR* left, const WCHAR* right);
// The instance number that a root element name stands for: digits only, no
// sign, no leading zero, at least 1; 0 for any other name.
DWORD InstanceNumberOf(const WCHAR* name);

// Store results of our own facility.
enum : HRESULT
{
    IDS_E_NAME_EXISTS = static_cast<HRESULT>(0x80043004),       // name already in the stream name map
    IDS_E_MEMBER_NOT_PARAMETER = static_cast<HRESULT>(0x80043005),
    IDS_E_NOT_PARAMETER_STREAM = static_cast<HRESULT>(0x80043006),
    IDS_E_NOT_GROUP_STREAM = static_cast<HRESULT>(0x80043007),
    IDS_E_NAME_UNKNOWN = static_cast<HRESULT>(0x80043008),      // name not in the stream name map
    // A stream of another version than IDS_STREAM_VERSION. The store turns it
    // into E_FAIL with a message of the stream's own; it never leaves the store.
    IDS_E_STREAM_VERSION = static_cast<HRESULT>(0x80043010),
};

// The only version that the store writes and accepts at the head of its streams.
enum : DWORD
{
    IDS_STREAM_VERSION = 1,
};

// The "admin" stream: exactly these 8 bytes.
struct AdminRecord
{
    DWORD version = 0;
    DWORD nextInstanceNumber = 0;
};
HRESULT ReadAdminRecord(ByteReader& in, AdminRecord& record);
void WriteAdminRecord(ByteWriter& out, const AdminRecord& record);

// Order of element names in a stream name map: a null name first, then by
// UTF-16 code units as unsigned numbers up to the first 0 unit.
// Transparent: a map of it is searched with a name that is no _bstr_t.
struct ElementNameLess
{
    using is_transparent = void;
    bool operator()(const WCHAR* left, const WCHAR* right) const;
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

// The "map" stream: version, next stream number, count, then per entry the
// name, its kind and its stream number.
struct StreamNameMapRecord
{
    DWORD nextStreamNumber = 0;
    WCHAR szInstanceId[32] = {};   // the instance it was read from; empty when none
    std::map<_bstr_t, StreamNameEntry, ElementNameLess> entries;

    void Clear();
};
HRESULT ReadStreamNameMapRecord(ByteReader& in, StreamNameMapRecord& record);
void WriteStreamNameMapRecord(ByteWriter& out, const StreamNameMapRecord& record);

// One downward reference of an instance.
struct SubInstanceRef
{
    _bstr_t bstrInstanceId;
    _bstr_t bstrParameterName;
};

// The "instance" stream: version, lock count (the head), then the super
// instance and its parameter, the count and the sub-instance references.
struct InstanceRecord
{
    DWORD lockCount = 0;
    _bstr_t bstrSuperInstanceId;
    _bstr_t bstrSuperParameterName;
    std::vector<SubInstanceRef> subInstances;

    void Reset();
};
enum : size_t
{
    kInstanceHeadSize = 8
};
HRESULT ReadInstanceRecord(ByteReader& in, InstanceRecord& record, bool headOnly);
void WriteInstanceRecord(ByteWriter& out, const InstanceRecord& record, bool headOnly);

// The "dtm" stream: version, category, classification, device, node,
// application, language.
struct DtmDescriptorRecord
{
    BYTE category = 0;
    LONG classification = 0;
    _bstr_t device;
    _bstr_t node;
    LONG application = 0;
    LONG language = 0;
};
HRESULT ReadDtmDescriptorRecord(ByteReader& in, DtmDescriptorRecord& record);
void WriteDtmDescriptorRecord(ByteWriter& out, const DtmDescriptorRecord& record);

// The "comm" stream: version, category, name.
struct CommDescriptorRecord
{
    BYTE category = 0;
    _bstr_t name;
};
HRESULT ReadCommDescriptorRecord(ByteReader& in, CommDescriptorRecord& record);
void WriteCommDescriptorRecord(ByteWriter& out, const CommDescriptorRecord& record);

// A parameter stream: version, kind 2, name, the flags locked, protected,
// mandatory and private (the head); value, default value, index, data type,
// size and object type (the body).
struct ParameterRecord
{
    _bstr_t bstrName;          // written
    StoredString storedName;   // read: points into the buffer read
    size_t headEnd = 0;        // read: where the head ends in it
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
// How far a parameter stream is read, and where a read stopped.
enum class ParameterPart
{
    Head,
    Value,
    DefaultValue,
    Body,
};
// Reads up to and including part. On failure, failedAt names the part that
// could not be read.
HRESULT ReadParameterRecord(ByteReader& in, ParameterRecord& record, ParameterPart part, ParameterPart& failedAt);
// The fields after the default value: index, data type, size, object type.
// The store tool reads them on their own when it has walked the values itself.
HRESULT ReadParameterBody(ByteReader& in, ParameterRecord& record);
enum : size_t
{
    kParameterBodySize = 16
};
// The head alone, or head and body; a value that cannot be encoded fails
// (failedAt says which) and leaves out as it was.
HRESULT WriteParameterRecord(ByteWriter& out, const ParameterRecord& record, bool withBody, ParameterPart& failedAt);

// A group stream: version, kind 1, name, group id (32 bits), then the member
// count and the member names.
struct GroupRecord
{
    _bstr_t bstrName;          // written
    StoredString storedName;   // read: points into the buffer read
    BYTE groupId = 0;
    std::vector<_bstr_t> members;
};
HRESULT ReadGroupRecord(ByteReader& in, GroupRecord& record, bool withMembers);
void WriteGroupRecord(ByteWriter& out, const GroupRecord& record, bool withMembers);

// The version and kind that head parameter and group streams; kind is the
// ElementKind that the stream must have (IDS_E_NOT_PARAMETER_STREAM or
// IDS_E_NOT_GROUP_STREAM otherwise).
HRESULT ReadElementHead(ByteReader& in, DWORD kind, StoredString& name);
