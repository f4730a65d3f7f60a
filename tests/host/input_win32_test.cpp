// Windows only
//
// Injected input as the system sees it: key states and the pointer.
#include "host/cursor.h"
#include "host/input.h"
#include "protocol/win32.h"
#include "tests/test.h"

#include <vector>

using namespace host;

static bool key_down(int key)
{
    return (GetAsyncKeyState(key) & 0x8000) != 0;
}

TEST_CASE("a key is pressed and released")
{
    input_event press = input_from_key(KEY_PRESS | VK_F13);
    input_event release = input_from_key(VK_F13);
    CHECK_FALSE(key_down(VK_F13));
    input_send(&press, 1);
    CHECK(key_down(VK_F13));
    input_send(&release, 1);
    CHECK_FALSE(key_down(VK_F13));
}

TEST_CASE("both events of a call arrive, in order")
{
    input_event keys[] = {input_from_key(KEY_PRESS | VK_F14), input_from_key(VK_F14)};
    input_send(keys, 2);
    CHECK_FALSE(key_down(VK_F14));
    keys[1] = input_from_key(KEY_PRESS | VK_F15);
    input_send(keys, 2);
    CHECK(key_down(VK_F14));
    CHECK(key_down(VK_F15));
    keys[0] = input_from_key(VK_F14);
    keys[1] = input_from_key(VK_F15);
    input_send(keys, 2);
    CHECK_FALSE(key_down(VK_F14));
    CHECK_FALSE(key_down(VK_F15));
}

TEST_CASE("the pointer goes where a mouse message says")
{
    int32_t width = GetSystemMetrics(SM_CXSCREEN), height = GetSystemMetrics(SM_CYSCREEN);
    const POINT points[] = {{100, 50}, {0, 0}, {width - 1, height - 1}};
    for (const POINT &point : points) {
        CAPTURE(point.x);
        input_event move = input_from_mouse(
            {(int32_t)point.x, (int32_t)point.y, MOUSE_MOVE, 0, 0}, width, height);
        input_send(&move, 1);
        cursor_state cursor = cursor_read();
        CHECK(cursor.x == point.x);
        CHECK(cursor.y == point.y);
    }
}

TEST_CASE("a button goes down and up")
{
    int32_t width = GetSystemMetrics(SM_CXSCREEN), height = GetSystemMetrics(SM_CYSCREEN);
    input_event down = input_from_mouse({20, 20, MOUSE_DOWN, 2, 0}, width, height);
    input_send(&down, 1);
    CHECK(key_down(VK_MBUTTON));
    input_event up = input_button_release(2);
    input_send(&up, 1);
    CHECK_FALSE(key_down(VK_MBUTTON));
}

// What the system passes on of an injected key.
struct seen_key {
    DWORD key, scan;
    bool extended, up;
};
static std::vector<seen_key> seen;

static LRESULT CALLBACK see_key(int code, WPARAM message, LPARAM event)
{
    if (code == HC_ACTION) {
        const KBDLLHOOKSTRUCT *key = (const KBDLLHOOKSTRUCT *)event;
        seen.push_back({key->vkCode, key->scanCode, (key->flags & LLKHF_EXTENDED) != 0,
                        message == WM_KEYUP || message == WM_SYSKEYUP});
    }
    return CallNextHookEx(nullptr, code, message, event);
}

TEST_CASE("a key carries the scan code of the layout, a character its code unit")
{
    HHOOK hook = SetWindowsHookExA(WH_KEYBOARD_LL, see_key, GetModuleHandleA(nullptr), 0);
    REQUIRE(hook != nullptr);
    seen.clear();
    input_event keys[] = {
        input_from_key(KEY_PRESS | 'A'),
        input_from_key('A'),
        input_from_key(KEY_PRESS | VK_LEFT),
        input_from_key(VK_LEFT),
    };
    input_send(keys, 2);
    input_send(keys + 2, 2);
    input_event character[2];
    input_from_char(0x20AC, character);
    input_send(character, 2);
    UnhookWindowsHookEx(hook);

    const seen_key expected[] = {
        // Scan codes of the PC keyboard: 0x1E is the key A, 0x4B the left arrow.
        {'A', 0x1E, false, false},         {'A', 0x1E, false, true},
        {VK_LEFT, 0x4B, true, false},      {VK_LEFT, 0x4B, true, true},
        {VK_PACKET, 0x20AC, false, false}, {VK_PACKET, 0x20AC, false, true},
    };
    REQUIRE(seen.size() == 6);
    for (size_t i = 0; i < 6; i++) {
        CAPTURE(i);
        CHECK(seen[i].key == expected[i].key);
        CHECK(seen[i].scan == expected[i].scan);
        CHECK(seen[i].extended == expected[i].extended);
        CHECK(seen[i].up == expected[i].up);
    }
}
