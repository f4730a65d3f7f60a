// Host and viewer against each other over a loopback connection: the frame pipeline and the
// control thread on one side, the receive loop with the tile cache on the other, the
// handshake and the record layer between. Only the screen, the pointer, the input queue and
// the window are scripted.
//
// Fakes: capture_script cursor_script input_record server_log_record window_none
// Fakes: console_script host_switches window_list_script cache_disk_memory
// Labels: threaded
#include "host/control_thread.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/host_server.h"
#include "host/screen.h"
#include "protocol/clock.h"
#include "protocol/handshake.h"
#include "protocol/thread.h"
#include "tests/fakes/cache_disk_memory.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/input_record.h"
#include "tests/fakes/server_log_record.h"
#include "tests/host/test_desktop.h"
#include "tests/socket_pair.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <atomic>
#include <string.h>

// The server's flag; the test is the server here.
std::atomic<uint32_t> host::host_stop_requested;

// ---------------------------------------------------------------------------------------
// The host's side

struct host_side {
    net_socket sock;
    int rounds;             // captures with changes before the screen rests,
    std::atomic<bool> held; // counted from when this is off
    uint32_t resize_one_in; // of so many captures one finds another size; 0: none
    test_random *random;
    uint32_t advert_wait_ms; // how long the first frame waits for the viewer's advertisement
    std::atomic<bool> authenticated;
    std::atomic<bool> joined; // the control thread ended when its connection did
};

static void read_password(char password[PASSWORD_MAX + 1])
{
    strcpy(password, "correct horse");
}

// Whether nothing is under way any more: every frame is really acknowledged, so every miss
// was acted on, and no tile that the viewer has is to be examined.
static bool at_rest(const host::host_session *session)
{
    using host::screen;
    if (session->confirmed_seq != host::frame_seq)
        return false;
    for (int32_t ty = 0; ty < tiles_for(screen.hello_height); ty++)
        for (int32_t tx = 0; tx < tiles_for(screen.hello_width); tx++)
            if (tx < screen.tiles_x && ty < screen.tiles_y &&
                screen.dirty_map[ty * screen.tiles_x + tx] != 0)
                return false;
    return desktop.dirty.empty() && !desktop.restarted;
}

static host::capture_result scripted_step(host_side *side, host::host_session *session)
{
    if (side->rounds > 0) {
        if (!side->held)
            side->rounds--;
        for (uint64_t n = side->random->below(4); n > 0; n--)
            desktop_random_change(side->random);
        if (side->random->below(50) == 0)
            desktop.restarted = true;
        if (side->resize_one_in != 0 && side->random->below(side->resize_one_in) == 0) {
            resize_desktop(64 + (int32_t)side->random->below(300),
                           64 + (int32_t)side->random->below(300));
            fill(whole(), RED);
        }
        if (side->random->below(2) == 0)
            clock_sleep_ms(1);
    } else if (at_rest(session)) {
        host::host_stop_requested = 1;
    } else {
        clock_sleep_ms(1);
    }
    return desktop_capture();
}

// One session, from the handshake to the last wipe, as the server runs it.
static void host_thread(void *argument)
{
    host_side *side = (host_side *)argument;
    if (!handshake_as_host(&host::host_channel, side->sock, read_password, {}))
        return;
    side->authenticated = true;
    host::host_session *session = host::session_create(side->sock, host::frame_seq);
    session->hello_sent_ms = clock_ms();
    session->advert_wait_ms = side->advert_wait_ms;
    channel_take_receiver(&host::host_channel, &session->receiver);
    host::frame_pipeline_start(CAP_TILE_CACHE);
    capture_script_step = [=] { return scripted_step(side, session); };

    session->owners.fetch_add(1);
    thread *control = thread_start(host::control_thread, session);
    host::frame_pipeline_run(session);
    net_abort(side->sock);
    side->joined = thread_join(control, 10000);
    host::session_retire();
    channel_reset(&host::host_channel);
    host::session_release(session);
}

// ---------------------------------------------------------------------------------------
// The viewer's side

struct connection {
    host_side host;
    net_socket viewer_sock;
    thread *host_runs;
    thread *viewer_receives;
    bool advertises; // the viewer tells what its cache's file holds, or that it holds nothing
};

// Connects a viewer whose cache has cache_slots slots to a host with a screen of this size.
static void connect_session(connection *c, int32_t width, int32_t height, uint32_t cache_slots,
                            void (*draw)(test_random *) = nullptr)
{
    lock_init(&host::host_lock);
    lock_init(&viewer::frame_lock);
    viewer::viewer_channel_init();
    host::host_stop_requested = 0;
    server_log_clear();

    host::screen.hello_width = 0;
    host::screen.hello_height = 0;
    desktop_open(width, height);
    REQUIRE(host::screen_resize(width, height));
    fill(whole(), BLUE);
    if (draw)
        draw(c->host.random);

    socket_pair pair = socket_pair_open();
    net_set_nodelay(pair.host);
    net_set_nodelay(pair.viewer);
    c->host.sock = pair.host;
    c->viewer_sock = pair.viewer;
    REQUIRE(viewer::frame_open(width, height));
    if (!c->advertises) // no host waits for it then
        viewer::tile_cache_open();
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache.cache_capacity = cache_slots; // fewer than it has memory for
    lock_leave(&viewer::frame_lock);

    c->host_runs = thread_start(host_thread, &c->host);
    REQUIRE(c->host_runs != nullptr);
    REQUIRE(handshake_as_viewer(&viewer::viewer_channel, c->viewer_sock, "correct horse"));
    if (c->advertises) {
        viewer::tile_cache_open();
        // A message of any other kind: the end of what is advertised.
        REQUIRE(viewer::viewer_send_key(0, false));
    }
    c->viewer_receives = thread_start(viewer::viewer_recv_thread, nullptr);
    REQUIRE(c->viewer_receives != nullptr);
}

// Waits for both sides to end. The picture stays.
static void wait_session(connection *c)
{
    REQUIRE(thread_join(c->host_runs, 120000));
    REQUIRE(thread_join(c->viewer_receives, 120000));
    net_close(c->viewer_sock);
    channel_reset(&viewer::viewer_channel);
    CHECK(c->host.authenticated);
    CHECK(c->host.joined);
}

static bool picture_right()
{
    lock_enter(&viewer::frame_lock);
    bool right =
        desktop_shown(viewer::frame.frame_pixels, (size_t)viewer::frame.frame_stride * 4,
                      viewer::frame.frame_stride / 64, viewer::frame.frame_rows / 64);
    lock_leave(&viewer::frame_lock);
    return right;
}

static void close_viewer()
{
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache_close();
    lock_leave(&viewer::frame_lock);
    viewer::frame_close();
}

// ---------------------------------------------------------------------------------------

TEST_CASE("at rest the viewer shows the screen, whatever was drawn, moved and missed")
{
    test_random random = test_random_seeded("sessions");
    uint32_t frames = 0, hits = 0, misses = 0;
    for (int i = 0; i < 12; i++) {
        // Caches from one set of two ways, which misses all the time, to what fits all.
        uint32_t slots = i % 4 == 3 ? viewer::CACHE_CAPACITY : 2u << random.below(3);
        connection c = {};
        c.host.rounds = 200;
        c.host.resize_one_in = i % 3 == 2 ? 50 : 0;
        c.host.random = &random;
        connect_session(&c, 100 + (int32_t)random.below(250), 70 + (int32_t)random.below(250),
                        slots);
        wait_session(&c);
        CHECK(picture_right());
        frames += viewer::statistics.stat_frames;
        hits += viewer::statistics.stat_hits;
        misses += viewer::statistics.stat_misses;
        CHECK(server_log_lines().back() == "client disconnected");
        close_viewer();
    }
    // The road was what it was meant to be. On a busy machine few rounds become frames.
    CHECK(frames > 24);
    CHECK(hits > 0);
    CHECK(misses > 0);
}

// Programs with text in them: no tile like another, none of them noise.
static void draw_programs(test_random *random)
{
    for (int32_t ty = 0; ty < tiles_for(desktop.height); ty++)
        for (int32_t tx = 0; tx < tiles_for(desktop.width); tx++) {
            rect tile = tile_rect(tx, ty);
            fill(tile, 0x00F0F0F0);
            for (int i = 0; i < 60; i++) {
                int32_t x = tile.left + (int32_t)random->below(56);
                int32_t y = tile.top + (int32_t)random->below(56);
                fill({x, y, x + 1 + (int32_t)random->below(7),
                      y + 1 + (int32_t)random->below(7)},
                     0x00202020);
            }
        }
}

TEST_CASE("a desktop that was seen before costs a hundredth part or so")
{
    // 20 by 16 tiles, always the same, so that no three of them fall into one set of the
    // cache: it has only room for two. The first connection of an empty cache, then one that
    // finds what the first has kept.
    disk_memory_reset();
    test_random random = {2};
    test_random same = random;
    uint32_t bytes[2] = {};
    for (uint32_t &cost : bytes) {
        random = same;
        connection c = {};
        c.host.random = &random;
        c.host.advert_wait_ms = 600000; // what ends the wait is the advertisement
        c.advertises = true;
        connect_session(&c, 1280, 1024, viewer::CACHE_CAPACITY, draw_programs);
        wait_session(&c);
        CHECK(picture_right());
        REQUIRE(viewer::statistics.stat_misses == 0);
        cost = viewer::statistics.stat_bytes;
        lock_enter(&viewer::frame_lock);
        viewer::tile_cache_save();
        lock_leave(&viewer::frame_lock);
        close_viewer();
    }
    CHECK(viewer::statistics.stat_hits == 320);
    CAPTURE(bytes[0]);
    CAPTURE(bytes[1]);
    CHECK(bytes[0] > 320 * 200);
    CHECK((uint64_t)bytes[1] * 100 <= (uint64_t)bytes[0] * 3);
    disk_memory_reset(true);
}

TEST_CASE("a flood of input reaches the host in order while frames stream the other way")
{
    constexpr size_t PRESSES = 10000;
    test_random random = test_random_seeded("input");
    input_record_clear();
    connection c = {};
    c.host.rounds = 100;
    c.host.held = true;
    c.host.random = &random;
    connect_session(&c, 300, 200, 8);
    // This thread stands for the window's: it sends beside the receive thread's answers. The
    // host comes to rest after frames that it begins when all of this was sent, so it reads
    // this before their acknowledgements.
    for (size_t i = 0; i < PRESSES; i++) {
        uint16_t key = (uint16_t)('A' + i % 26);
        REQUIRE(viewer::viewer_send_key(key, true));
        REQUIRE(viewer::viewer_send_key(key, false));
    }
    c.host.held = false;
    wait_session(&c);
    CHECK(picture_right());
    close_viewer();

    int wrong = 0;
    std::vector<std::vector<host::input_event>> calls = input_record_calls();
    REQUIRE(calls.size() >= 2 * PRESSES);
    for (size_t i = 0; i < 2 * PRESSES; i++)
        wrong += calls[i].size() != 1 || !calls[i][0].keyboard ||
                 calls[i][0].virtual_key != 'A' + i / 2 % 26;
    CHECK(wrong == 0);
}

TEST_CASE("misses without end meet a screen that goes on changing its size")
{
    test_random random = test_random_seeded("misses"), forger = random;
    for (int i = 0; i < 3; i++) {
        connection c = {};
        c.host.rounds = 50;
        c.host.held = true;
        c.host.resize_one_in = 4;
        c.host.random = &random;
        connect_session(&c, 200, 150, 8);
        // Of tiles inside the screen and outside, sent or not, beside the receive thread's.
        for (int n = 0; n < 3000; n++)
            REQUIRE(viewer::viewer_send_cache_miss(
                {(uint16_t)forger.below(7), (uint16_t)forger.below(7), forger.below(1000)}));
        c.host.held = false;
        wait_session(&c);
        CHECK(picture_right());
        close_viewer();
    }
}

TEST_CASE("a viewer that leaves ends the session on the host, frames or not")
{
    test_random random = test_random_seeded("leaving");
    for (int i = 0; i < 4; i++) {
        connection c = {};
        c.host.rounds = 1000000; // it would draw for ever
        c.host.random = &random; // the host thread's from here on
        uint32_t stay_ms = (uint32_t)random.below(60);
        connect_session(&c, 300, 200, 8);
        clock_sleep_ms(stay_ms);
        net_abort(c.viewer_sock);
        wait_session(&c);
        CHECK(host::host_stop_requested == 0);
        CHECK(server_log_lines().back() == "client disconnected");
        close_viewer();
    }
}
