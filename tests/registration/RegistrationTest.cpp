// Self-registration of InstanceData.dll, the launch of FdtEnlist, and the
// store's Register and Unregister through the registration component. The
// registry is read back with the registry API.
#include <gtest/gtest.h>
#include <memory>
#include <regex>
#include "RegistrySnapshot.h"

using namespace registry;

namespace
{
const std::string kClassKey = "CLSID\\{dccef494-6108-11d3-b23d-00c04f5124bf}";
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

// The keys of the server's script (shown as CLSID, ProgID and ProgID.1) hold exactly what it writes for path.
void ExpectScriptKeys(const std::string& path)
{
    Lines lines = Dump(HKEY_CLASSES_ROOT, kClassKey, "CLSID");
    lines.merge(Dump(HKEY_CLASSES_ROOT, "Korvo.VQ.InstanceData.FbInstanceData", "ProgID"));
    lines.merge(Dump(HKEY_CLASSES_ROOT, "Korvo.VQ.InstanceData.FbInstanceData.1", "ProgID.1"));
    const std::string clsid = R"(@="{dccef494-6108-11d3-b23d-00c04f5124bf}")";
    EXPECT_EQ((Lines{R"(CLSID|@="FbInstanceData Class")", R"(CLSID\ProgID|@="Korvo.VQ.InstanceData.FbInstanceData.1")",
                     R"(CLSID\VersionIndependentProgID|@="Korvo.VQ.InstanceData.FbInstanceData")",
                     R"(CLSID\Programmable)", R"(CLSID\TypeLib|@="{dccef493-6108-11d3-b23d-00c04f5124bf}")",
                     "CLSID\\InprocServer32|@=\"" + std::regex_replace(path, std::regex(R"([\\"])"), R"(\$&)") + "\"",
                     R"(CLSID\InprocServer32|"ThreadingModel"="Apartment")", R"(ProgID|@="FbInstanceData Class")",
                     "ProgID\\CLSID|" + clsid, R"(ProgID\CurVer|@="Korvo.VQ.InstanceData.FbInstanceData.1")",
                     R"(ProgID.1|@="FbInstanceData Class")", "ProgID.1\\CLSID|" + clsid}),
              lines);
}

std::string ReadModuleList(const char* name) { return ReadString(HKEY_LOCAL_MACHINE, kModuleListEntry, name); }

// Each test starts without the server's registration, with the type libraries registered as the program
// started, and with the FDT registration component registered.
class Registration : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const std::string& key : kModuleKeys)
            RegDeleteTreeA(key[2] == 'C' ? HKEY_CLASSES_ROOT : HKEY_LOCAL_MACHINE, key.substr(5).c_str());
        for (const wchar_t* file : {L"FdtInterfaces.tlb", L"InstanceData.tlb"})
        {
            ITypeLib* library = nullptr;
            if (SUCCEEDED(LoadTypeLibEx((ProgramDirectory() + file).c_str(), REGKIND_REGISTER, &library)))
                library->Release();
        }
        EXPECT_EQ(S_OK, CallExport("DllRegisterServer", m_component));
    }
    void TearDown() override { FreeLibrary(m_component); }

    const HMODULE m_component = LoadLibraryW((ProgramDirectory() + L"FdtRegisterComp.dll").c_str());
    const std::string m_path = ModulePath(ServerModule::Handle());
};

// From a folder with a single quote in its name, which the script's replacement must double.
TEST_F(Registration, RegisterWritesExactlyTheScriptKeysAndAgainDropsStaleEntries)
{
    const std::wstring folder = TestFilesDirectory() + L"Korvo's server\\";
    CreateDirectoryW(folder.c_str(), nullptr);
    for (const wchar_t* file : {L"InstanceData.dll", L"Pivka.dll"})
        CopyFileW((ProgramDirectory() + file).c_str(), (folder + file).c_str(), FALSE);   // fails when loaded
    const std::unique_ptr<HINSTANCE__, decltype(&FreeLibrary)> copy(
        LoadLibraryExW((folder + L"InstanceData.dll").c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH), &FreeLibrary);
    ASSERT_TRUE(copy);
    const std::string path = ModulePath(copy.get());
    ASSERT_EQ(S_OK, CallExport("DllRegisterServer", copy.get()));

    ExpectScriptKeys(path);
    // The type library comes from the module file itself.
    const std::string library = "TypeLib\\{DCCEF493-6108-11D3-B23D-00C04F5124BF}\\1.0\\0\\";
    EXPECT_EQ(path, ReadString(HKEY_CLASSES_ROOT, library + (sizeof(void*) == 8 ? "win64" : "win32"), nullptr));
    // FdtEnlist had the module describe itself to the registration component.
    EXPECT_EQ("instance data", ReadModuleList("Kind"));
    EXPECT_EQ(path, ReadModuleList("ModulePath"));

    WriteString(HKEY_CLASSES_ROOT, kClassKey + "\\Stale", nullptr, "old");
    WriteString(HKEY_CLASSES_ROOT, kClassKey + "\\InprocServer32", "Stale", "old");
    ASSERT_EQ(S_OK, CallExport("DllRegisterServer", copy.get()));
    ExpectScriptKeys(path);
}

// regsvr32 of the server where the FDT library and registration component are
// registered: unregistering what is not registered changes nothing, and while it
// is registered (twice) only the module's keys differ from the unregistered state.
TEST_F(Registration, Regsvr32ChangesOnlyTheModuleKeysAndUnregistrationRestoresAll)
{
    // Another module in the FDT module list, which stays as it is.
    WriteString(HKEY_LOCAL_MACHINE, "Software\\Korvo\\FDT\\Modules\\{7D5A8C31-0000-4000-8000-000000000001}", "Name",
                "other");
    const auto regsvr32 = [](const wchar_t* switches) {   // FdtEnlist is found in the current folder
        const std::wstring server = L" \"" + ProgramDirectory() + L"InstanceData.dll\"";
        return RunProgram(SystemProgram(L"regsvr32.exe") + switches + server, ProgramDirectory().c_str());
    };
    ASSERT_EQ(0u, regsvr32(L" /s /u"));   // the module's library, as the program registered it at its start
    // IFbInstanceData of the FDT library; a change of its interface keys is a change of the snapshot.
    ASSERT_EQ("{BB09346A-CC8C-11D2-8F71-000000000000}",
              ReadString(HKEY_CLASSES_ROOT, "Interface\\{BB09346B-CC8C-11D2-8F71-000000000000}\\TypeLib", nullptr));
    const Lines before = Snapshot();
    EXPECT_EQ(0u, regsvr32(L" /s /u"));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
    for (int time = 0; time < 2; ++time)
    {
        ASSERT_EQ(0u, regsvr32(L" /s"));
        EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot(), kModuleKeys));
        for (auto key = kModuleKeys.begin() + 4; key != kModuleKeys.end() - 1; ++key)   // its library's interfaces
            EXPECT_EQ("{DCCEF493-6108-11D3-B23D-00C04F5124BF}",
                      ReadString(HKEY_CLASSES_ROOT, key->substr(5) + "\\TypeLib", nullptr)) << *key;
    }
    EXPECT_EQ(0u, regsvr32(L" /s /u"));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
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
        SetEnvironmentVariableW(c.variable, c.value);   // FdtEnlist inherits it
        TraceCapture trace;
        EXPECT_EQ(E_FAIL, CallExport("DllRegisterServer"));
        SetEnvironmentVariableW(c.variable, nullptr);
        EXPECT_TRUE(trace.Contains(c.trace + m_path + "\n")) << trace.Text();
        EXPECT_FALSE(trace.Contains("InstanceData/InstanceData("));
        ExpectScriptKeys(m_path);
    }
}

// Without the component its creation failure is the result.
TEST_F(Registration, StoreRegisterHandsTheModuleDescriptionToTheComponent)
{
    ComPtr<IFbInstanceData> store = CreateStore();
    ASSERT_TRUE(store);
    EXPECT_EQ(S_OK, CallExport("DllUnregisterServer", m_component));
    EXPECT_EQ(REGDB_E_CLASSNOTREG, store->Register());
    EXPECT_EQ(REGDB_E_CLASSNOTREG, store->Unregister());
    EXPECT_EQ(Lines{}, Dump(HKEY_LOCAL_MACHINE, kModuleListEntry));

    ASSERT_EQ(S_OK, CallExport("DllRegisterServer", m_component));
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
