// Parameter groups: the group stream (checked once more by
// check_group_streams.py), names shared with parameters, reading and writing
// values through members, and damaged group and member streams.
#include "../parameters/ParameterFixture.h"

namespace
{
const HRESULT kNameExists = static_cast<HRESULT>(0x80043004);
const HRESULT kMemberNotParameter = static_cast<HRESULT>(0x80043005);
const HRESULT kNotGroupStream = static_cast<HRESULT>(0x80043007);
const HRESULT kNameUnknown = static_cast<HRESULT>(0x80043008);

class Groups : public StoreFixture
{
protected:
    HRESULT DefineGroup(const wchar_t* name, BYTE id, const std::vector<std::wstring>& members)
    {
        SAFEARRAY* list = MakeBstrArray(members);
        const HRESULT hr = Store()->DefineGroup(nullptr, m_id, _bstr_t(name), id, &list);
        EXPECT_EQ(members, ReadBstrArray(list));
        EXPECT_EQ(S_OK, SafeArrayDestroy(list));
        return hr;
    }
    std::vector<std::wstring> Members(const wchar_t* name, HRESULT expected = S_OK)
    {
        SAFEARRAY* list = nullptr;
        EXPECT_EQ(expected, Store()->GetGroup(nullptr, m_id, _bstr_t(name), &list));
        LONG lower = -1;
        if (list)
        {
            EXPECT_EQ(S_OK, SafeArrayGetLBound(list, 1, &lower));
            EXPECT_EQ(0, lower);
        }
        const std::vector<std::wstring> members = ReadBstrArray(list);
        SafeArrayDestroy(list);
        return members;
    }
    std::vector<std::wstring> AllGroups()
    {
        SAFEARRAY* list = nullptr;
        EXPECT_EQ(S_OK, Store()->GetAllGroups(nullptr, m_id, &list));
        const std::vector<std::wstring> names = ReadBstrArray(list);
        SafeArrayDestroy(list);
        return names;
    }
    HRESULT GroupId(const wchar_t* name, BYTE* id)
    {
        return Store()->GetGroupInfo(nullptr, m_id, _bstr_t(name), id);
    }
    // The values of ReadGroup; lower bound 0.
    std::vector<_variant_t> ReadValues(const wchar_t* name, HRESULT expected = S_OK)
    {
        std::vector<_variant_t> values;
        SAFEARRAY* list = nullptr;
        EXPECT_EQ(expected, Store()->ReadGroup(nullptr, m_id, _bstr_t(name), &list));
        if (!list)
            return values;
        LONG lower = -1, upper = -2;
        SafeArrayGetLBound(list, 1, &lower);
        SafeArrayGetUBound(list, 1, &upper);
        EXPECT_EQ(0, lower);
        for (LONG i = lower; i <= upper; ++i)
        {
            _variant_t value;
            SafeArrayGetElement(list, &i, &value);
            values.push_back(value);
        }
        SafeArrayDestroy(list);
        return values;
    }
    HRESULT WriteValues(const wchar_t* name, std::vector<_variant_t> values)
    {
        SAFEARRAY* list = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
        for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i)
            SafeArrayPutElement(list, &i, &values[i]);
        SAFEARRAY* passed = list;
        const HRESULT hr = Store()->WriteGroup(nullptr, m_id, _bstr_t(name), &list);
        EXPECT_EQ(passed, list);
        for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i)
        {
            _variant_t value;
            SafeArrayGetElement(list, &i, &value);
            EXPECT_EQ(values[i], value);
        }
        EXPECT_EQ(S_OK, SafeArrayDestroy(list));
        return hr;
    }
};

class GroupStreams : public Groups
{
};
}  // namespace

TEST_F(GroupStreams, FileForTheIndependentCheck)
{
    ASSERT_EQ(S_OK, Define(L"A", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"B", _variant_t(2L)));
    ASSERT_EQ(S_OK, DefineGroup(L"g", 0xFF, {L"A", L"B", L"A"}));
    ASSERT_EQ(S_OK, DefineGroup(L"empty", 7, {}));
    BYTE id = 0;
    ASSERT_EQ(S_OK, GroupId(L"g", &id));
    EXPECT_EQ(0xFF, id);
    CommitFile();
    KeepFile();

    // Untouched, the groups keep their members in the file.
    Reopen();
    EXPECT_EQ((std::vector<std::wstring>{L"A", L"B", L"A"}), Members(L"g"));
    EXPECT_TRUE(Members(L"empty").empty());
    EXPECT_TRUE(ReadValues(L"empty").empty());
    ASSERT_EQ(S_OK, GroupId(L"empty", &id));
    EXPECT_EQ(7, id);
    EXPECT_EQ((std::vector<std::wstring>{L"empty", L"g"}), AllGroups());
    SAFEARRAY* parameters = nullptr;
    ASSERT_EQ(S_OK, Store()->GetAllParameters(nullptr, m_id, &parameters));
    EXPECT_EQ((std::vector<std::wstring>{L"A", L"B"}), ReadBstrArray(parameters));
    SafeArrayDestroy(parameters);
}

TEST_F(Groups, ANameIsAGroupOrAParameter)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    Park();
    const Bytes map = StreamBytes(L"map");
    TraceCapture trace;
    EXPECT_EQ(kNameExists, DefineGroup(L"p", 1, {L"p"}));
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
    Park();
    EXPECT_EQ(map, StreamBytes(L"map"));

    ASSERT_EQ(S_OK, DefineGroup(L"g", 1, {L"p"}));
    EXPECT_EQ(kNameExists, DefineGroup(L"g", 2, {}));
    EXPECT_EQ(E_FAIL, Define(L"g", _variant_t(1L)));
    Members(L"p", E_FAIL);
    BYTE id = 0;
    EXPECT_EQ(E_FAIL, GroupId(L"p", &id));
    EXPECT_EQ(kNameUnknown, GroupId(L"none", &id));
    EXPECT_EQ(E_FAIL, Store()->DeleteGroup(nullptr, m_id, _bstr_t(L"p")));
    EXPECT_EQ((std::vector<std::wstring>{L"g"}), AllGroups());
}

TEST_F(Groups, DeletedGroupKeepsItsName)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    ASSERT_EQ(S_OK, DefineGroup(L"g", 1, {L"p"}));
    ASSERT_EQ(S_OK, Store()->DeleteGroup(nullptr, m_id, _bstr_t(L"g")));
    EXPECT_EQ(kNameExists, DefineGroup(L"g", 1, {L"p"}));
    EXPECT_EQ((std::vector<std::wstring>{L"g"}), AllGroups());
    BYTE id = 0;
    EXPECT_EQ(E_FAIL, GroupId(L"g", &id));
    EXPECT_EQ(_variant_t(1L), Read(L"p"));
    EXPECT_EQ(kNameUnknown, Store()->DeleteGroup(nullptr, m_id, _bstr_t(L"none")));
}

TEST_F(Groups, ValuesTravelThroughTheMembers)
{
    ASSERT_EQ(S_OK, Define(L"A", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"B", _variant_t(2L)));
    ASSERT_EQ(S_OK, DefineGroup(L"g", 1, {L"A", L"B"}));
    _variant_t seven(static_cast<short>(7));
    ASSERT_EQ(S_OK, WriteValues(L"g", {seven, BstrValue(L"9")}));
    const _variant_t a = Read(L"A");
    const _variant_t b = Read(L"B");
    EXPECT_EQ(VT_I4, V_VT(&a));
    EXPECT_EQ(VT_I4, V_VT(&b));
    EXPECT_EQ(7, V_I4(&a));
    EXPECT_EQ(9, V_I4(&b));
    const std::vector<_variant_t> values = ReadValues(L"g");
    ASSERT_EQ(2u, values.size());
    EXPECT_EQ(_variant_t(7L), values[0]);
    EXPECT_EQ(_variant_t(9L), values[1]);

    // Fewer values than members is refused before anything is written.
    EXPECT_EQ(E_INVALIDARG, WriteValues(L"g", {_variant_t(5L)}));
    EXPECT_EQ(_variant_t(7L), Read(L"A"));
}

TEST_F(Groups, MemberFaults)
{
    ASSERT_EQ(S_OK, Define(L"A", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"B", _variant_t(2L)));
    ASSERT_EQ(S_OK, DefineGroup(L"missing", 1, {L"A", L"none", L"B"}));
    ReadValues(L"missing", kNameUnknown);
    EXPECT_EQ(kNameUnknown, WriteValues(L"missing", {_variant_t(10L), _variant_t(20L), _variant_t(30L)}));
    Park();
    EXPECT_EQ(_variant_t(10L), Read(L"A"));
    EXPECT_EQ(_variant_t(2L), Read(L"B"));

    // B's stream claims to be a group: nothing is read or written at all.
    ASSERT_EQ(S_OK, DefineGroup(L"g", 1, {L"A", L"B"}));
    Park();
    Bytes stream = StreamBytes(L"1");
    stream[4] = 1;
    PutStreamBytes(L"1", stream);
    TraceCapture trace;
    ReadValues(L"g", kMemberNotParameter);
    EXPECT_EQ(kMemberNotParameter, WriteValues(L"g", {_variant_t(11L), _variant_t(21L)}));
    EXPECT_EQ(2u, trace.Lines().size()) << trace.Text();
    EXPECT_EQ(2u, trace.Count("FbInstanceData::ReadPara stream isn't a group\n"));
    EXPECT_EQ(_variant_t(10L), Read(L"A"));
}

TEST_F(Groups, DamagedGroupStreams)
{
    ASSERT_EQ(S_OK, DefineGroup(L"g", 1, {L"x"}));
    Park();
    struct Case
    {
        Bytes bytes;
        HRESULT result;
        const char* message;
    };
    const Case cases[] = {
        {ByteBuilder().Header(L"g", 1, 2).U32(1).U32(0).bytes, E_FAIL, "FbInstanceData::ReadGroup invalid version\n"},
        {ByteBuilder().Header(L"g", 2).U32(1).U32(0).bytes, kNotGroupStream, "FbInstanceData::ReadGroup stream isn't a group\n"},
        {ByteBuilder().Header(L"h", 1).U32(1).U32(0).bytes, E_FAIL, ": internal error 0xaa: "},
        {ByteBuilder().Header(L"g", 1).U32(1).U32(0xFFFFFFFF).Str(L"x").bytes, E_FAIL, ": error 0x80004005: "},
        {ByteBuilder().Header(L"g", 1).U32(1).U32(2).Str(L"x").U32(0x7FFFFFFE).bytes, E_FAIL, ": error 0x80004005: "},
        {ByteBuilder().Header(L"g", 1).bytes, E_FAIL, ": error 0x80004005: "},
    };
    for (const Case& damage : cases)
    {
        SCOPED_TRACE(damage.message);
        PutStreamBytes(L"0", damage.bytes);
        TraceCapture trace;
        Members(L"g", damage.result);
        EXPECT_TRUE(trace.Contains(damage.message)) << trace.Text();
        ReadValues(L"g", damage.result);
        Park();
    }
    // The identifier alone is read without the members.
    PutStreamBytes(L"0", ByteBuilder().Header(L"g", 1).U32(0x1234).U32(0xFFFFFFFF).bytes);
    BYTE id = 0;
    EXPECT_EQ(S_OK, GroupId(L"g", &id));
    EXPECT_EQ(0x34, id);
}

TEST_F(Groups, ArgumentChecks)
{
    SAFEARRAY* none = nullptr;
    EXPECT_EQ(E_POINTER, Store()->DefineGroup(nullptr, m_id, _bstr_t(L"g"), 1, nullptr));
    EXPECT_EQ(E_UNEXPECTED, Store()->DefineGroup(nullptr, m_id, _bstr_t(L"g"), 1, &none));
    SAFEARRAYBOUND bounds[2] = {{1, 0}, {1, 0}};
    SAFEARRAY* square = SafeArrayCreate(VT_BSTR, 2, bounds);
    EXPECT_EQ(E_UNEXPECTED, Store()->DefineGroup(nullptr, m_id, _bstr_t(L"g"), 1, &square));
    SafeArrayDestroy(square);
    EXPECT_EQ(E_POINTER, Store()->GetGroupInfo(nullptr, m_id, _bstr_t(L"g"), nullptr));
    EXPECT_EQ(E_POINTER, Store()->GetGroup(nullptr, m_id, _bstr_t(L"g"), nullptr));
    EXPECT_EQ(E_POINTER, Store()->GetAllGroups(nullptr, m_id, nullptr));
    EXPECT_EQ(E_POINTER, Store()->ReadGroup(nullptr, m_id, _bstr_t(L"g"), nullptr));
    EXPECT_EQ(E_POINTER, Store()->WriteGroup(nullptr, m_id, _bstr_t(L"g"), nullptr));
    EXPECT_TRUE(AllGroups().empty());
}
