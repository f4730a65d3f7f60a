// Threads: start, wait with a limit, let go.
#ifndef QV_PROTOCOL_THREAD_H
#define QV_PROTOCOL_THREAD_H

#include <stdint.h>

struct thread; // one running thread; made by thread_start, freed by the two below

// Runs routine(argument) on a new thread; null when the system has none to give. The
// caller owns the result and must pass it to thread_join or thread_detach once.
[[nodiscard]] thread *thread_start(void (*routine)(void *), void *argument);

constexpr uint32_t THREAD_WAIT_FOREVER = 0xFFFFFFFF;

// Waits until the thread has ended, at most limit_ms, then lets it go either way. True when
// it has ended; all that it wrote is then visible to the caller. False: it still runs.
bool thread_join(thread *t, uint32_t limit_ms);

// Lets a thread go that nobody will wait for.
void thread_detach(thread *t);

#endif
