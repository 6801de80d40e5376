#include "Tool/StoreImporter.h"
#include <wrl/client.h>
#include <algorithm>
#include <map>
#include "FdtInterfaces.h"
#include "InstanceDataLib.h"
#include "InstanceData/StoreFormat.h"
#include "demo/FrameObjects.h"

using Microsoft::WRL::ComPtr;

namespace
{
// Ends the import with a reason; the failure is turned into the exit code
// at the top and never leaves the tool.
struct Refusal
{
    HRESULT hr;
    std::string reason;
};

void Check(HRESULT hr, const std::string& step)
{
    if (FAILED(hr))
        throw Refusal{hr, step + " failed (" + HresultText(hr) + ")"};
}

void Require(bool condition, const std::string& reason)
{
    if (!condition)
        throw Refusal{E_INVALIDARG, reason};
}

_bstr_t Text(const Json& json, const char* key)
{
    _bstr_t text;
    Require(json.is_object() && SUCCEEDED(StringFromJson(json.value(key, Json()), text)),
            std::string("\"") + key + "\" must be a string or null");
    return text;
}

template <class T>
T Number(const Json& json, const char* key)
{
    Require(json.is_object() && json.contains(key) && json[key].is_number_integer(),
            std::string("\"") + key + "\" must be a whole number");
    return json[key].get<T>();
}

bool Flag(const Json& json, const char* key)
{
    Require(json.contains(key) && json[key].is_boolean(), std::string("\"") + key + "\" must be true or false");
    return json[key].get<bool>();
}

SAFEARRAY* NameList(const std::vector<_bstr_t>& names)
{
    SAFEARRAY* list = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(names.size()));
    Check(list ? S_OK : E_OUTOFMEMORY, "make a name list");
    for (LONG i = 0; i < static_cast<LONG>(names.size()); ++i)
        Check(SafeArrayPutElement(list, &i, static_cast<BSTR>(names[i])), "make a name list");
    return list;
}

std::wstring ProgramDirectory()
{
    wchar_t path[MAX_PATH];
    const std::wstring full(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return full.substr(0, full.find_last_of(L"\\/") + 1);
}

// The store object from InstanceData.dll beside the tool.
ComPtr<IFbInstanceData> LoadStore()
{
    const HMODULE server = LoadLibraryW((ProgramDirectory() + L"InstanceData.dll").c_str());
    Check(server ? S_OK : HRESULT_FROM_WIN32(GetLastError()), "loading InstanceData.dll beside the tool");
    typedef HRESULT(WINAPI * GetClassObject)(REFCLSID, REFIID, void**);
    const auto getClassObject =
        reinterpret_cast<GetClassObject>(reinterpret_cast<void (*)()>(GetProcAddress(server, "DllGetClassObject")));
    Check(getClassObject ? S_OK : E_NOINTERFACE, "finding DllGetClassObject");
    ComPtr<IClassFactory> factory;
    ComPtr<IFbInstanceData> store;
    Check(getClassObject(__uuidof(FbInstanceData), IID_PPV_ARGS(&factory)), "getting the class object");
    Check(factory->CreateInstance(nullptr, IID_PPV_ARGS(&store)), "creating the store object");
    return store;
}

class Session
{
public:
    Session(const Json& content, const wchar_t* path) : m_content(content), m_path(path) {}
    void Run();
    // The module lets go of the file when it is asked to open one that
    // cannot exist: under the new file, which is a file, not a folder.
    void LetGo()
    {
        m_root.Reset();
        if (m_manager)
        {
            ComPtr<IStorage> none;
            m_manager->OpenStorage(_bstr_t((m_path + L"\\none").c_str()), none.GetAddressOf());
        }
    }

private:
    _bstr_t CreateInstance(const Json& instance);
    void BurnInstance();
    void WriteElements(const _bstr_t& id, const Json& instance);

    const Json& m_content;
    std::wstring m_path;
    ComPtr<IFbInstanceData> m_store;
    ComPtr<IInstanceDataMgr> m_manager;
    ComPtr<IStorage> m_root;

public:
    std::vector<std::string> m_notes;
};

_bstr_t Session::CreateInstance(const Json& instance)
{
    const Json dtmJson = instance.value("dtm", Json::object());
    const Json commJson = instance.value("comm", Json::object());
    ComPtr<frame::DtmDescriptor> dtm = new frame::DtmDescriptor(
        Number<BYTE>(dtmJson, "category"), Number<LONG>(dtmJson, "classification"), Text(dtmJson, "device"),
        Text(dtmJson, "node"));
    dtm->application = Number<LONG>(dtmJson, "application");
    dtm->language = Number<LONG>(dtmJson, "language");
    ComPtr<frame::CommunicationDescriptor> comm =
        new frame::CommunicationDescriptor(Number<BYTE>(commJson, "category"), Text(commJson, "name"));
    BSTR id = nullptr;
    Check(m_store->Create(nullptr, dtm.Get(), comm.Get(), &id), "Create");
    return _bstr_t(id, false);
}

// Instance numbers not in use in the JSON are taken and given back, so that
// every instance keeps its number.
void Session::BurnInstance()
{
    const Json empty = {{"dtm", {{"category", 0}, {"classification", 0}, {"device", ""}, {"node", ""},
                                 {"application", 0}, {"language", 0}}},
                        {"comm", {{"category", 0}, {"name", ""}}}};
    Check(m_store->Delete(nullptr, CreateInstance(empty)), "Delete of an unused instance number");
}

// Parameters and groups in the order of their stream numbers, so that the
// module gives them the same numbers; a map entry without stream is made
// again by defining the element and deleting it.
void Session::WriteElements(const _bstr_t& id, const Json& instance)
{
    enum Kind
    {
        Parameter,
        Group,
        Deleted
    };
    // The lists are kept here: elements points into them.
    const Json lists[] = {instance.value("parameters", Json::array()), instance.value("groups", Json::array()),
                          instance.value("withoutStream", Json::array())};
    std::map<DWORD, std::pair<Kind, const Json*>> elements;
    for (Kind kind : {Parameter, Group, Deleted})
        for (const Json& element : lists[kind])
            Require(elements.emplace(Number<DWORD>(element, "stream"), std::make_pair(kind, &element)).second,
                    "two elements of instance " + Utf8(id) + " share a stream number");
    DWORD next = 0;
    for (const auto& numbered : elements)
    {
        const Json& element = *numbered.second.second;
        const std::string what = "instance " + Utf8(id) + " element " + element.value("name", Json()).dump();
        if (numbered.first != next++ && m_notes.empty())
            m_notes.push_back("instance " + Utf8(id) + ": stream numbers with gaps are given anew by the module");
        Kind kind = numbered.second.first;
        const bool deleted = kind == Deleted;
        if (deleted)
            kind = element.value("kind", std::string()) == "group" ? Group : Parameter;
        if (kind == Group)
        {
            std::vector<_bstr_t> members;
            for (const Json& member : element.value("members", Json::array()))
            {
                Json wrapped = Json::object();
                wrapped["member"] = member;
                members.push_back(Text(wrapped, "member"));
            }
            SAFEARRAY* list = NameList(members);
            const HRESULT hr = m_store->DefineGroup(nullptr, id, Text(element, "name"),
                                                    deleted ? 0 : Number<BYTE>(element, "groupId"), &list);
            SafeArrayDestroy(list);
            Check(hr, "DefineGroup of " + what);
            if (deleted)
                Check(m_store->DeleteGroup(nullptr, id, Text(element, "name")), "DeleteGroup of " + what);
            continue;
        }
        if (deleted)
        {
            ComPtr<frame::ParameterDescription> placeholder =
                new frame::ParameterDescription(Text(element, "name"), _variant_t());
            Check(m_store->WriteParameterInfo(nullptr, id, placeholder.Get()), "WriteParameterInfo of " + what);
            Check(m_store->DeleteParameter(nullptr, id, Text(element, "name")), "DeleteParameter of " + what);
            continue;
        }
        _variant_t value, defaultValue;
        std::string error;
        for (const auto& part : {std::make_pair("value", &value), std::make_pair("default", &defaultValue)})
        {
            const bool read = SUCCEEDED(ValueFromJson(element.value(part.first, Json()), *part.second, error));
            Require(read, what + " " + part.first + ": " + error);
        }
        const DWORD dataType = Number<DWORD>(element, "dataType");
        Require(dataType <= 0xFF, what + ": the data type must fit a byte");
        ComPtr<frame::ParameterDescription> parameter =
            new frame::ParameterDescription(Text(element, "name"), value, defaultValue, static_cast<BYTE>(dataType));
        parameter->index = Number<LONG>(element, "index");
        parameter->size = Number<LONG>(element, "size");
        parameter->objectType = Number<LONG>(element, "objectType");
        parameter->mandatory = Flag(element, "mandatory") ? VARIANT_TRUE : VARIANT_FALSE;
        parameter->isPrivate = Flag(element, "private") ? VARIANT_TRUE : VARIANT_FALSE;
        parameter->isProtected = Flag(element, "protected") ? VARIANT_TRUE : VARIANT_FALSE;
        parameter->locked = Flag(element, "locked") ? VARIANT_TRUE : VARIANT_FALSE;
        Check(m_store->WriteParameterInfo(nullptr, id, parameter.Get()), "WriteParameterInfo of " + what);
    }
}

void Session::Run()
{
    Require(m_content.is_object() && m_content.contains("instances") && m_content["instances"].is_array(),
            "the JSON needs an \"instances\" array");
    std::map<DWORD, const Json*> instances;
    for (const Json& instance : m_content["instances"])
    {
        const DWORD number = InstanceNumberOf(Text(instance, "id"));
        Require(number != 0, "instance id " + instance.value("id", Json()).dump() + " is not an instance number");
        Require(instances.emplace(number, &instance).second, "instance " + instance["id"].dump() + " appears twice");
    }
    m_store = LoadStore();
    Check(m_store.As(&m_manager), "IInstanceDataMgr");
    Check(m_manager->OpenStorage(_bstr_t(m_path.c_str()), m_root.GetAddressOf()), "OpenStorage");

    const Json admin = m_content.value("admin", Json::object());
    const DWORD highest = instances.empty() ? 0 : instances.rbegin()->first;
    const DWORD nextInstance = admin.is_object() ? admin.value("nextInstance", highest + 1) : highest + 1;
    for (DWORD number = 1; number < std::max(highest + 1, nextInstance); ++number)
    {
        auto found = instances.find(number);
        if (found == instances.end())
        {
            BurnInstance();
            continue;
        }
        const _bstr_t id = CreateInstance(*found->second);
        Require(InstanceNumberOf(id) == number,
                "the module gave instance " + Utf8(id) + " where " + std::to_string(number) + " was expected");
        WriteElements(id, *found->second);
    }
    // References once every instance exists, locks last: a lock must not stop
    // the writes before it.
    for (const auto& instance : instances)
        for (const Json& sub : instance.second->value("subInstances", Json::array()))
            Check(m_store->AddInstanceDataReference(nullptr, Text(*instance.second, "id"), Text(sub, "parameter"),
                                                    Text(sub, "instance")),
                  "AddInstanceDataReference from instance " + std::to_string(instance.first));
    for (const auto& instance : instances)
        for (DWORD lock = instance.second->value("lockCount", 0u); lock; --lock)
            Check(m_store->LockInstance(nullptr, Text(*instance.second, "id")), "LockInstance");
    Check(m_root->Commit(STGC_DEFAULT), "committing the file");
}
}  // namespace

HRESULT StoreImporter::Import(const Json& content, const wchar_t* path, std::string& error, std::vector<std::string>& notes)
{
    if (GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES)
        return error = "the output file exists already", HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
    Session session(content, path);
    HRESULT hr = S_OK;
    try
    {
        session.Run();
    }
    catch (const Refusal& refusal)
    {
        error = refusal.reason;
        hr = refusal.hr;
    }
    catch (const _com_error& failure)
    {
        error = "a value could not be copied (" + HresultText(failure.Error()) + ")";
        hr = failure.Error();
    }
    catch (const std::exception& failure)
    {
        error = failure.what();
        hr = E_INVALIDARG;
    }
    session.LetGo();
    if (FAILED(hr))
        DeleteFileW(path);
    notes = session.m_notes;
    return hr;
}
