// The list array owner and accessor.
#include <comutil.h>
#include "ObjectsTestSupport.h"
#include "PK_ComVector.h"
#include "NonCreateables/FdtInstanceDataRef.h"

namespace
{
const char* const ComVectorSource = "Common/Pivka/PK_ComVector";

LONG LowerBound(SAFEARRAY* array)
{
    LONG bound = -99;
    EXPECT_EQ(S_OK, SafeArrayGetLBound(array, 1, &bound));
    return bound;
}

LONG UpperBound(SAFEARRAY* array)
{
    LONG bound = -99;
    EXPECT_EQ(S_OK, SafeArrayGetUBound(array, 1, &bound));
    return bound;
}

VARTYPE ElementType(SAFEARRAY* array)
{
    VARTYPE vt = VT_ILLEGAL;
    EXPECT_EQ(S_OK, SafeArrayGetVartype(array, &vt));
    return vt;
}

// One error trace line of the array source with hr, at the error level.
void ExpectOneTraceLine(const TraceCapture& trace, HRESULT hr)
{
    ASSERT_EQ(1u, trace.Lines().size()) << trace.Text();
    char expected[32];
    sprintf(expected, ") : error 0x%x: ", static_cast<unsigned>(hr));
    EXPECT_EQ(0u, trace.Lines()[0].find(TraceLineOf(ComVectorSource))) << trace.Text();
    EXPECT_NE(std::string::npos, trace.Lines()[0].find(expected)) << trace.Text();
    EXPECT_EQ(0xFFFFFFFFu, trace.Levels()[0]);
}

class ComVector : public LeakCheckedTest
{
};

template <class Element>
void ExpectZeroFilledArray(VARTYPE vt)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<Element>(3, 0, true));
    ASSERT_NE(nullptr, owner.Get());
    EXPECT_EQ(1u, SafeArrayGetDim(owner.Get()));
    EXPECT_EQ(vt, ElementType(owner.Get()));
    EXPECT_EQ(0, LowerBound(owner.Get()));
    EXPECT_EQ(2, UpperBound(owner.Get()));

    ComVectorAccess<Element> access(owner.Get());
    ASSERT_EQ(3u, access.Count());
    ASSERT_NE(nullptr, access.Data());
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(access.Data());
    for (size_t i = 0; i < 3 * sizeof(Element); ++i)
        EXPECT_EQ(0, bytes[i]) << "byte " << i;
}
}  // namespace

TEST_F(ComVector, CreatesZeroFilledArraysOfEachKind)
{
    ExpectZeroFilledArray<BSTR>(VT_BSTR);
    ExpectZeroFilledArray<VARIANT>(VT_VARIANT);
    ExpectZeroFilledArray<IUnknown*>(VT_UNKNOWN);
    static_assert(sizeof(VARIANT) == 2 * sizeof(void*) + 8, "a VARIANT element is 16 bytes in 32-bit frames");
}

TEST_F(ComVector, CreatesArraysFromTheGivenLowerBound)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<BSTR>(2, 5, false));
    EXPECT_EQ(5, LowerBound(owner.Get()));
    EXPECT_EQ(6, UpperBound(owner.Get()));
    {
        ComVectorAccess<BSTR> access(owner.Get());
        EXPECT_EQ(2u, access.Count());
    }

    // Making another array replaces the owned one.
    ASSERT_EQ(S_OK, owner.Create<VARIANT>(1, -3, true));
    EXPECT_EQ(-3, LowerBound(owner.Get()));
    EXPECT_EQ(VT_VARIANT, ElementType(owner.Get()));
}

TEST_F(ComVector, EmptyArrayHasCountZero)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<BSTR>(0, 0, true));
    ASSERT_NE(nullptr, owner.Get());
    ComVectorAccess<BSTR> access;
    EXPECT_EQ(S_OK, access.Attach(owner.Get()));
    EXPECT_EQ(0u, access.Count());
}

TEST_F(ComVector, ArrayThatCannotBeMadeLeavesTheOwnerEmpty)
{
    ComVectorArray owner;
    TraceCapture trace;
    EXPECT_EQ(E_OUTOFMEMORY, owner.CreateOf(VT_EMPTY, 4, 0, true));
    EXPECT_EQ(nullptr, owner.Get());
    ExpectOneTraceLine(trace, E_OUTOFMEMORY);
}

TEST_F(ComVector, AttachRefusesWhatIsNotOneDimensionalOfItsKind)
{
    TraceCapture trace;
    ComVectorAccess<BSTR> access;
    EXPECT_EQ(E_INVALIDARG, access.Attach(nullptr));

    SAFEARRAYBOUND bounds[2] = {{2, 0}, {3, 0}};
    SAFEARRAY* square = SafeArrayCreate(VT_BSTR, 2, bounds);
    ASSERT_NE(nullptr, square);
    EXPECT_EQ(E_INVALIDARG, access.Attach(square));
    EXPECT_EQ(0u, access.Count());
    EXPECT_EQ(nullptr, access.Data());
    ComVectorAccess<BSTR> constructed(square);   // the constructor's attach fails the same way
    EXPECT_EQ(nullptr, constructed.Data());
    EXPECT_EQ(S_OK, SafeArrayDestroy(square)) << "a refused array is not left locked";

    // An array of another element kind would be read with the wrong layout.
    SAFEARRAY* values = SafeArrayCreateVector(VT_VARIANT, 0, 2);
    EXPECT_EQ(E_INVALIDARG, access.Attach(values));
    ComVectorAccess<IUnknown*> objects;
    EXPECT_EQ(E_INVALIDARG, objects.Attach(values));
    ComVectorAccess<VARIANT> variants;
    EXPECT_EQ(S_OK, variants.Attach(values));
    EXPECT_EQ(S_OK, variants.Release());
    EXPECT_EQ(S_OK, SafeArrayDestroy(values));

    SAFEARRAY* dispatches = SafeArrayCreateVector(VT_DISPATCH, 0, 1);
    EXPECT_EQ(S_OK, objects.Attach(dispatches)) << "arrays of a dispatch interface hold interface pointers";
    EXPECT_EQ(S_OK, objects.Release());
    EXPECT_EQ(S_OK, SafeArrayDestroy(dispatches));

    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
}

TEST_F(ComVector, AccessLocksUntilReleasedAndMovesToAnotherArray)
{
    SAFEARRAY* first = MakeBstrArray({L"x", L"y"}, 1);
    SAFEARRAY* second = MakeBstrArray({L"z"});
    {
        ComVectorAccess<BSTR> access(first);
        ASSERT_EQ(2u, access.Count());
        EXPECT_STREQ(L"x", access[0]);
        EXPECT_STREQ(L"y", access[1]);
        EXPECT_EQ(DISP_E_ARRAYISLOCKED, SafeArrayDestroy(first));

        // Writing in place goes into the array.
        SysFreeString(access[1]);
        access[1] = SysAllocString(L"w");

        ASSERT_EQ(S_OK, access.Attach(second));
        EXPECT_EQ(1u, access.Count());
        EXPECT_STREQ(L"z", access[0]);
        EXPECT_EQ((std::vector<std::wstring>{L"x", L"w"}), ReadBstrArray(first));
        EXPECT_EQ(S_OK, SafeArrayDestroy(first)) << "attaching elsewhere released the first array";
    }
    EXPECT_EQ(S_OK, SafeArrayDestroy(second)) << "destruction released the access";
}

TEST_F(ComVector, AccessThatCannotLockIsTracedAndStaysEmpty)
{
    SAFEARRAY* names = MakeBstrArray({L"a"});
    // The platform allows 65535 locks of one array.
    ULONG locks = 0;
    while (SUCCEEDED(SafeArrayLock(names)))
        ++locks;
    ASSERT_GT(locks, 0u);

    TraceCapture trace;
    ComVectorAccess<BSTR> access;
    const HRESULT hr = access.Attach(names);
    EXPECT_TRUE(FAILED(hr));
    EXPECT_EQ(nullptr, access.Data());
    EXPECT_EQ(0u, access.Count());
    ExpectOneTraceLine(trace, hr);

    while (locks--)
        SafeArrayUnlock(names);
    EXPECT_EQ(S_OK, SafeArrayDestroy(names));
}

TEST_F(ComVector, ReleaseThatCannotUnlockIsTracedAndKeepsTheAccess)
{
    SAFEARRAY* names = MakeBstrArray({L"a", L"b"});
    ComVectorAccess<BSTR> access(names);
    ASSERT_EQ(2u, access.Count());
    // Someone else gives back the lock that the accessor holds.
    ASSERT_EQ(S_OK, SafeArrayUnaccessData(names));

    TraceCapture trace;
    const HRESULT hr = access.Release();
    EXPECT_TRUE(FAILED(hr));
    EXPECT_EQ(2u, access.Count());
    EXPECT_NE(nullptr, access.Data());
    ExpectOneTraceLine(trace, hr);

    // Relocked, so that the accessor's own release succeeds.
    void* data = nullptr;
    ASSERT_EQ(S_OK, SafeArrayAccessData(names, &data));
    EXPECT_EQ(S_OK, access.Release());
    EXPECT_EQ(0u, access.Count());
    EXPECT_EQ(nullptr, access.Data());
    EXPECT_EQ(S_OK, SafeArrayDestroy(names));
}

TEST_F(ComVector, DetachToDestroysWhatTheOutParameterHeld)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<BSTR>(1, 0, true));
    {
        ComVectorAccess<BSTR> access(owner.Get());
        access[0] = SysAllocString(L"new");
    }
    SAFEARRAY* const made = owner.Get();
    SAFEARRAY* out = MakeBstrArray({L"old", L"older"});   // freed by the detach, or the leak check fails
    ASSERT_EQ(S_OK, owner.DetachTo(&out));
    EXPECT_EQ(made, out);
    EXPECT_EQ(nullptr, owner.Get());
    EXPECT_EQ(std::vector<std::wstring>{L"new"}, ReadBstrArray(out));

    // An empty owner hands out null.
    ASSERT_EQ(S_OK, owner.DetachTo(&out));
    EXPECT_EQ(nullptr, out);
}

TEST_F(ComVector, DetachToNullKeepsTheArray)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<VARIANT>(2, 0, true));
    SAFEARRAY* const made = owner.Get();
    TraceCapture trace;
    EXPECT_EQ(E_POINTER, owner.DetachTo(nullptr));
    EXPECT_EQ(made, owner.Get());
    ExpectOneTraceLine(trace, E_POINTER);
}   // the owner destroys the array; the leak check sees it

TEST_F(ComVector, DetachToAnOutParameterThatCannotBeDestroyedMovesNothing)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<BSTR>(1, 0, true));
    SAFEARRAY* const made = owner.Get();
    SAFEARRAY* held = MakeBstrArray({L"in use"});
    ASSERT_EQ(S_OK, SafeArrayLock(held));
    SAFEARRAY* out = held;

    TraceCapture trace;
    EXPECT_EQ(DISP_E_ARRAYISLOCKED, owner.DetachTo(&out));
    EXPECT_EQ(held, out);
    EXPECT_EQ(made, owner.Get());
    ExpectOneTraceLine(trace, DISP_E_ARRAYISLOCKED);

    ASSERT_EQ(S_OK, SafeArrayUnlock(held));
    EXPECT_EQ(S_OK, SafeArrayDestroy(held));
}

TEST_F(ComVector, CopyFromMakesADeepCopyAndNullEmpties)
{
    SAFEARRAY* source = MakeBstrArray({L"alpha", L"beta"}, 2);
    ComVectorArray copy(source);
    ASSERT_NE(nullptr, copy.Get());
    EXPECT_NE(source, copy.Get());
    EXPECT_EQ(2, LowerBound(copy.Get()));
    {
        ComVectorAccess<BSTR> original(source), copied(copy.Get());
        ASSERT_EQ(2u, copied.Count());
        EXPECT_NE(original[0], copied[0]) << "strings are duplicated";
        EXPECT_STREQ(L"beta", copied[1]);
    }
    EXPECT_EQ(S_OK, SafeArrayDestroy(source));
    EXPECT_EQ((std::vector<std::wstring>{L"alpha", L"beta"}), ReadBstrArray(copy.Get()));

    // Copying again frees what the owner held.
    SAFEARRAY* other = MakeBstrArray({L"gamma"});
    EXPECT_EQ(S_OK, copy.CopyFrom(other));
    EXPECT_EQ(std::vector<std::wstring>{L"gamma"}, ReadBstrArray(copy.Get()));
    EXPECT_EQ(S_OK, SafeArrayDestroy(other));

    EXPECT_EQ(S_OK, copy.CopyFrom(nullptr));
    EXPECT_EQ(nullptr, copy.Get());
    ComVectorArray fromNull(nullptr);
    EXPECT_EQ(nullptr, fromNull.Get());
}

TEST_F(ComVector, CopyOfDataObjectsAddsReferences)
{
    const LONG before = LiveDataObjects();
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<IUnknown*>(1, 0, true));
    {
        FdtInstanceDataRef* reference = nullptr;
        ASSERT_EQ(S_OK, FdtInstanceDataRef::CreateInstance(&reference));
        ComVectorAccess<IUnknown*> access(owner.Get());
        ASSERT_EQ(S_OK, reference->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&access[0])));
    }
    ComVectorArray copy(owner.Get());
    owner.Destroy();
    EXPECT_EQ(before + 1, LiveDataObjects()) << "the copy holds its own reference";
    copy.Destroy();
    EXPECT_EQ(before, LiveDataObjects());
}

// A list of data objects built the way the store builds its results.
TEST_F(ComVector, ListOfDataObjectsHasUnknownElementsFromZero)
{
    const LONG before = LiveDataObjects();
    SAFEARRAY* result = nullptr;
    {
        ComVectorArray owner;
        ASSERT_EQ(S_OK, owner.Create<IUnknown*>(2, 0, true));
        ComVectorAccess<IUnknown*> access(owner.Get());
        ASSERT_NE(nullptr, access.Data());
        for (ULONG i = 0; i < access.Count(); ++i)
        {
            FdtInstanceDataRef* reference = nullptr;
            ASSERT_EQ(S_OK, FdtInstanceDataRef::CreateInstance(&reference));
            ASSERT_EQ(S_OK, reference->put_m_instanceID(_bstr_t(i ? L"2" : L"1")));
            // The element takes over the one reference.
            ASSERT_EQ(S_OK, reference->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&access[i])));
        }
        ASSERT_EQ(S_OK, owner.DetachTo(&result));
        EXPECT_EQ(S_OK, access.Release());
    }
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(VT_UNKNOWN, ElementType(result));
    EXPECT_EQ(0, LowerBound(result));
    EXPECT_EQ(1, UpperBound(result));
    EXPECT_EQ(before + 2, LiveDataObjects());

    LONG index = 1;
    ComPtr<IUnknown> element;
    ASSERT_EQ(S_OK, SafeArrayGetElement(result, &index, element.GetAddressOf()));
    ComPtr<IFdtInstanceDataRef> reference;
    ASSERT_EQ(S_OK, element.As(&reference));
    _bstr_t id;
    EXPECT_EQ(S_OK, reference->get_m_instanceID(id.GetAddress()));
    EXPECT_STREQ(L"2", static_cast<const wchar_t*>(id));
    reference.Reset();
    element.Reset();

    EXPECT_EQ(S_OK, SafeArrayDestroy(result));
    EXPECT_EQ(before, LiveDataObjects());
}
