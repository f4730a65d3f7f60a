// Fakes: viewer_channel_memory lock_unfair
// Labels: threaded
//
// How the receive thread and the window share frame_lock: the window gets its turn whatever
// the host sends, sees no half of an honest host's message, and ends the session at once.
// Each test plays the window; the receive thread reads from memory.
#include "viewer/frame_decode.h"

#include "host/lz4_block.h"
#include "protocol/messages.h"
#include "protocol/thread.h"
#include "tests/fakes/viewer_channel_memory.h"
#include "tests/test.h"
#include "viewer/viewer_window.h"

#include <algorithm>
#include <atomic>
#include <string.h>
#include <vector>

using namespace viewer;
using bytes = std::vector<uint8_t>;

static std::atomic<uint32_t> repaints, close_requests;
static uint32_t end_at_repaint; // the session ends with this one; 0: never

void viewer::viewer_window_post_repaint()
{
    if (++repaints == end_at_repaint)
        viewer_ending = true;
}

void viewer::viewer_window_post_close()
{
    close_requests++;
}

static void start(int32_t width, int32_t height)
{
    memory_reset();
    repaints = 0;
    close_requests = 0;
    end_at_repaint = 0;
    REQUIRE(frame_open(width, height));
}

// Appends to what the host sends.
static void put(message_type type, const bytes &payload)
{
    uint8_t header[MESSAGE_HEADER_BYTES];
    put_header(header, type, (uint32_t)payload.size());
    memory_incoming.insert(memory_incoming.end(), header, header + sizeof header);
    memory_incoming.insert(memory_incoming.end(), payload.begin(), payload.end());
}

static void add_move(bytes *payload, const copy_rect &move)
{
    size_t at = payload->size();
    payload->resize(at + COPY_RECT_BYTES);
    put_copy_rect(payload->data() + at, move);
}

static uint32_t pixel(int32_t x, int32_t y) REQUIRES(frame_lock)
{
    return load_le32(frame.frame_pixels +
                     ((size_t)y * (size_t)frame.frame_stride + (size_t)x) * PIXEL_BYTES);
}

static void set_pixel(int32_t x, int32_t y, uint32_t value)
{
    lock_enter(&frame_lock);
    store_le32(frame.frame_pixels +
                   ((size_t)y * (size_t)frame.frame_stride + (size_t)x) * PIXEL_BYTES,
               value);
    lock_leave(&frame_lock);
}

TEST_CASE("moves without end let the window in, and end with the session")
{
    start(512, 512);
    // Some seconds of work. Row 0 holds the numbers from 1; after every 100 moves, less than
    // half a stretch, the next of them is put into the corner, to show how far it is.
    bytes moves;
    for (int32_t x = 0; x < 512; x++) {
        set_pixel(x, 0, (uint32_t)x + 1);
        for (int i = 0; i < 100; i++)
            add_move(&moves,
                     {.src_x = 0, .src_y = 1, .dst_x = 0, .dst_y = 2, .w = 512, .h = 509});
        add_move(&moves, {.src_x = x, .src_y = 0, .dst_x = 511, .dst_y = 511, .w = 1, .h = 1});
    }
    put(MSG_COPY_RECTS, moves);
    put(MSG_FRAME_END, bytes(8));

    thread *receiver = thread_start(viewer_recv_thread, nullptr);
    REQUIRE(receiver);
    std::vector<uint32_t> waits; // how far the work got from one look to the next
    uint32_t seen = 0;
    while (waits.size() < 9 && seen < 512) {
        frame_lock_for_window();
        uint32_t now = pixel(511, 511);
        lock_leave(&frame_lock);
        if (now != seen)
            waits.push_back(now - seen);
        seen = now;
    }
    REQUIRE(waits.size() == 9);
    // The system may have had this thread stand still now and then, but not most of the time.
    std::sort(waits.begin(), waits.end());
    CHECK(waits[4] <= 6);

    viewer_ending = true;
    thread_join(receiver, THREAD_WAIT_FOREVER);
    lock_enter(&frame_lock);
    CHECK(pixel(511, 511) < 512);
    lock_leave(&frame_lock);
    CHECK(memory_sent.empty());
    CHECK(close_requests == 1);
    frame_close();
}

TEST_CASE("message upon message lets the window in")
{
    start(64, 64);
    bytes tile(TILE_HEAD_BYTES + (size_t)lz4_bound(TILE_BYTES));
    put_tile_head(tile.data(), {.tile_x = 0, .tile_y = 0, .raw = 0, .hash = 0});
    const bytes difference(TILE_BYTES, 1);
    int32_t length = lz4_compress_block(difference.data(), TILE_BYTES,
                                        tile.data() + TILE_HEAD_BYTES, lz4_bound(TILE_BYTES));
    REQUIRE(length > 0);
    tile.resize(TILE_HEAD_BYTES + (size_t)length);
    for (uint32_t i = 0; i < 100000; i++)
        put(MSG_TILE, tile);

    thread *receiver = thread_start(viewer_recv_thread, nullptr);
    REQUIRE(receiver);
    std::vector<size_t> waits; // messages received from one look to the next
    size_t seen = 0;
    while (waits.size() < 9 && close_requests == 0) {
        frame_lock_for_window();
        size_t now = statistics.stat_bytes / (MESSAGE_HEADER_BYTES + tile.size());
        lock_leave(&frame_lock);
        if (now != seen)
            waits.push_back(now - seen);
        seen = now;
    }
    viewer_ending = true;
    thread_join(receiver, THREAD_WAIT_FOREVER);
    REQUIRE(waits.size() == 9);
    std::sort(waits.begin(), waits.end());
    CHECK(waits[4] <= 2 * 4096); // two stretches
    frame_close();
}

TEST_CASE("the moves of an honest frame are applied in one stretch")
{
    constexpr int32_t WIDTH = 2048;
    start(WIDTH, 64);
    // Row 1 becomes a copy of row 0, pixel by pixel, and then of row 2, which is black.
    bytes fill, clear;
    for (int32_t x = 0; x < WIDTH; x++) {
        set_pixel(x, 0, 0x00FFFFFF);
        add_move(&fill, {.src_x = x, .src_y = 0, .dst_x = x, .dst_y = 1, .w = 1, .h = 1});
        add_move(&clear, {.src_x = x, .src_y = 2, .dst_x = x, .dst_y = 1, .w = 1, .h = 1});
    }
    for (int i = 0; i < 500; i++) {
        put(MSG_COPY_RECTS, fill);
        put(MSG_COPY_RECTS, clear);
    }

    thread *receiver = thread_start(viewer_recv_thread, nullptr);
    REQUIRE(receiver);
    int looks = 0, halves = 0;
    do {
        frame_lock_for_window();
        looks++;
        halves += pixel(0, 1) != pixel(WIDTH - 1, 1);
        lock_leave(&frame_lock);
    } while (close_requests == 0);
    thread_join(receiver, THREAD_WAIT_FOREVER);
    CHECK(looks > 0);
    CHECK(halves == 0);
    frame_close();
}

TEST_CASE("every move is applied, however many stretches they take")
{
    // 60 rows down, one at a time; some fifteen of these moves make one stretch.
    constexpr int32_t SIDE = 2048;
    start(SIDE, SIDE);
    set_pixel(5, 0, 77);
    bytes moves;
    for (int32_t y = 0; y < 60; y++)
        add_move(&moves,
                 {.src_x = 0, .src_y = y, .dst_x = 0, .dst_y = y + 1, .w = SIDE, .h = 1984});
    moves.resize(moves.size() + 23); // odd bytes at the end are ignored
    put(MSG_COPY_RECTS, moves);
    put(MSG_FRAME_END, bytes(8));
    viewer_recv_thread(nullptr);
    lock_enter(&frame_lock);
    for (int32_t y = 0; y <= 60; y++)
        CHECK(pixel(5, y) == 77);
    CHECK(pixel(5, 61) == 0);
    lock_leave(&frame_lock);
    CHECK(memory_sent.size() == 1);
    frame_close();
}

TEST_CASE("rectangles that are no moves, and short messages, end too")
{
    start(64, 64);
    bytes moves;
    for (int i = 0; i < 3; i++) {
        add_move(&moves, {.src_x = 0, .src_y = 0, .dst_x = 0, .dst_y = 0, .w = 0, .h = 9});
        add_move(
            &moves,
            {.src_x = 0, .src_y = 0, .dst_x = 0, .dst_y = 0, .w = INT32_MAX, .h = INT32_MAX});
        add_move(
            &moves,
            {.src_x = 0, .src_y = 0, .dst_x = 0, .dst_y = 0, .w = INT32_MIN, .h = INT32_MIN});
    }
    put(MSG_COPY_RECTS, moves);
    put(MSG_COPY_RECTS, {});
    put(MSG_COPY_RECTS, bytes(23));
    put(MSG_FRAME_END, bytes(8));
    viewer_recv_thread(nullptr);
    CHECK(memory_sent.size() == 1);
    frame_close();
}

TEST_CASE("a session that ends does not work through what was received")
{
    start(64, 64);
    for (int i = 0; i < 10; i++)
        put(MSG_FRAME_END, bytes(8));
    end_at_repaint = 3;
    viewer_recv_thread(nullptr);
    CHECK(repaints == 3);
    CHECK(memory_sent.size() == 3);
    CHECK(close_requests == 1);

    // The next session starts afresh.
    start(64, 64);
    put(MSG_FRAME_END, bytes(8));
    viewer_recv_thread(nullptr);
    CHECK(repaints == 1);
    frame_close();
}
