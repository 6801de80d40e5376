// Parameter groups: the file of the independent byte check, names shared
// with parameters, values through the members and a member stream of the
// wrong kind.
#include "TestSupport.h"

namespace
{
const HRESULT kNameExists = static_cast<HRESULT>(0x80043004);
const HRESULT kMemberNotParameter = static_cast<HRESULT>(0x80043005);
const HRESULT kNameUnknown = static_cast<HRESULT>(0x80043008);
const auto kMembers = &IFbInstanceData::GetGroup;
const auto kValues = &IFbInstanceData::ReadGroup;

class Groups : public InstanceSession
{
protected:
    // DefineGroup with member names, WriteGroup with values; the caller's array comes back unchanged.
    HRESULT Put(const wchar_t* name, const Names& members, BYTE id = 1)
    {
        Array list{MakeBstrArray(members)};
        const HRESULT hr = Store()->DefineGroup(nullptr, m_id, _bstr_t(name), id, &list.p);
        EXPECT_EQ(members, ReadBstrArray(list.p));
        return hr;
    }
    HRESULT Put(const wchar_t* name, const Values& values)
    {
        Array list{MakeValueArray(values)};
        const HRESULT hr = Store()->WriteGroup(nullptr, m_id, _bstr_t(name), &list.p);
        EXPECT_EQ(values, ReadValueArray(list.p));
        return hr;
    }
    // GetGroup (members as strings) or ReadGroup (values): the result starts at 0.
    Values Fetch(HRESULT (STDMETHODCALLTYPE IFbInstanceData::*get)(IFdtContext*, BSTR, BSTR, SAFEARRAY**),
                 const wchar_t* name, HRESULT expected = S_OK)
    {
        Array list;
        LONG lower = 0;
        EXPECT_EQ(expected, (Store()->*get)(nullptr, m_id, _bstr_t(name), &list.p));
        const Values result = ReadValueArray(list.p, &lower);
        EXPECT_TRUE(result.empty() || lower == 0);
        return result;
    }
    HRESULT GroupId(const wchar_t* name, BYTE* id) { return Store()->GetGroupInfo(nullptr, m_id, _bstr_t(name), id); }
};

using GroupStreams = Groups;
}  // namespace

TEST_F(GroupStreams, FileForTheIndependentCheck)
{
    ASSERT_EQ(S_OK, Define(L"A", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"B", _variant_t(2L)));
    ASSERT_EQ(S_OK, Put(L"g", Names{L"A", L"B", L"A"}, 0xFF));
    ASSERT_EQ(S_OK, Put(L"empty", Names{}, 7));
    Keep();
    Reopen();
    EXPECT_EQ((Values{L"A", L"B", L"A"}), Fetch(kMembers, L"g"));
    EXPECT_TRUE(Fetch(kMembers, L"empty").empty());
    EXPECT_TRUE(Fetch(kValues, L"empty").empty());
    BYTE id = 0;
    ASSERT_EQ(S_OK, GroupId(L"g", &id));
    EXPECT_EQ(0xFF, id);
    EXPECT_EQ((Names{L"empty", L"g"}), All(&IFbInstanceData::GetAllGroups));
    EXPECT_EQ((Names{L"A", L"B"}), All(&IFbInstanceData::GetAllParameters));
}

// A name is a group or a parameter for good: a deleted group's name can never be defined again.
TEST_F(Groups, ANameIsAGroupOrAParameterForGood)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    const Bytes map = Stream(L"1/map");
    TraceCapture trace;
    EXPECT_EQ(kNameExists, Put(L"p", Names{L"p"}));
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    EXPECT_EQ(map, Stream(L"1/map"));

    ASSERT_EQ(S_OK, Put(L"g", Names{L"p"}));
    EXPECT_EQ(kNameExists, Put(L"g", Names{}, 2));
    Fetch(kMembers, L"p", E_FAIL);
    BYTE id = 0;
    EXPECT_EQ(E_FAIL, GroupId(L"p", &id));
    EXPECT_EQ(kNameUnknown, GroupId(L"none", &id));
    EXPECT_EQ(E_FAIL, Store()->DeleteGroup(nullptr, m_id, _bstr_t(L"p")));
    EXPECT_EQ(E_FAIL, Define(L"g", _variant_t(1L)));
    Read(L"g", E_FAIL);
    EXPECT_EQ(E_FAIL, Write(L"g", _variant_t(1L)));
    EXPECT_EQ(E_FAIL, Store()->DeleteParameter(nullptr, m_id, _bstr_t(L"g")));
    EXPECT_EQ((Names{L"p"}), All(&IFbInstanceData::GetAllParameters));

    ASSERT_EQ(S_OK, Store()->DeleteGroup(nullptr, m_id, _bstr_t(L"g")));
    EXPECT_EQ(kNameExists, Put(L"g", Names{L"p"}));
    EXPECT_EQ(E_FAIL, Define(L"g", _variant_t(1L)));
    EXPECT_EQ(STG_E_FILENOTFOUND, GroupId(L"g", &id));
    EXPECT_EQ((Names{L"g"}), All(&IFbInstanceData::GetAllGroups));
    EXPECT_EQ(kNameUnknown, Store()->DeleteGroup(nullptr, m_id, _bstr_t(L"none")));
}

// Values go through the members, converted to each member's type; a member
// that fails leaves every member as it was.
TEST_F(Groups, MemberFaults)
{
    ASSERT_EQ(S_OK, Define(L"A", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"B", _variant_t(2L)));
    ASSERT_EQ(S_OK, Put(L"g", Names{L"A", L"B"}));
    ASSERT_EQ(S_OK, Put(L"g", Values{static_cast<short>(7), BstrValue(L"9")}));
    EXPECT_EQ((Values{7L, 9L}), (Values{Read(L"A"), Read(L"B")}));
    EXPECT_EQ((Values{7L, 9L}), Fetch(kValues, L"g"));
    // Fewer values than members is refused before anything is written.
    EXPECT_EQ(E_INVALIDARG, Put(L"g", Values{5L}));

    ASSERT_EQ(S_OK, Put(L"missing", Names{L"A", L"none", L"B"}));
    Fetch(kValues, L"missing", kNameUnknown);
    EXPECT_EQ(kNameUnknown, Put(L"missing", Values{10L, 20L, 30L}));
    Park();
    EXPECT_EQ((Values{7L, 9L}), (Values{Read(L"A"), Read(L"B")}));

    // B's stream says group: nothing is read or written at all.
    Bytes stream = Stream(L"1/1");
    stream[4] = 1;
    Replace(L"1/1", stream);
    TraceCapture trace;
    Fetch(kValues, L"g", kMemberNotParameter);
    EXPECT_EQ(kMemberNotParameter, Put(L"g", Values{11L, 21L}));
    EXPECT_EQ(2u, trace.Lines().size()) << trace.Text();
    EXPECT_EQ(2u, trace.Count("FbInstanceData::ReadPara stream isn't a group\n"));
    EXPECT_EQ(_variant_t(7L), Read(L"A"));
}
