// DemoFrame: a small frame application session on an instance data store.
//
//     DemoFrame.exe [store file]        (default: demo.stg in the current folder)
//
// It loads InstanceData.dll from its own folder through DllGetClassObject
// (no registration of the server needed), opens or creates the store file,
// shows what the file holds, then creates instances, duplicates, locks and
// links them, shows the store again and commits the root storage, as a frame
// does before it closes a project. Each part of the session is one function.
#include <windows.h>
#include <ole2.h>
#include <comutil.h>
#include <wrl/client.h>
#include <cstdio>
#include <string>
#include <vector>
#include "FdtInterfaces.h"
#include "InstanceDataLib.h"
#include "FrameObjects.h"

using Microsoft::WRL::ComPtr;
using frame::CommunicationDescriptor;
using frame::DtmDescriptor;
using frame::ParameterDescription;

namespace
{
// -------------------------------------------------------------------- session

// Ends the session with a message when a step fails.
struct Failure
{
    const char* step;
    HRESULT hr;
};

void Check(HRESULT hr, const char* step)
{
    if (FAILED(hr))
        throw Failure{step, hr};
}

struct Session
{
    std::wstring path;
    ComPtr<IFbInstanceData> store;
    ComPtr<IInstanceDataMgr> manager;
    ComPtr<IStorage> root;   // the frame decides when the file is committed
};

std::wstring ProgramDirectory()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring full(path, length);
    return full.substr(0, full.find_last_of(L"\\/") + 1);
}

std::string Narrow(const wchar_t* text)
{
    return text ? std::string(_bstr_t(text)) : std::string();
}

// The frame's machine has the FDT interfaces registered; the demo registers
// both type libraries from its own folder so that it runs anywhere.
void RegisterTypeLibraries(const std::wstring& directory)
{
    for (const wchar_t* file : {L"FdtInterfaces.tlb", L"InstanceData.tlb"})
    {
        ITypeLib* library = nullptr;
        Check(LoadTypeLibEx((directory + file).c_str(), REGKIND_REGISTER, &library), "register type library");
        library->Release();
    }
}

// The store object straight from the server's DllGetClassObject.
ComPtr<IFbInstanceData> LoadStore(const std::wstring& directory)
{
    const HMODULE server = LoadLibraryW((directory + L"InstanceData.dll").c_str());
    Check(server ? S_OK : HRESULT_FROM_WIN32(GetLastError()), "load InstanceData.dll");
    typedef HRESULT(WINAPI * GetClassObject)(REFCLSID, REFIID, void**);
    const auto getClassObject = reinterpret_cast<GetClassObject>(
        reinterpret_cast<void (*)()>(GetProcAddress(server, "DllGetClassObject")));
    Check(getClassObject ? S_OK : E_NOINTERFACE, "find DllGetClassObject");
    ComPtr<IClassFactory> factory;
    ComPtr<IFbInstanceData> store;
    Check(getClassObject(__uuidof(FbInstanceData), IID_PPV_ARGS(&factory)), "get the class object");
    Check(factory->CreateInstance(nullptr, IID_PPV_ARGS(&store)), "create the store object");
    return store;
}

void OpenStoreFile(Session& session)
{
    Check(session.store.As(&session.manager), "query IInstanceDataMgr");
    Check(session.manager->OpenStorage(_bstr_t(session.path.c_str()), session.root.GetAddressOf()), "open the store");
    std::printf("Store file: %s\n", Narrow(session.path.c_str()).c_str());
}

std::vector<_bstr_t> InstanceIds(Session& session)
{
    SAFEARRAY* list = nullptr;
    Check(session.store->GetInstanceDataList(nullptr, &list), "list the instances");
    std::vector<_bstr_t> ids;
    BSTR* elements = nullptr;
    Check(SafeArrayAccessData(list, reinterpret_cast<void**>(&elements)), "read the instance list");
    for (ULONG i = 0; i < list->rgsabound[0].cElements; ++i)
        ids.emplace_back(elements[i]);
    SafeArrayUnaccessData(list);
    SafeArrayDestroy(list);
    return ids;
}

// The interface shows a lock count only by refusing to unlock below 0: the
// demo counts the unlocks that succeed and locks as often again.
int LockCount(Session& session, const _bstr_t& id)
{
    int count = 0;
    while (session.store->UnlockInstance(nullptr, id) == S_OK)
        ++count;
    for (int i = 0; i < count; ++i)
        Check(session.store->LockInstance(nullptr, id), "lock again");
    return count;
}

std::string ReferenceText(IFdtInstanceDataRef* reference)
{
    _bstr_t id, parameter;
    Check(reference->get_m_instanceID(id.GetAddress()), "read a reference");
    Check(reference->get_m_parameterName(parameter.GetAddress()), "read a reference");
    return id.length() ? Narrow(id) + " through \"" + Narrow(parameter) + "\"" : "none";
}

// ------------------------------------------------------------------- sections

void ShowIdentification(Session& session, const _bstr_t& id)
{
    ComPtr<IFdtDescriptor> descriptor;
    ComPtr<IFdtDtmDescriptor> dtm;
    ComPtr<IFdtCommunicationDescriptor> comm;
    ComPtr<IFdtInstanceDataDescriptor> service;
    Check(session.store->ReadIdentification(nullptr, id, descriptor.GetAddressOf()), "identify");
    Check(descriptor->get_m_dtm(dtm.GetAddressOf()), "identify");
    Check(descriptor->get_m_communication(comm.GetAddressOf()), "identify");
    Check(descriptor->get_m_instanceData(service.GetAddressOf()), "identify");
    BYTE category = 0, commCategory = 0;
    LONG classification = 0, application = 0, language = 0;
    _bstr_t device, node, commName, serviceName;
    dtm->get_m_category(&category);
    dtm->get_m_classification(&classification);
    dtm->get_m_device(device.GetAddress());
    dtm->get_m_node(node.GetAddress());
    dtm->get_m_application(&application);
    dtm->get_m_language(&language);
    comm->get_m_category(&commCategory);
    comm->get_m_name(commName.GetAddress());
    service->get_m_name(serviceName.GetAddress());
    std::printf("    DTM: category %u, classification %ld, device \"%s\", node \"%s\", application 0x%08lx, "
                "language 0x%04lx\n",
                category, classification, Narrow(device).c_str(), Narrow(node).c_str(),
                static_cast<unsigned long>(application), static_cast<unsigned long>(language));
    std::printf("    communication: category %u, \"%s\"; kept by \"%s\"\n", commCategory, Narrow(commName).c_str(),
                Narrow(serviceName).c_str());
}

void ShowReferences(Session& session, const _bstr_t& id)
{
    ComPtr<IFdtInstanceDataRef> super;
    Check(session.store->GetSuperInstanceData(nullptr, id, super.GetAddressOf()), "read the super reference");
    std::printf("    super instance: %s\n", ReferenceText(super.Get()).c_str());
    SAFEARRAY* subs = nullptr;
    Check(session.store->GetSubInstanceData(nullptr, id, &subs), "read the sub-instances");
    IUnknown** elements = nullptr;
    Check(SafeArrayAccessData(subs, reinterpret_cast<void**>(&elements)), "read the sub-instances");
    std::printf("    sub-instances:");
    for (ULONG i = 0; i < subs->rgsabound[0].cElements; ++i)
    {
        ComPtr<IFdtInstanceDataRef> reference;
        if (elements[i] && SUCCEEDED(elements[i]->QueryInterface(IID_PPV_ARGS(&reference))))
            std::printf("%s %s", i ? "," : "", ReferenceText(reference.Get()).c_str());
    }
    std::printf("%s\n", subs->rgsabound[0].cElements ? "" : " none");
    SafeArrayUnaccessData(subs);
    SafeArrayDestroy(subs);
}

// Every instance with its descriptors, lock count and references.
void ShowStore(Session& session, const char* title)
{
    const std::vector<_bstr_t> ids = InstanceIds(session);
    std::printf("\n%s: %u instance(s)\n", title, static_cast<unsigned>(ids.size()));
    for (const _bstr_t& id : ids)
    {
        std::printf("  instance %s, %d lock(s)\n", Narrow(id).c_str(), LockCount(session, id));
        ShowIdentification(session, id);
        ShowReferences(session, id);
    }
}

_bstr_t CreateInstance(Session& session, IFdtDtmDescriptor* dtm, IFdtCommunicationDescriptor* comm)
{
    BSTR id = nullptr;
    Check(session.store->Create(nullptr, dtm, comm, &id), "create an instance");
    return _bstr_t(id, false);
}

// A gateway with two devices beneath it, each with the frame's own descriptors.
std::vector<_bstr_t> CreateInstances(Session& session)
{
    std::printf("\nCreating a gateway and two devices\n");
    struct Plan
    {
        BYTE category;
        LONG classification;
        const wchar_t* device;
        const wchar_t* node;
        BYTE commCategory;
        const wchar_t* protocol;
    };
    const Plan plans[] = {{2, 1, L"Gateway GW-8", L"Line 1", 1, L"Ethernet"},
                          {1, 3, L"Pressure PT-300", L"Tank 4", 2, L"HART"},
                          {1, 5, L"Valve V-12", L"Tank 4", 2, L"HART"}};
    std::vector<_bstr_t> ids;
    for (const Plan& plan : plans)
    {
        ComPtr<DtmDescriptor> dtm = new DtmDescriptor(plan.category, plan.classification, plan.device, plan.node);
        ComPtr<CommunicationDescriptor> comm = new CommunicationDescriptor(plan.commCategory, plan.protocol);
        dtm->language = 0x407;
        ids.push_back(CreateInstance(session, dtm.Get(), comm.Get()));
        std::printf("  created %s: %s\n", Narrow(ids.back()).c_str(), Narrow(plan.device).c_str());
    }
    return ids;
}

// A copy of the first device, and locks on the gateway and the copy.
_bstr_t DuplicateAndLock(Session& session, const std::vector<_bstr_t>& ids)
{
    BSTR copy = nullptr;
    Check(session.store->Duplicate(nullptr, ids[1], &copy), "duplicate");
    _bstr_t copyId(copy, false);
    std::printf("  duplicated %s as %s\n", Narrow(ids[1]).c_str(), Narrow(copyId).c_str());
    Check(session.store->LockInstance(nullptr, ids[0]), "lock");
    Check(session.store->LockInstance(nullptr, copyId), "lock");
    Check(session.store->LockInstance(nullptr, copyId), "lock");
    std::printf("  locked %s once and %s twice\n", Narrow(ids[0]).c_str(), Narrow(copyId).c_str());
    return copyId;
}

// The gateway refers to each device through one of its channel parameters.
void LinkInstances(Session& session, const std::vector<_bstr_t>& devices, const _bstr_t& gateway)
{
    int channel = 1;
    for (const _bstr_t& device : devices)
    {
        const _bstr_t parameter(("Channel" + std::to_string(channel++)).c_str());
        Check(session.store->AddInstanceDataReference(nullptr, gateway, parameter, device), "add a reference");
        std::printf("  linked %s -> %s through \"%s\"\n", Narrow(gateway).c_str(), Narrow(device).c_str(),
                    Narrow(parameter).c_str());
    }
}

// A value as text, with its VARTYPE.
std::string ValueText(const VARIANT& value)
{
    _variant_t text;
    const bool shown = SUCCEEDED(VariantChangeType(&text, const_cast<VARIANT*>(&value), 0, VT_BSTR));
    return (shown ? "\"" + Narrow(V_BSTR(&text)) + "\"" : std::string("(no text)")) + " (VARTYPE " +
           std::to_string(V_VT(&value)) + ")";
}

// A list of names for the list, flag and group operations.
SAFEARRAY* NameList(std::initializer_list<const wchar_t*> names)
{
    SAFEARRAY* list = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(names.size()));
    Check(list ? S_OK : E_OUTOFMEMORY, "make a name list");
    LONG index = 0;
    for (const wchar_t* name : names)
    {
        Check(SafeArrayPutElement(list, &index, static_cast<BSTR>(_bstr_t(name))), "make a name list");
        ++index;
    }
    return list;
}

SAFEARRAY* ValueList(std::initializer_list<_variant_t> values)
{
    SAFEARRAY* list = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
    Check(list ? S_OK : E_OUTOFMEMORY, "make a value list");
    LONG index = 0;
    for (const _variant_t& value : values)
    {
        Check(SafeArrayPutElement(list, &index, const_cast<_variant_t*>(&value)), "make a value list");
        ++index;
    }
    return list;
}

void ShowValues(const char* title, SAFEARRAY* values)
{
    VARIANT* elements = nullptr;
    Check(SafeArrayAccessData(values, reinterpret_cast<void**>(&elements)), "read a value list");
    std::printf("  %s:", title);
    for (ULONG i = 0; i < values->rgsabound[0].cElements; ++i)
        std::printf(" %s", ValueText(elements[i]).c_str());
    std::printf("\n");
    SafeArrayUnaccessData(values);
}

// Every parameter of an instance with its value, default value and attributes.
void ShowParameters(Session& session, const _bstr_t& id)
{
    SAFEARRAY* names = nullptr;
    Check(session.store->GetAllParameters(nullptr, id, &names), "list the parameters");
    BSTR* elements = nullptr;
    Check(SafeArrayAccessData(names, reinterpret_cast<void**>(&elements)), "list the parameters");
    for (ULONG i = 0; i < names->rgsabound[0].cElements; ++i)
    {
        ComPtr<IFdtParameter> info;
        Check(session.store->ReadParameterInfo(nullptr, id, elements[i], info.GetAddressOf()), "read a parameter");
        _variant_t value, defaultValue;
        BYTE dataType = 0;
        VARIANT_BOOL mandatory = 0, isPrivate = 0, isProtected = 0, locked = 0;
        info->get_m_value(&value);
        info->get_m_defaultValue(&defaultValue);
        info->get_m_dataType(&dataType);
        info->get_m_mandatory(&mandatory);
        info->get_m_private(&isPrivate);
        info->get_m_protected(&isProtected);
        info->get_m_locked(&locked);
        std::printf("    %-14s = %s, default %s, data type %u%s%s%s%s\n", Narrow(elements[i]).c_str(),
                    ValueText(value).c_str(), ValueText(defaultValue).c_str(), dataType,
                    mandatory ? ", mandatory" : "", isPrivate ? ", private" : "", isProtected ? ", protected" : "",
                    locked ? ", locked" : "");
    }
    SafeArrayUnaccessData(names);
    SafeArrayDestroy(names);
}

// Parameters of several types on one device, written and read singly and as
// lists, one of them locked, and a group read and written as a whole.
void ParametersAndGroups(Session& session, const _bstr_t& device)
{
    std::printf("\nParameters and groups of instance %s\n", Narrow(device).c_str());
    const struct
    {
        const wchar_t* name;
        _variant_t value;
        _variant_t defaultValue;
        BYTE dataType;
    } plans[] = {{L"UpperRange", _variant_t(250.0), _variant_t(100.0), 5},
                 {L"Unit", _variant_t(L"bar"), _variant_t(L"bar"), 8},
                 {L"Damping", _variant_t(2L), _variant_t(0L), 3},
                 {L"Alarm", _variant_t(true), _variant_t(false), 11}};
    for (const auto& plan : plans)
    {
        ComPtr<ParameterDescription> description =
            new ParameterDescription(plan.name, plan.value, plan.defaultValue, plan.dataType);
        description->mandatory = plan.dataType == 5 ? VARIANT_TRUE : VARIANT_FALSE;
        Check(session.store->WriteParameterInfo(nullptr, device, description.Get()), "define a parameter");
    }
    std::printf("  defined UpperRange, Unit, Damping and Alarm\n");

    // The stored VARTYPE wins: the text "5" is stored as the number 5.
    Check(session.store->WriteParameter(nullptr, device, _bstr_t(L"Damping"), _variant_t(L"5")), "write");
    _variant_t damping;
    Check(session.store->ReadParameter(nullptr, device, _bstr_t(L"Damping"), &damping), "read");
    std::printf("  wrote Damping as text \"5\", read back %s\n", ValueText(damping).c_str());

    SAFEARRAY* names = NameList({L"UpperRange", L"Unit", L"Alarm"});
    SAFEARRAY* values = ValueList({_variant_t(300.0), _variant_t(L"psi"), _variant_t(false)});
    Check(session.store->WriteList(nullptr, device, &names, &values), "write a list");
    SafeArrayDestroy(values);
    values = nullptr;
    Check(session.store->ReadList(nullptr, device, &names, &values), "read a list");
    ShowValues("list UpperRange, Unit, Alarm", values);
    SafeArrayDestroy(values);
    SafeArrayDestroy(names);

    names = NameList({L"UpperRange"});
    Check(session.store->LockParameter(nullptr, device, &names), "lock a parameter");
    SafeArrayDestroy(names);
    std::printf("  locked UpperRange\n");

    names = NameList({L"UpperRange", L"Unit"});
    Check(session.store->DefineGroup(nullptr, device, _bstr_t(L"Display"), 3, &names), "define a group");
    SafeArrayDestroy(names);
    values = ValueList({_variant_t(static_cast<short>(400)), _variant_t(L"kPa")});
    Check(session.store->WriteGroup(nullptr, device, _bstr_t(L"Display"), &values), "write a group");
    SafeArrayDestroy(values);
    values = nullptr;
    Check(session.store->ReadGroup(nullptr, device, _bstr_t(L"Display"), &values), "read a group");
    BYTE groupId = 0;
    Check(session.store->GetGroupInfo(nullptr, device, _bstr_t(L"Display"), &groupId), "read a group");
    std::printf("  group Display (identifier %u) written with 400 and \"kPa\"\n", groupId);
    ShowValues("group Display", values);
    SafeArrayDestroy(values);
    ShowParameters(session, device);
}

void CommitStore(Session& session)
{
    Check(session.root->Commit(STGC_DEFAULT), "commit the root storage");
    std::printf("\nRoot storage committed.\n");
}

int Run(const std::wstring& path)
{
    const std::wstring directory = ProgramDirectory();
    Session session;
    session.path = path;
    RegisterTypeLibraries(directory);
    session.store = LoadStore(directory);
    OpenStoreFile(session);
    ShowStore(session, "Store as found");

    const std::vector<_bstr_t> ids = CreateInstances(session);
    const _bstr_t copy = DuplicateAndLock(session, ids);
    LinkInstances(session, {ids[1], ids[2], copy}, ids[0]);
    ParametersAndGroups(session, ids[1]);
    ShowStore(session, "Store now");
    CommitStore(session);
    return 0;
}

std::wstring StorePath(int argc, char** argv)
{
    const std::wstring given = argc > 1 ? std::wstring(_bstr_t(argv[1])) : std::wstring(L"demo.stg");
    wchar_t full[MAX_PATH];
    const DWORD length = GetFullPathNameW(given.c_str(), MAX_PATH, full, nullptr);
    return length && length < MAX_PATH ? std::wstring(full, length) : given;
}
}  // namespace

int main(int argc, char** argv)
{
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 2;
    int result = 1;
    try
    {
        result = Run(StorePath(argc, argv));
    }
    catch (const Failure& failure)
    {
        std::fprintf(stderr, "DemoFrame: %s failed: 0x%08lx\n", failure.step,
                     static_cast<unsigned long>(failure.hr));
    }
    catch (const _com_error& error)
    {
        std::fprintf(stderr, "DemoFrame: 0x%08lx\n", static_cast<unsigned long>(error.Error()));
    }
    CoUninitialize();
    return result;
}
