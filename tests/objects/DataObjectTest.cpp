// The eight data objects through their vtables and late-bound: defaults,
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
template <class Object, class Interface = IDispatch>
ComPtr<Interface> Make()
{
    ComPtr<Interface> object;
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
    std::vector<Property> properties;
};

const std::vector<DataClass>& DataClasses()
{
    static const std::vector<DataClass> classes = {
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
    return classes;
}

// The property's initial value (which < 0), or one of two values it holds
// unchanged, the first different from the initial one.
_variant_t Value(const Property& property, int which = -1)
{
    switch (property.kind)
    {
    case Kind::Byte: return _variant_t(static_cast<BYTE>(which < 0 ? property.initial : which ? 0x5A : 0xFF));
    case Kind::Long: return _variant_t(which < 0 ? property.initial : which ? 77L : -123456789L);
    case Kind::String: return _variant_t(which < 0 ? L"" : which ? L"late" : L"early");
    case Kind::Interface: return _variant_t(which < 0 ? nullptr : property.member().Get());
    case Kind::Variant: return which < 0 ? _variant_t() : which ? _variant_t(short(5)) : _variant_t(L"text");
    case Kind::Boolean: return _variant_t(which == 0);
    }
    return _variant_t();
}

// The getter and setter of one property, called by their vtable slots.
struct Slots
{
    IDispatch* object;
    size_t index;   // of the property: its getter follows IUnknown, IDispatch and the earlier properties
    Kind kind;

    template <class Arg>
    HRESULT Call(UINT slot, Arg arg) const
    {
        using Function = HRESULT(STDMETHODCALLTYPE*)(IDispatch*, Arg);
        return reinterpret_cast<Function>((*reinterpret_cast<void***>(object))[slot])(object, arg);
    }
    template <class Value>
    HRESULT GetInto(Value* value) const { return Call(7 + 2 * static_cast<UINT>(index), value); }
    template <class Arg>
    HRESULT Set(Arg value) const { return Call(8 + 2 * static_cast<UINT>(index), value); }

    _variant_t Get() const
    {
        static const VARTYPE types[] = {VT_UI1, VT_I4, VT_BSTR, VT_DISPATCH, VT_EMPTY, VT_BOOL};
        _variant_t result;
        result.llVal = 0;   // the getters of the other kinds write the start of the union
        EXPECT_EQ(S_OK, kind == Kind::Variant ? GetInto(result.GetAddress()) : GetInto(&result.llVal));
        if (kind != Kind::Variant)
            result.vt = types[static_cast<int>(kind)];
        EXPECT_FALSE(kind == Kind::String && !result.bstrVal) << "a string getter gives a string";
        return result;
    }

    HRESULT Put(const _variant_t& value) const
    {
        switch (kind)
        {
        case Kind::Byte: return Set(V_UI1(&value));
        case Kind::Long: return Set(V_I4(&value));
        case Kind::String: return Set(V_BSTR(&value));
        case Kind::Interface: return Set(V_DISPATCH(&value));
        case Kind::Variant: return Set<VARIANT>(value);
        case Kind::Boolean: return Set(V_BOOL(&value));
        }
        return E_FAIL;
    }
};

// The rules of the property's kind; each leaves a value other than the samples.
void ExpectRulesOfKind(const Slots& slots, const Property& property)
{
    switch (property.kind)
    {
    default:   // integers take every value
        break;
    case Kind::String:
    {
        EXPECT_EQ(S_OK, slots.Put(_variant_t(_bstr_t(SysAllocStringLen(L"12\0" L"34", 5), false))));
        EXPECT_TRUE(_variant_t(L"12") == slots.Get()) << "an embedded null ends what is stored";
        EXPECT_EQ(S_OK, slots.Set<BSTR>(nullptr));
        EXPECT_TRUE(_variant_t(L"") == slots.Get()) << "a null member reads as an empty string";
        break;
    }
    case Kind::Boolean:
        EXPECT_EQ(S_OK, slots.Set<VARIANT_BOOL>(VARIANT_TRUE));
        EXPECT_TRUE(_variant_t(true) == slots.Get());
        EXPECT_EQ(S_OK, slots.Set<VARIANT_BOOL>(1));
        EXPECT_TRUE(_variant_t(false) == slots.Get()) << "only VARIANT_TRUE sets a flag";
        break;
    case Kind::Interface:
    {
        ComPtr<IDispatch> member = property.member();
        IDispatch* const held = member.Get();
        EXPECT_EQ(S_OK, slots.Set(held));
        member.Reset();   // the property's reference is now the only one
        const LONG objects = LiveDataObjects();
        EXPECT_EQ(S_OK, slots.Set(held));
        EXPECT_EQ(objects, LiveDataObjects()) << "setting the object held destroyed it";
        EXPECT_TRUE(_variant_t(held) == slots.Get());
        EXPECT_EQ(S_OK, slots.Set<IDispatch*>(nullptr));
        EXPECT_EQ(objects - 1, LiveDataObjects()) << "clearing released the only reference";
        EXPECT_TRUE(Value(property) == slots.Get());
        break;
    }
    case Kind::Variant:
    {
        VARIANT invalid, probe;
        VariantInit(&invalid);
        VariantInit(&probe);
        V_VT(&invalid) = 0x7F;   // no such type
        const HRESULT copyFailure = VariantCopy(&probe, &invalid);
        ASSERT_TRUE(FAILED(copyFailure));
        EXPECT_EQ(S_OK, slots.Set(invalid));
        EXPECT_TRUE(_variant_t(copyFailure, VT_ERROR) == slots.Get()) << "kept as the copy's failure";
        // A caller's VARIANT that cannot be cleared fails the getter and is left alone.
        EXPECT_TRUE(FAILED(slots.GetInto(&invalid)));
        EXPECT_EQ(0x7F, V_VT(&invalid));

        // Every read is an independent deep copy.
        EXPECT_EQ(S_OK, slots.Put(_variant_t(L"4.5 bar")));
        _variant_t first = slots.Get(), second = slots.Get();
        ASSERT_EQ(VT_BSTR, first.vt);
        EXPECT_NE(first.bstrVal, second.bstrVal);
        first.bstrVal[0] = L'X';
        EXPECT_TRUE(_variant_t(L"4.5 bar") == slots.Get());

        // A null string stays null: the store encodes it apart from an empty one.
        EXPECT_EQ(S_OK, slots.Put(_variant_t(_bstr_t())));
        const _variant_t null = slots.Get();
        EXPECT_EQ(VT_BSTR, null.vt);
        EXPECT_EQ(nullptr, null.bstrVal);
        break;
    }
    }
}

// A late-bound property get (without value) or put.
_variant_t Invoke(IDispatch* object, DISPID id, const _variant_t* value = nullptr)
{
    VARIANT argument = {};
    if (value)
        argument = *value;   // a shallow copy: Invoke does not change its arguments
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS params = {&argument, &named, 1, 1}, none = {};
    _variant_t result;
    const WORD flags = value ? DISPATCH_PROPERTYPUT : DISPATCH_PROPERTYGET;
    EXPECT_EQ(S_OK, object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, value ? &params : &none,
                                   value ? nullptr : result.GetAddress(), nullptr, nullptr));
    return result;
}

class DataObjects : public LeakCheckedTest
{
public:
    // Each interface keeps the type information of its first dispatch call:
    // loaded here, outside every leak check.
    static void SetUpTestSuite()
    {
        for (const DataClass& dataClass : DataClasses())
        {
            ComPtr<ITypeInfo> info;
            ASSERT_EQ(S_OK, dataClass.make()->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.GetAddressOf()));
        }
    }
};
}  // namespace

TEST_F(DataObjects, EveryAccessorBySlotAndLateBoundHasItsDefaultAndTheRulesOfItsKind)
{
    for (const DataClass& dataClass : DataClasses())
    {
        ComPtr<IDispatch> object = dataClass.make();
        ASSERT_TRUE(object) << dataClass.name;
        std::vector<_variant_t> kept;
        for (size_t index = 0; index < dataClass.properties.size(); ++index)
        {
            const Property& property = dataClass.properties[index];
            SCOPED_TRACE(testing::Message() << dataClass.name << "."
                                            << static_cast<const char*>(_bstr_t(property.name)));
            const Slots slots{object.Get(), index, property.kind};
            LPOLESTR name = const_cast<LPOLESTR>(property.name);
            DISPID id = DISPID_UNKNOWN;
            EXPECT_EQ(S_OK, object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &id));
            EXPECT_EQ(static_cast<DISPID>(index + 1), id);
            EXPECT_TRUE(Value(property) == slots.Get());
            EXPECT_TRUE(Value(property) == Invoke(object.Get(), id));
            EXPECT_EQ(E_POINTER, slots.GetInto<void>(nullptr));
            ExpectRulesOfKind(slots, property);

            // Put through the vtable, read late-bound; put late-bound, read through the vtable.
            const _variant_t early = Value(property, 0), late = Value(property, 1);
            EXPECT_EQ(S_OK, slots.Put(early));
            EXPECT_TRUE(early == slots.Get());
            EXPECT_TRUE(early == Invoke(object.Get(), id));
            Invoke(object.Get(), id, &late);
            EXPECT_TRUE(late == slots.Get());
            kept.push_back(late);
        }
        // No setter wrote another field.
        for (size_t index = 0; index < kept.size(); ++index)
            EXPECT_TRUE(kept[index] == (Slots{object.Get(), index, dataClass.properties[index].kind}.Get()));
    }
}

// IUnknown, IDispatch (the object's own interface), its own interface and
// ISupportErrorInfo, which claims only the own interface; nothing else.
TEST_F(DataObjects, AnswerFourInterfacesAndErrorInfoForTheirOwn)
{
    std::vector<IID> others = {IID_IPersist, IID_IMarshal, IID_IFbInstanceData, IID_IErrorInfo};
    for (const DataClass& dataClass : DataClasses())
        others.push_back(dataClass.iid);
    for (const DataClass& dataClass : DataClasses())
    {
        SCOPED_TRACE(dataClass.name);
        ComPtr<IDispatch> object = dataClass.make();
        ComPtr<IUnknown> unknown, own, identity;
        ComPtr<ISupportErrorInfo> errorInfo;
        ASSERT_EQ(S_OK, object->QueryInterface(IID_PPV_ARGS(&unknown)));
        ASSERT_EQ(S_OK, unknown->QueryInterface(dataClass.iid, &own));
        ASSERT_EQ(S_OK, unknown.As(&errorInfo));
        ASSERT_EQ(S_OK, errorInfo.As(&identity));
        EXPECT_EQ(own.Get(), object.Get());
        EXPECT_EQ(unknown.Get(), identity.Get());
        EXPECT_EQ(S_OK, errorInfo->InterfaceSupportsErrorInfo(dataClass.iid));
        EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IDispatch));
        for (const IID& iid : others)
        {
            ComPtr<IUnknown> other;
            const bool mine = InlineIsEqualGUID(iid, dataClass.iid);
            EXPECT_EQ(mine ? S_OK : E_NOINTERFACE, object->QueryInterface(iid, &other));
        }
    }
}
