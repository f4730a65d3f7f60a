// Fakes: stepped random_desktop identity_script input_record server_log_record window_posts
// Fakes: console_script cache_disk_memory
//
// A desktop that was seen before, over a line on which every byte takes its time: the whole
// host server against the viewer's receive loop and cache, whose file is opened and saved as
// a session does. Time passes only where nobody has anything to do before it does, so what
// the first walk waits for is told to the millisecond, on a machine of any load.
#include "host/capture.h"
#include "host/console.h"
#include "host/cursor.h"
#include "host/frame_pipeline.h"
#include "host/host_platform.h"
#include "host/host_server.h"
#include "host/screen.h"
#include "protocol/handshake.h"
#include "protocol/messages.h"
#include "tests/fakes/cache_disk_memory.h"
#include "tests/fakes/console_script.h"
#include "tests/fakes/identity_script.h"
#include "tests/fakes/random_desktop.h"
#include "tests/fakes/stepped.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <deque>
#include <string.h>

host::cursor_state host::cursor_read()
{
    return {.x = 0, .y = 0, .visible = 0};
}

void host::host_platform_dpi_aware()
{
}

void host::host_platform_real_time()
{
}

// ---------------------------------------------------------------------------------------
// The line

struct under_way {
    uint32_t due;
    size_t bytes;
};

static struct {
    uint32_t trip_ms; // there and back
    std::deque<under_way> way[2];
    uint64_t to_viewer; // bytes
} line;

static stepped_thread *server, *receiver;

static bool note_sends(net_socket, const uint8_t *, size_t n)
{
    stepped_direction direction = stepped_self() == server ? TO_VIEWER : TO_HOST;
    uint32_t there = line.trip_ms / 2;
    line.way[direction].push_back({stepped_clock + there, n});
    if (direction == TO_VIEWER)
        line.to_viewer += n;
    return true;
}

static void let_arrive()
{
    for (int direction = 0; direction < 2; direction++) {
        std::deque<under_way> &way = line.way[direction];
        while (!way.empty() && (int32_t)(stepped_clock - way.front().due) >= 0) {
            stepped_deliver((stepped_direction)direction, way.front().bytes);
            way.pop_front();
        }
    }
}

// What can happen at this moment happens; then the server goes on to its next pause, in which
// time passes, or the clock moves on by a millisecond.
static void pass()
{
    for (bool any = true; any;) {
        any = false;
        let_arrive();
        for (stepped_thread *t : stepped_threads())
            if (t != server && stepped_can_run(t)) {
                stepped_run(t);
                any = true;
            }
    }
    if (stepped_can_run(server))
        stepped_run(server);
    else
        stepped_clock++;
}

// ---------------------------------------------------------------------------------------
// Both ends

static void serve(void *)
{
    CHECK(host::host_server_run() == 0);
}

static void view(void *argument)
{
    net_socket sock = *(net_socket *)argument;
    REQUIRE(handshake_as_viewer(&viewer::viewer_channel, sock, "secret"));
    uint8_t message[MESSAGE_HEADER_BYTES + SERVER_HELLO_BYTES];
    put_header(message, MSG_CLIENT_HELLO, CLIENT_HELLO_BYTES);
    put_client_hello(message + MESSAGE_HEADER_BYTES, CAP_TILE_CACHE | CAP_TEXT_LAYER, "v");
    REQUIRE(viewer::viewer_send(message, MESSAGE_HEADER_BYTES + CLIENT_HELLO_BYTES));
    REQUIRE(viewer::viewer_recv(message, sizeof message));
    server_hello hello = get_server_hello(message + MESSAGE_HEADER_BYTES);
    REQUIRE(viewer::frame_open(hello.width, hello.height));
    viewer::tile_cache_open();
    viewer::viewer_recv_thread(nullptr);
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache_save();
    viewer::tile_cache_close();
    lock_leave(&viewer::frame_lock);
    net_abort(sock);
    net_close(sock);
    channel_reset(&viewer::viewer_channel);
}

// 20 by 16 tiles of programs with text in them: no tile like another, none of them noise, and
// no three in one set of the cache.
static void draw_programs()
{
    desktop_open(1280, 1024);
    desktop.calm = true;
    rnd.state = 2;
    for (uint32_t &pixel : desktop.pixels)
        pixel = 0x00F0F0F0;
    for (int32_t ty = 0; ty < 16; ty++)
        for (int32_t tx = 0; tx < 20; tx++)
            for (int32_t i = 0; i < 60; i++) {
                int32_t x = tx * 64 + below(56), w = 1 + below(7);
                int32_t y = ty * 64 + below(56), h = 1 + below(7);
                for (int32_t row = y; row < y + h; row++)
                    for (int32_t column = x; column < x + w; column++)
                        desktop.pixels[(size_t)(row * desktop.width + column)] = 0x00202020;
            }
}

static bool desktop_shown() NO_THREAD_SAFETY_ANALYSIS
{
    using viewer::frame;
    for (int32_t y = 0; frame.frame_pixels && y < desktop.height; y++)
        if (memcmp(frame.frame_pixels + (size_t)y * (size_t)frame.frame_stride * PIXEL_BYTES,
                   &desktop.pixels[(size_t)y * (size_t)desktop.width],
                   (size_t)desktop.width * PIXEL_BYTES) != 0)
            return false;
    return frame.frame_pixels != nullptr;
}

// One connection, until the picture is complete; returns the bytes that it took.
static uint64_t connect_once()
{
    static net_socket sock;
    line.way[TO_HOST].clear();
    line.way[TO_VIEWER].clear();
    line.to_viewer = 0;
    viewer::frame_close();
    sock = stepped_connect(SIZE_MAX);
    receiver = stepped_start(view, &sock);
    for (int i = 0; !desktop_shown(); i++) {
        REQUIRE(i < 1000000);
        pass();
    }
    uint64_t bytes = line.to_viewer;
    net_abort(sock);
    for (int i = 0; stepped_threads().size() > 1; i++) {
        REQUIRE(i < 1000000);
        pass();
    }
    return bytes;
}

TEST_CASE("a desktop that was seen before costs 3 % of its first time, over a long line too")
{
    stepped_hook = {.stops = nullptr,
                    .started = nullptr,
                    .locked = nullptr,
                    .unlocking = nullptr,
                    .sends = note_sends};
    viewer::viewer_channel_init();
    draw_programs();
    identity_script_reset(0);
    console_script_reset();
    for (bool duplicates : {false, true}) {
        // From hello to advertisement it takes a round trip, for which the host waits up to
        // a second. On a longer line what it sends then is sent for nothing: the first screen,
        // or as much of it as the limit in bytes lets out before anything is acknowledged.
        static const struct {
            uint32_t trip_ms;
            bool paces_bytes;
        } rows[] = {{0, true},    {100, true},   {300, true}, {900, true},
                    {900, false}, {1200, false}, {1200, true}};
        for (auto &row : rows) {
            CAPTURE(duplicates);
            CAPTURE(row.trip_ms);
            CAPTURE(row.paces_bytes);
            line.trip_ms = row.trip_ms;
            host::paces_bytes = row.paces_bytes;
            desktop.duplicates = duplicates;
            disk_memory_reset();
            stepped_net_reset();
            host::host_stop_requested = 0;
            server = stepped_start(serve, nullptr);

            uint64_t first = connect_once();
            CHECK(viewer::statistics.stat_hits == 0);
            CHECK(first > 320 * 200); // it is no picture that costs nothing
            uint64_t second = connect_once();
            CAPTURE(first);
            CAPTURE(second);
            if (row.trip_ms <= 1000) {
                CHECK(viewer::statistics.stat_hits == 320);
                CHECK(second * 100 <= first * 3);
            } else if (row.paces_bytes) {
                CHECK(viewer::statistics.stat_hits > 200);
                CHECK(second * 4 <= first);
            } else {
                CHECK(second * 100 > first * 90);
            }

            host::host_stop();
            stepped_end_listening();
            while (stepped_at(server) != AT_END)
                pass();
        }
    }
    host::paces_bytes = true;
    disk_memory_reset(true);
}
