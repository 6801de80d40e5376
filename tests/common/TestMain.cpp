// Main of the test programs: a single-threaded apartment and the type
// libraries that a frame's machine has registered.
#include <gtest/gtest.h>
#include "TestSupport.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 2;
    for (const wchar_t* file : {L"FdtInterfaces.tlb", L"InstanceData.tlb"})
    {
        ITypeLib* library = nullptr;
        if (SUCCEEDED(LoadTypeLibEx((ProgramDirectory() + file).c_str(), REGKIND_REGISTER, &library)) && library)
            library->Release();
    }
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
