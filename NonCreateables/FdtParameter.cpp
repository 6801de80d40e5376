#include "NonCreateables/FdtParameter.h"

static const char THIS_FILE[] = "NonCreateables/FdtParameter";

FDT_ACCESSORS(FdtParameter, m_name)
FDT_ACCESSORS(FdtParameter, m_value)
FDT_ACCESSORS(FdtParameter, m_defaultValue)
FDT_ACCESSORS(FdtParameter, m_index)
FDT_ACCESSORS(FdtParameter, m_dataType)
FDT_ACCESSORS(FdtParameter, m_size)
FDT_ACCESSORS(FdtParameter, m_objectType)
FDT_ACCESSORS(FdtParameter, m_mandatory)
FDT_ACCESSORS(FdtParameter, m_private)
FDT_ACCESSORS(FdtParameter, m_protected)
FDT_ACCESSORS(FdtParameter, m_locked)
