// InstanceDataTool.exe run as a user runs it: one table of cases per command.
// Store files come from the demo frame and from importing every_type.json.
#include <fstream>
#include <functional>
#include <string>
#include <nlohmann/json.hpp>
#include "DamagedCopies.h"
#include "TestSupport.h"

using Json = nlohmann::ordered_json;
using Text = std::string;

namespace
{
// Each file of this program under testfiles, named after the test.
std::wstring File(const std::wstring& name)
{
    return TestFilesDirectory() + TestName() + L"-" + name;
}

struct Outcome
{
    DWORD code;
    std::string out;   // standard output and error together
};

// The tool (or another program of the build folder) with its arguments.
Outcome Tool(const std::wstring& arguments, const wchar_t* program = L"InstanceDataTool.exe")
{
    const std::wstring output = File(L"output.txt");
    const DWORD code = RunProgram(L"\"" + ProgramDirectory() + program + L"\" " + arguments, nullptr, output.c_str());
    return {code, FileText(output)};
}

std::wstring Quote(const std::wstring& path)
{
    return L"\"" + path + L"\"";
}

// A fresh store file: the demo session's or every_type.json imported.
std::wstring Store(const std::wstring& name, bool demo)
{
    const std::wstring path = File(name);
    DeleteFileW(path.c_str());
    const Outcome made = demo ? Tool(Quote(path), L"DemoFrame.exe")
                          : Tool(L"import " + Quote(ProgramDirectory() + L"every_type.json") + L" " + Quote(path));
    EXPECT_EQ(0u, made.code) << made.out;
    return path;
}

Json Exported(const std::wstring& store, const std::wstring& name)
{
    const std::wstring out = File(name);
    const Outcome run = Tool(L"export " + Quote(store) + L" " + Quote(out));
    EXPECT_EQ(0u, run.code) << run.out;
    return Json::parse(FileText(out), nullptr, false);
}

// Changes the first occurrence of a UTF-16 text in the bytes.
std::function<void(Text&)> Rename(const std::wstring& from, const std::wstring& to)
{
    return [=](Text& bytes) {
        const Text wideFrom(reinterpret_cast<const char*>(from.data()), from.size() * 2);
        const size_t at = bytes.find(wideFrom);
        ASSERT_NE(Text::npos, at);
        bytes.replace(at, wideFrom.size(), reinterpret_cast<const char*>(to.data()), to.size() * 2);
    };
}

std::function<void(Text&)> SetDword(size_t offset, DWORD value)
{
    return [=](Text& bytes) { std::memcpy(&bytes[offset], &value, sizeof value); };
}

TEST(ToolImport, RoundTripsGiveTheSameJson)
{
    const struct
    {
        const wchar_t* name;
        bool demo;
    } cases[] = {{L"demo.stg", true}, {L"every.stg", false}};
    for (const auto& c : cases)
    {
        const std::wstring first = Store(c.name, c.demo);
        EXPECT_EQ(0u, Tool(L"check " + Quote(first)).code);
        const Json exported = Exported(first, std::wstring(c.name) + L".json");
        const std::wstring second = File(std::wstring(L"again-") + c.name);
        DeleteFileW(second.c_str());
        const Outcome imported = Tool(L"import " + Quote(File(std::wstring(c.name) + L".json")) + L" " + Quote(second));
        ASSERT_EQ(0u, imported.code) << imported.out;
        EXPECT_EQ(exported.dump(), Exported(second, L"again.json").dump());
        if (!c.demo)
        {
            EXPECT_EQ(Json::parse(FileText(ProgramDirectory() + L"every_type.json")).dump(), exported.dump());
        }
    }
}

TEST(ToolImport, RefusalsLeaveNoFile)
{
    const struct
    {
        const char* json;
        bool existing;
        const char* reason;
    } cases[] = {
        {"{\"instances\": [\n  {\"id\": \"1\",}\n]}", false, "line 2, column"},
        {"{\"instances\": []}", true, "exists already"},
        {"{\"instances\": [{\"id\": \"one\"}]}", false, "not an instance number"},
        {"{\"instances\": [{\"id\": \"1\", \"dtm\": {\"category\": 1}}]}", false, "must be a whole number"},
        {"{\"instances\": [{\"id\": \"1\", \"dtm\": {\"category\": 0, \"classification\": 0, \"device\": \"\", "
         "\"node\": \"\", \"application\": 0, \"language\": 0}, \"comm\": {\"category\": 0, \"name\": \"\"}, "
         "\"parameters\": [{\"name\": \"P\", \"stream\": 0, \"value\": {\"type\": \"VT_NULL\"}}]}]}",
         false, "cannot be stored"},
    };
    const std::wstring in = File(L"refused.json"), out = File(L"refused.stg");
    for (const auto& c : cases)
    {
        std::ofstream(in.c_str(), std::ios::binary) << c.json;
        DeleteFileW(out.c_str());
        if (c.existing)
            std::ofstream(out.c_str()) << "kept";
        const Outcome run = Tool(L"import " + Quote(in) + L" " + Quote(out));
        EXPECT_EQ(1u, run.code) << c.json;
        EXPECT_NE(std::string::npos, run.out.find(c.reason)) << run.out;
        EXPECT_EQ(c.existing ? "kept" : "", FileText(out));
        EXPECT_EQ(c.existing, GetFileAttributesW(out.c_str()) != INVALID_FILE_ATTRIBUTES);
    }
}

TEST(ToolCheck, FindsEachKindOfDamage)
{
    const struct
    {
        const wchar_t* stream;
        std::function<void(Text&)> change;
        const char* finding;   // nullptr: the file as the module wrote it
    } cases[] = {
        {nullptr, nullptr, nullptr},
        {L"admin", SetDword(4, 4), "next instance number 4 is not above instance 4"},
        {L"4/map", SetDword(4, 7), "next stream number 7 is not above stream 7"},
        {L"4/7", nullptr, "parameter \"Both\": map entry without stream 7"},
        {L"4/9", [](Text& b) { b = "x"; }, "instance 4: stream 9 without map entry"},
        {L"4/dtm", SetDword(0, 2), "stream \"dtm\" has another version than 1"},
        {L"2/0", SetDword(4, 1), "parameter \"Fixed\" (stream 0) is not a parameter stream"},
        {L"2/1", Rename(L"Short", L"Shirt"), "holds the name \"Shirt\""},
        {L"2/3", Rename(L"Short", L"Sport"), "member \"Sport\" is not a parameter"},
        {L"4/instance", Rename(L"2", L"3"), "super instance 3 does not exist"},
        {L"2/instance", Rename(L"Channel1", L"Channel2"), "sub-instance 4 does not name it as super instance"},
        {L"4/map", [](Text& b) { b.resize(10); }, "stream \"map\" ends within its record"},
    };
    for (const auto& c : cases)
    {
        const std::wstring store = Store(L"damaged.stg", false);
        if (c.stream)
        {
            ASSERT_HRESULT_SUCCEEDED(damaged_copies::ChangeStream(store.c_str(), c.stream, c.change));
        }
        const Outcome run = Tool(L"check " + Quote(store));
        EXPECT_EQ(c.finding ? 1u : 0u, run.code) << run.out;
        EXPECT_TRUE(c.finding ? run.out.find(c.finding) != std::string::npos : run.out.empty()) << run.out;
    }
}

TEST(ToolDump, ExitCodesAndTheFileUnchanged)
{
    const std::wstring good = Store(L"dump.stg", false);
    const std::wstring damaged = Store(L"dump-damaged.stg", false);
    ASSERT_HRESULT_SUCCEEDED(damaged_copies::ChangeStream(damaged.c_str(), L"2/dtm", [](Text& b) { b.resize(7); }));
    const std::wstring text = File(L"not-a-store.stg"), cut = File(L"cut.stg"), stump = File(L"stump.stg");
    std::ofstream(text.c_str()) << "plain text";
    const Text whole = FileText(good);   // cut inside its last sector, or far before
    std::ofstream(cut.c_str(), std::ios::binary) << whole.substr(0, whole.size() - 1);
    std::ofstream(stump.c_str(), std::ios::binary) << whole.substr(0, whole.size() - 4000);
    const std::wstring out = Quote(File(L"dump-out.json"));
    const struct
    {
        std::wstring command;
        const std::wstring* file;
        DWORD code;
        const char* shown;
    } cases[] = {
        {L"dump", &good, 0, "- \"4\""},
        {L"dump --json", &good, 0, "\"VT_DECIMAL\""},
        {L"dump", &damaged, 1, "unreadable: instance 2: stream \"dtm\" ends within its record"},
        {L"dump --json", &damaged, 1, "\"Numbers\""},
        {L"export", &damaged, 1, "unreadable:"},
        {L"check", &damaged, 1, "ends within its record"},
        {L"dump", &text, 2, "not a store file"},
        {L"export", &text, 2, "not a store file"},
        {L"check", &text, 2, "not a store file"},
        {L"check", &cut, 1, "file: cut short inside a sector; the store does not open it"},
        {L"dump", &stump, 2, "not a store file: it is cut short inside a sector"},
    };
    for (const auto& c : cases)
    {
        const Text before = FileText(*c.file);
        const Outcome run = Tool(c.command + L" " + Quote(*c.file) + (c.command == L"export" ? L" " + out : L""));
        EXPECT_EQ(c.code, run.code) << run.out;
        EXPECT_NE(std::string::npos, run.out.find(c.shown)) << run.out;
        EXPECT_EQ(before, FileText(*c.file));
    }
    // Every kind of damage of the data-safety generator: one of the exit codes
    // (never a crash), and the copy as it was.
    const std::wstring copy = File(L"copy.stg");
    for (unsigned seed = 0; seed < damaged_copies::DamageKindCount(); ++seed)
    {
        std::string description;
        ASSERT_HRESULT_SUCCEEDED(damaged_copies::MakeDamagedCopy(good.c_str(), copy.c_str(), seed, description));
        const Text before = FileText(copy);
        for (const wchar_t* command : {L"dump ", L"check "})
        {
            const Outcome run = Tool(command + Quote(copy));
            EXPECT_LE(run.code, 2u) << description << "\n" << run.out;
            EXPECT_EQ(before, FileText(copy)) << description;
        }
    }
    EXPECT_EQ(0u, Tool(L"--help").code);
    EXPECT_NE(std::string::npos, Tool(L"import --help").out.find("usage: InstanceDataTool.exe import IN.json FILE"));
}
}  // namespace
