#pragma once
#include "NonCreateables/FdtObject.h"

// A class identifier in registry form, braces included.
class FdtClassID final : public FdtObject<FdtClassID, IFdtClassID>
{
    FDT_OBJECT(FdtClassID, IFdtClassID);
    FDT_PROPERTY(FdtString, m_classID);
};
