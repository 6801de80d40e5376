#include "SafetySupport.h"
#include <olectl.h>
#include <cstdio>

namespace safety
{
const wchar_t* const kModelIds[3] = {L"1", L"2", L"3"};
const wchar_t* const kModelParameters[] = {L"i4", L"str", L"r8", L"date", L"flag", L"big", L"font", L"x", nullptr};
const wchar_t* const kModelGroups[] = {L"g1", L"g2", L"gb", nullptr};

namespace
{
std::vector<std::string> g_unknown;

std::string Narrow(BSTR text)
{
    return text ? static_cast<const char*>(_bstr_t(text)) : "<null>";
}

std::string Text(const VARIANT& value)
{
    const VARTYPE vt = V_VT(&value);
    std::string text = std::to_string(vt) + ":";
    if (vt == VT_DISPATCH || vt == VT_UNKNOWN)
        return text + (V_UNKNOWN(&value) ? "object" : "none");
    _variant_t converted;
    if (FAILED(VariantChangeType(&converted, const_cast<VARIANT*>(&value), VARIANT_ALPHABOOL, VT_BSTR)))
        return text + "?";
    return text + Narrow(V_BSTR(&converted));
}

// Out arrays are [in, out]: the store frees what it is given, so a stale
// pointer is never passed again.
void Drop(SAFEARRAY*& array)
{
    SafeArrayDestroy(array);
    array = nullptr;
}

std::string Names(SAFEARRAY* array)
{
    std::string text;
    for (const std::wstring& name : ReadBstrArray(array))
        text += std::string(name.begin(), name.end()) + ",";
    return text;
}

std::string Values(SAFEARRAY* array)
{
    std::string text;
    for (const _variant_t& value : ReadValueArray(array))
        text += Text(value) + ",";
    SafeArrayDestroy(array);
    return text;
}

// A read as its text: "!<hresult>" when it failed, else what render makes of it.
template <class Render>
std::string Read(const std::string& key, HRESULT hr, Render render)
{
    Note(hr, key);
    return FAILED(hr) ? "!" + Hex(hr) : render();
}

std::string Describe(IFdtDescriptor* descriptor)
{
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    BYTE category = 0, commCategory = 0;
    LONG classification = 0, application = 0, language = 0;
    _bstr_t device, node, name;
    if (FAILED(descriptor->get_m_dtm(dtm.GetAddressOf())) || FAILED(descriptor->get_m_communication(comm.GetAddressOf())))
        return "no descriptors";
    dtm->get_m_category(&category);
    dtm->get_m_classification(&classification);
    dtm->get_m_device(device.GetAddress());
    dtm->get_m_node(node.GetAddress());
    dtm->get_m_application(&application);
    dtm->get_m_language(&language);
    comm->get_m_category(&commCategory);
    comm->get_m_name(name.GetAddress());
    char text[96];
    snprintf(text, sizeof text, "%u %ld %ld %ld %u ", category, classification, application, language, commCategory);
    return text + Narrow(device) + " " + Narrow(node) + " " + Narrow(name);
}

std::string Describe(IFdtParameter* info)
{
    _bstr_t name;
    _variant_t value, defaultValue;
    LONG index = 0, size = 0, objectType = 0;
    BYTE dataType = 0;
    VARIANT_BOOL flags[4] = {};
    info->get_m_name(name.GetAddress());
    info->get_m_value(&value);
    info->get_m_defaultValue(&defaultValue);
    info->get_m_index(&index);
    info->get_m_dataType(&dataType);
    info->get_m_size(&size);
    info->get_m_objectType(&objectType);
    info->get_m_mandatory(&flags[0]);
    info->get_m_private(&flags[1]);
    info->get_m_protected(&flags[2]);
    info->get_m_locked(&flags[3]);
    char text[96];
    snprintf(text, sizeof text, " %ld %u %ld %ld %d%d%d%d", index, dataType, size, objectType, flags[0], flags[1],
             flags[2], flags[3]);
    return Narrow(name) + " " + Text(value) + " " + Text(defaultValue) + text;
}

std::string Reference(IUnknown* object)
{
    ComPtr<IFdtInstanceDataRef> reference;
    _bstr_t id, parameter;
    if (!object || FAILED(object->QueryInterface(IID_PPV_ARGS(&reference))))
        return "<none>";
    reference->get_m_instanceID(id.GetAddress());
    reference->get_m_parameterName(parameter.GetAddress());
    return Narrow(id) + "." + Narrow(parameter);
}

std::string References(SAFEARRAY* array)
{
    std::string text;
    LONG lower = 0, upper = -1;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    for (LONG i = lower; i <= upper; ++i)
    {
        ComPtr<IUnknown> element;
        SafeArrayGetElement(array, &i, element.GetAddressOf());
        text += Reference(element.Get()) + ",";
    }
    SafeArrayDestroy(array);
    return text;
}

// The names a list gives, together with the model's (which may still read
// when the list does not).
std::set<std::wstring> Union(SAFEARRAY* list, HRESULT hr, const wchar_t* const* model)
{
    std::set<std::wstring> names;
    if (SUCCEEDED(hr))
        for (const std::wstring& name : ReadBstrArray(list))
            names.insert(name);
    for (; *model; ++model)
        names.insert(*model);
    return names;
}

void TakeInstance(IFbInstanceData* store, const std::wstring& id, Snapshot& shot)
{
    const _bstr_t instance(id.c_str());
    const std::string prefix = std::string(id.begin(), id.end()) + "|";
    ComPtr<IFdtDescriptor> descriptor;
    HRESULT hr = store->ReadIdentification(nullptr, instance, descriptor.GetAddressOf());
    shot[prefix + "ident"] = Read(prefix + "ident", hr, [&] { return Describe(descriptor.Get()); });

    SAFEARRAY* list = nullptr;
    hr = store->GetAllParameters(nullptr, instance, &list);
    shot[prefix + "params"] = Read(prefix + "params", hr, [&] { return Names(list); });
    const std::set<std::wstring> parameters = Union(list, hr, kModelParameters);
    Drop(list);
    for (const std::wstring& name : parameters)
    {
        const std::string key = prefix + "p|" + std::string(name.begin(), name.end());
        ComPtr<IFdtParameter> info;
        hr = store->ReadParameterInfo(nullptr, instance, _bstr_t(name.c_str()), info.GetAddressOf());
        shot[key] = Read(key, hr, [&] { return Describe(info.Get()); });
        _variant_t value;
        hr = store->ReadParameter(nullptr, instance, _bstr_t(name.c_str()), &value);
        shot[key + "|value"] = Read(key, hr, [&] { return Text(value); });
    }
    if (SUCCEEDED(hr = store->GetAllParameters(nullptr, instance, &list)))
    {
        SAFEARRAY* values = nullptr;
        hr = store->ReadList(nullptr, instance, &list, &values);
        shot[prefix + "list"] = Read(prefix + "list", hr, [&] { return Values(values); });
    }

    hr = store->GetAllGroups(nullptr, instance, &list);
    const std::set<std::wstring> groups = Union(list, hr, kModelGroups);
    shot[prefix + "groups"] = Read(prefix + "groups", hr, [&] { return Names(list); });
    Drop(list);
    for (const std::wstring& name : groups)
    {
        const std::string key = prefix + "g|" + std::string(name.begin(), name.end());
        const _bstr_t group(name.c_str());
        unsigned char groupId = 0;
        SAFEARRAY* members = nullptr;
        SAFEARRAY* values = nullptr;
        hr = store->GetGroupInfo(nullptr, instance, group, &groupId);
        shot[key] = Read(key, hr, [&] { return std::to_string(groupId); });
        hr = store->GetGroup(nullptr, instance, group, &members);
        shot[key + "|members"] = Read(key, hr, [&] { return Names(members); });
        Drop(members);
        hr = store->ReadGroup(nullptr, instance, group, &values);
        shot[key + "|values"] = Read(key, hr, [&] { return Values(values); });
    }

    Drop(list);
    hr = store->GetSubInstanceData(nullptr, instance, &list);
    shot[prefix + "sub"] = Read(prefix + "sub", hr, [&] { return References(list); });
    ComPtr<IFdtInstanceDataRef> super;
    hr = store->GetSuperInstanceData(nullptr, instance, super.GetAddressOf());
    shot[prefix + "super"] = Read(prefix + "super", hr, [&] { return Reference(super.Get()); });
}
}  // namespace

bool KnownResult(HRESULT hr)
{
    static const HRESULT known[] = {
        S_OK, S_FALSE, E_FAIL, E_INVALIDARG, E_POINTER, E_UNEXPECTED, E_OUTOFMEMORY, E_NOINTERFACE,
        DISP_E_TYPEMISMATCH, DISP_E_OVERFLOW, DISP_E_BADVARTYPE,
        // The store's own results.
        static_cast<HRESULT>(0x80043004), static_cast<HRESULT>(0x80043005), static_cast<HRESULT>(0x80043006),
        static_cast<HRESULT>(0x80043007), static_cast<HRESULT>(0x80043008),
        // The compound file's.
        STG_E_FILENOTFOUND, STG_E_PATHNOTFOUND, STG_E_ACCESSDENIED, STG_E_INVALIDNAME, STG_E_FILEALREADYEXISTS,
        STG_E_DOCFILECORRUPT, STG_E_READFAULT, STG_E_WRITEFAULT, STG_E_INVALIDHEADER, STG_E_REVERTED,
        STG_E_INVALIDFUNCTION, STG_E_SHAREVIOLATION, STG_E_LOCKVIOLATION, STG_E_INSUFFICIENTMEMORY,
        STG_E_MEDIUMFULL, STG_E_INVALIDPARAMETER, STG_E_SEEKERROR, STG_E_INVALIDPOINTER, STG_E_UNKNOWN};
    for (HRESULT each : known)
        if (hr == each)
            return true;
    return false;
}

std::string Hex(HRESULT hr)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08lx", static_cast<unsigned long>(hr));
    return text;
}

HRESULT Note(HRESULT hr, const std::string& what)
{
    if (!KnownResult(hr))
        g_unknown.push_back(what + " gave " + Hex(hr));
    return hr;
}

std::vector<std::string> TakeUnknownResults()
{
    std::vector<std::string> unknown;
    unknown.swap(g_unknown);
    return unknown;
}

Snapshot Take(IFbInstanceData* store)
{
    Snapshot shot;
    SAFEARRAY* list = nullptr;
    const HRESULT hr = store->GetInstanceDataList(nullptr, &list);
    shot["|instances"] = Read("|instances", hr, [&] { return Names(list); });
    const wchar_t* const model[] = {kModelIds[0], kModelIds[1], kModelIds[2], nullptr};
    for (const std::wstring& id : Union(list, hr, model))
        TakeInstance(store, id, shot);
    SafeArrayDestroy(list);
    return shot;
}

void GiveUp(IInstanceDataMgr* manager)
{
    ComPtr<IStorage> none;
    manager->OpenStorage(_bstr_t((TestFilesDirectory() + L"no such folder\\x.stg").c_str()), none.GetAddressOf());
}

HRESULT OpenIn(IInstanceDataMgr* manager, const std::wstring& path, ComPtr<IStorage>& root)
{
    root.Reset();
    GiveUp(manager);
    return manager->OpenStorage(_bstr_t(path.c_str()), root.GetAddressOf());
}

const std::wstring& ModelFile()
{
    static std::wstring path;
    if (!path.empty())
        return path;
    path = TestFilesDirectory() + L"safety-model.stg";
    DeleteFileW(path.c_str());
    ComPtr<IFbInstanceData> store = CreateStore();
    ComPtr<IInstanceDataMgr> manager;
    ComPtr<IStorage> root;
    EXPECT_EQ(S_OK, store.As(&manager));
    EXPECT_EQ(S_OK, OpenIn(manager.Get(), path, root));
    for (const wchar_t* node : {L"north", L"south", L"east"})
    {
        ComPtr<TestDtmDescriptor> dtm = new TestDtmDescriptor;
        ComPtr<TestCommDescriptor> comm = new TestCommDescriptor;
        dtm->device = L"device";
        dtm->node = node;
        comm->name = node;
        _bstr_t id;
        EXPECT_EQ(S_OK, store->Create(nullptr, dtm.Get(), comm.Get(), id.GetAddress()));
    }
    FONTDESC font = {sizeof font, const_cast<LPOLESTR>(L"Courier New"), {{135000, 0}}, 700, ANSI_CHARSET, 0, 0, 0};
    ComPtr<IDispatch> object;
    EXPECT_EQ(S_OK, OleCreateFontIndirect(&font, IID_IDispatch, reinterpret_cast<void**>(object.GetAddressOf())));
    const struct
    {
        const wchar_t* id;
        const wchar_t* name;
        _variant_t value, defaultValue;
    } parameters[] = {
        {L"1", L"i4", _variant_t(5L), _variant_t(1L)},         {L"1", L"str", _variant_t(L"text"), _variant_t(L"")},
        {L"1", L"r8", _variant_t(2.5), _variant_t()},          {L"1", L"date", _variant_t(45000.5, VT_DATE), _variant_t()},
        {L"1", L"flag", _variant_t(true), _variant_t(false)}, {L"1", L"big", _variant_t(1LL << 40), _variant_t()},
        {L"1", L"font", _variant_t(object.Get()), _variant_t()}, {L"2", L"x", _variant_t(7L), _variant_t(L"seven")},
        {L"2", L"str", _variant_t(L"two"), _variant_t()},
    };
    for (const auto& parameter : parameters)
    {
        ComPtr<TestParameter> info = TestParameter::Make(parameter.name, parameter.value, parameter.defaultValue);
        info->index = 3;
        info->mandatory = VARIANT_TRUE;
        EXPECT_EQ(S_OK, store->WriteParameterInfo(nullptr, _bstr_t(parameter.id), info.Get()));
    }
    const struct
    {
        const wchar_t* id;
        const wchar_t* name;
        BYTE groupId;
        std::vector<std::wstring> members;
    } groups[] = {{L"1", L"g1", 3, {L"i4", L"str"}}, {L"1", L"g2", 4, {L"r8"}}, {L"2", L"gb", 5, {L"x", L"str"}}};
    for (const auto& group : groups)
    {
        SAFEARRAY* members = MakeBstrArray(group.members);
        EXPECT_EQ(S_OK, store->DefineGroup(nullptr, _bstr_t(group.id), _bstr_t(group.name), group.groupId, &members));
        Drop(members);
    }
    SAFEARRAY* names = MakeBstrArray({L"i4"});
    EXPECT_EQ(S_OK, store->LockParameter(nullptr, _bstr_t(L"1"), &names));
    EXPECT_EQ(S_OK, store->ProtectParameter(nullptr, _bstr_t(L"1"), &names));
    SafeArrayDestroy(names);
    EXPECT_EQ(S_OK, store->AddInstanceDataReference(nullptr, _bstr_t(L"1"), _bstr_t(L"i4"), _bstr_t(L"2")));
    EXPECT_EQ(S_OK, store->AddInstanceDataReference(nullptr, _bstr_t(L"1"), _bstr_t(L"str"), _bstr_t(L"3")));
    EXPECT_EQ(S_OK, store->LockInstance(nullptr, _bstr_t(L"3")));
    EXPECT_EQ(S_OK, root->Commit(STGC_DEFAULT));
    root.Reset();
    GiveUp(manager.Get());
    return path;
}
}  // namespace safety
