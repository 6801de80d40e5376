#pragma once
// Support for the data object and list array tests, which compile those
// sources into the test program: the factories are internal, and
// InstanceData.dll exports nothing but its four entry points.
#include <gtest/gtest.h>
#include "TestSupport.h"
#include "InstanceData/InstanceDataModule.h"

namespace objects_test
{
// Data objects alive in this program: each holds one lock of the module.
inline LONG LiveDataObjects()
{
    return _Module.GetLockCount();
}

// The next nothrow allocation of this program fails.
void FailNextAllocation();

// Fails a test that leaves a data object alive or an OLE task allocator
// block (BSTR, SAFEARRAY) allocated.
class LeakCheckedTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

private:
    LONG m_objects = 0;
    long m_blocks = 0;
};
}  // namespace objects_test

using namespace objects_test;
