// Input events into the system's queue.
#include "host/input.h"

#include "protocol/win32.h"

namespace host
{

// More than a session can leave pressed: 256 keys and three buttons.
constexpr int32_t CALL_EVENTS_MAX = 288;

static void fill_input(INPUT *input, const input_event &event)
{
    *input = {};
    if (!event.keyboard) {
        input->type = INPUT_MOUSE;
        input->mi.dx = event.dx;
        input->mi.dy = event.dy;
        input->mi.mouseData = (DWORD)event.mouse_data;
        input->mi.dwFlags = event.flags;
        return;
    }
    input->type = INPUT_KEYBOARD;
    input->ki.wVk = event.virtual_key;
    input->ki.wScan = event.scan;
    input->ki.dwFlags = event.flags;
    if ((event.flags & KEYEVENTF_UNICODE) == 0)
        input->ki.wScan = (WORD)MapVirtualKeyW(event.virtual_key, MAPVK_VK_TO_VSC);
}

void input_send(const input_event *events, int32_t count)
{
    INPUT inputs[CALL_EVENTS_MAX];
    while (count > 0) {
        int32_t n = count < CALL_EVENTS_MAX ? count : CALL_EVENTS_MAX;
        for (int32_t i = 0; i < n; i++)
            fill_input(&inputs[i], events[i]);
        SendInput((UINT)n, inputs, sizeof inputs[0]);
        events += n;
        count -= n;
    }
}

} // namespace host
