// A desktop that changes at random, captured by rectangles, moves or whole, with restarts,
// changes of the size and times without a screen: what host/capture.cpp makes of a real one.
#ifndef QV_TESTS_SESSION_RANDOM_DESKTOP_H
#define QV_TESTS_SESSION_RANDOM_DESKTOP_H

#include "host/capture.h"
#include "host/screen.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

inline test_random rnd; // all that is random here comes from it

inline int32_t below(int32_t n)
{
    return (int32_t)rnd.below((uint64_t)n);
}

inline bool one_in(int32_t n)
{
    return below(n) == 0;
}

struct random_desktop {
    int32_t width, height;
    std::vector<uint8_t> pixels;
    std::vector<copy_rect> moves;
    std::vector<copy_rect> changed; // destinations
    bool restart;                   // the next capture re-creates the back end
};
inline random_desktop desktop;

inline uint8_t *desktop_at(int32_t x, int32_t y)
{
    return &desktop.pixels[((size_t)y * (size_t)desktop.width + (size_t)x) * 4];
}

// Draws noise, or a pattern that is alike in all tiles, so that the same tiles come up again
// and again; pattern 0 is black.
inline void draw(const copy_rect &r, int32_t pattern)
{
    for (int32_t y = r.dst_y; y < r.dst_y + r.h; y++)
        for (int32_t x = r.dst_x; x < r.dst_x + r.w; x++) {
            int32_t scale = pattern > 3 ? x % 64 + y % 64 : 0x01010101;
            store_le32(desktop_at(x, y), (uint32_t)(pattern < 9 ? pattern * scale : below(99)));
        }
    desktop.changed.push_back(r);
}

// A rectangle from anywhere to anywhere; half of them made of whole tiles.
inline copy_rect random_rect()
{
    int32_t mask = one_in(2) ? ~63 : ~0;
    copy_rect r = {below(desktop.width) & mask, below(desktop.height) & mask, 0, 0, 0, 0};
    r.w = mask == ~0 ? 1 + below(100) : 64 + below(2) * 64;
    r.h = mask == ~0 ? 1 + below(100) : 64 + below(2) * 64;
    r.w = r.w > desktop.width - r.src_x ? desktop.width - r.src_x : r.w;
    r.h = r.h > desktop.height - r.src_y ? desktop.height - r.src_y : r.h;
    r.dst_x = below(desktop.width - r.w + 1) & mask;
    r.dst_y = below(desktop.height - r.h + 1) & mask;
    return r;
}

// Moves a block the way a scroll does. Often it is the block that moved last.
inline void move_block()
{
    copy_rect m = random_rect();
    if (!desktop.moves.empty() && one_in(2)) {
        const copy_rect &last = desktop.moves.back();
        m = {last.dst_x,
             last.dst_y,
             below(desktop.width - last.w + 1),
             below(desktop.height - last.h + 1),
             last.w,
             last.h};
    }
    const std::vector<uint8_t> before = desktop.pixels;
    for (int32_t y = 0; y < m.h; y++)
        memcpy(desktop_at(m.dst_x, m.dst_y + y),
               &before[(size_t)(desktop_at(m.src_x, m.src_y + y) - desktop.pixels.data())],
               (size_t)m.w * 4);
    desktop.moves.push_back(m);
    desktop.changed.push_back(m);
}

inline void change_desktop()
{
    if (one_in(3))
        draw(random_rect(), below(12));
    else if (one_in(3))
        draw(random_rect(), below(5));
    else
        for (int32_t moves = 1 + below(4); moves > 0; moves--)
            move_block();
}

// The mode changes, at times to the one that the viewer knows.
inline void change_size()
{
    bool back = one_in(2) && host::screen.hello_width > 0;
    desktop.width = back ? host::screen.hello_width : 1 + below(one_in(2) ? 280 : 65);
    desktop.height = back ? host::screen.hello_height : 64 * (1 + below(3)) - 1 + below(3);
    desktop.pixels.assign((size_t)desktop.width * (size_t)desktop.height * 4, 0);
    desktop.moves.clear();
    desktop.changed.clear();
    draw({0, 0, 0, 0, desktop.width, desktop.height}, below(9));
    change_desktop();
    desktop.restart = true;
}

inline host::capture_result capture()
{
    bool restart = desktop.restart;
    desktop.restart = false;
    if (restart || one_in(4)) { // all of it, as GDI always does
        desktop.changed = {{0, 0, 0, 0, desktop.width, desktop.height}};
        desktop.moves.clear();
    }
    if (restart) {
        bool had_screen = host::screen.screen_width != 0;
        if (had_screen && one_in(4)) { // none can be had just now
            CHECK_FALSE(host::screen_resize(0, 0));
            desktop.restart = true;
            return host::CAPTURE_RESTARTED;
        }
        if (host::screen.screen_width != desktop.width ||
            host::screen.screen_height != desktop.height)
            REQUIRE(host::screen_resize(desktop.width, desktop.height));
        if (had_screen) {
            lock_enter(&host::host_lock);
            host::frame_reset();
            lock_leave(&host::host_lock);
            return host::CAPTURE_RESTARTED;
        }
    }
    for (const copy_rect &r : desktop.changed)
        host::capture_copy_rect(desktop.pixels.data(), (int64_t)desktop.width * 4, r.dst_x,
                                r.dst_y, r.dst_x + r.w, r.dst_y + r.h);
    for (const copy_rect &m : desktop.moves)
        if (host::screen.move_count < host::MOVE_MAX)
            host::screen.move_list[host::screen.move_count++] = m;
    desktop.changed.clear();
    desktop.moves.clear();
    return host::CAPTURE_FRAME;
}

#endif
