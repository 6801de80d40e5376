#pragma once
// Reads the version resource of a module.
#include <windows.h>
#include "PK_Export.h"

class PIVKA_API CVersionResource
{
public:
    CVersionResource();
    ~CVersionResource();
    BOOL InitFromModuleHandle(HMODULE module);
    // Texts of the resource's first string table; empty when absent.
    const char* GetCompanyName() const;
    // "major.minor.build.revision" of the fixed file version; with
    // withBuild false the last two parts are left out only when both are 0.
    const char* GetUserReadableVersion(bool withBuild) const;
    // The "BuildTime" string of the resource.
    const char* GetBuildTime() const;

private:
    CVersionResource(const CVersionResource&) = delete;
    CVersionResource& operator=(const CVersionResource&) = delete;
    DWORD m_fixedMS = 0;
    DWORD m_fixedLS = 0;
    char m_company[256];
    char m_version[64];
    char m_buildTime[64];
};
