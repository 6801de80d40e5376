// The eight data objects late-bound and through their vtables: defaults,
// accessor rules, interfaces, reference counting and the module lock.
#include "ObjectsTestSupport.h"
#include "NonCreateables/FdtClassID.h"
#include "NonCreateables/FdtCommunicationDescriptor.h"
#include "NonCreateables/FdtDescriptor.h"
#include "NonCreateables/FdtDtmDescriptor.h"
#include "NonCreateables/FdtInstanceDataDescriptor.h"
#include "NonCreateables/FdtInstanceDataInfo.h"
#include "NonCreateables/FdtInstanceDataRef.h"
#include "NonCreateables/FdtParameter.h"

namespace
{
template <class Object>
ComPtr<IDispatch> Make()
{
    ComPtr<IDispatch> object;
    EXPECT_EQ(S_OK, MakeDataObject<Object>(object));
    return object;
}

enum class Kind { Byte, Long, String, Interface, Variant, Boolean };

struct Property
{
    const wchar_t* name;
    Kind kind;
    LONG initial = 0;                          // integers only
    ComPtr<IDispatch> (*member)() = nullptr;   // interfaces only: an object the property takes
};

struct DataClass
{
    const char* name;
    ComPtr<IDispatch> (*make)();
    IID iid;
    std::vector<Property> properties;   // in the order of their dispatch identifiers, from 1
};

const std::vector<DataClass> kClasses = {
    {"FdtDescriptor", Make<FdtDescriptor>, IID_IFdtDescriptor,
     {{L"m_dtm", Kind::Interface, 0, Make<FdtDtmDescriptor>},
      {L"m_instanceData", Kind::Interface, 0, Make<FdtInstanceDataDescriptor>},
      {L"m_communication", Kind::Interface, 0, Make<FdtCommunicationDescriptor>}}},
    {"FdtDtmDescriptor", Make<FdtDtmDescriptor>, IID_IFdtDtmDescriptor,
     {{L"m_category", Kind::Byte, 1}, {L"m_classification", Kind::Long}, {L"m_device", Kind::String},
      {L"m_node", Kind::String}, {L"m_application", Kind::Long, 0x020001FE}, {L"m_language", Kind::Long, 0x400}}},
    {"FdtCommunicationDescriptor", Make<FdtCommunicationDescriptor>, IID_IFdtCommunicationDescriptor,
     {{L"m_category", Kind::Byte, 1}, {L"m_name", Kind::String}}},
    {"FdtInstanceDataDescriptor", Make<FdtInstanceDataDescriptor>, IID_IFdtInstanceDataDescriptor,
     {{L"m_name", Kind::String}}},
    {"FdtClassID", Make<FdtClassID>, IID_IFdtClassID, {{L"m_classID", Kind::String}}},
    {"FdtParameter", Make<FdtParameter>, IID_IFdtParameter,
     {{L"m_name", Kind::String}, {L"m_value", Kind::Variant}, {L"m_defaultValue", Kind::Variant},
      {L"m_index", Kind::Long}, {L"m_dataType", Kind::Byte}, {L"m_size", Kind::Long},
      {L"m_objectType", Kind::Long}, {L"m_mandatory", Kind::Boolean}, {L"m_private", Kind::Boolean},
      {L"m_protected", Kind::Boolean}, {L"m_locked", Kind::Boolean}}},
    {"FdtInstanceDataRef", Make<FdtInstanceDataRef>, IID_IFdtInstanceDataRef,
     {{L"m_instanceID", Kind::String}, {L"m_parameterName", Kind::String}}},
    {"FdtInstanceDataInfo", Make<FdtInstanceDataInfo>, IID_IFdtInstanceDataInfo,
     {{L"m_displayName", Kind::String}, {L"m_description", Kind::String}, {L"m_vendor", Kind::String},
      {L"m_version", Kind::String}, {L"m_buildTime", Kind::String}}},
};

// The property's initial value, or (id > 0) a value that differs from it and
// from that of every other property of the object.
_variant_t Value(const Property& property, DISPID id = 0)
{
    switch (property.kind)
    {
    case Kind::Byte: return _variant_t(static_cast<BYTE>(id ? 0x10 + id : property.initial));
    case Kind::Long: return _variant_t(id ? 1000L + id : property.initial);
    case Kind::String: return _variant_t(id ? (L"v" + std::to_wstring(id)).c_str() : L"");
    case Kind::Interface: return _variant_t(id ? property.member().Get() : nullptr);
    case Kind::Variant: return id ? _variant_t(static_cast<short>(id)) : _variant_t();
    case Kind::Boolean: return _variant_t(id != 0);
    }
    return _variant_t();
}

// A getter (slot 5 + 2 * id: after IUnknown, IDispatch and the earlier
// properties) or a setter (the slot after it), called by its vtable slot.
template <class Arg>
HRESULT CallSlot(IDispatch* object, DISPID slot, Arg arg)
{
    using Function = HRESULT(STDMETHODCALLTYPE*)(IDispatch*, Arg);
    return reinterpret_cast<Function>((*reinterpret_cast<void***>(object))[slot])(object, arg);
}

// A late-bound property get (without value) or put.
_variant_t Invoke(IDispatch* object, DISPID id, VARIANT* value = nullptr)
{
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS params = {value, &named, value ? 1u : 0u, value ? 1u : 0u};
    const WORD flags = value ? DISPATCH_PROPERTYPUT : DISPATCH_PROPERTYGET;
    _variant_t result;
    EXPECT_EQ(S_OK, object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params,
                                   value ? nullptr : result.GetAddress(), nullptr, nullptr));
    return result;
}

// The rules of the property's kind, called by the vtable where a late-bound
// call would copy the value; each leaves a value other than the samples.
void ExpectRulesOfKind(IDispatch* object, DISPID id, const Property& property)
{
    const DISPID get = 5 + 2 * id, put = get + 1;
    switch (property.kind)
    {
    default:   // integers take every value
        break;
    case Kind::String:
    {
        EXPECT_EQ(S_OK, CallSlot<BSTR>(object, put, _bstr_t(SysAllocStringLen(L"12\0" L"34", 5), false)));
        EXPECT_TRUE(_variant_t(L"12") == Invoke(object, id)) << "an embedded null ends what is stored";
        EXPECT_EQ(S_OK, CallSlot<BSTR>(object, put, nullptr));
        _bstr_t text;
        EXPECT_EQ(S_OK, CallSlot<BSTR*>(object, get, text.GetAddress()));
        EXPECT_TRUE(static_cast<const wchar_t*>(text) && !text.length()) << "a null member reads as an empty string";
        break;
    }
    case Kind::Boolean:
        EXPECT_EQ(S_OK, CallSlot<VARIANT_BOOL>(object, put, 1));
        EXPECT_TRUE(_variant_t(false) == Invoke(object, id)) << "only VARIANT_TRUE sets a flag";
        break;
    case Kind::Interface:
    {
        IDispatch* const held = property.member().Detach();
        EXPECT_EQ(S_OK, CallSlot(object, put, held));
        held->Release();   // the property's reference is now the only one
        const LONG objects = LiveDataObjects();
        EXPECT_EQ(S_OK, CallSlot(object, put, held));
        EXPECT_EQ(objects, LiveDataObjects()) << "setting the object held destroyed it";
        EXPECT_TRUE(_variant_t(held) == Invoke(object, id));
        EXPECT_EQ(S_OK, CallSlot<IDispatch*>(object, put, nullptr));
        EXPECT_EQ(objects - 1, LiveDataObjects()) << "clearing released the only reference";
        break;
    }
    case Kind::Variant:
    {
        const auto read = [&] {
            _variant_t value;
            EXPECT_EQ(S_OK, CallSlot<VARIANT*>(object, get, value.GetAddress()));
            return value;
        };
        VARIANT invalid = {};
        V_VT(&invalid) = 0x7F;   // no such type
        _variant_t probe;
        const HRESULT copyFailure = VariantCopy(&probe, &invalid);
        EXPECT_EQ(S_OK, CallSlot(object, put, invalid));
        EXPECT_TRUE(_variant_t(copyFailure, VT_ERROR) == read()) << "kept as the copy's failure";
        // A caller's VARIANT that cannot be cleared fails the getter and is left alone.
        EXPECT_TRUE(FAILED(CallSlot<VARIANT*>(object, get, &invalid)));
        EXPECT_EQ(0x7F, V_VT(&invalid));
        EXPECT_EQ(S_OK, CallSlot<VARIANT>(object, put, _variant_t(L"4.5 bar")));
        const _variant_t first = read(), second = read();
        EXPECT_TRUE(_variant_t(L"4.5 bar") == first && first.bstrVal != second.bstrVal) << "each read a deep copy";
        // A null string stays null: the store encodes it apart from an empty one.
        EXPECT_EQ(S_OK, CallSlot<VARIANT>(object, put, BstrValue(nullptr)));
        ExpectSame(BstrValue(nullptr), read());
        break;
    }
    }
}

struct DataObjects : LeakCheckedTest
{
    // Each interface keeps the type information of its first dispatch call:
    // loaded here, outside every leak check.
    static void SetUpTestSuite()
    {
        ComPtr<ITypeInfo> info;
        for (const DataClass& dataClass : kClasses)
            ASSERT_EQ(S_OK, dataClass.make()->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.ReleaseAndGetAddressOf()));
    }
};
}  // namespace

// Defaults, dispatch identifiers and accessor rules; the interfaces IUnknown,
// IDispatch, its own and ISupportErrorInfo, which claims only the own one.
TEST_F(DataObjects, AccessorsAndInterfaces)
{
    std::vector<IID> iids = {IID_IDispatch, IID_IPersist, IID_IMarshal, IID_IFbInstanceData, IID_IErrorInfo};
    for (const DataClass& dataClass : kClasses)
        iids.push_back(dataClass.iid);
    for (const DataClass& dataClass : kClasses)
    {
        ComPtr<IDispatch> object = dataClass.make();
        ASSERT_TRUE(object) << dataClass.name;
        std::vector<_variant_t> kept;
        for (DISPID id = 1; id <= static_cast<DISPID>(dataClass.properties.size()); ++id)
        {
            const Property& property = dataClass.properties[id - 1];
            SCOPED_TRACE(testing::Message() << dataClass.name << "." << property.name);
            LPOLESTR name = const_cast<LPOLESTR>(property.name);
            DISPID named = DISPID_UNKNOWN;
            EXPECT_EQ(S_OK, object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &named));
            EXPECT_EQ(id, named);
            EXPECT_TRUE(Value(property) == Invoke(object.Get(), id));
            EXPECT_EQ(E_POINTER, CallSlot<void*>(object.Get(), 5 + 2 * id, nullptr));
            ExpectRulesOfKind(object.Get(), id, property);
            kept.push_back(Value(property, id));
            Invoke(object.Get(), id, &kept.back());
        }
        // Each getter reads what its own setter wrote.
        for (DISPID id = 1; id <= static_cast<DISPID>(kept.size()); ++id)
            EXPECT_TRUE(kept[id - 1] == Invoke(object.Get(), id)) << dataClass.name << " " << id;
        ComPtr<IUnknown> unknown, identity;
        ComPtr<ISupportErrorInfo> errorInfo;
        ASSERT_EQ(S_OK, object.As(&unknown));
        ASSERT_EQ(S_OK, object.As(&errorInfo));
        ASSERT_EQ(S_OK, errorInfo.As(&identity));
        EXPECT_EQ(unknown.Get(), identity.Get());
        EXPECT_EQ(S_OK, errorInfo->InterfaceSupportsErrorInfo(dataClass.iid));
        EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IDispatch));
        for (const IID& iid : iids)
        {
            ComPtr<IUnknown> answer;
            const bool own = InlineIsEqualGUID(iid, IID_IDispatch) || InlineIsEqualGUID(iid, dataClass.iid);
            EXPECT_EQ(own ? S_OK : E_NOINTERFACE, object->QueryInterface(iid, &answer)) << dataClass.name;
            EXPECT_EQ(own ? object.Get() : nullptr, answer.Get());
        }
    }
}
