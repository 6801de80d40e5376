// Self-registration of InstanceData.dll, the launch of FdtEnlist, and the
// store's Register and Unregister through the registration component. The
// registry is read back with the registry API.
#include <gtest/gtest.h>
#include <fstream>
#include <memory>
#include <regex>
#include "FdtCommon/FdtExtensions.h"
#include "RegistrySnapshot.h"

using namespace registry;

namespace
{
const std::string kClsid = "{dccef494-6108-11d3-b23d-00c04f5124bf}";
const std::string kClassKey = "CLSID\\" + kClsid;
const std::string kProgId = "Korvo.VQ.InstanceData.FbInstanceData.1";
const std::string kVersionIndependentProgId = "Korvo.VQ.InstanceData.FbInstanceData";
const std::string kTypeLibId = "{dccef493-6108-11d3-b23d-00c04f5124bf}";
const std::string kTypeLibKey = "TypeLib\\" + kTypeLibId;
const std::string kClassId = "{DCCEF494-6108-11D3-B23D-00C04F5124BF}";
const std::string kModuleListEntry = "Software\\Korvo\\FDT\\Modules\\" + kClassId;

std::string ModulePath(HMODULE module)
{
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module, path, MAX_PATH);
    return path;
}

// DllRegisterServer or DllUnregisterServer of a module.
HRESULT CallExport(const char* name, HMODULE module = ServerModule::Handle())
{
    const auto function = reinterpret_cast<HRESULT(WINAPI*)()>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    return function ? function() : E_NOINTERFACE;
}

// What the server's script makes of the class key for the module at path.
Lines ExpectedClassKey(const std::string& path)
{
    return {"", StringValue("", nullptr, "FbInstanceData Class"), "ProgID", StringValue("ProgID", nullptr, kProgId),
            "VersionIndependentProgID", StringValue("VersionIndependentProgID", nullptr, kVersionIndependentProgId),
            "Programmable", "InprocServer32", StringValue("InprocServer32", nullptr, path),
            StringValue("InprocServer32", "ThreadingModel", "Apartment"), "TypeLib",
            StringValue("TypeLib", nullptr, kTypeLibId)};
}

std::string ReadModuleList(const char* name) { return ReadString(HKEY_LOCAL_MACHINE, kModuleListEntry, name); }

// An environment variable of this process (and so of the FdtEnlist it
// starts), removed again at the end of the scope.
struct ScopedEnvironment
{
    ScopedEnvironment(const wchar_t* name, const std::wstring& value) : name(name)
    {
        SetEnvironmentVariableW(name, value.c_str());
    }
    ~ScopedEnvironment() { SetEnvironmentVariableW(name, nullptr); }
    const wchar_t* name;
};

// The command lines that FdtEnlist logged ("args <command line>").
std::vector<std::string> Arguments(const std::wstring& log)
{
    std::vector<std::string> entries;
    std::ifstream in(log.c_str());
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, 5, "args ") == 0)
            entries.push_back(line.substr(5));
    return entries;
}

// The stand-in registration component, registered while it lives.
struct RegistrationComponent
{
    RegistrationComponent() { EXPECT_EQ(S_OK, CallExport("DllRegisterServer", module)); }
    ~RegistrationComponent() { CallExport("DllUnregisterServer", module), FreeLibrary(module); }
    const HMODULE module = LoadLibraryW((ProgramDirectory() + L"FdtRegisterComp.dll").c_str());
};

// Leaves no trace of the server's registration and gives the type
// libraries back the registration that the test program started with.
void RemoveServerRegistration()
{
    for (const std::string& key : {kClassKey, kProgId, kVersionIndependentProgId, kTypeLibKey})
        RegDeleteTreeA(HKEY_CLASSES_ROOT, key.c_str());
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, kModuleListEntry.c_str());
    for (const wchar_t* file : {L"FdtInterfaces.tlb", L"InstanceData.tlb"})
    {
        ITypeLib* library = nullptr;
        if (SUCCEEDED(LoadTypeLibEx((ProgramDirectory() + file).c_str(), REGKIND_REGISTER, &library)))
            library->Release();
    }
}

class Registration : public testing::Test
{
protected:
    void SetUp() override { RemoveServerRegistration(); }
    void TearDown() override { RemoveServerRegistration(); }

    const std::string m_path = ModulePath(ServerModule::Handle());
};

TEST_F(Registration, RegisterWritesExactlyTheTableAndAgainDropsStaleEntries)
{
    RegistrationComponent component;
    ASSERT_EQ(S_OK, CallExport("DllRegisterServer"));

    EXPECT_EQ(ExpectedClassKey(m_path), Dump(HKEY_CLASSES_ROOT, kClassKey));
    EXPECT_EQ(kClsid, ReadString(HKEY_CLASSES_ROOT, kProgId + "\\CLSID", nullptr));
    EXPECT_EQ(kClsid, ReadString(HKEY_CLASSES_ROOT, kVersionIndependentProgId + "\\CLSID", nullptr));
    EXPECT_EQ(kProgId, ReadString(HKEY_CLASSES_ROOT, kVersionIndependentProgId + "\\CurVer", nullptr));
    // The type library comes from the module file itself.
    const char* platform = sizeof(void*) == 8 ? "\\1.0\\0\\win64" : "\\1.0\\0\\win32";
    EXPECT_EQ(m_path, ReadString(HKEY_CLASSES_ROOT, kTypeLibKey + platform, nullptr));
    // FdtEnlist had the module describe itself to the registration component.
    EXPECT_EQ("instance data", ReadModuleList("Kind"));
    EXPECT_EQ(m_path, ReadModuleList("ModulePath"));

    WriteString(HKEY_CLASSES_ROOT, kClassKey + "\\Stale", nullptr, "old");
    WriteString(HKEY_CLASSES_ROOT, kClassKey + "\\InprocServer32", "Stale", "old");
    ASSERT_EQ(S_OK, CallExport("DllRegisterServer"));
    EXPECT_EQ(ExpectedClassKey(m_path), Dump(HKEY_CLASSES_ROOT, kClassKey));
}

std::string Library(const std::string& iid)
{
    std::string library = ReadString(HKEY_CLASSES_ROOT, "Interface\\" + iid + "\\TypeLib", nullptr);
    CharUpperBuffA(&library[0], static_cast<DWORD>(library.size()));
    return library;
}

// regsvr32 of the server where the FDT library and registration component are
// registered: unregistering what is not registered changes nothing, and while it
// is registered (twice) only the module's keys differ from the unregistered state.
TEST_F(Registration, Regsvr32ChangesOnlyTheModuleKeysAndUnregistrationRestoresAll)
{
    RegistrationComponent component;
    CreateKey(HKEY_LOCAL_MACHINE, "Software\\Korvo\\FDT\\Modules");
    // FdtEnlist is found in the current folder.
    const auto regsvr32 = [](const wchar_t* switches) {
        return RunProgram(SystemProgram(L"regsvr32.exe") + switches + L" \"" + ProgramDirectory() + L"InstanceData.dll\"",
                          ProgramDirectory().c_str());
    };
    ASSERT_EQ(0u, regsvr32(L" /s /u"));   // the module's library, as the program registered it at its start
    // IFbInstanceData of the FDT library; a change of its interface keys is a change of the snapshot.
    ASSERT_EQ("{BB09346A-CC8C-11D2-8F71-000000000000}", Library("{BB09346B-CC8C-11D2-8F71-000000000000}"));
    const Lines before = Snapshot();
    EXPECT_EQ(0u, regsvr32(L" /s /u"));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
    for (int time = 0; time < 2; ++time)
    {
        ASSERT_EQ(0u, regsvr32(L" /s"));
        EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot(), kModuleKeys));
        // The interfaces of the module's own library name it.
        for (const std::string& key : kModuleKeys)
            if (key.find("\\Interface\\") != std::string::npos)
            {
                EXPECT_EQ("{DCCEF493-6108-11D3-B23D-00C04F5124BF}", Library(key.substr(key.rfind('\\') + 1))) << key;
            }
    }
    EXPECT_EQ(0u, regsvr32(L" /s /u"));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
}

TEST_F(Registration, AModulePathWithASingleQuoteIsStoredSingle)
{
    const std::wstring folder = TestFilesDirectory() + L"Korvo's server\\";
    CreateDirectoryW(folder.c_str(), nullptr);
    for (const wchar_t* file : {L"InstanceData.dll", L"Pivka.dll"})
        CopyFileW((ProgramDirectory() + file).c_str(), (folder + file).c_str(), FALSE);   // fails when loaded
    const std::unique_ptr<HINSTANCE__, decltype(&FreeLibrary)> copy(
        LoadLibraryExW((folder + L"InstanceData.dll").c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH), &FreeLibrary);
    ASSERT_TRUE(copy);
    const std::string path = ModulePath(copy.get());
    EXPECT_NE(std::string::npos, path.find("Korvo's server\\"));
    RegistrationComponent component;
    EXPECT_EQ(S_OK, CallExport("DllRegisterServer", copy.get()));
    EXPECT_EQ(ExpectedClassKey(path), Dump(HKEY_CLASSES_ROOT, kClassKey));
    EXPECT_EQ(path, ReadModuleList("ModulePath"));
    EXPECT_EQ(S_OK, CallExport("DllUnregisterServer", copy.get()));
}

// An FdtEnlist that fails or does not end in time fails registration; only the
// launcher reports it, and the registry steps before it were done.
TEST_F(Registration, AnFdtEnlistFailureFailsRegistration)
{
    const struct
    {
        const wchar_t* variable;
        const wchar_t* value;
        const char* trace;
    } cases[] = {
        {L"FDTENLIST_EXIT_CODE", L"3", "FdtEnlist exit code (3) indicates an error during registration of FDT module "},
        {L"FDTENLIST_DELAY_MS", L"60000", "FdtEnlist abnormally terminated during registration of FDT module "},
    };
    for (const auto& c : cases)
    {
        ScopedEnvironment failure(c.variable, c.value);
        TraceCapture trace;
        EXPECT_EQ(E_FAIL, CallExport("DllRegisterServer"));
        EXPECT_TRUE(trace.Contains(c.trace + m_path + "\n")) << trace.Text();
        EXPECT_FALSE(trace.Contains("InstanceData/InstanceData("));
        EXPECT_EQ(ExpectedClassKey(m_path), Dump(HKEY_CLASSES_ROOT, kClassKey));
    }
}

TEST(LaunchEnlistServer, ArgumentsFollowTheKindAndTheRegisterFlag)
{
    const std::wstring log = TestFilesDirectory() + L"enlist-arguments.log";
    DeleteFileW(log.c_str());
    ScopedEnvironment logging(L"FDTENLIST_LOG", log);
    ScopedEnvironment success(L"FDTENLIST_EXIT_CODE", L"0");
    EXPECT_EQ(S_OK, FdtRegisterModule(CLSID_FbInstanceData, FdtModuleKindInstanceData, "C:\\m.dll", FALSE));
    EXPECT_EQ(S_OK, FdtRegisterModule(CLSID_FbInstanceData, FdtModuleKindDtm, "C:\\m.dll", TRUE));
    EXPECT_EQ(S_OK, FdtRegisterModule(CLSID_FbInstanceData, FdtModuleKindCommunication, "C:\\m.dll", TRUE));
    EXPECT_EQ(E_FAIL, FdtRegisterModule(CLSID_FbInstanceData, 3, "C:\\m.dll", TRUE));
    // The command line is cut to its 260-byte buffer.
    const std::string arguments(300, 'a');
    TraceCapture trace;
    EXPECT_EQ(S_OK, LaunchEnlistServer("C:\\m.dll", arguments.c_str()));
    const std::string longLine = ("FdtEnlist " + arguments).substr(0, 259);
    EXPECT_EQ(std::vector<std::string>{"Start " + longLine + " (C:\\m.dll)\n"}, trace.Lines());
    EXPECT_EQ((std::vector<std::string>{"FdtEnlist /i /" + kClassId + " /s /u", "FdtEnlist /d /" + kClassId + " /s",
                                        "FdtEnlist /c /" + kClassId + " /s", longLine}),
              Arguments(log));
    EXPECT_EQ(E_POINTER, LaunchEnlistServer("C:\\m.dll", nullptr));
    EXPECT_EQ(E_POINTER, LaunchEnlistServer(nullptr, ""));
}

// Without the component its creation failure is the result.
TEST_F(Registration, StoreRegisterHandsTheModuleDescriptionToTheComponent)
{
    RegDeleteTreeA(HKEY_CLASSES_ROOT, "Korvo.VQ.FdtEnlist.FdtRegisterComp");
    RegDeleteTreeA(HKEY_CLASSES_ROOT, "CLSID\\{327AF1C4-36D2-4164-966B-3EE57B14E4ED}");
    ComPtr<IFbInstanceData> store = CreateStore();
    ASSERT_TRUE(store);
    EXPECT_EQ(REGDB_E_CLASSNOTREG, store->Register());
    EXPECT_EQ(REGDB_E_CLASSNOTREG, store->Unregister());
    EXPECT_EQ(Lines{}, Dump(HKEY_LOCAL_MACHINE, kModuleListEntry));

    RegistrationComponent component;
    ASSERT_EQ(S_OK, store->Register());
    // Vendor, version and build time come from the module's version resource.
    EXPECT_FALSE(ReadModuleList("Vendor").empty());
    EXPECT_TRUE(std::regex_match(ReadModuleList("Version"), std::regex("[0-9]+\\.[0-9]+(\\.[0-9]+\\.[0-9]+)?")))
        << ReadModuleList("Version");
    EXPECT_FALSE(ReadModuleList("BuildTime").empty());
    EXPECT_EQ("DVL/QTS-WMR-VQ_INSTANCEDATA", ReadModuleList("Name"));
    EXPECT_EQ("VQ instance data", ReadModuleList("DisplayName"));
    EXPECT_EQ("all instruments instance data", ReadModuleList("Description"));

    EXPECT_EQ(S_OK, store->Unregister());
    EXPECT_EQ(Lines{}, Dump(HKEY_LOCAL_MACHINE, kModuleListEntry));
    // The component's answer for a module it does not know comes back unchanged.
    EXPECT_EQ(S_FALSE, store->Unregister());
}
}  // namespace
