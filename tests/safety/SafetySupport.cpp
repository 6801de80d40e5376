#include "SafetySupport.h"
#include <olectl.h>
#include <functional>
#include <set>

namespace
{
void Put(Snapshot& shot, const std::string& key, HRESULT hr, const std::function<std::string()>& render)
{
    shot[key] = SUCCEEDED(hr) ? render() : (KnownResult(hr) ? "!" : "!?") + Hex(hr);
}

// The names a list gives together with the model's (which may still read when the list does not).
std::set<std::wstring> Union(SAFEARRAY* list, HRESULT hr, std::initializer_list<const wchar_t*> model)
{
    std::set<std::wstring> names(model.begin(), model.end());
    for (const std::wstring& name : SUCCEEDED(hr) ? ReadBstrArray(list) : Names())
        names.insert(name);
    return names;
}

void TakeInstance(IFbInstanceData* store, const std::wstring& id, Snapshot& shot)
{
    const _bstr_t instance(id.c_str());
    const std::string prefix = Narrow(id) + "|";
    ComPtr<IFdtDescriptor> descriptor;
    Put(shot, prefix + "ident", store->ReadIdentification(nullptr, instance, &descriptor),
        [&] { return Describe(descriptor.Get()); });

    Array list, listed;
    HRESULT hr = store->GetAllParameters(nullptr, instance, &list.p);
    Put(shot, prefix + "params", hr, [&] { return Items(list.p); });
    for (const std::wstring& name : Union(list.p, hr, {L"i4", L"str", L"r8", L"date", L"flag", L"big", L"font", L"x"}))
    {
        const std::string key = prefix + "p|" + Narrow(name);
        ComPtr<IFdtParameter> info;
        _variant_t value;
        Put(shot, key, store->ReadParameterInfo(nullptr, instance, B(name.c_str()), &info),
            [&] { return Describe(info.Get()); });
        Put(shot, key + "|value", store->ReadParameter(nullptr, instance, B(name.c_str()), &value),
            [&] { return ValueText(value); });
    }
    if (SUCCEEDED(hr))
        Put(shot, prefix + "list", store->ReadList(nullptr, instance, &list.p, &listed.p), [&] { return Items(listed.p); });

    Array groups;
    hr = store->GetAllGroups(nullptr, instance, &groups.p);
    Put(shot, prefix + "groups", hr, [&] { return Items(groups.p); });
    for (const std::wstring& name : Union(groups.p, hr, {L"g1", L"g2", L"gb"}))
    {
        const std::string key = prefix + "g|" + Narrow(name);
        const _bstr_t group(name.c_str());
        unsigned char groupId = 0;
        Array members, values;
        Put(shot, key, store->GetGroupInfo(nullptr, instance, group, &groupId), [&] { return std::to_string(groupId); });
        Put(shot, key + "|members", store->GetGroup(nullptr, instance, group, &members.p), [&] { return Items(members.p); });
        Put(shot, key + "|values", store->ReadGroup(nullptr, instance, group, &values.p), [&] { return Items(values.p); });
    }

    Array sub;
    ComPtr<IFdtInstanceDataRef> super;
    Put(shot, prefix + "sub", store->GetSubInstanceData(nullptr, instance, &sub.p), [&] { return Items(sub.p); });
    Put(shot, prefix + "super", store->GetSuperInstanceData(nullptr, instance, &super),
        [&] { return Describe(super.Get()); });
}
}  // namespace

bool KnownResult(HRESULT hr)
{
    static const HRESULT known[] = {
        S_OK, S_FALSE, E_FAIL, E_INVALIDARG, E_POINTER, E_UNEXPECTED, E_OUTOFMEMORY, E_NOINTERFACE, DISP_E_TYPEMISMATCH,
        DISP_E_OVERFLOW, DISP_E_BADVARTYPE,
        // The store's own results.
        static_cast<HRESULT>(0x80043004), static_cast<HRESULT>(0x80043005), static_cast<HRESULT>(0x80043006),
        static_cast<HRESULT>(0x80043007), static_cast<HRESULT>(0x80043008),
        // The compound file's.
        STG_E_FILENOTFOUND, STG_E_PATHNOTFOUND, STG_E_ACCESSDENIED, STG_E_INVALIDNAME, STG_E_FILEALREADYEXISTS,
        STG_E_DOCFILECORRUPT, STG_E_READFAULT, STG_E_WRITEFAULT, STG_E_INVALIDHEADER, STG_E_REVERTED,
        STG_E_INVALIDFUNCTION, STG_E_SHAREVIOLATION, STG_E_LOCKVIOLATION, STG_E_INSUFFICIENTMEMORY, STG_E_MEDIUMFULL,
        STG_E_INVALIDPARAMETER, STG_E_SEEKERROR, STG_E_INVALIDPOINTER, STG_E_UNKNOWN};
    return std::find(std::begin(known), std::end(known), hr) != std::end(known);
}

Snapshot Take(IFbInstanceData* store)
{
    Snapshot shot;
    Array list;
    const HRESULT hr = store->GetInstanceDataList(nullptr, &list.p);
    Put(shot, "|instances", hr, [&] { return Items(list.p); });
    for (const std::wstring& id : Union(list.p, hr, {L"1", L"2", L"3"}))
        TakeInstance(store, id, shot);
    return shot;
}

HRESULT CreateIn(IFbInstanceData* store, _bstr_t* id, const wchar_t* node)
{
    ComPtr<IFdtDtmDescriptor> dtm = new DtmDescriptor(1, 0, node ? L"device" : nullptr, node);
    ComPtr<IFdtCommunicationDescriptor> comm = new CommunicationDescriptor(1, node);
    _bstr_t made;
    return store->Create(nullptr, dtm.Get(), comm.Get(), (id ? id : &made)->GetAddress());
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
    if (!store || FAILED(store.As(&manager)) || FAILED(manager->OpenStorage(B(path.c_str()), &root)))
    {
        ADD_FAILURE() << "no store for the model file";
        return path;
    }
    for (const wchar_t* node : {L"north", L"south", L"east"})
        EXPECT_EQ(S_OK, CreateIn(store.Get(), nullptr, node));
    FONTDESC font = {sizeof font, const_cast<LPOLESTR>(L"Courier New"), {{135000, 0}}, 700, ANSI_CHARSET, 0, 0, 0};
    ComPtr<IDispatch> object;
    EXPECT_EQ(S_OK, OleCreateFontIndirect(&font, IID_PPV_ARGS(&object)));
    const struct
    {
        const wchar_t *id, *name;
        _variant_t value, defaultValue;
    } parameters[] = {
        {L"1", L"i4", 5L, 1L},           {L"1", L"str", L"text", L""},     {L"1", L"r8", 2.5, {}},
        {L"1", L"date", {45000.5, VT_DATE}, {}}, {L"1", L"flag", true, false}, {L"1", L"big", 1LL << 40, {}},
        {L"1", L"font", object.Get(), {}}, {L"2", L"x", 7L, L"seven"},     {L"2", L"str", L"two", {}},
    };
    for (const auto& parameter : parameters)
    {
        ComPtr<ParameterDescription> info =
            new ParameterDescription(parameter.name, parameter.value, parameter.defaultValue);
        info->index = 3;
        info->mandatory = VARIANT_TRUE;
        EXPECT_EQ(S_OK, store->WriteParameterInfo(nullptr, B(parameter.id), info.Get()));
    }
    EXPECT_EQ(S_OK, GroupIn(store.Get(), L"1", L"g1", 3, {L"i4", L"str"}));
    EXPECT_EQ(S_OK, GroupIn(store.Get(), L"1", L"g2", 4, {L"r8"}));
    EXPECT_EQ(S_OK, GroupIn(store.Get(), L"2", L"gb", 5, {L"x", L"str"}));
    Array locked{MakeBstrArray({L"i4"})};
    EXPECT_EQ(S_OK, store->LockParameter(nullptr, B(L"1"), &locked.p));
    EXPECT_EQ(S_OK, store->ProtectParameter(nullptr, B(L"1"), &locked.p));
    EXPECT_EQ(S_OK, store->AddInstanceDataReference(nullptr, B(L"1"), B(L"i4"), B(L"2")));
    EXPECT_EQ(S_OK, store->AddInstanceDataReference(nullptr, B(L"1"), B(L"str"), B(L"3")));
    EXPECT_EQ(S_OK, store->LockInstance(nullptr, B(L"3")));
    EXPECT_EQ(S_OK, root->Commit(STGC_DEFAULT));
    return path;   // the store gives the file up as it goes
}
