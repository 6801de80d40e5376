#include "DamagedCopies.h"
#include <ole2.h>
#include <wrl/client.h>
#include <algorithm>
#include <random>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace damaged_copies
{
namespace
{
typedef std::string Bytes;
const DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const DWORD kNothing = 0;   // as the new type of an element: it is destroyed

struct Element
{
    std::wstring parent, name;   // parent "" for the root, "2" for an instance storage
    DWORD type;
    std::wstring Full() const { return parent.empty() ? name : parent + L"/" + name; }
    std::string Path() const
    {
        const std::wstring full = Full();
        return std::string(full.begin(), full.end());
    }
};

DWORD Dword(const Bytes& bytes, size_t at)
{
    DWORD value = 0;
    if (at + 4 <= bytes.size())
        memcpy(&value, &bytes[at], 4);
    return value;
}

void SetDword(Bytes& bytes, size_t at, DWORD value)
{
    if (at + 4 <= bytes.size())
        memcpy(&bytes[at], &value, 4);
}

// A transacted copy, its elements in name order and the randomness of its damage.
struct Copy
{
    ComPtr<IStorage> root;
    std::vector<Element> elements;
    std::mt19937 random;
    bool truncate = false;   // the file is cut short after the commit

    unsigned Below(size_t bound) { return bound ? static_cast<unsigned>(random() % bound) : 0; }

    ComPtr<IStorage> Storage(const std::wstring& path)
    {
        ComPtr<IStorage> storage = root;
        for (size_t start = 0, end; storage && start < path.size(); start = end + 1)
        {
            end = std::min(path.find(L'/', start), path.size());
            ComPtr<IStorage> child;
            storage->OpenStorage(path.substr(start, end - start).c_str(), nullptr, kMode, nullptr, 0, &child);
            storage = child;
        }
        return storage;
    }
    void Walk(const std::wstring& parent)
    {
        ComPtr<IStorage> storage = Storage(parent);
        ComPtr<IEnumSTATSTG> list;
        if (!storage || FAILED(storage->EnumElements(0, nullptr, 0, &list)))
            return;
        std::vector<Element> found;
        for (STATSTG item; list->Next(1, &item, nullptr) == S_OK; CoTaskMemFree(item.pwcsName))
            found.push_back({parent, item.pwcsName, item.type});
        list.Reset(), storage.Reset();
        std::sort(found.begin(), found.end(), [](const Element& a, const Element& b) { return a.name < b.name; });
        for (const Element& element : found)
        {
            elements.push_back(element);
            if (element.type == STGTY_STORAGE)
                Walk(element.Full());
        }
    }
    // A random element of the type that passes the filter (any when null).
    const Element* Pick(DWORD type, bool (*filter)(const Element&) = nullptr)
    {
        std::vector<const Element*> candidates;
        for (const Element& element : elements)
            if (element.type == type && (!filter || filter(element)))
                candidates.push_back(&element);
        return candidates.empty() ? nullptr : candidates[Below(candidates.size())];
    }
    Bytes Read(const Element& element)
    {
        ComPtr<IStorage> storage = Storage(element.parent);
        ComPtr<IStream> stream;
        STATSTG stat = {};
        ULONG read = 0;
        if (!storage || FAILED(storage->OpenStream(element.name.c_str(), nullptr, kMode, 0, &stream)) ||
            FAILED(stream->Stat(&stat, STATFLAG_NONAME)))
            return Bytes();
        Bytes bytes(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
        stream->Read(&bytes[0], static_cast<ULONG>(bytes.size()), &read);
        return bytes.substr(0, read);
    }
    // Replaces the element by a stream of bytes, an empty storage or nothing.
    HRESULT Put(const Element& element, DWORD type, const Bytes& bytes = Bytes())
    {
        ComPtr<IStorage> storage = Storage(element.parent), made;
        ComPtr<IStream> stream;
        if (!storage)
            return STG_E_PATHNOTFOUND;
        const wchar_t* name = element.name.c_str();
        HRESULT hr = type == STGTY_STORAGE ? storage->CreateStorage(name, kMode | STGM_CREATE, 0, 0, &made)
                     : type == STGTY_STREAM ? storage->CreateStream(name, kMode | STGM_CREATE, 0, 0, &stream)
                                                 : storage->DestroyElement(name);
        if (SUCCEEDED(hr) && stream && !bytes.empty())
            hr = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
        stream.Reset(), made.Reset();
        return SUCCEEDED(hr) ? storage->Commit(STGC_DEFAULT) : hr;
    }
};

bool IsElementStream(const Element& element)   // a parameter or group stream: a number inside an instance
{
    return !element.parent.empty() && element.name.find_first_not_of(L"0123456789") == std::wstring::npos;
}
bool IsCounter(const Element& element)   // the administration record or a stream name map
{
    return element.parent.empty() ? element.name == L"admin" : element.name == L"map";
}

// A same-size rewrite of one stream's bytes: false when they offer nothing
// for this kind, otherwise what says what was done.
typedef bool (*Rewrite)(Copy& copy, Bytes& bytes, std::string& what);

bool FlipBits(Copy& copy, Bytes& bytes, std::string& what)
{
    for (unsigned flips = 1 + copy.Below(3); flips && !bytes.empty(); --flips)
    {
        const size_t at = copy.Below(bytes.size()), bit = copy.Below(8);
        bytes[at] ^= static_cast<char>(1u << bit);
        what += " " + std::to_string(at) + "." + std::to_string(bit);
    }
    return !bytes.empty();
}

// A random position of a double word in bytes that passes the test; npos when there is none.
template <class Test>
size_t PickAt(Copy& copy, const Bytes& bytes, Test test)
{
    std::vector<size_t> found;
    for (size_t at = 0; at + 4 <= bytes.size(); ++at)
        if (test(at, Dword(bytes, at)))
            found.push_back(at);
    return found.empty() ? Bytes::npos : found[copy.Below(found.size())];
}

// Counts and lengths are small numbers in the stream: one of them becomes huge.
bool HugeCount(Copy& copy, Bytes& bytes, std::string& what)
{
    const size_t at = PickAt(copy, bytes, [](size_t, DWORD value) { return value > 0 && value < 4096; });
    if (at == Bytes::npos)
        return false;
    const DWORD huge[] = {0xFFFFFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0x10000000,
                          static_cast<DWORD>(bytes.size() - at - 2), static_cast<DWORD>(bytes.size() - at)};
    SetDword(bytes, at, huge[copy.Below(sizeof huge / sizeof huge[0])]);
    what += " " + std::to_string(at) + " := " + std::to_string(Dword(bytes, at));
    return true;
}

// The version (at 0) or the kind (at 4) of a stream another than the store writes.
template <size_t at>
bool WrongHeader(Copy& copy, Bytes& bytes, std::string& what)
{
    const DWORD values[] = {at ? (Dword(bytes, 4) == 1 ? 2u : 1u) : 2u, 0, 3, 0x100, 0xFFFFFFFF};
    SetDword(bytes, at, values[copy.Below(sizeof values / sizeof values[0])]);
    what += " := " + std::to_string(Dword(bytes, at));
    return bytes.size() >= at + 4;
}

// The end of a stream zeroed, or cut off.
bool LostTail(Copy& copy, Bytes& bytes, std::string& what)
{
    if (bytes.size() < 2)
        return false;
    const size_t from = 1 + copy.Below(bytes.size() - 1);
    const bool cut = copy.Below(2);
    what += (cut ? " cut at " : " zeroed from ") + std::to_string(from);
    if (cut)
        bytes.resize(from);
    else
        std::fill(bytes.begin() + from, bytes.end(), '\0');
    return true;
}

// A stored string: an even byte count, the units and a 0 unit. Its last unit
// stops being 0, or its count turns odd or one unit short.
bool Unterminated(Copy& copy, Bytes& bytes, std::string& what)
{
    const size_t at = PickAt(copy, bytes, [&](size_t at, DWORD count) {
        return count >= 2 && !(count & 1) && count < 4096 && count <= bytes.size() - at - 4 &&
               !bytes[at + 4 + count - 2] && !bytes[at + 4 + count - 1];
    });
    if (at == Bytes::npos)
        return false;
    const unsigned how = copy.Below(3);
    if (how)
        SetDword(bytes, at, Dword(bytes, at) - how);
    else
        bytes[at + 4 + Dword(bytes, at) - 2] = 'Z';
    what += " " + std::to_string(at) + (how ? " count less " + std::to_string(how) : " last unit 'Z'");
    return true;
}

// The administration record's next instance number, or a map's next stream
// number, behind the names in use (down to 0).
bool LaggingCounter(Copy& copy, Bytes& bytes, std::string& what)
{
    SetDword(bytes, 4, copy.Below(Dword(bytes, 4) + 1));
    what += " next number := " + std::to_string(Dword(bytes, 4));
    return bytes.size() >= 8;
}

// Damage of the file itself: a stream rewritten, elements destroyed, added or
// replaced, the file cut short.
typedef bool (*Damage)(Copy& copy, std::string& what);

template <Rewrite rewrite, bool (*filter)(const Element&) = nullptr>
bool RewriteStream(Copy& copy, std::string& what)
{
    const Element* element = copy.Pick(STGTY_STREAM, filter);
    Bytes bytes = element ? copy.Read(*element) : Bytes();
    if (!element || !rewrite(copy, bytes, what += element->Path()))
        return false;
    return SUCCEEDED(copy.Put(*element, STGTY_STREAM, bytes));
}

template <DWORD type>
bool Missing(Copy& copy, std::string& what)
{
    const Element* element = copy.Pick(type);
    if (!element)
        return false;
    what += element->Path();
    return SUCCEEDED(copy.Put(*element, kNothing));
}

// A stream or storage that the store did not write, in the root or in an
// instance: a number beside the real ones, or another name; a stream holds
// noise or the content of a real stream.
bool ExtraElement(Copy& copy, std::string& what)
{
    const Element* instance = copy.Pick(STGTY_STORAGE);
    const wchar_t* names[] = {L"0", L"01", L"7", L"12", L"99", L"x", L"Admin2", L"MAP2"};
    const Element extra{instance && copy.Below(2) ? instance->Full() : L"", names[copy.Below(8)], kNothing};
    what += extra.Path();
    if (copy.Below(3) == 0)
    {
        what += " storage";
        return SUCCEEDED(copy.Put(extra, STGTY_STORAGE));
    }
    const Element* model = copy.Pick(STGTY_STREAM);
    Bytes bytes = model && copy.Below(2) ? copy.Read(*model) : Bytes(copy.Below(64), '\0');
    for (char& byte : bytes)
        byte = model && copy.random() % 2 ? byte : static_cast<char>(copy.random());
    what += " stream of " + std::to_string(bytes.size()) + " bytes";
    return SUCCEEDED(copy.Put(extra, STGTY_STREAM, bytes));
}

// Where the store keeps a storage there is a stream, or the other way round.
bool SwappedType(Copy& copy, std::string& what)
{
    const bool storage = copy.Below(2);
    const Element* element = copy.Pick(storage ? STGTY_STORAGE : STGTY_STREAM);
    const Element* model = copy.Pick(STGTY_STREAM);
    if (!element || FAILED(copy.Put(*element, kNothing)))
        return false;
    what += element->Path() + (storage ? " is a stream" : " is a storage");
    return SUCCEEDED(copy.Put(*element, storage ? STGTY_STREAM : STGTY_STORAGE, model ? copy.Read(*model) : Bytes(8, 1)));
}

bool TruncatedFile(Copy& copy, std::string& what)
{
    copy.truncate = true;   // once the file is committed
    what += "file cut";
    return true;
}

const struct
{
    const char* name;
    Damage damage;
} kKinds[] = {
    {"bit flips", RewriteStream<FlipBits>},
    {"huge count", RewriteStream<HugeCount>},
    {"wrong version", RewriteStream<WrongHeader<0>>},
    {"wrong kind", RewriteStream<WrongHeader<4>, IsElementStream>},
    {"lost tail", RewriteStream<LostTail>},
    {"unterminated string", RewriteStream<Unterminated>},
    {"lagging counter", RewriteStream<LaggingCounter, IsCounter>},
    {"missing stream", Missing<STGTY_STREAM>},
    {"missing storage", Missing<STGTY_STORAGE>},
    {"extra element", ExtraElement},
    {"stream for storage", SwappedType},
    {"truncated file", TruncatedFile},
};
const size_t kKindCount = sizeof kKinds / sizeof kKinds[0];

// Mostly at a sector boundary, as a lost write leaves a file; sometimes anywhere.
HRESULT Truncate(const wchar_t* path, Copy& copy, std::string& what)
{
    HANDLE file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER size = {}, at = {};
    if (file == INVALID_HANDLE_VALUE)
        return HRESULT_FROM_WIN32(GetLastError());
    GetFileSizeEx(file, &size);
    at.QuadPart = copy.Below(static_cast<size_t>(size.QuadPart)) & (copy.Below(4) ? ~LONGLONG(511) : ~LONGLONG(0));
    what += " to " + std::to_string(at.QuadPart) + " of " + std::to_string(size.QuadPart);
    const bool cut = SetFilePointerEx(file, at, nullptr, FILE_BEGIN) && SetEndOfFile(file);
    CloseHandle(file);
    return cut ? S_OK : E_FAIL;
}
}  // namespace

size_t DamageKindCount()
{
    return kKindCount;
}

HRESULT MakeDamagedCopy(const wchar_t* source, const wchar_t* target, unsigned seed, std::string& description)
{
    if (!CopyFileW(source, target, FALSE))
        return HRESULT_FROM_WIN32(GetLastError());
    Copy copy;
    copy.random.seed(seed / kKindCount * 2654435761u + 17);
    HRESULT hr = StgOpenStorage(target, nullptr, STGM_TRANSACTED | kMode, nullptr, 0, &copy.root);
    if (FAILED(hr))
        return hr;
    copy.Walk(L"");
    const char* kind = kKinds[seed % kKindCount].name;
    description = std::string(kind) + ": ";
    if (!kKinds[seed % kKindCount].damage(copy, description))
    {
        description = std::string(kind) + " found nothing; bit flips: ";
        if (!RewriteStream<FlipBits>(copy, description))
            return E_FAIL;
    }
    hr = copy.root->Commit(STGC_DEFAULT);
    copy.root.Reset();
    return SUCCEEDED(hr) && copy.truncate ? Truncate(target, copy, description) : hr;
}

HRESULT ChangeStream(const wchar_t* file, const std::wstring& path, const std::function<void(Bytes&)>& change)
{
    Copy copy;
    const size_t slash = path.rfind(L'/');
    const Element stream{slash == std::wstring::npos ? L"" : path.substr(0, slash), path.substr(slash + 1), kNothing};
    HRESULT hr = StgOpenStorage(file, nullptr, STGM_TRANSACTED | kMode, nullptr, 0, &copy.root);
    Bytes bytes = SUCCEEDED(hr) ? copy.Read(stream) : Bytes();
    if (SUCCEEDED(hr) && change)
        change(bytes);
    if (SUCCEEDED(hr))
        hr = copy.Put(stream, change ? DWORD(STGTY_STREAM) : kNothing, bytes);
    return SUCCEEDED(hr) ? copy.root->Commit(STGC_DEFAULT) : hr;
}
}  // namespace damaged_copies
