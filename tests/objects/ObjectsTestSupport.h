#pragma once
// The data object and list array sources are compiled into the test program:
// their factories are internal to InstanceData.dll.
#include <gtest/gtest.h>
#include "TestSupport.h"
#include "InstanceData/InstanceDataModule.h"

// Data objects alive in this program: each holds one lock of the module.
inline LONG LiveDataObjects() { return _Module.GetLockCount(); }

// Fails a test that leaves a data object alive or a BSTR or SAFEARRAY allocated.
class LeakCheckedTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
    LONG m_objects = 0;
    long m_blocks = 0;
};
