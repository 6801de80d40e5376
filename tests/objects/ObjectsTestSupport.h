#pragma once
// The data object sources are compiled into the test program:
// their factories are internal to InstanceData.dll.
#include <gtest/gtest.h>
#include "TestSupport.h"
#include "InstanceData/InstanceDataModule.h"

// Data objects alive in this program: each holds one lock of the module.
inline LONG LiveDataObjects() { return _Module.GetLockCount(); }

// Counts the task allocator's blocks allocated and not yet freed.
struct CountingMallocSpy final : IMallocSpy
{
    long outstanding = 0;
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        *object = iid == IID_IUnknown || iid == IID_IMallocSpy ? this : nullptr;
        return *object ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T size) override { return size; }
    STDMETHODIMP_(void*) PostAlloc(void* actual) override { return outstanding += actual != nullptr, actual; }
    STDMETHODIMP_(void*) PreFree(void* request, BOOL spyed) override { return outstanding -= request && spyed, request; }
    STDMETHODIMP_(void) PostFree(BOOL) override {}
    // A reallocation frees the old block (when the spy saw it) and allocates the new one.
    STDMETHODIMP_(SIZE_T) PreRealloc(void* request, SIZE_T size, void** newRequest, BOOL spyed) override
    {
        outstanding -= request && spyed;
        *newRequest = request;
        return size;
    }
    STDMETHODIMP_(void*) PostRealloc(void* actual, BOOL) override { return outstanding += actual != nullptr, actual; }
    STDMETHODIMP_(void*) PreGetSize(void* request, BOOL) override { return request; }
    STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T actual, BOOL) override { return actual; }
    STDMETHODIMP_(void*) PreDidAlloc(void* request, BOOL) override { return request; }
    STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int actual) override { return actual; }
    STDMETHODIMP_(void) PreHeapMinimize() override {}
    STDMETHODIMP_(void) PostHeapMinimize() override {}
};
inline CountingMallocSpy g_spy;

// The module record of this program, as InstanceData.dll has one, and the
// allocation spy; BSTR caching is off, so a freed string is really freed.
struct ObjectsEnvironment : testing::Environment
{
    void SetUp() override
    {
        static ClassTableEntry classTable[1] = {};
        ASSERT_EQ(S_OK, _Module.Init(classTable, GetModuleHandleW(nullptr), nullptr));
        // Named differently by the two import libraries: found at run time.
        auto setOaNoCache = reinterpret_cast<void(WINAPI*)()>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"oleaut32.dll"), "SetOaNoCache")));
        ASSERT_NE(nullptr, setOaNoCache);
        setOaNoCache();
        ASSERT_EQ(S_OK, CoRegisterMallocSpy(&g_spy));
    }
    void TearDown() override { _Module.Term(); }
};
inline testing::Environment* const g_environment = testing::AddGlobalTestEnvironment(new ObjectsEnvironment);

// Fails a test that leaves a data object alive or a BSTR or SAFEARRAY allocated.
class LeakCheckedTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_objects = LiveDataObjects();
        m_blocks = g_spy.outstanding;
    }
    void TearDown() override
    {
        EXPECT_EQ(m_objects, LiveDataObjects()) << "data objects left alive";
        EXPECT_EQ(m_blocks, g_spy.outstanding) << "BSTRs or arrays left allocated";
    }
    LONG m_objects = 0;
    long m_blocks = 0;
};
