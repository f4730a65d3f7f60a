// The capture edges with a desktop in memory: duplication frames by script, GDI copies.
#ifndef QV_TESTS_FAKES_CAPTURE_EDGES_H
#define QV_TESTS_FAKES_CAPTURE_EDGES_H

#include "host/capture_plan.h"

#include <functional>
#include <stdint.h>
#include <string>
#include <vector>

// What one AcquireNextFrame brings.
struct scripted_frame {
    uint32_t code = 0;
    host::duplication_frame frame = {true, 1, 0}; // rects_bytes 0: the lists' own size
    std::vector<host::capture_move> moves;
    std::vector<host::capture_box> dirty;
    bool rects_fail = false;
    uint32_t picture_code = 0;
    int32_t picture_width = 0, picture_height = 0; // 0: the desktop's
    uint32_t map_code = 0;
};

struct capture_edges_record {
    // The desktop, both what is shown and its size as the system tells it.
    int32_t width, height;
    std::vector<uint32_t> pixels;

    bool open_fails, staging_fails, gdi_open_fails, gdi_copy_fails;
    std::vector<scripted_frame> frames; // taken from the front; none left = wait timed out

    // What happens in a pause of the server thread; empty: the pause is slept on the clock.
    std::function<void()> on_pause;

    // The calls made, in order: "open", "acquire", "box 0,0,8,8", "gdi_copy 150x70" ...
    std::vector<std::string> calls;
};

extern capture_edges_record capture_edges;

// Everything to start values, with a desktop of this size and random pixels.
void capture_edges_reset(int32_t width, int32_t height);

// New random pixels and a new size.
void capture_edges_desktop(int32_t width, int32_t height);

// The calls as one text, separated by blanks; forgets them.
std::string capture_edges_calls();

#endif
