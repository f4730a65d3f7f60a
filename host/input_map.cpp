// What each input message of the viewer becomes in the system's input queue.
//
// Arithmetic and tables only, so that all of it is tested without a desktop; input.h hands
// the result to the system. Called by the control thread with bytes that come from the
// viewer: every value is possible.
#include "host/input_map.h"

namespace host
{

// The system's documented values. Written out here because this file also compiles where
// the system's headers do not exist.
static constexpr uint32_t MOUSE_MOVED = 0x0001;    // MOUSEEVENTF_MOVE
static constexpr uint32_t MOUSE_ABSOLUTE = 0x8000; // MOUSEEVENTF_ABSOLUTE
static constexpr uint32_t MOUSE_WHEELED = 0x0800;  // MOUSEEVENTF_WHEEL
static constexpr uint32_t KEY_EXTENDED = 0x0001;   // KEYEVENTF_EXTENDEDKEY
static constexpr uint32_t KEY_UP = 0x0002;         // KEYEVENTF_KEYUP
static constexpr uint32_t KEY_UNICODE = 0x0004;    // KEYEVENTF_UNICODE

static constexpr uint8_t BUTTON_COUNT = 3;
static constexpr struct {
    uint32_t down, up;
} button_flags[BUTTON_COUNT] = {
    {0x0002, 0x0004}, // MOUSEEVENTF_LEFTDOWN, _LEFTUP
    {0x0008, 0x0010}, // MOUSEEVENTF_RIGHTDOWN, _RIGHTUP
    {0x0020, 0x0040}, // MOUSEEVENTF_MIDDLEDOWN, _MIDDLEUP
};

// Keys that keyboards send with the extended prefix: without the flag most of these codes
// mean the key of the numeric pad, or the left one of a pair.
static constexpr uint16_t extended_keys[] = {
    37,  // VK_LEFT
    39,  // VK_RIGHT
    38,  // VK_UP
    40,  // VK_DOWN
    36,  // VK_HOME
    35,  // VK_END
    33,  // VK_PRIOR
    34,  // VK_NEXT
    45,  // VK_INSERT
    46,  // VK_DELETE
    163, // VK_RCONTROL
    165, // VK_RMENU
    91,  // VK_LWIN
    92,  // VK_RWIN
    93,  // VK_APPS
    111, // VK_DIVIDE
    144, // VK_NUMLOCK
    44,  // VK_SNAPSHOT
};

// A pixel coordinate in the 0..65535 in which the system takes absolute positions. A
// coordinate outside the screen gives a value outside that range (its low 32 bits, to be
// exact), which the system moves to the screen's edge. Kept on purpose: the quotient is
// truncated, so the pointer can land one pixel left of or above the place meant.
static int32_t normalise(int32_t position, int32_t size)
{
    int64_t scaled = (int64_t)position * 65535;
    if (size > 1)
        scaled /= size - 1;
    return (int32_t)scaled;
}

input_event input_from_mouse(const mouse_event &mouse, int32_t screen_width,
                             int32_t screen_height)
{
    input_event event = {};
    event.dx = normalise(mouse.x, screen_width);
    event.dy = normalise(mouse.y, screen_height);
    event.flags = MOUSE_MOVED | MOUSE_ABSOLUTE;
    switch (mouse.kind) {
    case MOUSE_DOWN:
        if (mouse.button < BUTTON_COUNT)
            event.flags |= button_flags[mouse.button].down;
        break;
    case MOUSE_UP:
        if (mouse.button < BUTTON_COUNT)
            event.flags |= button_flags[mouse.button].up;
        break;
    case MOUSE_WHEEL:
        event.flags |= MOUSE_WHEELED;
        event.mouse_data = mouse.wheel;
        break;
    default: // a move, and whatever this host does not know
        break;
    }
    return event;
}

input_event input_from_key(uint32_t value)
{
    input_event event = {};
    event.keyboard = true;
    event.virtual_key = (uint16_t)value;
    if ((value & KEY_PRESS_MASK) == 0)
        event.flags |= KEY_UP;
    for (uint16_t key : extended_keys) {
        if (key == event.virtual_key) {
            event.flags |= KEY_EXTENDED;
            break;
        }
    }
    return event;
}

void input_from_char(uint16_t unit, input_event events[2])
{
    events[0] = {};
    events[0].keyboard = true;
    events[0].scan = unit;
    events[0].flags = KEY_UNICODE;
    events[1] = events[0];
    events[1].flags |= KEY_UP;
}

input_event input_button_release(uint8_t button)
{
    input_event event = {};
    if (button < BUTTON_COUNT)
        event.flags = button_flags[button].up;
    return event;
}

} // namespace host
