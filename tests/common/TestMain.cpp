// Main of the test programs: a single-threaded apartment and the type
// libraries that a frame's machine has registered.
#include <gtest/gtest.h>
#include "TestSupport.h"

namespace
{
void RegisterLibrary(const wchar_t* file)
{
    const std::wstring path = ProgramDirectory() + file;
    ITypeLib* library = nullptr;
    if (SUCCEEDED(LoadTypeLibEx(path.c_str(), REGKIND_REGISTER, &library)) && library)
        library->Release();
}
}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 2;
    RegisterLibrary(L"FdtInterfaces.tlb");
    RegisterLibrary(L"InstanceData.tlb");
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
