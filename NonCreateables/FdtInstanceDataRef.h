#pragma once
#include "NonCreateables/FdtObject.h"

// One reference between instances: the other instance and the parameter
// through which the reference runs.
class FdtInstanceDataRef final : public FdtObject<FdtInstanceDataRef, IFdtInstanceDataRef>
{
    FDT_OBJECT(FdtInstanceDataRef, IFdtInstanceDataRef);
    FDT_PROPERTY(FdtString, m_instanceID);
    FDT_PROPERTY(FdtString, m_parameterName);
};
