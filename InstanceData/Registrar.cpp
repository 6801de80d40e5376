// The registrar script engine: replacement, tokens, and the register and
// unregister walks over the registry.
#include "Registrar.h"
#include <cstdlib>
#include <cstring>
#include "Common/ErrorTrace.h"

namespace
{
// Limits of the script text.
constexpr size_t kMaxTokenBytes = 4096;
constexpr size_t kMaxReplacementName = 31;

// Internal only: the recovery walk reached the point where registration
// stopped. Never leaves the engine.
const HRESULT kWalkStopped = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0201);

bool SameText(const char* left, const char* right)
{
    return lstrcmpiA(left, right) == 0;
}

bool IsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Bytes of the character at text: two for a double-byte lead followed by
// anything but the end of the text.
size_t CharBytes(const char* text, UINT codePage)
{
    return IsDBCSLeadByteEx(codePage, static_cast<BYTE>(*text)) && text[1] ? 2 : 1;
}

struct RootKeyName
{
    const char* shortName;
    const char* longName;
    HKEY key;
};

const RootKeyName kRootKeys[] = {
    {"HKCR", "HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
    {"HKCU", "HKEY_CURRENT_USER", HKEY_CURRENT_USER},
    {"HKLM", "HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
    {"HKU", "HKEY_USERS", HKEY_USERS},
    {"HKPD", "HKEY_PERFORMANCE_DATA", HKEY_PERFORMANCE_DATA},
    {"HKDD", "HKEY_DYN_DATA", HKEY_DYN_DATA},
    {"HKCC", "HKEY_CURRENT_CONFIG", HKEY_CURRENT_CONFIG},
};

// Keys that ForceRemove and Delete never take away.
bool IsNeverDelete(const std::string& name)
{
    return SameText(name.c_str(), "CLSID") || SameText(name.c_str(), "TYPELIB");
}

struct Token
{
    std::string text;
    bool quoted = false;

    // Keywords and punctuation count only unquoted: 'Val' is a key name.
    bool Is(const char* word) const { return !quoted && SameText(text.c_str(), word); }
};

class Tokenizer
{
public:
    Tokenizer(const char* text, UINT codePage) : m_cur(text), m_codePage(codePage) {}

    bool AtEnd()
    {
        SkipSpace();
        return *m_cur == '\0';
    }

    HRESULT Next(Token& token)
    {
        SkipSpace();
        m_tokenStart = m_cur;
        if (m_limit && m_cur >= m_limit)
            return kWalkStopped;
        if (*m_cur == '\0')
            return DISP_E_EXCEPTION;    // a token was expected
        token.text.clear();
        token.quoted = *m_cur == '\'';
        if (!token.quoted)
        {
            while (*m_cur && !IsSpace(*m_cur))
                RETURN_IF_FAILED_QUIET(Take(token));
            return S_OK;
        }
        ++m_cur;
        for (;;)
        {
            if (*m_cur == '\0')
                return DISP_E_EXCEPTION;    // unterminated quote
            if (*m_cur == '\'')
            {
                if (m_cur[1] != '\'')
                    break;
                ++m_cur;    // two quotes stand for one
            }
            RETURN_IF_FAILED_QUIET(Take(token));
        }
        ++m_cur;
        return S_OK;
    }

    const char* Position() const { return m_cur; }
    // Where the token read last (or attempted last) begins.
    const char* TokenStart() const { return m_tokenStart; }

    // Reads again from position; tokens that begin at limit or later are
    // not handed out (kWalkStopped instead).
    void Rewind(const char* position, const char* limit)
    {
        m_cur = position;
        m_limit = limit;
    }

    bool HasBackslash(const std::string& text) const
    {
        for (const char* p = text.c_str(); *p; p += CharBytes(p, m_codePage))
            if (*p == '\\')
                return true;
        return false;
    }

private:
    void SkipSpace()
    {
        while (IsSpace(*m_cur))
            ++m_cur;
    }

    HRESULT Take(Token& token)
    {
        const size_t bytes = CharBytes(m_cur, m_codePage);
        if (token.text.size() + bytes > kMaxTokenBytes)
            return DISP_E_EXCEPTION;    // token too long
        token.text.append(m_cur, bytes);
        m_cur += bytes;
        return S_OK;
    }

    const char* m_cur;
    const char* m_tokenStart = nullptr;
    const char* m_limit = nullptr;
    UINT m_codePage;
};

// One open registry key, closed on every way out.
class RegKey
{
public:
    RegKey() = default;
    ~RegKey() { Close(); }
    RegKey(const RegKey&) = delete;
    RegKey& operator=(const RegKey&) = delete;

    // For full access, else for reading.
    bool OpenExisting(HKEY parent, const char* name)
    {
        return RegOpenKeyExA(parent, name, 0, KEY_READ | KEY_WRITE, &m_key) == ERROR_SUCCESS ||
               RegOpenKeyExA(parent, name, 0, KEY_READ, &m_key) == ERROR_SUCCESS;
    }

    bool Create(HKEY parent, const char* name)
    {
        return RegCreateKeyExA(parent, name, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_READ | KEY_WRITE, nullptr,
                               &m_key, nullptr) == ERROR_SUCCESS;
    }

    LONG Close()
    {
        const LONG result = m_key ? RegCloseKey(m_key) : ERROR_SUCCESS;
        m_key = nullptr;
        return result;
    }

    // A key whose subkeys cannot be counted counts as having some.
    bool HasSubkeys() const
    {
        DWORD subkeys = 0;
        return RegQueryInfoKeyA(m_key, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr) != ERROR_SUCCESS ||
               subkeys != 0;
    }

    HKEY Get() const { return m_key; }

private:
    HKEY m_key = nullptr;
};

// Deletes the key and everything under it; failures are not reported.
void DeleteTree(HKEY parent, const char* name)
{
    {
        RegKey key;
        if (key.OpenExisting(parent, name))
        {
            std::vector<std::string> children;
            char child[256];
            for (DWORD index = 0;; ++index)
            {
                DWORD length = sizeof child;
                if (RegEnumKeyExA(key.Get(), index, child, &length, nullptr, nullptr, nullptr, nullptr) !=
                    ERROR_SUCCESS)
                    break;
                children.emplace_back(child, length);
            }
            for (const std::string& c : children)
                DeleteTree(key.Get(), c.c_str());
        }
    }
    RegDeleteKeyA(parent, name);
}

// A value as the registry takes it.
struct ScriptValue
{
    DWORD type = REG_NONE;
    std::string data;
};

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

HRESULT ConvertValue(const Token& type, const Token& text, ScriptValue& value)
{
    if (type.Is("S"))
    {
        value.type = REG_SZ;
        value.data.assign(text.text.c_str(), text.text.size() + 1);    // with its terminating zero
        return S_OK;
    }
    if (type.Is("D"))
    {
        const DWORD number = static_cast<DWORD>(strtoul(text.text.c_str(), nullptr, 10));
        value.type = REG_DWORD;
        value.data.assign(reinterpret_cast<const char*>(&number), sizeof number);
        return S_OK;
    }
    if (type.Is("B"))
    {
        const std::string& digits = text.text;
        if (digits.size() % 2 != 0)
            return E_FAIL;    // half a byte
        value.type = REG_BINARY;
        value.data.clear();
        for (size_t i = 0; i < digits.size(); i += 2)
        {
            const int high = HexDigit(digits[i]), low = HexDigit(digits[i + 1]);
            if (high < 0 || low < 0)
                return E_FAIL;    // not a hex digit
            value.data.push_back(static_cast<char>(high << 4 | low));
        }
        return S_OK;
    }
    return DISP_E_EXCEPTION;    // unknown type letter
}

enum class Mode
{
    Register,
    Unregister,
    Skip,    // unregister below a key that could not be opened: parse only
};

class ScriptWalker
{
public:
    ScriptWalker(const char* text, UINT codePage) : m_tokens(text, codePage) {}

    HRESULT Run(bool registerMode)
    {
        while (!m_tokens.AtEnd())
        {
            Token token;
            RETURN_IF_FAILED_QUIET(m_tokens.Next(token));
            const HKEY root = RootKey(token);
            if (!root)
                return DISP_E_EXCEPTION;    // not a root key name
            RETURN_IF_FAILED_QUIET(m_tokens.Next(token));
            if (!token.Is("{"))
                return DISP_E_EXCEPTION;    // root without its block
            const char* blockStart = m_tokens.Position();
            const HRESULT hr = KeyList(root, registerMode ? Mode::Register : Mode::Unregister);
            if (FAILED(hr) && registerMode)
            {
                // Take back what this block registered, up to where it stopped.
                m_tokens.Rewind(blockStart, m_tokens.TokenStart());
                KeyList(root, Mode::Unregister);
            }
            RETURN_IF_FAILED_QUIET(hr);
        }
        return S_OK;
    }

private:
    static HKEY RootKey(const Token& token)
    {
        for (const RootKeyName& root : kRootKeys)
            if (token.Is(root.shortName) || token.Is(root.longName))
                return root.key;
        return nullptr;
    }

    // After "{", up to and including the matching "}".
    HRESULT KeyList(HKEY parent, Mode mode)
    {
        Token token;
        RETURN_IF_FAILED_QUIET(m_tokens.Next(token));
        while (!token.Is("}"))
            RETURN_IF_FAILED_QUIET(Item(parent, mode, token));
        return S_OK;
    }

    // token holds the item's first token on entry and the token after the
    // item on return.
    HRESULT Item(HKEY parent, Mode mode, Token& token)
    {
        if (token.Is("Val"))
            return ValueItem(parent, mode, token);
        const bool forceRemove = token.Is("ForceRemove");
        const bool deleteOnly = token.Is("Delete");
        const bool noRemove = token.Is("NoRemove");
        if (forceRemove || deleteOnly || noRemove)
            RETURN_IF_FAILED_QUIET(m_tokens.Next(token));
        if (token.text.empty() || token.Is("{") || token.Is("="))
            return DISP_E_EXCEPTION;    // a key name was expected
        const std::string name = token.text;
        if (m_tokens.HasBackslash(name))
            return DISP_E_EXCEPTION;    // one key at a time
        if (mode == Mode::Register && (forceRemove || deleteOnly))
        {
            if (!IsNeverDelete(name))
                DeleteTree(parent, name.c_str());
            if (deleteOnly)
            {
                RETURN_IF_FAILED_QUIET(m_tokens.Next(token));
                return Assignment(token, nullptr);
            }
        }
        return KeyItem(parent, mode, name, noRemove, token);
    }

    // "Val" name "=" type value.
    HRESULT ValueItem(HKEY parent, Mode mode, Token& token)
    {
        Token name;
        RETURN_IF_FAILED_QUIET(m_tokens.Next(name));
        RETURN_IF_FAILED_QUIET(m_tokens.Next(token));
        if (!token.Is("="))
            return DISP_E_EXCEPTION;    // a value needs its assignment
        ScriptValue value;
        RETURN_IF_FAILED_QUIET(Assignment(token, mode == Mode::Register ? &value : nullptr));
        if (mode == Mode::Register)
            SetValue(parent, name.text.c_str(), value);
        else if (mode == Mode::Unregister)
            RegDeleteValueA(parent, name.text.c_str());    // a missing value is no error
        return S_OK;
    }

    // A key with its optional assignment and block.
    HRESULT KeyItem(HKEY parent, Mode mode, const std::string& name, bool noRemove, Token& token)
    {
        RegKey key;
        Mode inner = mode;
        if (mode == Mode::Register)
        {
            if (!key.OpenExisting(parent, name.c_str()) && !key.Create(parent, name.c_str()))
                return DISP_E_EXCEPTION;    // key cannot be created
        }
        else if (mode == Mode::Unregister && !key.OpenExisting(parent, name.c_str()))
            inner = Mode::Skip;

        const HRESULT hr = KeyBody(key.Get(), inner, token);
        if (inner != Mode::Unregister || (FAILED(hr) && hr != kWalkStopped))
            return hr;
        // The block went first; the key goes when nothing is left under it.
        const bool keep = noRemove || key.HasSubkeys();
        if (key.Close() != ERROR_SUCCESS)
            return DISP_E_EXCEPTION;
        if (!keep)
            RegDeleteKeyA(parent, name.c_str());
        return hr;
    }

    // After a key's name: optional assignment, optional block, and the next
    // token.
    HRESULT KeyBody(HKEY key, Mode mode, Token& token)
    {
        RETURN_IF_FAILED_QUIET(m_tokens.Next(token));
        ScriptValue value;
        const bool assigned = token.Is("=");
        RETURN_IF_FAILED_QUIET(Assignment(token, mode == Mode::Register ? &value : nullptr));
        if (assigned && mode == Mode::Register)
            SetValue(key, nullptr, value);
        if (!token.Is("{"))
            return S_OK;
        RETURN_IF_FAILED_QUIET(KeyList(key, mode));
        return m_tokens.Next(token);
    }

    // When token is "=": reads type and value (converted into value unless
    // null) and the token after them.
    HRESULT Assignment(Token& token, ScriptValue* value)
    {
        if (!token.Is("="))
            return S_OK;
        Token type, text;
        RETURN_IF_FAILED_QUIET(m_tokens.Next(type));
        RETURN_IF_FAILED_QUIET(m_tokens.Next(text));
        if (value)
            RETURN_IF_FAILED_QUIET(ConvertValue(type, text, *value));
        return m_tokens.Next(token);
    }

    // A value the registry refuses is not reported.
    static void SetValue(HKEY key, const char* name, const ScriptValue& value)
    {
        RegSetValueExA(key, name, 0, value.type, reinterpret_cast<const BYTE*>(value.data.data()),
                       static_cast<DWORD>(value.data.size()));
    }

    Tokenizer m_tokens;
};
}  // namespace

HRESULT LastErrorResult()
{
    const DWORD error = GetLastError();
    return error ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

void CRegistrar::AddReplacement(const char* name, const char* value)
{
    m_replacements.emplace_back(name ? name : "", value ? value : "");
}

const std::string* CRegistrar::FindReplacement(const std::string& name) const
{
    for (const auto& entry : m_replacements)
        if (SameText(entry.first.c_str(), name.c_str()))
            return &entry.second;
    return nullptr;
}

HRESULT CRegistrar::Replace(const char* script, std::string& result) const
{
    result.clear();
    result.reserve(2 * strlen(script));
    for (const char* p = script; *p;)
    {
        if (*p != '%')
        {
            const size_t bytes = CharBytes(p, m_codePage);
            result.append(p, bytes);
            p += bytes;
            continue;
        }
        if (p[1] == '%')
        {
            result += '%';
            p += 2;
            continue;
        }
        const char* name = p + 1;
        const char* end = name;
        while (*end && *end != '%')
            end += CharBytes(end, m_codePage);
        if (*end != '%')
            return DISP_E_EXCEPTION;    // "%" without its closing "%"
        if (static_cast<size_t>(end - name) > kMaxReplacementName)
            return E_FAIL;
        const std::string* value = FindReplacement(std::string(name, end));
        if (!value)
            return DISP_E_EXCEPTION;    // not in the replacement map
        result += *value;
        p = end + 1;
    }
    return S_OK;
}

HRESULT CRegistrar::RunScript(const char* script, bool registerMode) const
{
    if (!script)
        return E_POINTER;
    std::string text;
    RETURN_IF_FAILED_QUIET(Replace(script, text));
    return ScriptWalker(text.c_str(), m_codePage).Run(registerMode);
}

HRESULT CRegistrar::RunResource(const char* modulePath, UINT id, const char* type, bool registerMode) const
{
    if (!modulePath || !type)
        return E_POINTER;
    const HMODULE module = LoadLibraryExA(modulePath, nullptr, LOAD_LIBRARY_AS_DATAFILE);
    if (!module)
        return LastErrorResult();
    struct ModuleRelease
    {
        HMODULE module;
        ~ModuleRelease() { FreeLibrary(module); }
    } release{module};

    const HRSRC resource = FindResourceA(module, MAKEINTRESOURCEA(id), type);
    if (!resource)
        return LastErrorResult();
    const HGLOBAL loaded = LoadResource(module, resource);
    if (!loaded)
        return LastErrorResult();
    const DWORD size = SizeofResource(module, resource);
    const char* bytes = static_cast<const char*>(LockResource(loaded));
    if (!size || !bytes)
        return LastErrorResult();
    // A copy with its terminating zero: the resource need not end in one,
    // and the byte after it is not ours to read.
    const std::string script(bytes, size);
    return RunScript(script.c_str(), registerMode);
}
