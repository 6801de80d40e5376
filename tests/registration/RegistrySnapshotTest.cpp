// regsvr32 of the server on a machine where the FDT installation has
// registered its interface library and registration component: only the
// module's own keys change, and unregistration gives back exactly what was
// there before. Runs in a Wine prefix of its own.
#include <gtest/gtest.h>
#include "RegistrySnapshot.h"

using namespace registry;

namespace
{
const std::string kFdtLibrary = "{BB09346A-CC8C-11D2-8F71-000000000000}";
const std::string kModuleLibrary = "{DCCEF493-6108-11D3-B23D-00C04F5124BF}";

// FdtEnlist is found in the current folder.
DWORD Regsvr32(const wchar_t* switches)
{
    return child_process::Run(child_process::SystemProgram(L"regsvr32.exe") + switches + L" \"" +
                                  ProgramDirectory() + L"InstanceData.dll\"",
                              ProgramDirectory().c_str());
}

std::string Library(const std::string& iid)
{
    std::string library = ReadString(HKEY_CLASSES_ROOT, "Interface\\" + iid + "\\TypeLib", nullptr);
    CharUpperBuffA(&library[0], static_cast<DWORD>(library.size()));
    return library;
}

// Unregistering what is not registered, registering twice and unregistering:
// only the module's keys change on the way, and the end is the start.
TEST(RegistrySnapshot, OnlyTheModuleKeysChangeAndUnregistrationRestoresAll)
{
    // IFbInstanceData of the FDT library; a change of its interface keys is a change of the snapshot.
    ASSERT_EQ(kFdtLibrary, Library("{BB09346B-CC8C-11D2-8F71-000000000000}")) << "the FDT library is not registered";
    const Lines before = Snapshot();
    EXPECT_EQ(0u, Regsvr32(L" /s /u"));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
    for (int time = 0; time < 2; ++time)
    {
        ASSERT_EQ(0u, Regsvr32(L" /s"));
        EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot(), kModuleKeys));
        // The interfaces of the module's own library name it.
        for (const std::string& key : kModuleKeys)
            if (key.find("\\Interface\\") != std::string::npos)
            {
                EXPECT_EQ(kModuleLibrary, Library(key.substr(key.rfind('\\') + 1))) << key;
            }
    }
    EXPECT_EQ(0u, Regsvr32(L" /s /u"));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
}
}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 2;
    child_process::RegisterFdtStandIns(ProgramDirectory());
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
