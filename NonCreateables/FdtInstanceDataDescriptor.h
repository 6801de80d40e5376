#pragma once
#include "NonCreateables/FdtObject.h"

// The instance data service that keeps an instance, by name.
class FdtInstanceDataDescriptor final
    : public FdtObject<FdtInstanceDataDescriptor, IFdtInstanceDataDescriptor>
{
    FDT_OBJECT(FdtInstanceDataDescriptor, IFdtInstanceDataDescriptor);
    FDT_PROPERTY(FdtString, m_name);
};
