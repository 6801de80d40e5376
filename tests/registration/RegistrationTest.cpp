// Self-registration of InstanceData.dll, the launch of FdtEnlist, and the
// store's Register and Unregister through the registration component. The
// registry is read back with the registry API.
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include "FdtCommon/FdtExtensions.h"
#include "RegistryDump.h"
#include "TestSupport.h"

using namespace registry_dump;

namespace
{
const std::string kClassKey = "CLSID\\{dccef494-6108-11d3-b23d-00c04f5124bf}";
const std::string kProgId = "Korvo.VQ.InstanceData.FbInstanceData.1";
const std::string kVersionIndependentProgId = "Korvo.VQ.InstanceData.FbInstanceData";
const std::string kTypeLibKey = "TypeLib\\{dccef493-6108-11d3-b23d-00c04f5124bf}";
#ifdef _WIN64
const std::string kTypeLibPlatform = "win64";
#else
const std::string kTypeLibPlatform = "win32";
#endif
const std::string kClassId = "{DCCEF494-6108-11D3-B23D-00C04F5124BF}";
const std::string kModuleListEntry = "Software\\Korvo\\FDT\\Modules\\" + kClassId;
const char kIsolatedRun[] = "REGISTRATION_TEST_ISOLATED";

std::string Narrow(const std::wstring& text)
{
    char buffer[MAX_PATH * 2] = {};
    WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, buffer, sizeof buffer, nullptr, nullptr);
    return buffer;
}

std::string ModulePath(HMODULE module)
{
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module, path, MAX_PATH);
    return path;
}

HRESULT CallExport(HMODULE module, const char* name)
{
    const auto function =
        reinterpret_cast<HRESULT(WINAPI*)()>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    return function ? function() : E_NOINTERFACE;
}

HRESULT RegisterServer(HMODULE module = ServerModule::Handle())
{
    return CallExport(module, "DllRegisterServer");
}

HRESULT UnregisterServer(HMODULE module = ServerModule::Handle())
{
    return CallExport(module, "DllUnregisterServer");
}

std::vector<std::string> SortedLines(std::vector<std::string> lines)
{
    std::sort(lines.begin(), lines.end());
    return lines;
}

// What the registrar script makes of the class key for the module at path.
std::vector<std::string> ExpectedClassKey(const std::string& path)
{
    const std::string& k = kClassKey;
    return SortedLines({k, k + "|=S:FbInstanceData Class", k + "\\ProgID", k + "\\ProgID|=S:" + kProgId,
                        k + "\\VersionIndependentProgID", k + "\\VersionIndependentProgID|=S:" + kVersionIndependentProgId,
                        k + "\\Programmable", k + "\\InprocServer32", k + "\\InprocServer32|=S:" + path,
                        k + "\\InprocServer32|ThreadingModel=S:Apartment", k + "\\TypeLib",
                        k + "\\TypeLib|=S:{dccef493-6108-11d3-b23d-00c04f5124bf}"});
}

std::string ReadModuleList(const char* name)
{
    std::string value;
    ReadString(HKEY_LOCAL_MACHINE, kModuleListEntry, name, value);
    return value;
}

std::vector<std::string> ReadLines(const std::wstring& file)
{
    std::vector<std::string> lines;
    std::ifstream in(Narrow(file));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> LoggedArguments(const std::wstring& file)
{
    std::vector<std::string> arguments;
    for (const std::string& line : ReadLines(file))
        if (line.compare(0, 5, "args ") == 0)
            arguments.push_back(line.substr(5));
    return arguments;
}

// An environment variable of this process (and so of the FdtEnlist it
// starts), removed again at the end of the scope.
class ScopedEnvironment
{
public:
    ScopedEnvironment(const char* name, const std::string& value) : m_name(name)
    {
        SetEnvironmentVariableA(name, value.c_str());
    }
    ~ScopedEnvironment() { SetEnvironmentVariableA(m_name, nullptr); }

private:
    const char* m_name;
};

// A file under testfiles that FdtEnlist logs its runs into.
class EnlistLog
{
public:
    explicit EnlistLog(const wchar_t* name)
        : m_path(TestFilesDirectory() + name), m_environment("FDTENLIST_LOG", Narrow(m_path))
    {
        DeleteFileW(m_path.c_str());
    }
    ~EnlistLog() { DeleteFileW(m_path.c_str()); }
    const std::wstring& Path() const { return m_path; }

private:
    std::wstring m_path;
    ScopedEnvironment m_environment;
};

// The stand-in registration component, registered while it lives.
class RegistrationComponent
{
public:
    RegistrationComponent() : m_module(LoadLibraryW((ProgramDirectory() + L"FdtRegisterComp.dll").c_str()))
    {
        EXPECT_EQ(S_OK, CallExport(m_module, "DllRegisterServer"));
    }
    ~RegistrationComponent()
    {
        CallExport(m_module, "DllUnregisterServer");
        FreeLibrary(m_module);
    }

    static void Unregister()
    {
        DeleteTree(HKEY_CLASSES_ROOT, "Korvo.VQ.FdtEnlist.FdtRegisterComp");
        DeleteTree(HKEY_CLASSES_ROOT, "CLSID\\{327AF1C4-36D2-4164-966B-3EE57B14E4ED}");
    }

private:
    HMODULE m_module;
};

// Leaves no trace of the server's registration and gives the type
// libraries back the registration that the test program started with.
void RemoveServerRegistration()
{
    for (const std::string& key : {kClassKey, kProgId, kVersionIndependentProgId, kTypeLibKey})
        DeleteTree(HKEY_CLASSES_ROOT, key);
    DeleteTree(HKEY_LOCAL_MACHINE, kModuleListEntry);
    for (const wchar_t* file : {L"FdtInterfaces.tlb", L"InstanceData.tlb"})
    {
        ITypeLib* library = nullptr;
        if (SUCCEEDED(LoadTypeLibEx((ProgramDirectory() + file).c_str(), REGKIND_REGISTER, &library)))
            library->Release();
    }
}

bool HasLine(const TraceCapture& trace, const std::string& line)
{
    const auto& lines = trace.Lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class SelfRegistration : public testing::Test
{
protected:
    void SetUp() override
    {
        RemoveServerRegistration();
        m_path = ModulePath(ServerModule::Handle());
    }
    void TearDown() override { RemoveServerRegistration(); }

    std::string m_path;
};

TEST_F(SelfRegistration, RegisterWritesExactlyTheTableAndEnlistsTheModule)
{
    RegistrationComponent component;
    TraceCapture trace;
    ASSERT_EQ(S_OK, RegisterServer());

    EXPECT_EQ(ExpectedClassKey(m_path), Dump(HKEY_CLASSES_ROOT, kClassKey));
    EXPECT_EQ(SortedLines({kProgId, kProgId + "|=S:FbInstanceData Class", kProgId + "\\CLSID",
                           kProgId + "\\CLSID|=S:{dccef494-6108-11d3-b23d-00c04f5124bf}"}),
              Dump(HKEY_CLASSES_ROOT, kProgId));
    const std::string& vi = kVersionIndependentProgId;
    EXPECT_EQ(SortedLines({vi, vi + "|=S:FbInstanceData Class", vi + "\\CLSID",
                           vi + "\\CLSID|=S:{dccef494-6108-11d3-b23d-00c04f5124bf}", vi + "\\CurVer",
                           vi + "\\CurVer|=S:" + kProgId}),
              Dump(HKEY_CLASSES_ROOT, vi));

    // The type library comes from the module file itself.
    std::string value;
    EXPECT_TRUE(ReadString(HKEY_CLASSES_ROOT, kTypeLibKey + "\\1.0\\0\\" + kTypeLibPlatform, nullptr, value));
    EXPECT_EQ(m_path, value);
    EXPECT_TRUE(ReadString(HKEY_CLASSES_ROOT, kTypeLibKey + "\\1.0\\HELPDIR", nullptr, value));
    EXPECT_EQ(m_path.substr(0, m_path.find_last_of('\\')), value.substr(0, value.find_last_not_of('\\') + 1));

    // FdtEnlist had the module describe itself to the registration component.
    EXPECT_EQ("instance data", ReadModuleList("Kind"));
    EXPECT_EQ(m_path, ReadModuleList("ModulePath"));
    EXPECT_EQ("VQ instance data", ReadModuleList("DisplayName"));
    EXPECT_TRUE(HasLine(trace, "Start FdtEnlist /i /" + kClassId + " /s (" + m_path + ")\n")) << trace.Text();
}

TEST_F(SelfRegistration, RegisteringTwiceLeavesOneSetWithoutStaleEntries)
{
    RegistrationComponent component;
    ASSERT_EQ(S_OK, RegisterServer());
    WriteString(HKEY_CLASSES_ROOT, kClassKey + "\\Stale", nullptr, "old");
    WriteString(HKEY_CLASSES_ROOT, kClassKey + "\\InprocServer32", "Stale", "old");
    ASSERT_EQ(S_OK, RegisterServer());
    EXPECT_EQ(ExpectedClassKey(m_path), Dump(HKEY_CLASSES_ROOT, kClassKey));
}

TEST_F(SelfRegistration, UnregisterRemovesTheScriptKeysButKeepsClsidAndForeignSubkeys)
{
    RegistrationComponent component;
    ASSERT_EQ(S_OK, RegisterServer());
    WriteString(HKEY_CLASSES_ROOT, kClassKey + "\\Foreign", nullptr, "theirs");
    TraceCapture trace;
    EXPECT_EQ(S_OK, UnregisterServer());

    EXPECT_EQ(SortedLines({kClassKey, kClassKey + "|=S:FbInstanceData Class", kClassKey + "\\Foreign",
                           kClassKey + "\\Foreign|=S:theirs"}),
              Dump(HKEY_CLASSES_ROOT, kClassKey));
    EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, "CLSID"));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, kProgId));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, kVersionIndependentProgId));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, kTypeLibKey));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kModuleListEntry));
    EXPECT_TRUE(HasLine(trace, "Start FdtEnlist /i /" + kClassId + " /s /u (" + m_path + ")\n")) << trace.Text();
}

TEST_F(SelfRegistration, UnregisteringWhatWasNeverRegisteredAnswersWhatFdtEnlistAnswers)
{
    EXPECT_EQ(S_OK, UnregisterServer());
    ScopedEnvironment failure("FDTENLIST_EXIT_CODE", "5");
    EXPECT_EQ(E_FAIL, UnregisterServer());
}

// Renames the resource type "TYPELIB" of a module file to "TYPELIX": its
// length-prefixed UTF-16 name in the resource directory.
bool HideTypeLib(const std::wstring& file)
{
    std::string bytes;
    {
        std::ifstream in(Narrow(file), std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    const std::string name("\x07\0T\0Y\0P\0E\0L\0I\0B\0", 16);
    const size_t at = bytes.find(name);
    if (at == std::string::npos || bytes.find(name, at + 1) != std::string::npos)
        return false;
    bytes[at + 14] = 'X';
    std::ofstream(Narrow(file), std::ios::binary | std::ios::trunc) << bytes;
    const HMODULE data = LoadLibraryExW(file.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    const bool hidden = data && !FindResourceW(data, MAKEINTRESOURCEW(1), L"TYPELIB") &&
                        FindResourceW(data, MAKEINTRESOURCEW(103), L"REGISTRY");
    FreeLibrary(data);
    return hidden;
}

// A copy of the server (with the toolkit beside it) in a folder of its own
// under testfiles, loaded while it lives.
class ServerCopy
{
public:
    explicit ServerCopy(const wchar_t* folder, bool withTypeLib = true)
        : m_directory(TestFilesDirectory() + folder + L"\\")
    {
        CreateDirectoryW(m_directory.c_str(), nullptr);
        for (const wchar_t* file : {L"InstanceData.dll", L"Pivka.dll"})
            EXPECT_TRUE(CopyFileW((ProgramDirectory() + file).c_str(), (m_directory + file).c_str(), FALSE));
        if (!withTypeLib)
        {
            EXPECT_TRUE(HideTypeLib(m_directory + L"InstanceData.dll"));
        }
        m_module =
            LoadLibraryExW((m_directory + L"InstanceData.dll").c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
        EXPECT_TRUE(m_module);
    }
    ~ServerCopy()
    {
        FreeLibrary(m_module);
        for (const wchar_t* file : {L"InstanceData.dll", L"Pivka.dll", L"InstanceData.tlb"})
            DeleteFileW((m_directory + file).c_str());
        RemoveDirectoryW(m_directory.c_str());
    }
    HMODULE Module() const { return m_module; }
    const std::wstring& Directory() const { return m_directory; }
    std::string Path() const { return ModulePath(m_module); }

private:
    std::wstring m_directory;
    HMODULE m_module = nullptr;
};

TEST_F(SelfRegistration, AModulePathWithASingleQuoteIsStoredSingle)
{
    ServerCopy copy(L"Korvo's server");
    ASSERT_TRUE(copy.Module());
    ASSERT_NE(std::string::npos, copy.Path().find("Korvo's server"));
    RegistrationComponent component;
    EXPECT_EQ(S_OK, RegisterServer(copy.Module()));
    EXPECT_EQ(ExpectedClassKey(copy.Path()), Dump(HKEY_CLASSES_ROOT, kClassKey));
    EXPECT_EQ(copy.Path(), ReadModuleList("ModulePath"));
    EXPECT_EQ(S_OK, UnregisterServer(copy.Module()));
}

TEST_F(SelfRegistration, TheTypeLibraryBesideTheModuleServesWhenTheModuleHasNone)
{
    ServerCopy copy(L"without typelib", false);
    ASSERT_TRUE(copy.Module());
    {
        // Neither in the module nor beside it: the error trace line, and no FdtEnlist.
        TraceCapture trace;
        const HRESULT hr = RegisterServer(copy.Module());
        EXPECT_TRUE(FAILED(hr));
        char line[64];
        snprintf(line, sizeof line, ") : error 0x%x: ", static_cast<unsigned>(hr));
        ASSERT_EQ(1u, trace.Lines().size()) << trace.Text();
        EXPECT_EQ(0u, trace.Lines()[0].find("InstanceData/InstanceData(")) << trace.Text();
        EXPECT_TRUE(trace.Contains(line)) << trace.Text();
    }
    const std::wstring library = copy.Directory() + L"InstanceData.tlb";
    ASSERT_TRUE(CopyFileW((ProgramDirectory() + L"InstanceData.tlb").c_str(), library.c_str(), FALSE));
    RegistrationComponent component;
    EXPECT_EQ(S_OK, RegisterServer(copy.Module()));
    std::string value;
    EXPECT_TRUE(ReadString(HKEY_CLASSES_ROOT, kTypeLibKey + "\\1.0\\0\\" + kTypeLibPlatform, nullptr, value));
    EXPECT_EQ(Narrow(library), value);
    EXPECT_EQ(S_OK, UnregisterServer(copy.Module()));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, kTypeLibKey));
}

TEST_F(SelfRegistration, AnFdtEnlistErrorExitCodeFailsRegistration)
{
    ScopedEnvironment failure("FDTENLIST_EXIT_CODE", "3");
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, RegisterServer());
    EXPECT_TRUE(HasLine(trace, "FdtEnlist exit code (3) indicates an error during registration of FDT module " +
                                   m_path + "\n"))
        << trace.Text();
    // Only the launcher reports it; the registry steps before it were done.
    EXPECT_FALSE(trace.Contains("InstanceData/InstanceData("));
    EXPECT_EQ(ExpectedClassKey(m_path), Dump(HKEY_CLASSES_ROOT, kClassKey));
}

// Opens the FdtEnlist process named by the log once it has started.
struct EnlistWatcher
{
    std::wstring log;
    HANDLE process = nullptr;

    static DWORD WINAPI Run(void* context)
    {
        auto* self = static_cast<EnlistWatcher*>(context);
        for (int attempt = 0; attempt < 180 && !self->process; ++attempt)
        {
            for (const std::string& line : ReadLines(self->log))
                if (line.compare(0, 4, "pid ") == 0)
                    self->process = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                                strtoul(line.c_str() + 4, nullptr, 10));
            if (!self->process)
                Sleep(50);
        }
        return 0;
    }
};

TEST_F(SelfRegistration, AnFdtEnlistThatDoesNotEndIsTerminatedWith999)
{
    EnlistLog log(L"enlist-hang.log");
    ScopedEnvironment delay("FDTENLIST_DELAY_MS", "60000");
    EnlistWatcher watcher{log.Path()};
    const HANDLE thread = CreateThread(nullptr, 0, &EnlistWatcher::Run, &watcher, 0, nullptr);
    ASSERT_TRUE(thread);
    TraceCapture trace;

    EXPECT_EQ(E_FAIL, RegisterServer());
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    EXPECT_TRUE(HasLine(trace, "FdtEnlist abnormally terminated during registration of FDT module " + m_path + "\n"))
        << trace.Text();
    ASSERT_TRUE(watcher.process);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(watcher.process, 5000));
    DWORD exitCode = 0;
    EXPECT_TRUE(GetExitCodeProcess(watcher.process, &exitCode));
    EXPECT_EQ(999u, exitCode);
    CloseHandle(watcher.process);
}

TEST_F(SelfRegistration, BothRegistrationPathsKeepOneModuleList)
{
    RegistrationComponent component;
    ComPtr<IFbInstanceData> store = CreateStore();
    ASSERT_TRUE(store);

    ASSERT_EQ(S_OK, RegisterServer());
    ASSERT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, kModuleListEntry));
    EXPECT_EQ(S_OK, store->Unregister());
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kModuleListEntry));

    ASSERT_EQ(S_OK, store->Register());
    ASSERT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, kModuleListEntry));
    EXPECT_EQ(S_OK, UnregisterServer());
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kModuleListEntry));
}

TEST(FdtRegisterModule, ArgumentsFollowTheKindAndTheRegisterFlag)
{
    EnlistLog log(L"enlist-arguments.log");
    ScopedEnvironment success("FDTENLIST_EXIT_CODE", "0");
    EXPECT_EQ(S_OK, FdtRegisterModule(CLSID_FbInstanceData, FdtModuleKindInstanceData, "C:\\m.dll", FALSE));
    EXPECT_EQ(S_OK, FdtRegisterModule(CLSID_FbInstanceData, FdtModuleKindDtm, "C:\\m.dll", TRUE));
    EXPECT_EQ(S_OK, FdtRegisterModule(CLSID_FbInstanceData, FdtModuleKindCommunication, "C:\\m.dll", TRUE));
    {
        TraceCapture trace;
        EXPECT_EQ(E_FAIL, FdtRegisterModule(CLSID_FbInstanceData, 3, "C:\\m.dll", TRUE));
        EXPECT_EQ(E_FAIL, FdtRegisterModule(CLSID_FbInstanceData, -1, "C:\\m.dll", TRUE));
        EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    }
    EXPECT_EQ((std::vector<std::string>{"FdtEnlist /i /" + kClassId + " /s /u", "FdtEnlist /d /" + kClassId + " /s",
                                        "FdtEnlist /c /" + kClassId + " /s"}),
              LoggedArguments(log.Path()));
}

TEST(LaunchEnlistServer, TheCommandLineIsCutAt259Characters)
{
    EnlistLog log(L"enlist-long.log");
    ScopedEnvironment success("FDTENLIST_EXIT_CODE", "0");
    const std::string arguments(300, 'a');
    TraceCapture trace;
    EXPECT_EQ(S_OK, LaunchEnlistServer("C:\\m.dll", arguments.c_str()));
    const std::string commandLine = ("FdtEnlist " + arguments).substr(0, 259);
    EXPECT_EQ(std::vector<std::string>{"Start " + commandLine + " (C:\\m.dll)\n"}, trace.Lines());
    EXPECT_EQ(std::vector<std::string>{commandLine}, LoggedArguments(log.Path()));
    EXPECT_EQ(E_POINTER, LaunchEnlistServer("C:\\m.dll", nullptr));
    EXPECT_EQ(E_POINTER, LaunchEnlistServer(nullptr, ""));
}

// FdtEnlist is found beside the program first; this test runs a copy of
// the program from a folder without it.
TEST(LaunchEnlistServer, AMissingProgramFailsAfterTheStartTrace)
{
    char resultFile[MAX_PATH];
    if (GetEnvironmentVariableA(kIsolatedRun, resultFile, MAX_PATH))
    {
        ASSERT_EQ(0u, SearchPathA(nullptr, "FdtEnlist.exe", nullptr, 0, nullptr, nullptr));
        TraceCapture trace;
        EXPECT_EQ(E_FAIL, LaunchEnlistServer("C:\\m.dll", "/i /{X} /s"));
        EXPECT_EQ(std::vector<std::string>{"Start FdtEnlist /i /{X} /s (C:\\m.dll)\n"}, trace.Lines());
        if (!testing::Test::HasFailure())
            std::ofstream(resultFile) << "passed";
        return;
    }

    const std::wstring directory = TestFilesDirectory() + L"isolated\\";
    CreateDirectoryW(directory.c_str(), nullptr);
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    const std::wstring program = directory + L"RegistrationTest.exe";
    ASSERT_TRUE(CopyFileW(self, program.c_str(), FALSE));
    ASSERT_TRUE(CopyFileW((ProgramDirectory() + L"Pivka.dll").c_str(), (directory + L"Pivka.dll").c_str(), FALSE));
    const std::wstring result = directory + L"result.txt";
    DeleteFileW(result.c_str());

    ScopedEnvironment isolated(kIsolatedRun, Narrow(result));
    std::wstring commandLine =
        L"\"" + program + L"\" --gtest_filter=LaunchEnlistServer.AMissingProgramFailsAfterTheStartTrace";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    ASSERT_TRUE(CreateProcessW(program.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr,
                               directory.c_str(), &startup, &process));
    CloseHandle(process.hThread);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(process.hProcess, 120000));
    DWORD exitCode = 1;
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hProcess);
    EXPECT_EQ(0u, exitCode);
    EXPECT_EQ(std::vector<std::string>{"passed"}, ReadLines(result));

    for (const std::wstring& file : {program, directory + L"Pivka.dll", result})
        DeleteFileW(file.c_str());
    RemoveDirectoryW(directory.c_str());
}

// The version strings as the module's version resource holds them.
struct VersionStrings
{
    std::string company, version, buildTime;
};

VersionStrings ReadVersionResource(const std::string& path)
{
    VersionStrings strings;
    DWORD handle = 0;
    std::vector<char> data(GetFileVersionInfoSizeA(path.c_str(), &handle));
    if (data.empty() || !GetFileVersionInfoA(path.c_str(), 0, static_cast<DWORD>(data.size()), data.data()))
        return strings;
    char* text = nullptr;
    UINT length = 0;
    if (VerQueryValueA(data.data(), "\\StringFileInfo\\040904b0\\CompanyName", reinterpret_cast<void**>(&text), &length))
        strings.company = text;
    if (VerQueryValueA(data.data(), "\\StringFileInfo\\040904b0\\BuildTime", reinterpret_cast<void**>(&text), &length))
        strings.buildTime = text;
    VS_FIXEDFILEINFO* fixed = nullptr;
    if (VerQueryValueA(data.data(), "\\", reinterpret_cast<void**>(&fixed), &length))
    {
        std::ostringstream version;
        version << HIWORD(fixed->dwFileVersionMS) << '.' << LOWORD(fixed->dwFileVersionMS);
        if (fixed->dwFileVersionLS)
            version << '.' << HIWORD(fixed->dwFileVersionLS) << '.' << LOWORD(fixed->dwFileVersionLS);
        strings.version = version.str();
    }
    return strings;
}

std::string PropertyText(IFdtInstanceDataInfo* info, HRESULT (STDMETHODCALLTYPE IFdtInstanceDataInfo::*getter)(BSTR*))
{
    BSTR text = nullptr;
    EXPECT_EQ(S_OK, (info->*getter)(&text));
    const std::string result = Narrow(text ? text : L"");
    SysFreeString(text);
    return result;
}

class StoreRegistration : public testing::Test
{
protected:
    void SetUp() override { DeleteTree(HKEY_LOCAL_MACHINE, kModuleListEntry); }
    void TearDown() override { DeleteTree(HKEY_LOCAL_MACHINE, kModuleListEntry); }
};

TEST_F(StoreRegistration, WithoutTheRegistrationComponentTheCreationFailureIsTheResult)
{
    RegistrationComponent::Unregister();
    ComPtr<IFbInstanceData> store = CreateStore();
    ASSERT_TRUE(store);
    EXPECT_EQ(REGDB_E_CLASSNOTREG, store->Register());
    EXPECT_EQ(REGDB_E_CLASSNOTREG, store->Unregister());
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kModuleListEntry));
}

TEST_F(StoreRegistration, RegisterHandsTheModuleDescriptionToTheComponent)
{
    RegistrationComponent component;
    ComPtr<IFbInstanceData> store = CreateStore();
    ASSERT_TRUE(store);
    ASSERT_EQ(S_OK, store->Register());

    const VersionStrings expected = ReadVersionResource(ModulePath(ServerModule::Handle()));
    EXPECT_FALSE(expected.company.empty());
    EXPECT_FALSE(expected.buildTime.empty());
    EXPECT_EQ("DVL/QTS-WMR-VQ_INSTANCEDATA", ReadModuleList("Name"));
    EXPECT_EQ("VQ instance data", ReadModuleList("DisplayName"));
    EXPECT_EQ("all instruments instance data", ReadModuleList("Description"));
    EXPECT_EQ(expected.company, ReadModuleList("Vendor"));
    EXPECT_EQ(expected.version, ReadModuleList("Version"));
    EXPECT_EQ(expected.buildTime, ReadModuleList("BuildTime"));

    // The component's own view of the list.
    CLSID clsid;
    ASSERT_EQ(S_OK, CLSIDFromProgID(L"Korvo.VQ.FdtEnlist.FdtRegisterComp", &clsid));
    ComPtr<IFbModuleRegistry> registry;
    ASSERT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IFbModuleRegistry,
                                     reinterpret_cast<void**>(registry.GetAddressOf())));
    VARIANT_BOOL registered = VARIANT_FALSE;
    EXPECT_EQ(S_OK, registry->IsRegistered(_bstr_t(L"{dccef494-6108-11d3-b23d-00c04f5124bf}"), &registered));
    EXPECT_EQ(VARIANT_TRUE, registered);
    ComPtr<IFdtInstanceDataInfo> info;
    ASSERT_EQ(S_OK, registry->GetModuleInfo(_bstr_t(kClassId.c_str()), info.GetAddressOf()));
    EXPECT_EQ("VQ instance data", PropertyText(info.Get(), &IFdtInstanceDataInfo::get_m_displayName));
    EXPECT_EQ(expected.version, PropertyText(info.Get(), &IFdtInstanceDataInfo::get_m_version));

    // Late-bound, as a frame's script would.
    ComPtr<IDispatch> dispatch;
    ASSERT_EQ(S_OK, store.As(&dispatch));
    DISPPARAMS none = {};
    VARIANT result;
    VariantInit(&result);
    EXPECT_EQ(S_OK, dispatch->Invoke(2, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, &result, nullptr,
                                     nullptr));
    EXPECT_EQ(S_OK, registry->IsRegistered(_bstr_t(kClassId.c_str()), &registered));
    EXPECT_EQ(VARIANT_FALSE, registered);
    // The component's answer for a module it does not know comes back unchanged.
    EXPECT_EQ(S_FALSE, store->Unregister());
}
}  // namespace
