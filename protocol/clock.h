// The millisecond tick count.
#ifndef QV_PROTOCOL_CLOCK_H
#define QV_PROTOCOL_CLOCK_H

#include <stdint.h>

// Milliseconds since an arbitrary start, wrapping at 2^32. Differences are taken in
// unsigned (elapsed) or signed (before or after) 32-bit arithmetic. Any thread.
uint32_t clock_ms();

// Sleeps at least ms milliseconds.
void clock_sleep_ms(uint32_t ms);

#endif
