// InstanceDataTool: looks into a store file, checks it, exports it to JSON
// and makes a new store file from JSON through the module.
#include <windows.h>
#include <ole2.h>
#include <shellapi.h>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>
#include "Tool/StoreImporter.h"
#include "Tool/StoreReader.h"

namespace
{
using Arguments = std::vector<std::wstring>;

void Print(FILE* out, const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), out);
}

// The readable tree: a value with its type on one line, objects and arrays
// indented below their key; an array item is headed by its name or id.
std::string ValueLine(const Json& value)
{
    std::string line = value["type"].is_string() ? value["type"].get<std::string>() : value["type"].dump();
    if (value.contains("class"))
        return line + " " + value["class"].get<std::string>() + " bytes " +
               (value["bytes"].get<std::string>().empty() ? "(none)" : value["bytes"].get<std::string>());
    return value.contains("value") ? line + " " + value["value"].dump() : line;
}

void Tree(const Json& json, const std::string& indent, std::string& out)
{
    for (auto item = json.begin(); item != json.end(); ++item)
    {
        const Json& value = item.value();
        std::string head = json.is_array() ? "-" : item.key() + ":";
        if (value.is_object() && value.contains("type"))
        {
            out += indent + head + " " + ValueLine(value) + "\n";
            continue;
        }
        if (!value.is_structured())
        {
            out += indent + head + " " + value.dump() + "\n";
            continue;
        }
        Json shown = value;
        for (const char* key : {"id", "name"})
            if (json.is_array() && value.is_object() && value.contains(key))
                head += " " + value[key].dump(), shown.erase(key);
        out += indent + head + (value.empty() ? " (none)\n" : "\n");
        Tree(shown, indent + "  ", out);
    }
}

struct Command
{
    const char* name;
    size_t fewest, most;   // arguments
    int refused;           // exit code of a wrong command line
    const char* usage;
    const char* help;
    int (*run)(const Arguments&);
};

std::string Narrow(const std::wstring& text)
{
    return Utf8(text.c_str());
}

// Reads the file for dump, check and export; 2 when it is not a store file.
int ReadStore(const std::wstring& path, StoreReader& reader)
{
    if (reader.ReadFile(path.c_str()) == StoreReader::Read)
        return 0;
    Print(stderr, Narrow(path) + " is not a store file: " + reader.NotAStoreReason() + "\n");
    return 2;
}

int UnreadableLines(const StoreReader& reader)
{
    for (const Finding& finding : reader.Findings())
        if (finding.unreadable)
            Print(stderr, "unreadable: " + finding.text + "\n");
    return reader.AnythingUnreadable() ? 1 : 0;
}

int Dump(const Arguments& args)
{
    const bool json = args[0] == L"--json";
    if (json != (args.size() == 2))
        return -1;
    StoreReader reader;
    if (const int code = ReadStore(args.back(), reader))
        return code;
    std::string text;
    if (json)
        text = reader.Content().dump(2) + "\n";
    else
        Tree(reader.Content(), "", text);
    Print(stdout, text);
    return UnreadableLines(reader);
}

int Check(const Arguments& args)
{
    StoreReader reader;
    if (const int code = ReadStore(args[0], reader))
        return code;
    for (const Finding& finding : reader.Findings())
        Print(stdout, finding.text + "\n");
    return reader.Findings().empty() ? 0 : 1;
}

int Export(const Arguments& args)
{
    StoreReader reader;
    if (const int code = ReadStore(args[0], reader))
        return code;
    std::ofstream out(args[1].c_str(), std::ios::binary);
    out << reader.Content().dump(2) << "\n";
    if (!out.flush())
        return Print(stderr, "cannot write " + Narrow(args[1]) + "\n"), 2;
    return UnreadableLines(reader);
}

int Import(const Arguments& args)
{
    std::ifstream in(args[0].c_str(), std::ios::binary);
    if (!in)
        return Print(stderr, "import refused: cannot read " + Narrow(args[0]) + "\n"), 1;
    Json content;
    try
    {
        content = Json::parse(in);
    }
    catch (const Json::parse_error& error)
    {
        // The library's message names the line and the column.
        return Print(stderr, "import refused: " + Narrow(args[0]) + ": " + error.what() + "\n"), 1;
    }
    std::string reason;
    std::vector<std::string> notes;
    if (FAILED(StoreImporter().Import(content, args[1].c_str(), reason, notes)))
        return Print(stderr, "import refused: " + reason + "\n"), 1;
    for (const std::string& note : notes)
        Print(stdout, "note: " + note + "\n");
    Print(stdout, "imported " + Narrow(args[0]) + " into " + Narrow(args[1]) + "\n");
    return 0;
}

const Command kCommands[] = {
    {"dump", 1, 2, 2, "dump [--json] FILE",
     "Prints the whole store as a tree (or with --json as JSON): the administration record, each instance\n"
     "with its lock count, descriptors, references up and down, parameters and groups. The file is opened\n"
     "read-only; what cannot be read is listed on the error output and the rest is still shown.\n"
     "Exit code: 0 read whole, 1 something unreadable, 2 not a store file.\n",
     Dump},
    {"check", 1, 1, 2, "check FILE",
     "Checks every rule the store relies on and prints one finding per line: counters behind the numbers in\n"
     "use, map entries without streams and streams without entries, stream heads of the wrong kind, version\n"
     "or name, group members that are not parameters, references whose other end does not exist or does not\n"
     "point back, unreadable streams, a file cut short inside a sector. The file is opened read-only.\n"
     "Exit code: 0 clean, 1 findings, 2 not a store file.\n",
     Check},
    {"export", 2, 2, 2, "export FILE OUT.json",
     "Writes the JSON of dump --json to OUT.json. Exit code as dump.\n", Export},
    {"import", 2, 2, 1, "import IN.json FILE",
     "Makes the new store file FILE with the content of IN.json through InstanceData.dll beside the tool,\n"
     "as a frame would. Instances, parameter and group streams keep their numbers. An existing FILE is\n"
     "refused; on failure nothing is left behind.\n"
     "Exit code: 0 done, 1 refused (the reason on the error output).\n",
     Import},
};

void Usage(FILE* out)
{
    Print(out, "InstanceDataTool: looks into an instance data store file, checks it, exports and imports it.\n\n"
               "usage: InstanceDataTool.exe COMMAND ARGUMENTS   (COMMAND --help for one command)\n");
    for (const Command& command : kCommands)
        Print(out, std::string("  ") + command.usage + "\n");
}
}  // namespace

int wmain(int argc, wchar_t** argv)
{
    const Arguments args(argv + 1, argv + argc);
    if (args.empty() || args[0] == L"--help" || args[0] == L"-h" || args[0] == L"help")
        return Usage(args.empty() ? stderr : stdout), args.empty() ? 2 : 0;
    for (const Command& command : kCommands)
    {
        if (Narrow(args[0]) != command.name)
            continue;
        const Arguments rest(args.begin() + 1, args.end());
        if (rest.size() == 1 && (rest[0] == L"--help" || rest[0] == L"-h"))
            return Print(stdout, std::string("usage: InstanceDataTool.exe ") + command.usage + "\n\n" + command.help), 0;
        const int refused = command.refused;
        if (rest.size() < command.fewest || rest.size() > command.most)
            return Print(stderr, std::string("usage: InstanceDataTool.exe ") + command.usage + "\n"), refused;
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        const int code = command.run(rest);
        CoUninitialize();
        if (code < 0)
            return Print(stderr, std::string("usage: InstanceDataTool.exe ") + command.usage + "\n"), refused;
        return code;
    }
    Print(stderr, "unknown command " + Narrow(args[0]) + "\n");
    Usage(stderr);
    return 2;
}
