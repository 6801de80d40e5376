// Version resource reader.
#include "PK_VersionResource.h"
#include <cstdio>
#include <memory>
#include <new>

CVersionResource::CVersionResource()
{
    m_company[0] = m_version[0] = m_buildTime[0] = '\0';
}

CVersionResource::~CVersionResource() {}

namespace
{
void CopyString(const char* data, const char* key, const char* translation, char* out, size_t size)
{
    char query[128];
    snprintf(query, sizeof query, "\\StringFileInfo\\%s\\%s", translation, key);
    char* value = nullptr;
    UINT length = 0;
    if (VerQueryValueA(data, query, reinterpret_cast<void**>(&value), &length) && value && length)
        lstrcpynA(out, value, static_cast<int>(size));
}
}  // namespace

BOOL CVersionResource::InitFromModuleHandle(HMODULE module)
{
    m_company[0] = m_version[0] = m_buildTime[0] = '\0';
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(module, path, sizeof path);
    if (length == 0 || length >= sizeof path)
        return FALSE;
    DWORD handle = 0;
    const DWORD size = GetFileVersionInfoSizeA(path, &handle);
    if (size == 0)
        return FALSE;
    // Failures are return values: nothing may throw out of this DLL.
    const std::unique_ptr<char[]> data(new (std::nothrow) char[size]);
    if (!data || !GetFileVersionInfoA(path, 0, size, data.get()))
        return FALSE;

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT fixedLength = 0;
    if (VerQueryValueA(data.get(), "\\", reinterpret_cast<void**>(&fixed), &fixedLength) && fixed)
    {
        m_fixedMS = fixed->dwFileVersionMS;
        m_fixedLS = fixed->dwFileVersionLS;
    }

    struct Translation { WORD language; WORD codePage; }* translations = nullptr;
    UINT translationLength = 0;
    char key[16] = "040904b0";
    if (VerQueryValueA(data.get(), "\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translations),
                       &translationLength) && translations && translationLength >= sizeof *translations)
        snprintf(key, sizeof key, "%04x%04x", translations->language, translations->codePage);
    CopyString(data.get(), "CompanyName", key, m_company, sizeof m_company);
    CopyString(data.get(), "BuildTime", key, m_buildTime, sizeof m_buildTime);
    return TRUE;
}

const char* CVersionResource::GetCompanyName() const
{
    return m_company;
}

const char* CVersionResource::GetUserReadableVersion(bool withBuild) const
{
    char* version = const_cast<char*>(m_version);
    const unsigned major = HIWORD(m_fixedMS), minor = LOWORD(m_fixedMS);
    const unsigned build = HIWORD(m_fixedLS), revision = LOWORD(m_fixedLS);
    if (withBuild || build || revision)
        snprintf(version, sizeof m_version, "%u.%u.%u.%u", major, minor, build, revision);
    else
        snprintf(version, sizeof m_version, "%u.%u", major, minor);
    return m_version;
}

const char* CVersionResource::GetBuildTime() const
{
    return m_buildTime;
}
