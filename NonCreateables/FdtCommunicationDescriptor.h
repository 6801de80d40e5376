#pragma once
#include "NonCreateables/FdtObject.h"

// The communication of an instance: category and name.
class FdtCommunicationDescriptor final
    : public FdtObject<FdtCommunicationDescriptor, IFdtCommunicationDescriptor>
{
    FDT_OBJECT(FdtCommunicationDescriptor, IFdtCommunicationDescriptor);
    FDT_PROPERTY(FdtInteger<BYTE>, m_category, 1);
    FDT_PROPERTY(FdtString, m_name);
};
