// A random generator that deals out the test's bytes, in place of the system's.
#ifndef QV_TESTS_FAKES_RANDOM_SCRIPT_H
#define QV_TESTS_FAKES_RANDOM_SCRIPT_H

#include <stddef.h>
#include <stdint.h>

constexpr size_t RANDOM_SCRIPT_SIZE = 256;
constexpr size_t RANDOM_SCRIPT_DRAWS = 16;

// Draws take their bytes from here in order; when it is used up the draw starts again at
// the front. One thread only.
struct random_script_state {
    uint8_t bytes[RANDOM_SCRIPT_SIZE];
    size_t used;       // bytes dealt out so far
    bool fails;        // the generator fails and leaves the caller's buffer as it is
    void (*on_draw)(); // called once at the next draw, before it is served; may be null

    size_t draw_sizes[RANDOM_SCRIPT_DRAWS]; // what was asked for, the first draws only
    size_t draws;
};

extern random_script_state random_script;

#endif
