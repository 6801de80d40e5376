#include "DamagedCopies.h"
#include <fstream>
#include <map>
#include <random>
#include "TestSupport.h"

namespace damaged_copies
{
namespace
{
typedef std::string Text;
const DWORD kMode = StoreSession::kMode;
const DWORD kNothing = 0;   // as the new type of an element: it is destroyed

DWORD Dword(const Text& bytes, size_t at)
{
    DWORD value = 0;
    if (at + 4 <= bytes.size())
        memcpy(&value, &bytes[at], 4);
    return value;
}

// A transacted copy, the types of its elements by path ("admin", "2/map"), the
// randomness of its damage and what was done.
struct Copy
{
    ComPtr<IStorage> root;
    std::map<std::wstring, DWORD> elements;
    std::mt19937 random;
    std::string what;
    bool truncate = false;   // the file is cut short after the commit

    unsigned Below(size_t bound) { return bound ? static_cast<unsigned>(random() % bound) : 0; }
    HRESULT Open(const wchar_t* file) { return StgOpenStorage(file, nullptr, STGM_TRANSACTED | kMode, nullptr, 0, &root); }
    ComPtr<IStorage> Storage(const std::wstring& name)   // the root for ""
    {
        ComPtr<IStorage> storage = root;
        if (!name.empty())
            root->OpenStorage(name.c_str(), nullptr, kMode, nullptr, 0, storage.ReleaseAndGetAddressOf());
        return storage;
    }
    void List(const std::wstring& parent)
    {
        ComPtr<IStorage> storage = Storage(parent);
        ComPtr<IEnumSTATSTG> list;
        if (storage && SUCCEEDED(storage->EnumElements(0, nullptr, 0, &list)))
            for (STATSTG item; list->Next(1, &item, nullptr) == S_OK; CoTaskMemFree(item.pwcsName))
                elements[parent + (parent.empty() ? L"" : L"/") + item.pwcsName] = item.type;
    }
    // The path of a random element of the type that passes the filter (any when null).
    const std::wstring* Pick(DWORD type, bool (*filter)(const std::wstring&) = nullptr)
    {
        std::vector<const std::wstring*> candidates;
        for (const auto& element : elements)
            if (element.second == type && (!filter || filter(element.first)))
                candidates.push_back(&element.first);
        return candidates.empty() ? nullptr : candidates[Below(candidates.size())];
    }
    Text Read(const std::wstring& path)
    {
        const Bytes bytes = ReadStream(root.Get(), path.c_str());
        return Text(bytes.begin(), bytes.end());
    }
    // Replaces the element at path by a stream of bytes, an empty storage or nothing.
    HRESULT Put(const std::wstring& path, DWORD type, const Text& bytes = Text())
    {
        const size_t slash = path.rfind(L'/');
        const std::wstring name = path.substr(slash + 1);   // all of it when there is no slash
        ComPtr<IStorage> storage = Storage(slash == std::wstring::npos ? L"" : path.substr(0, slash)), made;
        ComPtr<IStream> stream;
        if (!storage)
            return STG_E_PATHNOTFOUND;
        HRESULT hr = type == STGTY_STORAGE ? storage->CreateStorage(name.c_str(), kMode | STGM_CREATE, 0, 0, &made)
                     : type == STGTY_STREAM ? storage->CreateStream(name.c_str(), kMode | STGM_CREATE, 0, 0, &stream)
                                            : storage->DestroyElement(name.c_str());
        if (SUCCEEDED(hr) && stream && !bytes.empty())
            hr = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
        stream.Reset(), made.Reset();
        return SUCCEEDED(hr) ? storage->Commit(STGC_DEFAULT) : hr;
    }
    // Sets the double word at at (npos: none was found) and says so; false when bytes end before it.
    bool Set(Text& bytes, size_t at, DWORD value)
    {
        if (at == Text::npos || at + 4 > bytes.size())
            return false;
        memcpy(&bytes[at], &value, 4);
        what += " " + std::to_string(at) + " := " + std::to_string(value);
        return true;
    }
    // A random position of a double word in bytes that passes the test; npos when there is none.
    template <class Test>
    size_t PickAt(const Text& bytes, Test test)
    {
        std::vector<size_t> found;
        for (size_t at = 0; at + 4 <= bytes.size(); ++at)
            if (test(at, Dword(bytes, at)))
                found.push_back(at);
        return found.empty() ? Text::npos : found[Below(found.size())];
    }
};

// The version (at 0) or the kind (at 4) of a stream another than the store writes.
bool WrongHeader(Copy& copy, Text& bytes, size_t at)
{
    const DWORD values[] = {Dword(bytes, at) == 1 ? 2u : 1u, 0, 3, 0x100, 0xFFFFFFFF};
    return copy.Set(bytes, at, values[copy.Below(std::size(values))]);
}

bool Missing(Copy& copy, DWORD type)
{
    const std::wstring* path = copy.Pick(type);
    copy.what += path ? Narrow(*path) : "";
    return path && SUCCEEDED(copy.Put(*path, kNothing));
}

// Each kind is damage of the file itself, or a rewrite of the bytes of one
// stream (whose path passes the filter); false when the copy offers nothing
// for it.
const struct Kind
{
    const char* name;
    bool (*damage)(Copy& copy);
    bool (*rewrite)(Copy& copy, Text& bytes);
    bool (*filter)(const std::wstring& path);
} kKinds[] = {
    {"bit flips", nullptr,
     [](Copy& copy, Text& bytes) {
         for (unsigned flips = 1 + copy.Below(3); flips && !bytes.empty(); --flips)
         {
             const size_t at = copy.Below(bytes.size()), bit = copy.Below(8);
             bytes[at] ^= static_cast<char>(1u << bit);
             copy.what += " " + std::to_string(at) + "." + std::to_string(bit);
         }
         return !bytes.empty();
     }},
    // Counts and lengths are small numbers in the stream: one of them becomes huge.
    {"huge count", nullptr,
     [](Copy& copy, Text& bytes) {
         const size_t at = copy.PickAt(bytes, [](size_t, DWORD value) { return value > 0 && value < 4096; });
         const DWORD huge[] = {0xFFFFFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0x10000000,
                               static_cast<DWORD>(bytes.size() - at - 2), static_cast<DWORD>(bytes.size() - at)};
         return copy.Set(bytes, at, huge[copy.Below(std::size(huge))]);
     }},
    {"wrong version", nullptr, [](Copy& copy, Text& bytes) { return WrongHeader(copy, bytes, 0); }},
    // Of a parameter or group stream: a number inside an instance.
    {"wrong kind", nullptr, [](Copy& copy, Text& bytes) { return WrongHeader(copy, bytes, 4); },
     [](const std::wstring& path) { return path.find_first_not_of(L"0123456789", path.find(L'/') + 1) == path.npos; }},
    // The end of a stream zeroed, or cut off.
    {"lost tail", nullptr,
     [](Copy& copy, Text& bytes) {
         if (bytes.size() < 2)
             return false;
         const size_t from = 1 + copy.Below(bytes.size() - 1);
         const bool cut = copy.Below(2);
         copy.what += (cut ? " cut at " : " zeroed from ") + std::to_string(from);
         std::fill(bytes.begin() + from, bytes.end(), '\0');
         bytes.resize(cut ? from : bytes.size());
         return true;
     }},
    // A stored string (an even byte count, the units and a 0 unit): its last
    // unit stops being 0, or its count turns odd or one unit short.
    {"unterminated string", nullptr,
     [](Copy& copy, Text& bytes) {
         const size_t at = copy.PickAt(bytes, [&](size_t at, DWORD count) {
             return count >= 2 && !(count & 1) && count < 4096 && count <= bytes.size() - at - 4 &&
                    !bytes[at + 4 + count - 2] && !bytes[at + 4 + count - 1];
         });
         const unsigned how = copy.Below(3);
         if (at == Text::npos || how)
             return copy.Set(bytes, at, Dword(bytes, at) - how);
         bytes[at + 4 + Dword(bytes, at) - 2] = 'Z';
         copy.what += " " + std::to_string(at) + " last unit 'Z'";
         return true;
     }},
    // The administration record's next instance number, or a map's next stream
    // number, behind the names in use (down to 0).
    {"lagging counter", nullptr,
     [](Copy& copy, Text& bytes) { return copy.Set(bytes, 4, copy.Below(Dword(bytes, 4) + 1)); },
     [](const std::wstring& path) { return path == L"admin" || path.find(L"/map") != path.npos; }},
    {"missing stream", [](Copy& copy) { return Missing(copy, STGTY_STREAM); }},
    {"missing storage", [](Copy& copy) { return Missing(copy, STGTY_STORAGE); }},
    // A stream or storage that the store did not write, in the root or in an
    // instance: a number beside the real ones, or another name; a stream holds
    // noise, or the content of a real stream partly overwritten with noise.
    {"extra element",
     [](Copy& copy) {
         const std::wstring* instance = copy.Pick(STGTY_STORAGE);
         const std::wstring parent = instance && copy.Below(2) ? *instance + L"/" : L"";
         const wchar_t* names[] = {L"0", L"01", L"7", L"12", L"99", L"x", L"Admin2", L"MAP2"};
         const std::wstring path = parent + names[copy.Below(std::size(names))];
         const DWORD type = copy.Below(3) ? STGTY_STREAM : STGTY_STORAGE;
         const std::wstring* model = copy.Pick(STGTY_STREAM);
         Text bytes = model && copy.Below(2) ? copy.Read(*model) : Text(copy.Below(64), '\0');
         for (char& byte : bytes)
             byte = model && copy.random() % 2 ? byte : static_cast<char>(copy.random());
         copy.what += Narrow(path) + (type == STGTY_STORAGE ? " storage" : " stream");
         return SUCCEEDED(copy.Put(path, type, bytes));
     }},
    // Where the store keeps a storage there is a stream, or the other way round.
    {"stream for storage",
     [](Copy& copy) {
         const bool storage = copy.Below(2);
         const std::wstring* path = copy.Pick(storage ? STGTY_STORAGE : STGTY_STREAM);
         const std::wstring* model = copy.Pick(STGTY_STREAM);
         if (!path || FAILED(copy.Put(*path, kNothing)))
             return false;
         copy.what += Narrow(*path) + (storage ? " is a stream" : " is a storage");
         const Text bytes = model ? copy.Read(*model) : Text(8, 1);
         return SUCCEEDED(copy.Put(*path, storage ? STGTY_STREAM : STGTY_STORAGE, bytes));
     }},
    {"truncated file", [](Copy& copy) { return copy.truncate = true; }},
};
const size_t kKindCount = sizeof kKinds / sizeof kKinds[0];

bool Apply(Copy& copy, const Kind& kind)
{
    if (kind.damage)
        return kind.damage(copy);
    const std::wstring* path = copy.Pick(STGTY_STREAM, kind.filter);
    if (!path)
        return false;
    copy.what += Narrow(*path);
    Text bytes = copy.Read(*path);
    return kind.rewrite(copy, bytes) && SUCCEEDED(copy.Put(*path, STGTY_STREAM, bytes));
}
}  // namespace

size_t DamageKindCount()
{
    return kKindCount;
}

HRESULT MakeDamagedCopy(const wchar_t* source, const wchar_t* target, unsigned seed, std::string& description)
{
    Copy copy;
    copy.random.seed(seed / kKindCount * 2654435761u + 17);
    HRESULT hr = CopyFileW(source, target, FALSE) ? copy.Open(target) : HRESULT_FROM_WIN32(GetLastError());
    if (FAILED(hr))
        return hr;
    copy.List(L"");
    for (const auto& element : copy.elements)   // an instance's elements come right after it
        if (element.second == STGTY_STORAGE)
            copy.List(element.first);
    const Kind& kind = kKinds[seed % kKindCount];
    copy.what = std::string(kind.name) + ": ";
    if (!Apply(copy, kind))
    {
        copy.what = std::string(kind.name) + " found nothing; bit flips: ";
        if (!Apply(copy, kKinds[0]))
            return E_FAIL;
    }
    hr = copy.root->Commit(STGC_DEFAULT);
    copy.root.Reset();
    if (SUCCEEDED(hr) && copy.truncate)   // mostly at a sector boundary, as a lost write leaves a file
    {
        const std::string whole = FileText(target);
        size_t at = copy.Below(whole.size());
        at &= copy.Below(4) ? ~size_t(511) : ~size_t(0);
        copy.what += "cut to " + std::to_string(at) + " of " + std::to_string(whole.size());
        hr = std::ofstream(target, std::ios::binary).write(whole.data(), at) ? S_OK : E_FAIL;
    }
    description = copy.what;
    return hr;
}

HRESULT ChangeStream(const wchar_t* file, const std::wstring& path, const std::function<void(Text&)>& change)
{
    Copy copy;
    HRESULT hr = copy.Open(file);
    Text bytes = SUCCEEDED(hr) ? copy.Read(path) : Text();
    if (SUCCEEDED(hr) && change)
        change(bytes);
    if (SUCCEEDED(hr))
        hr = copy.Put(path, change ? DWORD(STGTY_STREAM) : kNothing, bytes);
    return SUCCEEDED(hr) ? copy.root->Commit(STGC_DEFAULT) : hr;
}
}  // namespace damaged_copies
