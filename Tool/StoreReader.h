#pragma once
// Reads a store file read-only, with the module's own format code, into the
// tool's JSON, and notes every rule the file breaks. A damaged part is noted
// and skipped; everything else is still read.
#include <windows.h>
#include <objidl.h>
#include <string>
#include <vector>
#include "Tool/JsonValue.h"

struct Finding
{
    bool unreadable;   // something could not be read at all
    std::string text;
};

class StoreReader
{
public:
    enum Result
    {
        Read,          // read, possibly with findings
        NotAStore,     // not a compound file, or one with nothing of a store in it
    };
    Result ReadFile(const wchar_t* path);

    const Json& Content() const { return m_content; }
    const std::vector<Finding>& Findings() const { return m_findings; }
    bool AnythingUnreadable() const;
    std::string NotAStoreReason() const { return m_reason; }

private:
    void Note(bool unreadable, const std::string& text) { m_findings.push_back({unreadable, text}); }
    void ReadAdmin(IStorage* root);
    Json ReadInstance(IStorage* root, const std::wstring& id);
    HRESULT ReadStream(IStorage* storage, const wchar_t* name, Bytes& bytes);
    Json ReadParameter(const std::string& where, const Bytes& bytes, Json json);
    Json ReadGroup(const std::string& where, const Bytes& bytes, Json json);
    // After a record: bytes left over, and the stored name against the map's.
    void NoteRest(const std::string& where, size_t rest);
    void CheckRules();

    Json m_content;
    std::vector<Finding> m_findings;
    std::string m_reason;
};
