// The server thread's pause: an event that resets itself.
#include "host/server_wake.h"

#include "protocol/win32.h"

namespace host
{

// Null when the system has none to give; pauses then cannot be cut short. Never closed: the
// process end does it.
static HANDLE wake_event()
{
    static HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    return event;
}

void server_pause(uint64_t us)
{
    DWORD ms = (DWORD)((us + 999) / 1000);
    if (HANDLE event = wake_event())
        WaitForSingleObject(event, ms);
    else
        Sleep(ms);
}

void server_wake()
{
    if (HANDLE event = wake_event())
        SetEvent(event);
}

} // namespace host
