// A desktop that changes at random, and both of its captures, which fail at random: in place
// of the edges under host/capture.cpp (capture_dxgi.h, capture_gdi.h).
//
// No lock: one thread at a time uses it.
#ifndef QV_TESTS_FAKES_RANDOM_DESKTOP_H
#define QV_TESTS_FAKES_RANDOM_DESKTOP_H

#include "host/capture_plan.h"
#include "tests/test.h"

#include <stdint.h>
#include <vector>

// All that is random comes from here.
extern test_random rnd;

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
    std::vector<uint32_t> pixels; // rows of width
    bool duplicates;              // Desktop Duplication works when it is opened
    bool away;                    // there is no screen just now
    bool calm;                    // nothing fails any more
    bool lost;                    // the duplication is lost at its next use
    bool whole;                   // a duplication has not shown the desktop yet
    int32_t changes;              // since it did
    int32_t openings;             // of the duplication, tried or done
    host::capture_box window;     // of which the content scrolls; empty: none yet
    int32_t spot_x, spot_y;       // where changes are worth more than elsewhere
    std::vector<host::capture_move> moves;
    std::vector<host::capture_box> dirty;
};
extern random_desktop desktop;

// What a rectangle is filled with: colours and patterns that are alike in all tiles, so that
// the same tiles come up again and again...
enum pattern {
    BLACK,         // all zero bytes
    COLOUR = 1,    // 1 to 3
    GRADIENT = 4,  // 4 to 8
    MATE = 9,      // 9 to 14: whole tiles that fall into the cache's one set
    PATTERNS = 15, // ... and what is new:
    NOISE = 15,    // does not compress
    GRAIN = 16,    // compresses a little
    FOURTH = 17,   // changes the byte that carries no colour, and nothing else
    PATTERN_END = 18,
};

// A black desktop of this size.
void desktop_open(int32_t width, int32_t height);
void desktop_draw(const host::capture_box &box, int32_t pattern);
void desktop_draw_all(int32_t pattern);
// A rectangle or a few moves, of any kind.
void desktop_change();
// Another mode: another size, or the same again.
void desktop_resize(int32_t width, int32_t height);

// A random rectangle on the desktop.
host::capture_box desktop_box();

// The hashes of whole tiles of the patterns.
const std::vector<uint64_t> &pattern_hashes();

#endif
