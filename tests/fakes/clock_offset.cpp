#include "tests/fakes/clock_offset.h"

#include "protocol/clock.h"

#include <atomic>
#include <chrono>
#include <thread>

static std::atomic<uint32_t> offset;
static std::atomic<bool> held;
static std::atomic<uint32_t> held_at;

static uint32_t running()
{
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return (uint32_t)std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void clock_put_forward(uint32_t ms)
{
    offset += ms;
}

void clock_hold(bool hold)
{
    if (hold)
        held_at = running();
    else
        offset += held_at - running(); // it goes on from where it stood
    held = hold;
}

uint32_t clock_ms()
{
    return (held ? held_at.load() : running()) + offset;
}

uint64_t clock_us()
{
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return (uint64_t)std::chrono::duration_cast<std::chrono::microseconds>(now).count() +
           (uint64_t)offset * 1000;
}

void clock_sleep_ms(uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
