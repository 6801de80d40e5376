// regsvr32 of the server on a machine where the FDT installation has
// registered its interface library and registration component: only the
// module's own keys change, and unregistration gives back exactly what was
// there before. Runs in a Wine prefix of its own.
#include <gtest/gtest.h>
#include <ole2.h>
#include "RegistrySnapshot.h"

using namespace registry_snapshot;

namespace
{
const std::string kFdtLibrary = "{BB09346A-CC8C-11D2-8F71-000000000000}";
const std::string kModuleLibrary = "{DCCEF493-6108-11D3-B23D-00C04F5124BF}";

struct InterfaceKey
{
    const char* name;
    const char* iid;
    std::string whileRegistered;    // library of its key while the server is registered
};

const InterfaceKey kInterfaceKeys[] = {
    {"IFbInstanceData", "{BB09346B-CC8C-11D2-8F71-000000000000}", kFdtLibrary},
    {"IFdtParameter", "{4932E6CF-CD94-11D2-8F76-000000000000}", kFdtLibrary},
    {"IFdtInstanceDataRef", "{4FFA1592-FD66-11D2-B84C-000092900AC5}", kFdtLibrary},
    {"IFdtInstanceDataInfo", "{C3BB1038-CDA3-11D2-8F79-000000000000}", kFdtLibrary},
    {"IFdtClassID", "{A08D3ECB-D882-11D2-8AA8-0060084FEFEC}", kFdtLibrary},
    {"IFdtContext", "{BB09346C-CC8C-11D2-8F71-000000000000}", kFdtLibrary},
    {"IFbModuleRegistry", "{BB093470-CC8C-11D2-8F71-000000000000}", kFdtLibrary},
    {"IFdtDescriptor", "{9BA5127D-CD5B-11D2-8F74-000000000000}", kModuleLibrary},
    {"IFdtDtmDescriptor", "{AD8D15E9-CCCF-11D2-8F72-000000000000}", kModuleLibrary},
    {"IFdtCommunicationDescriptor", "{65147D93-CD50-11D2-8F73-000000000000}", kModuleLibrary},
    {"IFdtInstanceDataDescriptor", "{9BA5126C-CD5B-11D2-8F74-000000000000}", kModuleLibrary},
    {"IInstanceDataMgr", "{DCCEF495-6108-11D3-B23D-00C04F5124BF}", kModuleLibrary},
};

DWORD Regsvr32(const std::wstring& switches, const wchar_t* file)
{
    const std::wstring directory = child_process::ProgramDirectory();
    // FdtEnlist is found in the current folder.
    return child_process::Run(child_process::SystemProgram(L"regsvr32.exe") + L" " + switches + L" \"" + directory +
                                  file + L"\"",
                              directory.c_str());
}

// Unregistering what is not registered, registering twice and unregistering:
// only the module's keys change on the way, and the end is the start.
TEST(RegistrySnapshot, OnlyTheModuleKeysChangeAndUnregistrationRestoresAll)
{
    ASSERT_TRUE(EqualNoCase(kFdtLibrary, InterfaceLibrary("{BB09346B-CC8C-11D2-8F71-000000000000}")))
        << "the FDT interface library is not registered";
    const Snapshot before = Take();
    EXPECT_EQ(0u, Regsvr32(L"/s /u", L"InstanceData.dll"));
    EXPECT_EQ(std::vector<std::string>{}, Difference(before, Take()));
    for (int time = 0; time < 2; ++time)
    {
        ASSERT_EQ(0u, Regsvr32(L"/s", L"InstanceData.dll"));
        EXPECT_EQ(std::vector<std::string>{}, Foreign(Difference(before, Take()), kModuleKeys));
        for (const InterfaceKey& key : kInterfaceKeys)
            EXPECT_TRUE(EqualNoCase(key.whileRegistered, InterfaceLibrary(key.iid))) << key.name;
    }
    EXPECT_EQ(0u, Regsvr32(L"/s /u", L"InstanceData.dll"));
    EXPECT_EQ(std::vector<std::string>{}, Difference(before, Take()));
}
}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 2;
    RegisterFdtStandIns(child_process::ProgramDirectory());
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
