// The installer package under msiexec, in a Wine prefix of its own where the
// FDT installation (its stand-ins) is in place: a quiet install registers the
// module so that a client creates the class by its programmatic identifier;
// the uninstall leaves the registry and Program Files as they were.
#include <gtest/gtest.h>
#include <ole2.h>
#include <msi.h>
#include "RegistrySnapshot.h"

using namespace registry;

namespace
{
std::wstring ProgramFiles(const wchar_t* folder)
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetEnvironmentVariableW(L"ProgramFiles", path, MAX_PATH);
    return std::wstring(path, length) + L"\\" + folder;
}

const std::wstring kInstallFolder = ProgramFiles(L"Korvo VQ InstanceData");
const std::wstring kFdtFolder = ProgramFiles(L"Korvo FDT");

std::wstring Package()
{
    return ProgramDirectory() + (sizeof(void*) == 8 ? L"InstanceData-x86_64.msi" : L"InstanceData-i686.msi");
}

// msiexec <action> [the package] /qn
DWORD Msiexec(const wchar_t* action, bool package = true)
{
    return RunProgram(SystemProgram(L"msiexec.exe") + L" " + action +
                              (package ? L" \"" + Package() + L"\"" : L"") + L" /qn");
}

bool Exists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The FDT installation: the module list, its registration component and
// interface library registered from a folder of their own, and FdtEnlist on
// the program search path of every process started from now on (msiexec and
// the regsvr32 it runs).
void InstallFdtStandIns()
{
    // Keys the installer service keeps once any product was installed.
    for (const char* key : {"Installer\\Features", "Installer\\Products", "Installer\\UpgradeCodes"})
        CreateKey(HKEY_CLASSES_ROOT, key);
    CreateDirectoryW(kFdtFolder.c_str(), nullptr);
    for (const wchar_t* file : {L"FdtEnlist.exe", L"FdtRegisterComp.dll", L"FdtInterfaces.tlb"})
        CopyFileW((ProgramDirectory() + file).c_str(), (kFdtFolder + L"\\" + file).c_str(), FALSE);
    CreateKey(HKEY_LOCAL_MACHINE, "Software\\Korvo\\FDT\\Modules");
    ITypeLib* library = nullptr;
    if (SUCCEEDED(LoadTypeLibEx((kFdtFolder + L"\\FdtInterfaces.tlb").c_str(), REGKIND_REGISTER, &library)))
        library->Release();
    RunProgram(SystemProgram(L"regsvr32.exe") + L" /s \"" + kFdtFolder + L"\\FdtRegisterComp.dll\"");
    wchar_t path[32768];
    const DWORD length = GetEnvironmentVariableW(L"PATH", path, 32768);
    SetEnvironmentVariableW(L"PATH", (std::wstring(path, length) + L";" + kFdtFolder).c_str());
}

TEST(Installer, InstallRegistersTheClassAndUninstallRestoresRegistryAndFolder)
{
    // A run that stopped half-way, of this build or an earlier one (each
    // build is a product of its own), leaves nothing for this one.
    wchar_t product[39], name[256];
    for (DWORD index = 0; MsiEnumProductsW(index, product) == ERROR_SUCCESS; ++index)
    {
        DWORD length = 256;
        if (MsiGetProductInfoW(product, INSTALLPROPERTY_PRODUCTNAME, name, &length) == ERROR_SUCCESS &&
            std::wstring(name) == L"Korvo VQ InstanceData")
        {
            ASSERT_EQ(0u, Msiexec((L"/x " + std::wstring(product)).c_str(), false));
            index = DWORD(-1);   // the enumeration starts again
        }
    }
    ASSERT_TRUE(Exists(Package()));
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
    const std::wstring store = ProgramDirectory() + L"testfiles\\installed.stg";
    EXPECT_EQ(0u, RunProgram(L"\"" + ProgramDirectory() + L"RegisteredClient.exe\" \"" + store + L"\""));
    DeleteFileW(store.c_str());

    ASSERT_EQ(0u, Msiexec(L"/x"));
    EXPECT_FALSE(Exists(kInstallFolder));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
}
}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 2;
    InstallFdtStandIns();
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
