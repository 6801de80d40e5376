// The eight data objects through their vtables and late-bound: defaults,
// accessor rules, interfaces, reference counting and the module lock.
#include <climits>
#include <cstdio>
#include <comutil.h>
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
    Object* object = nullptr;
    EXPECT_EQ(S_OK, Object::CreateInstance(&object));
    ComPtr<Interface> result;
    if (object)
    {
        EXPECT_EQ(S_OK, object->QueryInterface(__uuidof(Interface), reinterpret_cast<void**>(result.GetAddressOf())));
    }
    return result;
}

// ---- Calls by vtable slot -------------------------------------------------

enum class Kind { Byte, Long, String, Interface, Variant, Boolean };

struct Property
{
    const wchar_t* name;
    Kind kind;
    LONG initial;                    // integers only
    ComPtr<IDispatch> (*member)();   // interfaces only: an object the property takes
};

struct DataClass
{
    const char* name;
    ComPtr<IDispatch> (*make)();
    IID iid;
    std::vector<Property> properties;
};

constexpr UINT FirstPropertySlot = 7;   // after IUnknown and IDispatch

template <class Arg>
HRESULT CallSlot(IDispatch* object, UINT slot, Arg arg)
{
    using Function = HRESULT(STDMETHODCALLTYPE*)(IDispatch*, Arg);
    return reinterpret_cast<Function>((*reinterpret_cast<void***>(object))[slot])(object, arg);
}

template <class Value>
HRESULT GetSlot(IDispatch* object, UINT slot, Value* value)
{
    return CallSlot<Value*>(object, slot, value);
}

// The getter of property index by its slot, as a VARIANT.
_variant_t GetBySlot(IDispatch* object, size_t index, Kind kind)
{
    const UINT slot = FirstPropertySlot + 2 * static_cast<UINT>(index);
    _variant_t result;
    HRESULT hr = E_FAIL;
    switch (kind)
    {
    case Kind::Byte: { BYTE v = 0xCC; hr = GetSlot(object, slot, &v); result = v; break; }
    case Kind::Long: { LONG v = -7; hr = GetSlot(object, slot, &v); result = v; break; }
    case Kind::String:
    {
        BSTR v = nullptr;
        hr = GetSlot(object, slot, &v);
        EXPECT_NE(nullptr, v) << "a string getter gives a string";
        V_VT(&result) = VT_BSTR;
        V_BSTR(&result) = v;
        break;
    }
    case Kind::Interface:
    {
        IDispatch* v = nullptr;
        hr = GetSlot(object, slot, &v);
        V_VT(&result) = VT_DISPATCH;
        V_DISPATCH(&result) = v;
        break;
    }
    case Kind::Variant: { hr = GetSlot(object, slot, result.GetAddress()); break; }
    case Kind::Boolean: { VARIANT_BOOL v = 7; hr = GetSlot(object, slot, &v); result.vt = VT_BOOL; result.boolVal = v; break; }
    }
    EXPECT_EQ(S_OK, hr);
    return result;
}

// The setter of property index by its slot, from a VARIANT of its kind.
HRESULT PutBySlot(IDispatch* object, size_t index, Kind kind, const _variant_t& value)
{
    const UINT slot = FirstPropertySlot + 2 * static_cast<UINT>(index) + 1;
    switch (kind)
    {
    case Kind::Byte: return CallSlot<BYTE>(object, slot, V_UI1(&value));
    case Kind::Long: return CallSlot<LONG>(object, slot, V_I4(&value));
    case Kind::String: return CallSlot<BSTR>(object, slot, V_BSTR(&value));
    case Kind::Interface: return CallSlot<IDispatch*>(object, slot, V_DISPATCH(&value));
    case Kind::Variant: return CallSlot<VARIANT>(object, slot, value);
    case Kind::Boolean: return CallSlot<VARIANT_BOOL>(object, slot, V_BOOL(&value));
    }
    return E_FAIL;
}

HRESULT GetWithNullBySlot(IDispatch* object, size_t index)
{
    return CallSlot<void*>(object, FirstPropertySlot + 2 * static_cast<UINT>(index), nullptr);
}

_variant_t Bool(VARIANT_BOOL value)
{
    _variant_t result;
    result.vt = VT_BOOL;
    result.boolVal = value;
    return result;
}

_variant_t InitialValue(const Property& property)
{
    switch (property.kind)
    {
    case Kind::Byte: return _variant_t(static_cast<BYTE>(property.initial));
    case Kind::Long: return _variant_t(static_cast<LONG>(property.initial));
    case Kind::String: return _variant_t(L"");
    case Kind::Interface: return _variant_t(static_cast<IDispatch*>(nullptr));
    case Kind::Variant: return _variant_t();
    case Kind::Boolean: return Bool(VARIANT_FALSE);
    }
    return _variant_t();
}

// Two values that the property holds unchanged, different from its initial value.
_variant_t SampleValue(const Property& property, int which)
{
    switch (property.kind)
    {
    case Kind::Byte: return _variant_t(static_cast<BYTE>(which ? 0x5A : 0xFF));
    case Kind::Long: return _variant_t(static_cast<LONG>(which ? 77 : -123456789));
    case Kind::String: return _variant_t(which ? L"late" : L"early");
    case Kind::Interface: return _variant_t(property.member().Get());
    case Kind::Variant: return which ? _variant_t(static_cast<short>(5)) : _variant_t(L"text");
    case Kind::Boolean: return Bool(VARIANT_TRUE);
    }
    return _variant_t();
}

ComPtr<IDispatch> MakeDtm() { return Make<FdtDtmDescriptor>(); }
ComPtr<IDispatch> MakeInstanceData() { return Make<FdtInstanceDataDescriptor>(); }
ComPtr<IDispatch> MakeCommunication() { return Make<FdtCommunicationDescriptor>(); }

const std::vector<DataClass>& DataClasses()
{
    static const std::vector<DataClass> classes = {
        {"FdtDescriptor", Make<FdtDescriptor>, IID_IFdtDescriptor,
         {{L"m_dtm", Kind::Interface, 0, MakeDtm},
          {L"m_instanceData", Kind::Interface, 0, MakeInstanceData},
          {L"m_communication", Kind::Interface, 0, MakeCommunication}}},
        {"FdtDtmDescriptor", Make<FdtDtmDescriptor>, IID_IFdtDtmDescriptor,
         {{L"m_category", Kind::Byte, 1},
          {L"m_classification", Kind::Long, 0},
          {L"m_device", Kind::String},
          {L"m_node", Kind::String},
          {L"m_application", Kind::Long, 0x020001FE},
          {L"m_language", Kind::Long, 0x400}}},
        {"FdtCommunicationDescriptor", Make<FdtCommunicationDescriptor>, IID_IFdtCommunicationDescriptor,
         {{L"m_category", Kind::Byte, 1}, {L"m_name", Kind::String}}},
        {"FdtInstanceDataDescriptor", Make<FdtInstanceDataDescriptor>, IID_IFdtInstanceDataDescriptor,
         {{L"m_name", Kind::String}}},
        {"FdtClassID", Make<FdtClassID>, IID_IFdtClassID, {{L"m_classID", Kind::String}}},
        {"FdtParameter", Make<FdtParameter>, IID_IFdtParameter,
         {{L"m_name", Kind::String},
          {L"m_value", Kind::Variant},
          {L"m_defaultValue", Kind::Variant},
          {L"m_index", Kind::Long, 0},
          {L"m_dataType", Kind::Byte, 0},
          {L"m_size", Kind::Long, 0},
          {L"m_objectType", Kind::Long, 0},
          {L"m_mandatory", Kind::Boolean},
          {L"m_private", Kind::Boolean},
          {L"m_protected", Kind::Boolean},
          {L"m_locked", Kind::Boolean}}},
        {"FdtInstanceDataRef", Make<FdtInstanceDataRef>, IID_IFdtInstanceDataRef,
         {{L"m_instanceID", Kind::String}, {L"m_parameterName", Kind::String}}},
        {"FdtInstanceDataInfo", Make<FdtInstanceDataInfo>, IID_IFdtInstanceDataInfo,
         {{L"m_displayName", Kind::String},
          {L"m_description", Kind::String},
          {L"m_vendor", Kind::String},
          {L"m_version", Kind::String},
          {L"m_buildTime", Kind::String}}},
    };
    return classes;
}

// ---- Late-bound calls -----------------------------------------------------

DISPID IdOfName(IDispatch* object, const wchar_t* name)
{
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    DISPID id = DISPID_UNKNOWN;
    EXPECT_EQ(S_OK, object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id)) << name;
    return id;
}

_variant_t InvokeGet(IDispatch* object, DISPID id)
{
    DISPPARAMS params = {};
    _variant_t result;
    EXPECT_EQ(S_OK, object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &params,
                                   result.GetAddress(), nullptr, nullptr));
    return result;
}

HRESULT InvokePut(IDispatch* object, DISPID id, const _variant_t& value)
{
    VARIANT argument = value;   // Invoke does not change its arguments
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS params = {&argument, &named, 1, 1};
    return object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYPUT, &params, nullptr, nullptr,
                          nullptr);
}

bool Same(const _variant_t& expected, const _variant_t& actual)
{
    if (expected.vt != actual.vt)
        return false;
    if (expected.vt == VT_DISPATCH)
        return expected.pdispVal == actual.pdispVal;
    if (expected.vt == VT_BOOL)
        return expected.boolVal == actual.boolVal;
    return expected == actual;
}

class DataObjects : public LeakCheckedTest
{
};
}  // namespace

TEST_F(DataObjects, EveryAccessorBySlotHasItsDefaultAndKeepsWhatIsSet)
{
    for (const DataClass& dataClass : DataClasses())
    {
        ComPtr<IDispatch> object = dataClass.make();
        ASSERT_TRUE(object) << dataClass.name;
        for (size_t index = 0; index < dataClass.properties.size(); ++index)
        {
            const Property& property = dataClass.properties[index];
            SCOPED_TRACE(testing::Message() << dataClass.name << "." << static_cast<const char*>(_bstr_t(property.name)));
            EXPECT_TRUE(Same(InitialValue(property), GetBySlot(object.Get(), index, property.kind)));
            EXPECT_EQ(E_POINTER, GetWithNullBySlot(object.Get(), index));
            const _variant_t sample = SampleValue(property, 0);
            EXPECT_EQ(S_OK, PutBySlot(object.Get(), index, property.kind, sample));
            EXPECT_TRUE(Same(sample, GetBySlot(object.Get(), index, property.kind)));
        }
        // Every later property kept its value: no setter wrote another field.
        for (size_t index = 0; index < dataClass.properties.size(); ++index)
        {
            const Property& property = dataClass.properties[index];
            if (property.kind != Kind::Interface)
            {
                EXPECT_TRUE(Same(SampleValue(property, 0), GetBySlot(object.Get(), index, property.kind)))
                    << dataClass.name << "." << static_cast<const char*>(_bstr_t(property.name));
            }
        }
    }
}

TEST_F(DataObjects, LateBoundCallsMeetTheVtableAccessors)
{
    for (const DataClass& dataClass : DataClasses())
    {
        ComPtr<IDispatch> object = dataClass.make();
        ASSERT_TRUE(object) << dataClass.name;
        UINT count = 0;
        EXPECT_EQ(S_OK, object->GetTypeInfoCount(&count));
        EXPECT_EQ(1u, count);
        for (size_t index = 0; index < dataClass.properties.size(); ++index)
        {
            const Property& property = dataClass.properties[index];
            SCOPED_TRACE(testing::Message() << dataClass.name << "." << static_cast<const char*>(_bstr_t(property.name)));
            const DISPID id = IdOfName(object.Get(), property.name);
            EXPECT_EQ(static_cast<DISPID>(index + 1), id);
            EXPECT_TRUE(Same(InitialValue(property), InvokeGet(object.Get(), id)));

            // Put late-bound, read through the vtable; put through the vtable, read late-bound.
            const _variant_t late = SampleValue(property, 1);
            EXPECT_EQ(S_OK, InvokePut(object.Get(), id, late));
            EXPECT_TRUE(Same(late, GetBySlot(object.Get(), index, property.kind)));
            const _variant_t early = SampleValue(property, 0);
            EXPECT_EQ(S_OK, PutBySlot(object.Get(), index, property.kind, early));
            EXPECT_TRUE(Same(early, InvokeGet(object.Get(), id)));
        }
    }
}

TEST_F(DataObjects, LateBoundBooleanFollowsTheSetterRule)
{
    ComPtr<IDispatch> parameter = Make<FdtParameter>();
    const DISPID id = IdOfName(parameter.Get(), L"m_mandatory");
    EXPECT_EQ(8, id);
    EXPECT_EQ(S_OK, InvokePut(parameter.Get(), id, Bool(1)));
    EXPECT_TRUE(Same(Bool(VARIANT_FALSE), InvokeGet(parameter.Get(), id)));
    EXPECT_EQ(S_OK, InvokePut(parameter.Get(), id, Bool(VARIANT_TRUE)));
    EXPECT_TRUE(Same(Bool(VARIANT_TRUE), InvokeGet(parameter.Get(), id)));
}

TEST_F(DataObjects, QueryInterfaceAnswersExactlyFourInterfaces)
{
    const IID others[] = {IID_IClassFactory, IID_IPersist, IID_IPersistStream, IID_IMarshal, IID_IProvideClassInfo,
                          IID_IFdtContext, IID_IFbInstanceData, IID_IErrorInfo};
    for (const DataClass& dataClass : DataClasses())
    {
        SCOPED_TRACE(dataClass.name);
        ComPtr<IDispatch> object = dataClass.make();
        ComPtr<IUnknown> unknown, own, dispatch;
        ComPtr<ISupportErrorInfo> errorInfo;
        ASSERT_EQ(S_OK, object.As(&unknown));
        ASSERT_EQ(S_OK, object->QueryInterface(dataClass.iid, reinterpret_cast<void**>(own.GetAddressOf())));
        ASSERT_EQ(S_OK, object.As(&dispatch));
        ASSERT_EQ(S_OK, object.As(&errorInfo));
        EXPECT_EQ(own.Get(), dispatch.Get()) << "IDispatch is the object's own interface";

        // One identity whichever interface is asked.
        ComPtr<IUnknown> identity;
        ASSERT_EQ(S_OK, errorInfo.As(&identity));
        EXPECT_EQ(unknown.Get(), identity.Get());

        for (const IID& iid : others)
        {
            void* other = reinterpret_cast<void*>(1);
            EXPECT_EQ(E_NOINTERFACE, object->QueryInterface(iid, &other));
            EXPECT_EQ(nullptr, other);
        }
        for (const DataClass& another : DataClasses())
            if (!InlineIsEqualGUID(another.iid, dataClass.iid))
            {
                ComPtr<IUnknown> other;
                EXPECT_EQ(E_NOINTERFACE, object->QueryInterface(another.iid, reinterpret_cast<void**>(other.GetAddressOf())));
            }
        EXPECT_EQ(E_POINTER, object->QueryInterface(IID_IUnknown, nullptr));

        EXPECT_EQ(S_OK, errorInfo->InterfaceSupportsErrorInfo(dataClass.iid));
        EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IDispatch));
        EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IUnknown));
        EXPECT_EQ(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IFbInstanceData));
    }
}

TEST_F(DataObjects, FactoryHandsOutCountZeroAndEachObjectHoldsTheModule)
{
    const LONG before = LiveDataObjects();
    FdtParameter* parameter = nullptr;
    ASSERT_EQ(S_OK, FdtParameter::CreateInstance(&parameter));
    ASSERT_NE(nullptr, parameter);
    EXPECT_EQ(before + 1, LiveDataObjects());
    EXPECT_EQ(1u, parameter->AddRef()) << "the receiver takes the first reference";
    EXPECT_EQ(2u, parameter->AddRef());
    EXPECT_EQ(1u, parameter->Release());
    EXPECT_EQ(before + 1, LiveDataObjects());
    EXPECT_EQ(0u, parameter->Release());
    EXPECT_EQ(before, LiveDataObjects());

    EXPECT_EQ(E_POINTER, FdtClassID::CreateInstance(nullptr));
}

TEST_F(DataObjects, FactoryWithoutMemoryGivesOutOfMemoryAndNull)
{
    const LONG before = LiveDataObjects();
    FdtDescriptor* descriptor = reinterpret_cast<FdtDescriptor*>(1);
    FailNextAllocation();
    EXPECT_EQ(E_OUTOFMEMORY, FdtDescriptor::CreateInstance(&descriptor));
    EXPECT_EQ(nullptr, descriptor);
    EXPECT_EQ(before, LiveDataObjects());
}

TEST_F(DataObjects, StringPropertiesReadEmptyCutAtNullAndCopy)
{
    ComPtr<IFdtInstanceDataRef> reference = Make<FdtInstanceDataRef, IFdtInstanceDataRef>();
    _bstr_t read;
    EXPECT_EQ(S_OK, reference->get_m_instanceID(read.GetAddress()));
    ASSERT_NE(nullptr, static_cast<const wchar_t*>(read));
    EXPECT_EQ(0u, read.length());

    // An embedded null ends what is stored.
    _bstr_t withNull(SysAllocStringLen(L"12\0" L"34", 5), false);
    ASSERT_EQ(5u, withNull.length());
    EXPECT_EQ(S_OK, reference->put_m_instanceID(withNull));
    EXPECT_EQ(S_OK, reference->get_m_instanceID(read.GetAddress()));
    EXPECT_EQ(2u, read.length());
    EXPECT_STREQ(L"12", static_cast<const wchar_t*>(read));

    // The object keeps its own copy, and hands out a new one each time.
    _bstr_t name(L"Pressure");
    EXPECT_EQ(S_OK, reference->put_m_parameterName(name));
    name = L"changed";
    BSTR first = nullptr, second = nullptr;
    EXPECT_EQ(S_OK, reference->get_m_parameterName(&first));
    EXPECT_EQ(S_OK, reference->get_m_parameterName(&second));
    EXPECT_STREQ(L"Pressure", first);
    EXPECT_NE(first, second);
    SysFreeString(first);
    SysFreeString(second);

    // Null clears the member; it then reads as an empty string.
    EXPECT_EQ(S_OK, reference->put_m_parameterName(nullptr));
    EXPECT_EQ(S_OK, reference->get_m_parameterName(read.GetAddress()));
    ASSERT_NE(nullptr, static_cast<const wchar_t*>(read));
    EXPECT_EQ(0u, read.length());

    // No setter checks a format.
    _bstr_t odd(L"not an instance id");
    EXPECT_EQ(S_OK, reference->put_m_instanceID(odd));
    EXPECT_EQ(S_OK, reference->get_m_instanceID(read.GetAddress()));
    EXPECT_EQ(odd, read);
}

TEST_F(DataObjects, BooleanIsTrueOnlyForVariantTrue)
{
    ComPtr<IFdtParameter> parameter = Make<FdtParameter, IFdtParameter>();
    VARIANT_BOOL value = 7;
    const struct { VARIANT_BOOL set; VARIANT_BOOL read; } cases[] = {
        {VARIANT_TRUE, VARIANT_TRUE}, {1, VARIANT_FALSE}, {VARIANT_TRUE, VARIANT_TRUE}, {0, VARIANT_FALSE},
        {2, VARIANT_FALSE}, {static_cast<VARIANT_BOOL>(0x8000), VARIANT_FALSE}};
    for (const auto& c : cases)
    {
        EXPECT_EQ(S_OK, parameter->put_m_mandatory(c.set));
        EXPECT_EQ(S_OK, parameter->get_m_mandatory(&value));
        EXPECT_EQ(c.read, value) << "set " << c.set;
    }
    // Each flag is its own field.
    EXPECT_EQ(S_OK, parameter->put_m_locked(VARIANT_TRUE));
    EXPECT_EQ(S_OK, parameter->get_m_protected(&value));
    EXPECT_EQ(VARIANT_FALSE, value);
    EXPECT_EQ(S_OK, parameter->get_m_locked(&value));
    EXPECT_EQ(VARIANT_TRUE, value);
}

TEST_F(DataObjects, IntegersAreStoredWithoutRangeChecks)
{
    ComPtr<IFdtDtmDescriptor> dtm = Make<FdtDtmDescriptor, IFdtDtmDescriptor>();
    BYTE category = 0;
    EXPECT_EQ(S_OK, dtm->put_m_category(0xFF));
    EXPECT_EQ(S_OK, dtm->get_m_category(&category));
    EXPECT_EQ(0xFF, category);
    LONG language = 0;
    EXPECT_EQ(S_OK, dtm->put_m_language(LONG_MIN));
    EXPECT_EQ(S_OK, dtm->get_m_language(&language));
    EXPECT_EQ(LONG_MIN, language);
    static_assert(sizeof(LONG) == 4, "the integer properties are 32 bits wide");
}

TEST_F(DataObjects, InterfaceSetToTheObjectItHoldsKeepsItAlive)
{
    ComPtr<IFdtDescriptor> descriptor = Make<FdtDescriptor, IFdtDescriptor>();
    ComPtr<IFdtDtmDescriptor> dtm = Make<FdtDtmDescriptor, IFdtDtmDescriptor>();
    ASSERT_EQ(S_OK, dtm->put_m_category(9));
    ASSERT_EQ(S_OK, descriptor->put_m_dtm(dtm.Get()));
    IFdtDtmDescriptor* held = dtm.Get();
    dtm.Reset();   // the descriptor's reference is now the only one
    const LONG objects = LiveDataObjects();

    EXPECT_EQ(S_OK, descriptor->put_m_dtm(held));
    EXPECT_EQ(objects, LiveDataObjects()) << "the object was destroyed";
    ASSERT_EQ(S_OK, descriptor->get_m_dtm(dtm.GetAddressOf()));
    EXPECT_EQ(held, dtm.Get());
    BYTE category = 0;
    EXPECT_EQ(S_OK, dtm->get_m_category(&category));
    EXPECT_EQ(9, category);
}

TEST_F(DataObjects, InterfaceGetterAddsOneReferenceAndNullClears)
{
    ComPtr<IFdtDescriptor> descriptor = Make<FdtDescriptor, IFdtDescriptor>();
    ComPtr<IFdtCommunicationDescriptor> communication =
        Make<FdtCommunicationDescriptor, IFdtCommunicationDescriptor>();
    ASSERT_EQ(S_OK, descriptor->put_m_communication(communication.Get()));
    IFdtCommunicationDescriptor* read = nullptr;
    ASSERT_EQ(S_OK, descriptor->get_m_communication(&read));
    // Held by this test, by the descriptor and by the getter's caller.
    EXPECT_EQ(4u, read->AddRef());
    read->Release();
    read->Release();

    const LONG objects = LiveDataObjects();
    communication.Reset();
    EXPECT_EQ(objects, LiveDataObjects());
    EXPECT_EQ(S_OK, descriptor->put_m_communication(nullptr));
    EXPECT_EQ(objects - 1, LiveDataObjects()) << "clearing released the only reference";
    ASSERT_EQ(S_OK, descriptor->get_m_communication(communication.GetAddressOf()));
    EXPECT_FALSE(communication);
}

TEST_F(DataObjects, ReleasingADescriptorReleasesItsThreeMembers)
{
    const LONG before = LiveDataObjects();
    {
        ComPtr<IFdtDescriptor> descriptor = Make<FdtDescriptor, IFdtDescriptor>();
        ASSERT_EQ(S_OK, descriptor->put_m_dtm(Make<FdtDtmDescriptor, IFdtDtmDescriptor>().Get()));
        ASSERT_EQ(S_OK, descriptor->put_m_instanceData(
                            Make<FdtInstanceDataDescriptor, IFdtInstanceDataDescriptor>().Get()));
        ASSERT_EQ(S_OK, descriptor->put_m_communication(
                            Make<FdtCommunicationDescriptor, IFdtCommunicationDescriptor>().Get()));
        EXPECT_EQ(before + 4, LiveDataObjects()) << "the descriptor keeps its members alive";
    }
    EXPECT_EQ(before, LiveDataObjects());
}

TEST_F(DataObjects, VariantGetterGivesAnIndependentDeepCopy)
{
    ComPtr<IFdtParameter> parameter = Make<FdtParameter, IFdtParameter>();
    _variant_t read(L"stale");   // the getter clears what the caller's VARIANT held
    ASSERT_EQ(S_OK, parameter->get_m_value(read.GetAddress()));
    EXPECT_EQ(VT_EMPTY, read.vt);

    {
        _variant_t value(L"4.5 bar");
        ASSERT_EQ(S_OK, parameter->put_m_value(value));
    }   // the caller's string is gone; the object has its own
    _variant_t first, second;
    ASSERT_EQ(S_OK, parameter->get_m_value(first.GetAddress()));
    ASSERT_EQ(S_OK, parameter->get_m_value(second.GetAddress()));
    ASSERT_EQ(VT_BSTR, first.vt);
    EXPECT_STREQ(L"4.5 bar", first.bstrVal);
    EXPECT_NE(first.bstrVal, second.bstrVal);
    first.bstrVal[0] = L'X';
    EXPECT_STREQ(L"4.5 bar", second.bstrVal);

    // Arrays are duplicated too.
    SAFEARRAY* names = MakeBstrArray({L"a", L"b"});
    VARIANT arrayValue;
    arrayValue.vt = VT_ARRAY | VT_BSTR;
    arrayValue.parray = names;
    ASSERT_EQ(S_OK, parameter->put_m_defaultValue(arrayValue));
    SafeArrayDestroy(names);
    _variant_t copy;
    ASSERT_EQ(S_OK, parameter->get_m_defaultValue(copy.GetAddress()));
    ASSERT_EQ(VT_ARRAY | VT_BSTR, copy.vt);
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"b"}), ReadBstrArray(copy.parray));

    // m_value and m_defaultValue are separate fields.
    EXPECT_EQ(S_OK, parameter->get_m_value(read.GetAddress()));
    EXPECT_EQ(VT_BSTR, read.vt);

    // A null string stays null both ways: the store encodes it apart from an empty one.
    VARIANT nullString;
    nullString.vt = VT_BSTR;
    nullString.bstrVal = nullptr;
    ASSERT_EQ(S_OK, parameter->put_m_value(nullString));
    ASSERT_EQ(S_OK, parameter->get_m_value(read.GetAddress()));
    EXPECT_EQ(VT_BSTR, read.vt);
    EXPECT_EQ(nullptr, read.bstrVal);
}

TEST_F(DataObjects, VariantThatCannotBeCopiedIsKeptAsError)
{
    ComPtr<IFdtParameter> parameter = Make<FdtParameter, IFdtParameter>();
    ASSERT_EQ(S_OK, parameter->put_m_value(_variant_t(L"replaced")));
    VARIANT invalid;
    VariantInit(&invalid);
    invalid.vt = 0x7F;   // no such type
    VARIANT probe;
    VariantInit(&probe);
    const HRESULT copyResult = VariantCopy(&probe, &invalid);
    ASSERT_TRUE(FAILED(copyResult));

    EXPECT_EQ(S_OK, parameter->put_m_value(invalid));
    _variant_t read;
    ASSERT_EQ(S_OK, parameter->get_m_value(read.GetAddress()));
    EXPECT_EQ(VT_ERROR, read.vt);
    EXPECT_EQ(copyResult, read.scode);
}

TEST_F(DataObjects, VariantGetterReportsACallerVariantThatCannotBeCleared)
{
    ComPtr<IFdtParameter> parameter = Make<FdtParameter, IFdtParameter>();
    ASSERT_EQ(S_OK, parameter->put_m_defaultValue(_variant_t(3L)));
    VARIANT invalid;
    VariantInit(&invalid);
    invalid.vt = 0x7F;
    VARIANT probe = invalid;
    const HRESULT clearResult = VariantClear(&probe);
    ASSERT_TRUE(FAILED(clearResult));

    TraceCapture trace;
    EXPECT_EQ(clearResult, parameter->get_m_defaultValue(&invalid));
    EXPECT_EQ(0x7F, invalid.vt) << "nothing was copied over it";
    ASSERT_EQ(1u, trace.Lines().size());
    char expected[32];
    sprintf(expected, ") : error 0x%x: ", static_cast<unsigned>(clearResult));
    EXPECT_EQ(0u, trace.Lines()[0].find(TraceLineOf("NonCreateables/FdtParameter"))) << trace.Text();
    EXPECT_NE(std::string::npos, trace.Lines()[0].find(expected)) << trace.Text();
    EXPECT_EQ(0xFFFFFFFFu, trace.Levels()[0]);

    EXPECT_EQ(E_POINTER, parameter->get_m_defaultValue(nullptr));
    EXPECT_EQ(1u, trace.Lines().size()) << "a null out-pointer is not traced";
}
