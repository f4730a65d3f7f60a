// A session of the frame pipeline with a scripted screen and clock; what it flushes goes to a
// plain viewer. Misses, acknowledgements and advertisements come back through the control
// thread's own message handler.
//
// One test program includes this once, with the fakes capture_script, clock_script,
// console_script and flush_record.
#ifndef QV_TESTS_HOST_PIPELINE_SESSION_H
#define QV_TESTS_HOST_PIPELINE_SESSION_H

#include "host/cache_mirror.h"
#include "host/control_thread.h"
#include "host/frame_pipeline.h"
#include "host/host_server.h"
#include "host/out_buffer.h"
#include "host/screen.h"
#include "host/server_wake.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/console_script.h"
#include "tests/fakes/flush_record.h"
#include "tests/host/test_desktop.h"
#include "tests/host/viewer_model.h"
#include "tests/test.h"

#include <vector>

using namespace host;

// The server's flag; the server itself has no part here.
std::atomic<uint32_t> host::host_stop_requested;

// Its pauses pass on the scripted clock, and nothing happens in them.
void host::server_pause(uint64_t us)
{
    clock_script_now += (uint32_t)((us + 999) / 1000);
}

void host::server_wake()
{
}

// ---------------------------------------------------------------------------------------
// The session and its viewer

inline viewer_model viewer;
inline host_session session;

// A session with a fresh viewer of the desktop as it is.
inline void start_session(uint16_t caps = CAP_TILE_CACHE)
{
    session.generation = session_generation;
    session.estimator = latency_start();
    session.tile_budget = TILE_BUDGET_MAX;
    session.ema_rtt16 = 0;
    session.acked_seq = frame_seq.load();
    session.confirmed_seq = frame_seq.load();
    session.session_ended = 0;
    session.waits_for_ack = 0;
    session.advert_over = 0;
    session.hello_sent_ms = clock_script_now;
    session.advert_wait_ms = 0;
    host_stop_requested = 0;
    flush_records.clear();
    flush_fails = false;
    flush_hook = nullptr;
    console_script_reset();
    frame_pipeline_start(caps);
    viewer.open(screen.screen_width, screen.screen_height);
}

// A new desktop of this size and a session that shows it.
inline void start(int32_t width, int32_t height, uint16_t caps = CAP_TILE_CACHE)
{
    lock_init(&host_lock);
    // No session while the screen gets its size: what the server does at its start.
    screen.hello_width = 0;
    screen.hello_height = 0;
    desktop_open(width, height);
    capture_script_step = desktop_capture;
    REQUIRE(screen_resize(width, height));
    start_session(caps);
}

inline void acknowledge(uint32_t seq)
{
    uint8_t ack[FRAME_ACK_BYTES];
    put_frame_stamp(ack, {seq, clock_script_now});
    control_message(&session, MSG_FRAME_ACK, ack, sizeof ack);
}

inline void advertise(const std::vector<uint64_t> &hashes)
{
    std::vector<uint8_t> payload(hashes.size() * 8 + 1);
    for (size_t i = 0; i < hashes.size(); i++)
        store_le64(&payload[i * 8], hashes[i]);
    control_message(&session, MSG_CACHE_ADVERT, payload.data(), (uint32_t)hashes.size() * 8);
}

inline void report_miss(const tile_ref &ref)
{
    uint8_t miss[CACHE_MISS_BYTES];
    put_tile_ref(miss, ref);
    control_message(&session, MSG_CACHE_MISS, miss, sizeof miss);
}

// One iteration; the messages that it flushed, applied to the viewer. Nothing comes back.
inline std::vector<model_message> step_unanswered()
{
    flush_records.clear();
    REQUIRE(frame_pipeline_step(&session));
    REQUIRE(out_used() == 0);
    if (flush_records.empty())
        return {};
    REQUIRE(flush_records.size() == 1); // one frame, one record
    REQUIRE(flush_records[0].size() <= 16777216);
    viewer.apply_record(flush_records[0]);
    std::vector<model_message> messages = model_split(flush_records[0]);
    REQUIRE(messages.back().type == MSG_FRAME_END);
    return messages;
}

// One iteration whose misses and acknowledgement come back at once.
inline std::vector<model_message> step()
{
    std::vector<model_message> messages = step_unanswered();
    if (!messages.empty()) {
        for (const tile_ref &ref : viewer.misses)
            report_miss(ref);
        acknowledge(viewer.last_end.frame_seq);
    }
    return messages;
}

inline bool tile_shown(int32_t tx, int32_t ty)
{
    return desktop_tile_shown(viewer.pixels.data(), viewer.pitch, tx, ty);
}

inline bool picture_right()
{
    return desktop_shown(viewer.pixels.data(), viewer.pitch, tiles_for(viewer.width),
                         tiles_for(viewer.height));
}

inline int count_type(const std::vector<model_message> &messages, uint8_t type)
{
    int n = 0;
    for (const model_message &m : messages)
        n += m.type == type;
    return n;
}

// Tiles of a frame, sent or referenced, in order.
inline std::vector<tile_ref> tiles_in(const std::vector<model_message> &messages)
{
    std::vector<tile_ref> tiles;
    for (const model_message &m : messages) {
        if (m.type == MSG_TILE) {
            tile_head head = get_tile_head(m.payload.data());
            tiles.push_back({head.tile_x, head.tile_y, head.hash});
        } else if (m.type == MSG_TILE_REF) {
            tiles.push_back(get_tile_ref(m.payload.data()));
        }
    }
    return tiles;
}

// The one MSG_TILE of a frame that has just one tile.
inline tile_head only_tile(const std::vector<model_message> &messages)
{
    REQUIRE(tiles_in(messages).size() == 1);
    for (const model_message &m : messages)
        if (m.type == MSG_TILE)
            return get_tile_head(m.payload.data());
    FAIL("the frame has no MSG_TILE");
    return {};
}

inline tile_base base_of(int32_t tx, int32_t ty) NO_THREAD_SAFETY_ANALYSIS
{
    return screen.bases[ty * screen.tiles_x + tx];
}

inline bool mirror_holds(uint64_t hash) NO_THREAD_SAFETY_ANALYSIS
{
    return cache_mirror_find(hash);
}

inline uint32_t mirrored() NO_THREAD_SAFETY_ANALYSIS
{
    return cache_mirror_count();
}

inline int dirty_tiles()
{
    int n = 0;
    for (int i = 0; i < screen.tiles_x * screen.tiles_y; i++)
        n += screen.dirty_map[i];
    return n;
}

inline void mirror_forget(uint64_t hash) NO_THREAD_SAFETY_ANALYSIS
{
    cache_mirror_remove(hash);
}

#endif
