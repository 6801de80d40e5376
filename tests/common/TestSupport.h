#pragma once
// InstanceData.dll through its exports, a store file per test as a frame
// opens it, stream bytes, arrays and the trace.
#include <gtest/gtest.h>
#include <windows.h>
#include <ole2.h>
#include <comutil.h>
#include <wrl/client.h>
#include <string>
#include <vector>
#include "FdtInterfaces.h"
#include "InstanceDataLib.h"
#include "PK_Trace.h"
#include "demo/FrameObjects.h"

using Microsoft::WRL::ComPtr;
typedef std::vector<unsigned char> Bytes;
typedef std::vector<std::wstring> Names;
typedef std::vector<_variant_t> Values;
using frame::CommunicationDescriptor;
using frame::DtmDescriptor;
using frame::ParameterDescription;

// InstanceData.dll loaded once per test program, reached through its exports.
struct ServerModule
{
    static HMODULE Handle();
    static HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** object);
    static HRESULT CanUnloadNow();
};

// For a frame object's beforeGet: the getter of property fails with E_ACCESSDENIED.
inline std::function<HRESULT(const char*)> FailingGetter(std::string property)
{
    return [=](const char* name) { return property == name ? E_ACCESSDENIED : S_OK; };
}

// The store object through the class factory; null on failure (no assertion: worker threads call it too).
ComPtr<IFbInstanceData> CreateStore();
// Directory of the test program (and of every built binary), with a trailing backslash.
std::wstring ProgramDirectory();
// build/<arch>/testfiles, where the tests write their files (python checks read them too).
std::wstring TestFilesDirectory();
// "<suite>-<test>" of the running test, for file names of its own.
std::wstring TestName();
// The bytes of a file; "" when it cannot be read.
std::string FileText(const std::wstring& path);

// A program run to its end as a command line runs it: its exit code, or 0xFFFFFFFF when it did not start or
// end within two minutes. directory null: this one; output: a file for its standard output and error.
DWORD RunProgram(std::wstring commandLine, const wchar_t* directory = nullptr, const wchar_t* output = nullptr);
// A program of the system directory, quoted for a command line.
std::wstring SystemProgram(const wchar_t* name);

// Collects the trace entries written while it lives.
class TraceCapture
{
public:
    TraceCapture();
    ~TraceCapture();
    const std::vector<std::string>& Lines() const { return m_lines; }
    const std::vector<DWORD>& Levels() const { return m_levels; }
    std::string Text() const;
    bool Contains(const std::string& text) const { return Count(text) > 0; }
    size_t Count(const std::string& text) const;   // entries that contain text

private:
    static void OnTrace(void* context, DWORD level, const char* text);
    std::vector<std::string> m_lines;
    std::vector<DWORD> m_levels;
};

// Stream contents field by field, in the store's encodings.
struct ByteBuilder
{
    Bytes bytes;
    ByteBuilder& Raw(const void* data, size_t size);
    ByteBuilder& U8(BYTE value) { return Raw(&value, 1); }
    ByteBuilder& U16(WORD value) { return Raw(&value, 2); }
    ByteBuilder& U32(DWORD value) { return Raw(&value, 4); }
    // u32 byte count with the terminating zero, UTF-16LE units; count 0 alone for null.
    ByteBuilder& Str(const wchar_t* text);
    // Version, kind and name, as every parameter and group stream begins.
    ByteBuilder& Header(const wchar_t* name, DWORD kind = 2, DWORD version = 1)
    {
        return U32(version).U32(kind).Str(name);
    }
    operator Bytes() const { return bytes; }
};

// The whole stream at path ("admin", "1/map") below storage; empty when it cannot be opened.
Bytes ReadStream(IStorage* storage, const wchar_t* path);

// An array a call gives or takes, destroyed with its holder.
struct Array
{
    SAFEARRAY* p = nullptr;
    ~Array() { SafeArrayDestroy(p); }
};

SAFEARRAY* MakeBstrArray(const Names& items, LONG lowerBound = 0);
Names ReadBstrArray(SAFEARRAY* array);
SAFEARRAY* MakeValueArray(const Values& values);
Values ReadValueArray(SAFEARRAY* array, LONG* lowerBound = nullptr);
// A VARIANT holding one BSTR (which may be null: the platform's copy would make it empty).
_variant_t BstrValue(const wchar_t* text);
// A VARIANT of VT_NULL.
_variant_t NullValue();
// Equal VARTYPE and value, a null string null and an empty one empty.
void ExpectSame(const _variant_t& expected, const _variant_t& actual);
// A string result as text; null gives "".
std::wstring Str(const _bstr_t& value);
inline std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }
std::string Hex(HRESULT hr);   // "0x80004005"
// A value as "<VARTYPE>:<text>"; an object described.
std::string ValueText(const VARIANT& value, int depth = 0);
// Every property of a data object, late-bound ("{3:1 8:text {...} }"); "none" for null, "object" below two levels.
std::string Describe(IUnknown* object, int depth = 0);
// The items of an array, each as ValueText and a comma.
std::string Items(SAFEARRAY* array);

// Sub-instance references of id as "id:parameter ..." (a one-dimensional array from 0), then "^" and the super.
std::wstring ReferencesOf(IFbInstanceData* store, const _bstr_t& id);

// One store file per test, named after it, opened as a frame opens it. At the end the store gives the file up
// and no reference of the test, data object or lock keeps the module loaded.
class StoreSession : public testing::Test
{
public:   // rows of the tables call these through a reference
    void SetUp() override;
    void TearDown() override;

    IFbInstanceData* Store() const { return m_store.Get(); }
    IInstanceDataMgr* Manager() const { return m_manager.Get(); }
    IStorage* Root() const { return m_root.Get(); }
    BSTR Path() const { return m_path; }
    void Keep() { m_keep = true; }
    void ReleaseRoot() { m_root.Reset(); }   // the store's own reference stays
    void Commit() { ASSERT_EQ(S_OK, m_root->Commit(STGC_DEFAULT)); }
    void Open();     // a new file when missing
    void Reopen();   // commits, gives the file up and opens it again: the frame's next session
    void GiveUp();   // the store gives up its root after a failed open elsewhere
    // The store lets go of its cached instance storage and map (asked about an identifier without instance):
    // what the instance did not commit is dropped, and its streams can be reached through the root.
    void Park();
    // A stream below the root, read or replaced after Park.
    Bytes Stream(const wchar_t* path);
    void Replace(const wchar_t* path, const Bytes& bytes);

    // Create from the given descriptors (new test objects when null); "" when it fails.
    std::wstring NewInstance(IFdtDtmDescriptor* dtm = nullptr, IFdtCommunicationDescriptor* comm = nullptr);
    Names InstanceList();
    // Parameters of instance m_id.
    HRESULT Define(IFdtParameter* parameter, const wchar_t* id = L"1")
    {
        return m_store->WriteParameterInfo(nullptr, _bstr_t(id), parameter);
    }
    HRESULT Define(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue = _variant_t());
    _variant_t Read(const wchar_t* name, HRESULT expected = S_OK);
    HRESULT Write(const wchar_t* name, const _variant_t& value)
    {
        return m_store->WriteParameter(nullptr, m_id, _bstr_t(name), value);
    }
    ComPtr<IFdtParameter> Info(const wchar_t* name);
    // GetAllParameters or GetAllGroups; the names start at 0.
    Names All(HRESULT (STDMETHODCALLTYPE IFbInstanceData::*list)(IFdtContext*, BSTR, SAFEARRAY**));

    static constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    _bstr_t m_id{L"1"};

private:
    _bstr_t m_path;
    bool m_keep = false;
    ComPtr<IFbInstanceData> m_store;
    ComPtr<IInstanceDataMgr> m_manager;
    ComPtr<IStorage> m_root;
};

// A session whose file holds instance "1".
class InstanceSession : public StoreSession
{
public:
    void SetUp() override
    {
        StoreSession::SetUp();
        ASSERT_EQ(L"1", NewInstance());
    }
};
