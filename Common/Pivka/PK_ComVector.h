#pragma once
// One-dimensional SAFEARRAYs of strings, values and data objects: an owner
// (ComVectorArray) and an element accessor (ComVectorAccess). Every failure
// is written as the error trace line naming Common/Pivka/PK_ComVector.
#include <windows.h>
#include <oaidl.h>

// Element kinds: BSTR (VT_BSTR), VARIANT (VT_VARIANT), IUnknown* (VT_UNKNOWN,
// also for arrays of a dispatch interface).
template <class Element>
struct ComVectorKind;
template <> struct ComVectorKind<BSTR> { static constexpr VARTYPE vt = VT_BSTR; };
template <> struct ComVectorKind<VARIANT> { static constexpr VARTYPE vt = VT_VARIANT; };
template <> struct ComVectorKind<IUnknown*> { static constexpr VARTYPE vt = VT_UNKNOWN; };

// Owns one SAFEARRAY and through it every element.
class ComVectorArray
{
public:
    ComVectorArray() = default;
    explicit ComVectorArray(const SAFEARRAY* source);   // as CopyFrom; the result is not kept
    ~ComVectorArray();

    // A one-dimensional array of count elements from lowerBound; with
    // zeroFill the element data is set to 0. Called on an empty owner.
    template <class Element>
    HRESULT Create(ULONG count, LONG lowerBound, bool zeroFill)
    {
        return CreateOf(ComVectorKind<Element>::vt, count, lowerBound, zeroFill);
    }
    HRESULT CreateOf(VARTYPE vt, ULONG count, LONG lowerBound, bool zeroFill);
    HRESULT CopyFrom(const SAFEARRAY* source);
    void Destroy();
    // Moves the array into *out, destroying an array already there.
    HRESULT DetachTo(SAFEARRAY** out);

    SAFEARRAY* Get() const { return m_psa; }

private:
    ComVectorArray(const ComVectorArray&) = delete;
    ComVectorArray& operator=(const ComVectorArray&) = delete;
    SAFEARRAY* m_psa = nullptr;
};

// Locks the data of a one-dimensional array for direct element access.
template <class Element>
class ComVectorAccess
{
public:
    ComVectorAccess() = default;
    explicit ComVectorAccess(SAFEARRAY* array) { Attach(array); }
    ~ComVectorAccess() { Release(); }

    // E_INVALIDARG, without a trace, for a null array or one that is not
    // one-dimensional or does not hold Element.
    HRESULT Attach(SAFEARRAY* array);
    // Unlocks the data; the accessor is empty afterwards.
    HRESULT Release();

    ULONG Count() const { return m_count; }
    Element* Data() const { return m_pData; }
    Element& operator[](ULONG index) const { return m_pData[index]; }

private:
    ComVectorAccess(const ComVectorAccess&) = delete;
    ComVectorAccess& operator=(const ComVectorAccess&) = delete;
    SAFEARRAY* m_psa = nullptr;
    Element* m_pData = nullptr;
    ULONG m_count = 0;
};

extern template class ComVectorAccess<BSTR>;
extern template class ComVectorAccess<VARIANT>;
extern template class ComVectorAccess<IUnknown*>;
