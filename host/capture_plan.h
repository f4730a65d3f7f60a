// The decisions of screen capture: which path a duplication frame takes, what follows which
// result code, which moves count and which pixels a rectangle really means. Pure.
#ifndef QV_HOST_CAPTURE_PLAN_H
#define QV_HOST_CAPTURE_PLAN_H

#include <stdint.h>

namespace host
{

// Right and bottom are exclusive. Laid out as the system's rectangle.
struct capture_box {
    int32_t left, top, right, bottom;
};

// The picture that was at (src_x, src_y) is now at dst. Laid out as duplication reports it.
struct capture_move {
    int32_t src_x, src_y;
    capture_box dst;
};

// What duplication tells of an acquired frame.
struct duplication_frame {
    bool presented;       // a new image, not only a new pointer
    uint32_t accumulated; // images since the last frame
    uint32_t rects_bytes; // size of the list of moves and dirty rectangles
};

// A result code (HRESULT) means success.
constexpr bool capture_succeeded(uint32_t code)
{
    return code < 0x80000000;
}

enum acquire_outcome {
    ACQUIRE_FRAME,   // a frame is held and must be released
    ACQUIRE_NOTHING, // the wait passed without one
    ACQUIRE_LOST,    // the back end must be re-created
};

acquire_outcome plan_acquire(uint32_t code);

enum frame_path {
    FRAME_SKIP,  // release it, nothing to copy
    FRAME_WHOLE, // copy the whole screen
    FRAME_RECTS, // copy what moved and what is dirty
};

// FRAME_RECTS becomes FRAME_WHOLE when the rectangles cannot be read.
frame_path plan_frame(const duplication_frame &frame, bool full_capture_pending);

// The part of box on a picture of width x height, none of them negative; false when there
// is none (clipped is then empty).
bool box_clip(const capture_box &box, int32_t width, int32_t height, capture_box *clipped);

// Whether the viewer can be told to make this move: something moves, and it lies in full on
// a picture of width x height before and after.
bool move_counts(const capture_move &move, int32_t width, int32_t height);

} // namespace host

#endif
