// The module stays loaded while a data object that it handed out lives.
#include <comutil.h>
#include "ObjectsTestSupport.h"
#include "NonCreateables/FdtCommunicationDescriptor.h"
#include "NonCreateables/FdtDtmDescriptor.h"

namespace
{
template <class Object, class Interface>
ComPtr<Interface> MakeLocal()
{
    Object* object = nullptr;
    EXPECT_EQ(S_OK, Object::CreateInstance(&object));
    return ComPtr<Interface>(object);
}
}  // namespace

TEST(DataObjectUnload, ServerStaysWhileADataObjectItHandedOutLives)
{
    TempStoreFile file(L"objects-unload.fdt");
    ComPtr<IFdtDescriptor> descriptor;
    {
        OpenStore open = OpenStore::At(file.Bstr());
        ASSERT_TRUE(open.root);
        ComPtr<IFdtDtmDescriptor> dtm = MakeLocal<FdtDtmDescriptor, IFdtDtmDescriptor>();
        ComPtr<IFdtCommunicationDescriptor> communication =
            MakeLocal<FdtCommunicationDescriptor, IFdtCommunicationDescriptor>();
        _bstr_t id;
        ASSERT_EQ(S_OK, open.store->Create(nullptr, dtm.Get(), communication.Get(), id.GetAddress()));
        ASSERT_EQ(S_OK, open.store->ReadIdentification(nullptr, id, descriptor.GetAddressOf()));
    }
    ASSERT_TRUE(descriptor);
    EXPECT_EQ(S_FALSE, ServerModule::CanUnloadNow()) << "the descriptor and its members live";

    ComPtr<IFdtDtmDescriptor> dtm;
    ASSERT_EQ(S_OK, descriptor->get_m_dtm(dtm.GetAddressOf()));
    ASSERT_TRUE(dtm);
    descriptor.Reset();
    EXPECT_EQ(S_FALSE, ServerModule::CanUnloadNow()) << "one member still lives";
    dtm.Reset();
    EXPECT_EQ(S_OK, ServerModule::CanUnloadNow());
}

TEST(DataObjectUnload, EveryLiveObjectHoldsOneModuleLock)
{
    const LONG before = LiveDataObjects();
    ComPtr<IFdtDtmDescriptor> first = MakeLocal<FdtDtmDescriptor, IFdtDtmDescriptor>();
    ComPtr<IFdtCommunicationDescriptor> second =
        MakeLocal<FdtCommunicationDescriptor, IFdtCommunicationDescriptor>();
    EXPECT_EQ(before + 2, LiveDataObjects());
    first.Reset();
    EXPECT_EQ(before + 1, LiveDataObjects());
    second.Reset();
    EXPECT_EQ(before, LiveDataObjects());
}
