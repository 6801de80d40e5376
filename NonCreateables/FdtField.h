#pragma once
// Field kinds of the data objects. Each kind owns its value and implements
// the getter and setter rules once for every property of that kind; a data
// object class only lists its fields (see FdtObject.h).
//
// Every kind has the same shape:
//     using Out = <getter argument>;  using In = <setter argument>;
//     HRESULT Get(Out value, const char* file, int line) const;
//     HRESULT Put(In value);
// file and line name the accessor, for the kinds that trace a failure.
#include <windows.h>
#include <oaidl.h>

// Unsigned 8-bit or signed 32-bit integer property.
template <class Integer>
class FdtInteger
{
public:
    using Out = Integer*;
    using In = Integer;

    FdtInteger(Integer initial = 0) : m_value(initial) {}

    HRESULT Get(Integer* value, const char*, int) const
    {
        if (!value)
            return E_POINTER;
        *value = m_value;
        return S_OK;
    }

    HRESULT Put(Integer value)
    {
        m_value = value;
        return S_OK;
    }

private:
    Integer m_value;
};

// String property: an owned BSTR, null until set.
class FdtString
{
public:
    using Out = BSTR*;
    using In = BSTR;

    FdtString() = default;
    ~FdtString() { SysFreeString(m_value); }
    FdtString(const FdtString&) = delete;
    FdtString& operator=(const FdtString&) = delete;

    // A new string of the member's full length; empty for a null member.
    HRESULT Get(BSTR* value, const char*, int) const;
    // Keeps a copy up to the argument's first null character.
    HRESULT Put(BSTR value);

private:
    BSTR m_value = nullptr;
};

// Interface reference property: holds exactly one reference, null until set.
template <class Interface>
class FdtInterface
{
public:
    using Out = Interface**;
    using In = Interface*;

    FdtInterface() = default;
    ~FdtInterface() { Put(nullptr); }
    FdtInterface(const FdtInterface&) = delete;
    FdtInterface& operator=(const FdtInterface&) = delete;

    HRESULT Get(Interface** value, const char*, int) const
    {
        if (!value)
            return E_POINTER;
        if (m_pValue)
            m_pValue->AddRef();
        *value = m_pValue;
        return S_OK;
    }

    // The new reference is taken before the old one is dropped, so setting
    // the object already held cannot destroy it.
    HRESULT Put(Interface* value)
    {
        if (value)
            value->AddRef();
        Interface* old = m_pValue;
        m_pValue = value;
        if (old)
            old->Release();
        return S_OK;
    }

private:
    Interface* m_pValue = nullptr;
};

// VARIANT property: an owned value, VT_EMPTY until set.
class FdtVariant
{
public:
    using Out = VARIANT*;
    using In = VARIANT;

    FdtVariant() { VariantInit(&m_value); }
    ~FdtVariant() { VariantClear(&m_value); }
    FdtVariant(const FdtVariant&) = delete;
    FdtVariant& operator=(const FdtVariant&) = delete;

    // Clears the caller's VARIANT (a failure is traced at file and line),
    // then gives a deep copy of the member.
    HRESULT Get(VARIANT* value, const char* file, int line) const;
    // A deep copy of the argument; a value that cannot be copied is kept as
    // VT_ERROR with the copy's failure code.
    HRESULT Put(VARIANT value);

private:
    VARIANT m_value;
};

// Boolean property stored in one byte; only VARIANT_TRUE sets it.
class FdtBoolean
{
public:
    using Out = VARIANT_BOOL*;
    using In = VARIANT_BOOL;

    HRESULT Get(VARIANT_BOOL* value, const char*, int) const;
    HRESULT Put(VARIANT_BOOL value);

private:
    bool m_value = false;
};
static_assert(sizeof(FdtBoolean) == 1, "a boolean property is one byte");
