// The viewer's picture of the host's screen, and the messages that change it.
//
// frame_lock guards everything in the record but the statistics. The receive thread applies
// messages, the window thread paints and takes the dirty rectangle.
#ifndef QV_VIEWER_FRAME_DECODE_H
#define QV_VIEWER_FRAME_DECODE_H

#include "protocol/lock.h"
#include "protocol/messages.h"
#include "protocol/tile.h"

#include <atomic>
#include <stdint.h>

namespace viewer
{

extern lock frame_lock;

// Right and bottom are exclusive; frame pixels.
struct frame_rect {
    int32_t left, top, right, bottom;
};

struct frame_record {
    // Set by frame_open, constant until frame_close.
    int32_t frame_width, frame_height; // the host's screen, 1 .. 0x7FFFFFC0
    int32_t frame_stride, frame_rows;  // both rounded up to whole tiles
    uint8_t *frame_pixels;             // frame_stride * frame_rows pixels, top row first

    bool dirty_valid;
    frame_rect dirty_rect;

    // The console text layer. The rectangle is kept as received: any 32-bit values, so
    // arithmetic on it is 64-bit.
    bool text_active;
    int32_t text_x, text_y, text_w, text_h;
    int32_t text_cols, text_rows; // 0 .. 65535
    uint8_t *text_cells;          // text_cols * text_rows cells of 3 bytes, row-major
    uint8_t *text_scratch;        // decompressed row records
    int32_t text_scratch_cap;     // what the decoder may fill; more bytes follow, all zeroed
                                  // at first, for the record that is copied before its check
};

extern frame_record frame GUARDED_BY(frame_lock);

// The window's way to frame_lock; it leaves by lock_leave. However busy the receive thread is
// with what the host sent, it lets a window that waits here in before long.
void frame_lock_for_window() ACQUIRE(frame_lock);

// Set when the session is about to end, by viewer_session_abort; cleared by frame_open. The
// receive thread then ends without working through what it has already received. A word of
// its own: whoever sets it must not wait for the lock.
extern std::atomic<bool> viewer_ending;

// Counters since connect; atomic, read by the window without the lock.
struct frame_statistics {
    std::atomic<uint32_t> stat_bytes, stat_frames, stat_hits, stat_misses;
};

extern frame_statistics statistics;

// Makes a zeroed picture of this size and resets statistics, dirty rectangle and text layer.
// False when a size is outside 1 .. 0x7FFFFFC0 or memory is short.
[[nodiscard]] bool frame_open(int32_t width, int32_t height);

// Frees the picture and the text layer. When the receive thread has ended.
void frame_close();

// Adds a rectangle, clamped to the screen, to the dirty rectangle.
void dirty_union(int64_t x0, int64_t y0, int64_t x1, int64_t y1) REQUIRES(frame_lock);

// Applies one message of the host: the type byte and length bytes of payload, in a buffer of
// at least 8 bytes. Bytes are trusted in nothing; what is malformed is dropped.
void frame_apply(uint8_t type, const uint8_t *payload, uint32_t length) REQUIRES(frame_lock);

// The receive thread's routine: applies messages until a receive fails or viewer_ending is
// set, then asks the window to close. The argument is not used.
void viewer_recv_thread(void *);

} // namespace viewer

#endif
