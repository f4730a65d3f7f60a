// The lock, as unfair as a lock may be: who finds it taken looks again after some
// milliseconds and gets it only if it is free at that moment. A thread that takes it again
// and again will not lose it by luck.
#include "protocol/lock.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <new>
#include <thread>

namespace
{
struct unfair_lock {
    std::atomic<bool> ready;
    std::recursive_mutex mutex;
};
} // namespace

static_assert(sizeof(unfair_lock) <= sizeof(lock::storage));

static unfair_lock *unfair(lock *l)
{
    return (unfair_lock *)(void *)l->storage;
}

// By one thread, before there are others.
void lock_init(lock *l)
{
    unfair_lock *u = unfair(l);
    if (u->ready)
        return;
    new (u) unfair_lock();
    u->ready = true;
}

void lock_enter(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    while (!unfair(l)->mutex.try_lock())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void lock_leave(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    unfair(l)->mutex.unlock();
}
