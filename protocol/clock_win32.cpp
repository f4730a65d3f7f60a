// The system's tick count and sleep.
#include "protocol/clock.h"

#include "protocol/win32.h"

uint32_t clock_ms()
{
    return GetTickCount();
}

void clock_sleep_ms(uint32_t ms)
{
    Sleep(ms);
}
