// Input events into the system's queue.
#include "host/input.h"

#include "protocol/win32.h"

#include <assert.h>

namespace host
{

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
    assert(count >= 0 && count <= INPUT_CALL_MAX);
    INPUT inputs[INPUT_CALL_MAX];
    for (int32_t i = 0; i < count; i++)
        fill_input(&inputs[i], events[i]);
    SendInput((UINT)count, inputs, sizeof inputs[0]);
}

} // namespace host
