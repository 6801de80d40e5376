#pragma once
#include "NonCreateables/FdtObject.h"

// One parameter's information: name, value, default value and attributes.
class FdtParameter final : public FdtObject<FdtParameter, IFdtParameter>
{
    FDT_OBJECT(FdtParameter, IFdtParameter);
    FDT_PROPERTY(FdtString, m_name);
    FDT_PROPERTY(FdtVariant, m_value);
    FDT_PROPERTY(FdtVariant, m_defaultValue);
    FDT_PROPERTY(FdtInteger<LONG>, m_index);
    FDT_PROPERTY(FdtInteger<BYTE>, m_dataType);
    FDT_PROPERTY(FdtInteger<LONG>, m_size);
    FDT_PROPERTY(FdtInteger<LONG>, m_objectType);
    FDT_PROPERTY(FdtBoolean, m_mandatory);
    FDT_PROPERTY(FdtBoolean, m_private);
    FDT_PROPERTY(FdtBoolean, m_protected);
    FDT_PROPERTY(FdtBoolean, m_locked);
};
