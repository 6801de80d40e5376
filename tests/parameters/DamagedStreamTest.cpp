// Parameter streams damaged through the root storage: each gives its stated
// result and message, and nothing is allocated for counts the stream cannot
// back.
#include "ParameterFixture.h"

namespace
{
class DamagedStreams : public StoreFixture
{
protected:
    void SetUp() override
    {
        StoreFixture::SetUp();
        ASSERT_EQ(S_OK, Define(L"p", _variant_t(5L)));
        Park();
    }
    // A stream of p: header and flags, then the rest as given.
    static ByteBuilder Record(DWORD version = 1, DWORD kind = 2, const wchar_t* name = L"p")
    {
        ByteBuilder record;
        record.Header(name, kind, version).U32(0).U32(0).U32(0).U32(0);
        return record;
    }
    // Reads p from stream bytes, expecting result and one trace message.
    void ExpectRead(const Bytes& bytes, HRESULT expected, const char* message)
    {
        PutStreamBytes(L"0", bytes);
        TraceCapture trace;
        _variant_t value;
        EXPECT_EQ(expected, Store()->ReadParameter(nullptr, m_id, _bstr_t(L"p"), &value));
        if (message)
        {
            EXPECT_TRUE(trace.Contains(message)) << trace.Text();
        }
        ComPtr<IFdtParameter> info;
        EXPECT_TRUE(FAILED(Store()->ReadParameterInfo(nullptr, m_id, _bstr_t(L"p"), info.GetAddressOf())));
        EXPECT_FALSE(info);
        Park();
    }
};
}  // namespace

TEST_F(DamagedStreams, HeaderFaults)
{
    ExpectRead(Record(2).bytes, E_FAIL, "FbInstanceData::ReadPara invalid version\n");
    ExpectRead(Record(1, 1).bytes, 0x80043006, "FbInstanceData::ReadPara stream isn't a group\n");
    ExpectRead(Record(1, 2, L"q").U16(VT_I4).U32(5).bytes, E_FAIL, ": internal error 0xaa: ");
    ExpectRead(Record(1, 2, nullptr).U16(VT_I4).U32(5).bytes, E_FAIL, ": internal error 0xaa: ");
    ExpectRead(ByteBuilder().U32(1).U32(2).U32(0x7FFFFFF0).bytes, E_FAIL, ": error 0x80004005: ");
    ExpectRead(ByteBuilder().U32(1).U32(2).Str(L"p").U32(1).bytes, E_FAIL, ": error 0x80004005: ");
    ExpectRead(Bytes(), E_FAIL, ": error 0x80004005: ");
}

TEST_F(DamagedStreams, ValueFaults)
{
    const char* valueFailed = "FbInstanceData::ReadPara() ReadFromStream(value) failed\n";
    ExpectRead(Record().bytes, E_FAIL, valueFailed);
    ExpectRead(Record().U16(VT_I4).U16(5).bytes, E_FAIL, valueFailed);
    ExpectRead(Record().U16(VT_BSTR).U32(0xFFFFFFFE).bytes, E_FAIL, valueFailed);
    ExpectRead(Record().U16(VT_BSTR).U32(7).Str(L"abc").bytes, E_FAIL, valueFailed);
    ExpectRead(Record().U16(VT_I8).Str(L"abc").bytes, DISP_E_TYPEMISMATCH, valueFailed);
    ExpectRead(Record().U16(VT_I4).U32(5).U16(VT_BSTR).U32(0x40000000).bytes, S_OK, nullptr);

    // A whole record whose default value or last field is cut off.
    PutStreamBytes(L"0", Record().U16(VT_I4).U32(5).U16(VT_BSTR).U32(0x40000000).bytes);
    TraceCapture trace;
    EXPECT_EQ(E_FAIL, Write(L"p", _variant_t(6L)));
    EXPECT_EQ(1u, trace.Count("FbInstanceData::ReadPara() ReadFromStream(default value) failed\n"));
    Park();
    PutStreamBytes(L"0", Record().U16(VT_I4).U32(5).U16(VT_EMPTY).Str(L"").U32(1).U32(2).U32(3).bytes);
    trace.Clear();
    EXPECT_EQ(E_FAIL, Write(L"p", _variant_t(6L)));
    EXPECT_TRUE(trace.Contains("InstanceData/FbInstanceDataParameters(")) << trace.Text();
    Park();
    EXPECT_EQ(_variant_t(5L), Read(L"p"));
    Park();

    // An object that cannot be made again reads as no object, and the
    // fields after it are read from where the load stopped.
    const GUID unknown = {0x0badc0de, 0x1, 0x2, {3, 4, 5, 6, 7, 8, 9, 10}};
    PutStreamBytes(L"0", Record().U16(VT_UNKNOWN).Raw(&unknown, sizeof unknown).U16(VT_I4).U32(5).U32(0).U32(0).U32(0).U32(0).bytes);
    const _variant_t object = Read(L"p");
    EXPECT_EQ(VT_UNKNOWN, V_VT(&object));
    EXPECT_EQ(nullptr, V_UNKNOWN(&object));
    ComPtr<IFdtParameter> info = Info(L"p");
    ASSERT_TRUE(info);
    _variant_t defaultValue;
    EXPECT_EQ(S_OK, info->get_m_defaultValue(&defaultValue));
    EXPECT_EQ(_variant_t(5L), defaultValue);
}

TEST_F(DamagedStreams, NameOfTheOtherKind)
{
    SAFEARRAY* members = MakeBstrArray({L"p"});
    ASSERT_EQ(S_OK, Store()->DefineGroup(nullptr, m_id, _bstr_t(L"g"), 1, &members));
    SafeArrayDestroy(members);
    TraceCapture trace;
    Read(L"g", E_FAIL);
    EXPECT_EQ(E_FAIL, Write(L"g", _variant_t(1L)));
    EXPECT_EQ(E_FAIL, Store()->DeleteParameter(nullptr, m_id, _bstr_t(L"g")));
    EXPECT_EQ(E_FAIL, Define(L"g", _variant_t(1L)));
    EXPECT_TRUE(trace.Contains(": error 0x80004005: ")) << trace.Text();
}
