#pragma once
// Skeleton of the non-creatable data objects: IUnknown with a plain count,
// IDispatch from the FDT interface type library, ISupportErrorInfo, one
// module lock per living object, and the store's factory.
//
// A data object class is its field list and its property mapping:
//
//     // FdtThing.h
//     class FdtThing final : public FdtObject<FdtThing, IFdtThing>
//     {
//         FDT_OBJECT(FdtThing, IFdtThing);
//         FDT_PROPERTY(FdtInteger<BYTE>, m_category, 1);
//         FDT_PROPERTY(FdtString, m_name);
//     };
//
//     // FdtThing.cpp
//     static const char THIS_FILE[] = "NonCreateables/FdtThing";
//     FDT_ACCESSORS(FdtThing, m_category)
//     FDT_ACCESSORS(FdtThing, m_name)
#include <windows.h>
#include <oaidl.h>
#include <new>
#include <wrl/client.h>
#include "FdtInterfaces.h"
#include "Common/ErrorTrace.h"
#include "InstanceData/DispatchImpl.h"
#include "InstanceData/InstanceDataModule.h"
#include "NonCreateables/FdtField.h"

template <class Object, class Interface>
class FdtObject : public CDispatchImpl<Interface>, public ISupportErrorInfo
{
public:
    // The store's factory: a new object with reference count 0, on which
    // the receiver takes the first reference. E_OUTOFMEMORY and null when
    // it cannot be allocated; E_POINTER for a null out-parameter.
    static HRESULT CreateInstance(Object** object)
    {
        if (!object)
            return E_POINTER;
        *object = new (std::nothrow) Object;
        if (!*object)
            return E_OUTOFMEMORY;
        // The bracket keeps the object alive should final construction hand
        // out and drop a reference to it.
        FdtObject* root = *object;
        ++root->m_refCount;
        const HRESULT hr = (*object)->FinalConstruct();
        --root->m_refCount;
        if (FAILED(hr))
        {
            delete *object;
            *object = nullptr;
        }
        return hr;
    }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (InlineIsEqualGUID(iid, IID_IUnknown) || InlineIsEqualGUID(iid, IID_IDispatch) ||
            InlineIsEqualGUID(iid, __uuidof(Interface)))
            *object = static_cast<Interface*>(this);
        else if (InlineIsEqualGUID(iid, IID_ISupportErrorInfo))
            *object = static_cast<ISupportErrorInfo*>(this);
        else
        {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }

    // Apartment objects: the count is neither atomic nor locked.
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refCount; }

    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG count = --m_refCount;
        if (count == 0)
            delete static_cast<Object*>(this);
        return count;
    }

    STDMETHODIMP InterfaceSupportsErrorInfo(REFIID iid) override
    {
        return InlineIsEqualGUID(iid, __uuidof(Interface)) ? S_OK : S_FALSE;
    }

protected:
    FdtObject() = default;
    ~FdtObject() = default;
    HRESULT FinalConstruct() { return S_OK; }

private:
    FdtObject(const FdtObject&) = delete;
    FdtObject& operator=(const FdtObject&) = delete;

    ULONG m_refCount = 0;
    CModuleLock m_moduleLock;
    static_assert(sizeof(ULONG) == 4, "the reference count is 32 bits wide");
};

// Opens a data object class: only its factory creates it, only its last
// Release destroys it.
#define FDT_OBJECT(Class, Interface)               \
    friend class FdtObject<Class, Interface>;     \
    Class() = default;                            \
    ~Class() = default

// One property: its getter and setter, and its field of kind Kind with the
// new-object value given by the optional initialiser.
#define FDT_PROPERTY(Kind, name, ...)                                    \
public:                                                                  \
    STDMETHODIMP get_##name(Kind::Out value) override;                   \
    STDMETHODIMP put_##name(Kind::In value) override;                    \
                                                                         \
private:                                                                 \
    Kind name { __VA_ARGS__ }

// The accessors of one property, each inside the exception guard of the
// class's source (THIS_FILE of the including file).
#define FDT_ACCESSORS(Class, name)                                                       \
    HRESULT STDMETHODCALLTYPE Class::get_##name(decltype(Class::name)::Out value)       \
    {                                                                                    \
        return EXCEPTION_GUARD([&] { return name.Get(value, THIS_FILE, __LINE__); });   \
    }                                                                                    \
    HRESULT STDMETHODCALLTYPE Class::put_##name(decltype(Class::name)::In value)        \
    {                                                                                    \
        return EXCEPTION_GUARD([&] { return name.Put(value); });                        \
    }

// A new data object from its class's factory; target holds its one reference.
template <class Object, class Interface>
HRESULT MakeDataObject(Microsoft::WRL::ComPtr<Interface>& target)
{
    Object* object = nullptr;
    const HRESULT hr = Object::CreateInstance(&object);
    if (SUCCEEDED(hr))
        target = object;
    return hr;
}
