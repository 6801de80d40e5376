#include "PK_ComVector.h"
#include <cstring>
#include "Common/ErrorTrace.h"

static const char THIS_FILE[] = "Common/Pivka/PK_ComVector";

ComVectorArray::ComVectorArray(const SAFEARRAY* source)
{
    CopyFrom(source);
}

ComVectorArray::~ComVectorArray()
{
    Destroy();
}

HRESULT ComVectorArray::CreateOf(VARTYPE vt, ULONG count, LONG lowerBound, bool zeroFill)
{
    Destroy();
    SAFEARRAYBOUND bound = {count, lowerBound};
    m_psa = SafeArrayCreate(vt, 1, &bound);
    if (!m_psa)
        return TraceErrorLine(THIS_FILE, __LINE__, E_OUTOFMEMORY);
    if (!zeroFill)
        return S_OK;
    void* data = nullptr;
    RETURN_IF_FAILED(SafeArrayAccessData(m_psa, &data));
    if (count)
        std::memset(data, 0, static_cast<size_t>(count) * SafeArrayGetElemsize(m_psa));
    RETURN_IF_FAILED(SafeArrayUnaccessData(m_psa));
    return S_OK;
}

HRESULT ComVectorArray::CopyFrom(const SAFEARRAY* source)
{
    Destroy();
    if (!source)
        return S_OK;
    // SafeArrayCopy only reads its source; the platform declares it non-const.
    RETURN_IF_FAILED(SafeArrayCopy(const_cast<SAFEARRAY*>(source), &m_psa));
    return S_OK;
}

void ComVectorArray::Destroy()
{
    if (m_psa)
        SafeArrayDestroy(m_psa);
    m_psa = nullptr;
}

HRESULT ComVectorArray::DetachTo(SAFEARRAY** out)
{
    if (!out)
        return TraceErrorLine(THIS_FILE, __LINE__, E_POINTER);
    if (*out)
    {
        RETURN_IF_FAILED(SafeArrayDestroy(*out));
        *out = nullptr;
    }
    *out = m_psa;
    m_psa = nullptr;
    return S_OK;
}

namespace
{
// Whether an array's elements are of the accessor's element kind; any other
// array would be read with the wrong element layout.
template <class Element>
bool HoldsElementsOf(const SAFEARRAY* array);

template <>
bool HoldsElementsOf<BSTR>(const SAFEARRAY* array)
{
    return (array->fFeatures & FADF_BSTR) && array->cbElements == sizeof(BSTR);
}

template <>
bool HoldsElementsOf<VARIANT>(const SAFEARRAY* array)
{
    return (array->fFeatures & FADF_VARIANT) && array->cbElements == sizeof(VARIANT);
}

template <>
bool HoldsElementsOf<IUnknown*>(const SAFEARRAY* array)
{
    return (array->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) && array->cbElements == sizeof(IUnknown*);
}
}  // namespace

template <class Element>
HRESULT ComVectorAccess<Element>::Attach(SAFEARRAY* array)
{
    if (!array || SafeArrayGetDim(array) != 1 || !HoldsElementsOf<Element>(array))
        return E_INVALIDARG;
    RETURN_IF_FAILED_QUIET(Release());
    void* data = nullptr;
    RETURN_IF_FAILED(SafeArrayAccessData(array, &data));
    m_psa = array;
    m_pData = static_cast<Element*>(data);
    m_count = array->rgsabound[0].cElements;
    return S_OK;
}

template <class Element>
HRESULT ComVectorAccess<Element>::Release()
{
    if (m_psa && m_pData)
        RETURN_IF_FAILED(SafeArrayUnaccessData(m_psa));
    m_psa = nullptr;
    m_pData = nullptr;
    m_count = 0;
    return S_OK;
}

template class ComVectorAccess<BSTR>;
template class ComVectorAccess<VARIANT>;
template class ComVectorAccess<IUnknown*>;
