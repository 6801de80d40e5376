#pragma once
// The registrar script engine: walks a script of registry keys and values in
// register or unregister mode.
//
//     HKCR
//     {
//         NoRemove CLSID
//         {
//             ForceRemove {...} = s 'Text'
//             {
//                 InprocServer32 = s '%MODULE%'
//                 {
//                     val ThreadingModel = s 'Apartment'
//                 }
//             }
//         }
//     }
//
// Before the walk, %NAME% is replaced from the replacement map and %% stands
// for %. Text errors give DISP_E_EXCEPTION; a replacement name of more than 31
// characters and binary text of odd length give E_FAIL.
#include <windows.h>
#include <string>
#include <utility>
#include <vector>

class CRegistrar
{
public:
    // codePage decides which bytes lead a double-byte character.
    explicit CRegistrar(UINT codePage = CP_ACP) : m_codePage(codePage) {}

    // %name% (any case) in a script stands for value from now on.
    void AddReplacement(const char* name, const char* value);

    // Runs the script held by resource (type, id) of the module file at
    // modulePath, which is opened as a data file.
    HRESULT RunResource(const char* modulePath, UINT id, const char* type, bool registerMode) const;

    // Runs the script text.
    HRESULT RunScript(const char* script, bool registerMode) const;

private:
    HRESULT Replace(const char* script, std::string& result) const;
    const std::string* FindReplacement(const std::string& name) const;

    UINT m_codePage;
    std::vector<std::pair<std::string, std::string>> m_replacements;
};

// The calling thread's last error as an HRESULT; E_FAIL when none is set.
HRESULT LastErrorResult();
