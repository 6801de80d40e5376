// The list array owner and accessor.
#include "ObjectsTestSupport.h"
#include "PK_ComVector.h"
#include "NonCreateables/FdtInstanceDataRef.h"

using ComVector = LeakCheckedTest;

// An array is made zero-filled from its lower bound; DetachTo destroys what
// the out-parameter held, and an empty owner hands out null. Copies are deep
// (strings duplicated, objects referenced once more), keep the lower bound,
// and a copy of null empties.
TEST_F(ComVector, CreateDetachAndCopy)
{
    ComVectorArray owner;
    ASSERT_EQ(S_OK, owner.Create<VARIANT>(2, 5, true));
    LONG lower = -99;
    EXPECT_EQ((Values{_variant_t(), _variant_t()}), ReadValueArray(owner.Get(), &lower));
    EXPECT_EQ(5, lower);
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
    EXPECT_EQ(nullptr, out);

    SAFEARRAY* source = MakeBstrArray({L"alpha", L"beta"}, 2);
    ComVectorArray copy(source);
    EXPECT_NE(ComVectorAccess<BSTR>(source)[0], ComVectorAccess<BSTR>(copy.Get())[0]);
    EXPECT_EQ(S_OK, SafeArrayDestroy(source));
    EXPECT_EQ((Values{_variant_t(L"alpha"), _variant_t(L"beta")}), ReadValueArray(copy.Get(), &lower));
    EXPECT_EQ(2, lower);
    EXPECT_EQ(S_OK, copy.CopyFrom(nullptr));
    EXPECT_EQ(nullptr, copy.Get());
    const LONG before = LiveDataObjects();
    ASSERT_EQ(S_OK, owner.Create<IUnknown*>(2, 0, true));
    for (ULONG i = 0; i < 2; ++i)
    {
        ComPtr<IFdtInstanceDataRef> reference;
        ASSERT_EQ(S_OK, MakeDataObject<FdtInstanceDataRef>(reference));
        ComVectorAccess<IUnknown*>(owner.Get())[i] = reference.Detach();
    }
    ASSERT_EQ(S_OK, copy.CopyFrom(owner.Get()));
    owner.Destroy();
    EXPECT_EQ(before + 2, LiveDataObjects());
    copy.Destroy();
    EXPECT_EQ(before, LiveDataObjects());
}
