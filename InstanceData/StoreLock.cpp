// The store's lock: an owner thread with a depth, and an auto-reset event
// that every release sets so that one waiter tries again.
#include "StoreLock.h"
#include <objbase.h>
#include <atomic>

namespace
{
struct StoreLockState
{
    std::atomic<DWORD> owner{0};   // thread id; 0 while nobody holds the store
    LONG depth = 0;                // changed by the owner only
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
    for (DWORD expected = 0; !g_state.owner.compare_exchange_strong(expected, self); expected = 0)
        WaitForRelease();
    g_state.depth = 1;
}

StoreLock::~StoreLock()
{
    if (--g_state.depth)
        return;
    g_state.owner.store(0);
    SetEvent(g_state.released);
}
