#pragma once
#include "NonCreateables/FdtObject.h"

// What FDT module registration tells about this module.
class FdtInstanceDataInfo final : public FdtObject<FdtInstanceDataInfo, IFdtInstanceDataInfo>
{
    FDT_OBJECT(FdtInstanceDataInfo, IFdtInstanceDataInfo);
    FDT_PROPERTY(FdtString, m_displayName);
    FDT_PROPERTY(FdtString, m_description);
    FDT_PROPERTY(FdtString, m_vendor);
    FDT_PROPERTY(FdtString, m_version);
    FDT_PROPERTY(FdtString, m_buildTime);
};
