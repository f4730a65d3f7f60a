// Threads that run to their end inside thread_start, for programs of one thread.
#ifndef QV_TESTS_FAKES_THREAD_INLINE_H
#define QV_TESTS_FAKES_THREAD_INLINE_H

// Called before the routine, with its argument; may be null.
extern void (*thread_inline_on_start)(void *argument);

// The next thread_start fails.
extern bool thread_inline_refuse_next;

#endif
