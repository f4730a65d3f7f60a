// A clock that stands still until the test moves it, in place of the system's.
#ifndef QV_TESTS_FAKES_CLOCK_SCRIPT_H
#define QV_TESTS_FAKES_CLOCK_SCRIPT_H

#include <atomic>
#include <stdint.h>

// What clock_ms returns, and clock_us a thousand times. clock_sleep_ms adds its milliseconds
// and returns at once.
extern std::atomic<uint32_t> clock_script_now;

// Called once, in the middle of the next clock_ms: the time is taken, the caller does not
// have it yet. May be null.
extern std::atomic<void (*)()> clock_script_on_read;

#endif
