// The registrar script engine on scripts under HKEY_CURRENT_USER, read back
// with the registry API.
#include <gtest/gtest.h>
#include <algorithm>
#include <fstream>
#include <iterator>
#include "InstanceData/Registrar.h"
#include "RegistryDump.h"
#include "TestSupport.h"

using namespace registry_dump;

namespace
{
const char kRoot[] = "Software\\KorvoRegistrarTest";

// body inside HKCU\Software\KorvoRegistrarTest, which the walks keep.
std::string InTestKey(const std::string& body)
{
    return "HKCU\r\n{\r\n\tNoRemove Software\r\n\t{\r\n\t\tNoRemove KorvoRegistrarTest\r\n\t\t{\r\n" + body +
           "\r\n\t\t}\r\n\t}\r\n}\r\n";
}

std::string Key(const std::string& sub)
{
    return std::string(kRoot) + (sub.empty() ? "" : "\\" + sub);
}

std::vector<std::string> Sorted(std::vector<std::string> lines)
{
    for (std::string& line : lines)
        line = Key(line);
    std::sort(lines.begin(), lines.end());
    return lines;
}

class RegistrarScript : public testing::Test
{
protected:
    void SetUp() override
    {
        DeleteTree(HKEY_CURRENT_USER, kRoot);
        WriteString(HKEY_CURRENT_USER, Key("Existing"), "kept", "yes");
    }
    void TearDown() override { DeleteTree(HKEY_CURRENT_USER, kRoot); }

    HRESULT Run(const std::string& body, bool registerMode, UINT codePage = CP_ACP)
    {
        return CRegistrar(codePage).RunScript(InTestKey(body).c_str(), registerMode);
    }
};

TEST_F(RegistrarScript, ValuesOfEveryTypeRoundTripAndUnregisterRemovesThem)
{
    const std::string body =
        "Values = s 'default text'\r\n"
        "{\r\n"
        "\tval Text = s 'It''s here'\r\n"
        "\tval Number = d '4294967295'\r\n"
        "\tval Small = d 123\r\n"
        "\tval Bytes = b '00ff10AB'\r\n"
        "\tval Empty = b ''\r\n"
        "\t'Quoted ''Name''' = s 'with spaces'\r\n"
        "\tPlain\r\n"
        "}";
    ASSERT_EQ(S_OK, Run(body, true));
    EXPECT_EQ(Sorted({"Values", "Values|=S:default text", "Values|Text=S:It's here", "Values|Number=D:4294967295",
                      "Values|Small=D:123", "Values|Bytes=B:00ff10ab", "Values|Empty=B:", "Values\\Quoted 'Name'",
                      "Values\\Quoted 'Name'|=S:with spaces", "Values\\Plain"}),
              Dump(HKEY_CURRENT_USER, Key("Values")));

    // Strings keep their terminating zero, numbers are four bytes.
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExA(HKEY_CURRENT_USER, Key("Values").c_str(), 0, KEY_READ, &key));
    DWORD type = 0, size = 0;
    EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExA(key, "Text", nullptr, &type, nullptr, &size));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
    EXPECT_EQ(sizeof "It's here", size);
    EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExA(key, "Small", nullptr, &type, nullptr, &size));
    EXPECT_EQ(static_cast<DWORD>(REG_DWORD), type);
    EXPECT_EQ(4u, size);
    RegCloseKey(key);

    ASSERT_EQ(S_OK, Run(body, false));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, Key("Values")));
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, Key("Existing")));
}

TEST_F(RegistrarScript, ReplacementsAreLookedUpWithoutCaseAndPercentIsDoubled)
{
    CRegistrar registrar;
    registrar.AddReplacement("Module", "C:\\It''s\\a.dll");
    ASSERT_EQ(S_OK, registrar.RunScript(InTestKey("Rep = s '%MODULE%' { val Lower = s '%module%' "
                                                  "val Percent = s '100%%' }")
                                            .c_str(),
                                        true));
    EXPECT_EQ(Sorted({"Rep", "Rep|=S:C:\\It's\\a.dll", "Rep|Lower=S:C:\\It's\\a.dll", "Rep|Percent=S:100%"}),
              Dump(HKEY_CURRENT_USER, Key("Rep")));
}

TEST_F(RegistrarScript, FailingScriptsLeaveTheRegistryAsItWas)
{
    const std::string longName(32, 'N');
    const struct
    {
        const char* what;
        std::string body;
        HRESULT expected;
    } cases[] = {
        {"unterminated quote", "A = s 'x' { B { val v = s 'open } }", DISP_E_EXCEPTION},
        {"unknown type letter", "A = s 'x' { B { val v = q '1' } }", DISP_E_EXCEPTION},
        {"binary of odd length", "A { B { val v = b '123' } }", E_FAIL},
        {"binary not hex", "A { B { val v = b 'zz' } }", E_FAIL},
        {"key name with backslash", "A { 'B\\C' }", DISP_E_EXCEPTION},
        {"value without =", "A { val v s '1' }", DISP_E_EXCEPTION},
        {"token too long", "A { val v = s '" + std::string(4097, 'x') + "' }", DISP_E_EXCEPTION},
        {"missing closing brace", "A { B { C", DISP_E_EXCEPTION},
        {"missing value", "A { B = s", DISP_E_EXCEPTION},
        {"brace as key name", "A { B = s 'x' { } { } }", DISP_E_EXCEPTION},
        {"empty key name", "A { '' }", DISP_E_EXCEPTION},
        {"unknown replacement", "A = s '%NOWHERE%'", DISP_E_EXCEPTION},
        {"unterminated replacement", "A = s '%MODULE'", DISP_E_EXCEPTION},
        {"replacement name too long", "A = s '%" + longName + "%'", E_FAIL},
    };
    const std::vector<std::string> before = Dump(HKEY_CURRENT_USER, kRoot);
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.what);
        CRegistrar registrar;
        registrar.AddReplacement("Module", "m.dll");
        registrar.AddReplacement(longName.c_str(), "never");
        EXPECT_EQ(c.expected, registrar.RunScript(InTestKey(c.body).c_str(), true));
        EXPECT_EQ(before, Dump(HKEY_CURRENT_USER, kRoot));
    }

    // Errors before any block: a root that is not one, a root without "{".
    for (const char* script : {"HKXX { }", "HKCU Software", "HKCU '{' }", "HKCU {"})
    {
        SCOPED_TRACE(script);
        EXPECT_EQ(DISP_E_EXCEPTION, CRegistrar().RunScript(script, true));
        EXPECT_EQ(before, Dump(HKEY_CURRENT_USER, kRoot));
    }
}

TEST_F(RegistrarScript, EarlierRootBlocksStayRegistered)
{
    const std::string script = InTestKey("First") + InTestKey("Second { val v = q 'x' }");
    EXPECT_EQ(DISP_E_EXCEPTION, CRegistrar().RunScript(script.c_str(), true));
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, Key("First")));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, Key("Second")));
}

TEST_F(RegistrarScript, TokensHoldAtMost4096Bytes)
{
    const std::string full(4096, 'x');
    ASSERT_EQ(S_OK, Run("Long { val Quoted = s '" + full + "' val Doubled = s '" + std::string(4094, 'y') +
                            "''z' val Bare = s " + full + " }",
                        true));
    std::string value;
    ASSERT_TRUE(ReadString(HKEY_CURRENT_USER, Key("Long"), "Quoted", value));
    EXPECT_EQ(full, value);
    ASSERT_TRUE(ReadString(HKEY_CURRENT_USER, Key("Long"), "Doubled", value));
    EXPECT_EQ(std::string(4094, 'y') + "'z", value);
    ASSERT_TRUE(ReadString(HKEY_CURRENT_USER, Key("Long"), "Bare", value));
    EXPECT_EQ(full, value);
    EXPECT_EQ(DISP_E_EXCEPTION, Run("Long { val Bare = s " + full + "x }", true));
}

TEST_F(RegistrarScript, KeywordsRootsAndTypesIgnoreCase)
{
    ASSERT_EQ(S_OK, CRegistrar().RunScript("hkey_current_user { noremove SOFTWARE { NOREMOVE KorvoRegistrarTest "
                                           "{ Mixed = S 'a' { VAL n = D '5' forceremove Inner } } } }",
                                           true));
    EXPECT_EQ(Sorted({"Mixed", "Mixed|=S:a", "Mixed|n=D:5", "Mixed\\Inner"}), Dump(HKEY_CURRENT_USER, Key("Mixed")));
    // Quoted, a keyword is a name.
    ASSERT_EQ(S_OK, Run("'Val' = s 'key'", true));
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, Key("Val")));
}

TEST_F(RegistrarScript, EveryRootNameIsKnownShortAndLong)
{
    const std::string script =
        "HKCR { } HKEY_CLASSES_ROOT { } HKCU { } HKEY_CURRENT_USER { } HKLM { } HKEY_LOCAL_MACHINE { } "
        "HKU { } HKEY_USERS { } HKPD { } HKEY_PERFORMANCE_DATA { } HKDD { } HKEY_DYN_DATA { } "
        "HKCC { } HKEY_CURRENT_CONFIG { }";
    EXPECT_EQ(S_OK, CRegistrar().RunScript(script.c_str(), true));
    EXPECT_EQ(S_OK, CRegistrar().RunScript(script.c_str(), false));
    EXPECT_EQ(S_OK, CRegistrar().RunScript("", true));
}

TEST_F(RegistrarScript, ForceRemoveReplacesTheWholeKey)
{
    WriteString(HKEY_CURRENT_USER, Key("Force\\Stale"), "old", "1");
    WriteString(HKEY_CURRENT_USER, Key("Force"), "old", "1");
    ASSERT_EQ(S_OK, Run("ForceRemove Force { val v = s 'new' }", true));
    EXPECT_EQ(Sorted({"Force", "Force|v=S:new"}), Dump(HKEY_CURRENT_USER, Key("Force")));
}

TEST_F(RegistrarScript, NeverDeleteNamesSurviveForceRemoveAndDelete)
{
    WriteString(HKEY_CURRENT_USER, Key("CLSID\\Keep"), nullptr, "1");
    WriteString(HKEY_CURRENT_USER, Key("TypeLib\\Keep"), nullptr, "1");
    ASSERT_EQ(S_OK, Run("ForceRemove CLSID { val a = s 'b' } Delete typelib", true));
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, Key("CLSID\\Keep")));
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, Key("TypeLib\\Keep")));
    std::string value;
    EXPECT_TRUE(ReadString(HKEY_CURRENT_USER, Key("CLSID"), "a", value));
}

TEST_F(RegistrarScript, DeleteRemovesTheKeyAndSkipsItsValue)
{
    WriteString(HKEY_CURRENT_USER, Key("Gone\\Child"), nullptr, "1");
    ASSERT_EQ(S_OK, Run("Delete Gone = s 'ignored' After Delete Absent", true));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, Key("Gone")));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, Key("Absent")));
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, Key("After")));
}

TEST_F(RegistrarScript, UnregisterKeepsNoRemoveKeysAndKeysWithForeignSubkeys)
{
    const std::string body =
        "NoRemove Kept { val v = s '1' Inner } Shared { Mine } Plain = s 'x' { val v = s '1' } "
        "Gone { Deeper { val x = s 'y' } }";
    ASSERT_EQ(S_OK, Run(body, true));
    WriteString(HKEY_CURRENT_USER, Key("Shared\\Foreign"), nullptr, "theirs");
    DeleteTree(HKEY_CURRENT_USER, Key("Gone"));

    ASSERT_EQ(S_OK, Run(body, false));
    EXPECT_EQ(Sorted({"", "Existing", "Existing|kept=S:yes", "Kept", "Shared", "Shared\\Foreign",
                      "Shared\\Foreign|=S:theirs"}),
              Dump(HKEY_CURRENT_USER, kRoot));
    // Unregistering again finds nothing to do and is no error.
    EXPECT_EQ(S_OK, Run(body, false));
}

TEST_F(RegistrarScript, DoubleByteLeadBytesAreKeptWhole)
{
    ASSERT_TRUE(IsDBCSLeadByteEx(932, 0x81));
    // With a double-byte code page the quote after 0x81 is its trail byte.
    ASSERT_EQ(S_OK, Run("Dbcs = s 'x\x81''", true, 932));
    std::string value;
    ASSERT_TRUE(ReadString(HKEY_CURRENT_USER, Key("Dbcs"), nullptr, value));
    EXPECT_EQ("x\x81'", value);
    EXPECT_EQ(DISP_E_EXCEPTION, Run("Single = s 'x\x81''", true, 1252));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, Key("Single")));

    // 0x95 0x5C is one character, not a backslash.
    EXPECT_EQ(S_OK, Run("'a\x95\\' { val v = s '1' }", false, 932));
    EXPECT_EQ(DISP_E_EXCEPTION, Run("'a\x95\\' { val v = s '1' }", false, 1252));
}

TEST(RegistrarResource, LoadsTheScriptResourceOfAModuleFile)
{
    const std::string module = ([] {
        char path[MAX_PATH];
        GetModuleFileNameA(ServerModule::Handle(), path, MAX_PATH);
        return std::string(path);
    })();
    const std::string missing = module.substr(0, module.find_last_of('\\') + 1) + "NoSuchModule.dll";
    CRegistrar registrar;
    const HRESULT noFile = registrar.RunResource(missing.c_str(), 103, "REGISTRY", false);
    EXPECT_TRUE(FAILED(noFile) && HRESULT_FACILITY(noFile) == FACILITY_WIN32) << std::hex << noFile;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND),
              registrar.RunResource(module.c_str(), 999, "REGISTRY", false));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_RESOURCE_TYPE_NOT_FOUND),
              registrar.RunResource(module.c_str(), 103, "NOSUCHTYPE", false));
    // The server's script names %MODULE%.
    EXPECT_EQ(DISP_E_EXCEPTION, registrar.RunResource(module.c_str(), 103, "REGISTRY", false));
    registrar.AddReplacement("Module", module.c_str());
    EXPECT_EQ(S_OK, registrar.RunResource(module.c_str(), 103, "REGISTRY", false));
    EXPECT_EQ(E_POINTER, registrar.RunResource(nullptr, 103, "REGISTRY", false));
    EXPECT_EQ(E_POINTER, registrar.RunScript(nullptr, false));
}

TEST(RegistrarResource, TheServerScriptIsStoredByteForByte)
{
    const char expected[] =
        "HKCR\r\n{\r\n"
        "\tKorvo.VQ.InstanceData.FbInstanceData.1 = s 'FbInstanceData Class'\r\n\t{\r\n"
        "\t\tCLSID = s '{dccef494-6108-11d3-b23d-00c04f5124bf}'\r\n\t}\r\n"
        "\tKorvo.VQ.InstanceData.FbInstanceData = s 'FbInstanceData Class'\r\n\t{\r\n"
        "\t\tCLSID = s '{dccef494-6108-11d3-b23d-00c04f5124bf}'\r\n"
        "\t\tCurVer = s 'Korvo.VQ.InstanceData.FbInstanceData.1'\r\n\t}\r\n"
        "\tNoRemove CLSID\r\n\t{\r\n"
        "\t\tForceRemove {dccef494-6108-11d3-b23d-00c04f5124bf} = s 'FbInstanceData Class'\r\n\t\t{\r\n"
        "\t\t\tProgID = s 'Korvo.VQ.InstanceData.FbInstanceData.1'\r\n"
        "\t\t\tVersionIndependentProgID = s 'Korvo.VQ.InstanceData.FbInstanceData'\r\n"
        "\t\t\tForceRemove 'Programmable'\r\n"
        "\t\t\tInprocServer32 = s '%MODULE%'\r\n\t\t\t{\r\n"
        "\t\t\t\tval ThreadingModel = s 'Apartment'\r\n\t\t\t}\r\n"
        "\t\t\t'TypeLib' = s '{dccef493-6108-11d3-b23d-00c04f5124bf}'\r\n\t\t}\r\n"
        "\t}\r\n}\r\n";
    const HMODULE module = LoadLibraryExW((ProgramDirectory() + L"InstanceData.dll").c_str(), nullptr,
                                          LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_TRUE(module);
    const HRSRC resource = FindResourceA(module, MAKEINTRESOURCEA(103), "REGISTRY");
    ASSERT_TRUE(resource);
    const char* bytes = static_cast<const char*>(LockResource(LoadResource(module, resource)));
    const std::string script(bytes, SizeofResource(module, resource));
    FreeLibrary(module);
    EXPECT_EQ(std::string(expected), script);

    std::ifstream source(SOURCE_DIR "/InstanceData/InstanceData.rgs", std::ios::binary);
    ASSERT_TRUE(source.good());
    EXPECT_EQ(std::string(expected), std::string(std::istreambuf_iterator<char>(source), {}));
}
}  // namespace
