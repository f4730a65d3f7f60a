// The lock for native tests: a recursive mutex.
#include "protocol/lock.h"

#include <assert.h>
#include <atomic>
#include <pthread.h>
#include <sched.h>
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
    pthread_mutex_t mutex;
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
        pthread_mutexattr_t kind;
        pthread_mutexattr_init(&kind);
        pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&n->mutex, &kind);
        pthread_mutexattr_destroy(&kind);
        n->state.store(LOCK_READY, std::memory_order_release);
    }
    while (n->state.load(std::memory_order_acquire) != LOCK_READY)
        sched_yield();
}

void lock_enter(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    native_lock *n = native(l);
    assert(n->state.load(std::memory_order_acquire) == LOCK_READY);
    int result = pthread_mutex_lock(&n->mutex);
    assert(result == 0);
    (void)result;
}

void lock_leave(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    // Fails when the calling thread does not hold the lock.
    int result = pthread_mutex_unlock(&native(l)->mutex);
    assert(result == 0);
    (void)result;
}
