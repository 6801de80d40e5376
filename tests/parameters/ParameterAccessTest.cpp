// Single parameters: reading and writing values and descriptions, the
// conversion to the stored VARTYPE, what an equal value leaves alone,
// deletion, the name list, and the locked and protected flags.
#include "ParameterFixture.h"
#include <limits>

namespace
{
class ParameterAccess : public StoreFixture
{
protected:
    // Trailing bytes after the record: a whole rewrite removes them, so
    // they show whether a stream was written and committed.
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
    HRESULT Flag(HRESULT (STDMETHODCALLTYPE IFbInstanceData::*operation)(IFdtContext*, BSTR, SAFEARRAY**),
                 const std::vector<std::wstring>& names)
    {
        SAFEARRAY* list = MakeBstrArray(names);
        const HRESULT hr = (Store()->*operation)(nullptr, m_id, &list);
        SafeArrayDestroy(list);
        return hr;
    }
    VARIANT_BOOL Attribute(const wchar_t* name, HRESULT (STDMETHODCALLTYPE IFdtParameter::*getter)(VARIANT_BOOL*))
    {
        VARIANT_BOOL flag = 7;
        ComPtr<IFdtParameter> info = Info(name);
        EXPECT_TRUE(info);
        if (info)
        {
            EXPECT_EQ(S_OK, (info.Get()->*getter)(&flag));
        }
        return flag;
    }
};
}  // namespace

TEST_F(ParameterAccess, DescriptionComesBackAsWritten)
{
    ComPtr<TestParameter> written = TestParameter::Make(L"level", _variant_t(2.5), BstrValue(L"none"));
    written->index = -3;
    written->dataType = 0xFF;
    written->size = 1 << 20;
    written->objectType = -9;
    written->mandatory = 1;      // any nonzero VARIANT_BOOL is true
    written->isProtected = VARIANT_TRUE;
    ASSERT_EQ(S_OK, Define(written.Get()));

    ComPtr<IFdtParameter> info = Info(L"level");
    ASSERT_TRUE(info);
    BSTR name = nullptr;
    LONG index = 0, size = 0, objectType = 0;
    BYTE dataType = 0;
    EXPECT_EQ(S_OK, info->get_m_name(&name));
    EXPECT_STREQ(L"level", name);
    SysFreeString(name);
    EXPECT_EQ(S_OK, info->get_m_index(&index));
    EXPECT_EQ(S_OK, info->get_m_dataType(&dataType));
    EXPECT_EQ(S_OK, info->get_m_size(&size));
    EXPECT_EQ(S_OK, info->get_m_objectType(&objectType));
    EXPECT_EQ(-3, index);
    EXPECT_EQ(0xFF, dataType);
    EXPECT_EQ(1 << 20, size);
    EXPECT_EQ(-9, objectType);
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"level", &IFdtParameter::get_m_mandatory));
    EXPECT_EQ(VARIANT_FALSE, Attribute(L"level", &IFdtParameter::get_m_private));
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"level", &IFdtParameter::get_m_protected));
    EXPECT_EQ(VARIANT_FALSE, Attribute(L"level", &IFdtParameter::get_m_locked));
    EXPECT_EQ(_variant_t(2.5), Read(L"level"));

    // A known name has its whole record replaced, flags included.
    written->isProtected = VARIANT_FALSE;
    written->value = 4L;
    ASSERT_EQ(S_OK, Define(written.Get()));
    EXPECT_EQ(VARIANT_FALSE, Attribute(L"level", &IFdtParameter::get_m_protected));
    EXPECT_EQ(_variant_t(4L), Read(L"level"));
}

TEST_F(ParameterAccess, ArgumentsAndUnknownNames)
{
    TraceCapture trace;
    EXPECT_EQ(E_POINTER, Store()->ReadParameter(nullptr, m_id, _bstr_t(L"p"), nullptr));
    EXPECT_EQ(E_POINTER, Store()->ReadParameterInfo(nullptr, m_id, _bstr_t(L"p"), nullptr));
    EXPECT_EQ(E_POINTER, Store()->WriteParameterInfo(nullptr, m_id, nullptr));
    EXPECT_EQ(E_POINTER, Store()->GetAllParameters(nullptr, m_id, nullptr));
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();

    // Only a description brings a parameter into being.
    EXPECT_EQ(static_cast<HRESULT>(0x80043008), Write(L"p", _variant_t(1L)));
    Read(L"p", 0x80043008);
    EXPECT_EQ(static_cast<HRESULT>(0x80043008), Store()->DeleteParameter(nullptr, m_id, _bstr_t(L"p")));
    EXPECT_TRUE(trace.Contains(": error 0x80043008: ")) << trace.Text();
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(S_OK, Store()->GetAllParameters(nullptr, m_id, &names));
    EXPECT_TRUE(ReadBstrArray(names).empty());
    LONG lower = -1;
    SafeArrayGetLBound(names, 1, &lower);
    EXPECT_EQ(0, lower);
    SafeArrayDestroy(names);
    Park();
    EXPECT_EQ(ByteBuilder().U32(1).U32(0).U32(0).bytes, StreamBytes(L"map"));
}

TEST_F(ParameterAccess, FailingDescriptionLeavesTheStreamAlone)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    ComPtr<TestParameter> broken = TestParameter::Make(L"p", _variant_t(2L));
    broken->failingProperty = "private";
    TraceCapture trace;
    EXPECT_EQ(E_ACCESSDENIED, Define(broken.Get()));
    EXPECT_TRUE(trace.Contains("InstanceData/FbInstanceDataParameters(")) << trace.Text();
    EXPECT_EQ(_variant_t(1L), Read(L"p"));
}

TEST_F(ParameterAccess, ValueTakesTheStoredType)
{
    ASSERT_EQ(S_OK, Define(L"count", _variant_t(0L)));
    EXPECT_EQ(S_OK, Write(L"count", BstrValue(L"12")));
    const _variant_t twelve = Read(L"count");
    EXPECT_EQ(VT_I4, V_VT(&twelve));
    EXPECT_EQ(12, V_I4(&twelve));

    TraceCapture trace;
    EXPECT_EQ(E_FAIL, Write(L"count", BstrValue(L"abc")));
    ASSERT_EQ(1u, trace.Count("FbInstanceData::WriteParameter can't convert type\n"));
    EXPECT_EQ(0xFFFFFFFFu, trace.Levels()[0]);
    EXPECT_EQ(_variant_t(12L), Read(L"count"));

    // The same VARTYPE is taken as it is.
    ASSERT_EQ(S_OK, Define(L"text", BstrValue(L"old")));
    EXPECT_EQ(S_OK, Write(L"text", BstrValue(L"new")));
    const _variant_t changed = Read(L"text");
    EXPECT_STREQ(L"new", V_BSTR(&changed));
}

TEST_F(ParameterAccess, EqualValueIsNeitherWrittenNorCommitted)
{
    ASSERT_EQ(S_OK, Define(L"count", _variant_t(5L)));
    AppendTrailer(L"0");
    EXPECT_EQ(S_OK, Write(L"count", _variant_t(5L)));
    EXPECT_TRUE(HasTrailer(L"0"));
    EXPECT_EQ(S_OK, Write(L"count", _variant_t(6L)));
    EXPECT_FALSE(HasTrailer(L"0"));

    // An empty string equals a stored null one: the null stays.
    ASSERT_EQ(S_OK, Define(L"text", BstrValue(nullptr)));
    AppendTrailer(L"1");
    EXPECT_EQ(S_OK, Write(L"text", BstrValue(L"")));
    EXPECT_TRUE(HasTrailer(L"1"));
    const _variant_t null = Read(L"text");
    EXPECT_EQ(VT_BSTR, V_VT(&null));
    EXPECT_EQ(nullptr, V_BSTR(&null));

    // A date is always written again, even when equal.
    _variant_t date(45000.5);
    V_VT(&date) = VT_DATE;
    ASSERT_EQ(S_OK, Define(L"date", date));
    AppendTrailer(L"2");
    EXPECT_EQ(S_OK, Write(L"date", date));
    EXPECT_FALSE(HasTrailer(L"2"));

    // A NaN never equals: it is written every time.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    ASSERT_EQ(S_OK, Define(L"nan", _variant_t(nan)));
    AppendTrailer(L"3");
    EXPECT_EQ(S_OK, Write(L"nan", _variant_t(nan)));
    EXPECT_FALSE(HasTrailer(L"3"));
}

TEST_F(ParameterAccess, DeletedParameterKeepsItsNameAndStream)
{
    ASSERT_EQ(S_OK, Define(L"b", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"a", _variant_t(2L)));
    ASSERT_EQ(S_OK, Store()->DeleteParameter(nullptr, m_id, _bstr_t(L"b")));
    Read(L"b", E_FAIL);
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(S_OK, Store()->GetAllParameters(nullptr, m_id, &names));
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"b"}), ReadBstrArray(names));
    SafeArrayDestroy(names);

    // Defined again, it comes back under its old stream.
    ASSERT_EQ(S_OK, Define(L"b", _variant_t(3L)));
    Park();
    const Bytes header = ByteBuilder().Header(L"b").bytes;
    const Bytes stream = StreamBytes(L"0");
    ASSERT_GT(stream.size(), header.size());
    EXPECT_EQ(header, Bytes(stream.begin(), stream.begin() + header.size()));
    EXPECT_EQ(_variant_t(3L), Read(L"b"));
}

TEST_F(ParameterAccess, LockRewritesTheHeaderOnly)
{
    ComPtr<TestParameter> parameter = TestParameter::Make(L"p", BstrValue(L"value"), _variant_t(7L));
    parameter->index = 1;
    parameter->dataType = 2;
    parameter->size = 3;
    parameter->objectType = 4;
    parameter->mandatory = VARIANT_TRUE;
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

    EXPECT_EQ(VARIANT_TRUE, Attribute(L"p", &IFdtParameter::get_m_locked));
    EXPECT_EQ(VARIANT_FALSE, Attribute(L"p", &IFdtParameter::get_m_protected));
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"p", &IFdtParameter::get_m_mandatory));
    // The flags are kept, not enforced.
    EXPECT_EQ(S_OK, Write(L"p", BstrValue(L"changed")));
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"p", &IFdtParameter::get_m_locked));

    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::ProtectParameter, {L"p"}));
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"p", &IFdtParameter::get_m_protected));
    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::UnlockParameter, {L"p"}));
    EXPECT_EQ(VARIANT_FALSE, Attribute(L"p", &IFdtParameter::get_m_locked));
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"p", &IFdtParameter::get_m_protected));
    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::ReleaseParameter, {L"p"}));
    EXPECT_EQ(VARIANT_FALSE, Attribute(L"p", &IFdtParameter::get_m_protected));
}

TEST_F(ParameterAccess, FlagAlreadySetCommitsNothing)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"q", _variant_t(2L)));
    ASSERT_EQ(S_OK, Flag(&IFbInstanceData::LockParameter, {L"p"}));
    // A write that fails after emptying q's stream leaves that uncommitted.
    _variant_t null;
    V_VT(&null) = VT_NULL;
    ASSERT_EQ(DISP_E_TYPEMISMATCH, Define(L"q", null));
    EXPECT_EQ(S_OK, Flag(&IFbInstanceData::LockParameter, {L"p"}));
    EXPECT_EQ(S_OK, Flag(&IFbInstanceData::ReleaseParameter, {L"p"}));
    Park();
    EXPECT_EQ(_variant_t(2L), Read(L"q"));

    // A flag that changes commits, and takes the pending change along.
    ASSERT_EQ(DISP_E_TYPEMISMATCH, Define(L"q", null));
    EXPECT_EQ(S_OK, Flag(&IFbInstanceData::UnlockParameter, {L"p"}));
    Park();
    Read(L"q", E_FAIL);
}

TEST_F(ParameterAccess, FlagListsStopAtTheFirstFailure)
{
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(1L)));
    ASSERT_EQ(S_OK, Define(L"q", _variant_t(1L)));
    EXPECT_EQ(static_cast<HRESULT>(0x80043008), Flag(&IFbInstanceData::LockParameter, {L"p", L"missing", L"q"}));
    Park();
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"p", &IFdtParameter::get_m_locked));
    EXPECT_EQ(VARIANT_FALSE, Attribute(L"q", &IFdtParameter::get_m_locked));

    EXPECT_EQ(E_POINTER, Store()->LockParameter(nullptr, m_id, nullptr));
    SAFEARRAY* none = nullptr;
    EXPECT_EQ(E_OUTOFMEMORY, Store()->LockParameter(nullptr, m_id, &none));
    SAFEARRAYBOUND bounds[2] = {{1, 0}, {1, 0}};
    SAFEARRAY* square = SafeArrayCreate(VT_BSTR, 2, bounds);
    EXPECT_EQ(E_UNEXPECTED, Store()->ProtectParameter(nullptr, m_id, &square));
    SafeArrayDestroy(square);

    // The caller's array stays as it was, one-based bounds included.
    SAFEARRAY* names = MakeBstrArray({L"q", L"p"}, 1);
    SAFEARRAY* passed = names;
    ASSERT_EQ(S_OK, Store()->LockParameter(nullptr, m_id, &names));
    EXPECT_EQ(passed, names);
    EXPECT_EQ((std::vector<std::wstring>{L"q", L"p"}), ReadBstrArray(names));
    EXPECT_EQ(S_OK, SafeArrayDestroy(names));
    EXPECT_EQ(VARIANT_TRUE, Attribute(L"q", &IFdtParameter::get_m_locked));
}

TEST_F(ParameterAccess, LateBoundThroughDispatch)
{
    ASSERT_EQ(S_OK, Define(L"count", _variant_t(1L)));
    // WriteParameter is dispatch member 20, ReadParameter 19; arguments go in reverse.
    VARIANT arguments[4];
    V_VT(&arguments[0]) = VT_I2;
    V_I2(&arguments[0]) = 33;
    arguments[1] = BstrValue(L"count").Detach();
    arguments[2] = _variant_t(m_id).Detach();
    V_VT(&arguments[3]) = VT_UNKNOWN;
    V_UNKNOWN(&arguments[3]) = nullptr;
    DISPPARAMS call = {arguments, nullptr, 4, 0};
    ASSERT_EQ(S_OK, Store()->Invoke(20, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &call, nullptr, nullptr, nullptr));
    call.rgvarg = arguments + 1;
    call.cArgs = 3;
    _variant_t result;
    ASSERT_EQ(S_OK, Store()->Invoke(19, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &call, &result, nullptr, nullptr));
    EXPECT_EQ(VT_I4, V_VT(&result));
    EXPECT_EQ(33, V_I4(&result));
    VariantClear(&arguments[1]);
    VariantClear(&arguments[2]);
}
