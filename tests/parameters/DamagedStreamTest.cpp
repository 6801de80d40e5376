// Parameter streams damaged through the root storage: each gives its stated
// result and message, never a crash, a hang or an allocation for a count the
// stream cannot back.
#include "ParameterFixture.h"

namespace
{
const HRESULT kNotParameterStream = static_cast<HRESULT>(0x80043006);

using DamagedStreams = StoreFixture;

// A stream of p: header and flags, then the rest as given.
ByteBuilder Record(DWORD version = 1, DWORD kind = 2, const wchar_t* name = L"p")
{
    return ByteBuilder().Header(name, kind, version).U32(0).U32(0).U32(0).U32(0);
}
}  // namespace

TEST_F(DamagedStreams, EachGivesItsErrorAndMessage)
{
    const char* valueFailed = "FbInstanceData::ReadPara() ReadFromStream(value) failed\n";
    const struct
    {
        Bytes bytes;
        HRESULT result;
        const char* message;
    } cases[] = {
        {Record(2).bytes, E_FAIL, "FbInstanceData::ReadPara invalid version\n"},
        {Record(1, 1).bytes, kNotParameterStream, "FbInstanceData::ReadPara stream isn't a group\n"},
        {Record(1, 2, L"q").U16(VT_I4).U32(5).bytes, E_FAIL, ": internal error 0xaa: "},
        {Record(1, 2, nullptr).U16(VT_I4).U32(5).bytes, E_FAIL, ": internal error 0xaa: "},
        {ByteBuilder().U32(1).U32(2).U32(0x7FFFFFF0).bytes, E_FAIL, ": error 0x80004005: "},
        {ByteBuilder().U32(1).U32(2).Str(L"p").U32(1).bytes, E_FAIL, ": error 0x80004005: "},
        {Bytes(), E_FAIL, ": error 0x80004005: "},
        {Record().bytes, E_FAIL, valueFailed},
        {Record().U16(VT_I4).U16(5).bytes, E_FAIL, valueFailed},
        {Record().U16(VT_BSTR).U32(0xFFFFFFFE).bytes, E_FAIL, valueFailed},
        {Record().U16(VT_BSTR).U32(7).Str(L"abc").bytes, E_FAIL, valueFailed},
        {Record().U16(VT_I8).Str(L"abc").bytes, DISP_E_TYPEMISMATCH, valueFailed},
        // The value alone still reads; the whole record does not.
        {Record().U16(VT_I4).U32(5).U16(VT_BSTR).U32(0x40000000).bytes, S_OK,
         "FbInstanceData::ReadPara() ReadFromStream(default value) failed\n"},
        {Record().U16(VT_I4).U32(5).U16(VT_EMPTY).Str(L"").U32(1).U32(2).U32(3).bytes, S_OK,
         "InstanceData/FbInstanceDataParameters("},
    };
    ASSERT_EQ(S_OK, Define(L"p", _variant_t(5L)));
    Park();
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
    {
        SCOPED_TRACE(i);
        PutStreamBytes(L"0", cases[i].bytes);
        TraceCapture trace;
        Read(L"p", cases[i].result);
        ComPtr<IFdtParameter> info;
        EXPECT_TRUE(FAILED(Store()->ReadParameterInfo(nullptr, m_id, _bstr_t(L"p"), info.GetAddressOf())));
        EXPECT_FALSE(info);
        EXPECT_TRUE(trace.Contains(cases[i].message)) << trace.Text();
        Park();
    }
}
