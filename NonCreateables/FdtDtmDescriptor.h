#pragma once
#include "NonCreateables/FdtObject.h"

// The DTM of an instance: category, classification, device and node names,
// application and language.
class FdtDtmDescriptor final : public FdtObject<FdtDtmDescriptor, IFdtDtmDescriptor>
{
    FDT_OBJECT(FdtDtmDescriptor, IFdtDtmDescriptor);
    FDT_PROPERTY(FdtInteger<BYTE>, m_category, 1);
    FDT_PROPERTY(FdtInteger<LONG>, m_classification);
    FDT_PROPERTY(FdtString, m_device);
    FDT_PROPERTY(FdtString, m_node);
    FDT_PROPERTY(FdtInteger<LONG>, m_application, 0x020001FE);
    FDT_PROPERTY(FdtInteger<LONG>, m_language, 0x400);
};
