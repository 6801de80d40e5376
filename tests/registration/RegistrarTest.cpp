// The registrar script engine on scripts under HKEY_CURRENT_USER, read back
// with the registry API.
#include <gtest/gtest.h>
#include "InstanceData/Registrar.h"
#include "RegistrySnapshot.h"

using namespace registry;

namespace
{
const std::string kRoot = "Software\\KorvoRegistrarTest";
const Lines kUntouched = {"", "Existing", R"(Existing|"kept"="yes")"};

// body inside HKCU\Software\KorvoRegistrarTest, which the walks keep.
std::string InTestKey(const std::string& body)
{
    return "HKCU\r\n{\r\n\tNoRemove Software\r\n\t{\r\n\t\tNoRemove KorvoRegistrarTest\r\n\t\t{\r\n" + body +
           "\r\n\t\t}\r\n\t}\r\n}\r\n";
}

std::string Key(const std::string& sub)
{
    return kRoot + "\\" + sub;
}

class RegistrarScript : public testing::Test
{
protected:
    void SetUp() override
    {
        RegDeleteTreeA(HKEY_CURRENT_USER, kRoot.c_str());
        WriteString(HKEY_CURRENT_USER, Key("Existing"), "kept", "yes");
    }
    void TearDown() override { RegDeleteTreeA(HKEY_CURRENT_USER, kRoot.c_str()); }

    static HRESULT Run(const std::string& body, bool registerMode)
    {
        return CRegistrar().RunScript(InTestKey(body).c_str(), registerMode);
    }
};

// Replacements ignore case, keep their quotes and backslashes; "%%" is one percent sign.
TEST_F(RegistrarScript, ValuesOfEveryTypeAndReplacementsRoundTripAndUnregisterRemovesThem)
{
    const std::string script = InTestKey(
        "Values = s 'default text'\r\n"
        "{\r\n"
        "\tval Text = s 'It''s here'\r\n"
        "\tVAL Number = D '4294967295'\r\n"
        "\tval Small = d 123\r\n"
        "\tval Bytes = b '00ff10AB'\r\n"
        "\tval Empty = b ''\r\n"
        "\tval Upper = s '%MODULE%' val Lower = s '%module%' val Percent = s '100%%'\r\n"
        "\t'Quoted ''Name''' = s 'with spaces'\r\n"
        "\t'Val'\r\n"
        "}");
    CRegistrar registrar;
    registrar.AddReplacement("Module", "C:\\It''s\\a.dll");
    ASSERT_EQ(S_OK, registrar.RunScript(script.c_str(), true));
    EXPECT_EQ((Lines{"", R"(|@="default text")", R"(|"Text"="It's here")", R"(|"Number"=dword:ffffffff)",
                     R"(|"Small"=dword:0000007b)", R"(|"Bytes"=hex:00,ff,10,ab)", R"(|"Empty"=hex:)",
                     R"(|"Upper"="C:\\It's\\a.dll")", R"(|"Lower"="C:\\It's\\a.dll")", R"(|"Percent"="100%")",
                     "Quoted 'Name'", R"(Quoted 'Name'|@="with spaces")", "Val"}),
              Dump(HKEY_CURRENT_USER, Key("Values")));

    ASSERT_EQ(S_OK, registrar.RunScript(script.c_str(), false));
    EXPECT_EQ(kUntouched, Dump(HKEY_CURRENT_USER, kRoot));
}

// A failing root block is walked again in unregister mode up to where it
// stopped, which takes back what it had made.
TEST_F(RegistrarScript, FailingScriptsLeaveTheRegistryAsItWas)
{
    const std::string longName(32, 'N');
    const struct
    {
        const char* what;
        std::string script;
        HRESULT expected;
    } cases[] = {
        {"unterminated quote", InTestKey("A = s 'x' { B { val v = s 'open } }"), DISP_E_EXCEPTION},
        {"unknown type letter", InTestKey("A = s 'x' { B { val v = q '1' } }"), DISP_E_EXCEPTION},
        {"binary of odd length", InTestKey("A { B { val v = b '123' } }"), E_FAIL},
        {"key name with backslash", InTestKey("A { 'B\\C' }"), DISP_E_EXCEPTION},
        {"token too long", InTestKey("A { val v = s '" + std::string(4097, 'x') + "' }"), DISP_E_EXCEPTION},
        {"missing closing brace", InTestKey("A { B { C"), DISP_E_EXCEPTION},
        {"unknown replacement", InTestKey("A = s '%NOWHERE%'"), DISP_E_EXCEPTION},
        {"unterminated replacement", InTestKey("A = s '%MODULE'"), DISP_E_EXCEPTION},
        {"replacement name too long", InTestKey("A = s '%" + longName + "%'"), E_FAIL},
        {"not a root key", "HKXX { }", DISP_E_EXCEPTION},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.what);
        CRegistrar registrar;
        registrar.AddReplacement("Module", "m.dll");
        registrar.AddReplacement(longName.c_str(), "never");
        EXPECT_EQ(c.expected, registrar.RunScript(c.script.c_str(), true));
        EXPECT_EQ(kUntouched, Dump(HKEY_CURRENT_USER, kRoot));
    }

    // Only the failing block is taken back.
    const std::string twoBlocks = InTestKey("First") + InTestKey("Second { val v = q 'x' }");
    EXPECT_EQ(DISP_E_EXCEPTION, CRegistrar().RunScript(twoBlocks.c_str(), true));
    EXPECT_EQ(Lines{""}, Dump(HKEY_CURRENT_USER, Key("First")));
    EXPECT_EQ(Lines{}, Dump(HKEY_CURRENT_USER, Key("Second")));
}

TEST_F(RegistrarScript, ForceRemoveAndDeleteSpareClsidAndTypeLib)
{
    for (const char* stale : {"Force\\Stale", "Gone\\Child", "CLSID\\Keep", "TypeLib\\Keep"})
        WriteString(HKEY_CURRENT_USER, Key(stale), "old", "1");
    WriteString(HKEY_CURRENT_USER, Key("Force"), "old", "1");
    ASSERT_EQ(S_OK, Run("ForceRemove Force { val v = s 'new' } Delete Gone = s 'ignored' After Delete Absent "
                        "forceremove CLSID { val a = s 'b' } Delete typelib",
                        true));
    EXPECT_EQ((Lines{"", "Existing", R"(Existing|"kept"="yes")", "Force", R"(Force|"v"="new")", "After", "CLSID",
                     R"(CLSID|"a"="b")", "CLSID\\Keep", R"(CLSID\Keep|"old"="1")", "TypeLib", "TypeLib\\Keep",
                     R"(TypeLib\Keep|"old"="1")"}),
              Dump(HKEY_CURRENT_USER, kRoot));
}

TEST_F(RegistrarScript, UnregisterKeepsNoRemoveKeysAndKeysWithForeignSubkeys)
{
    const std::string body =
        "noremove Kept { val v = s '1' Inner } Shared { Mine } Plain = s 'x' { val v = s '1' } "
        "Gone { Deeper { val x = s 'y' } }";
    ASSERT_EQ(S_OK, Run(body, true));
    WriteString(HKEY_CURRENT_USER, Key("Shared\\Foreign"), nullptr, "theirs");
    RegDeleteTreeA(HKEY_CURRENT_USER, Key("Gone").c_str());

    ASSERT_EQ(S_OK, Run(body, false));
    EXPECT_EQ((Lines{"", "Existing", R"(Existing|"kept"="yes")", "Kept", "Shared", "Shared\\Foreign",
                     R"(Shared\Foreign|@="theirs")"}),
              Dump(HKEY_CURRENT_USER, kRoot));
    // Unregistering again finds nothing to do and is no error.
    EXPECT_EQ(S_OK, Run(body, false));
}
}  // namespace
