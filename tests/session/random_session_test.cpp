// Fakes: capture_script clock_script input_record server_log_record window_posts
//
// Whole sessions in one thread: the host's frame pipeline and message handler against the
// viewer's decoder and cache, one message at a time, in any order that two threads and a
// connection could bring about. Desktop, capture, clock and order are random; every message
// is the product's own. QV_SECONDS runs it for longer.
//
// What must hold: when nothing is under way, the viewer shows prev_frame wherever the host is
// certain of it; when the desktop rests too, the viewer shows the desktop, in all four bytes.
// The one exception is made on purpose: a black tile that was missed.
#include "host/control_thread.h"
#include "host/cursor.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/host_server.h"
#include "host/out_buffer.h"
#include "host/screen.h"
#include "host/text_layer.h"
#include "host/tile_ops.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/server_log_record.h"
#include "tests/session/random_desktop.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <chrono>
#include <deque>
#include <set>
#include <string.h>
#include <vector>

using bytes = std::vector<uint8_t>;
using host::screen;
using viewer::frame;
using viewer::tile_cache;

std::atomic<uint32_t> host::host_stop_requested; // the server's; it has no part here
secure_channel host::host_channel;

// ---------------------------------------------------------------------------------------
// The connection

static host::host_session *session;
static std::deque<bytes> to_viewer, to_host; // messages under way, header included
static std::set<uint32_t> missed;            // tiles not sent since; row << 16 | column

static bool answer(message_type type, const uint8_t *payload, uint32_t length)
{
    bytes m(MESSAGE_HEADER_BYTES + length);
    put_header(m.data(), type, length);
    memcpy(m.data() + MESSAGE_HEADER_BYTES, payload, length);
    to_host.push_back(m);
    return true;
}

bool viewer::viewer_send_frame_ack(const uint8_t payload[FRAME_ACK_BYTES])
{
    return answer(MSG_FRAME_ACK, payload, FRAME_ACK_BYTES);
}

bool viewer::viewer_send_cache_miss(const tile_ref &ref)
{
    uint8_t payload[CACHE_MISS_BYTES];
    put_tile_ref(payload, ref);
    return answer(MSG_CACHE_MISS, payload, CACHE_MISS_BYTES);
}

bool viewer::viewer_recv(uint8_t *, uint64_t)
{
    return false; // messages are handed over one by one
}

template <typename action> static void take_first(std::deque<bytes> *from, action act)
{
    if (from->empty())
        return;
    bytes m = from->front();
    from->pop_front();
    uint32_t length = (uint32_t)m.size() - MESSAGE_HEADER_BYTES;
    act(m[0], m.data() + MESSAGE_HEADER_BYTES, length);
}

static void viewer_step() NO_THREAD_SAFETY_ANALYSIS
{
    take_first(&to_viewer, viewer::frame_apply);
}

static void control_step()
{
    take_first(&to_host, [](uint8_t type, const uint8_t *payload, uint32_t length) {
        host::control_message(session, type, payload, length);
        if (type == MSG_CACHE_MISS)
            missed.insert(load_le32(payload));
    });
}

// The other threads get on while the server thread is somewhere in its iteration.
static void others_run()
{
    while (!one_in(3)) {
        if (one_in(2))
            viewer_step();
        else
            control_step();
    }
}

static void deliver_all()
{
    while (!to_viewer.empty() || !to_host.empty()) {
        viewer_step();
        control_step();
    }
}

namespace host
{

// The pipeline looks between its walk and the frame's end.
cursor_state cursor_read()
{
    const uint8_t *at = out_bytes(), *end = at + out_used();
    for (uint32_t length = 0; at < end; at += MESSAGE_HEADER_BYTES + length) {
        length = get_header(at).length;
        if (at[0] == MSG_TILE || at[0] == MSG_TILE_REF)
            missed.erase(load_le32(at + MESSAGE_HEADER_BYTES));
    }
    others_run();
    return {};
}

bool channel_flush()
{
    REQUIRE(out_intact());
    const uint8_t *at = out_bytes(), *end = at + out_used();
    for (size_t size = 0; at < end; at += size) {
        size = MESSAGE_HEADER_BYTES + (size_t)get_header(at).length;
        REQUIRE(size <= (size_t)(end - at));
        to_viewer.emplace_back(at, at + size);
    }
    out_reset();
    others_run();
    return true;
}

} // namespace host

// ---------------------------------------------------------------------------------------
// What must hold

// Whether the viewer shows a tile of a picture; pitch is the distance of the picture's rows.
static bool viewer_shows(const uint8_t *tile, size_t pitch, int32_t tx,
                         int32_t ty) NO_THREAD_SAFETY_ANALYSIS
{
    size_t stride = (size_t)frame.frame_stride * PIXEL_BYTES;
    const uint8_t *shown = frame.frame_pixels + host::tile_offset(frame.frame_stride, tx, ty);
    for (size_t row = 0; row < TILE_SIZE; row++)
        if (memcmp(tile + row * pitch, shown + row * stride, TILE_ROW_BYTES) != 0)
            return false;
    return true;
}

// Nothing is under way: where the host is certain of a tile, the viewer shows prev_frame.
static void check_certain_tiles() NO_THREAD_SAFETY_ANALYSIS
{
    if (screen.screen_width != frame.frame_width || screen.screen_height != frame.frame_height)
        return;
    size_t pitch = (size_t)screen.padded_width * PIXEL_BYTES;
    for (int32_t ty = 0; ty < screen.tiles_y; ty++)
        for (int32_t tx = 0; tx < screen.tiles_x; tx++) {
            const host::tile_base &base = screen.bases[ty * screen.tiles_x + tx];
            const uint8_t *tile =
                screen.prev_frame + host::tile_offset(screen.padded_width, tx, ty);
            if (!host::tile_base_uncertain(base, session->confirmed_seq))
                REQUIRE(viewer_shows(tile, pitch, tx, ty));
        }
}

// All is at rest: the viewer shows the desktop as far as its picture goes, and black beyond
// the desktop's edge.
static void check_picture() NO_THREAD_SAFETY_ANALYSIS
{
    static const uint8_t black[TILE_BYTES] = {};
    size_t pitch = (size_t)screen.padded_width * PIXEL_BYTES;
    for (int32_t y = 0; y < desktop.height; y++) // what was captured is the desktop
        REQUIRE(memcmp(screen.frame_buffer + (size_t)y * pitch, desktop_at(0, y),
                       (size_t)desktop.width * PIXEL_BYTES) == 0);
    for (int32_t ty = 0; ty < frame.frame_rows / TILE_SIZE; ty++)
        for (int32_t tx = 0; tx < frame.frame_stride / TILE_SIZE; tx++) {
            bool on_screen = tx < screen.tiles_x && ty < screen.tiles_y;
            const uint8_t *tile =
                screen.frame_buffer + host::tile_offset(screen.padded_width, tx, ty);
            if (on_screen && missed.count((uint32_t)(ty << 16 | tx)) != 0 &&
                host::tile_is_zero(tile, pitch))
                continue;
            REQUIRE(viewer_shows(on_screen ? tile : black, on_screen ? pitch : TILE_ROW_BYTES,
                                 tx, ty));
        }
}

// Leaves everybody in peace until nothing is sent any more.
static void come_to_rest()
{
    host::text_layer_reset();
    for (int quiet = 0, steps = 0; quiet < 3; steps++) {
        REQUIRE(steps < 1000);
        clock_script_now += 300; // what is not acknowledged by now is passed over
        uint32_t before = host::frame_seq;
        REQUIRE(host::frame_pipeline_step(session));
        deliver_all();
        bool rests = host::frame_seq == before && !desktop.restart && desktop.changed.empty();
        quiet = rests ? quiet + 1 : 0;
    }
    check_certain_tiles();
    check_picture();
}

// ---------------------------------------------------------------------------------------
// Sessions

// What the viewer's cache holds, and some that it does not: it goes on from session to
// session, as its file would.
static void advertise() NO_THREAD_SAFETY_ANALYSIS
{
    uint8_t hashes[16 * 8] = {};
    for (uint32_t i = 0; i < tile_cache.cache_capacity; i++)
        store_le64(hashes + i * 8, tile_cache.cache_keys[i] ^ (one_in(4) ? 1 : 0));
    answer(MSG_CACHE_ADVERT, hashes, sizeof hashes);
}

static void renew_cache() NO_THREAD_SAFETY_ANALYSIS
{
    viewer::tile_cache_open();
    tile_cache.cache_capacity = 2 * (1 + (uint32_t)below(8));
}

static void start_session()
{
    do
        (void)capture();
    while (screen.screen_width == 0);
    if (one_in(8))
        host::frame_seq = 0u - (uint32_t)below(40); // numbers wrap
    missed.clear();
    REQUIRE(viewer::frame_open(screen.screen_width, screen.screen_height));
    session = host::session_create(NET_INVALID, host::frame_seq);
    REQUIRE(session);
    host::frame_pipeline_start(one_in(8) ? 0 : CAP_TILE_CACHE);
    if (one_in(2))
        advertise();
}

static void end_session()
{
    host::session_retire();
    host::session_release(session);
    to_host.clear();
    to_viewer.clear();
}

static void random_step()
{
    int32_t dice = below(32);
    if (dice < 8) {
        change_desktop();
    } else if (dice < 18) {
        REQUIRE(host::frame_pipeline_step(session));
    } else if (dice < 24) {
        others_run();
    } else if (dice < 26) {
        deliver_all();
        check_certain_tiles();
    } else if (dice < 28) {
        clock_script_now += (uint32_t)below(one_in(8) ? 400 : 20);
    } else if (dice < 30) {
        session->tile_budget = 1 + below(one_in(2) ? 4 : 40);
    } else if (dice == 30) {
        copy_rect r = random_rect();
        host::text_layer = {one_in(2), r.src_x, r.src_y, r.src_x + r.w, r.src_y + r.h};
    } else if (one_in(3)) {
        desktop.restart = true;
    } else if (one_in(3)) {
        change_size();
    } else if (one_in(3)) {
        come_to_rest();
    }
}

TEST_CASE("in any order of events the viewer ends up showing the desktop")
{
    rnd = test_random_seeded("sessions in one thread");
    const char *given = getenv("QV_SECONDS");
    auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(given ? atoi(given) : 10);
    lock_init(&host::host_lock);
    lock_init(&viewer::frame_lock);
    capture_script_step = capture;
    change_size();
    renew_cache();
    while (std::chrono::steady_clock::now() < end) {
        if (one_in(4))
            change_size();
        if (one_in(4))
            renew_cache();
        start_session();
        for (int32_t steps = below(400); steps > 0; steps--)
            random_step();
        come_to_rest();
        end_session();
        server_log_clear();
    }
}
