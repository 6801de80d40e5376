// A program that makes a pure virtual call: an abstract object calls its own
// pure virtual function while it is being constructed. The calls to get
// there pass through frames that hold the values the crash report must show.
// Built without optimisation so that every local stays in its frame.
#include <windows.h>
#include <ole2.h>
#include <cstdio>

struct SelfLink { int value; SelfLink* self; };
struct Pair { short low; struct { double ratio; char tag; } inner; };
enum Colour { Red = 1, Green = 2 };

// Same shape as the framework's window class: the handle sits after eight
// pointer-size fields (vtable included).
class CWnd
{
public:
    virtual ~CWnd() {}
    void* m_reserved[7] = {};
    HWND m_hWnd = nullptr;
};

class Abstract
{
public:
    Abstract() { Start(); }
    virtual ~Abstract() {}
    virtual void Run() = 0;
    // While Abstract is being constructed, Run is still the pure slot.
    void Start() { Run(); }
};

class Concrete : public Abstract
{
public:
    void Run() override {}
};

SelfLink g_link = {11, &g_link};
int g_counter = 77;

__attribute__((noinline)) void MakeObject(int depth)
{
    Concrete object;
    std::printf("not reached %d\n", depth);
}

__attribute__((noinline)) void HoldSpecialValues(int depth)
{
    GUID guid = {0x12345678, 0x9ABC, 0xDEF0, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
    VARIANT number;
    VariantInit(&number);
    V_VT(&number) = VT_I4;
    V_I4(&number) = 4711;
    VARIANT broken;
    VariantInit(&broken);
    V_VT(&broken) = VT_BSTR;
    V_BSTR(&broken) = reinterpret_cast<BSTR>(static_cast<ULONG_PTR>(0x10));  // faults when copied
    CWnd window;
    window.m_hWnd = reinterpret_cast<HWND>(static_cast<ULONG_PTR>(0x1234));
    const wchar_t* wide = L"wide text";
    int* dangling = reinterpret_cast<int*>(static_cast<ULONG_PTR>(0x10));
    Colour colour = Green;
    Pair pair = {-3, {0.5, 'q'}};
    char newline = '\n';
    MakeObject(depth + 1);
    std::printf("%p %p %p %p %p %d %d %c %d\n", &guid, &number, &broken, &window, wide, *dangling, colour, newline,
                pair.low);
}

__attribute__((noinline)) void HoldArray(int depth)
{
    int numbers[300];
    for (int i = 0; i < 300; ++i)
        numbers[i] = i * 3;
    SelfLink link = {7, &link};
    SelfLink* linkPointer = &link;
    HoldSpecialValues(depth + 1);
    std::printf("%d %p\n", numbers[depth], static_cast<void*>(linkPointer));
}

__attribute__((noinline)) void HoldLocals(int depth)
{
    int x = 5;
    const char* p = "abc";
    HoldArray(depth + 1);
    std::printf("%d %s\n", x, p);
}

int main()
{
    HoldLocals(1);
    return 0;
}
