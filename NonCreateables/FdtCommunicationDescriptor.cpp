#include "NonCreateables/FdtCommunicationDescriptor.h"

static const char THIS_FILE[] = "NonCreateables/FdtCommunicationDescriptor";

FDT_ACCESSORS(FdtCommunicationDescriptor, m_category)
FDT_ACCESSORS(FdtCommunicationDescriptor, m_name)
