// The module as a host sees it: class object, shared store object, lock count.
#include <cstring>
#include "TestSupport.h"

TEST(Module, ClassObjectHandsOutOneSharedStore)
{
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(S_OK, ServerModule::GetClassObject(CLSID_FbInstanceData, IID_PPV_ARGS(&factory)));
    ComPtr<IUnknown> first, secondIdentity;
    ComPtr<IInstanceDataMgr> second;
    ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&first)));
    ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&second)));
    ASSERT_EQ(S_OK, second.As(&secondIdentity));
    EXPECT_EQ(first.Get(), secondIdentity.Get());
    EXPECT_EQ(S_FALSE, ServerModule::CanUnloadNow());
    first.Reset(), second.Reset(), secondIdentity.Reset(), factory.Reset();
    EXPECT_EQ(S_OK, ServerModule::CanUnloadNow());
    // The object outlives its clients: a new client gets the same one back.
    ComPtr<IFbInstanceData> again = CreateStore();
    EXPECT_EQ(S_FALSE, ServerModule::CanUnloadNow());
}

TEST(Module, RefusesUnknownClassesAndAggregationAndHonoursLockServer)
{
    ComPtr<IClassFactory> factory;
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, ServerModule::GetClassObject(GUID_NULL, IID_PPV_ARGS(&factory)));
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, ServerModule::GetClassObject(IID_IFbInstanceData, IID_PPV_ARGS(&factory)));
    EXPECT_FALSE(factory);
    EXPECT_EQ(E_POINTER, ServerModule::GetClassObject(CLSID_FbInstanceData, IID_IClassFactory, nullptr));
    ASSERT_EQ(S_OK, ServerModule::GetClassObject(CLSID_FbInstanceData, IID_PPV_ARGS(&factory)));
    IUnknown* object = reinterpret_cast<IUnknown*>(1);
    EXPECT_EQ(CLASS_E_NOAGGREGATION, factory->CreateInstance(factory.Get(), IID_IUnknown, reinterpret_cast<void**>(&object)));
    EXPECT_EQ(nullptr, object);
    EXPECT_EQ(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));

    ASSERT_EQ(S_OK, factory->LockServer(TRUE));
    factory.Reset();
    EXPECT_EQ(S_FALSE, ServerModule::CanUnloadNow());
    ASSERT_EQ(S_OK, ServerModule::GetClassObject(CLSID_FbInstanceData, IID_PPV_ARGS(&factory)));
    ASSERT_EQ(S_OK, factory->LockServer(FALSE));
    factory.Reset();
    EXPECT_EQ(S_OK, ServerModule::CanUnloadNow());
}

// The whole system text is formatted, then cut to the caller's buffer: a
// buffer shorter than the text still gets its start.
TEST(Trace, SystemMessageIsCutToFitTheBuffer)
{
    const std::pair<int, const char*> cases[] = {
        {1, ""}, {8, "Access "}, {14, "Access denied"}, {15, "Access denied."}, {128, "Access denied."}};
    for (const auto& c : cases)
    {
        char buffer[128];
        memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(static_cast<int>(strlen(c.second)), CPkTrace::SystemMessage(E_ACCESSDENIED, buffer, c.first))
            << c.first;
        EXPECT_STREQ(c.second, buffer) << c.first;
    }
}
