#include "NonCreateables/FdtDescriptor.h"

static const char THIS_FILE[] = "NonCreateables/FdtDescriptor";

FDT_ACCESSORS(FdtDescriptor, m_dtm)
FDT_ACCESSORS(FdtDescriptor, m_instanceData)
FDT_ACCESSORS(FdtDescriptor, m_communication)
