// The server thread's pause for native tests.
#include "host/server_wake.h"

#include <pthread.h>
#include <time.h>

static pthread_mutex_t guard = PTHREAD_MUTEX_INITIALIZER;
static bool woken; // under guard

static pthread_cond_t *changed()
{
    static pthread_cond_t *condition = [] {
        static pthread_cond_t made;
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&made, &attributes);
        pthread_condattr_destroy(&attributes);
        return &made;
    }();
    return condition;
}

namespace host
{

void server_pause(uint64_t us)
{
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += (time_t)(us / 1000000);
    end.tv_nsec += (long)(us % 1000000) * 1000;
    if (end.tv_nsec >= 1000000000) {
        end.tv_nsec -= 1000000000;
        end.tv_sec++;
    }
    pthread_mutex_lock(&guard);
    while (!woken && pthread_cond_timedwait(changed(), &guard, &end) == 0) {
    }
    woken = false;
    pthread_mutex_unlock(&guard);
}

void server_wake()
{
    pthread_mutex_lock(&guard);
    woken = true;
    pthread_cond_signal(changed());
    pthread_mutex_unlock(&guard);
}

} // namespace host
