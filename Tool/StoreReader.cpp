#include "Tool/StoreReader.h"
#include <wrl/client.h>
#include <algorithm>
#include <map>
#include <set>
#include "InstanceData/StoreFormat.h"

using Microsoft::WRL::ComPtr;

namespace
{
const DWORD kReadMode = STGM_READ | STGM_SHARE_EXCLUSIVE;

bool IsStreamNumberName(const std::wstring& name)
{
    return name == L"0" || InstanceNumberOf(name.c_str()) != 0;
}

std::string Quoted(const _bstr_t& text)
{
    return "\"" + Utf8(text) + "\"";
}

// Element names of a storage by kind.
HRESULT ElementNames(IStorage* storage, std::vector<std::wstring>& streams, std::vector<std::wstring>& storages)
{
    ComPtr<IEnumSTATSTG> elements;
    HRESULT hr = storage->EnumElements(0, nullptr, 0, elements.GetAddressOf());
    if (FAILED(hr))
        return hr;
    STATSTG stat;
    while ((hr = elements->Next(1, &stat, nullptr)) == S_OK)
    {
        (stat.type == STGTY_STORAGE ? storages : streams).emplace_back(stat.pwcsName ? stat.pwcsName : L"");
        CoTaskMemFree(stat.pwcsName);
    }
    return FAILED(hr) ? hr : S_OK;
}

bool Contains(const std::vector<std::wstring>& names, const wchar_t* name)
{
    return std::any_of(names.begin(), names.end(),
                       [&](const std::wstring& element) { return SameElementName(element.c_str(), name); });
}

// An object of a class that cannot be made here stores no length: where its
// bytes end follows from what the record has after it. Before the body there
// is only the body; before the default value, the default value must read
// exactly up to the body (the shortest such default is taken), or else be an
// object of an unknown class itself (the earliest such start is taken).
size_t UnknownObjectEnd(const Bytes& bytes, size_t start, bool defaultFollows)
{
    const size_t objectStart = start + 2 + sizeof(CLSID);
    if (bytes.size() < objectStart + kParameterBodySize)
        return 0;
    const size_t bodyAt = bytes.size() - kParameterBodySize;
    if (!defaultFollows)
        return bodyAt;
    for (size_t at = bodyAt - 2; at + 1 > objectStart && at >= 2; --at)
    {
        ByteReader candidate(bytes.data() + at, bodyAt - at);
        _variant_t value;
        if (SUCCEEDED(candidate.ReadValue(value)) && candidate.Remaining() == 0)
            return at;
    }
    for (size_t at = objectStart; at + 2 + sizeof(CLSID) <= bodyAt; ++at)
    {
        VARTYPE vt = VT_EMPTY;
        CLSID clsid;
        std::memcpy(&vt, bytes.data() + at, sizeof vt);
        std::memcpy(&clsid, bytes.data() + at + 2, sizeof clsid);
        if (IsObjectType(vt) && !IsEqualCLSID(clsid, CLSID_NULL))
            return at;
    }
    return 0;
}

// One value at offset with the store's value reader; an object as its class
// and persisted bytes. offset moves past the value.
HRESULT ReadValueAt(const Bytes& bytes, size_t& offset, bool defaultFollows, Json& json)
{
    ByteReader in(bytes.data() + offset, bytes.size() - offset);
    _variant_t value;
    HRESULT hr = in.ReadValue(value);
    if (FAILED(hr))
        return hr;
    const VARTYPE vt = V_VT(&value);
    if (!IsObjectType(vt))
    {
        json = ValueJson(value);
        offset += in.Offset();
        return S_OK;
    }
    const size_t objectStart = offset + 2 + sizeof(CLSID);
    if (bytes.size() < objectStart)
        return E_FAIL;
    CLSID clsid;
    std::memcpy(&clsid, bytes.data() + offset + 2, sizeof clsid);
    size_t end = offset + in.Offset();
    if (!V_UNKNOWN(&value) && !IsEqualCLSID(clsid, CLSID_NULL))
        end = UnknownObjectEnd(bytes, offset, defaultFollows);
    if (end < objectStart)
        return E_FAIL;
    json = ObjectJson(vt, clsid, bytes.data() + objectStart, end - objectStart);
    offset = end;
    return S_OK;
}

std::string HeadProblem(HRESULT hr, const char* kind)
{
    if (hr == IDS_E_STREAM_VERSION)
        return "has another version than 1";
    if (hr == IDS_E_NOT_PARAMETER_STREAM || hr == IDS_E_NOT_GROUP_STREAM)
        return std::string("is not a ") + kind + " stream";
    return "head unreadable (" + HresultText(hr) + ")";
}
}  // namespace

bool StoreReader::AnythingUnreadable() const
{
    return std::any_of(m_findings.begin(), m_findings.end(), [](const Finding& f) { return f.unreadable; });
}

StoreReader::Result StoreReader::ReadFile(const wchar_t* path)
{
    // A file cut inside a sector is read as far as it goes; the cut is named
    // first, or as the reason when nothing of it reads.
    const bool cut = CutInsideSector(path);
    if (cut)
        Note(true, "file: cut short inside a sector; the store does not open it");
    const auto notAStore = [&](const std::string& reason) {
        m_reason = cut ? "it is cut short inside a sector, and the store does not open such a file" : reason;
        return NotAStore;
    };
    ComPtr<IStorage> root;
    HRESULT hr = StgOpenStorage(path, nullptr, STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0, root.GetAddressOf());
    if (FAILED(hr))
        return notAStore("not a compound file or cannot be opened (" + HresultText(hr) + ")");
    std::vector<std::wstring> streams, storages;
    if (FAILED(hr = ElementNames(root.Get(), streams, storages)))
        return notAStore("its elements cannot be listed (" + HresultText(hr) + ")");
    std::vector<std::pair<DWORD, std::wstring>> instances;
    for (const std::wstring& name : storages)
        if (const DWORD number = InstanceNumberOf(name.c_str()))
            instances.emplace_back(number, name);
        else
            Note(false, "root: storage \"" + Utf8(name.c_str()) + "\" is not an instance");
    for (const std::wstring& name : streams)
        if (!SameElementName(name.c_str(), L"admin"))
            Note(false, "root: stream \"" + Utf8(name.c_str()) + "\" is not part of a store");
    if (instances.empty() && !Contains(streams, L"admin"))
        return notAStore("it holds no \"admin\" stream and no instance");

    std::sort(instances.begin(), instances.end());
    m_content = Json::object();
    ReadAdmin(root.Get());
    Json& list = m_content["instances"] = Json::array();
    for (const auto& instance : instances)
        list.push_back(ReadInstance(root.Get(), instance.second));
    CheckRules();
    return Read;
}

HRESULT StoreReader::ReadStream(IStorage* storage, const wchar_t* name, Bytes& bytes)
{
    ComPtr<IStream> stream;
    const HRESULT hr = storage->OpenStream(name, nullptr, kReadMode, 0, stream.GetAddressOf());
    return FAILED(hr) ? hr : ReadWholeStream(stream.Get(), bytes);
}

void StoreReader::NoteRest(const std::string& where, size_t rest)
{
    if (rest)
        Note(false, where + ": " + std::to_string(rest) + " byte(s) after the record");
}

// Reads one record stream with its format reader; false when nothing of it
// can be shown. A record read only in part is shown as far as it was read.
template <class Record, class Reader>
static bool ReadRecordStream(StoreReader* reader, IStorage* storage, const std::string& where, const wchar_t* name,
                             Record& record, Reader read, std::vector<Finding>& findings)
{
    const std::string stream = where + ": stream \"" + Utf8(name) + "\"";
    ComPtr<IStream> opened;
    Bytes bytes;
    HRESULT hr = storage->OpenStream(name, nullptr, kReadMode, 0, opened.GetAddressOf());
    if (SUCCEEDED(hr))
        hr = ReadWholeStream(opened.Get(), bytes);
    if (FAILED(hr))
    {
        findings.push_back({true, stream + (hr == STG_E_FILENOTFOUND ? " missing" : " unreadable (" + HresultText(hr) + ")")});
        return false;
    }
    ByteReader in(bytes);
    hr = read(in, record);
    if (hr == IDS_E_STREAM_VERSION)
        return findings.push_back({true, stream + " has another version than 1"}), false;
    if (FAILED(hr))
        findings.push_back({true, stream + " ends within its record, at byte " + std::to_string(in.Offset())});
    else if (in.Remaining())
        findings.push_back({false, stream + ": " + std::to_string(in.Remaining()) + " byte(s) after the record"});
    return true;
}

void StoreReader::ReadAdmin(IStorage* root)
{
    AdminRecord admin;
    const bool shown = ReadRecordStream(this, root, "root", L"admin", admin, ReadAdminRecord, m_findings);
    if (shown && admin.version != IDS_STREAM_VERSION)
        Note(true, "root: stream \"admin\" has version " + std::to_string(admin.version) + ", not 1");
    m_content["admin"] = shown ? Json{{"nextInstance", admin.nextInstanceNumber}} : Json();
}

Json StoreReader::ReadInstance(IStorage* root, const std::wstring& id)
{
    const std::string where = "instance " + Utf8(id.c_str());
    Json json = {{"id", Utf8(id.c_str())}};
    ComPtr<IStorage> storage;
    std::vector<std::wstring> streams, storages;
    HRESULT hr = root->OpenStorage(id.c_str(), nullptr, kReadMode, nullptr, 0, storage.GetAddressOf());
    if (SUCCEEDED(hr))
        hr = ElementNames(storage.Get(), streams, storages);
    if (FAILED(hr))
        return Note(true, where + ": storage unreadable (" + HresultText(hr) + ")"), json;

    InstanceRecord instance;
    if (ReadRecordStream(this, storage.Get(), where, L"instance", instance,
                         [](ByteReader& in, InstanceRecord& r) { return ReadInstanceRecord(in, r, false); },
                         m_findings))
    {
        json["lockCount"] = instance.lockCount;
        json["super"] = {{"instance", StringJson(instance.bstrSuperInstanceId)},
                         {"parameter", StringJson(instance.bstrSuperParameterName)}};
        Json& subs = json["subInstances"] = Json::array();
        for (const SubInstanceRef& sub : instance.subInstances)
            subs.push_back({{"instance", StringJson(sub.bstrInstanceId)}, {"parameter", StringJson(sub.bstrParameterName)}});
    }
    DtmDescriptorRecord dtm;
    if (ReadRecordStream(this, storage.Get(), where, L"dtm", dtm, ReadDtmDescriptorRecord, m_findings))
        json["dtm"] = {{"category", dtm.category},         {"classification", dtm.classification},
                       {"device", StringJson(dtm.device)}, {"node", StringJson(dtm.node)},
                       {"application", dtm.application},   {"language", dtm.language}};
    CommDescriptorRecord comm;
    if (ReadRecordStream(this, storage.Get(), where, L"comm", comm, ReadCommDescriptorRecord, m_findings))
        json["comm"] = {{"category", comm.category}, {"name", StringJson(comm.name)}};

    StreamNameMapRecord map;
    if (!ReadRecordStream(this, storage.Get(), where, L"map", map, ReadStreamNameMapRecord, m_findings))
        map.entries.clear();
    json["nextStream"] = map.nextStreamNumber;
    std::map<DWORD, std::pair<_bstr_t, DWORD>> byNumber;
    for (const auto& entry : map.entries)
    {
        auto placed = byNumber.emplace(entry.second.number, std::make_pair(entry.first, entry.second.kind));
        if (!placed.second)
            Note(false, where + ": map entries " + Quoted(placed.first->second.first) + " and " + Quoted(entry.first) +
                            " share stream " + std::to_string(entry.second.number));
    }
    // Filled apart: a new key of an ordered JSON object moves the others.
    Json parameters = Json::array(), groups = Json::array(), withoutStream = Json::array();
    for (const auto& numbered : byNumber)
    {
        const _bstr_t& name = numbered.second.first;
        const DWORD kind = numbered.second.second;
        const std::wstring streamName = std::to_wstring(numbered.first);
        const std::string element = where + ": " + (kind == ElementKindGroup ? "group " : "parameter ") + Quoted(name);
        if (kind != ElementKindGroup && kind != ElementKindParameter)
        {
            Note(false, where + ": map entry " + Quoted(name) + " has the unknown kind " + std::to_string(kind));
            continue;
        }
        Bytes bytes;
        hr = Contains(streams, streamName.c_str()) ? ReadStream(storage.Get(), streamName.c_str(), bytes)
                                                    : STG_E_FILENOTFOUND;
        if (hr == STG_E_FILENOTFOUND)
        {
            // What the module leaves of a deleted element: kept, so that an import makes it again.
            Note(false, element + ": map entry without stream " + Utf8(streamName.c_str()));
            withoutStream.push_back({{"name", StringJson(name)}, {"stream", numbered.first},
                                     {"kind", kind == ElementKindGroup ? "group" : "parameter"}});
            continue;
        }
        if (FAILED(hr))
        {
            Note(true, element + ": stream " + Utf8(streamName.c_str()) + " unreadable (" + HresultText(hr) + ")");
            continue;
        }
        Json read = {{"name", StringJson(name)}, {"stream", numbered.first}};
        const std::string at = element + " (stream " + Utf8(streamName.c_str()) + ")";
        if (kind == ElementKindGroup)
            groups.push_back(ReadGroup(at, bytes, read));
        else
            parameters.push_back(ReadParameter(at, bytes, read));
    }
    for (const std::wstring& name : streams)
    {
        const bool known = Contains({L"instance", L"map", L"dtm", L"comm"}, name.c_str());
        if (IsStreamNumberName(name) && !byNumber.count(static_cast<DWORD>(_wtoi(name.c_str()))))
            Note(false, where + ": stream " + Utf8(name.c_str()) + " without map entry");
        else if (!IsStreamNumberName(name) && !known)
            Note(false, where + ": stream \"" + Utf8(name.c_str()) + "\" is not part of an instance");
    }
    for (const std::wstring& name : storages)
        Note(false, where + ": storage \"" + Utf8(name.c_str()) + "\" is not part of an instance");
    json["parameters"] = parameters;
    json["groups"] = groups;
    if (!withoutStream.empty())
        json["withoutStream"] = withoutStream;
    return json;
}

Json StoreReader::ReadParameter(const std::string& where, const Bytes& bytes, Json json)
{
    ParameterRecord record;
    ParameterPart failedAt;
    ByteReader in(bytes);
    const HRESULT hr = ReadParameterRecord(in, record, ParameterPart::Head, failedAt);
    if (FAILED(hr))
        return Note(true, where + " " + HeadProblem(hr, "parameter")), json;
    _bstr_t mapName, storedName;
    StringFromJson(json["name"], mapName);
    record.storedName.Copy(storedName);
    if (!SameElementName(storedName, mapName))
        Note(false, where + " holds the name " + Quoted(storedName));
    json["mandatory"] = record.isMandatory != 0;
    json["private"] = record.isPrivate != 0;
    json["protected"] = record.isProtected != 0;
    json["locked"] = record.isLocked != 0;
    size_t offset = in.Offset();
    if (FAILED(ReadValueAt(bytes, offset, true, json["value"])))
        return json.erase("value"), Note(true, where + ": value unreadable"), json;
    if (FAILED(ReadValueAt(bytes, offset, false, json["default"])))
        return json.erase("default"), Note(true, where + ": default value unreadable"), json;
    ByteReader body(bytes.data() + offset, bytes.size() - offset);
    if (FAILED(ReadParameterBody(body, record)))
        return Note(true, where + ": index, data type, size and object type unreadable"), json;
    json["index"] = record.index;
    json["dataType"] = record.dataType;
    json["size"] = record.size;
    json["objectType"] = record.objectType;
    NoteRest(where, body.Remaining());
    return json;
}

Json StoreReader::ReadGroup(const std::string& where, const Bytes& bytes, Json json)
{
    ByteReader head(bytes);
    StoredString stored;
    HRESULT hr = ReadElementHead(head, ElementKindGroup, stored);
    if (FAILED(hr))
        return Note(true, where + " " + HeadProblem(hr, "group")), json;
    _bstr_t mapName, storedName;
    StringFromJson(json["name"], mapName);
    stored.Copy(storedName);
    if (!SameElementName(storedName, mapName))
        Note(false, where + " holds the name " + Quoted(storedName));
    GroupRecord record;
    ByteReader in(bytes);
    hr = ReadGroupRecord(in, record, true);
    json["groupId"] = record.groupId;
    Json& members = json["members"] = Json::array();
    for (const _bstr_t& member : record.members)
        members.push_back(StringJson(member));
    if (FAILED(hr))
        Note(true, where + ": members unreadable after " + std::to_string(record.members.size()));
    else
        NoteRest(where, in.Remaining());
    return json;
}

// Rules between records: counters, group members, references.
void StoreReader::CheckRules()
{
    const Json& instances = m_content["instances"];
    std::map<std::string, const Json*> byId;
    DWORD highest = 0;
    for (const Json& instance : instances)
    {
        const std::string id = instance["id"].get<std::string>();
        byId[id] = &instance;
        highest = std::max(highest, InstanceNumberOf(Wide(id)));
    }
    const Json& admin = m_content["admin"];
    if (admin.is_object() && admin["nextInstance"].get<DWORD>() <= highest)
        Note(false, "root: next instance number " + admin["nextInstance"].dump() + " is not above instance " +
                        std::to_string(highest));
    auto sameName = [](const Json& left, const Json& right) {
        _bstr_t a, b;
        StringFromJson(left, a);
        StringFromJson(right, b);
        return SameElementName(a, b);
    };
    for (const Json& instance : instances)
    {
        const std::string where = "instance " + instance["id"].get<std::string>();
        const Json parameters = instance.value("parameters", Json::array());
        const Json groups = instance.value("groups", Json::array());
        DWORD nextStream = instance.value("nextStream", 0u);
        for (const Json* list : {&parameters, &groups})
            for (const Json& element : *list)
                if (element["stream"].get<DWORD>() >= nextStream)
                    Note(false, where + ": next stream number " + std::to_string(nextStream) + " is not above stream " +
                                    element["stream"].dump() + " in use");
        for (const Json& group : groups)
            for (const Json& member : group.value("members", Json::array()))
                if (std::none_of(parameters.begin(), parameters.end(),
                                 [&](const Json& p) { return sameName(p["name"], member); }))
                    Note(false, where + ": group " + group["name"].dump() + " member " + member.dump() +
                                    " is not a parameter");
        const Json super = instance.value("super", Json());
        const std::string superId = super.is_object() && super["instance"].is_string() ? super["instance"].get<std::string>() : "";
        if (!superId.empty())
        {
            auto found = byId.find(superId);
            if (found == byId.end())
                Note(false, where + ": super instance " + superId + " does not exist");
            else
            {
                const Json& subs = found->second->value("subInstances", Json::array());
                if (std::none_of(subs.begin(), subs.end(), [&](const Json& s) {
                        return s["instance"] == instance["id"] && sameName(s["parameter"], super["parameter"]);
                    }))
                    Note(false, where + ": super instance " + superId + " does not list it through " +
                                    super["parameter"].dump());
            }
        }
        for (const Json& sub : instance.value("subInstances", Json::array()))
        {
            const std::string subId = sub["instance"].is_string() ? sub["instance"].get<std::string>() : "";
            auto found = byId.find(subId);
            if (found == byId.end())
                Note(false, where + ": sub-instance " + sub["instance"].dump() + " does not exist");
            else
            {
                const Json back = found->second->value("super", Json());
                if (!back.is_object() || back["instance"] != instance["id"] || !sameName(back["parameter"], sub["parameter"]))
                    Note(false, where + ": sub-instance " + subId + " does not name it as super instance through " +
                                    sub["parameter"].dump());
            }
        }
    }
}
