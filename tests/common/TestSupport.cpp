#include "TestSupport.h"
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

HMODULE ServerModule::Handle()
{
    static HMODULE module = LoadLibraryW((ProgramDirectory() + L"InstanceData.dll").c_str());
    return module;
}

HRESULT ServerModule::GetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    auto function = reinterpret_cast<HRESULT(WINAPI*)(REFCLSID, REFIID, void**)>(
        GetProcAddress(Handle(), "DllGetClassObject"));
    return function ? function(clsid, iid, object) : E_NOINTERFACE;
}

HRESULT ServerModule::CanUnloadNow()
{
    auto function = reinterpret_cast<HRESULT(WINAPI*)()>(GetProcAddress(Handle(), "DllCanUnloadNow"));
    return function ? function() : E_NOINTERFACE;
}

ComPtr<IFbInstanceData> CreateStore()
{
    ComPtr<IClassFactory> factory;
    ComPtr<IFbInstanceData> store;
    if (SUCCEEDED(ServerModule::GetClassObject(CLSID_FbInstanceData, IID_PPV_ARGS(&factory))))
        factory->CreateInstance(nullptr, IID_PPV_ARGS(&store));
    return store;
}

std::wstring ProgramDirectory()
{
    wchar_t path[MAX_PATH];
    const std::wstring directory(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return directory.substr(0, directory.find_last_of(L"\\/") + 1);
}

std::wstring TestFilesDirectory()
{
    const std::wstring directory = ProgramDirectory() + L"testfiles\\";
    CreateDirectoryW(directory.c_str(), nullptr);
    return directory;
}

std::wstring TestName()
{
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    std::string text = std::string(test->test_suite_name()) + "-" + test->name();
    std::replace(text.begin(), text.end(), '/', '-');   // parameterised names
    return std::wstring(text.begin(), text.end());
}

std::string FileText(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

DWORD RunProgram(std::wstring commandLine, const wchar_t* directory, const wchar_t* output)
{
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    const HANDLE out = output ? CreateFileW(output, GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr)
                              : INVALID_HANDLE_VALUE;
    STARTUPINFOW startup = {sizeof startup};
    if (out != INVALID_HANDLE_VALUE)
    {
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = startup.hStdError = out;
    }
    PROCESS_INFORMATION process = {};
    DWORD exitCode = 0xFFFFFFFF;
    if (CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, out != INVALID_HANDLE_VALUE, 0, nullptr, directory,
                       &startup, &process))
    {
        if (WaitForSingleObject(process.hProcess, 120000) == WAIT_OBJECT_0)
            GetExitCodeProcess(process.hProcess, &exitCode);
        else
            TerminateProcess(process.hProcess, exitCode);
        CloseHandle(process.hProcess), CloseHandle(process.hThread);
    }
    if (out != INVALID_HANDLE_VALUE)
        CloseHandle(out);
    return exitCode;
}

std::wstring SystemProgram(const wchar_t* name)
{
    wchar_t directory[MAX_PATH];
    const UINT length = GetSystemDirectoryW(directory, MAX_PATH);
    return L"\"" + std::wstring(directory, length) + L"\\" + name + L"\"";
}

TraceCapture::TraceCapture() { CPkTrace::AddListener(&TraceCapture::OnTrace, this); }
TraceCapture::~TraceCapture() { CPkTrace::RemoveListener(&TraceCapture::OnTrace, this); }

void TraceCapture::OnTrace(void* context, DWORD level, const char* text)
{
    static_cast<TraceCapture*>(context)->m_lines.emplace_back(text);
    static_cast<TraceCapture*>(context)->m_levels.push_back(level);
}

std::string TraceCapture::Text() const
{
    std::string text;
    for (const std::string& line : m_lines)
        text += line;
    return text;
}

size_t TraceCapture::Count(const std::string& text) const
{
    return std::count_if(m_lines.begin(), m_lines.end(),
                         [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

ByteBuilder& ByteBuilder::Raw(const void* data, size_t size)
{
    bytes.insert(bytes.end(), static_cast<const BYTE*>(data), static_cast<const BYTE*>(data) + size);
    return *this;
}

ByteBuilder& ByteBuilder::Str(const wchar_t* text)
{
    const DWORD size = text ? static_cast<DWORD>(wcslen(text) + 1) * 2 : 0;
    return U32(size).Raw(text, size);
}

namespace
{
// Opens the sub-storages on path ("1/map") below chain's storage, each kept
// open (Wine invalidates a child whose parent is released); gives the
// stream's name, "" when a storage is missing.
std::wstring OpenStorages(std::vector<ComPtr<IStorage>>& chain, const wchar_t* path, DWORD mode)
{
    std::wstring rest = path;
    for (size_t slash; (slash = rest.find(L'/')) != std::wstring::npos; rest = rest.substr(slash + 1))
    {
        ComPtr<IStorage> child;
        if (FAILED(chain.back()->OpenStorage(rest.substr(0, slash).c_str(), nullptr, mode, nullptr, 0, &child)))
            return L"";
        chain.push_back(child);
    }
    return rest;
}
}  // namespace

Bytes ReadStream(IStorage* storage, const wchar_t* path)
{
    const DWORD mode = STGM_READ | STGM_SHARE_EXCLUSIVE;
    std::vector<ComPtr<IStorage>> chain{storage};
    const std::wstring name = OpenStorages(chain, path, mode);
    ComPtr<IStream> stream;
    Bytes bytes;
    unsigned char buffer[4096];
    ULONG read = 0;
    if (SUCCEEDED(chain.back()->OpenStream(name.c_str(), nullptr, mode, 0, &stream)))
        while (SUCCEEDED(stream->Read(buffer, sizeof buffer, &read)) && read)
            bytes.insert(bytes.end(), buffer, buffer + read);
    return bytes;
}

SAFEARRAY* MakeBstrArray(const Names& items, LONG lowerBound)
{
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, lowerBound, static_cast<ULONG>(items.size()));
    for (LONG i = 0; i < static_cast<LONG>(items.size()); ++i)
    {
        LONG index = lowerBound + i;
        _bstr_t item(items[i].c_str());
        SafeArrayPutElement(array, &index, static_cast<BSTR>(item));
    }
    return array;
}

Names ReadBstrArray(SAFEARRAY* array)
{
    Names items;
    for (const _variant_t& item : ReadValueArray(array))
        items.push_back(Str(_bstr_t(item)));
    return items;
}

SAFEARRAY* MakeValueArray(const Values& values)
{
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i)
        SafeArrayPutElement(array, &i, const_cast<_variant_t*>(&values[i]));
    return array;
}

Values ReadValueArray(SAFEARRAY* array, LONG* lowerBound)
{
    Values values;
    LONG lower = -1, upper = -2;
    VARTYPE type = VT_EMPTY;
    if (array)
    {
        SafeArrayGetLBound(array, 1, &lower);
        SafeArrayGetUBound(array, 1, &upper);
        SafeArrayGetVartype(array, &type);
    }
    if (lowerBound)
        *lowerBound = lower;
    for (LONG i = lower; i <= upper; ++i)
    {
        VARIANT value;
        VariantInit(&value);
        V_VT(&value) = type;
        if (type == VT_VARIANT)
            SafeArrayGetElement(array, &i, &value);
        else
            SafeArrayGetElement(array, &i, &V_BSTR(&value));   // a BSTR or interface element
        values.emplace_back(value, false);
    }
    return values;
}

_variant_t BstrValue(const wchar_t* text)
{
    VARIANT value;
    V_VT(&value) = VT_BSTR;
    V_BSTR(&value) = text ? SysAllocString(text) : nullptr;
    return _variant_t(value, false);
}

_variant_t NullValue()
{
    _variant_t value;
    V_VT(&value) = VT_NULL;
    return value;
}

void ExpectSame(const _variant_t& expected, const _variant_t& actual)
{
    EXPECT_EQ(expected, actual) << "VARTYPE " << V_VT(&expected);
    const auto isNull = [](const VARIANT& value) { return V_VT(&value) == VT_BSTR && !V_BSTR(&value); };
    EXPECT_EQ(isNull(expected), isNull(actual));
}

std::wstring Str(const _bstr_t& value)
{
    return value.length() ? static_cast<const wchar_t*>(value) : L"";
}

std::wstring ReferencesOf(IFbInstanceData* store, const _bstr_t& id)
{
    const auto text = [](IUnknown* object) {
        ComPtr<IFdtInstanceDataRef> reference;
        _bstr_t instance, parameter;
        if (object && SUCCEEDED(object->QueryInterface(IID_PPV_ARGS(&reference))))
            reference->get_m_instanceID(instance.GetAddress()), reference->get_m_parameterName(parameter.GetAddress());
        return Str(instance) + L":" + Str(parameter);
    };
    std::wstring result;
    SAFEARRAY* list = nullptr;
    LONG lower = -1;
    EXPECT_EQ(S_OK, store->GetSubInstanceData(nullptr, id, &list));
    for (const _variant_t& element : ReadValueArray(list, &lower))
        result += text(V_VT(&element) == VT_UNKNOWN ? V_UNKNOWN(&element) : nullptr) + L" ";
    EXPECT_TRUE(!list || (SafeArrayGetDim(list) == 1 && lower == 0));
    SafeArrayDestroy(list);
    ComPtr<IFdtInstanceDataRef> super;
    EXPECT_EQ(S_OK, store->GetSuperInstanceData(nullptr, id, super.GetAddressOf()));
    return result + L"^" + text(super.Get());
}

void StoreSession::SetUp()
{
    const std::wstring path = TestFilesDirectory() + TestName() + L".stg";
    DeleteFileW(path.c_str());
    m_path = path.c_str();
    m_store = CreateStore();
    ASSERT_TRUE(m_store);
    ASSERT_EQ(S_OK, m_store.As(&m_manager));
    Open();
}

void StoreSession::TearDown()
{
    if (m_manager)
        GiveUp();
    m_store.Reset();
    m_manager.Reset();
    if (!m_keep)
        DeleteFileW(m_path);
    EXPECT_EQ(S_OK, ServerModule::CanUnloadNow()) << "a reference, data object or lock of the module is left";
}

void StoreSession::Open() { ASSERT_EQ(S_OK, m_manager->OpenStorage(m_path, m_root.ReleaseAndGetAddressOf())); }

void StoreSession::Reopen()
{
    Commit();
    GiveUp();
    Open();
}

void StoreSession::GiveUp()
{
    m_root.Reset();
    ComPtr<IStorage> none;
    const _bstr_t impossible((TestFilesDirectory() + L"no such folder\\x.stg").c_str());
    EXPECT_TRUE(FAILED(m_manager->OpenStorage(impossible, none.GetAddressOf())));
}

void StoreSession::Park()
{
    SAFEARRAY* names = nullptr;
    EXPECT_EQ(STG_E_FILENOTFOUND, m_store->GetAllParameters(nullptr, _bstr_t(L"0"), &names));
}

Bytes StoreSession::Stream(const wchar_t* path) { return Park(), ReadStream(m_root.Get(), path); }

void StoreSession::Replace(const wchar_t* path, const Bytes& bytes)
{
    Park();
    std::vector<ComPtr<IStorage>> chain{m_root};
    const std::wstring name = OpenStorages(chain, path, kMode);
    ComPtr<IStream> stream;
    ASSERT_EQ(S_OK, chain.back()->CreateStream(name.c_str(), kMode | STGM_CREATE, 0, 0, &stream));
    const void* data = bytes.empty() ? "" : static_cast<const void*>(bytes.data());   // never null
    ASSERT_EQ(S_OK, stream->Write(data, static_cast<ULONG>(bytes.size()), nullptr));
    ASSERT_EQ(S_OK, chain.back()->Commit(STGC_DEFAULT));
}

std::wstring StoreSession::NewInstance(IFdtDtmDescriptor* dtm, IFdtCommunicationDescriptor* comm)
{
    ComPtr<IFdtDtmDescriptor> ownDtm = dtm ? dtm : new DtmDescriptor;
    ComPtr<IFdtCommunicationDescriptor> ownComm = comm ? comm : new CommunicationDescriptor;
    _bstr_t id;
    EXPECT_EQ(S_OK, m_store->Create(nullptr, ownDtm.Get(), ownComm.Get(), id.GetAddress()));
    return Str(id);
}

Names StoreSession::InstanceList()
{
    SAFEARRAY* list = nullptr;
    EXPECT_EQ(S_OK, m_store->GetInstanceDataList(nullptr, &list));
    const Names ids = ReadBstrArray(list);
    SafeArrayDestroy(list);
    return ids;
}

HRESULT StoreSession::Define(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue)
{
    return Define(ComPtr<ParameterDescription>(new ParameterDescription(name, value, defaultValue)).Get());
}

_variant_t StoreSession::Read(const wchar_t* name, HRESULT expected)
{
    _variant_t value;
    EXPECT_EQ(expected, m_store->ReadParameter(nullptr, m_id, _bstr_t(name), &value))
        << "reading " << static_cast<const char*>(_bstr_t(name));
    return value;
}

ComPtr<IFdtParameter> StoreSession::Info(const wchar_t* name)
{
    ComPtr<IFdtParameter> parameter;
    EXPECT_EQ(S_OK, m_store->ReadParameterInfo(nullptr, m_id, _bstr_t(name), parameter.GetAddressOf()));
    return parameter;
}

Names StoreSession::All(HRESULT (STDMETHODCALLTYPE IFbInstanceData::*list)(IFdtContext*, BSTR, SAFEARRAY**))
{
    SAFEARRAY* names = nullptr;
    LONG lower = -1;
    EXPECT_EQ(S_OK, (m_store.Get()->*list)(nullptr, m_id, &names));
    const Names result = ReadBstrArray(names);
    EXPECT_TRUE(result.empty() || (SUCCEEDED(SafeArrayGetLBound(names, 1, &lower)) && lower == 0));
    SafeArrayDestroy(names);
    return result;
}

std::string Hex(HRESULT hr)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08lx", static_cast<unsigned long>(hr));
    return text;
}

std::string Describe(IUnknown* object, int depth)
{
    ComPtr<IDispatch> dispatch;
    ComPtr<ITypeInfo> info;
    TYPEATTR* type = nullptr;
    if (!object || depth > 1 || FAILED(object->QueryInterface(IID_PPV_ARGS(&dispatch))) ||
        FAILED(dispatch->GetTypeInfo(0, 0, &info)) || FAILED(info->GetTypeAttr(&type)))
        return object ? "object" : "none";
    std::string text = "{";
    for (UINT i = 0; i < type->cFuncs; ++i)
    {
        FUNCDESC* function = nullptr;
        if (FAILED(info->GetFuncDesc(i, &function)))
            continue;
        if (function->invkind == INVOKE_PROPERTYGET && function->cParams == 0)
        {
            DISPPARAMS none = {};
            _variant_t value;
            const HRESULT hr = dispatch->Invoke(function->memid, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &value,
                                                nullptr, nullptr);
            text += (FAILED(hr) ? "!" + Hex(hr) : ValueText(value, depth + 1)) + " ";
        }
        info->ReleaseFuncDesc(function);
    }
    info->ReleaseTypeAttr(type);
    return text + "}";
}

std::string ValueText(const VARIANT& value, int depth)
{
    const std::string vt = std::to_string(V_VT(&value)) + ":";
    _variant_t text;
    if (V_VT(&value) == VT_DISPATCH || V_VT(&value) == VT_UNKNOWN)
        return vt + Describe(V_UNKNOWN(&value), depth);
    if (FAILED(VariantChangeType(&text, const_cast<VARIANT*>(&value), VARIANT_ALPHABOOL, VT_BSTR)))
        return vt + "?";
    return vt + Narrow(Str(V_BSTR(&text)));
}

std::string Items(SAFEARRAY* array)
{
    std::string text;
    for (const _variant_t& item : ReadValueArray(array))
        text += ValueText(item) + ",";
    return text;
}
