#pragma once
// Registration of an FDT module through the registration server program
// FdtEnlist, which is found by the system's search for executables.
#include <windows.h>

// Module kinds, each with its own FdtEnlist switch.
enum FdtModuleKind
{
    FdtModuleKindDtm = 0,            // "/d /"
    FdtModuleKindInstanceData = 1,   // "/i /"
    FdtModuleKindCommunication = 2,  // "/c /"
};

// Runs "FdtEnlist <switch><class id> /s[ /u]" for the module at modulePath;
// E_FAIL for an unknown kind.
HRESULT FdtRegisterModule(REFCLSID clsid, int kind, const char* modulePath, BOOL registerModule);

// Runs "FdtEnlist <arguments>" and waits at most 10 seconds for it; S_OK
// only when it ends with exit code 0.
HRESULT LaunchEnlistServer(const char* modulePath, const char* arguments);
