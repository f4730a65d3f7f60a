// From the viewer's input messages to what is injected. Pure.
#ifndef QV_HOST_INPUT_MAP_H
#define QV_HOST_INPUT_MAP_H

#include "protocol/messages.h"

#include <stdint.h>

namespace host
{

// One event for the system's input queue, in the terms of its documented interface.
struct input_event {
    bool keyboard;
    // mouse: absolute position, 0..65535 over the primary screen, and MOUSEEVENTF_* flags
    int32_t dx, dy;
    int32_t mouse_data; // wheel delta
    // keyboard: virtual key, or with KEYEVENTF_UNICODE a code unit in scan; KEYEVENTF_* flags
    uint16_t virtual_key;
    uint16_t scan;
    uint32_t flags;
};

// The event for a mouse message on a screen of this size. Coordinates are taken as they
// come, in 64-bit arithmetic.
input_event input_from_mouse(const mouse_event &mouse, int32_t screen_width,
                             int32_t screen_height);

// The event for a MSG_KEY value; scan is left 0, the edge fills it in by the keyboard
// layout.
input_event input_from_key(uint32_t value);

// The press and the release for a MSG_CHAR code unit.
void input_from_char(uint16_t unit, input_event events[2]);

// A button's release without moving the pointer. button is 0 to 2.
input_event input_button_release(uint8_t button);

} // namespace host

#endif
