#pragma once
// Failure reporting of the component. Each source file names itself once:
//     static const char THIS_FILE[] = "InstanceData/FbInstanceData";
// and every step of an algorithm is then one line:
//     RETURN_IF_FAILED(OpenInstanceStorage(id, storage.GetAddressOf()));
#include <windows.h>
#include <new>
#include <comdef.h>
#include "PK_Trace.h"
#include "PK_Error.h"

// The error trace line "<file>(<line>) : error 0x<hr>: <system text>\n" at
// level 0xFFFFFFFF; "<unknown>" when the system has no text for hr.
HRESULT TraceErrorLine(const char* file, int line, HRESULT hr);

// Gives hr back when it failed, after the error trace line.
#define RETURN_IF_FAILED(expr)                                   \
    do                                                           \
    {                                                            \
        const HRESULT hr_ = (expr);                              \
        if (FAILED(hr_))                                         \
            return TraceErrorLine(THIS_FILE, __LINE__, hr_);     \
    } while (0)

// The same, reported through CPkTrace::TraceHr.
#define RETURN_IF_FAILED_HR(expr)                                              \
    do                                                                         \
    {                                                                          \
        const HRESULT hr_ = (expr);                                            \
        if (FAILED(hr_))                                                       \
            return CPkTrace::TraceHr(CPkTrace::LevelError, hr_, THIS_FILE, __LINE__); \
    } while (0)

// Gives hr back when it failed, without a trace.
#define RETURN_IF_FAILED_QUIET(expr)   \
    do                                 \
    {                                  \
        const HRESULT hr_ = (expr);    \
        if (FAILED(hr_))               \
            return hr_;                \
    } while (0)

// Gives result when the pointer is null, without a trace.
#define RETURN_IF_NULL(pointer, result) \
    do                                  \
    {                                   \
        if (!(pointer))                 \
            return (result);            \
    } while (0)

// Runs body (a callable giving an HRESULT) inside the exception guard of an
// interface operation: a framework exception is reported through
// CError::ImplHandleCException with code 0xAA, an allocation failure as a
// framework memory exception; every exception gives E_UNEXPECTED.
template <class Body>
HRESULT ExceptionGuard(const char* file, int line, Body&& body)
{
    try
    {
        return body();
    }
    catch (CException* e)
    {
        CError::ImplHandleCException(e, nullptr, file, line, 0xAA);
        e->Delete();
    }
    catch (const std::bad_alloc&)
    {
        CMemoryException e(FALSE);
        CError::ImplHandleCException(&e, nullptr, file, line, 0xAA);
    }
    catch (const _com_error& e)
    {
        // comutil's wrappers throw this where the framework throws a memory exception.
        if (e.Error() == E_OUTOFMEMORY)
        {
            CMemoryException memory(FALSE);
            CError::ImplHandleCException(&memory, nullptr, file, line, 0xAA);
        }
    }
    catch (...)
    {
    }
    return E_UNEXPECTED;
}

#define EXCEPTION_GUARD(body) ExceptionGuard(THIS_FILE, __LINE__, body)
