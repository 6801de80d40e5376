#include "NonCreateables/FdtInstanceDataDescriptor.h"

static const char THIS_FILE[] = "NonCreateables/FdtInstanceDataDescriptor";

FDT_ACCESSORS(FdtInstanceDataDescriptor, m_name)
