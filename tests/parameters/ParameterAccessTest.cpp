// Single parameters and lists: the conversion to the stored VARTYPE, what an
// equal value leaves alone, deletion, the locked and protected flags, and
// lists of values.
#include "ParameterFixture.h"
#include <limits>

namespace
{
const HRESULT kNameUnknown = static_cast<HRESULT>(0x80043008);
const VARIANT_BOOL Y = VARIANT_TRUE, N = VARIANT_FALSE;
typedef std::vector<VARIANT_BOOL> Flags;
typedef HRESULT (STDMETHODCALLTYPE IFbInstanceData::*FlagOperation)(IFdtContext*, BSTR, SAFEARRAY**);

class ParameterAccess : public StoreFixture
{
protected:
    // A trailing byte after the record: a whole rewrite removes it, so it
    // shows whether a stream was written and committed.
    void AppendTrailer(const wchar_t* stream)
    {
        Park();
        Bytes bytes = StreamBytes(stream);
        bytes.push_back(0xEE);
        PutStreamBytes(stream, bytes);
    }
    bool HasTrailer(const wchar_t* stream)
    {
        Park();
        const Bytes bytes = StreamBytes(stream);
        return !bytes.empty() && bytes.back() == 0xEE;
    }
    HRESULT Flag(FlagOperation operation, const Names& names)
    {
        SAFEARRAY* list = MakeBstrArray(names);
        const HRESULT hr = (Store()->*operation)(nullptr, m_id, &list);
        SafeArrayDestroy(list);
        return hr;
    }
    // Locked, protected, mandatory and private, in the stream's order.
    Flags FlagsOf(const wchar_t* name)
    {
        Flags flags(4, 7);
        ComPtr<IFdtParameter> info = Info(name);
        if (info)
        {
            EXPECT_EQ(S_OK, info->get_m_locked(&flags[0]));
            EXPECT_EQ(S_OK, info->get_m_protected(&flags[1]));
            EXPECT_EQ(S_OK, info->get_m_mandatory(&flags[2]));
            EXPECT_EQ(S_OK, info->get_m_private(&flags[3]));
        }
        return flags;
    }
};

using ParameterLists = ParameterAccess;
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
    ComPtr<TestParameter> broken = TestParameter::Make(L"p", _variant_t(2L));
    broken->failingProperty = "private";
    EXPECT_EQ(E_ACCESSDENIED, Define(broken.Get()));
    EXPECT_EQ(_variant_t(1L), Read(L"p"));
}

TEST_F(ParameterAccess, ValueTakesTheStoredType)
{
    ASSERT_EQ(S_OK, Define(L"count", _variant_t(0L)));
    EXPECT_EQ(S_OK, Write(L"count", BstrValue(L"12")));
    EXPECT_EQ(_variant_t(12L), Read(L"count"));

    TraceCapture trace;
    EXPECT_EQ(E_FAIL, Write(L"count", BstrValue(L"abc")));
    ASSERT_EQ(1u, trace.Count("FbInstanceData::WriteParameter can't convert type\n"));
    EXPECT_EQ(0xFFFFFFFFu, trace.Levels()[0]);
    EXPECT_EQ(_variant_t(12L), Read(L"count"));
}

TEST_F(ParameterAccess, EqualValueIsNeitherWrittenNorCommitted)
{
    _variant_t date(45000.5);
    V_VT(&date) = VT_DATE;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const struct
    {
        _variant_t stored, written;
        bool streamLeftAlone;
    } cases[] = {
        {_variant_t(5L), _variant_t(5L), true},
        {_variant_t(5L), _variant_t(6L), false},
        {BstrValue(nullptr), BstrValue(L""), true},  // an empty string equals a stored null one
        {date, date, false},                         // a date is written again even when equal
        {_variant_t(nan), _variant_t(nan), false},   // a NaN never equals
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
    {
        SCOPED_TRACE(i);
        const std::wstring name = L"p" + std::to_wstring(i), stream = std::to_wstring(i);
        ASSERT_EQ(S_OK, Define(name.c_str(), cases[i].stored));
        AppendTrailer(stream.c_str());
        EXPECT_EQ(S_OK, Write(name.c_str(), cases[i].written));
        EXPECT_EQ(cases[i].streamLeftAlone, HasTrailer(stream.c_str()));
    }
    const _variant_t null = Read(L"p2");
    EXPECT_TRUE(V_VT(&null) == VT_BSTR && !V_BSTR(&null));
}

TEST_F(ParameterAccess, DeletedParameterKeepsItsNameAndStream)
{
    ASSERT_EQ(S_OK, Define(L"b", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"a", _variant_t(2L)));
    ASSERT_EQ(S_OK, Store()->DeleteParameter(nullptr, m_id, _bstr_t(L"b")));
    // Its stream is gone, and a read does not bring it back.
    Read(L"b", STG_E_FILENOTFOUND);
    EXPECT_EQ((Names{L"a", L"b"}), All(&IFbInstanceData::GetAllParameters));

    // Defined again, it comes back under its old stream.
    ASSERT_EQ(S_OK, Define(L"b", _variant_t(3L)));
    EXPECT_EQ(_variant_t(3L), Read(L"b"));
    Park();
    EXPECT_TRUE(StreamBytes(L"2").empty());
}

TEST_F(ParameterAccess, LockRewritesTheHeaderOnly)
{
    ComPtr<TestParameter> parameter = TestParameter::Make(L"p", BstrValue(L"value"), _variant_t(7L));
    parameter->index = 1, parameter->dataType = 2, parameter->size = 3, parameter->objectType = 4;
    parameter->mandatory = 1;  // any nonzero VARIANT_BOOL is true
    ASSERT_EQ(S_OK, Define(parameter.Get()));
    AppendTrailer(L"0");
    const Bytes before = StreamBytes(L"0");

    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::LockParameter, {L"p"}));
    Park();
    Bytes after = StreamBytes(L"0");
    const size_t lockedAt = ByteBuilder().Header(L"p").bytes.size();
    ASSERT_EQ(before.size(), after.size());
    EXPECT_EQ(1, after[lockedAt]);
    after[lockedAt] = 0;
    EXPECT_EQ(before, after);
    EXPECT_EQ((Flags{Y, N, Y, N}), FlagsOf(L"p"));

    // The flags are kept, not enforced, and each changes on its own.
    EXPECT_EQ(S_OK, Write(L"p", BstrValue(L"changed")));
    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::ProtectParameter, {L"p"}));
    EXPECT_EQ((Flags{Y, Y, Y, N}), FlagsOf(L"p"));
    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::UnlockParameter, {L"p"}));
    EXPECT_EQ((Flags{N, Y, Y, N}), FlagsOf(L"p"));
    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::ReleaseParameter, {L"p"}));
    EXPECT_EQ((Flags{N, N, Y, N}), FlagsOf(L"p"));
}

TEST_F(ParameterAccess, FlagAlreadySetCommitsNothing)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"q", _variant_t(2L)));
    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::LockParameter, {L"p"}));
    // A write that fails leaves q's stream as it was.
    _variant_t null;
    V_VT(&null) = VT_NULL;
    ASSERT_EQ(DISP_E_TYPEMISMATCH, Define(L"q", null));
    EXPECT_EQ(S_OK, Flag(&IFbInstanceData::LockParameter, {L"p"}));
    EXPECT_EQ(S_OK, Flag(&IFbInstanceData::ReleaseParameter, {L"p"}));
    Park();
    EXPECT_EQ(_variant_t(2L), Read(L"q"));

    // A flag that changes commits, and no failed write is pending to go along.
    ASSERT_EQ(DISP_E_TYPEMISMATCH, Define(L"q", null));
    EXPECT_EQ(S_OK, Flag(&IFbInstanceData::UnlockParameter, {L"p"}));
    Park();
    EXPECT_EQ(_variant_t(2L), Read(L"q"));
}

TEST_F(ParameterAccess, FlagListsStopAtTheFirstFailure)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"q", _variant_t(1L)));
    EXPECT_EQ(kNameUnknown, Flag(&IFbInstanceData::LockParameter, {L"p", L"missing", L"q"}));
    Park();
    EXPECT_EQ(Y, FlagsOf(L"p")[0]);
    EXPECT_EQ(N, FlagsOf(L"q")[0]);
    EXPECT_EQ(E_POINTER, Store()->LockParameter(nullptr, m_id, nullptr));

    // The caller's array stays as it was, one-based bounds included.
    SAFEARRAY* names = MakeBstrArray({L"q", L"p"}, 1);
    SAFEARRAY* passed = names;
    ASSERT_EQ(S_OK, Store()->LockParameter(nullptr, m_id, &names));
    EXPECT_EQ(passed, names);
    EXPECT_EQ((Names{L"q", L"p"}), ReadBstrArray(names));
    EXPECT_EQ(S_OK, SafeArrayDestroy(names));
    EXPECT_EQ(Y, FlagsOf(L"q")[0]);
}

TEST_F(ParameterLists, ReadListStartsItsResultAtZero)
{
    ASSERT_EQ(S_OK, Define(L"a", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"b", BstrValue(L"two")));
    ASSERT_EQ(S_OK, Define(L"c", _variant_t(3.0)));
    SAFEARRAY* names = MakeBstrArray({L"b", L"a", L"c", L"b"}, 1);
    SAFEARRAY* values = nullptr;
    ASSERT_EQ(S_OK, Store()->ReadList(nullptr, m_id, &names, &values));
    LONG lower = -1;
    EXPECT_EQ((Values{BstrValue(L"two"), _variant_t(1L), _variant_t(3.0), BstrValue(L"two")}),
              ReadValueArray(values, &lower));
    EXPECT_EQ(0, lower);
    EXPECT_EQ((Names{L"b", L"a", L"c", L"b"}), ReadBstrArray(names));
    EXPECT_EQ(S_OK, SafeArrayDestroy(values));
    EXPECT_EQ(S_OK, SafeArrayDestroy(names));

    // A failure at the third name gives no array; names must be strings.
    names = MakeBstrArray({L"a", L"b", L"missing", L"c"});
    values = nullptr;
    EXPECT_EQ(kNameUnknown, Store()->ReadList(nullptr, m_id, &names, &values));
    EXPECT_EQ(nullptr, values);
    SAFEARRAY* wrongKind = MakeValueArray({BstrValue(L"a")});
    EXPECT_EQ(E_UNEXPECTED, Store()->ReadList(nullptr, m_id, &wrongKind, &values));
    EXPECT_EQ(nullptr, values);
    SafeArrayDestroy(wrongKind);
    SafeArrayDestroy(names);
}

TEST_F(ParameterLists, WriteListKeepsWhatCameBeforeAFailure)
{
    ASSERT_EQ(S_OK, Define(L"a", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"b", BstrValue(L"two")));
    ASSERT_EQ(S_OK, Define(L"c", _variant_t(3.0)));
    const Values written = {_variant_t(10L), _variant_t(20L), BstrValue(L"not a number"), _variant_t(40L)};
    SAFEARRAY* names = MakeBstrArray({L"a", L"b", L"c", L"a"}, 1);
    SAFEARRAY* values = MakeValueArray(written);
    EXPECT_EQ(E_FAIL, Store()->WriteList(nullptr, m_id, &names, &values));
    Park();
    EXPECT_EQ(_variant_t(10L), Read(L"a"));
    EXPECT_EQ(BstrValue(L"20"), Read(L"b"));
    EXPECT_EQ(_variant_t(3.0), Read(L"c"));
    EXPECT_EQ((Names{L"a", L"b", L"c", L"a"}), ReadBstrArray(names));
    EXPECT_EQ(written, ReadValueArray(values));

    // Fewer values than names is refused before anything is written.
    SAFEARRAY* two = MakeBstrArray({L"a", L"b"});
    SAFEARRAY* one = MakeValueArray({_variant_t(11L)});
    EXPECT_EQ(E_INVALIDARG, Store()->WriteList(nullptr, m_id, &two, &one));
    EXPECT_EQ(_variant_t(10L), Read(L"a"));
    EXPECT_EQ(E_UNEXPECTED, Store()->WriteList(nullptr, m_id, &one, &one));
    for (SAFEARRAY* array : {names, values, two, one})
        EXPECT_EQ(S_OK, SafeArrayDestroy(array));
}
