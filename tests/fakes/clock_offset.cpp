#include "tests/fakes/clock_offset.h"

#include "protocol/clock.h"

#include <atomic>
#include <chrono>
#include <thread>

static std::atomic<int64_t> offset_ms;
static std::atomic<bool> held;
static std::atomic<int64_t> held_at_us;

static int64_t running_us()
{
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

void clock_put_forward(uint32_t ms)
{
    offset_ms += ms;
}

void clock_hold(bool hold)
{
    if (hold)
        held_at_us = running_us();
    else
        offset_ms -= (running_us() - held_at_us) / 1000; // it goes on from where it stood
    held = hold;
}

uint64_t clock_us()
{
    return (uint64_t)((held ? held_at_us.load() : running_us()) + offset_ms * 1000);
}

uint32_t clock_ms()
{
    return (uint32_t)(clock_us() / 1000);
}

void clock_sleep_ms(uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
