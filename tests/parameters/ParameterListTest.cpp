// Lists of values: bounds, the results on failure, what is kept of a list
// that fails part way, and the caller's arrays.
#include "ParameterFixture.h"

namespace
{
class ParameterLists : public StoreFixture
{
protected:
    void SetUp() override
    {
        StoreFixture::SetUp();
        ASSERT_EQ(S_OK, Define(L"a", _variant_t(1L)));
        ASSERT_EQ(S_OK, Define(L"b", BstrValue(L"two")));
        ASSERT_EQ(S_OK, Define(L"c", _variant_t(3.0)));
    }
};

SAFEARRAY* MakeValueArray(const std::vector<_variant_t>& values)
{
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i)
        SafeArrayPutElement(array, &i, const_cast<_variant_t*>(&values[i]));
    return array;
}

std::vector<_variant_t> ReadValueArray(SAFEARRAY* array, LONG* lowerBound = nullptr)
{
    std::vector<_variant_t> values;
    LONG lower = 0, upper = -1;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    if (lowerBound)
        *lowerBound = lower;
    for (LONG i = lower; i <= upper; ++i)
    {
        _variant_t value;
        SafeArrayGetElement(array, &i, &value);
        values.push_back(value);
    }
    return values;
}
}  // namespace

TEST_F(ParameterLists, ReadListStartsItsResultAtZero)
{
    SAFEARRAY* names = MakeBstrArray({L"b", L"a", L"c", L"b"}, 1);
    SAFEARRAY* values = nullptr;
    ASSERT_EQ(S_OK, Store()->ReadList(nullptr, m_id, &names, &values));
    LONG lower = -1;
    const std::vector<_variant_t> read = ReadValueArray(values, &lower);
    EXPECT_EQ(0, lower);
    ASSERT_EQ(4u, read.size());
    EXPECT_STREQ(L"two", V_BSTR(&read[0]));
    EXPECT_EQ(_variant_t(1L), read[1]);
    EXPECT_EQ(_variant_t(3.0), read[2]);
    EXPECT_STREQ(L"two", V_BSTR(&read[3]));
    EXPECT_EQ((std::vector<std::wstring>{L"b", L"a", L"c", L"b"}), ReadBstrArray(names));
    EXPECT_EQ(S_OK, SafeArrayDestroy(names));

    // An array already in the result is replaced.
    SAFEARRAY* empty = SafeArrayCreateVector(VT_BSTR, 0, 0);
    ASSERT_EQ(S_OK, Store()->ReadList(nullptr, m_id, &empty, &values));
    EXPECT_TRUE(ReadValueArray(values, &lower).empty());
    EXPECT_EQ(0, lower);
    SafeArrayDestroy(values);
    SafeArrayDestroy(empty);
}

TEST_F(ParameterLists, ReadListFailureLeavesTheResultAsPassed)
{
    SAFEARRAY* names = MakeBstrArray({L"a", L"b", L"missing", L"c"});
    SAFEARRAY* passed = MakeValueArray({_variant_t(9L)});
    SAFEARRAY* values = passed;
    EXPECT_EQ(static_cast<HRESULT>(0x80043008), Store()->ReadList(nullptr, m_id, &names, &values));
    EXPECT_EQ(passed, values);
    const std::vector<_variant_t> kept = ReadValueArray(values);
    ASSERT_EQ(1u, kept.size());
    EXPECT_EQ(_variant_t(9L), kept[0]);
    SafeArrayDestroy(values);

    values = nullptr;
    EXPECT_EQ(E_POINTER, Store()->ReadList(nullptr, m_id, nullptr, &values));
    EXPECT_EQ(E_POINTER, Store()->ReadList(nullptr, m_id, &names, nullptr));
    SAFEARRAY* none = nullptr;
    EXPECT_EQ(E_UNEXPECTED, Store()->ReadList(nullptr, m_id, &none, &values));
    SAFEARRAY* wrongKind = MakeValueArray({BstrValue(L"a")});
    EXPECT_EQ(E_UNEXPECTED, Store()->ReadList(nullptr, m_id, &wrongKind, &values));
    EXPECT_EQ(nullptr, values);
    SafeArrayDestroy(wrongKind);
    SafeArrayDestroy(names);
}

TEST_F(ParameterLists, WriteListKeepsWhatCameBeforeAFailure)
{
    SAFEARRAY* names = MakeBstrArray({L"a", L"b", L"c", L"a"}, 1);
    SAFEARRAY* values = MakeValueArray({_variant_t(10L), _variant_t(20L), BstrValue(L"not a number"), _variant_t(40L)});
    EXPECT_EQ(E_FAIL, Store()->WriteList(nullptr, m_id, &names, &values));
    // What was written before the failure is committed.
    Park();
    EXPECT_EQ(_variant_t(10L), Read(L"a"));
    EXPECT_STREQ(L"20", V_BSTR(&Read(L"b").GetVARIANT()));
    EXPECT_EQ(_variant_t(3.0), Read(L"c"));
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"b", L"c", L"a"}), ReadBstrArray(names));
    const std::vector<_variant_t> unchanged = ReadValueArray(values);
    ASSERT_EQ(4u, unchanged.size());
    EXPECT_EQ(_variant_t(20L), unchanged[1]);
    EXPECT_EQ(S_OK, SafeArrayDestroy(names));
    EXPECT_EQ(S_OK, SafeArrayDestroy(values));
}

TEST_F(ParameterLists, WriteListRefusesShortAndMisshapenLists)
{
    SAFEARRAY* names = MakeBstrArray({L"a", L"b"});
    SAFEARRAY* values = MakeValueArray({_variant_t(10L)});
    EXPECT_EQ(E_INVALIDARG, Store()->WriteList(nullptr, m_id, &names, &values));
    EXPECT_EQ(_variant_t(1L), Read(L"a"));
    EXPECT_EQ(E_UNEXPECTED, Store()->WriteList(nullptr, m_id, &values, &values));
    EXPECT_EQ(E_UNEXPECTED, Store()->WriteList(nullptr, m_id, &names, &names));
    EXPECT_EQ(E_POINTER, Store()->WriteList(nullptr, m_id, &names, nullptr));
    EXPECT_EQ(E_POINTER, Store()->WriteList(nullptr, m_id, nullptr, &values));

    // An empty list writes nothing.
    SAFEARRAY* noNames = SafeArrayCreateVector(VT_BSTR, 0, 0);
    EXPECT_EQ(S_OK, Store()->WriteList(nullptr, m_id, &noNames, &values));
    SafeArrayDestroy(noNames);
    SafeArrayDestroy(names);
    SafeArrayDestroy(values);
}
