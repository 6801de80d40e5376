#pragma once
// Application base of components that use the toolkit.
#include "PK_Export.h"
#include "afxstub.h"

class PIVKA_API CWinAppInitPivka : public CWinApp
{
public:
    explicit CWinAppInitPivka(const char* appName = nullptr);
    ~CWinAppInitPivka() override;
    BOOL InitApplication() override;
    BOOL InitInstance() override;
    int ExitInstance() override;
    LRESULT ProcessWndProcException(CException* e, const MSG* msg) override;
};
