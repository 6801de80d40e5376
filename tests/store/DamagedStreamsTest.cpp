// Each stream of an instance damaged through the root, one damage at a time:
// the reader gives its stated result and traces its own message, and a read
// that fails writes nothing. (Damage of every kind in bulk, and what it must
// leave intact: the data safety campaign.)
#include "TestSupport.h"

namespace
{
enum Reader { kParameter, kGroup, kGroupId, kLock, kReferences, kIdentification };

class DamagedStreams : public StoreSession
{
protected:
    HRESULT Run(Reader reader)
    {
        const _bstr_t p(L"p"), g(L"g");
        _variant_t value;
        ComPtr<IFdtParameter> info;
        ComPtr<IFdtDescriptor> descriptor;
        Array list;
        BYTE id = 0;
        switch (reader)
        {
        case kParameter:   // the whole record fails where the value alone may still read
            EXPECT_TRUE(FAILED(Store()->ReadParameterInfo(nullptr, m_id, p, &info)));
            EXPECT_FALSE(info);
            return Store()->ReadParameter(nullptr, m_id, p, &value);
        case kGroup: return Store()->GetGroup(nullptr, m_id, g, &list.p);
        case kGroupId: return Store()->GetGroupInfo(nullptr, m_id, g, &id);
        case kLock: return Store()->LockInstance(nullptr, m_id);
        case kReferences: return Store()->GetSubInstanceData(nullptr, m_id, &list.p);
        default: return Store()->ReadIdentification(nullptr, m_id, &descriptor);
        }
    }
};

// A stream of parameter p: header and flags, then the rest as given.
ByteBuilder Record(DWORD version = 1, DWORD kind = 2, const wchar_t* name = L"p")
{
    return ByteBuilder().Header(name, kind, version).U32(0).U32(0).U32(0).U32(0);
}

// An "instance" stream: lock count 1, super "3" by "Q", then subs of which one ("2" by "P") follows.
Bytes References(DWORD subs)
{
    return ByteBuilder().U32(1).U32(1).Str(L"3").Str(L"Q").U32(subs).Str(L"2").Str(L"P");
}
}  // namespace

TEST_F(DamagedStreams, GiveTheirResultAndMessage)
{
    const char* failed = ": error 0x80004005: ";
    const char* value = "FbInstanceData::ReadPara() ReadFromStream(value) failed\n";
    const char* internal = ": internal error 0xaa: ";
    const struct
    {
        const wchar_t* stream;   // in an instance with parameter p (stream 0) and group g (stream 1)
        Bytes bytes;
        Reader reader;
        HRESULT result;
        const char* message;   // traced, when given
    } rows[] = {
        {L"0", Record(2), kParameter, E_FAIL, "FbInstanceData::ReadPara invalid version\n"},
        {L"0", Record(1, 1), kParameter, static_cast<HRESULT>(0x80043006), "FbInstanceData::ReadPara stream isn't a group\n"},
        {L"0", Record(1, 2, L"q").U16(VT_I4).U32(5), kParameter, E_FAIL, internal},
        {L"0", ByteBuilder().U32(1).U32(2).U32(0x7FFFFFF0), kParameter, E_FAIL, failed},
        {L"0", Record(), kParameter, E_FAIL, value},
        {L"0", Record().U16(VT_BSTR).U32(7).Str(L"abc"), kParameter, E_FAIL, value},
        {L"0", Record().U16(VT_I8).Str(L"abc"), kParameter, DISP_E_TYPEMISMATCH, value},
        {L"0", Record().U16(VT_I4).U32(5).U16(VT_BSTR).U32(0x40000000), kParameter, S_OK,
         "FbInstanceData::ReadPara() ReadFromStream(default value) failed\n"},
        {L"0", Record().U16(VT_I4).U32(5).U16(VT_EMPTY).Str(L"").U32(1).U32(2).U32(3), kParameter, S_OK, failed},
        // The stream name map: version, next stream number, count, then name, kind and number per entry.
        {L"map", ByteBuilder().U32(2).U32(1).U32(1).Str(L"p").U32(2).U32(0), kParameter, E_FAIL,
         "FbInstanceData::ReadStreamNameMap invalid version\n"},
        {L"map", ByteBuilder().U32(1).U32(1).U32(0x7FFFFFFF).Str(L"p").U32(2).U32(0), kParameter, E_FAIL, failed},
        {L"map", Bytes(), kParameter, E_FAIL, failed},
        {L"1", ByteBuilder().Header(L"g", 1, 2).U32(1).U32(0), kGroup, E_FAIL, "FbInstanceData::ReadGroup invalid version\n"},
        {L"1", ByteBuilder().Header(L"g", 2).U32(1).U32(0), kGroup, static_cast<HRESULT>(0x80043007),
         "FbInstanceData::ReadGroup stream isn't a group\n"},
        {L"1", ByteBuilder().Header(L"h", 1).U32(1).U32(0), kGroup, E_FAIL, internal},
        {L"1", ByteBuilder().Header(L"g", 1).U32(1).U32(0xFFFFFFFF).Str(L"x"), kGroup, E_FAIL, failed},
        {L"1", ByteBuilder().Header(L"g", 1).U32(1).U32(2).Str(L"x").U32(0x7FFFFFFE), kGroup, E_FAIL, failed},
        // The identifier alone is read without the members.
        {L"1", ByteBuilder().Header(L"g", 1).U32(0x1234).U32(0xFFFFFFFF), kGroupId, S_OK, nullptr},
        {L"instance", ByteBuilder().U32(1).U8(3), kLock, E_FAIL, failed},
        {L"instance", ByteBuilder().U32(2).U32(0).U32(0).U32(0).U32(0), kLock, E_FAIL,
         "FbInstanceData::ReadInstanceStream invalid version\n"},
        {L"instance", References(2), kReferences, E_FAIL, failed},
        {L"instance", References(0xFFFFFFFF), kReferences, E_FAIL, failed},
        {L"instance", References(2), kLock, S_OK, nullptr},   // the head is whole
        // What was read of a descriptor before the end is kept; the rest keeps its new-object values.
        {L"dtm", ByteBuilder().U32(1).U8(3).U32(5).U32(100).U8('a').U8(0), kIdentification, S_OK, failed},
        {L"dtm", ByteBuilder().U32(2).U8(9).U32(5).Str(L"x").Str(L"y").U32(1).U32(2), kIdentification, S_OK,
         "internal error 0xa: FbInstanceData::ReadFromInstance(DTM) invalid version"},
        {L"comm", ByteBuilder().U32(0).U8(9).Str(L"x"), kIdentification, S_OK,
         "internal error 0xa: FbInstanceData::ReadFromInstance(COMM) invalid version"},
        {L"comm", ByteBuilder().U32(1).U8(9).U32(4).U8('x'), kIdentification, S_OK, failed},
    };
    for (const auto& row : rows)
    {
        m_id = NewInstance().c_str();
        const std::wstring path = Str(m_id) + L"/" + row.stream;
        SCOPED_TRACE(testing::Message() << "row " << &row - rows << ": " << path.c_str());
        Array members{MakeBstrArray({L"p"})};
        ASSERT_EQ(S_OK, Store()->WriteParameterInfo(nullptr, m_id, ComPtr<ParameterDescription>(
                                                                      new ParameterDescription(L"p", 5L)).Get()));
        ASSERT_EQ(S_OK, Store()->DefineGroup(nullptr, m_id, _bstr_t(L"g"), 1, &members.p));
        Replace(path.c_str(), row.bytes);
        TraceCapture trace;
        EXPECT_EQ(row.result, Run(row.reader));
        EXPECT_TRUE(!row.message || trace.Contains(row.message)) << trace.Text();
        if (FAILED(row.result))
            EXPECT_EQ(row.bytes, Stream(path.c_str()));
    }
}
