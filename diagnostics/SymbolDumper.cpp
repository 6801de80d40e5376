// Variable dump of the crash report.
#include "diagnostics/SymbolDumper.h"
#include <ole2.h>
#include <algorithm>
#include "diagnostics/FaultGuard.h"
#include "diagnostics/MemoryProbe.h"

namespace
{
// Symbol tags, basic types and data kinds of the debug-help type information.
enum : DWORD
{
    TagData = 7,
    TagUdt = 11,
    TagEnum = 12,
    TagPointerType = 14,
    TagArrayType = 15,
    TagBaseType = 16,
    TagTypedef = 17,
};
enum : DWORD
{
    BasicNoType = 0,
    BasicVoid = 1,
    BasicChar = 2,
    BasicWChar = 3,
    BasicInt = 6,
    BasicUInt = 7,
    BasicFloat = 8,
    BasicBcd = 9,
    BasicBool = 10,
    BasicLong = 13,
    BasicULong = 14,
    BasicCurrency = 25,
    BasicHresult = 31,
};
enum : DWORD
{
    KindGlobal = 6,
    KindMember = 7,
    KindStaticMember = 8,
};

// The register that a register-relative local is counted from when it is
// the stack pointer (early in a function); else it is the frame pointer.
#ifdef _WIN64
const ULONG kStackPointerRegister = 335;  // CV_AMD64_RSP
#else
const ULONG kStackPointerRegister = 21;   // CV_REG_ESP
#endif

// CWnd: its window handle and the bytes that must be readable, in pointer
// units (32 and 64 bytes on a 32-bit machine).
const DWORD64 kWindowHandleOffset = 8 * sizeof(void*);
const DWORD64 kWindowObjectSize = 16 * sizeof(void*);
static_assert(sizeof(void*) != 4 || (kWindowHandleOffset == 32 && kWindowObjectSize == 64),
              "window object of the i386 machine");
static_assert(sizeof(ULONG_PTR) == sizeof(void*), "pointers are read as ULONG_PTR");

const DWORD kMaxTextLength = 256;

bool IsNamedData(DWORD kind)
{
    return kind == KindGlobal || kind == KindMember || kind == KindStaticMember;
}

std::string Tabs(int level)
{
    return std::string(static_cast<size_t>(level), '\t');
}

std::string Narrow(const wchar_t* text)
{
    const int size = WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 0)
        return std::string();
    std::string result(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, 0, text, -1, &result[0], size, nullptr, nullptr);
    result.resize(static_cast<size_t>(size - 1));
    return result;
}

// Escape of the characters 0 and 7 to 13, else null.
const char* Escape(unsigned character)
{
    static const char* const kEscapes[] = {"'\\a'", "'\\b'", "'\\t'", "'\\n'", "'\\v'", "'\\f'", "'\\r'"};
    if (character == 0)
        return "'\\0'";
    if (character >= 7 && character <= 13)
        return kEscapes[character - 7];
    return nullptr;
}

bool IsPrintable(unsigned character)
{
    return character >= 0x20 && character < 0x7F;
}

// A character in quotes: its escape, itself when printable, else its code.
void AppendCharacter(CValueText& text, unsigned character, const char* printable, const char* code)
{
    if (const char* escape = Escape(character))
        text.Append("%s", escape);
    else if (IsPrintable(character))
        text.Append(printable, character);
    else
        text.Append(code, character);
}

class BstrVariant
{
public:
    BstrVariant() { VariantInit(&m_value); }
    ~BstrVariant() { VariantClear(&m_value); }
    VARIANT* Get() { return &m_value; }

private:
    BstrVariant(const BstrVariant&) = delete;
    BstrVariant& operator=(const BstrVariant&) = delete;
    VARIANT m_value;
};
}  // namespace

const char* CSymbolDumper::BasicTypeName(DWORD basicType)
{
    switch (basicType)
    {
    case 0: return "btNoType";
    case 1: return "btVoid";
    case 2: return "btChar";
    case 3: return "btWChar";
    case 6: return "btInt";
    case 7: return "btUInt";
    case 8: return "btFloat";
    case 9: return "btBCD";
    case 10: return "btBool";
    case 13: return "btLong";
    case 14: return "btULong";
    case 25: return "btCurrency";
    case 26: return "btDate";
    case 27: return "btVariant";
    case 28: return "btComplex";
    case 29: return "btBit";
    case 30: return "btBSTR";
    case 31: return "btHresult";
    default: return "unknown BasicType";
    }
}

std::string CSymbolDumper::UdtKindName(DWORD kind)
{
    static const char* const kNames[] = {"struct", "class", "union"};
    if (kind < 3)
        return kNames[kind];
    CValueText text;
    text.Append("UdtKind(%d)", static_cast<int>(kind));
    return text.Text();
}

std::string CSymbolDumper::SymTagName(DWORD tag)
{
    static const char* const kNames[] = {
        "Null", "Exe", "Compiland", "CompilandDetails", "CompilandEnv", "Function", "Block", "Data",
        "Annotation", "Label", "PublicSymbol", "UDT", "Enum", "FunctionType", "PointerType", "ArrayType",
        "BaseType", "Typedef", "BaseClass", "Friend", "FunctionArgType", "FuncDebugStart", "FuncDebugEnd",
        "UsingNamespace", "VTableShape", "VTable", "Custom", "Thunk", "CustomType", "ManagedType", "Dimension",
        "Max"};
    if (tag < sizeof kNames / sizeof kNames[0])
        return kNames[tag];
    CValueText text;
    text.Append("SymTagEnum(%d)", static_cast<int>(tag));
    return text.Text();
}

void CSymbolDumper::AppendNarrowCharacter(CValueText& text, BYTE character)
{
    AppendCharacter(text, character, "'%c'", "'0x%2.2X'");
}

void CSymbolDumper::AppendWideCharacter(CValueText& text, WCHAR character)
{
    text.Append("L");
    AppendCharacter(text, character, "'%C'", "'0x%4.4X'");
}

// --- enumeration -----------------------------------------------------------

BOOL CALLBACK CSymbolDumper::OnSymbol(PSYMBOL_INFO symbol, ULONG, PVOID context)
{
    const EnumScope* scope = static_cast<const EnumScope*>(context);
    scope->dumper->DumpSymbol(*symbol, scope->framePointer, scope->stackPointer);
    return TRUE;
}

void CSymbolDumper::DumpScope(DWORD64 framePointer, DWORD64 stackPointer)
{
    EnumScope scope = {this, framePointer, stackPointer};
    SymEnumSymbols(m_process, 0, nullptr, OnSymbol, &scope);
}

void CSymbolDumper::DumpModule(DWORD64 moduleBase)
{
    EnumScope scope = {this, 0, 0};
    SymEnumSymbols(m_process, moduleBase, nullptr, OnSymbol, &scope);
}

void CSymbolDumper::DumpSymbol(const SYMBOL_INFO& symbol, DWORD64 framePointer, DWORD64 stackPointer)
{
    const std::string name(symbol.Name, std::min<size_t>(symbol.NameLen, symbol.MaxNameLen));
    auto body = [&] { DumpRootSymbol(symbol, framePointer, stackPointer); };
    bool completed = false;
    try
    {
        completed = CFaultGuard::Run(body);
    }
    catch (...)
    {
    }
    if (!completed)
        m_writer.Write("punting on symbol '%s'\n", name.c_str());
}

void CSymbolDumper::DumpRootSymbol(const SYMBOL_INFO& symbol, DWORD64 framePointer, DWORD64 stackPointer)
{
    if (symbol.Tag != TagData)
        return;
    m_moduleBase = symbol.ModBase;
    const char* prefix = (symbol.Flags & SYMFLAG_PARAMETER) ? "Parameter "
                         : (symbol.Flags & SYMFLAG_LOCAL)   ? "Local "
                                                            : "Var ";
    m_writer.Write("%s'%s': ", prefix, symbol.Name);
    DWORD64 address = symbol.Address;
    if (symbol.Flags & SYMFLAG_VALUEPRESENT)
        address = ConstantAddress(symbol);
    else if (symbol.Flags & SYMFLAG_REGREL)
    {
        // A negative offset comes as an unsigned number of the machine's
        // width (32 bits on i386): the sum wraps at the width of a pointer.
        const DWORD64 base = symbol.Register == kStackPointerRegister ? stackPointer : framePointer;
        address = static_cast<ULONG_PTR>(address + base);
    }
    else if (symbol.Flags & SYMFLAG_REGISTER)
        address = 0;
    DumpNode root = NewNode(nullptr, address, symbol.TypeIndex);
    root.size = symbol.Size;
    Dump(root, 0);
}

DWORD64 CSymbolDumper::ConstantAddress(const SYMBOL_INFO& symbol)
{
    // A constant has no storage of its own: its value is in the debug
    // information, by reference when it is larger than a number.
    VARIANT value;
    VariantInit(&value);
    if (!Query(symbol.info, TI_GET_VALUE, value))
        return 0;
    if (V_VT(&value) & VT_BYREF)
        return AsAddress(V_BYREF(&value));
    m_constant = value.llVal;
    VariantClear(&value);
    return AsAddress(&m_constant);
}

// --- nodes -----------------------------------------------------------------

CSymbolDumper::DumpNode CSymbolDumper::NewNode(const DumpNode* parent, DWORD64 address, ULONG typeId)
{
    DumpNode node;
    node.parent = parent;
    node.address = address;
    node.size = parent ? parent->size : 0;
    node.typeId = WithoutTypedefs(typeId);
    // A pointer node stands for what it points to.
    if (Tag(node.typeId) == TagPointerType)
    {
        ULONG_PTR target = 0;
        node.address = CMemoryProbe::Read(node.address, target) ? target : 0;
    }
    return node;
}

CSymbolDumper::DumpNode CSymbolDumper::ChildNode(const DumpNode& parent, ULONG typeId, bool fromTypeChildren)
{
    DWORD64 address = parent.address;
    DWORD kind = 0;
    const bool hasKind = Query(typeId, TI_GET_DATAKIND, kind);
    if (hasKind && kind == KindMember)
    {
        DWORD offset = 0;
        Query(typeId, TI_GET_OFFSET, offset);
        address += offset;
    }
    else if (hasKind && (kind == KindGlobal || kind == KindStaticMember))
    {
        ULONG64 own = 0;
        Query(typeId, TI_GET_ADDRESS, own);
        address = own;
    }
    DumpNode child = NewNode(&parent, address, typeId);
    child.printable = !fromTypeChildren || (hasKind && IsNamedData(kind));
    return child;
}

void CSymbolDumper::FetchChildren(DumpNode& node)
{
    if (node.childrenFetched)
        return;
    node.childrenFetched = true;
    DWORD count = 0;
    if (!Query(node.typeId, TI_GET_CHILDRENCOUNT, count) || count == 0)
        return;
    // Types with more children show the first kMaxChildren of them.
    count = std::min<DWORD>(count, kMaxChildren);
    std::vector<ULONG> buffer(2 + count);
    TI_FINDCHILDREN_PARAMS* request = reinterpret_cast<TI_FINDCHILDREN_PARAMS*>(buffer.data());
    request->Count = count;
    request->Start = 0;
    if (SymGetTypeInfo(m_process, m_moduleBase, node.typeId, TI_FINDCHILDREN, request))
        node.children.assign(request->ChildId, request->ChildId + count);
}

bool CSymbolDumper::IsOwnOrAncestorType(const DumpNode& node, ULONG typeId)
{
    for (const DumpNode* next = &node; next; next = next->parent)
        if (next->typeId == typeId)
            return true;
    return false;
}

// --- dump ------------------------------------------------------------------

void CSymbolDumper::Dump(DumpNode& node, int level)
{
    DWORD kind = 0;
    if (Query(node.typeId, TI_GET_DATAKIND, kind) && IsNamedData(kind))
    {
        node.printable = true;
        const std::string name = Name(node.typeId);
        m_writer.Write("%s- %s", Tabs(level).c_str(),
                       name.empty() ? "### MEMBER NAME UNKNOWN" : ("'" + name + "'").c_str());
    }
    switch (Tag(node.typeId))
    {
    case TagData:
    {
        DumpNode child = ChildNode(node, TypeOf(node.typeId), false);
        if (IsOwnOrAncestorType(node, child.typeId))
            m_writer.Write("\n");
        else
            Dump(child, level);
        break;
    }
    case TagUdt:
        DumpUdt(node, level);
        break;
    case TagPointerType:
        DumpPointer(node, level);
        break;
    case TagEnum:
    case TagArrayType:
    case TagBaseType:
        m_writer.Write("%s\n", ValueText(node, level).c_str());
        break;
    default:
        break;
    }
}

void CSymbolDumper::DumpUdt(DumpNode& node, int level)
{
    std::string special;
    if (SpecialForm(node, special))
    {
        m_writer.Write("%s\n", special.c_str());
        return;
    }
    DWORD kind = 0;
    Query(node.typeId, TI_GET_UDTKIND, kind);
    m_writer.Write(" %s\n", UdtKindName(kind).c_str());
    FetchChildren(node);
    for (node.childCursor = 0; node.childCursor < node.children.size(); ++node.childCursor)
    {
        // Data members only: base classes, functions and nested types print nothing.
        const ULONG id = node.children[node.childCursor];
        if (Tag(id) != TagData)
            continue;
        DumpNode child = ChildNode(node, id, true);
        Dump(child, level + 1);
    }
}

void CSymbolDumper::DumpPointer(DumpNode& node, int level)
{
    DumpNode child = ChildNode(node, TypeOf(node.typeId), false);
    if (Tag(child.typeId) != TagUdt)
    {
        m_writer.Write("%s\n", ValueText(node, level).c_str());
        return;
    }
    m_writer.Write("*(%p)", AsPointer(child.address));
    if (IsOwnOrAncestorType(node, child.typeId))
        m_writer.Write("\n");
    else if (CMemoryProbe::IsReadable(child.address, sizeof(void*)))
        Dump(child, level);
    else
        m_writer.Write("@ %p\n", AsPointer(child.address));
}

bool CSymbolDumper::SpecialForm(const DumpNode& node, std::string& text)
{
    const std::string name = Name(node.typeId);
    if (name != "_GUID" && name != "CWnd" && name != "tagVARIANT")
        return false;
    if (!CMemoryProbe::IsReadable(node.address, sizeof(void*)))
        return false;
    CValueText value;
    if (name == "_GUID")
    {
        GUID guid;
        WCHAR registryForm[40];
        if (!CMemoryProbe::Read(node.address, guid))
            value.Append("can't access GUID at 0x%p", AsPointer(node.address));
        else if (StringFromGUID2(guid, registryForm, 40))
            value.Append("%s", Narrow(registryForm).c_str());
        else
            return false;
    }
    else if (name == "CWnd")
    {
        HWND window = nullptr;
        if (!CMemoryProbe::IsReadable(node.address, kWindowObjectSize) ||
            !CMemoryProbe::Read(node.address + kWindowHandleOffset, window))
            value.Append("can't access CWnd at 0x%p", AsPointer(node.address));
        else if (!IsWindow(window))
            value.Append("HWND=0x%lX is not a window", static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(window)));
        else
        {
            RECT rectangle = {};
            GetWindowRect(window, &rectangle);
            value.Append("HWND=0x%lX %s %s T=%d L=%d W=%d H=%d",
                         static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(window)),
                         IsWindowEnabled(window) ? "Enabled" : "Disabled",
                         IsWindowVisible(window) ? "Visible" : "Invisible", static_cast<int>(rectangle.top),
                         static_cast<int>(rectangle.left), static_cast<int>(rectangle.right - rectangle.left),
                         static_cast<int>(rectangle.bottom - rectangle.top));
        }
    }
    else
    {
        VARIANT copy;
        BstrVariant changed;
        if (!CMemoryProbe::Read(node.address, copy))
            value.Append("can't access VARIANT at 0x%p", AsPointer(node.address));
        else if (SUCCEEDED(VariantChangeType(changed.Get(), &copy, 0, VT_BSTR)))
            value.Append("%s", V_BSTR(changed.Get()) ? Narrow(V_BSTR(changed.Get())).c_str() : "");
        else
            return false;
    }
    text = value.Text();
    return true;
}

// --- value texts -----------------------------------------------------------

std::string CSymbolDumper::ValueText(DumpNode& node, int level)
{
    if (!node.printable)
        return std::string();
    CValueText text;
    const DWORD tag = Tag(node.typeId);
    switch (tag)
    {
    case TagEnum:
    {
        DWORD value = 0;
        if (CMemoryProbe::Read(node.address, value))
            text.Append("0x%X", static_cast<unsigned>(value));
        else
            text.Append("can't access enum data at address 0x%p", AsPointer(node.address));
        break;
    }
    case TagBaseType:
        AppendBaseType(node, text);
        break;
    case TagPointerType:
        AppendPointer(node, level, text);
        break;
    case TagArrayType:
        AppendArray(node, level, text);
        break;
    default:
        text.Append("{%s}", SymTagName(tag).c_str());
        break;
    }
    return text.Text();
}

void CSymbolDumper::AppendBaseType(const DumpNode& node, CValueText& text)
{
    DWORD basicType = 0;
    Query(node.typeId, TI_GET_BASETYPE, basicType);
    const ULONG64 length = Length(node.typeId);
    if (!CMemoryProbe::IsReadable(node.address, length))
    {
        text.Append("can't access basic data at address 0x%p", AsPointer(node.address));
        return;
    }
    union
    {
        BYTE bytes[sizeof(long double)];
        signed char int8;
        SHORT int16;
        LONG int32;
        LONGLONG int64;
        BYTE uint8;
        WORD uint16;
        DWORD uint32;
        ULONGLONG uint64;
        float single;
        double real;
        long double extended;
    } value = {};
    CopyMemory(value.bytes, AsPointer(node.address), static_cast<size_t>(std::min<ULONG64>(length, sizeof value)));
    // Whole numbers of 1, 2, 4 or 8 bytes, widened (the text is the same at any width).
    const bool isInteger = length == 1 || length == 2 || length == 4 || length == 8;
    const LONGLONG signedValue = length == 1 ? value.int8 : length == 2 ? value.int16 : length == 4 ? value.int32
                                                                                                     : value.int64;
    const ULONGLONG unsignedValue = length == 1 ? value.uint8 : length == 2 ? value.uint16 : length == 4
                                                                                              ? value.uint32
                                                                                              : value.uint64;
    const void* address = AsPointer(node.address);
    switch (basicType)
    {
    case BasicNoType:
        text.Append("btNoType at 0x%p", address);
        break;
    case BasicVoid:
        text.Append("btVoid at 0x%p", address);
        break;
    case BasicChar:
        AppendNarrowCharacter(text, value.uint8);
        break;
    case BasicWChar:
        AppendWideCharacter(text, value.uint16);
        break;
    case BasicInt:
    case BasicLong:
        if (isInteger)
            text.Append("%I64d", signedValue);
        break;
    case BasicUInt:
    case BasicULong:
        if (length == 2 && basicType == BasicUInt)
        {
            text.Append("0x%X(", value.uint16);
            AppendWideCharacter(text, value.uint16);
            text.Append(")");
        }
        else if (isInteger)
            text.Append("0x%I64X", unsignedValue);
        break;
    case BasicFloat:
        if (length == 4)
            text.Append("%g", static_cast<double>(value.single));
        else if (length == sizeof(long double) && sizeof(long double) != sizeof(double))
            text.Append("%g", static_cast<double>(value.extended));
        else
            text.Append("%g", value.real);
        break;
    case BasicBcd:
    case BasicBool:
        text.Append("unsupported basic type %s at0x%p", BasicTypeName(basicType), address);
        break;
    default:
        if (basicType >= BasicCurrency && basicType <= BasicHresult)
            text.Append("unsupported basic type %s at0x%p", BasicTypeName(basicType), address);
        break;
    }
}

void CSymbolDumper::AppendPointer(DumpNode& node, int level, CValueText& text)
{
    text.Append("*");
    if (!CMemoryProbe::IsReadable(node.address, sizeof(void*)))
    {
        text.Append("@ 0x%p", AsPointer(node.address));
        return;
    }
    DumpNode child = ChildNode(node, TypeOf(node.typeId), false);
    if (Tag(child.typeId) != TagBaseType)
    {
        text.Append(ValueText(child, level + 1));
        return;
    }
    DWORD basicType = 0;
    Query(child.typeId, TI_GET_BASETYPE, basicType);
    switch (basicType)
    {
    case BasicVoid:
        text.Append("0x%p", AsPointer(node.address));
        break;
    case BasicChar:
    {
        char string[kMaxTextLength + 1];
        BYTE first = 0;
        if (child.address && CMemoryProbe::ReadString(child.address, string, kMaxTextLength))
            text.Append("\"%.256s\"(%p)", string, AsPointer(child.address));
        else if (!CMemoryProbe::Read(child.address, first))
            text.Append("can't access btChar data at address 0x%p", AsPointer(child.address));
        else
            AppendNarrowCharacter(text, first);
        break;
    }
    case BasicUInt:
    case BasicWChar:  // wchar_t as its own type; the unsigned short form is BasicUInt
    {
        wchar_t string[kMaxTextLength + 1];
        WCHAR first = 0;
        const bool isString = child.address && CMemoryProbe::ReadWideString(child.address, string, kMaxTextLength);
        if (isString && Length(child.typeId) == 2)
            text.Append("L\"%.256s\"(%p) = 0x%X", Narrow(string).c_str(), AsPointer(child.address), string[0]);
        else if (isString)
            AppendBaseType(child, text);
        else if (!CMemoryProbe::Read(child.address, first))
            text.Append("can't access btUint data at address 0x%p", AsPointer(child.address));
        else
            AppendWideCharacter(text, first);
        break;
    }
    default:
        AppendBaseType(child, text);
        break;
    }
}

void CSymbolDumper::AppendArray(DumpNode& node, int level, CValueText& text)
{
    DWORD count = 0;
    Query(node.typeId, TI_GET_COUNT, count);
    if (count == 0)
    {
        text.Append("[empty array]");
        return;
    }
    const std::string tabs = Tabs(level + 1);
    text.Append("\n%s= %lu array item%s", tabs.c_str(), count, count == 1 ? "" : "s");
    const DWORD shown = std::min(count, kMaxArrayItems);
    text.Append(count > kMaxArrayItems ? " (only the first 256 items are dumped)\n" : "\n");
    text.Append("%s", tabs.c_str());
    const ULONG elementType = WithoutTypedefs(TypeOf(node.typeId));
    const ULONG64 elementLength = Length(elementType);
    if (!CMemoryProbe::IsReadable(node.address, shown * elementLength))
    {
        text.Append("[can't access all %lu array data items at starting address 0x%p (each item has size %I64u)]",
                    shown, AsPointer(node.address), elementLength);
        return;
    }
    text.Append("[");
    for (DWORD index = 0; index < shown; ++index)
    {
        if (index > 0)
            text.Append(index % kArrayItemsPerLine ? " " : "\n%s ", tabs.c_str());
        // Each item from its own slot, also when the items are pointers.
        DumpNode item = NewNode(&node, node.address + index * elementLength, elementType);
        text.Append(ValueText(item, level + 1));
    }
    text.Append("]");
}

// --- type queries ----------------------------------------------------------

DWORD CSymbolDumper::Tag(ULONG id) const
{
    DWORD tag = 0;
    return Query(id, TI_GET_SYMTAG, tag) ? tag : 0;
}

ULONG CSymbolDumper::TypeOf(ULONG id) const
{
    DWORD type = 0;
    return Query(id, TI_GET_TYPEID, type) ? type : 0;
}

ULONG64 CSymbolDumper::Length(ULONG id) const
{
    ULONG64 length = 0;
    return Query(id, TI_GET_LENGTH, length) ? length : 0;
}

std::string CSymbolDumper::Name(ULONG id) const
{
    WCHAR* name = nullptr;
    if (!Query(id, TI_GET_SYMNAME, name) || !name)
        return std::string();
    const std::string result = Narrow(name);
    LocalFree(name);
    return result;
}

ULONG CSymbolDumper::WithoutTypedefs(ULONG id) const
{
    // The debug information of this platform keeps typedefs that other
    // formats resolve; a value is shown by the type underneath.
    for (int depth = 0; depth < 32 && Tag(id) == TagTypedef; ++depth)
        id = TypeOf(id);
    return id;
}
