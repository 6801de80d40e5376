// References between instances: both ends in the "instance" streams.
#include "InstanceTestSupport.h"

namespace
{
const _bstr_t kOne(L"1"), kTwo(L"2"), kThree(L"3"), kP(L"P"), kQ(L"Q");

// An "instance" stream: lock count, super reference, sub-instance pairs.
Bytes InstanceBytes(const wchar_t* superId, const wchar_t* superParameter, const References& subs, DWORD locks = 0)
{
    Bytes bytes = Dwords({1, locks}) + Text(superId) + Text(superParameter) + Dwords({DWORD(subs.size())});
    for (const Reference& sub : subs)
        bytes = bytes + Text(sub.first.c_str()) + Text(sub.second.c_str());
    return bytes;
}

// Three instances in a store file of the test's own.
class ReferenceStore : public testing::Test
{
protected:
    explicit ReferenceStore(const wchar_t* file = nullptr) : session(file)
    {
        for (int i = 0; i < 3; ++i)
            NewInstance(session.Store());
    }
    HRESULT Add(const _bstr_t& super, const _bstr_t& parameter, const _bstr_t& sub)
    {
        return session->AddInstanceDataReference(nullptr, super, parameter, sub);
    }
    HRESULT Remove(const _bstr_t& super, const _bstr_t& parameter, const _bstr_t& sub)
    {
        return session->RemoveInstanceDataReference(nullptr, super, parameter, sub);
    }
    References Subs(const _bstr_t& id) { return SubReferences(session.Store(), id); }
    Reference Super(const _bstr_t& id) { return SuperReference(session.Store(), id); }

    Session session;
};

// Keeps reference-streams.stg for the byte check.
class KeptReferenceStore : public ReferenceStore
{
protected:
    KeptReferenceStore() : ReferenceStore(L"reference-streams.stg") { session.Keep(); }
};
}  // namespace

TEST_F(KeptReferenceStore, DuplicatesAreListedAndRemovedOneAtATime)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kQ, kThree));
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    EXPECT_EQ((References{{L"2", L"P"}, {L"3", L"Q"}, {L"2", L"P"}}), Subs(kOne));
    EXPECT_EQ(Reference(L"1", L"P"), Super(kTwo));
    EXPECT_EQ(Reference(L"", L""), Super(kOne));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kTwo));
    EXPECT_EQ((References{{L"3", L"Q"}, {L"2", L"P"}}), Subs(kOne));
    session.Commit();
}

TEST_F(ReferenceStore, OneSuperEachALaterOneOverwritingTheEarlier)
{
    ASSERT_EQ(S_OK, Add(kOne, _bstr_t(L"A"), kThree));
    ASSERT_EQ(S_OK, Add(kTwo, _bstr_t(L"B"), kThree));
    EXPECT_EQ(Reference(L"2", L"B"), Super(kThree));
    EXPECT_EQ((References{{L"3", L"A"}}), Subs(kOne));
    EXPECT_EQ((References{{L"3", L"B"}}), Subs(kTwo));
    EXPECT_EQ(References(), Subs(kThree));
    // Both readers need somewhere to put their result.
    EXPECT_EQ(E_POINTER, session->GetSubInstanceData(nullptr, kOne, nullptr));
    EXPECT_EQ(E_POINTER, session->GetSuperInstanceData(nullptr, kOne, nullptr));
}

TEST_F(ReferenceStore, RemovingAMissingReferenceStillRewritesBothEnds)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    // A byte after the record shows whether instance 3's record is written anew.
    session.Replace(L"3", L"instance", InstanceBytes(nullptr, nullptr, {}) + Bytes{0xEE});
    TraceCapture trace;
    // Instance 3 lists nothing; instance 2 loses its super reference all the same.
    EXPECT_EQ(S_OK, Remove(kThree, kP, kTwo));
    EXPECT_FALSE(trace.Contains("wrong parameter name")) << trace.Text();
    EXPECT_EQ(Reference(L"", L""), Super(kTwo));
    EXPECT_EQ((References{{L"2", L"P"}}), Subs(kOne));
    EXPECT_EQ(InstanceBytes(L"", L"", {}), session.Stream(L"2", L"instance"));   // empty strings, not null ones
    EXPECT_EQ(InstanceBytes(nullptr, nullptr, {}), session.Stream(L"3", L"instance"));
}

TEST_F(ReferenceStore, RemovingUnderAnotherParameterNameIsTraced)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kQ, kThree));
    TraceCapture trace;
    EXPECT_EQ(S_OK, Remove(kOne, _bstr_t(L"X"), kTwo));
    ASSERT_EQ(1u, trace.Count("FbInstanceData::RemoveInstanceDataReference wrong parameter name\n")) << trace.Text();
    EXPECT_EQ(CPkTrace::LevelError, trace.Levels()[0]);
    EXPECT_EQ((References{{L"3", L"Q"}}), Subs(kOne));
    // Names compare case-sensitively.
    EXPECT_EQ(S_OK, Remove(kOne, _bstr_t(L"q"), kThree));
    EXPECT_EQ(2u, trace.Count("wrong parameter name")) << trace.Text();
}

TEST_F(ReferenceStore, AnInstanceMayReferToItself)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kOne));
    EXPECT_EQ((References{{L"1", L"P"}}), Subs(kOne));
    EXPECT_EQ(Reference(L"1", L"P"), Super(kOne));
    EXPECT_EQ(InstanceBytes(L"1", L"P", {{L"1", L"P"}}), session.Stream(L"1", L"instance"));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kOne));
    EXPECT_EQ(InstanceBytes(L"", L"", {}), session.Stream(L"1", L"instance"));
}

TEST_F(ReferenceStore, ReferencesToMissingInstances)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kTwo, kQ, kThree));
    ASSERT_EQ(S_OK, session->Delete(nullptr, kTwo));
    EXPECT_EQ((References{{L"2", L"P"}}), Subs(kOne));
    EXPECT_EQ(Reference(L"2", L"Q"), Super(kThree));

    // A missing sub is found before the super's end changes.
    TraceCapture trace;
    EXPECT_EQ(STG_E_FILENOTFOUND, Add(kThree, kP, _bstr_t(L"42")));
    EXPECT_TRUE(trace.Contains(": error 0x80030002: ")) << trace.Text();
    EXPECT_EQ(References(), Subs(kThree));
    ComPtr<IFdtInstanceDataRef> super;
    EXPECT_EQ(STG_E_FILENOTFOUND, session->GetSuperInstanceData(nullptr, _bstr_t(L"42"), super.GetAddressOf()));
    EXPECT_FALSE(super);
}

TEST_F(ReferenceStore, DamagedReferencesGiveAnError)
{
    const Bytes valid = InstanceBytes(L"3", L"Q", {{L"2", L"P"}}, 1);
    const size_t countAt = 8 + 8 + 8;   // head, "3", "Q"
    Bytes damaged[4] = {valid, valid, valid, valid};
    damaged[0][countAt] = 2;                                                         // more entries than follow
    std::fill(damaged[1].begin() + countAt, damaged[1].begin() + countAt + 4, 0xFF);   // 4294967295 entries
    damaged[2].resize(damaged[2].size() - 3);                                         // the last name cut short
    damaged[3][countAt + 4] = 3;                                                      // odd byte count of a name
    for (const Bytes& bytes : damaged)
    {
        session.Replace(L"1", L"instance", bytes);
        TraceCapture trace;
        SAFEARRAY* list = nullptr;
        EXPECT_EQ(E_FAIL, session->GetSubInstanceData(nullptr, kOne, &list));
        EXPECT_EQ(nullptr, list);
        EXPECT_TRUE(trace.Contains(": error 0x80004005: ")) << trace.Text();
        ComPtr<IFdtInstanceDataRef> super;
        EXPECT_EQ(E_FAIL, session->GetSuperInstanceData(nullptr, kOne, super.GetAddressOf()));
        EXPECT_EQ(E_FAIL, Add(kOne, kP, kThree));
        EXPECT_EQ(E_FAIL, Remove(kOne, kP, kTwo));
        // The head is whole: locks work, and only they touch the stream.
        EXPECT_EQ(S_OK, session->LockInstance(nullptr, kOne));
        Bytes locked = bytes;
        locked[4] = 2;
        EXPECT_EQ(locked, session.Stream(L"1", L"instance"));
    }
}
