#pragma once
// Error reports of the toolkit: each becomes one trace entry at LevelError.
#include <windows.h>
#include "PK_Export.h"
#include "afxstub.h"

class PIVKA_API CError
{
public:
    // A framework exception caught at a component boundary. The caller keeps
    // ownership of the exception object.
    static HRESULT ImplHandleCException(CException* exception, const char* message,
                                        const char* file, int line, DWORD code);
    // An internal inconsistency (bad stream version, name mismatch, ...).
    static HRESULT ImplHandleInternal(const char* message, const char* file, int line,
                                      DWORD code);
};
