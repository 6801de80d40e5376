#pragma once
// The frame side of the FDT interfaces: descriptor and parameter objects of
// a frame's own, as a frame hands them to the store. They carry no type
// information. Used by the demo frame and the benchmark.
#include <windows.h>
#include <ole2.h>
#include <comutil.h>
#include "FdtInterfaces.h"
#include "Common/VariantCopy.h"

namespace frame
{

// A frame hands the store the descriptors of its DTMs: objects of its own
// that implement the descriptor interfaces. These carry no type information.
template <class Interface>
class FrameObject : public Interface
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        const bool known = iid == IID_IUnknown || iid == IID_IDispatch || iid == __uuidof(Interface);
        *object = known ? static_cast<Interface*>(this) : nullptr;
        if (!known)
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --m_references;
        if (!left)
            delete this;
        return left;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        if (!count)
            return E_POINTER;
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
    virtual ~FrameObject() = default;

protected:
    static HRESULT Out(BSTR* out, const _bstr_t& text)
    {
        if (!out)
            return E_POINTER;
        *out = text.copy();
        return S_OK;
    }
    template <class T>
    static HRESULT Out(T* out, T value)
    {
        if (!out)
            return E_POINTER;
        *out = value;
        return S_OK;
    }

private:
    ULONG m_references = 1;
};

class DtmDescriptor final : public FrameObject<IFdtDtmDescriptor>
{
public:
    DtmDescriptor(BYTE category, LONG classification, const wchar_t* device, const wchar_t* node)
        : m_category(category), m_classification(classification), m_device(device), m_node(node)
    {
    }
    STDMETHODIMP get_m_category(BYTE* value) override { return Out(value, m_category); }
    STDMETHODIMP put_m_category(BYTE value) override { return m_category = value, S_OK; }
    STDMETHODIMP get_m_classification(LONG* value) override { return Out(value, m_classification); }
    STDMETHODIMP put_m_classification(LONG value) override { return m_classification = value, S_OK; }
    STDMETHODIMP get_m_device(BSTR* value) override { return Out(value, m_device); }
    STDMETHODIMP put_m_device(BSTR value) override { return m_device = value, S_OK; }
    STDMETHODIMP get_m_node(BSTR* value) override { return Out(value, m_node); }
    STDMETHODIMP put_m_node(BSTR value) override { return m_node = value, S_OK; }
    STDMETHODIMP get_m_application(LONG* value) override { return Out(value, m_application); }
    STDMETHODIMP put_m_application(LONG value) override { return m_application = value, S_OK; }
    STDMETHODIMP get_m_language(LONG* value) override { return Out(value, m_language); }
    STDMETHODIMP put_m_language(LONG value) override { return m_language = value, S_OK; }

private:
    BYTE m_category;
    LONG m_classification;
    _bstr_t m_device;
    _bstr_t m_node;
    LONG m_application = 0x020001FE;
    LONG m_language = 0x407;
};

class CommunicationDescriptor final : public FrameObject<IFdtCommunicationDescriptor>
{
public:
    CommunicationDescriptor(BYTE category, const wchar_t* name) : m_category(category), m_name(name) {}
    STDMETHODIMP get_m_category(BYTE* value) override { return Out(value, m_category); }
    STDMETHODIMP put_m_category(BYTE value) override { return m_category = value, S_OK; }
    STDMETHODIMP get_m_name(BSTR* value) override { return Out(value, m_name); }
    STDMETHODIMP put_m_name(BSTR value) override { return m_name = value, S_OK; }

private:
    BYTE m_category;
    _bstr_t m_name;
};

// A parameter description as the frame hands it to the store.
class ParameterDescription final : public FrameObject<IFdtParameter>
{
public:
    ParameterDescription(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue, BYTE dataType)
        : m_name(name), m_dataType(dataType)
    {
        CopyVariant(value, m_value.GetVARIANT());
        CopyVariant(defaultValue, m_defaultValue.GetVARIANT());
    }
    VARIANT_BOOL m_isMandatory = VARIANT_FALSE;
    VARIANT_BOOL m_isPrivate = VARIANT_FALSE;

    STDMETHODIMP get_m_name(BSTR* value) override { return Out(value, m_name); }
    STDMETHODIMP put_m_name(BSTR value) override { return m_name = value, S_OK; }
    // A null string stays null (the platform's VariantCopy would make it empty).
    STDMETHODIMP get_m_value(VARIANT* value) override { return value ? CopyVariant(m_value, *value) : E_POINTER; }
    STDMETHODIMP put_m_value(VARIANT value) override { return m_value = value, S_OK; }
    STDMETHODIMP get_m_defaultValue(VARIANT* value) override
    {
        return value ? CopyVariant(m_defaultValue, *value) : E_POINTER;
    }
    STDMETHODIMP put_m_defaultValue(VARIANT value) override { return m_defaultValue = value, S_OK; }
    STDMETHODIMP get_m_index(LONG* value) override { return Out(value, m_index); }
    STDMETHODIMP put_m_index(LONG value) override { return m_index = value, S_OK; }
    STDMETHODIMP get_m_dataType(BYTE* value) override { return Out(value, m_dataType); }
    STDMETHODIMP put_m_dataType(BYTE value) override { return m_dataType = value, S_OK; }
    STDMETHODIMP get_m_size(LONG* value) override { return Out(value, m_size); }
    STDMETHODIMP put_m_size(LONG value) override { return m_size = value, S_OK; }
    STDMETHODIMP get_m_objectType(LONG* value) override { return Out(value, m_objectType); }
    STDMETHODIMP put_m_objectType(LONG value) override { return m_objectType = value, S_OK; }
    STDMETHODIMP get_m_mandatory(VARIANT_BOOL* value) override { return Out(value, m_isMandatory); }
    STDMETHODIMP put_m_mandatory(VARIANT_BOOL value) override { return m_isMandatory = value, S_OK; }
    STDMETHODIMP get_m_private(VARIANT_BOOL* value) override { return Out(value, m_isPrivate); }
    STDMETHODIMP put_m_private(VARIANT_BOOL value) override { return m_isPrivate = value, S_OK; }
    STDMETHODIMP get_m_protected(VARIANT_BOOL* value) override { return Out(value, m_isProtected); }
    STDMETHODIMP put_m_protected(VARIANT_BOOL value) override { return m_isProtected = value, S_OK; }
    STDMETHODIMP get_m_locked(VARIANT_BOOL* value) override { return Out(value, m_isLocked); }
    STDMETHODIMP put_m_locked(VARIANT_BOOL value) override { return m_isLocked = value, S_OK; }

private:
    _bstr_t m_name;
    _variant_t m_value;
    _variant_t m_defaultValue;
    BYTE m_dataType;
    LONG m_index = 0;
    LONG m_size = 0;
    LONG m_objectType = 0;
    VARIANT_BOOL m_isProtected = VARIANT_FALSE;
    VARIANT_BOOL m_isLocked = VARIANT_FALSE;
};

}  // namespace frame
