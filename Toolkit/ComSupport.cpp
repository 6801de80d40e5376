// String conversions that comutil.h declares and that the platform's
// compiler-support library would provide.
#include <comdef.h>

namespace _com_util
{
BSTR WINAPI ConvertStringToBSTR(const char* source)
{
    if (!source)
        return nullptr;
    const int length = MultiByteToWideChar(CP_ACP, 0, source, -1, nullptr, 0);
    if (length <= 0)
        return nullptr;
    BSTR result = SysAllocStringLen(nullptr, length - 1);
    if (result)
        MultiByteToWideChar(CP_ACP, 0, source, -1, result, length);
    return result;
}

char* WINAPI ConvertBSTRToString(BSTR source)
{
    if (!source)
        return nullptr;
    const int units = static_cast<int>(SysStringLen(source)) + 1;
    const int length = WideCharToMultiByte(CP_ACP, 0, source, units, nullptr, 0, nullptr, nullptr);
    char* result = new char[length > 0 ? length : 1];
    if (length <= 0 || !WideCharToMultiByte(CP_ACP, 0, source, units, result, length, nullptr, nullptr))
        result[0] = '\0';
    return result;
}
}  // namespace _com_util
