#include "tests/fakes/clock_script.h"

#include "protocol/clock.h"

std::atomic<uint32_t> clock_script_now;

uint32_t clock_ms()
{
    return clock_script_now;
}

void clock_sleep_ms(uint32_t ms)
{
    clock_script_now += ms;
}
