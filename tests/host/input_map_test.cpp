#include "host/input_map.h"
#include "tests/test.h"

using namespace host;

static mouse_event mouse(int32_t x, int32_t y, uint8_t kind = MOUSE_MOVE, uint8_t button = 0,
                         int16_t wheel = 0)
{
    return {x, y, kind, button, wheel};
}

TEST_CASE("positions are scaled to 0..65535 over the screen")
{
    struct {
        int32_t x, y, width, height, dx, dy;
    } rows[] = {
        {0, 0, 1920, 1080, 0, 0},
        {1919, 1079, 1920, 1080, 65535, 65535}, // bottom right
        {960, 540, 1920, 1080, 32784, 32797},   // 62913600 / 1919, 35388900 / 1079
        {1, 1, 1920, 1080, 34, 60},             // 34.15, 60.7: towards zero
        {-1, -1, 1920, 1080, -34, -60},
        {1920, 1080, 1920, 1080, 65569, 65595}, // just outside
        {2000000, 0, 1920, 1080, 68301198, 0},  // 131070000000 / 1919: needs 64 bits
        {3, 5, 1, 1, 196605, 327675},           // a side of 1 is not divided by
        {3, 5, 0, -7, 196605, 327675},          // nor is one that does not exist
        {1, 1, 2, 2, 65535, 65535},
        // The low 32 bits of (2^31 - 1) * 65535 = 0x7FFE_7FFF_0001.
        {INT32_MAX, INT32_MAX, 2, 2, 0x7FFF0001, 0x7FFF0001},
        // -2^31 * 65535 = -0x7FFF_8000_0000, in two's complement ...8000_8000_0000.
        {INT32_MIN, INT32_MIN, 1, 1, INT32_MIN, INT32_MIN},
    };
    for (auto &row : rows) {
        CAPTURE(row.x);
        CAPTURE(row.width);
        input_event e = input_from_mouse(mouse(row.x, row.y), row.width, row.height);
        CHECK_FALSE(e.keyboard);
        CHECK(e.dx == row.dx);
        CHECK(e.dy == row.dy);
        CHECK(e.flags == 0x8001);
        CHECK(e.mouse_data == 0);
    }
}

TEST_CASE("every kind moves; buttons and wheel add their flag")
{
    struct {
        uint8_t kind, button;
        int16_t wheel;
        uint32_t flags;
        int32_t data;
    } rows[] = {
        {MOUSE_MOVE, 0, 0, 0x8001, 0},
        {MOUSE_MOVE, 2, 120, 0x8001, 0},
        {MOUSE_DOWN, 0, 0, 0x8003, 0},
        {MOUSE_UP, 0, 0, 0x8005, 0},
        {MOUSE_DOWN, 1, 0, 0x8009, 0},
        {MOUSE_UP, 1, 0, 0x8011, 0},
        {MOUSE_DOWN, 2, 0, 0x8021, 0},
        {MOUSE_UP, 2, 0, 0x8041, 0},
        {MOUSE_DOWN, 3, 0, 0x8001, 0},
        {MOUSE_UP, 255, 0, 0x8001, 0},
        {MOUSE_DOWN, 0, 120, 0x8003, 0}, // a wheel delta only counts for the wheel
        {MOUSE_WHEEL, 0, 120, 0x8801, 120},
        {MOUSE_WHEEL, 1, -120, 0x8801, -120},
        {MOUSE_WHEEL, 0, -32768, 0x8801, -32768},
        {4, 0, 120, 0x8001, 0},
        {255, 1, 1, 0x8001, 0},
    };
    for (auto &row : rows) {
        CAPTURE(row.kind);
        CAPTURE(row.button);
        input_event e =
            input_from_mouse(mouse(10, 20, row.kind, row.button, row.wheel), 65536, 65536);
        CHECK_FALSE(e.keyboard);
        CHECK(e.flags == row.flags);
        CHECK(e.mouse_data == row.data);
        CHECK(e.dx == 10);
        CHECK(e.dy == 20);
        CHECK(e.virtual_key == 0);
        CHECK(e.scan == 0);
    }
}

TEST_CASE("a key message presses or releases its virtual key")
{
    struct {
        uint32_t value;
        uint16_t key;
        uint32_t flags;
    } rows[] = {
        {0x10025, 0x25, 1},  // left arrow pressed, extended
        {0x25, 0x25, 1 | 2}, // and released
        {0x10041, 'A', 0},
        {0x41, 'A', 2},
        {0x800041, 'A', 0}, // any of bits 16 to 23 is a press
        {0xFF0041, 'A', 0},
        {0x1000041, 'A', 2}, // bit 24 is none
        {0xFF00FFFF, 0xFFFF, 2},
        {0x1FFFF, 0xFFFF, 0},
        {0x10125, 0x125, 0}, // not the left arrow
        {0, 0, 2},
    };
    for (auto &row : rows) {
        CAPTURE(row.value);
        input_event e = input_from_key(row.value);
        CHECK(e.keyboard);
        CHECK(e.virtual_key == row.key);
        CHECK(e.flags == row.flags);
        CHECK(e.scan == 0);
    }
}

TEST_CASE("exactly the listed keys are extended")
{
    const uint8_t extended[] = {37, 39,  38,  40, 36, 35, 33,  34,  45,
                                46, 163, 165, 91, 92, 93, 111, 144, 44};
    for (uint32_t key = 0; key < 256; key++) {
        bool expected = false;
        for (uint8_t one : extended)
            expected = expected || one == key;
        CAPTURE(key);
        CHECK(input_from_key(KEY_PRESS | key).flags == (expected ? 1u : 0u));
        CHECK(input_from_key(key).flags == (expected ? 3u : 2u));
    }
}

TEST_CASE("a character is pressed and released as a code unit")
{
    input_event e[2];
    memset(e, 0xAA, sizeof e);
    input_from_char(0x20AC, e);
    for (int i = 0; i < 2; i++) {
        CHECK(e[i].keyboard);
        CHECK(e[i].virtual_key == 0);
        CHECK(e[i].scan == 0x20AC);
    }
    CHECK(e[0].flags == 4);
    CHECK(e[1].flags == 6);
}

TEST_CASE("a button is released without moving the pointer")
{
    const uint32_t flags[] = {0x4, 0x10, 0x40};
    for (uint8_t button = 0; button < 3; button++) {
        input_event e = input_button_release(button);
        CHECK_FALSE(e.keyboard);
        CHECK(e.flags == flags[button]);
        CHECK(e.dx == 0);
        CHECK(e.dy == 0);
        CHECK(e.mouse_data == 0);
    }
}
