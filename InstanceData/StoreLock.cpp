// The store's lock: an owner thread with a depth, and an auto-reset event
// that a release sets, when somebody waits, so that one waiter tries again.
// Setting an event is a call into the Wine server: a release without waiters
// must not pay it.
#include "StoreLock.h"
#include <objbase.h>
#include <atomic>

namespace
{
struct StoreLockState
{
    std::atomic<DWORD> owner{0};   // thread id; 0 while nobody holds the store
    LONG depth = 0;                // changed by the owner only
    std::atomic<LONG> waiters{0};  // threads between their first failed try and their last
    HANDLE released = CreateEventW(nullptr, FALSE, FALSE, nullptr);

    ~StoreLockState()
    {
        if (released)
            CloseHandle(released);
    }
};

// One store per process, so one lock per process.
StoreLockState g_state;

// Waits for the next release. CoWaitForMultipleHandles dispatches the calls
// to a single-threaded apartment while it waits; on a thread without COM it
// fails, and a plain wait that looks again now and then does.
void WaitForRelease()
{
    DWORD index = 0;
    HANDLE handles[] = {g_state.released};
    if (SUCCEEDED(CoWaitForMultipleHandles(COWAIT_DISPATCH_CALLS, INFINITE, 1, handles, &index)))
        return;
    if (WaitForSingleObject(g_state.released, 50) == WAIT_FAILED)
        Sleep(50);
}
}  // namespace

StoreLock::StoreLock()
{
    const DWORD self = GetCurrentThreadId();
    if (g_state.owner.load() == self)
    {
        ++g_state.depth;
        return;
    }
    DWORD expected = 0;
    if (!g_state.owner.compare_exchange_strong(expected, self))
    {
        // Counted before the next try: a release that comes after that try
        // sees the count and sets the event; one before it lets the try succeed.
        ++g_state.waiters;
        for (expected = 0; !g_state.owner.compare_exchange_strong(expected, self); expected = 0)
            WaitForRelease();
        --g_state.waiters;
    }
    g_state.depth = 1;
}

StoreLock::~StoreLock()
{
    if (--g_state.depth)
        return;
    g_state.owner.store(0);
    if (g_state.waiters.load())
        SetEvent(g_state.released);
}
