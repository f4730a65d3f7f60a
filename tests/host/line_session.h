// A session of the frame pipeline on a simulated line, for tests that include this once.
//
// The line is a queue with a rate, a size beyond which it would drop, and a round trip. All of
// it, the host's pauses, copies of the screen and the viewer's answers, passes on one simulated
// clock; the pipeline, the control thread's messages and the pace of copies are whole. One
// thread, so a run is the same each time.
//
// The program needs the fakes capture_script cursor_script flush_record input_record
// server_log_record console_script host_switches window_list_script.
#ifndef QV_TESTS_HOST_LINE_SESSION_H
#define QV_TESTS_HOST_LINE_SESSION_H

#include "host/capture_pace.h"
#include "host/control_thread.h"
#include "host/frame_pipeline.h"
#include "host/host_server.h"
#include "host/out_buffer.h"
#include "host/screen.h"
#include "host/server_wake.h"
#include "protocol/clock.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/cursor_script.h"
#include "tests/fakes/flush_record.h"
#include "tests/fakes/server_log_record.h"
#include "tests/host/test_desktop.h"
#include "tests/host/viewer_model.h"
#include "tests/test.h"

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

using namespace host;

std::atomic<uint32_t> host::host_stop_requested;

constexpr uint64_t MS = 1000;
constexpr uint64_t SECOND = 1000000;
constexpr uint64_t NEVER = UINT64_MAX;
constexpr uint64_t SOCKET_BUFFER = 1048576;
constexpr uint64_t RECORD_OVERHEAD = 40 + 54 * 4; // sealing; IP and TCP, about

// ---------------------------------------------------------------------------------------
// Time: what is to happen, in order

inline uint64_t now_us;
inline uint64_t tick_us = MS; // steps of the coarse clock
inline std::multimap<uint64_t, std::function<void()>> to_happen;
inline bool woken;

inline void at(uint64_t us, const std::function<void()> &what)
{
    to_happen.insert({us, what});
}

// Lets time pass up to there or, if asked for, until something wakes the server.
inline void pass_until(uint64_t us, bool until_woken)
{
    while (!to_happen.empty() && to_happen.begin()->first <= us) {
        if (until_woken && woken)
            break;
        auto first = to_happen.begin();
        now_us = std::max(now_us, first->first);
        auto what = first->second;
        to_happen.erase(first);
        what();
    }
    if (!(until_woken && woken))
        now_us = std::max(now_us, us);
}

uint32_t clock_ms()
{
    return (uint32_t)(now_us / tick_us * tick_us / MS);
}

uint64_t clock_us()
{
    return now_us;
}

void clock_sleep_ms(uint32_t ms)
{
    pass_until(now_us + ms * MS, false);
}

void host::server_pause(uint64_t us)
{
    REQUIRE(us > 0);
    pass_until(now_us + (us + 999) / 1000 * 1000, true);
    woken = false;
}

void host::server_wake()
{
    woken = true;
}

// ---------------------------------------------------------------------------------------
// The line, the viewer at its end and the session

inline struct {
    uint64_t rate, trip_us, queue_us; // bytes a second
    uint64_t ack_late_us;
    bool silent;      // the viewer's answers are lost
    uint64_t free_us; // when it has carried what it has
    uint64_t dropped; // records that found the queue too long
    uint64_t bytes;   // of all records
    int captures;
    std::vector<uint64_t> queue; // found by each record
} line;

// What the viewer makes of a record: the plain model, unless a test sets another.
struct line_answer {
    std::vector<tile_ref> misses;
    frame_stamp stamp;
};
inline viewer_model model;
inline std::function<line_answer(const std::vector<uint8_t> &record)> viewer_takes;
inline host_session session;
inline std::function<void()> on_shown; // after each record, when the viewer has it

inline line_answer model_takes(const std::vector<uint8_t> &record)
{
    model.apply_record(record);
    return {model.misses, model.last_end};
}

inline void answer(const line_answer &said)
{
    for (const tile_ref &ref : said.misses) {
        uint8_t miss[CACHE_MISS_BYTES];
        put_tile_ref(miss, ref);
        control_message(&session, MSG_CACHE_MISS, miss, sizeof miss);
    }
    uint8_t ack[FRAME_ACK_BYTES];
    put_frame_stamp(ack, said.stamp);
    control_message(&session, MSG_FRAME_ACK, ack, sizeof ack);
}

inline void send_record()
{
    std::vector<uint8_t> record(out_bytes(), out_bytes() + out_used());
    uint64_t bytes = record.size() + RECORD_OVERHEAD;
    line.bytes += bytes;
    // More than the socket takes is waited for.
    uint64_t room_us = SOCKET_BUFFER * SECOND / line.rate;
    line.free_us = std::max(line.free_us, now_us);
    line.queue.push_back(line.free_us - now_us);
    line.free_us += bytes * SECOND / line.rate;
    line.dropped += line.free_us - now_us > line.queue_us;
    uint64_t there_us = line.free_us + line.trip_us / 2;
    at(there_us, [=] {
        line_answer said = viewer_takes(record);
        if (!line.silent)
            at(now_us + line.trip_us / 2 + line.ack_late_us, [=] { answer(said); });
        if (on_shown)
            on_shown();
    });
    if (line.free_us - now_us > room_us)
        pass_until(line.free_us - room_us, false);
}

inline uint64_t copy_end_us;

inline capture_result capture()
{
    capture_pace_wait(copy_end_us);
    line.captures++;
    capture_result result = desktop_capture();
    copy_end_us = now_us;
    return result;
}

// A session over this line that shows a desktop of this size, black at first. The handshake
// took the line's round trip, twice.
inline void start(int32_t width, int32_t height, uint64_t rate, uint64_t trip_us,
                  uint16_t caps = CAP_TILE_CACHE)
{
    to_happen.clear();
    woken = false;
    now_us = 100 * SECOND;
    tick_us = MS;
    copy_end_us = 0;
    line = {};
    line.rate = rate;
    line.trip_us = trip_us;
    line.queue_us = 200 * MS;
    on_shown = nullptr;
    paces_bytes = true;
    cursor_script_now = {};
    server_log_clear();
    flush_records.clear();
    flush_hook = send_record;
    capture_script_step = capture;

    lock_init(&host_lock);
    screen.hello_width = 0;
    screen.hello_height = 0;
    desktop_open(width, height);
    REQUIRE(screen_resize(width, height));
    session.generation = session_generation;
    session.estimator = latency_start();
    session.tile_budget = TILE_BUDGET_MAX;
    session.ema_rtt16 = 0;
    session.acked_seq = frame_seq.load();
    session.confirmed_seq = frame_seq.load();
    session.session_ended = 0;
    session.waits_for_ack = 0;
    session.acks_put = session.acks_taken = 0;
    session.advert_over = 1;
    session.key_trip_us = session.hello_trip_us = trip_us;
    frame_pipeline_start(caps);
    model.open(width, height);
    viewer_takes = model_takes;
}

inline void run_until(uint64_t us)
{
    while (now_us < us) {
        uint64_t before = now_us;
        int captures = line.captures;
        flush_records.clear();
        REQUIRE(frame_pipeline_step(&session));
        REQUIRE((now_us > before || line.captures > captures)); // it never spins
    }
}

inline void run_for(uint64_t us)
{
    run_until(now_us + us);
}

// A key goes down at the viewer now.
inline void press_key()
{
    at(now_us + line.trip_us / 2, [] {
        uint8_t key[KEY_BYTES];
        store_le32(key, 0x10041);
        control_message(&session, MSG_KEY, key, sizeof key);
    });
}

inline bool picture_right()
{
    for (int32_t y = 0; y < desktop.height; y++)
        if (memcmp(&model.pixels[(size_t)y * model.pitch], desktop_at(0, y),
                   (size_t)desktop.width * 4) != 0)
            return false;
    return true;
}

// ---------------------------------------------------------------------------------------
// What is shown

inline test_random random_pixels = {0x1234567};

inline void draw_noise(rect r)
{
    fill_noise(r, &random_pixels);
}

// Something like a page of text: short runs of two colours that differ from page to page.
inline void draw_page(rect r, uint32_t ink)
{
    for (int32_t y = r.top; y < r.bottom; y++)
        for (int32_t x = r.left; x < r.right; x++) {
            bool line_of_text = y % 16 < 10;
            bool letter =
                (((uint32_t)(x / 3) * 2654435761u ^ (uint32_t)(y / 4) * 40503u ^ ink) >> 13 &
                 3) == 0;
            store_le32(desktop_at(x, y),
                       line_of_text && letter ? 0xFF000000 | ink : 0xFFFFFFFF);
        }
    desktop.dirty.push_back(r);
}

// Full-rate video in a window: new noise there for as long as until says.
inline void play_video(rect r, uint64_t until_us)
{
    draw_noise(r);
    if (now_us + 33 * MS < until_us)
        at(now_us + 33 * MS, [=] { play_video(r, until_us); });
}

#endif
