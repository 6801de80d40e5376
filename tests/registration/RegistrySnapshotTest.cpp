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

// Interface keys and the library each names while the server is registered.
const std::pair<const char*, const std::string&> kInterfaceKeys[] = {
    {"{BB09346B-CC8C-11D2-8F71-000000000000}", kFdtLibrary},      // IFbInstanceData
    {"{4932E6CF-CD94-11D2-8F76-000000000000}", kFdtLibrary},      // IFdtParameter
    {"{4FFA1592-FD66-11D2-B84C-000092900AC5}", kFdtLibrary},      // IFdtInstanceDataRef
    {"{C3BB1038-CDA3-11D2-8F79-000000000000}", kFdtLibrary},      // IFdtInstanceDataInfo
    {"{A08D3ECB-D882-11D2-8AA8-0060084FEFEC}", kFdtLibrary},      // IFdtClassID
    {"{BB09346C-CC8C-11D2-8F71-000000000000}", kFdtLibrary},      // IFdtContext
    {"{BB093470-CC8C-11D2-8F71-000000000000}", kFdtLibrary},      // IFbModuleRegistry
    {"{9BA5127D-CD5B-11D2-8F74-000000000000}", kModuleLibrary},   // IFdtDescriptor
    {"{AD8D15E9-CCCF-11D2-8F72-000000000000}", kModuleLibrary},   // IFdtDtmDescriptor
    {"{65147D93-CD50-11D2-8F73-000000000000}", kModuleLibrary},   // IFdtCommunicationDescriptor
    {"{9BA5126C-CD5B-11D2-8F74-000000000000}", kModuleLibrary},   // IFdtInstanceDataDescriptor
    {"{DCCEF495-6108-11D3-B23D-00C04F5124BF}", kModuleLibrary},   // IInstanceDataMgr
};

DWORD Regsvr32(const wchar_t* switches)
{
    const std::wstring directory = child_process::ProgramDirectory();
    // FdtEnlist is found in the current folder.
    return child_process::Run(child_process::SystemProgram(L"regsvr32.exe") + switches + L" \"" + directory +
                                  L"InstanceData.dll\"",
                              directory.c_str());
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
    ASSERT_EQ(kFdtLibrary, Library(kInterfaceKeys[0].first)) << "the FDT interface library is not registered";
    const Lines before = Snapshot();
    EXPECT_EQ(0u, Regsvr32(L" /s /u"));
    EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot()));
    for (int time = 0; time < 2; ++time)
    {
        ASSERT_EQ(0u, Regsvr32(L" /s"));
        EXPECT_EQ(std::vector<std::string>{}, Changes(before, Snapshot(), kModuleKeys));
        for (const auto& key : kInterfaceKeys)
            EXPECT_EQ(key.second, Library(key.first)) << key.first;
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
    child_process::RegisterFdtStandIns(child_process::ProgramDirectory());
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
