// The viewer's end: the whole session, with a window that shows nothing and looks at each
// picture instead, and whoever sits before it: asks for scenes and presses keys.
#include "bench/lines/play.h"

#include "bench/bench.h"
#include "bench/lines/line_tun.h"
#include "protocol/clock.h"
#include "protocol/messages.h"
#include "protocol/net.h"
#include "viewer/frame_decode.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_session.h"
#include "viewer/viewer_window.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string.h>
#include <string>
#include <thread>

static constexpr uint64_t MS = 1000;
static constexpr uint64_t SECOND = 1000000;

static play_record *play;

// Written by the session's thread, the receive thread and the player; under guard, and what
// play_record has of the viewer's side as well.
static std::mutex guard;
static std::condition_variable changed;
static struct {
    bool opened, closed;
    bool looks_for_page;
    int page;
    uint64_t page_shown_us;
} state;

// ---------------------------------------------------------------------------------------
// Looking

static uint32_t pixel_at(int32_t x, int32_t y) REQUIRES(viewer::frame_lock)
{
    uint32_t colour = 0;
    memcpy(&colour,
           viewer::frame.frame_pixels +
               ((size_t)y * (size_t)viewer::frame.frame_stride + (size_t)x) * 4,
           sizeof colour);
    return colour;
}

static bool shows_page(const picture &page) REQUIRES(viewer::frame_lock)
{
    for (int32_t y = 0; y < PLAY_HEIGHT; y++)
        if (memcmp(viewer::frame.frame_pixels +
                       (size_t)y * (size_t)viewer::frame.frame_stride * 4,
                   &page.pixels[(size_t)y * PLAY_WIDTH], (size_t)PLAY_WIDTH * 4) != 0)
            return false;
    return true;
}

// A place that was passed over shows, for who looks at the screen, when a later one does.
static void look_for_window(uint64_t now) REQUIRES(viewer::frame_lock)
{
    for (int i = play->places - 1; i >= 0 && play->place_shown_us[i] == 0; i--) {
        if (pixel_at(PLAY_WINDOW_LEFT + i * PLAY_STEP, PLAY_WINDOW_TOP) != play_place_colour(i))
            continue;
        for (int k = i; k >= 0 && play->place_shown_us[k] == 0; k--)
            play->place_shown_us[k] = now;
        play->places_seen++;
        return;
    }
}

// ---------------------------------------------------------------------------------------
// The window

namespace viewer
{

bool viewer_window_open(const char *)
{
    std::lock_guard<std::mutex> held(guard);
    state.opened = true;
    changed.notify_all();
    return true;
}

void viewer_window_run()
{
    std::unique_lock<std::mutex> held(guard);
    changed.wait(held, [] { return state.closed; });
}

// In a frame's end, under frame_lock.
void viewer_window_post_repaint() NO_THREAD_SAFETY_ANALYSIS
{
    uint64_t now = clock_us();
    std::lock_guard<std::mutex> held(guard);
    if (state.looks_for_page && shows_page(play_pages[state.page])) {
        state.looks_for_page = false;
        state.page_shown_us = now;
    }
    if (play->scene == PLAY_VIDEO)
        for (int i = 0; i < PLAY_KEYS; i++)
            if (play->key_pressed_us[i] != 0 && play->key_shown_us[i] == 0 &&
                pixel_at(i * 8, PLAY_KEYS_TOP) == play_key_colour(i))
                play->key_shown_us[i] = now;
    if (play->scene == PLAY_DRAG)
        look_for_window(now);
    changed.notify_all();
}

void viewer_window_post_close()
{
    std::lock_guard<std::mutex> held(guard);
    state.closed = true;
    changed.notify_all();
}

} // namespace viewer

// ---------------------------------------------------------------------------------------
// Acknowledgements, which the linker sends here

static struct {
    std::mutex guard;
    std::condition_variable changed;
    struct late {
        uint64_t due_us;
        uint8_t payload[FRAME_ACK_BYTES];
    };
    std::deque<late> waiting;
} acks;

extern "C" {
bool __real__ZN6viewer21viewer_send_frame_ackEPKh(const uint8_t *payload);
bool __wrap__ZN6viewer21viewer_send_frame_ackEPKh(const uint8_t *payload);
}

bool __wrap__ZN6viewer21viewer_send_frame_ackEPKh(const uint8_t *payload)
{
    uint64_t now = clock_us();
    {
        std::lock_guard<std::mutex> held(guard);
        if (play->frames < PLAY_FRAMES_MAX) {
            play->frame_us[play->frames] = now;
            play->frame_age_ms[play->frames++] =
                (uint32_t)(now / 1000) - get_frame_stamp(payload).sent_ms;
        }
    }
    if (play->ack_late_us == 0)
        return __real__ZN6viewer21viewer_send_frame_ackEPKh(payload);
    std::lock_guard<std::mutex> held(acks.guard);
    acks.waiting.push_back({});
    acks.waiting.back().due_us = now + play->ack_late_us;
    memcpy(acks.waiting.back().payload, payload, FRAME_ACK_BYTES);
    acks.changed.notify_all();
    return true;
}

static void send_late_acks()
{
    std::unique_lock<std::mutex> held(acks.guard);
    for (;;) {
        acks.changed.wait(held, [] { return !acks.waiting.empty(); });
        auto next = acks.waiting.front();
        acks.waiting.pop_front();
        held.unlock();
        uint64_t now = clock_us();
        if (next.due_us > now)
            std::this_thread::sleep_for(std::chrono::microseconds(next.due_us - now));
        __real__ZN6viewer21viewer_send_frame_ackEPKh(next.payload);
        held.lock();
    }
}

// ---------------------------------------------------------------------------------------
// Playing

// Waits until something holds or so much time has passed.
static bool wait_until(uint64_t us, const std::function<bool()> &holds)
{
    std::unique_lock<std::mutex> held(guard);
    return changed.wait_for(held, std::chrono::microseconds(us), [&] {
        return state.closed || holds();
    }) && !state.closed;
}

static void rest(uint64_t us)
{
    (void)wait_until(us, [] { return false; });
}

// Has a page drawn that is not the one shown, waits until it is shown and returns how long that
// took; 0 when it took too long.
static uint64_t show_page(int page, uint64_t limit_us)
{
    play->scene = PLAY_REST;
    rest(60 * MS); // for what is being drawn
    {
        std::lock_guard<std::mutex> held(guard);
        state.looks_for_page = true;
        state.page = page;
    }
    play->page_us = 0;
    play->page = page;
    play->scene = PLAY_PAGE;
    bool shown = wait_until(limit_us, [] { return !state.looks_for_page; });
    std::lock_guard<std::mutex> held(guard);
    state.looks_for_page = false;
    return shown ? state.page_shown_us - play->page_us : 0;
}

// A session, until end_session; from its beginning the screen shows what the scene does. False
// when it did not come about.
static bool begin_session(std::thread *session)
{
    {
        std::lock_guard<std::mutex> held(guard);
        state.opened = state.closed = false;
    }
    *session = std::thread([] {
        std::string port = std::to_string(HOST_PORT);
        (void)viewer::viewer_session_run(line_address[LINE_HOST], port.c_str(), false, nullptr,
                                         "secret", nullptr, 0);
        viewer::viewer_window_post_close(); // it may have failed without one
    });
    return wait_until(30 * SECOND, [] { return state.opened; });
}

static void end_session(std::thread *session)
{
    viewer::viewer_session_abort();
    viewer::viewer_window_post_close();
    session->join();
}

static void play_noise()
{
    play->noise_begin_us = clock_us();
    rest(play->quick ? SECOND : 6 * SECOND);
    play->noise_end_us = clock_us();
}

static void play_returns()
{
    static_assert(PLAY_RETURNS % 2 == 0); // they end on the second page
    if (show_page(1, 10 * SECOND) == 0)
        return;
    for (int i = 0; i < (play->quick ? 2 : PLAY_RETURNS); i++) {
        rest(300 * MS);
        play->return_us[i] = show_page(i % 2, 10 * SECOND);
    }
    rest(300 * MS);
    (void)show_page(0, 10 * SECOND);
}

static void play_drag()
{
    rest(300 * MS);
    play->scene = PLAY_DRAG;
    (void)wait_until(PLAY_PLACES * PLAY_PERIOD_US + 4 * SECOND, [] {
        return play->place_shown_us[play->quick ? PLAY_PLACES / 8 : PLAY_PLACES - 1] != 0;
    });
}

static void play_typing()
{
    play->scene = PLAY_VIDEO;
    rest(SECOND);
    bench_random random = {12345};
    int count = play->quick ? 3 : PLAY_KEYS;
    for (int i = 0; i < count; i++) {
        {
            std::lock_guard<std::mutex> held(guard);
            play->key_pressed_us[i] = clock_us();
        }
        (void)viewer::viewer_send_key('A', true);
        (void)viewer::viewer_send_key('A', false);
        rest(120 * MS + random.below(60 * MS)); // at no fixed place of the video's period
    }
    (void)wait_until(4 * SECOND, [=] { return play->key_shown_us[count - 1] != 0; });
}

// All that is not noise; false when the session broke off.
static bool play_work()
{
    uint64_t begin_us = clock_us();
    if (show_page(0, play->quick ? 60 * SECOND : 10 * SECOND) != 0)
        play->first_page_us = clock_us() - begin_us;
    play_returns();
    play_drag();
    (void)show_page(0, 10 * SECOND);
    play_typing();
    std::lock_guard<std::mutex> held(guard);
    return !state.closed;
}

void play_viewer(play_record *record)
{
    play = record;
    for (int i = 0; i < 10000 && !play->listens; i++)
        clock_sleep_ms(1);
    if (play->ack_late_us != 0)
        std::thread(send_late_acks).detach();
    for (bool noise : {true, false}) {
        play->scene = noise ? PLAY_NOISE : PLAY_REST;
        std::thread session;
        bool played = begin_session(&session);
        if (played && noise)
            play_noise();
        else if (played)
            played = play_work();
        end_session(&session);
        if (!played)
            return;
    }
    play->complete = true;
}
