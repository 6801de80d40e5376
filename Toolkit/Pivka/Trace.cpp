// Application trace: OutputDebugString, optional trace file, in-process listeners.
#include "PK_Trace.h"
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace
{
struct ListenerEntry
{
    CPkTrace::Listener listener;
    void* context;
};

// Lives for the whole process, never destroyed, so that no destructor races
// a late trace. Nothing here may throw out of this DLL: a failed allocation
// loses the entry.
struct TraceState
{
    CRITICAL_SECTION lock;
    std::vector<ListenerEntry> listeners;
    DWORD mask = 0xFFFFFFFFu;
    TraceState() { InitializeCriticalSection(&lock); }
};

TraceState& State()
{
    alignas(TraceState) static char storage[sizeof(TraceState)];
    static TraceState* state = new (storage) TraceState;
    return *state;
}

class Locked
{
public:
    Locked() { EnterCriticalSection(&State().lock); }
    ~Locked() { LeaveCriticalSection(&State().lock); }
};

void WriteToFile(const char* text)
{
    char path[MAX_PATH];
    const DWORD length = GetEnvironmentVariableA("PIVKA_TRACE_FILE", path, sizeof path);
    if (length == 0 || length >= sizeof path)
        return;
    if (FILE* file = fopen(path, "ab"))
    {
        fputs(text, file);
        fclose(file);
    }
}

void Emit(DWORD level, const char* text)
{
    Locked guard;
    if ((level & State().mask) == 0)
        return;
    OutputDebugStringA(text);
    WriteToFile(text);
    // A copy, so that a listener may remove itself.
    try
    {
        const std::vector<ListenerEntry> listeners = State().listeners;
        for (const ListenerEntry& entry : listeners)
            entry.listener(entry.context, level, text);
    }
    catch (const std::bad_alloc&)
    {
    }
}
}  // namespace

PIVKA_API CPkTrace g_StdPkTraceInstance;

CPkTrace::CPkTrace() {}
CPkTrace::~CPkTrace() {}

void CPkTrace::Trace(DWORD level, const char* format, ...)
{
    try
    {
        std::vector<char> buffer(1024);
        for (;;)
        {
            va_list args;
            va_start(args, format);
            const int written = vsnprintf(buffer.data(), buffer.size(), format, args);
            va_end(args);
            if (written < 0)
                return;
            if (static_cast<size_t>(written) < buffer.size() || buffer.size() >= 65536)
                break;
            buffer.resize(written + 1 < 65536 ? written + 1 : 65536);
        }
        Emit(level, buffer.data());
    }
    catch (const std::bad_alloc&)
    {
    }
}

int CPkTrace::SystemMessage(HRESULT hr, char* buffer, int size)
{
    if (!buffer || size <= 0)
        return 0;
    buffer[0] = '\0';
    // The whole message first: formatting into a buffer too small for it fails.
    char* message = nullptr;
    DWORD length = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                      FORMAT_MESSAGE_IGNORE_INSERTS,
                                  nullptr, static_cast<DWORD>(hr), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                  reinterpret_cast<char*>(&message), 0, nullptr);
    if (!message)
        return 0;
    while (length > 0 && (message[length - 1] == '\n' || message[length - 1] == '\r' || message[length - 1] == ' '))
        --length;
    if (length >= static_cast<DWORD>(size))
        length = static_cast<DWORD>(size - 1);
    memcpy(buffer, message, length);
    buffer[length] = '\0';
    LocalFree(message);
    return static_cast<int>(length);
}

HRESULT CPkTrace::TraceHr(DWORD level, HRESULT hr, const char* file, int line)
{
    char message[128];
    const int length = SystemMessage(hr, message, sizeof message);
    g_StdPkTraceInstance.Trace(level, "%s(%d) : error 0x%x: %s\n", file ? file : "", line,
                               static_cast<unsigned>(hr), length ? message : "<unknown>");
    return hr;
}

void CPkTrace::SetMask(DWORD mask)
{
    Locked guard;
    State().mask = mask;
}

DWORD CPkTrace::GetMask()
{
    Locked guard;
    return State().mask;
}

BOOL CPkTrace::AddListener(Listener listener, void* context)
{
    Locked guard;
    try
    {
        State().listeners.push_back({listener, context});
        return TRUE;
    }
    catch (const std::bad_alloc&)
    {
        return FALSE;
    }
}

void CPkTrace::RemoveListener(Listener listener, void* context)
{
    Locked guard;
    auto& listeners = State().listeners;
    for (auto it = listeners.begin(); it != listeners.end(); ++it)
        if (it->listener == listener && it->context == context)
        {
            listeners.erase(it);
            return;
        }
}

void CPkTrace::BeginReport()
{
    Emit(LevelError, "//--- begin of report ---\n");
}

void CPkTrace::AfterCallStack()
{
    // The call stack is the part a reader needs first: make sure it is out.
    FlushFileBuffers(GetStdHandle(STD_ERROR_HANDLE));
}

void CPkTrace::EndReport()
{
    Emit(LevelError, "//--- end of report ---\n");
}
