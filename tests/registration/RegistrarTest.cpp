// The registrar script engine on scripts under HKEY_CURRENT_USER, read back
// with the registry API.
#include <gtest/gtest.h>
#include "InstanceData/Registrar.h"
#include "RegistrySnapshot.h"

using namespace registry;

namespace
{
const std::string kRoot = "Software\\KorvoRegistrarTest";
const std::string kLongName(32, 'N');
const Lines kUntouched = {R"(Existing|"kept"="yes")"};

// body inside HKCU\Software\KorvoRegistrarTest, which the walks keep.
std::string InTestKey(const std::string& body)
{
    return "HKCU { NoRemove Software { NoRemove KorvoRegistrarTest { " + body + " } } }\r\n";
}

// Each test starts with a test key that holds only a value of a key of its own, which no script names.
class RegistrarScript : public testing::Test
{
protected:
    void SetUp() override
    {
        RegDeleteTreeA(HKEY_CURRENT_USER, kRoot.c_str());
        WriteString(HKEY_CURRENT_USER, kRoot + "\\Existing", "kept", "yes");
    }

    // With the replacement "Module" and one whose name is too long to be looked up.
    static HRESULT Run(const std::string& script, bool registerMode = true)
    {
        CRegistrar registrar;
        registrar.AddReplacement("Module", "C:\\It''s\\a.dll");
        registrar.AddReplacement(kLongName.c_str(), "never");
        return registrar.RunScript(script.c_str(), registerMode);
    }
};

// Replacements ignore case, keep their quotes and backslashes; "%%" is one percent sign.
TEST_F(RegistrarScript, ValuesOfEveryTypeAndReplacementsRoundTripAndUnregisterRemovesThem)
{
    const std::string script = InTestKey(
        "Values = s 'default text'\r\n{\r\n\tval Text = s 'It''s here'\r\n\tVAL Number = D '4294967295'\r\n"
        "\tval Small = d 123\r\n\tval Bytes = b '00ff10AB'\r\n\tval Empty = b ''\r\n\tval Upper = s '%MODULE%' "
        "val Lower = s '%module%' val Percent = s '100%%'\r\n\t'Quoted ''Name''' = s 'with spaces'\r\n\t'Val'\r\n}");
    ASSERT_EQ(S_OK, Run(script));
    EXPECT_EQ((Lines{R"(Values|@="default text")", R"(Values|"Text"="It's here")", R"(Values|"Number"=dword:ffffffff)",
                     R"(Values|"Small"=dword:0000007b)", R"(Values|"Bytes"=hex:00,ff,10,ab)", R"(Values|"Empty"=hex:)",
                     R"(Values|"Upper"="C:\\It's\\a.dll")", R"(Values|"Lower"="C:\\It's\\a.dll")",
                     R"(Values|"Percent"="100%")", R"(Values\Quoted 'Name'|@="with spaces")", R"(Values\Val)",
                     R"(Existing|"kept"="yes")"}),
              Dump(HKEY_CURRENT_USER, kRoot));

    ASSERT_EQ(S_OK, Run(script, false));
    EXPECT_EQ(kUntouched, Dump(HKEY_CURRENT_USER, kRoot));
}

// A failing root block is walked again in unregister mode up to where it
// stopped, which takes back what it had made.
TEST_F(RegistrarScript, FailingScriptsLeaveTheRegistryAsItWas)
{
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
        {"replacement name too long", InTestKey("A = s '%" + kLongName + "%'"), E_FAIL},
        {"not a root key", "HKXX { }", DISP_E_EXCEPTION},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.expected, Run(c.script));
        EXPECT_EQ(kUntouched, Dump(HKEY_CURRENT_USER, kRoot));
    }

    // Only the failing block is taken back.
    EXPECT_EQ(DISP_E_EXCEPTION, Run(InTestKey("First") + InTestKey("Second { val v = q 'x' }")));
    EXPECT_EQ((Lines{"First", R"(Existing|"kept"="yes")"}), Dump(HKEY_CURRENT_USER, kRoot));
}

TEST_F(RegistrarScript, ForceRemoveAndDeleteSpareClsidAndTypeLib)
{
    for (const char* stale : {"Force", "Force\\Stale", "Gone\\Child", "CLSID\\Keep", "TypeLib\\Keep"})
        WriteString(HKEY_CURRENT_USER, kRoot + "\\" + stale, "old", "1");
    ASSERT_EQ(S_OK, Run(InTestKey("ForceRemove Force { val v = s 'new' } Delete Gone = s 'ignored' After "
                                  "Delete Absent forceremove CLSID { val a = s 'b' } Delete typelib")));
    EXPECT_EQ((Lines{R"(Existing|"kept"="yes")", R"(Force|"v"="new")", "After", R"(CLSID|"a"="b")",
                     R"(CLSID\Keep|"old"="1")", R"(TypeLib\Keep|"old"="1")"}),
              Dump(HKEY_CURRENT_USER, kRoot));
}

TEST_F(RegistrarScript, UnregisterKeepsNoRemoveKeysAndKeysWithForeignSubkeys)
{
    const std::string script = InTestKey("noremove Kept { val v = s '1' Inner } Shared { Mine } "
                                         "Plain = s 'x' { val v = s '1' } Gone { Deeper { val x = s 'y' } }");
    ASSERT_EQ(S_OK, Run(script));
    WriteString(HKEY_CURRENT_USER, kRoot + "\\Shared\\Foreign", nullptr, "theirs");
    RegDeleteTreeA(HKEY_CURRENT_USER, (kRoot + "\\Gone").c_str());

    ASSERT_EQ(S_OK, Run(script, false));
    EXPECT_EQ((Lines{R"(Existing|"kept"="yes")", "Kept", R"(Shared\Foreign|@="theirs")"}),
              Dump(HKEY_CURRENT_USER, kRoot));
    // Unregistering again finds nothing to do and is no error.
    EXPECT_EQ(S_OK, Run(script, false));
}
}  // namespace
