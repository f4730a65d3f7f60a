// The system's tick count, performance counter and sleep.
#include "protocol/clock.h"

#include "protocol/win32.h"

uint32_t clock_ms()
{
    return GetTickCount();
}

uint64_t clock_us()
{
    LARGE_INTEGER frequency, now;
    QueryPerformanceFrequency(&frequency); // fails on no system that can run this program
    QueryPerformanceCounter(&now);
    uint64_t ticks = (uint64_t)now.QuadPart;
    uint64_t second = (uint64_t)frequency.QuadPart;
    // In two parts: a product of the whole with a million would overflow within months.
    return ticks / second * 1000000 + ticks % second * 1000000 / second;
}

void clock_sleep_ms(uint32_t ms)
{
    Sleep(ms);
}
