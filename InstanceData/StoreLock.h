#pragma once
// Every apartment of a process shares the one store object, and with it the
// store's working state (cached instance storage, stream name map, records).
// A StoreLock holds that state for the calling thread while it lives.
#include <windows.h>

class StoreLock
{
public:
    // Waits until no other thread holds the store. A thread that holds it
    // already takes it again (a caller's object may call the store back on
    // the same thread). While waiting, the thread keeps servicing the COM
    // calls that come to its apartment, so a single-threaded apartment whose
    // objects another thread is calling never blocks them.
    StoreLock();
    ~StoreLock();

    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
};
