// Threads of which the system can be told to have none to give, and that are waited for as
// long as the program says, which the test may ask.
#ifndef QV_TESTS_FAKES_THREAD_SCRIPT_H
#define QV_TESTS_FAKES_THREAD_SCRIPT_H

#include <stdint.h>

// The next thread_start fails.
void thread_script_refuse_next();

// The limit of the last thread_join, ms; 0 before the first.
uint32_t thread_script_join_limit();

#endif
