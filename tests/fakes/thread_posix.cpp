// Threads for native tests.
//
// POSIX cannot join with a limit, so the record carries a flag and a condition that the
// thread sets last of all. Whoever comes second frees the record: the owner, when the
// thread has ended by then, else the thread.
#include "protocol/thread.h"

#include <pthread.h>
#include <stdlib.h>
#include <time.h>

struct thread {
    void (*routine)(void *);
    void *argument;
    pthread_t id; // for the owner alone
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    bool done;   // under mutex: the routine has returned
    bool let_go; // under mutex: nobody waits; the thread frees the record
};

static void free_record(thread *t)
{
    pthread_cond_destroy(&t->changed);
    pthread_mutex_destroy(&t->mutex);
    free(t);
}

static void *run(void *parameter)
{
    thread *t = (thread *)parameter;
    t->routine(t->argument);
    pthread_mutex_lock(&t->mutex);
    t->done = true;
    bool last = t->let_go;
    pthread_cond_signal(&t->changed);
    pthread_mutex_unlock(&t->mutex);
    if (last)
        free_record(t);
    return nullptr;
}

thread *thread_start(void (*routine)(void *), void *argument)
{
    thread *t = (thread *)calloc(1, sizeof *t);
    if (!t)
        return nullptr;
    t->routine = routine;
    t->argument = argument;
    pthread_mutex_init(&t->mutex, nullptr);
    pthread_condattr_t clock;
    pthread_condattr_init(&clock);
    pthread_condattr_setclock(&clock, CLOCK_MONOTONIC);
    pthread_cond_init(&t->changed, &clock);
    pthread_condattr_destroy(&clock);
    if (pthread_create(&t->id, nullptr, run, t) != 0) {
        free_record(t);
        return nullptr;
    }
    return t;
}

// Waits for the end as long as the limit allows; true when it has come. Without it the
// record belongs to the thread from now on.
static bool wait_done(thread *t, uint32_t limit_ms)
{
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += limit_ms / 1000;
    end.tv_nsec += (long)(limit_ms % 1000) * 1000000;
    if (end.tv_nsec >= 1000000000) {
        end.tv_nsec -= 1000000000;
        end.tv_sec++;
    }
    pthread_mutex_lock(&t->mutex);
    int result = 0;
    while (!t->done && result == 0) {
        if (limit_ms == THREAD_WAIT_FOREVER)
            result = pthread_cond_wait(&t->changed, &t->mutex);
        else
            result = pthread_cond_timedwait(&t->changed, &t->mutex, &end);
    }
    bool done = t->done;
    t->let_go = !done;
    pthread_mutex_unlock(&t->mutex);
    return done;
}

bool thread_join(thread *t, uint32_t limit_ms)
{
    pthread_t id = t->id;
    bool done = wait_done(t, limit_ms);
    if (!done) {
        pthread_detach(id);
        return false;
    }
    pthread_join(id, nullptr);
    free_record(t);
    return true;
}

void thread_detach(thread *t)
{
    thread_join(t, 0);
}
