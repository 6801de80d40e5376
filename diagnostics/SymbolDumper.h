#pragma once
// Dump of variables for the crash report: each enumerated data symbol with
// its value, read from the process's own memory and interpreted through the
// debug type information of its module.
#include <windows.h>
#include <dbghelp.h>
#include <string>
#include <vector>
#include "diagnostics/ReportWriter.h"

class CSymbolDumper
{
public:
    CSymbolDumper(CReportWriter& writer, HANDLE process) : m_writer(writer), m_process(process) {}

    // Parameters and locals of the scope last set with SymSetContext, for a
    // frame with these frame and stack pointers.
    void DumpScope(DWORD64 framePointer, DWORD64 stackPointer);
    // Global variables of the module loaded at base.
    void DumpModule(DWORD64 moduleBase);
    // One symbol: a fault or an exception while it is dumped ends it with
    // "punting on symbol".
    void DumpSymbol(const SYMBOL_INFO& symbol, DWORD64 framePointer, DWORD64 stackPointer);

    // Name tables of the report.
    static const char* BasicTypeName(DWORD basicType);
    static std::string UdtKindName(DWORD kind);
    static std::string SymTagName(DWORD tag);
    static void AppendNarrowCharacter(CValueText& text, BYTE character);
    static void AppendWideCharacter(CValueText& text, WCHAR character);

    // Children of one user-defined type that are fetched.
    static const ULONG kMaxChildren = 1025;
    // Items of one array that are shown, and how many on one line.
    static const DWORD kMaxArrayItems = 256;
    static const DWORD kArrayItemsPerLine = 32;

private:
    struct DumpNode
    {
        DWORD64 address = 0;         // 0 when the value has no readable address
        ULONG typeId = 0;
        ULONG64 size = 0;            // of the root symbol
        bool printable = true;
        bool childrenFetched = false;
        std::vector<ULONG> children;
        size_t childCursor = 0;
        const DumpNode* parent = nullptr;
    };

    struct EnumScope
    {
        CSymbolDumper* dumper;
        DWORD64 framePointer;
        DWORD64 stackPointer;
    };
    static BOOL CALLBACK OnSymbol(PSYMBOL_INFO symbol, ULONG size, PVOID context);

    void DumpRootSymbol(const SYMBOL_INFO& symbol, DWORD64 framePointer, DWORD64 stackPointer);
    DWORD64 ConstantAddress(const SYMBOL_INFO& symbol);
    void Dump(DumpNode& node, int level);
    void DumpUdt(DumpNode& node, int level);
    void DumpPointer(DumpNode& node, int level);

    std::string ValueText(DumpNode& node, int level);
    void AppendBaseType(const DumpNode& node, CValueText& text);
    void AppendPointer(DumpNode& node, int level, CValueText& text);
    void AppendArray(DumpNode& node, int level, CValueText& text);
    bool SpecialForm(const DumpNode& node, std::string& text);

    DumpNode NewNode(const DumpNode* parent, DWORD64 address, ULONG typeId);
    DumpNode ChildNode(const DumpNode& parent, ULONG typeId, bool fromTypeChildren);
    void FetchChildren(DumpNode& node);
    static bool IsOwnOrAncestorType(const DumpNode& node, ULONG typeId);

    // Type queries, all to the module of the symbol being dumped.
    template <class T>
    bool Query(ULONG id, IMAGEHLP_SYMBOL_TYPE_INFO what, T& value) const
    {
        return SymGetTypeInfo(m_process, m_moduleBase, id, what, &value) != FALSE;
    }
    DWORD Tag(ULONG id) const;
    ULONG TypeOf(ULONG id) const;
    ULONG64 Length(ULONG id) const;
    std::string Name(ULONG id) const;
    ULONG WithoutTypedefs(ULONG id) const;

    CReportWriter& m_writer;
    HANDLE m_process;
    DWORD64 m_moduleBase = 0;
    LONGLONG m_constant = 0;  // value of the constant being dumped
};
