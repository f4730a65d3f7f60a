// The millisecond clock for native tests: the monotonic one.
#include "protocol/clock.h"

#include <errno.h>
#include <time.h>

uint32_t clock_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint32_t)((uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / 1000000);
}

uint64_t clock_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000 + (uint64_t)now.tv_nsec / 1000;
}

void clock_sleep_ms(uint32_t ms)
{
    timespec left = {};
    left.tv_sec = ms / 1000;
    left.tv_nsec = (long)(ms % 1000) * 1000000;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
