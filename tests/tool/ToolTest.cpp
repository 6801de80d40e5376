// InstanceDataTool.exe run as a user runs it: round trips, and one table of cases for all commands.
// Store files come from the demo frame and from importing every_type.json.
#include <fstream>
#include <functional>
#include <string>
#include <nlohmann/json.hpp>
#include "DamagedCopies.h"
#include "TestSupport.h"

using Json = nlohmann::ordered_json;
using Text = std::string;
using Args = std::vector<std::wstring>;

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

// The tool (or another program of the build folder), each argument quoted.
Outcome Tool(const Args& arguments, const wchar_t* program = L"InstanceDataTool.exe")
{
    std::wstring line = L"\"" + ProgramDirectory() + program + L"\"";
    for (const std::wstring& argument : arguments)
        line += L" \"" + argument + L"\"";
    const std::wstring output = File(L"output.txt");
    return {RunProgram(line, nullptr, output.c_str()), FileText(output)};   // in this order
}

// A fresh store file: the demo session's or every_type.json imported.
std::wstring Store(const std::wstring& name, bool demo = false)
{
    const std::wstring path = File(name);
    DeleteFileW(path.c_str());
    const Outcome made = demo ? Tool({path}, L"DemoFrame.exe")
                              : Tool({L"import", ProgramDirectory() + L"every_type.json", path});
    EXPECT_EQ(0u, made.code) << made.out;
    return path;
}

// Changes the first occurrence of a UTF-16 text in the bytes.
std::function<void(Text&)> Rename(const std::wstring& from, const std::wstring& to)
{
    return [=](Text& bytes) {
        const size_t at = bytes.find(Text(reinterpret_cast<const char*>(from.data()), from.size() * 2));
        ASSERT_NE(Text::npos, at);
        bytes.replace(at, from.size() * 2, reinterpret_cast<const char*>(to.data()), to.size() * 2);
    };
}

std::function<void(Text&)> SetDword(size_t offset, DWORD value)
{
    return [=](Text& bytes) { std::memcpy(&bytes[offset], &value, sizeof value); };
}

// Store, export, import the export and export again: the same JSON, and for
// every_type.json the file imported.
TEST(ToolImport, RoundTripsGiveTheSameJson)
{
    for (const bool demo : {true, false})
    {
        const std::wstring first = Store(demo ? L"demo.stg" : L"every.stg", demo), json = first + L".json";
        const std::wstring second = File(L"again.stg"), again = second + L".json";
        DeleteFileW(second.c_str());
        for (const Args& command : {Args{L"check", first}, Args{L"export", first, json}, Args{L"import", json, second},
                                    Args{L"export", second, again}})
        {
            const Outcome run = Tool(command);
            EXPECT_EQ(0u, run.code) << run.out;
        }
        EXPECT_EQ(FileText(json), FileText(again));
        if (!demo)
        {
            EXPECT_EQ(Json::parse(FileText(ProgramDirectory() + L"every_type.json")), Json::parse(FileText(json)));
        }
    }
}

// Each command on the imported store, changed in one stream or as a whole file:
// its exit code and output (check: one finding), the file left as it was and
// no file made by a refused import.
TEST(ToolCommands, ExitCodesFindingsAndTheFilesUnchanged)
{
    const std::wstring store = Store(L"in.stg"), file = File(L"case"), out = File(L"out"), fresh = File(L"new");
    const auto cut = [](size_t size) { return [=](Text& b) { b.resize(b.size() - size); }; };
    const auto content = [](const char* text) { return [=](Text& b) { b = text; }; };
    const auto shortDtm = [](Text& b) { b.resize(7); };
    const Args check = {L"check", file}, dump = {L"dump", file}, json = {L"dump", L"--json", file};
    const Args exported = {L"export", file, out}, importing = {L"import", file, fresh};
    const struct
    {
        Args command;
        const wchar_t* stream;   // nullptr: the change is to the whole file
        std::function<void(Text&)> change;
        DWORD code;
        const char* shown;   // nullptr: nothing at all
    } cases[] = {
        {check, nullptr, nullptr, 0, nullptr},
        {check, L"admin", SetDword(4, 4), 1, "next instance number 4 is not above instance 4"},
        {check, L"4/map", SetDword(4, 7), 1, "next stream number 7 is not above stream 7"},
        {check, L"4/7", nullptr, 1, "parameter \"Both\": map entry without stream 7"},
        {check, L"4/9", content("x"), 1, "instance 4: stream 9 without map entry"},
        {check, L"4/dtm", SetDword(0, 2), 1, "stream \"dtm\" has another version than 1"},
        {check, L"2/0", SetDword(4, 1), 1, "parameter \"Fixed\" (stream 0) is not a parameter stream"},
        {check, L"2/1", Rename(L"Short", L"Shirt"), 1, "holds the name \"Shirt\""},
        {check, L"2/3", Rename(L"Short", L"Sport"), 1, "member \"Sport\" is not a parameter"},
        {check, L"4/instance", Rename(L"2", L"3"), 1, "super instance 3 does not exist"},
        {check, L"2/instance", Rename(L"Channel1", L"Channel2"), 1,
         "sub-instance 4 does not name it as super instance"},
        {check, L"4/map", [](Text& b) { b.resize(10); }, 1, "stream \"map\" ends within its record"},
        {check, L"2/dtm", shortDtm, 1, "ends within its record"},
        {check, nullptr, cut(1), 1, "file: cut short inside a sector; the store does not open it"},
        {dump, nullptr, nullptr, 0, "- \"4\""},
        {json, nullptr, nullptr, 0, "\"VT_DECIMAL\""},
        {dump, L"2/dtm", shortDtm, 1, "unreadable: instance 2: stream \"dtm\" ends within its record"},
        {json, L"2/dtm", shortDtm, 1, "\"Numbers\""},
        {exported, L"2/dtm", shortDtm, 1, "unreadable:"},
        {dump, nullptr, cut(4000), 2, "not a store file: it is cut short inside a sector"},
        {dump, nullptr, content("plain text"), 2, "not a store file"},
        {exported, nullptr, content("plain text"), 2, "not a store file"},
        {check, nullptr, content("plain text"), 2, "not a store file"},
        {importing, nullptr, content("{\"instances\": [\n  {\"id\": \"1\",}\n]}"), 1, "line 2, column"},
        {{L"import", ProgramDirectory() + L"every_type.json", file}, nullptr, nullptr, 1, "exists already"},
        {importing, nullptr, content(R"({"instances": [{"id": "one"}]})"), 1, "not an instance number"},
        {importing, nullptr, content(R"({"instances": [{"id": "1", "dtm": {"category": 1}}]})"), 1,
         "must be a whole number"},
        {importing, nullptr,
         content(R"({"instances": [{"id": "1", "dtm": {"category": 0, "classification": 0, "device": "", "node": "", )"
                 R"("application": 0, "language": 0}, "comm": {"category": 0, "name": ""}, "parameters": )"
                 R"([{"name": "P", "stream": 0, "value": {"type": "VT_NULL"}}]}]})"),
         1, "cannot be stored"},
    };
    for (const auto& c : cases)
    {
        Text bytes = FileText(store);
        if (!c.stream && c.change)
            c.change(bytes);
        std::ofstream(file.c_str(), std::ios::binary) << bytes;
        ASSERT_HRESULT_SUCCEEDED(c.stream ? damaged_copies::ChangeStream(file.c_str(), c.stream, c.change) : S_OK);
        const Text before = FileText(file);
        DeleteFileW(fresh.c_str());
        const Outcome run = Tool(c.command);
        EXPECT_EQ(c.code, run.code) << run.out;
        EXPECT_TRUE(c.shown ? run.out.find(c.shown) != Text::npos : run.out.empty()) << run.out;
        EXPECT_TRUE(before == FileText(file)) << "the file changed";
        EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(fresh.c_str())) << "a refused import left a file";
    }
    // Every kind of damage of the data-safety generator: one of the exit codes
    // (never a crash), and the copy as it was.
    for (unsigned seed = 0; seed < damaged_copies::DamageKindCount(); ++seed)
    {
        std::string description;
        ASSERT_HRESULT_SUCCEEDED(damaged_copies::MakeDamagedCopy(store.c_str(), file.c_str(), seed, description));
        const Text before = FileText(file);
        for (const wchar_t* command : {L"dump", L"check"})
        {
            const Outcome run = Tool({command, file});
            EXPECT_LE(run.code, 2u) << description << "\n" << run.out;
            EXPECT_EQ(before, FileText(file)) << description;
        }
    }
    EXPECT_EQ(0u, Tool({L"--help"}).code);
    EXPECT_NE(Text::npos, Tool({L"import", L"--help"}).out.find("usage: InstanceDataTool.exe import IN.json FILE"));
}
}  // namespace
