#include "ObjectsTestSupport.h"
#include <new>
#include <cstdlib>
#include <utility>

namespace
{
bool g_failNextAllocation = false;

// Counts the task allocator's blocks allocated and not yet freed.
class CountingMallocSpy final : public IMallocSpy
{
public:
    long outstanding = 0;

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        const bool known = InlineIsEqualGUID(iid, IID_IUnknown) || InlineIsEqualGUID(iid, IID_IMallocSpy);
        *object = known ? static_cast<IMallocSpy*>(this) : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }

    STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T size) override { return size; }
    STDMETHODIMP_(void*) PostAlloc(void* actual) override
    {
        outstanding += actual != nullptr;
        return actual;
    }
    STDMETHODIMP_(void*) PreFree(void* request, BOOL spyed) override
    {
        outstanding -= request && spyed;
        return request;
    }
    STDMETHODIMP_(void) PostFree(BOOL) override {}
    STDMETHODIMP_(SIZE_T) PreRealloc(void* request, SIZE_T size, void** newRequest, BOOL spyed) override
    {
        m_reallocSpyed = request && spyed;
        m_reallocFrees = m_reallocSpyed && size == 0;
        *newRequest = request;
        return size;
    }
    STDMETHODIMP_(void*) PostRealloc(void* actual, BOOL) override
    {
        if (!m_reallocSpyed && actual)
            ++outstanding;     // a new block, or one now under the spy
        else if (m_reallocFrees)
            --outstanding;
        return actual;
    }
    STDMETHODIMP_(void*) PreGetSize(void* request, BOOL) override { return request; }
    STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T actual, BOOL) override { return actual; }
    STDMETHODIMP_(void*) PreDidAlloc(void* request, BOOL) override { return request; }
    STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int actual) override { return actual; }
    STDMETHODIMP_(void) PreHeapMinimize() override {}
    STDMETHODIMP_(void) PostHeapMinimize() override {}

private:
    bool m_reallocSpyed = false;
    bool m_reallocFrees = false;
};

CountingMallocSpy g_spy;

// The module record of this program, as InstanceData.dll has one, and the
// allocation spy; BSTR caching is off, so a freed string is really freed.
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
    if (std::exchange(g_failNextAllocation, false))
        return nullptr;
    return std::malloc(size ? size : 1);
}

namespace objects_test
{
void FailNextAllocation()
{
    g_failNextAllocation = true;
}

void LeakCheckedTest::SetUp()
{
    m_objects = LiveDataObjects();
    m_blocks = g_spy.outstanding;
}

void LeakCheckedTest::TearDown()
{
    EXPECT_EQ(m_objects, LiveDataObjects()) << "data objects left alive";
    EXPECT_EQ(m_blocks, g_spy.outstanding) << "BSTRs or arrays left allocated";
}
}  // namespace objects_test
