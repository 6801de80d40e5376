#pragma once
// Support for tests that drive InstanceData.dll as a frame would.
#include <windows.h>
#include <ole2.h>
#include <comutil.h>
#include <wrl/client.h>
#include <string>
#include <vector>
#include "FdtInterfaces.h"
#include "InstanceDataLib.h"

using Microsoft::WRL::ComPtr;

namespace testing_support
{
// InstanceData.dll loaded once per test program, reached through its exports.
struct ServerModule
{
    static HMODULE Handle();
    static HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** object);
    static HRESULT CanUnloadNow();
};

// The store object through DllGetClassObject and IClassFactory::CreateInstance.
ComPtr<IFbInstanceData> CreateStore();

// Directory of the test program (and of every built binary), with a trailing backslash.
std::wstring ProgramDirectory();
// build/<arch>/testfiles, where store files of the tests are written.
std::wstring TestFilesDirectory();

// A store file path under testfiles that does not exist yet; removed again
// on destruction unless Keep() was called.
class TempStoreFile
{
public:
    explicit TempStoreFile(const wchar_t* name);
    ~TempStoreFile();
    const wchar_t* Path() const { return m_path.c_str(); }
    BSTR Bstr() const { return m_bstr; }
    void Keep() { m_keep = true; }

private:
    std::wstring m_path;
    _bstr_t m_bstr;
    bool m_keep = false;
};

// The store with the file open: store, its manager interface and the root
// storage that the frame holds.
struct OpenStore
{
    ComPtr<IFbInstanceData> store;
    ComPtr<IInstanceDataMgr> manager;
    ComPtr<IStorage> root;

    // Opens (or creates) path; fails the current test on error.
    static OpenStore At(BSTR path);
    // Commits the root storage as a frame does before it closes the file.
    void Commit();
};

// Collects the trace entries written while it lives.
class TraceCapture
{
public:
    TraceCapture();
    ~TraceCapture();
    const std::vector<std::string>& Lines() const { return m_lines; }
    const std::vector<DWORD>& Levels() const { return m_levels; }
    std::string Text() const;
    bool Contains(const std::string& text) const;
    // Number of entries that contain text.
    size_t Count(const std::string& text) const;
    void Clear();

private:
    static void OnTrace(void* context, DWORD level, const char* text);
    std::vector<std::string> m_lines;
    std::vector<DWORD> m_levels;
};

// Array helpers for tests.
SAFEARRAY* MakeBstrArray(const std::vector<std::wstring>& items, LONG lowerBound = 0);
std::vector<std::wstring> ReadBstrArray(SAFEARRAY* array);
// DllCanUnloadNow answers S_OK: no client reference, data object or server lock is left.
bool ModuleCanUnload();

// Reads a whole stream of a storage path like L"1/instance" (sub-storages
// separated by '/') from a file that is not open elsewhere.
std::vector<unsigned char> ReadStreamBytes(const wchar_t* file, const wchar_t* path);
}  // namespace testing_support

using namespace testing_support;
