// Registry of base modules for language resource modules.
#include "PK_LanguageTool.h"
#include <new>
#include <vector>

namespace
{
struct BaseModule
{
    HMODULE module;
    CLanguageTool::ModuleCallback onLoad;
    CLanguageTool::ModuleCallback onUnload;
};

struct Modules
{
    CRITICAL_SECTION lock;
    std::vector<BaseModule> list;
    Modules() { InitializeCriticalSection(&lock); }
};

Modules& Registry()
{
    // Never freed, so that no destructor races a late call; allocates nothing.
    alignas(Modules) static char storage[sizeof(Modules)];
    static Modules* modules = new (storage) Modules;
    return *modules;
}
}  // namespace

BOOL CLanguageTool::AddBaseModule(HMODULE module, ModuleCallback onLoad, ModuleCallback onUnload)
{
    if (!module)
        return FALSE;
    Modules& modules = Registry();
    EnterCriticalSection(&modules.lock);
    BOOL added = TRUE;
    for (const BaseModule& entry : modules.list)
        if (entry.module == module)
            added = FALSE;
    // Failures are return values: nothing may throw out of this DLL.
    try
    {
        if (added)
            modules.list.push_back({module, onLoad, onUnload});
    }
    catch (const std::bad_alloc&)
    {
        added = FALSE;
    }
    LeaveCriticalSection(&modules.lock);
    if (added && onLoad)
        onLoad(module);
    return added;
}

BOOL CLanguageTool::RemoveBaseModule(HMODULE module)
{
    Modules& modules = Registry();
    ModuleCallback onUnload = nullptr;
    BOOL removed = FALSE;
    EnterCriticalSection(&modules.lock);
    for (auto it = modules.list.begin(); it != modules.list.end(); ++it)
        if (it->module == module)
        {
            onUnload = it->onUnload;
            modules.list.erase(it);
            removed = TRUE;
            break;
        }
    LeaveCriticalSection(&modules.lock);
    if (onUnload)
        onUnload(module);
    return removed;
}

BOOL CLanguageTool::IsBaseModule(HMODULE module)
{
    Modules& modules = Registry();
    EnterCriticalSection(&modules.lock);
    BOOL found = FALSE;
    for (const BaseModule& entry : modules.list)
        found |= entry.module == module;
    LeaveCriticalSection(&modules.lock);
    return found;
}
