// The installer package under msiexec, in a Wine prefix of its own where the FDT installation (its stand-ins) is
// in place: a quiet install registers the module so that a client creates the class by its programmatic
// identifier; the uninstall leaves the registry and Program Files as they were.
#include <gtest/gtest.h>
#include "RegistrySnapshot.h"
#include <msi.h>   // after windows.h

using namespace registry;

namespace
{
const std::wstring kInstallFolder = _wgetenv(L"ProgramFiles") + std::wstring(L"\\Korvo VQ InstanceData");
const std::wstring kFdtFolder = _wgetenv(L"ProgramFiles") + std::wstring(L"\\Korvo FDT");
const std::wstring kPackage =
    ProgramDirectory() + (sizeof(void*) == 8 ? L"InstanceData-x86_64.msi" : L"InstanceData-i686.msi");

// msiexec <action> <package or product> /qn
DWORD Msiexec(const wchar_t* action, const std::wstring& package = kPackage)
{
    return RunProgram(SystemProgram(L"msiexec.exe") + L" " + action + L" \"" + package + L"\" /qn");
}

bool Exists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The FDT installation first: its module list, registration component and interface library registered from a
// folder of their own, and FdtEnlist on the search path of the processes started from now on (msiexec, regsvr32).
TEST(Installer, InstallRegistersTheClassAndUninstallRestoresRegistryAndFolder)
{
    HKEY created = nullptr;   // keys the installer service keeps once any product was installed
    for (const char* key : {"Installer\\Features", "Installer\\Products", "Installer\\UpgradeCodes"})
        if (RegCreateKeyA(HKEY_CLASSES_ROOT, key, &created) == ERROR_SUCCESS)
            RegCloseKey(created);
    CreateDirectoryW(kFdtFolder.c_str(), nullptr);
    for (const wchar_t* file : {L"FdtEnlist.exe", L"FdtRegisterComp.dll", L"FdtInterfaces.tlb"})
        CopyFileW((ProgramDirectory() + file).c_str(), (kFdtFolder + L"\\" + file).c_str(), FALSE);
    // Another module in the FDT module list, which stays as it is.
    WriteString(HKEY_LOCAL_MACHINE, "Software\\Korvo\\FDT\\Modules\\{7D5A8C31-0000-4000-8000-000000000001}", "Name",
                "other");
    ITypeLib* library = nullptr;
    if (SUCCEEDED(LoadTypeLibEx((kFdtFolder + L"\\FdtInterfaces.tlb").c_str(), REGKIND_REGISTER, &library)))
        library->Release();
    RunProgram(SystemProgram(L"regsvr32.exe") + L" /s \"" + kFdtFolder + L"\\FdtRegisterComp.dll\"");
    SetEnvironmentVariableW(L"PATH", (_wgetenv(L"PATH") + (L";" + kFdtFolder)).c_str());
    // What a run that stopped half-way left, of this build or an earlier one (each a product of its own), goes.
    wchar_t product[39], name[256];
    for (DWORD index = 0, length = 256; MsiEnumProductsW(index, product) == ERROR_SUCCESS; ++index, length = 256)
        if (MsiGetProductInfoW(product, INSTALLPROPERTY_PRODUCTNAME, name, &length) == ERROR_SUCCESS &&
            std::wstring(name) == L"Korvo VQ InstanceData")
        {
            ASSERT_EQ(0u, Msiexec(L"/x", product));
            index = DWORD(-1);   // the enumeration starts again
        }
    ASSERT_FALSE(Exists(kInstallFolder));
    const Lines before = Snapshot();

    ASSERT_EQ(0u, Msiexec(L"/i"));
    for (const wchar_t* file : {L"InstanceData.dll", L"Pivka.dll", L"InstanceData.tlb"})
        EXPECT_TRUE(Exists(kInstallFolder + L"\\" + file)) << file;
    const std::string server = ReadString(
        HKEY_CLASSES_ROOT, "CLSID\\{dccef494-6108-11d3-b23d-00c04f5124bf}\\InprocServer32", nullptr);
    EXPECT_NE(std::string::npos, server.find("Korvo VQ InstanceData\\InstanceData.dll")) << server;
    // FdtEnlist ran: the module is in the FDT module list with its installed path.
    EXPECT_EQ(server, ReadString(HKEY_LOCAL_MACHINE, kModuleKeys.back().substr(5), "ModulePath"));
    // Besides the module's keys, only the product registration of the installer service.
    std::vector<std::string> installed = kModuleKeys;
    installed.push_back("HKCR\\Installer");
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot(), installed));
    // A client creates the class by its programmatic identifier and opens a store.
    const std::wstring store = TestFilesDirectory() + TestName() + L".stg";
    EXPECT_EQ(0u, RunProgram(L"\"" + ProgramDirectory() + L"RegisteredClient.exe\" \"" + store + L"\""));
    DeleteFileW(store.c_str());

    ASSERT_EQ(0u, Msiexec(L"/x"));
    EXPECT_FALSE(Exists(kInstallFolder));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
}
}  // namespace

// Not the common main: the type libraries are registered as the FDT installation does it.
int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
