// A pure virtual call: an abstract object calls its own pure virtual function
// while it is being constructed. The frames on the way hold the values the
// crash report must show (unoptimised, so every local stays in its frame).
#include <windows.h>
#include <ole2.h>
#include <cstdio>

struct SelfLink { int value; SelfLink* self; };
struct Pair { short low; struct { double ratio; char tag; } inner; };
enum Colour { Red = 1, Green = 2 };

// Same shape as the framework's window class: the handle sits after eight
// pointer-size fields (vtable included).
struct CWnd
{
    virtual ~CWnd() {}
    void* m_reserved[7] = {};
    HWND m_hWnd = nullptr;
};

struct Abstract
{
    Abstract() { Start(); }
    virtual ~Abstract() {}
    virtual void Run() = 0;
    // While Abstract is being constructed, Run is still the pure slot.
    void Start() { Run(); }
};

struct Concrete : Abstract { void Run() override {} };

SelfLink g_link = {11, &g_link};
int g_counter = 77;

__attribute__((noinline)) void MakeObject(int depth)
{
    Concrete object;
}

__attribute__((noinline)) void HoldValues(int depth)
{
    const char* text = "abc";
    int numbers[300];
    for (int i = 0; i < 300; ++i)
        numbers[i] = i * 3;
    SelfLink link = {7, &link};
    SelfLink* linkPointer = &link;
    GUID guid = {0x12345678, 0x9ABC, 0xDEF0, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
    VARIANT number = {};
    V_VT(&number) = VT_I4;
    V_I4(&number) = 4711;
    VARIANT broken = {};
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
    std::printf("%s %d %p %p %p %d %d %c %d\n", text, numbers[depth], static_cast<void*>(linkPointer), &guid, wide,
                *dangling, colour, newline, pair.low);
}

int main()
{
    HoldValues(1);
}
