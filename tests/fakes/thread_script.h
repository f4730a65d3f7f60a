// Threads of which the system can be told to have none to give.
#ifndef QV_TESTS_FAKES_THREAD_SCRIPT_H
#define QV_TESTS_FAKES_THREAD_SCRIPT_H

// The next thread_start fails.
void thread_script_refuse_next();

#endif
