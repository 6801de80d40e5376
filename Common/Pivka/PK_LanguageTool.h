#pragma once
// Language modules: a component registers itself as a base module so that
// localized resource modules can be attached to it.
#include <windows.h>
#include "PK_Export.h"

class PIVKA_API CLanguageTool
{
public:
    typedef void (*ModuleCallback)(HMODULE module);
    static BOOL AddBaseModule(HMODULE module, ModuleCallback onLoad, ModuleCallback onUnload);
    static BOOL RemoveBaseModule(HMODULE module);
    static BOOL IsBaseModule(HMODULE module);
};
