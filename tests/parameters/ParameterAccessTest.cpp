// Single parameters and lists: the conversion to the stored VARTYPE, what an
// equal value leaves alone, deletion, the locked and protected flags, lists
// of values and the arrays callers pass.
#include <limits>
#include "TestSupport.h"

namespace
{
const HRESULT kNameUnknown = static_cast<HRESULT>(0x80043008);
const VARIANT_BOOL Y = VARIANT_TRUE, N = VARIANT_FALSE;
typedef std::vector<VARIANT_BOOL> Flags;
typedef HRESULT (STDMETHODCALLTYPE IFbInstanceData::*FlagOperation)(IFdtContext*, BSTR, SAFEARRAY**);

class ParameterAccess : public InstanceSession
{
protected:
    HRESULT Flag(FlagOperation operation, const Names& names)
    {
        Array list{MakeBstrArray(names)};
        return (Store()->*operation)(nullptr, m_id, &list.p);
    }
    // Locked, protected, mandatory and private, in the stream's order.
    Flags FlagsOf(const wchar_t* name)
    {
        Flags flags(4, 7);
        if (ComPtr<IFdtParameter> info = Info(name))
            info->get_m_locked(&flags[0]), info->get_m_protected(&flags[1]), info->get_m_mandatory(&flags[2]),
                info->get_m_private(&flags[3]);
        return flags;
    }
};
}  // namespace

TEST_F(ParameterAccess, BadArgumentsChangeNothing)
{
    TraceCapture trace;
    EXPECT_EQ(E_POINTER, Store()->WriteParameterInfo(nullptr, m_id, nullptr));
    EXPECT_EQ(E_POINTER, Store()->ReadParameter(nullptr, m_id, _bstr_t(L"p"), nullptr));
    EXPECT_EQ(E_POINTER, Store()->ReadParameterInfo(nullptr, m_id, _bstr_t(L"p"), nullptr));
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();

    // Only a description brings a parameter into being.
    EXPECT_EQ(kNameUnknown, Write(L"p", _variant_t(1L)));
    Read(L"p", kNameUnknown);
    EXPECT_EQ(kNameUnknown, Store()->DeleteParameter(nullptr, m_id, _bstr_t(L"p")));
    EXPECT_TRUE(trace.Contains(": error 0x80043008: ")) << trace.Text();
    EXPECT_TRUE(All(&IFbInstanceData::GetAllParameters).empty());

    // A description whose getter fails leaves the stream as it was.
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    ComPtr<ParameterDescription> broken = new ParameterDescription(L"p", _variant_t(2L));
    broken->beforeGet = FailingGetter("private");
    EXPECT_EQ(E_ACCESSDENIED, Define(broken.Get()));
    EXPECT_EQ(_variant_t(1L), Read(L"p"));
}

// A write converts to the stored VARTYPE; an equal value is neither written
// nor committed (a trailing byte after the record shows whether the stream
// was written anew).
TEST_F(ParameterAccess, WritesConvertAndLeaveEqualValuesAlone)
{
    const _variant_t date(45000.5, VT_DATE), nan(std::numeric_limits<double>::quiet_NaN());
    const struct
    {
        _variant_t stored, written;
        HRESULT result;
        _variant_t after;   // VT_ERROR: not compared
        bool streamLeftAlone;
    } cases[] = {
        {5L, 5L, S_OK, 5L, true},
        {5L, 6L, S_OK, 6L, false},
        {BstrValue(nullptr), BstrValue(L""), S_OK, BstrValue(nullptr), true},   // "" equals a stored null string
        {date, date, S_OK, date, false},                                      // a date is always written again
        {nan, nan, S_OK, _variant_t(0L, VT_ERROR), false},                    // a NaN never equals
        {0L, BstrValue(L"12"), S_OK, 12L, false},
        {0L, BstrValue(L"abc"), E_FAIL, 0L, true},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
    {
        SCOPED_TRACE(i);
        const std::wstring name = L"p" + std::to_wstring(i), stream = L"1/" + std::to_wstring(i);
        ASSERT_EQ(S_OK, Define(name.c_str(), cases[i].stored));
        Bytes bytes = Stream(stream.c_str());
        bytes.push_back(0xEE);
        Replace(stream.c_str(), bytes);
        TraceCapture trace;
        EXPECT_EQ(cases[i].result, Write(name.c_str(), cases[i].written));
        EXPECT_EQ(FAILED(cases[i].result), trace.Contains("FbInstanceData::WriteParameter can't convert type\n"));
        EXPECT_EQ(cases[i].streamLeftAlone, Stream(stream.c_str()) == bytes);
        if (V_VT(&cases[i].after) != VT_ERROR)
            ExpectSame(cases[i].after, Read(name.c_str()));
    }
}

// A deleted parameter's stream is gone and a read does not bring it back;
// defined again, it comes back under its old stream.
TEST_F(ParameterAccess, DeletedParameterKeepsItsNameAndStream)
{
    ASSERT_EQ(S_OK, Define(L"b", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"a", _variant_t(2L)));
    ASSERT_EQ(S_OK, Store()->DeleteParameter(nullptr, m_id, _bstr_t(L"b")));
    Read(L"b", STG_E_FILENOTFOUND);
    EXPECT_EQ((Names{L"a", L"b"}), All(&IFbInstanceData::GetAllParameters));
    ASSERT_EQ(S_OK, Define(L"b", _variant_t(3L)));
    EXPECT_EQ(_variant_t(3L), Read(L"b"));
    EXPECT_TRUE(Stream(L"1/2").empty());
}

// Each flag operation changes its own flag; the flags are kept, not
// enforced. A flag already set commits nothing, so a failed write is not
// committed along; a flag that changes commits, and no failed write is pending.
TEST_F(ParameterAccess, Flags)
{
    ComPtr<ParameterDescription> parameter = new ParameterDescription(L"p", BstrValue(L"value"), _variant_t(7L));
    parameter->mandatory = 1;   // any nonzero VARIANT_BOOL is true
    ASSERT_EQ(S_OK, Define(parameter.Get()));
    ASSERT_EQ(S_OK, Define(L"q", _variant_t(2L)));
    const std::pair<FlagOperation, Flags> steps[] = {
        {&IFbInstanceData::LockParameter, {Y, N, Y, N}}, {&IFbInstanceData::LockParameter, {Y, N, Y, N}},
        {&IFbInstanceData::ProtectParameter, {Y, Y, Y, N}}, {&IFbInstanceData::UnlockParameter, {N, Y, Y, N}},
        {&IFbInstanceData::ReleaseParameter, {N, N, Y, N}}};
    for (const auto& step : steps)
    {
        ASSERT_EQ(DISP_E_TYPEMISMATCH, Define(L"q", NullValue()));
        ASSERT_EQ(S_OK, Flag(step.first, {L"p"}));
        Park();
        EXPECT_EQ(step.second, FlagsOf(L"p"));
        EXPECT_EQ(_variant_t(2L), Read(L"q"));
        EXPECT_EQ(S_OK, Write(L"p", BstrValue(L"changed")));
    }
    // A list that fails changes none of its names; the caller's array stays as it was, one-based bounds included.
    EXPECT_EQ(kNameUnknown, Flag(&IFbInstanceData::LockParameter, {L"p", L"missing", L"q"}));
    Park();
    EXPECT_EQ(N, FlagsOf(L"p")[0]);
    EXPECT_EQ(N, FlagsOf(L"q")[0]);
    Array names{MakeBstrArray({L"q", L"p"}, 1)};
    SAFEARRAY* const passed = names.p;
    ASSERT_EQ(S_OK, Store()->LockParameter(nullptr, m_id, &names.p));
    EXPECT_EQ(passed, names.p);
    EXPECT_EQ((Names{L"q", L"p"}), ReadBstrArray(names.p));
    EXPECT_EQ(Y, FlagsOf(L"q")[0]);
}

// ReadList starts its result at 0 and gives none on a failure; WriteList takes
// back what came before a failure and refuses fewer values than names at once.
// The caller's arrays stay as they were.
TEST_F(ParameterAccess, Lists)
{
    ASSERT_EQ(S_OK, Define(L"a", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"b", BstrValue(L"two")));
    ASSERT_EQ(S_OK, Define(L"c", _variant_t(3.0)));
    Array names{MakeBstrArray({L"b", L"a", L"c", L"b"}, 1)}, values, missing{MakeBstrArray({L"a", L"b", L"missing", L"c"})},
        none, abca{MakeBstrArray({L"a", L"b", L"c", L"a"}, 1)}, one{MakeValueArray({11L})};
    ASSERT_EQ(S_OK, Store()->ReadList(nullptr, m_id, &names.p, &values.p));
    LONG lower = -1;
    EXPECT_EQ((Values{BstrValue(L"two"), 1L, 3.0, BstrValue(L"two")}), ReadValueArray(values.p, &lower));
    EXPECT_EQ(0, lower);
    EXPECT_EQ((Names{L"b", L"a", L"c", L"b"}), ReadBstrArray(names.p));
    EXPECT_EQ(kNameUnknown, Store()->ReadList(nullptr, m_id, &missing.p, &none.p));
    EXPECT_EQ(nullptr, none.p);

    const Values written = {10L, 20L, BstrValue(L"not a number"), 40L};
    SafeArrayDestroy(values.p);
    values.p = MakeValueArray(written);
    EXPECT_EQ(E_FAIL, Store()->WriteList(nullptr, m_id, &abca.p, &values.p));
    Park();
    EXPECT_EQ((Values{1L, BstrValue(L"two"), 3.0}), (Values{Read(L"a"), Read(L"b"), Read(L"c")}));
    EXPECT_EQ((Names{L"a", L"b", L"c", L"a"}), ReadBstrArray(abca.p));
    EXPECT_EQ(written, ReadValueArray(values.p));
    EXPECT_EQ(E_INVALIDARG, Store()->WriteList(nullptr, m_id, &names.p, &one.p));
    EXPECT_EQ(_variant_t(1L), Read(L"a"));
}

// Arrays a caller may pass where the store reads names or values: none, a
// null one, one of two dimensions, one of another element kind. Each is
// refused and left to the caller; nothing is written.
TEST_F(ParameterAccess, CallerArraysOfTheWrongShape)
{
    ASSERT_EQ(S_OK, Define(L"a", _variant_t(1L)));
    SAFEARRAYBOUND square[2] = {{1, 0}, {1, 0}};
    Array twoDimensional{SafeArrayCreate(VT_BSTR, 2, square)}, twoDimensionalValues{SafeArrayCreate(VT_VARIANT, 2, square)},
        values{MakeValueArray({5L})}, names{MakeBstrArray({L"a"})}, null;
    // Each shape as names, and as values (a BSTR array is the other kind there).
    const std::tuple<const char*, SAFEARRAY**, SAFEARRAY**> arrays[] = {
        {"no pointer", nullptr, nullptr}, {"null array", &null.p, &null.p},
        {"two dimensions", &twoDimensional.p, &twoDimensionalValues.p}, {"other kind", &values.p, &names.p}};
    for (const auto& [what, list, valueList] : arrays)
    {
        SCOPED_TRACE(what);
        SAFEARRAY* const passed = list ? *list : nullptr;
        SAFEARRAY* out = nullptr;
        EXPECT_TRUE(FAILED(Store()->LockParameter(nullptr, m_id, list)));
        EXPECT_TRUE(FAILED(Store()->ReadList(nullptr, m_id, list, &out)));
        EXPECT_EQ(nullptr, out);
        EXPECT_TRUE(FAILED(Store()->WriteList(nullptr, m_id, list, &values.p)));
        EXPECT_TRUE(FAILED(Store()->WriteList(nullptr, m_id, &names.p, valueList)));
        EXPECT_TRUE(FAILED(Store()->DefineGroup(nullptr, m_id, _bstr_t(L"g"), 1, list)));
        EXPECT_TRUE(!list || passed == *list);
    }
    EXPECT_EQ(_variant_t(1L), Read(L"a"));
    EXPECT_EQ(N, FlagsOf(L"a")[0]);
    EXPECT_TRUE(All(&IFbInstanceData::GetAllGroups).empty());

    // An out-parameter that already holds an array gets the result in its place.
    Array out{MakeBstrArray({L"old", L"older"})};
    ASSERT_EQ(S_OK, Store()->GetAllParameters(nullptr, m_id, &out.p));
    EXPECT_EQ(Names{L"a"}, ReadBstrArray(out.p));
}
