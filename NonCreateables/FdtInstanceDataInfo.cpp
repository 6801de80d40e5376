#include "NonCreateables/FdtInstanceDataInfo.h"

static const char THIS_FILE[] = "NonCreateables/FdtInstanceDataInfo";

FDT_ACCESSORS(FdtInstanceDataInfo, m_displayName)
FDT_ACCESSORS(FdtInstanceDataInfo, m_description)
FDT_ACCESSORS(FdtInstanceDataInfo, m_vendor)
FDT_ACCESSORS(FdtInstanceDataInfo, m_version)
FDT_ACCESSORS(FdtInstanceDataInfo, m_buildTime)
