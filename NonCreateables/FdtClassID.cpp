#include "NonCreateables/FdtClassID.h"

static const char THIS_FILE[] = "NonCreateables/FdtClassID";

FDT_ACCESSORS(FdtClassID, m_classID)
