#include "TestSupport.h"
#include <gtest/gtest.h>
#include "PK_Trace.h"

namespace testing_support
{
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
    EXPECT_EQ(S_OK, ServerModule::GetClassObject(CLSID_FbInstanceData, IID_IClassFactory,
                                                 reinterpret_cast<void**>(factory.GetAddressOf())));
    if (factory)
        EXPECT_EQ(S_OK, factory->CreateInstance(nullptr, IID_IFbInstanceData,
                                                reinterpret_cast<void**>(store.GetAddressOf())));
    return store;
}

std::wstring ProgramDirectory()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path, length);
    return directory.substr(0, directory.find_last_of(L"\\/") + 1);
}

std::wstring TestFilesDirectory()
{
    const std::wstring directory = ProgramDirectory() + L"testfiles\\";
    CreateDirectoryW(directory.c_str(), nullptr);
    return directory;
}

TempStoreFile::TempStoreFile(const wchar_t* name) : m_path(TestFilesDirectory() + name)
{
    DeleteFileW(m_path.c_str());
    m_bstr = m_path.c_str();
}

TempStoreFile::~TempStoreFile()
{
    if (!m_keep)
        DeleteFileW(m_path.c_str());
}

OpenStore OpenStore::At(BSTR path)
{
    OpenStore open;
    open.store = CreateStore();
    if (!open.store)
        return open;
    EXPECT_EQ(S_OK, open.store.As(&open.manager));
    if (open.manager)
        EXPECT_EQ(S_OK, open.manager->OpenStorage(path, open.root.GetAddressOf()));
    return open;
}

void OpenStore::Commit()
{
    ASSERT_TRUE(root);
    ASSERT_EQ(S_OK, root->Commit(STGC_DEFAULT));
}

TraceCapture::TraceCapture()
{
    CPkTrace::AddListener(&TraceCapture::OnTrace, this);
}

TraceCapture::~TraceCapture()
{
    CPkTrace::RemoveListener(&TraceCapture::OnTrace, this);
}

void TraceCapture::OnTrace(void* context, DWORD level, const char* text)
{
    auto* self = static_cast<TraceCapture*>(context);
    self->m_lines.emplace_back(text);
    self->m_levels.push_back(level);
}

std::string TraceCapture::Text() const
{
    std::string text;
    for (const std::string& line : m_lines)
        text += line;
    return text;
}

bool TraceCapture::Contains(const std::string& text) const
{
    return Count(text) > 0;
}

size_t TraceCapture::Count(const std::string& text) const
{
    size_t count = 0;
    for (const std::string& line : m_lines)
        count += line.find(text) != std::string::npos;
    return count;
}

void TraceCapture::Clear()
{
    m_lines.clear();
    m_levels.clear();
}

SAFEARRAY* MakeBstrArray(const std::vector<std::wstring>& items, LONG lowerBound)
{
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, lowerBound, static_cast<ULONG>(items.size()));
    for (size_t i = 0; array && i < items.size(); ++i)
    {
        LONG index = lowerBound + static_cast<LONG>(i);
        BSTR item = SysAllocStringLen(items[i].data(), static_cast<UINT>(items[i].size()));
        SafeArrayPutElement(array, &index, item);
        SysFreeString(item);
    }
    return array;
}

std::vector<std::wstring> ReadBstrArray(SAFEARRAY* array)
{
    std::vector<std::wstring> items;
    if (!array)
        return items;
    LONG lower = 0, upper = -1;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    for (LONG index = lower; index <= upper; ++index)
    {
        BSTR item = nullptr;
        SafeArrayGetElement(array, &index, &item);
        items.emplace_back(item ? item : L"", item ? SysStringLen(item) : 0);
        SysFreeString(item);
    }
    return items;
}

bool ModuleCanUnload()
{
    return ServerModule::CanUnloadNow() == S_OK;
}

std::vector<unsigned char> ReadStreamBytes(const wchar_t* file, const wchar_t* path)
{
    std::vector<unsigned char> bytes;
    ComPtr<IStorage> storage;
    if (FAILED(StgOpenStorage(file, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, storage.GetAddressOf())))
        return bytes;
    // Every storage on the way stays open: Wine invalidates a child whose parent is released.
    std::vector<ComPtr<IStorage>> parents;
    std::wstring rest = path;
    for (size_t slash; (slash = rest.find(L'/')) != std::wstring::npos; rest = rest.substr(slash + 1))
    {
        ComPtr<IStorage> child;
        if (FAILED(storage->OpenStorage(rest.substr(0, slash).c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE,
                                        nullptr, 0, child.GetAddressOf())))
            return bytes;
        parents.push_back(storage);
        storage = child;
    }
    ComPtr<IStream> stream;
    if (FAILED(storage->OpenStream(rest.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0,
                                   stream.GetAddressOf())))
        return bytes;
    unsigned char buffer[4096];
    ULONG read = 0;
    while (SUCCEEDED(stream->Read(buffer, sizeof buffer, &read)) && read)
        bytes.insert(bytes.end(), buffer, buffer + read);
    return bytes;
}
}  // namespace testing_support
