#pragma once
// Support for the data object and list array tests, which compile those
// sources into the test program: the factories are internal, and
// InstanceData.dll exports nothing but its four entry points.
#include <gtest/gtest.h>
#include "TestSupport.h"

namespace objects_test
{
// Blocks of the OLE task allocator (BSTRs, SAFEARRAYs) allocated since the
// program started and not yet freed. BSTR caching is off, so a freed string
// is really freed.
long OutstandingTaskBlocks();

// Data objects alive in this program: each holds one lock of the module.
LONG LiveDataObjects();

// The next nothrow allocation of this program fails.
void FailNextAllocation();

// Fails a test that leaves a data object alive or an OLE block allocated.
class LeakCheckedTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

private:
    LONG m_objects = 0;
    long m_blocks = 0;
};

// The error trace line of a source, as far as it is fixed: "<file>(".
inline std::string TraceLineOf(const char* file)
{
    return std::string(file) + "(";
}
}  // namespace objects_test

using namespace objects_test;
