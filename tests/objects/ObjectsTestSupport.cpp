#include "ObjectsTestSupport.h"
#include <new>
#include <cstdlib>
#include "InstanceData/InstanceDataModule.h"
#include "NonCreateables/FdtClassID.h"
#include "NonCreateables/FdtCommunicationDescriptor.h"
#include "NonCreateables/FdtDescriptor.h"
#include "NonCreateables/FdtDtmDescriptor.h"
#include "NonCreateables/FdtInstanceDataDescriptor.h"
#include "NonCreateables/FdtInstanceDataInfo.h"
#include "NonCreateables/FdtInstanceDataRef.h"
#include "NonCreateables/FdtParameter.h"

namespace
{
bool g_failNextAllocation = false;

// Counts the task allocator's blocks allocated and freed under the spy.
class CountingMallocSpy final : public IMallocSpy
{
public:
    long Outstanding() const { return m_outstanding; }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (InlineIsEqualGUID(iid, IID_IUnknown) || InlineIsEqualGUID(iid, IID_IMallocSpy))
        {
            *object = static_cast<IMallocSpy*>(this);
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }

    STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T size) override { return size; }
    STDMETHODIMP_(void*) PostAlloc(void* actual) override
    {
        if (actual)
            ++m_outstanding;
        return actual;
    }
    STDMETHODIMP_(void*) PreFree(void* request, BOOL spyed) override
    {
        if (request && spyed)
            --m_outstanding;
        return request;
    }
    STDMETHODIMP_(void) PostFree(BOOL) override {}
    STDMETHODIMP_(SIZE_T) PreRealloc(void* request, SIZE_T size, void** newRequest, BOOL spyed) override
    {
        m_reallocFrom = request;
        m_reallocSpyed = request && spyed;
        m_reallocSize = size;
        *newRequest = request;
        return size;
    }
    STDMETHODIMP_(void*) PostRealloc(void* actual, BOOL) override
    {
        if (!m_reallocSpyed && actual)
            ++m_outstanding;     // a new block, or one now under the spy
        else if (m_reallocSpyed && m_reallocFrom && m_reallocSize == 0)
            --m_outstanding;     // freed
        return actual;
    }
    STDMETHODIMP_(void*) PreGetSize(void* request, BOOL) override { return request; }
    STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T actual, BOOL) override { return actual; }
    STDMETHODIMP_(void*) PreDidAlloc(void* request, BOOL) override { return request; }
    STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int actual) override { return actual; }
    STDMETHODIMP_(void) PreHeapMinimize() override {}
    STDMETHODIMP_(void) PostHeapMinimize() override {}

private:
    long m_outstanding = 0;
    void* m_reallocFrom = nullptr;
    bool m_reallocSpyed = false;
    SIZE_T m_reallocSize = 0;
};

CountingMallocSpy g_spy;

template <class Object>
void LoadTypeInfo()
{
    Object* object = nullptr;
    ASSERT_EQ(S_OK, Object::CreateInstance(&object));
    ComPtr<IDispatch> dispatch(object);
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(S_OK, dispatch->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.GetAddressOf()));
}

// The module record of this program, as InstanceData.dll has one, and the
// allocation spy. The type information that every data object keeps from
// its first dispatch call is loaded here, outside every leak check.
class ObjectsEnvironment : public testing::Environment
{
public:
    void SetUp() override
    {
        ASSERT_EQ(S_OK, _Module.Init(m_classTable, GetModuleHandleW(nullptr), nullptr));
        // Not declared by the platform headers, and named differently by
        // the two import libraries: found at run time.
        auto setOaNoCache = reinterpret_cast<void(WINAPI*)()>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"oleaut32.dll"), "SetOaNoCache")));
        ASSERT_NE(nullptr, setOaNoCache);
        setOaNoCache();
        ASSERT_EQ(S_OK, CoRegisterMallocSpy(&g_spy));
        LoadTypeInfo<FdtDescriptor>();
        LoadTypeInfo<FdtDtmDescriptor>();
        LoadTypeInfo<FdtCommunicationDescriptor>();
        LoadTypeInfo<FdtInstanceDataDescriptor>();
        LoadTypeInfo<FdtClassID>();
        LoadTypeInfo<FdtParameter>();
        LoadTypeInfo<FdtInstanceDataRef>();
        LoadTypeInfo<FdtInstanceDataInfo>();
    }

    void TearDown() override { _Module.Term(); }

private:
    ClassTableEntry m_classTable[1] = {};
};

testing::Environment* const g_environment = testing::AddGlobalTestEnvironment(new ObjectsEnvironment);
}  // namespace

// The program's nothrow allocation, which a test can make fail once.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    if (g_failNextAllocation)
    {
        g_failNextAllocation = false;
        return nullptr;
    }
    return std::malloc(size ? size : 1);
}

namespace objects_test
{
long OutstandingTaskBlocks()
{
    return g_spy.Outstanding();
}

LONG LiveDataObjects()
{
    return _Module.GetLockCount();
}

void FailNextAllocation()
{
    g_failNextAllocation = true;
}

void LeakCheckedTest::SetUp()
{
    m_objects = LiveDataObjects();
    m_blocks = OutstandingTaskBlocks();
}

void LeakCheckedTest::TearDown()
{
    EXPECT_EQ(m_objects, LiveDataObjects()) << "data objects left alive";
    EXPECT_EQ(m_blocks, OutstandingTaskBlocks()) << "BSTRs or arrays left allocated";
}
}  // namespace objects_test
