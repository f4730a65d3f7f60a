// The decisions of screen capture. Numbers from the graphics driver are taken as they come:
// rectangles may be empty, inside out, or reach past the screen, and sums are 64-bit.
//
// Called by capture_step on the server thread.
#include "host/capture_plan.h"

namespace host
{

static constexpr uint32_t WAIT_TIMED_OUT = 0x887A0027; // DXGI_ERROR_WAIT_TIMEOUT

acquire_outcome plan_acquire(uint32_t code)
{
    if (capture_succeeded(code))
        return ACQUIRE_FRAME;
    return code == WAIT_TIMED_OUT ? ACQUIRE_NOTHING : ACQUIRE_LOST;
}

frame_path plan_frame(const duplication_frame &frame, bool full_capture_pending)
{
    if (full_capture_pending)
        return FRAME_WHOLE;
    if (!frame.presented)
        return FRAME_SKIP;
    // Rectangles are exact only for one image; of several in one frame they may leave out
    // what an earlier one moved.
    if (frame.accumulated > 1 || frame.rects_bytes == 0)
        return FRAME_WHOLE;
    return FRAME_RECTS;
}

bool box_clip(const capture_box &box, int32_t width, int32_t height, capture_box *clipped)
{
    capture_box part = box;
    if (part.left < 0)
        part.left = 0;
    if (part.top < 0)
        part.top = 0;
    if (part.right > width)
        part.right = width;
    if (part.bottom > height)
        part.bottom = height;
    bool any = part.left < part.right && part.top < part.bottom;
    *clipped = any ? part : capture_box{};
    return any;
}

bool move_counts(const capture_move &move, int32_t width, int32_t height)
{
    int64_t w = (int64_t)move.dst.right - move.dst.left;
    int64_t h = (int64_t)move.dst.bottom - move.dst.top;
    return w > 0 && h > 0 && move.src_x >= 0 && move.src_y >= 0 && move.dst.left >= 0 &&
           move.dst.top >= 0 && move.src_x + w <= width && move.src_y + h <= height &&
           move.dst.right <= width && move.dst.bottom <= height;
}

} // namespace host
