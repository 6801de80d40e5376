#include "Common/VariantCopy.h"

HRESULT CopyVariant(const VARIANT& source, VARIANT& copy)
{
    VariantInit(&copy);
    if (V_VT(&source) == VT_BSTR && !V_BSTR(&source))
    {
        V_VT(&copy) = VT_BSTR;
        V_BSTR(&copy) = nullptr;
        return S_OK;
    }
    const HRESULT hr = VariantCopy(&copy, const_cast<VARIANT*>(&source));
    if (FAILED(hr))
        VariantInit(&copy);
    return hr;
}
