#include "NonCreateables/FdtInstanceDataRef.h"

static const char THIS_FILE[] = "NonCreateables/FdtInstanceDataRef";

FDT_ACCESSORS(FdtInstanceDataRef, m_instanceID)
FDT_ACCESSORS(FdtInstanceDataRef, m_parameterName)
