#pragma once
// The frame side of the FDT interfaces: descriptor and parameter objects of
// a frame's own, as a frame hands them to the store. They carry no type
// information: the store must take any implementation. Used by the demo
// frame, the store tool's import, the benchmark and the tests.
#include <windows.h>
#include <ole2.h>
#include <comutil.h>
#include <functional>
#include "FdtInterfaces.h"
#include "Common/VariantCopy.h"

namespace frame
{

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
        return known ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --m_references;
        return left ? left : (delete this, 0);
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override { return count ? (*count = 0, S_OK) : E_POINTER; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
    virtual ~FrameObject() = default;

    // Runs before every getter with the property's name ("device"); a failure
    // is the getter's result. A frame's object may call back or fail there.
    std::function<HRESULT(const char* property)> beforeGet;

protected:
    template <class T, class Field>
    HRESULT Give(const char* property, T* out, const Field& field)
    {
        if (!out)
            return E_POINTER;
        const HRESULT hr = beforeGet ? beforeGet(property) : S_OK;
        return FAILED(hr) ? hr : Copy(out, field);
    }
    static HRESULT Copy(BSTR* out, const _bstr_t& field) { return *out = field.copy(), S_OK; }
    // A null string stays null (the platform's VariantCopy would make it empty).
    static HRESULT Copy(VARIANT* out, const _variant_t& field) { return CopyVariant(field, *out); }
    template <class T>
    static HRESULT Copy(T* out, T field) { return *out = field, S_OK; }

private:
    ULONG m_references = 0;
};

#define FRAME_PROPERTY(name, type, field)                                             \
    STDMETHODIMP get_m_##name(type* out) override { return Give(#name, out, field); } \
    STDMETHODIMP put_m_##name(type in) override { return field = in, S_OK; }

class DtmDescriptor final : public FrameObject<IFdtDtmDescriptor>
{
public:
    explicit DtmDescriptor(BYTE category = 1, LONG classification = 0, const wchar_t* device = nullptr,
                           const wchar_t* node = nullptr)
        : category(category), classification(classification), device(device), node(node)
    {
    }
    BYTE category;
    LONG classification, application = 0x020001FE, language = 0x400;
    _bstr_t device, node;
    FRAME_PROPERTY(category, BYTE, category)
    FRAME_PROPERTY(classification, LONG, classification)
    FRAME_PROPERTY(device, BSTR, device)
    FRAME_PROPERTY(node, BSTR, node)
    FRAME_PROPERTY(application, LONG, application)
    FRAME_PROPERTY(language, LONG, language)
};

class CommunicationDescriptor final : public FrameObject<IFdtCommunicationDescriptor>
{
public:
    explicit CommunicationDescriptor(BYTE category = 1, const wchar_t* name = nullptr)
        : category(category), name(name)
    {
    }
    BYTE category;
    _bstr_t name;
    FRAME_PROPERTY(category, BYTE, category)
    FRAME_PROPERTY(name, BSTR, name)
};

// A parameter description as the frame hands it to the store.
class ParameterDescription final : public FrameObject<IFdtParameter>
{
public:
    ParameterDescription(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue = _variant_t(),
                         BYTE dataType = 0)
        : name(name), dataType(dataType)
    {
        CopyVariant(value, this->value.GetVARIANT());
        CopyVariant(defaultValue, this->defaultValue.GetVARIANT());
    }
    _bstr_t name;
    _variant_t value, defaultValue;
    BYTE dataType;
    LONG index = 0, size = 0, objectType = 0;
    VARIANT_BOOL mandatory = VARIANT_FALSE, isPrivate = VARIANT_FALSE, isProtected = VARIANT_FALSE,
                 locked = VARIANT_FALSE;
    FRAME_PROPERTY(name, BSTR, name)
    FRAME_PROPERTY(value, VARIANT, value)
    FRAME_PROPERTY(defaultValue, VARIANT, defaultValue)
    FRAME_PROPERTY(index, LONG, index)
    FRAME_PROPERTY(dataType, BYTE, dataType)
    FRAME_PROPERTY(size, LONG, size)
    FRAME_PROPERTY(objectType, LONG, objectType)
    FRAME_PROPERTY(mandatory, VARIANT_BOOL, mandatory)
    FRAME_PROPERTY(private, VARIANT_BOOL, isPrivate)
    FRAME_PROPERTY(protected, VARIANT_BOOL, isProtected)
    FRAME_PROPERTY(locked, VARIANT_BOOL, locked)
};
#undef FRAME_PROPERTY

}  // namespace frame
