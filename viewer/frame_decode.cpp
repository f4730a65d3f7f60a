// Frame decoding: the host's messages become a picture.
//
// The receive thread reads one message at a time. The payload is read outside the lock, so
// that the window can paint while a large one arrives; applying it is one stretch under
// frame_lock, the answer to the host included (order: frame lock, then the send lock). Only
// moves can take a host's word for hours of work in one message: more of them than any
// honest frame has are applied in several stretches, between which the window may paint and
// the session may end. (It may paint between two messages of a frame just as well: what it
// is asked to paint is a finished frame, what it paints is what is there.) A lock that is
// left and taken again at once may never pass to who waits for it, so from time to time the
// receive thread looks whether the window waits, and lets it in.
//
// An answer is sent under frame_lock, so a host that reads nothing can keep the window from
// painting until the send times out. Sending after the lock was left would not help: the
// window's own input waits for the same connection.
//
// Everything here comes from the host and is trusted in nothing. A message that does not fit
// its layout, the tile grid or the screen is dropped in silence and the session goes on;
// only a payload for which there is no memory ends it.
//
// A compressed tile is the XOR of the new pixels with the ones that the viewer shows, so
// dropping a message or applying one twice would leave a wrong tile: the host knows what it
// sent, and the stream is reliable and authenticated.
#include "viewer/frame_decode.h"

#include "host/lz4_block.h"
#include "protocol/clock.h"
#include "viewer/tile_cache.h"
#include "viewer/tile_place.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_window.h"

#include <stdlib.h>
#include <string.h>

namespace viewer
{

lock frame_lock;
frame_record frame;
frame_statistics statistics;
std::atomic<bool> viewer_ending;

// The window waits for frame_lock. The receive thread looks at it from time to time.
static std::atomic<bool> window_waits;

constexpr int32_t FRAME_SIDE_MAX = 0x7FFFFFC0; // the largest that still rounds up to tiles
constexpr int32_t TEXT_CELL_BYTES = 3;

// A text row record is copied before it is checked against the block's size, so the scratch
// extends by one record of the largest size beyond what the decoder may fill.
constexpr uint64_t TEXT_SCRATCH_TAIL = 2 + 65535 * TEXT_CELL_BYTES;
static_assert(TEXT_SCRATCH_TAIL == 196607);

// Growth of the receive buffer beyond what is needed now, and its first size.
constexpr uint64_t RECV_SLACK_BYTES = 4096;
static_assert(RECV_SLACK_BYTES >= FRAME_ACK_BYTES);

// Work under frame_lock after which the window gets its turn if it waits, and beyond which
// no stretch of moves goes. The unit is a pixel moved; a row costs as much as this many pixels
// on top, and a message as much as this many (a tile's decompression, say). The limit is then
// that of 32 screens of 1920 x 1080 moved, some 20 ms, or of 4096 tiles.
constexpr uint64_t WORK_MAX = 1u << 26;
constexpr uint64_t ROW_WORK = 64;
constexpr uint64_t MESSAGE_WORK = 16384;

// The XOR of one tile, decompressed.
static uint8_t tile_scratch[TILE_BYTES] GUARDED_BY(frame_lock);

static void frame_free() REQUIRES(frame_lock)
{
    free(frame.frame_pixels);
    free(frame.text_cells);
    free(frame.text_scratch);
    frame = {};
}

bool frame_open(int32_t width, int32_t height)
{
    lock_init(&frame_lock); // for whoever decodes without a session; harmless otherwise
    viewer_ending = false;

    if (width < 1 || height < 1 || width > FRAME_SIDE_MAX || height > FRAME_SIDE_MAX)
        return false;
    int32_t stride = pad_to_tile(width);
    int32_t rows = pad_to_tile(height);
    uint64_t bytes = (uint64_t)stride * (uint64_t)rows * PIXEL_BYTES; // below 2^64

    lock_enter(&frame_lock);
    frame_free();
    frame.frame_pixels = (uint8_t *)calloc(bytes, 1);
    frame.text_scratch = (uint8_t *)calloc(TEXT_SCRATCH_TAIL, 1);
    bool opened = frame.frame_pixels && frame.text_scratch;
    if (opened) {
        frame.frame_width = width;
        frame.frame_height = height;
        frame.frame_stride = stride;
        frame.frame_rows = rows;
    } else {
        frame_free();
    }
    lock_leave(&frame_lock);

    statistics.stat_bytes = 0;
    statistics.stat_frames = 0;
    statistics.stat_hits = 0;
    statistics.stat_misses = 0;
    return opened;
}

void frame_lock_for_window()
{
    window_waits = true;
    lock_enter(&frame_lock);
    window_waits = false;
}

void frame_close()
{
    lock_enter(&frame_lock);
    frame_free();
    lock_leave(&frame_lock);
}

void dirty_union(int64_t x0, int64_t y0, int64_t x1, int64_t y1)
{
    if (x0 < 0)
        x0 = 0;
    if (y0 < 0)
        y0 = 0;
    if (x1 > frame.frame_width)
        x1 = frame.frame_width;
    if (y1 > frame.frame_height)
        y1 = frame.frame_height;
    if (x0 >= x1 || y0 >= y1)
        return;

    frame_rect *d = &frame.dirty_rect;
    if (!frame.dirty_valid) {
        frame.dirty_valid = true;
        *d = {(int32_t)x0, (int32_t)y0, (int32_t)x1, (int32_t)y1};
        return;
    }
    if (x0 < d->left)
        d->left = (int32_t)x0;
    if (y0 < d->top)
        d->top = (int32_t)y0;
    if (x1 > d->right)
        d->right = (int32_t)x1;
    if (y1 > d->bottom)
        d->bottom = (int32_t)y1;
}

static uint64_t row_bytes() REQUIRES(frame_lock)
{
    return (uint64_t)frame.frame_stride * PIXEL_BYTES;
}

static uint8_t *pixel_at(int32_t x, int32_t y) REQUIRES(frame_lock)
{
    return frame.frame_pixels + (uint64_t)y * row_bytes() + (uint64_t)x * PIXEL_BYTES;
}

static bool in_tile_grid(uint16_t tile_x, uint16_t tile_y) REQUIRES(frame_lock)
{
    return tile_x * TILE_SIZE < frame.frame_stride && tile_y * TILE_SIZE < frame.frame_rows;
}

static void dirty_tile(uint16_t tile_x, uint16_t tile_y) REQUIRES(frame_lock)
{
    int32_t x = tile_x * TILE_SIZE;
    int32_t y = tile_y * TILE_SIZE;
    dirty_union(x, y, (int64_t)x + TILE_SIZE, (int64_t)y + TILE_SIZE);
}

// The decoder takes 31-bit sizes. A longer block cannot hold what it should: it is
// malformed.
static int32_t decompress(const uint8_t *block, uint32_t length, uint8_t *dest,
                          int32_t capacity)
{
    if (length > INT32_MAX)
        return -1;
    return lz4_decompress_block(block, (int32_t)length, dest, capacity);
}

static void apply_copy_rect(const copy_rect &r) REQUIRES(frame_lock)
{
    if (r.w <= 0 || r.h <= 0 || r.src_x < 0 || r.src_y < 0 || r.dst_x < 0 || r.dst_y < 0)
        return;
    // No term is negative, so neither side of these overflows.
    if (r.w > frame.frame_width || r.src_x > frame.frame_width - r.w ||
        r.dst_x > frame.frame_width - r.w)
        return;
    if (r.h > frame.frame_height || r.src_y > frame.frame_height - r.h ||
        r.dst_y > frame.frame_height - r.h)
        return;

    // Rows go in the order in which none is overwritten before it has moved.
    uint64_t length = (uint64_t)r.w * PIXEL_BYTES;
    bool down = r.src_y >= r.dst_y;
    for (int32_t i = 0; i < r.h; i++) {
        int32_t row = down ? i : r.h - 1 - i;
        memmove(pixel_at(r.dst_x, r.dst_y + row), pixel_at(r.src_x, r.src_y + row), length);
    }
    dirty_union(r.dst_x, r.dst_y, (int64_t)r.dst_x + r.w, (int64_t)r.dst_y + r.h);
}

static void apply_copy_rects(const uint8_t *payload, uint32_t length) REQUIRES(frame_lock)
{
    for (; length >= COPY_RECT_BYTES; length -= COPY_RECT_BYTES) {
        apply_copy_rect(get_copy_rect(payload));
        payload += COPY_RECT_BYTES;
    }
}

static void apply_tile(const uint8_t *payload, uint32_t length) REQUIRES(frame_lock)
{
    if (length < TILE_HEAD_BYTES)
        return;
    tile_head head = get_tile_head(payload);
    const uint8_t *data = payload + TILE_HEAD_BYTES;
    uint32_t data_length = length - TILE_HEAD_BYTES;
    if (!in_tile_grid(head.tile_x, head.tile_y))
        return;

    uint8_t *at = pixel_at(head.tile_x * TILE_SIZE, head.tile_y * TILE_SIZE);
    if (head.raw) {
        if (data_length < TILE_BYTES)
            return;
        tile_place(at, row_bytes(), data);
    } else {
        if (decompress(data, data_length, tile_scratch, TILE_BYTES) != TILE_BYTES)
            return;
        tile_xor_into(at, row_bytes(), tile_scratch);
    }
    tile_cache_insert(head.hash, at, row_bytes());
    dirty_tile(head.tile_x, head.tile_y);
}

static void apply_tile_ref(const uint8_t *payload, uint32_t length) REQUIRES(frame_lock)
{
    if (length < TILE_REF_BYTES)
        return;
    tile_ref ref = get_tile_ref(payload);
    if (!in_tile_grid(ref.tile_x, ref.tile_y))
        return;

    const uint8_t *tile = tile_cache_find(ref.hash);
    if (!tile) {
        viewer_send_cache_miss(ref);
        statistics.stat_misses.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    uint8_t *at = pixel_at(ref.tile_x * TILE_SIZE, ref.tile_y * TILE_SIZE);
    tile_place(at, row_bytes(), tile);
    statistics.stat_hits.fetch_add(1, std::memory_order_relaxed);
    dirty_tile(ref.tile_x, ref.tile_y);
}

static void dirty_text() REQUIRES(frame_lock)
{
    dirty_union(frame.text_x, frame.text_y, (int64_t)frame.text_x + frame.text_w,
                (int64_t)frame.text_y + frame.text_h);
}

// Replaces the cells by cols x rows blank ones. Without memory the layer is off.
static bool renew_text_cells(int32_t cols, int32_t rows) REQUIRES(frame_lock)
{
    free(frame.text_cells);
    // Up to 12 GiB; calloc hands out zero pages that cost nothing until they are written.
    frame.text_cells = (uint8_t *)calloc((uint64_t)cols * (uint64_t)rows, TEXT_CELL_BYTES);
    if (frame.text_cells)
        return true;
    frame.text_active = false;
    frame.text_cols = 0;
    frame.text_rows = 0;
    return false;
}

// Makes room for exactly raw_size bytes of row records, if there is less, and the tail.
// What the scratch held is not needed: the decoder fills all of it or the block is dropped.
static bool grow_text_scratch(int32_t raw_size) REQUIRES(frame_lock)
{
    if (raw_size <= frame.text_scratch_cap)
        return true;
    uint8_t *scratch = (uint8_t *)calloc((uint64_t)raw_size + TEXT_SCRATCH_TAIL, 1);
    if (!scratch)
        return false;
    free(frame.text_scratch);
    frame.text_scratch = scratch;
    frame.text_scratch_cap = raw_size;
    return true;
}

// Copies the row records in text_scratch to their rows. Kept on purpose: the size is looked
// at after a record was copied, so one record may run past raw_size (into what the scratch
// held before, or zeros) before the walk stops. The scratch has room for it.
static void place_text_rows(int32_t raw_size, int32_t row_count) REQUIRES(frame_lock)
{
    int64_t row_length = (int64_t)frame.text_cols * TEXT_CELL_BYTES;
    int64_t total = 0;
    for (int32_t i = 0; i < row_count; i++) {
        const uint8_t *record = frame.text_scratch + total; // total <= raw_size
        int32_t row = load_le16(record);
        if (row < frame.text_rows)
            memcpy(frame.text_cells + row * row_length, record + 2, (size_t)row_length);
        total += 2 + row_length;
        if (total > raw_size)
            return;
    }
}

static void apply_text_layer(const uint8_t *payload, uint32_t length) REQUIRES(frame_lock)
{
    if (length < TEXT_LAYER_HEAD_BYTES)
        return;
    text_layer_head head = get_text_layer_head(payload);

    if (frame.text_active)
        dirty_text();
    if (head.rows == 0 || head.cols == 0) {
        frame.text_active = false;
        return;
    }
    bool same_grid =
        frame.text_active && head.cols == frame.text_cols && head.rows == frame.text_rows;
    if (!same_grid && !renew_text_cells(head.cols, head.rows))
        return;
    frame.text_active = true;
    frame.text_x = head.x;
    frame.text_y = head.y;
    frame.text_w = head.w;
    frame.text_h = head.h;
    frame.text_cols = head.cols;
    frame.text_rows = head.rows;
    dirty_text();

    if (!grow_text_scratch(head.raw_size))
        return;
    int32_t got = decompress(payload + TEXT_LAYER_HEAD_BYTES, length - TEXT_LAYER_HEAD_BYTES,
                             frame.text_scratch, frame.text_scratch_cap);
    if (got < 0 || got != head.raw_size) // a negative size equals no good result
        return;
    place_text_rows(head.raw_size, head.row_count);
}

static void apply_frame_end(const uint8_t *payload) REQUIRES(frame_lock)
{
    // Kept on purpose: the length is not looked at. The host gets back the first 8 bytes
    // that lie there, left over from earlier messages where this one is shorter.
    viewer_send_frame_ack(payload);
    statistics.stat_frames.fetch_add(1, std::memory_order_relaxed);
    viewer_window_post_repaint();
}

void frame_apply(uint8_t type, const uint8_t *payload, uint32_t length)
{
    switch (type) {
    case MSG_COPY_RECTS:
        apply_copy_rects(payload, length);
        break;
    case MSG_TILE:
        apply_tile(payload, length);
        break;
    case MSG_TEXT_LAYER:
        apply_text_layer(payload, length);
        break;
    case MSG_FRAME_END:
        apply_frame_end(payload);
        break;
    case MSG_TILE_REF:
        apply_tile_ref(payload, length);
        break;
    default: // the pointer, the window list, and what is not known
        break;
    }
}

// The payload buffer. Its first 8 bytes are always set, since a frame end echoes them.
struct payload_buffer {
    uint8_t *bytes;
    uint64_t capacity;
};

// Makes room for a payload, keeping the bytes.
static bool payload_reserve(payload_buffer *buffer, uint64_t length)
{
    if (length <= buffer->capacity)
        return true;
    uint8_t *grown = (uint8_t *)realloc(buffer->bytes, length + RECV_SLACK_BYTES);
    if (!grown)
        return false;
    buffer->bytes = grown;
    buffer->capacity = length + RECV_SLACK_BYTES;
    return true;
}

static uint64_t move_work(const copy_rect &r)
{
    if (r.w <= 0 || r.h <= 0)
        return ROW_WORK;
    return ROW_WORK + (uint64_t)r.h * ((uint64_t)r.w + ROW_WORK); // below 2^63
}

// How many bytes of a MSG_COPY_RECTS payload make one stretch under frame_lock: at least one
// rectangle, and the odd bytes at the end with the last one. Adds their work.
static uint32_t moves_for_one_hold(const uint8_t *payload, uint32_t length, uint64_t *work)
{
    uint32_t end = 0;
    uint64_t moved = 0;
    while (length - end >= COPY_RECT_BYTES && moved < WORK_MAX) {
        moved += move_work(get_copy_rect(payload + end));
        end += COPY_RECT_BYTES;
    }
    *work += moved;
    return length - end < COPY_RECT_BYTES ? length : end;
}

// Lets the window into frame_lock once enough work has been done since it was asked last. Not
// at once: what an honest host sends together is best shown together.
static void let_window_in(uint64_t *work)
{
    if (*work < WORK_MAX)
        return;
    *work = 0;
    while (window_waits)
        clock_sleep_ms(0); // it has the lock as soon as it runs
}

// Applies one message. *work is what was done since the window was last let in.
static void apply_message(uint8_t type, const uint8_t *payload, uint32_t length, uint64_t *work)
{
    do {
        uint32_t part =
            type == MSG_COPY_RECTS ? moves_for_one_hold(payload, length, work) : length;
        lock_enter(&frame_lock);
        frame_apply(type, payload, part);
        lock_leave(&frame_lock);
        *work += MESSAGE_WORK;
        let_window_in(work);
        payload += part;
        length -= part;
    } while (length > 0 && !viewer_ending);
}

void viewer_recv_thread(void *)
{
    payload_buffer payload = {(uint8_t *)calloc(RECV_SLACK_BYTES, 1), RECV_SLACK_BYTES};
    uint8_t header_bytes[MESSAGE_HEADER_BYTES];
    uint64_t work = 0;

    while (payload.bytes && !viewer_ending && viewer_recv(header_bytes, sizeof header_bytes)) {
        message_header header = get_header(header_bytes);
        if (!payload_reserve(&payload, header.length))
            break;
        if (header.length != 0 && !viewer_recv(payload.bytes, header.length))
            break;
        statistics.stat_bytes.fetch_add(header.length + MESSAGE_HEADER_BYTES,
                                        std::memory_order_relaxed);
        apply_message(header.type, payload.bytes, header.length, &work);
    }
    free(payload.bytes);
    viewer_window_post_close();
}

} // namespace viewer
