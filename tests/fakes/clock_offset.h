// The real clock, which the test can put forward: what waits for hours to pass on clock_ms
// need not take them. Sleeps and time-outs that are already under way take their real time.
#ifndef QV_TESTS_FAKES_CLOCK_OFFSET_H
#define QV_TESTS_FAKES_CLOCK_OFFSET_H

#include <stdint.h>

void clock_put_forward(uint32_t ms);

// Stops the clock, but for what it is put forward; and lets it go on.
void clock_hold(bool hold);

#endif
