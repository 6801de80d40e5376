#pragma once
// Callers' objects of the dual FDT interfaces that a frame passes to the
// store (descriptors, parameter descriptions), without type information: the
// store must take any implementation.
#include <windows.h>
#include <oaidl.h>
#include <comutil.h>
#include <functional>
#include <string>
#include "FdtInterfaces.h"

template <class Interface>
class TestObject : public Interface
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        const bool known =
            IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, __uuidof(Interface));
        *object = known ? static_cast<Interface*>(this) : nullptr;
        return known ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refCount; }
    STDMETHODIMP_(ULONG) Release() override { return --m_refCount ? m_refCount : (delete this, 0); }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override { return *count = 0, S_OK; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override { return E_NOTIMPL; }
    virtual ~TestObject() = default;

    std::string failing;                   // the getter of this property fails with E_ACCESSDENIED
    std::function<void()> onGet = [] {};   // before every getter (the concurrency tests call the store back)

protected:
    template <class Out, class Field>
    HRESULT Give(const char* property, Out* out, const Field& field)
    {
        onGet();
        return failing == property ? E_ACCESSDENIED : Copy(out, field);
    }
    static HRESULT Copy(BSTR* out, const _bstr_t& field) { return *out = field.copy(), S_OK; }
    // Keeps a null string null, as the platform's VariantCopy may not.
    static HRESULT Copy(VARIANT* out, const _variant_t& field)
    {
        VariantInit(out);
        if (V_VT(&field) != VT_BSTR || V_BSTR(&field))
            return VariantCopy(out, const_cast<_variant_t*>(&field));
        V_VT(out) = VT_BSTR;
        V_BSTR(out) = nullptr;
        return S_OK;
    }
    template <class T>
    static HRESULT Copy(T* out, T field) { return *out = field, S_OK; }

private:
    ULONG m_refCount = 0;
};

#define TEST_PROPERTY(name, type, field)                                             \
    STDMETHODIMP get_m_##name(type* out) override { return Give(#name, out, field); } \
    STDMETHODIMP put_m_##name(type in) override { return field = in, S_OK; }

class TestDtmDescriptor final : public TestObject<IFdtDtmDescriptor>
{
public:
    BYTE category = 1;
    LONG classification = 0, application = 0x020001FE, language = 0x400;
    _bstr_t device, node;
    TEST_PROPERTY(category, BYTE, category)
    TEST_PROPERTY(classification, LONG, classification)
    TEST_PROPERTY(device, BSTR, device)
    TEST_PROPERTY(node, BSTR, node)
    TEST_PROPERTY(application, LONG, application)
    TEST_PROPERTY(language, LONG, language)
};

class TestCommDescriptor final : public TestObject<IFdtCommunicationDescriptor>
{
public:
    BYTE category = 1;
    _bstr_t name;
    TEST_PROPERTY(category, BYTE, category)
    TEST_PROPERTY(name, BSTR, name)
};

class TestParameter final : public TestObject<IFdtParameter>
{
public:
    TestParameter(const wchar_t* name, const _variant_t& value, const _variant_t& defaultValue = _variant_t())
        : name(name)
    {
        Copy(&this->value.GetVARIANT(), value);
        Copy(&this->defaultValue.GetVARIANT(), defaultValue);
    }
    _bstr_t name;
    _variant_t value, defaultValue;
    LONG index = 0, size = 0, objectType = 0;
    BYTE dataType = 0;
    VARIANT_BOOL mandatory = 0, isPrivate = 0, isProtected = 0, locked = 0;
    TEST_PROPERTY(name, BSTR, name)
    TEST_PROPERTY(value, VARIANT, value)
    TEST_PROPERTY(defaultValue, VARIANT, defaultValue)
    TEST_PROPERTY(index, LONG, index)
    TEST_PROPERTY(dataType, unsigned char, dataType)
    TEST_PROPERTY(size, LONG, size)
    TEST_PROPERTY(objectType, LONG, objectType)
    TEST_PROPERTY(mandatory, VARIANT_BOOL, mandatory)
    TEST_PROPERTY(private, VARIANT_BOOL, isPrivate)
    TEST_PROPERTY(protected, VARIANT_BOOL, isProtected)
    TEST_PROPERTY(locked, VARIANT_BOOL, locked)
};
#undef TEST_PROPERTY
