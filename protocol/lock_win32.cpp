// The lock: a critical section, which may be entered again by the thread that holds it.
#include "protocol/lock.h"

#include "protocol/win32.h"

#include <assert.h>
#include <atomic>
#include <stdint.h>

namespace
{
enum lock_state : uint32_t {
    LOCK_ZEROED = 0,
    LOCK_BEING_MADE = 1,
    LOCK_READY = 2,
};

struct native_lock {
    std::atomic<uint32_t> state;
    CRITICAL_SECTION section;
};
} // namespace

static_assert(sizeof(native_lock) <= sizeof(lock::storage));
static_assert(alignof(native_lock) <= alignof(lock));

static native_lock *native(lock *l)
{
    return (native_lock *)(void *)l->storage;
}

void lock_init(lock *l)
{
    native_lock *n = native(l);
    uint32_t expected = LOCK_ZEROED;
    if (n->state.compare_exchange_strong(expected, LOCK_BEING_MADE)) {
        InitializeCriticalSection(&n->section);
        n->state.store(LOCK_READY, std::memory_order_release);
    }
    // Somebody else may be making it at this moment.
    while (n->state.load(std::memory_order_acquire) != LOCK_READY)
        Sleep(0);
}

void lock_enter(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    native_lock *n = native(l);
    assert(n->state.load(std::memory_order_acquire) == LOCK_READY);
    EnterCriticalSection(&n->section);
}

void lock_leave(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    LeaveCriticalSection(&native(l)->section);
}
