#pragma once
#include "NonCreateables/FdtObject.h"

// Identification of an instance: its three descriptors, kept alive as long
// as this object lives.
class FdtDescriptor final : public FdtObject<FdtDescriptor, IFdtDescriptor>
{
    FDT_OBJECT(FdtDescriptor, IFdtDescriptor);
    FDT_PROPERTY(FdtInterface<IFdtDtmDescriptor>, m_dtm);
    FDT_PROPERTY(FdtInterface<IFdtInstanceDataDescriptor>, m_instanceData);
    FDT_PROPERTY(FdtInterface<IFdtCommunicationDescriptor>, m_communication);
};
