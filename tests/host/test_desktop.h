// A desktop to capture: what stands on the host's screen, drawn by the test, and reported to
// the host as the capture back ends would, by desktop_capture in the fake capture_script. All
// of it belongs to the thread that runs the frame pipeline.
#ifndef QV_TESTS_HOST_TEST_DESKTOP_H
#define QV_TESTS_HOST_TEST_DESKTOP_H

#include "host/capture.h"
#include "host/screen.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

constexpr uint32_t RED = 0xFFCC2010, GREEN = 0x0020C040, BLUE = 0x7F1020D0;

struct rect {
    int32_t left, top, right, bottom;
};

// What stands on the host's screen. Drawing puts rectangles down for the next capture step;
// a GDI back end would report the whole screen instead.
inline struct {
    int32_t width, height;
    std::vector<uint8_t> pixels; // rows of width * 4 bytes
    std::vector<rect> dirty;
    std::vector<copy_rect> moves;
    bool whole_screen; // report everything at every step, as GDI does
    bool restarted;    // the next step re-creates the capture,
    bool resized;      // to another size
} desktop;

inline uint8_t *desktop_at(int32_t x, int32_t y)
{
    return &desktop.pixels[((size_t)y * (size_t)desktop.width + (size_t)x) * 4];
}

// One capture: what was drawn since the last, moves first. For capture_script_step.
inline host::capture_result desktop_capture()
{
    if (desktop.restarted) {
        if (desktop.resized)
            REQUIRE(host::screen_resize(desktop.width, desktop.height));
        lock_enter(&host::host_lock);
        host::frame_reset();
        lock_leave(&host::host_lock);
        desktop.restarted = desktop.resized = false;
        desktop.moves.clear();
        desktop.dirty.assign(1, {0, 0, desktop.width, desktop.height});
        return host::CAPTURE_RESTARTED;
    }
    if (desktop.whole_screen)
        desktop.dirty.push_back({0, 0, desktop.width, desktop.height});
    if (desktop.dirty.empty())
        return host::CAPTURE_NOTHING;
    for (const copy_rect &m : desktop.moves)
        if (host::screen.move_count < host::MOVE_MAX)
            host::screen.move_list[host::screen.move_count++] = m;
    for (const rect &r : desktop.dirty)
        host::capture_copy_rect(desktop.pixels.data(), desktop.width * 4, r.left, r.top,
                                r.right, r.bottom);
    desktop.dirty.clear();
    desktop.moves.clear();
    return host::CAPTURE_FRAME;
}

inline void desktop_open(int32_t width, int32_t height)
{
    desktop.width = width;
    desktop.height = height;
    desktop.pixels.assign((size_t)width * (size_t)height * 4, 0);
    desktop.dirty.assign(1, {0, 0, width, height});
    desktop.moves.clear();
    desktop.whole_screen = desktop.restarted = desktop.resized = false;
}

inline void fill(rect r, uint32_t colour)
{
    for (int32_t y = r.top; y < r.bottom; y++)
        for (int32_t x = r.left; x < r.right; x++)
            store_le32(desktop_at(x, y), colour);
    desktop.dirty.push_back(r);
}

inline void fill_noise(rect r, test_random *random)
{
    for (int32_t y = r.top; y < r.bottom; y++)
        for (int32_t x = r.left; x < r.right; x++)
            store_le32(desktop_at(x, y), (uint32_t)(random->next() >> 20) | 1);
    desktop.dirty.push_back(r);
}

inline rect tile_rect(int32_t tx, int32_t ty)
{
    return {tx * 64, ty * 64, tx * 64 + 64, ty * 64 + 64};
}

inline rect whole()
{
    return {0, 0, desktop.width, desktop.height};
}

// Moves a block of the desktop the way a scroll does, and reports it as duplication does.
inline void move_block(copy_rect m)
{
    std::vector<uint8_t> copy;
    for (int32_t y = 0; y < m.h; y++)
        copy.insert(copy.end(), desktop_at(m.src_x, m.src_y + y),
                    desktop_at(m.src_x, m.src_y + y) + m.w * 4);
    for (int32_t y = 0; y < m.h; y++)
        memcpy(desktop_at(m.dst_x, m.dst_y + y), &copy[(size_t)y * (size_t)m.w * 4],
               (size_t)m.w * 4);
    desktop.moves.push_back(m);
    desktop.dirty.push_back({m.dst_x, m.dst_y, m.dst_x + m.w, m.dst_y + m.h});
}

// The same without a word; the capture copies the whole screen.
inline void move_unreported(copy_rect m)
{
    move_block(m);
    desktop.moves.clear();
    desktop.dirty.assign(1, whole());
}

inline rect desktop_random_rect(test_random *random)
{
    int32_t x = (int32_t)random->below((uint64_t)desktop.width);
    int32_t y = (int32_t)random->below((uint64_t)desktop.height);
    int32_t w = 1 + (int32_t)random->below((uint64_t)(desktop.width - x));
    int32_t h = 1 + (int32_t)random->below((uint64_t)(desktop.height - y));
    return {x, y, x + w, y + h};
}

// Noise, a colour, a tile of a colour that others have, or a move. Never draws black: a
// viewer that misses a black tile may go on showing something else there.
inline void desktop_random_change(test_random *random)
{
    static const uint32_t colours[] = {RED, GREEN, BLUE, 0x01010101, 0xFF000000};
    rect r = desktop_random_rect(random);
    switch (random->below(6)) {
    case 0:
        fill_noise(r, random);
        break;
    case 1:
        fill(r, colours[random->below(5)]);
        break;
    case 2:
    case 3:
        fill(tile_rect((int32_t)random->below((uint64_t)(desktop.width / 64)),
                       (int32_t)random->below((uint64_t)(desktop.height / 64))),
             colours[random->below(5)]);
        break;
    default: {
        int32_t w = r.right - r.left, h = r.bottom - r.top;
        move_block({r.left, r.top, (int32_t)random->below((uint64_t)(desktop.width - w + 1)),
                    (int32_t)random->below((uint64_t)(desktop.height - h + 1)), w, h});
        break;
    }
    }
}

// The screen takes another size, black at first.
inline void resize_desktop(int32_t width, int32_t height)
{
    desktop_open(width, height);
    desktop.restarted = desktop.resized = true;
}

// Whether a picture of this pitch shows the desktop in one of its tiles, in all four bytes.
// Where there is no screen it has to be black.
inline bool desktop_tile_shown(const uint8_t *pixels, size_t pitch, int32_t tx, int32_t ty)
{
    for (int32_t y = ty * 64; y < ty * 64 + 64; y++)
        for (int32_t x = tx * 64; x < tx * 64 + 64; x++) {
            bool on_screen = x < desktop.width && y < desktop.height;
            uint32_t expected = on_screen ? load_le32(desktop_at(x, y)) : 0;
            if (load_le32(pixels + (size_t)y * pitch + (size_t)x * 4) != expected)
                return false;
        }
    return true;
}

// The same for a picture of columns x rows tiles; says which tile is wrong.
inline bool desktop_shown(const uint8_t *pixels, size_t pitch, int32_t columns, int32_t rows)
{
    for (int32_t ty = 0; ty < rows; ty++)
        for (int32_t tx = 0; tx < columns; tx++)
            if (!desktop_tile_shown(pixels, pitch, tx, ty)) {
                MESSAGE("tile " << tx << ", " << ty << " differs");
                return false;
            }
    return true;
}

#endif
