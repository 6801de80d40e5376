#include "NonCreateables/FdtDtmDescriptor.h"

static const char THIS_FILE[] = "NonCreateables/FdtDtmDescriptor";

FDT_ACCESSORS(FdtDtmDescriptor, m_category)
FDT_ACCESSORS(FdtDtmDescriptor, m_classification)
FDT_ACCESSORS(FdtDtmDescriptor, m_device)
FDT_ACCESSORS(FdtDtmDescriptor, m_node)
FDT_ACCESSORS(FdtDtmDescriptor, m_application)
FDT_ACCESSORS(FdtDtmDescriptor, m_language)
