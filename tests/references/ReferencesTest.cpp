// References between instances: both ends in the "instance" streams.
#include "TestSupport.h"

namespace
{
const _bstr_t kOne(L"1"), kTwo(L"2"), kThree(L"3"), kP(L"P"), kQ(L"Q");

// Three instances in a store file of the test's own.
class References : public StoreSession
{
protected:
    void SetUp() override
    {
        StoreSession::SetUp();
        for (int i = 0; i < 3; ++i)
            NewInstance();
    }
    HRESULT Add(BSTR super, BSTR parameter, BSTR sub)
    {
        return Store()->AddInstanceDataReference(nullptr, super, parameter, sub);
    }
    HRESULT Remove(BSTR super, BSTR parameter, BSTR sub)
    {
        return Store()->RemoveInstanceDataReference(nullptr, super, parameter, sub);
    }
    std::wstring Of(const _bstr_t& id) { return ReferencesOf(Store(), id); }
};
}  // namespace

// Keeps its file for the independent byte check: instance 2 loses its super
// reference although 1 still lists it once.
TEST_F(References, DuplicatesAreListedAndRemovedOneAtATime)
{
    Keep();
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kQ, kThree));
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    EXPECT_EQ(L"2:P 3:Q 2:P ^:", Of(kOne));
    EXPECT_EQ(L"^1:P", Of(kTwo));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kTwo));
    EXPECT_EQ(L"3:Q 2:P ^:", Of(kOne));
    Commit();
}

TEST_F(References, OneSuperEachALaterOneOverwritingTheEarlier)
{
    ASSERT_EQ(S_OK, Add(kOne, _bstr_t(L"A"), kThree));
    ASSERT_EQ(S_OK, Add(kTwo, _bstr_t(L"B"), kThree));
    EXPECT_EQ(L"^2:B", Of(kThree));
    EXPECT_EQ(L"3:A ^:", Of(kOne));
    EXPECT_EQ(L"3:B ^:", Of(kTwo));
    EXPECT_EQ(E_POINTER, Store()->GetSubInstanceData(nullptr, kOne, nullptr));
    EXPECT_EQ(E_POINTER, Store()->GetSuperInstanceData(nullptr, kOne, nullptr));
    // An instance may refer to itself: both ends in one stream.
    ASSERT_EQ(S_OK, Add(kOne, kP, kOne));
    EXPECT_EQ(L"3:A 1:P ^1:P", Of(kOne));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kOne));
    EXPECT_EQ(L"3:A ^:", Of(kOne));
}

// Removing under another super or parameter name still rewrites both ends:
// the sub loses its super reference, and the wrong name is traced.
TEST_F(References, RemovingWhatIsNotListed)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kQ, kThree));
    TraceCapture trace;
    EXPECT_EQ(S_OK, Remove(kThree, kP, kTwo));
    EXPECT_FALSE(trace.Contains("wrong parameter name")) << trace.Text();
    EXPECT_EQ(L"^:", Of(kTwo));
    EXPECT_EQ(L"2:P 3:Q ^:", Of(kOne));

    EXPECT_EQ(S_OK, Remove(kOne, _bstr_t(L"q"), kThree));   // names compare case-sensitively
    ASSERT_EQ(1u, trace.Count("FbInstanceData::RemoveInstanceDataReference wrong parameter name\n")) << trace.Text();
    EXPECT_EQ(CPkTrace::LevelError, trace.Levels().back());
    EXPECT_EQ(L"2:P ^:", Of(kOne));
    EXPECT_EQ(L"^:", Of(kThree));
}

TEST_F(References, ReferencesToMissingInstances)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kTwo, kQ, kThree));
    ASSERT_EQ(S_OK, Store()->Delete(nullptr, kTwo));
    EXPECT_EQ(L"2:P ^:", Of(kOne));
    EXPECT_EQ(L"^2:Q", Of(kThree));
    // A missing sub is found before the super's end changes.
    EXPECT_EQ(STG_E_FILENOTFOUND, Add(kThree, kP, _bstr_t(L"42")));
    EXPECT_EQ(L"^2:Q", Of(kThree));
    ComPtr<IFdtInstanceDataRef> super;
    EXPECT_EQ(STG_E_FILENOTFOUND, Store()->GetSuperInstanceData(nullptr, _bstr_t(L"42"), super.GetAddressOf()));
    EXPECT_FALSE(super);
}
