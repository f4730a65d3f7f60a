// The millisecond tick count, and a fine one for what is shorter than its steps.
#ifndef QV_PROTOCOL_CLOCK_H
#define QV_PROTOCOL_CLOCK_H

#include <stdint.h>

// Milliseconds since an arbitrary start, wrapping at 2^32. Differences are taken in
// unsigned (elapsed) or signed (before or after) 32-bit arithmetic. Any thread.
uint32_t clock_ms();

// Microseconds since an arbitrary start (not the same as clock_ms's), by the finest counter
// that there is; never backwards, and no wrap in our time. Any thread.
uint64_t clock_us();

// Sleeps at least ms milliseconds.
void clock_sleep_ms(uint32_t ms);

#endif
