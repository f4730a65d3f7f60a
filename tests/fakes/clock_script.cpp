#include "tests/fakes/clock_script.h"

#include "protocol/clock.h"

std::atomic<uint32_t> clock_script_now;
std::atomic<void (*)()> clock_script_on_read;

uint32_t clock_ms()
{
    uint32_t now = clock_script_now;
    if (void (*call)() = clock_script_on_read.exchange(nullptr))
        call();
    return now;
}

uint64_t clock_us()
{
    return (uint64_t)clock_script_now * 1000;
}

void clock_sleep_ms(uint32_t ms)
{
    clock_script_now += ms;
}
