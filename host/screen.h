// The host's picture of the screen: geometry, the newest capture, what the viewer shows, and
// which tiles may differ.
//
// Owner: host server thread, which alone changes sizes and pointers. The control thread
// writes prev_frame, the dirty map and the base states when a tile was missed, so these are
// guarded by host_lock; dirty bytes are atomic instead, since capture sets them without the
// lock (two stores of 1 may race, which is harmless). To find a tile that thread also reads
// padded_width, the tile counts and the dirty map's pointer, under host_lock: they change
// under it, and the owner reads them without. Width and height are atomic because the
// control thread scales the mouse by them. All else is the owner's alone. Buffers are padded
// to whole tiles; the padding stays zero.
#ifndef QV_HOST_SCREEN_H
#define QV_HOST_SCREEN_H

#include "host/host_lock.h"
#include "host/tile_base.h"
#include "host/tile_worth.h"
#include "protocol/messages.h"
#include "protocol/tile.h"

#include <atomic>
#include <stdint.h>

namespace host
{

constexpr int32_t MOVE_MAX = 256;

// Longest side of a screen that is taken, in pixels: tile numbers stay within 16 bits, as
// the messages carry them, and the number of tiles within 31.
constexpr int32_t SCREEN_SIDE_MAX = 1 << 21;

struct screen_record {
    std::atomic<int32_t> screen_width, screen_height; // pixels
    int32_t padded_width, padded_height;              // rounded up; written under host_lock
    int32_t tiles_x, tiles_y;                         // written under host_lock

    // padded_width * padded_height pixels, rows of padded_width * 4 bytes, top row first.
    uint8_t *frame_buffer;                     // the newest capture
    uint8_t *prev_frame GUARDED_BY(host_lock); // what the viewer shows
    // tiles_x * tiles_y of each, row-major.
    std::atomic<uint8_t> *dirty_map; // 1: the tile is to be examined; written under host_lock
    tile_base *bases GUARDED_BY(host_lock);
    tile_worth *worths GUARDED_BY(host_lock);

    bool frame_buffer_lent;    // by the capture back end, which frees it
    bool full_capture_pending; // the next duplication frame must be copied whole
    int32_t move_count;        // moves reported since the last frame was sent
    copy_rect move_list[MOVE_MAX];

    // The screen size that the viewer of this session was told in the hello: 0 x 0 before
    // the first session, and the last session's until the next one starts.
    int32_t hello_width, hello_height;
    // hello_tiles of that grid, 1: the tile lies outside the present screen and is still to
    // be sent as zeros. Null while the whole grid is inside.
    uint8_t *outside_map;
    bool first_frame_flushed; // of this session
};

extern screen_record screen;

// Sets the geometry and replaces all buffers by zeroed ones. Takes host_lock. In a session
// every tile becomes LOST, must_send and dirty, and tiles of the hello's grid outside the
// new screen are put down to be sent as zeros. False, with a screen of 0 x 0 and no
// buffers, when a side is not 1 to SCREEN_SIDE_MAX or memory is short.
bool screen_resize(int32_t width, int32_t height);

// Marks all tiles dirty and forgets moves. At session start, and until the session's first
// frame was flushed: prev_frame is zeroed and all of it KNOWN and blank. Later (the capture
// was re-created): prev_frame and base states stay, since the viewer still shows them, and
// every tile is must_send.
void frame_reset() REQUIRES(host_lock);

// Starts a session with a viewer that is told this screen's present size: records the
// hello's grid, then frame_reset. Takes host_lock.
void screen_session_start();

// Makes these pixels, as many as frame_buffer has and all zero, the frame_buffer until the next
// screen_resize, with what it holds now. They are the caller's, who captures into them, keeps
// the padding zero and frees them after that.
void screen_lend_frame_buffer(uint8_t *pixels);

// Marks every tile: all of frame_buffer may have changed.
void screen_dirty_all();

// Copies one rectangle of a source picture in screen coordinates into frame_buffer and marks
// the tiles that it touches. src addresses the source's pixel (0, 0) with src_pitch bytes a
// row; the rectangle is clipped to the screen first. Right and bottom are exclusive.
void capture_copy_rect(const uint8_t *src, int64_t src_pitch, int32_t left, int32_t top,
                       int32_t right, int32_t bottom);

// First byte of a tile in a buffer of padded_width * 4 bytes a row.
inline uint64_t tile_offset(int32_t padded_width, int32_t tx, int32_t ty)
{
    return ((uint64_t)ty * (uint64_t)padded_width + (uint64_t)tx) * TILE_ROW_BYTES;
}

} // namespace host

#endif
