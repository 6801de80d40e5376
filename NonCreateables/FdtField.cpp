#include "NonCreateables/FdtField.h"
#include "Common/ErrorTrace.h"
#include "Common/VariantCopy.h"

HRESULT FdtString::Get(BSTR* value, const char*, int) const
{
    if (!value)
        return E_POINTER;
    // The member's full length keeps embedded null characters; a null member
    // gives an empty string.
    *value = SysAllocStringLen(m_value, SysStringLen(m_value));
    return *value ? S_OK : E_OUTOFMEMORY;
}

HRESULT FdtString::Put(BSTR value)
{
    SysFreeString(m_value);
    // SysAllocString stops at the first null character; a failed copy leaves
    // the member null, which is a legal value.
    m_value = value ? SysAllocString(value) : nullptr;
    return S_OK;
}

HRESULT FdtVariant::Get(VARIANT* value, const char* file, int line) const
{
    if (!value)
        return E_POINTER;
    const HRESULT hr = VariantClear(value);
    if (FAILED(hr))
        return TraceErrorLine(file, line, hr);
    return CopyVariant(m_value, *value);
}

HRESULT FdtVariant::Put(VARIANT value)
{
    // Copied aside first, so that a failed copy never clears the member
    // into a half-made state.
    VARIANT copy;
    const HRESULT hr = CopyVariant(value, copy);
    if (FAILED(hr))
    {
        V_VT(&copy) = VT_ERROR;
        V_ERROR(&copy) = hr;
    }
    VariantClear(&m_value);
    m_value = copy;
    return S_OK;
}

HRESULT FdtBoolean::Get(VARIANT_BOOL* value, const char*, int) const
{
    if (!value)
        return E_POINTER;
    *value = m_value ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT FdtBoolean::Put(VARIANT_BOOL value)
{
    m_value = value == VARIANT_TRUE;
    return S_OK;
}
