// The list array owner and accessor.
#include <algorithm>
#include "ObjectsTestSupport.h"
#include "PK_ComVector.h"
#include "NonCreateables/FdtInstanceDataRef.h"

namespace
{
template <class Element>
void ExpectZeroFilledArray(VARTYPE vt, ULONG count, LONG lowerBound)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<Element>(count, lowerBound, true));
    VARTYPE type = VT_ILLEGAL;
    LONG lower = -99;
    EXPECT_EQ(1u, SafeArrayGetDim(owner.Get()));
    EXPECT_TRUE(SUCCEEDED(SafeArrayGetVartype(owner.Get(), &type)) && type == vt);
    EXPECT_TRUE(SUCCEEDED(SafeArrayGetLBound(owner.Get(), 1, &lower)) && lower == lowerBound);
    ComVectorAccess<Element> access(owner.Get());
    ASSERT_EQ(count, access.Count());
    const auto* bytes = reinterpret_cast<const unsigned char*>(access.Data());
    EXPECT_TRUE(std::all_of(bytes, bytes + count * sizeof(Element), [](unsigned char b) { return b == 0; }));
}

using ComVector = LeakCheckedTest;
}  // namespace

TEST_F(ComVector, CreatesZeroFilledArraysOfEachKindFromTheirLowerBound)
{
    ExpectZeroFilledArray<BSTR>(VT_BSTR, 3, 0);
    ExpectZeroFilledArray<VARIANT>(VT_VARIANT, 2, 5);
    ExpectZeroFilledArray<IUnknown*>(VT_UNKNOWN, 1, -3);
    ExpectZeroFilledArray<BSTR>(VT_BSTR, 0, 0);
}

TEST_F(ComVector, DetachToDestroysWhatTheOutParameterHeld)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<BSTR>(1, 0, true));
    ComVectorAccess<BSTR>(owner.Get())[0] = SysAllocString(L"new");
    SAFEARRAY* const made = owner.Get();
    TraceCapture trace;
    EXPECT_EQ(E_POINTER, owner.DetachTo(nullptr));
    EXPECT_EQ(made, owner.Get());
    EXPECT_EQ(1u, trace.Count(") : error 0x80004003: ")) << trace.Text();
    SAFEARRAY* out = MakeBstrArray({L"old", L"older"});   // freed by the detach, or the leak check fails
    ASSERT_EQ(S_OK, owner.DetachTo(&out));
    EXPECT_EQ(made, out);
    EXPECT_EQ(Names{L"new"}, ReadBstrArray(out));
    ASSERT_EQ(S_OK, owner.DetachTo(&out));
    EXPECT_EQ(nullptr, out) << "an empty owner hands out null";
}

TEST_F(ComVector, CopiesAreDeepAndNullEmpties)
{
    SAFEARRAY* source = MakeBstrArray({L"alpha", L"beta"}, 2);
    ComVectorArray copy(source);
    EXPECT_NE(ComVectorAccess<BSTR>(source)[0], ComVectorAccess<BSTR>(copy.Get())[0]) << "strings are duplicated";
    EXPECT_EQ(S_OK, SafeArrayDestroy(source));
    LONG lower = -1;
    EXPECT_EQ((Names{L"alpha", L"beta"}), ReadBstrArray(copy.Get()));
    EXPECT_TRUE(SUCCEEDED(SafeArrayGetLBound(copy.Get(), 1, &lower)) && lower == 2);
    EXPECT_EQ(S_OK, copy.CopyFrom(nullptr));
    EXPECT_EQ(nullptr, copy.Get());

    // A list of data objects, as the store builds its results: the copy holds its own references.
    const LONG before = LiveDataObjects();
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<IUnknown*>(2, 0, true));
    {
        ComVectorAccess<IUnknown*> access(owner.Get());   // its lock ends with the scope
        for (ULONG i = 0; i < access.Count(); ++i)
        {
            ComPtr<IFdtInstanceDataRef> reference;
            ASSERT_EQ(S_OK, MakeDataObject<FdtInstanceDataRef>(reference));
            access[i] = reference.Detach();
        }
    }
    ASSERT_EQ(S_OK, copy.CopyFrom(owner.Get()));
    owner.Destroy();
    EXPECT_EQ(before + 2, LiveDataObjects());
    copy.Destroy();
    EXPECT_EQ(before, LiveDataObjects());
}
