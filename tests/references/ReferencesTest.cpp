// References between instances: both ends in the "instance" streams.
#include <gtest/gtest.h>
#include "InstanceTestSupport.h"

namespace
{
typedef std::vector<unsigned char> Bytes;

const _bstr_t kOne(L"1"), kTwo(L"2"), kThree(L"3");
const _bstr_t kP(L"P"), kQ(L"Q");

// An "instance" stream: lock count, super reference, sub-instance pairs.
Bytes InstanceBytes(DWORD lockCount, const wchar_t* superId, const wchar_t* superParameter, const References& subs)
{
    Bytes bytes;
    AppendDword(bytes, 1);
    AppendDword(bytes, lockCount);
    AppendString(bytes, superId);
    AppendString(bytes, superParameter);
    AppendDword(bytes, static_cast<DWORD>(subs.size()));
    for (const Reference& sub : subs)
    {
        AppendString(bytes, sub.first.c_str());
        AppendString(bytes, sub.second.c_str());
    }
    return bytes;
}

// Three instances in a file of the test's own.
class ReferenceStore : public testing::Test
{
protected:
    explicit ReferenceStore(const wchar_t* file = nullptr) : m_session(file)
    {
        for (int i = 0; i < 3; ++i)
            NewInstance(Store());
    }
    IFbInstanceData* Store() const { return m_session.Store(); }
    HRESULT Add(const _bstr_t& super, const _bstr_t& parameter, const _bstr_t& sub)
    {
        return Store()->AddInstanceDataReference(nullptr, super, parameter, sub);
    }
    HRESULT Remove(const _bstr_t& super, const _bstr_t& parameter, const _bstr_t& sub)
    {
        return Store()->RemoveInstanceDataReference(nullptr, super, parameter, sub);
    }
    // The "instance" stream of id, read through the root.
    Bytes Stream(const wchar_t* id, const wchar_t* bystander)
    {
        ParkStoreOn(Store(), bystander);
        return InstanceStream(m_session.Root(), id, L"instance");
    }

    StoreSession m_session;
};

// Keeps reference-streams.stg for the independent byte check.
class KeptReferenceStore : public ReferenceStore
{
protected:
    KeptReferenceStore() : ReferenceStore(L"reference-streams.stg") { m_session.Keep(); }
};
}  // namespace

TEST_F(KeptReferenceStore, BothEndsInTheInstanceStreams)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kQ, kThree));
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    EXPECT_EQ((References{{L"2", L"P"}, {L"3", L"Q"}, {L"2", L"P"}}), SubReferences(Store(), kOne));
    EXPECT_EQ(Reference(L"1", L"P"), SuperReference(Store(), kTwo));
    EXPECT_EQ(Reference(L"", L""), SuperReference(Store(), kOne));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kTwo));

    EXPECT_EQ(InstanceBytes(0, nullptr, nullptr, {{L"3", L"Q"}, {L"2", L"P"}}), Stream(L"1", L"2"));
    // A removal leaves empty strings, not null ones.
    EXPECT_EQ(InstanceBytes(0, L"", L"", {}), Stream(L"2", L"1"));
    EXPECT_EQ(24u, Stream(L"2", L"1").size());
    EXPECT_EQ(InstanceBytes(0, L"1", L"Q", {}), Stream(L"3", L"1"));
    m_session.Close();
}

TEST_F(ReferenceStore, DuplicatesAreListedAndRemovedOneAtATime)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    EXPECT_EQ((References{{L"2", L"P"}, {L"2", L"P"}}), SubReferences(Store(), kOne));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kTwo));
    EXPECT_EQ((References{{L"2", L"P"}}), SubReferences(Store(), kOne));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kTwo));
    EXPECT_EQ(References(), SubReferences(Store(), kOne));
}

TEST_F(ReferenceStore, ALaterSuperOverwritesTheEarlierOne)
{
    ASSERT_EQ(S_OK, Add(kOne, _bstr_t(L"A"), kThree));
    ASSERT_EQ(S_OK, Add(kTwo, _bstr_t(L"B"), kThree));
    EXPECT_EQ(Reference(L"2", L"B"), SuperReference(Store(), kThree));
    EXPECT_EQ((References{{L"3", L"A"}}), SubReferences(Store(), kOne));
    EXPECT_EQ((References{{L"3", L"B"}}), SubReferences(Store(), kTwo));
}

TEST_F(ReferenceStore, RemovingAMissingReferenceStillRewritesBothEnds)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    TraceCapture trace;
    // Instance 3 lists nothing; instance 2 names 1 as its super all the same.
    EXPECT_EQ(S_OK, Remove(kThree, kP, kTwo));
    EXPECT_FALSE(trace.Contains("wrong parameter name")) << trace.Text();
    EXPECT_EQ(Reference(L"", L""), SuperReference(Store(), kTwo));
    EXPECT_EQ((References{{L"2", L"P"}}), SubReferences(Store(), kOne));
    EXPECT_EQ(InstanceBytes(0, L"", L"", {}), Stream(L"2", L"1"));
    EXPECT_EQ(InstanceBytes(0, nullptr, nullptr, {}), Stream(L"3", L"1"));
}

TEST_F(ReferenceStore, RemovingUnderAnotherParameterNameIsTraced)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kQ, kThree));
    TraceCapture trace;
    EXPECT_EQ(S_OK, Remove(kOne, _bstr_t(L"X"), kTwo));
    ASSERT_EQ(1u, trace.Count("FbInstanceData::RemoveInstanceDataReference wrong parameter name\n")) << trace.Text();
    EXPECT_EQ(CPkTrace::LevelError, trace.Levels()[0]);
    EXPECT_EQ((References{{L"3", L"Q"}}), SubReferences(Store(), kOne));
    // Names compare case-sensitively.
    trace.Clear();
    EXPECT_EQ(S_OK, Remove(kOne, _bstr_t(L"q"), kThree));
    EXPECT_EQ(1u, trace.Count("wrong parameter name")) << trace.Text();
}

TEST_F(ReferenceStore, AnInstanceMayReferToItself)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kOne));
    EXPECT_EQ((References{{L"1", L"P"}}), SubReferences(Store(), kOne));
    EXPECT_EQ(Reference(L"1", L"P"), SuperReference(Store(), kOne));
    EXPECT_EQ(InstanceBytes(0, L"1", L"P", {{L"1", L"P"}}), Stream(L"1", L"2"));
    ASSERT_EQ(S_OK, Remove(kOne, kP, kOne));
    EXPECT_EQ(InstanceBytes(0, L"", L"", {}), Stream(L"1", L"2"));
}

TEST_F(ReferenceStore, SubInstanceListIsAnArrayOfObjectsFromZero)
{
    EXPECT_EQ(E_POINTER, Store()->GetSubInstanceData(nullptr, kOne, nullptr));
    EXPECT_EQ(E_POINTER, Store()->GetSuperInstanceData(nullptr, kOne, nullptr));
    SAFEARRAY* list = SafeArrayCreateVector(VT_BSTR, 3, 1);   // replaced, not leaked
    ASSERT_EQ(S_OK, Store()->GetSubInstanceData(nullptr, kOne, &list));
    ExpectListAndDestroy(list, VT_UNKNOWN, 0);

    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kOne, kQ, kThree));
    list = nullptr;
    ASSERT_EQ(S_OK, Store()->GetSubInstanceData(nullptr, kOne, &list));
    ExpectListAndDestroy(list, VT_UNKNOWN, 2);
}

TEST_F(ReferenceStore, ReferencesOutliveTheDeletedInstance)
{
    ASSERT_EQ(S_OK, Add(kOne, kP, kTwo));
    ASSERT_EQ(S_OK, Add(kTwo, kQ, kThree));
    ASSERT_EQ(S_OK, Store()->Delete(nullptr, kTwo));
    EXPECT_EQ((References{{L"2", L"P"}}), SubReferences(Store(), kOne));
    EXPECT_EQ(Reference(L"2", L"Q"), SuperReference(Store(), kThree));
}

TEST_F(ReferenceStore, AnUnreadableSubIsNotRolledBack)
{
    TraceCapture trace;
    EXPECT_EQ(STG_E_FILENOTFOUND, Add(kOne, kP, _bstr_t(L"42")));
    EXPECT_TRUE(trace.Contains(": error 0x80030002: ")) << trace.Text();
    EXPECT_EQ((References{{L"42", L"P"}}), SubReferences(Store(), kOne));
    ComPtr<IFdtInstanceDataRef> super;
    EXPECT_EQ(STG_E_FILENOTFOUND, Store()->GetSuperInstanceData(nullptr, _bstr_t(L"42"), super.GetAddressOf()));
    EXPECT_FALSE(super);
}

TEST_F(ReferenceStore, DamagedReferencesGiveAnError)
{
    const Bytes valid = InstanceBytes(1, L"3", L"Q", {{L"2", L"P"}});
    const size_t countAt = 8 + 8 + 8;   // head, "3", "Q"
    Bytes damaged[4] = {valid, valid, valid, valid};
    damaged[0][countAt] = 2;                                                  // more entries than follow
    std::fill(damaged[1].begin() + countAt, damaged[1].begin() + countAt + 4, 0xFF);   // 4294967295 entries
    damaged[2].resize(damaged[2].size() - 3);                                  // the last name cut short
    damaged[3][countAt + 4] = 3;                                               // odd byte count of a name
    for (const Bytes& bytes : damaged)
    {
        ParkStoreOn(Store(), L"2");
        ReplaceInstanceStream(m_session.Root(), L"1", L"instance", bytes);
        TraceCapture trace;
        SAFEARRAY* list = nullptr;
        EXPECT_EQ(E_FAIL, Store()->GetSubInstanceData(nullptr, kOne, &list));
        EXPECT_EQ(nullptr, list);
        EXPECT_TRUE(trace.Contains(": error 0x80004005: ")) << trace.Text();
        ComPtr<IFdtInstanceDataRef> super;
        EXPECT_EQ(E_FAIL, Store()->GetSuperInstanceData(nullptr, kOne, super.GetAddressOf()));
        EXPECT_EQ(E_FAIL, Add(kOne, kP, kThree));
        EXPECT_EQ(E_FAIL, Remove(kOne, kP, kTwo));
        // The head is whole: locks work, and only they touch the stream.
        EXPECT_EQ(S_OK, Store()->LockInstance(nullptr, kOne));
        Bytes locked = bytes;
        locked[4] = 2;
        EXPECT_EQ(locked, Stream(L"1", L"2"));
    }
}
