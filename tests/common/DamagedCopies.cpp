#include "DamagedCopies.h"
#include <ole2.h>
#include <wrl/client.h>
#include <algorithm>
#include <cstdio>
#include <random>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace damaged_copies
{
namespace
{
typedef std::vector<unsigned char> Bytes;
const DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// One element of the tree: its parent storage path ("" for the root, "2" for
// an instance storage) and its name.
struct Element
{
    std::wstring parent, name;
    DWORD type;
    std::wstring Path() const { return parent.empty() ? name : parent + L"/" + name; }
};

std::string Narrow(const std::wstring& text)
{
    return std::string(text.begin(), text.end());
}

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
        size_t start = 0;
        while (start < path.size())
        {
            const size_t end = std::min(path.find(L'/', start), path.size());
            ComPtr<IStorage> child;
            if (FAILED(storage->OpenStorage(path.substr(start, end - start).c_str(), nullptr, kMode, nullptr, 0,
                                            child.GetAddressOf())))
                return nullptr;
            storage = child;
            start = end + 1;
        }
        return storage;
    }
    void Walk(const std::wstring& parent)
    {
        ComPtr<IStorage> storage = Storage(parent);
        ComPtr<IEnumSTATSTG> list;
        if (!storage || FAILED(storage->EnumElements(0, nullptr, 0, list.GetAddressOf())))
            return;
        STATSTG item;
        std::vector<Element> found;
        while (list->Next(1, &item, nullptr) == S_OK)
        {
            found.push_back({parent, item.pwcsName, item.type});
            CoTaskMemFree(item.pwcsName);
        }
        list.Reset();
        storage.Reset();
        std::sort(found.begin(), found.end(), [](const Element& a, const Element& b) { return a.name < b.name; });
        for (const Element& element : found)
        {
            elements.push_back(element);
            if (element.type == STGTY_STORAGE)
                Walk(element.Path());
        }
    }
    // A random element of the type whose name passes the filter (any when null).
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
        Bytes bytes;
        ComPtr<IStorage> storage = Storage(element.parent);
        ComPtr<IStream> stream;
        if (storage && SUCCEEDED(storage->OpenStream(element.name.c_str(), nullptr, kMode, 0, stream.GetAddressOf())))
        {
            STATSTG stat = {};
            stream->Stat(&stat, STATFLAG_NONAME);
            bytes.resize(static_cast<size_t>(stat.cbSize.QuadPart));
            ULONG read = 0;
            stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read);
            bytes.resize(read);
        }
        return bytes;
    }
    // Replaces the stream parent/name (made when missing) by bytes, size included.
    HRESULT Write(const std::wstring& parent, const std::wstring& name, const Bytes& bytes)
    {
        ComPtr<IStorage> storage = Storage(parent);
        ComPtr<IStream> stream;
        if (!storage)
            return STG_E_PATHNOTFOUND;
        HRESULT hr = storage->CreateStream(name.c_str(), kMode | STGM_CREATE, 0, 0, stream.GetAddressOf());
        if (SUCCEEDED(hr) && !bytes.empty())
            hr = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
        return SUCCEEDED(hr) ? storage->Commit(STGC_DEFAULT) : hr;
    }
    HRESULT Destroy(const Element& element)
    {
        ComPtr<IStorage> storage = Storage(element.parent);
        if (!storage)
            return STG_E_PATHNOTFOUND;
        const HRESULT hr = storage->DestroyElement(element.name.c_str());
        return SUCCEEDED(hr) ? storage->Commit(STGC_DEFAULT) : hr;
    }
    HRESULT MakeStorage(const std::wstring& parent, const std::wstring& name)
    {
        ComPtr<IStorage> storage = Storage(parent);
        ComPtr<IStorage> made;
        if (!storage)
            return STG_E_PATHNOTFOUND;
        const HRESULT hr = storage->CreateStorage(name.c_str(), kMode | STGM_CREATE, 0, 0, made.GetAddressOf());
        return SUCCEEDED(hr) ? storage->Commit(STGC_DEFAULT) : hr;
    }
};

bool IsElementStream(const Element& element)   // a parameter or group stream: a number inside an instance
{
    return !element.parent.empty() && element.name.find_first_not_of(L"0123456789") == std::wstring::npos;
}
bool IsMap(const Element& element)
{
    return element.name == L"map";
}
bool IsAdmin(const Element& element)
{
    return element.parent.empty() && element.name == L"admin";
}

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

// A same-size rewrite of one stream: change returns false when the bytes
// offer nothing for this kind, otherwise says what it did.
typedef bool (*Rewrite)(Copy& copy, Bytes& bytes, std::string& what);

bool FlipBits(Copy& copy, Bytes& bytes, std::string& what)
{
    if (bytes.empty())
        return false;
    for (unsigned flips = 1 + copy.Below(3); flips; --flips)
    {
        const size_t at = copy.Below(bytes.size());
        const unsigned bit = copy.Below(8);
        bytes[at] ^= static_cast<unsigned char>(1u << bit);
        what += " " + std::to_string(at) + "." + std::to_string(bit);
    }
    return true;
}

// Counts and lengths are small numbers in the stream: one of them becomes huge.
bool HugeCount(Copy& copy, Bytes& bytes, std::string& what)
{
    std::vector<size_t> small;
    for (size_t at = 0; at + 4 <= bytes.size(); ++at)
        if (Dword(bytes, at) > 0 && Dword(bytes, at) < 4096)
            small.push_back(at);
    if (small.empty())
        return false;
    const size_t at = small[copy.Below(small.size())];
    const DWORD huge[] = {0xFFFFFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0x10000000,
                          static_cast<DWORD>(bytes.size() - at - 2), static_cast<DWORD>(bytes.size() - at)};
    const DWORD value = huge[copy.Below(sizeof huge / sizeof huge[0])];
    SetDword(bytes, at, value);
    char text[64];
    snprintf(text, sizeof text, " %zu := 0x%lx", at, static_cast<unsigned long>(value));
    what += text;
    return true;
}

bool WrongVersion(Copy& copy, Bytes& bytes, std::string& what)
{
    if (bytes.size() < 4)
        return false;
    const DWORD versions[] = {0, 2, 3, 0x100, 0xFFFFFFFF};
    const DWORD value = versions[copy.Below(sizeof versions / sizeof versions[0])];
    SetDword(bytes, 0, value);
    what += " := " + std::to_string(value);
    return true;
}

bool WrongKind(Copy& copy, Bytes& bytes, std::string& what)
{
    if (bytes.size() < 8)
        return false;
    const DWORD kinds[] = {Dword(bytes, 4) == 1 ? 2u : 1u, 0, 3, 0xFFFFFFFF};
    const DWORD value = kinds[copy.Below(sizeof kinds / sizeof kinds[0])];
    SetDword(bytes, 4, value);
    what += " := " + std::to_string(value);
    return true;
}

bool ZeroTail(Copy& copy, Bytes& bytes, std::string& what)
{
    if (bytes.size() < 2)
        return false;
    const size_t from = 1 + copy.Below(bytes.size() - 1);
    std::fill(bytes.begin() + from, bytes.end(), 0);
    what += " from " + std::to_string(from);
    return true;
}

// A stored string: an even byte count, the units and a 0 unit. Its last
// unit stops being 0, or its count turns odd.
bool Unterminated(Copy& copy, Bytes& bytes, std::string& what)
{
    std::vector<size_t> strings;
    for (size_t at = 0; at + 4 <= bytes.size(); ++at)
    {
        const DWORD count = Dword(bytes, at);
        if (count >= 2 && !(count & 1) && count <= bytes.size() - at - 4 && count < 4096 &&
            !bytes[at + 4 + count - 2] && !bytes[at + 4 + count - 1])
            strings.push_back(at);
    }
    if (strings.empty())
        return false;
    const size_t at = strings[copy.Below(strings.size())];
    const DWORD count = Dword(bytes, at);
    switch (copy.Below(3))
    {
    case 0:
        bytes[at + 4 + count - 2] = 'Z';
        what += " " + std::to_string(at) + " last unit 'Z'";
        break;
    case 1:
        SetDword(bytes, at, count - 1);
        what += " " + std::to_string(at) + " count odd";
        break;
    default:
        SetDword(bytes, at, count - 2);
        what += " " + std::to_string(at) + " count one unit short";
        break;
    }
    return true;
}

// The file itself: a stream rewritten, elements destroyed, added or replaced,
// the file cut short, counters set back.
typedef bool (*Damage)(Copy& copy, std::string& what);

bool RewriteStream(Copy& copy, std::string& what, Rewrite rewrite, bool (*filter)(const Element&))
{
    const Element* element = copy.Pick(STGTY_STREAM, filter);
    if (!element)
        return false;
    Bytes bytes = copy.Read(*element);
    std::string change;
    if (!rewrite(copy, bytes, change))
        return false;
    what += Narrow(element->Path()) + change;
    return SUCCEEDED(copy.Write(element->parent, element->name, bytes));
}

template <Rewrite rewrite>
bool AnyStream(Copy& copy, std::string& what)
{
    return RewriteStream(copy, what, rewrite, nullptr);
}

bool ElementKind(Copy& copy, std::string& what)
{
    return RewriteStream(copy, what, WrongKind, IsElementStream);
}

bool ShortStream(Copy& copy, std::string& what)
{
    const Element* element = copy.Pick(STGTY_STREAM);
    if (!element)
        return false;
    Bytes bytes = copy.Read(*element);
    bytes.resize(copy.Below(bytes.size()));
    what += Narrow(element->Path()) + " cut to " + std::to_string(bytes.size());
    return SUCCEEDED(copy.Write(element->parent, element->name, bytes));
}

bool MissingStream(Copy& copy, std::string& what)
{
    const Element* element = copy.Pick(STGTY_STREAM);
    what += element ? Narrow(element->Path()) : "";
    return element && SUCCEEDED(copy.Destroy(*element));
}

bool MissingStorage(Copy& copy, std::string& what)
{
    const Element* element = copy.Pick(STGTY_STORAGE);
    what += element ? Narrow(element->Path()) : "";
    return element && SUCCEEDED(copy.Destroy(*element));
}

// A stream or storage that the store did not write, in the root or in an
// instance: a number beside the real ones, or another name.
bool ExtraElement(Copy& copy, std::string& what)
{
    const Element* instance = copy.Pick(STGTY_STORAGE);
    const std::wstring parent = instance && copy.Below(2) ? instance->Path() : L"";
    const wchar_t* names[] = {L"0", L"01", L"7", L"12", L"99", L"x", L"Admin2", L"MAP2"};
    const std::wstring name = names[copy.Below(sizeof names / sizeof names[0])];
    what += Narrow(parent.empty() ? name : parent + L"/" + name);
    if (copy.Below(3) == 0)
        return what += " storage", SUCCEEDED(copy.MakeStorage(parent, name));
    // The content of a real stream (an element that two names now share), or noise.
    const Element* model = copy.Pick(STGTY_STREAM);
    Bytes bytes = model && copy.Below(2) ? copy.Read(*model) : Bytes(copy.Below(64));
    for (unsigned char& byte : bytes)
        byte = model && bytes.size() && copy.random() % 2 ? byte : static_cast<unsigned char>(copy.random());
    what += " stream of " + std::to_string(bytes.size()) + " bytes";
    return SUCCEEDED(copy.Write(parent, name, bytes));
}

// Where the store keeps a storage there is a stream, or the other way round.
bool SwappedType(Copy& copy, std::string& what)
{
    const bool storage = copy.Below(2);
    const Element* element = copy.Pick(storage ? STGTY_STORAGE : STGTY_STREAM);
    if (!element)
        return false;
    const Element target = *element;
    const Element* model = copy.Pick(STGTY_STREAM);
    const Bytes bytes = model ? copy.Read(*model) : Bytes(8);
    if (FAILED(copy.Destroy(target)))
        return false;
    what += Narrow(target.Path()) + (storage ? " is a stream" : " is a storage");
    return SUCCEEDED(storage ? copy.Write(target.parent, target.name, bytes) : copy.MakeStorage(target.parent, target.name));
}

// Two streams of one instance with each other's content.
bool SwappedStreams(Copy& copy, std::string& what)
{
    const Element* first = copy.Pick(STGTY_STREAM);
    std::vector<const Element*> others;
    for (const Element& element : copy.elements)
        if (first && element.type == STGTY_STREAM && element.parent == first->parent && element.name != first->name)
            others.push_back(&element);
    if (others.empty())
        return false;
    const Element* second = others[copy.Below(others.size())];
    const Bytes a = copy.Read(*first), b = copy.Read(*second);
    what += Narrow(first->Path()) + " <-> " + Narrow(second->name);
    return SUCCEEDED(copy.Write(first->parent, first->name, b)) && SUCCEEDED(copy.Write(second->parent, second->name, a));
}

// The administration record's next instance number, or a map's next stream
// number, behind the names in use (down to 0).
bool LaggingCounter(Copy& copy, std::string& what)
{
    const Element* element = copy.Pick(STGTY_STREAM, copy.Below(2) ? IsAdmin : IsMap);
    if (!element)
        return false;
    Bytes bytes = copy.Read(*element);
    if (bytes.size() < 8)
        return false;
    const DWORD value = copy.Below(Dword(bytes, 4) + 1);
    SetDword(bytes, 4, value);
    what += Narrow(element->Path()) + " next number " + std::to_string(Dword(copy.Read(*element), 4)) + " := " +
            std::to_string(value);
    return SUCCEEDED(copy.Write(element->parent, element->name, bytes));
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
    {"bit flips", AnyStream<FlipBits>},
    {"huge count", AnyStream<HugeCount>},
    {"wrong version", AnyStream<WrongVersion>},
    {"wrong kind", ElementKind},
    {"zeroed tail", AnyStream<ZeroTail>},
    {"unterminated string", AnyStream<Unterminated>},
    {"short stream", ShortStream},
    {"missing stream", MissingStream},
    {"missing storage", MissingStorage},
    {"extra element", ExtraElement},
    {"stream for storage", SwappedType},
    {"swapped streams", SwappedStreams},
    {"lagging counter", LaggingCounter},
    {"truncated file", TruncatedFile},
};
const size_t kKindCount = sizeof kKinds / sizeof kKinds[0];

HRESULT Truncate(const wchar_t* path, Copy& copy, std::string& what)
{
    HANDLE file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return HRESULT_FROM_WIN32(GetLastError());
    LARGE_INTEGER size = {};
    GetFileSizeEx(file, &size);
    // Mostly at a sector boundary, as a lost write leaves a file; sometimes anywhere.
    LARGE_INTEGER at;
    at.QuadPart = copy.Below(static_cast<size_t>(size.QuadPart));
    if (copy.Below(4))
        at.QuadPart &= ~LONGLONG(511);
    what += " to " + std::to_string(at.QuadPart) + " of " + std::to_string(size.QuadPart);
    const bool cut = SetFilePointerEx(file, at, nullptr, FILE_BEGIN) && SetEndOfFile(file);
    const HRESULT hr = cut ? S_OK : HRESULT_FROM_WIN32(GetLastError());
    CloseHandle(file);
    return hr;
}
}  // namespace

size_t DamageKindCount()
{
    return kKindCount;
}

const char* DamageKindName(size_t kind)
{
    return kind < kKindCount ? kKinds[kind].name : "";
}

HRESULT MakeDamagedCopy(const wchar_t* source, const wchar_t* target, unsigned seed, std::string& description)
{
    if (!CopyFileW(source, target, FALSE))
        return HRESULT_FROM_WIN32(GetLastError());
    Copy copy;
    copy.random.seed(seed / kKindCount * 2654435761u + 17);
    HRESULT hr = StgOpenStorage(target, nullptr, STGM_TRANSACTED | kMode, nullptr, 0, copy.root.GetAddressOf());
    if (FAILED(hr))
        return hr;
    copy.Walk(L"");
    const size_t kind = seed % kKindCount;
    description = std::string(kKinds[kind].name) + ": ";
    if (!kKinds[kind].damage(copy, description))
    {
        description = std::string(kKinds[kind].name) + " found nothing; bit flips: ";
        if (!AnyStream<FlipBits>(copy, description))
            return E_FAIL;
    }
    hr = copy.root->Commit(STGC_DEFAULT);
    copy.root.Reset();
    if (SUCCEEDED(hr) && copy.truncate)
        hr = Truncate(target, copy, description);
    return hr;
}
}  // namespace damaged_copies
