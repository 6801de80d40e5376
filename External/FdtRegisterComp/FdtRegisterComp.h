#pragma once
// FdtRegisterComp.dll: the FDT module registration component as the FDT
// installation provides it, reduced to what a machine without one needs.
#include <windows.h>

// Programmatic identifier "Korvo.VQ.FdtEnlist.FdtRegisterComp".
// {327AF1C4-36D2-4164-966B-3EE57B14E4ED}
static const CLSID CLSID_FdtRegisterComp = {0x327af1c4, 0x36d2, 0x4164,
                                            {0x96, 0x6b, 0x3e, 0xe5, 0x7b, 0x14, 0xe4, 0xed}};
