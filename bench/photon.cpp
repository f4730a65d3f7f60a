// Input to photon on one machine: a real session over a loopback connection, with the host's
// server and control threads and the viewer's receive thread, and this thread as the
// viewer's window.
//
//   here              viewer_send_key                          key
//   control thread    input_send: the "program" draws a block  change
//   host server       capture_step sees it                     capture
//   viewer receive    frame end: the block is in the picture   pixel
//
// Between change and capture the host waits for the system, not for us: a duplication reports
// a change at once, GDI is asked every 16 ms. That wait has a line of its own. All times here
// are real time, and the other side, a message of the same size there and back between two
// threads over loopback, is what waking a thread through a socket twice costs on this machine.
#include "bench/photon.h"

#include "bench/screens.h"
#include "bench/session.h"
#include "bench/window.h"
#include "host/input.h"
#include "host/screen.h"
#include "protocol/thread.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/server_log_record.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string.h>
#include <unistd.h>

static constexpr int32_t WIDTH = 1920, HEIGHT = 1080;
static constexpr uint32_t KEY_UP = 0x0002; // KEYEVENTF_KEYUP
static constexpr int32_t BLOCK = 16;       // side of what a key press draws
static constexpr int64_t GDI_PERIOD_NS = 16000000;
static constexpr std::chrono::milliseconds DUPLICATION_WAIT(2);
static constexpr std::chrono::seconds LIMIT(20); // for one key press; never reached

// The desktop: what a key press draws on, and when what happened to the last one.
static std::mutex guard;
static std::condition_variable drawn, shown;
static struct {
    picture screen;
    bool duplication;
    bool changed;
    area block;
    uint32_t colour;                // of the block that the last key drew; each key has another
    int64_t change, capture, pixel; // 0: not yet
    bool seen;                      // in the viewer's picture
    int64_t last_copy;
} desktop;

namespace host
{

void input_send(const input_event *events, int32_t count)
{
    std::lock_guard<std::mutex> held(guard);
    if (count < 1 || !events[0].keyboard || (events[0].flags & KEY_UP) || desktop.change)
        return;
    draw_fill(&desktop.screen, desktop.block, desktop.colour);
    desktop.changed = true;
    desktop.change = bench_now();
    drawn.notify_all();
}

} // namespace host

static host::capture_result take_picture()
{
    const uint8_t *pixels = (const uint8_t *)desktop.screen.pixels.data();
    std::unique_lock<std::mutex> held(guard);
    if (desktop.duplication) {
        if (!drawn.wait_for(held, DUPLICATION_WAIT, [] { return desktop.changed; }))
            return host::CAPTURE_NOTHING;
    } else {
        held.unlock();
        int64_t left = desktop.last_copy + GDI_PERIOD_NS - bench_now();
        if (left > 0)
            usleep((useconds_t)(left / 1000 + 1));
        held.lock();
    }
    area a = desktop.duplication ? desktop.block : picture_area(desktop.screen);
    if (desktop.changed) {
        desktop.changed = false;
        desktop.capture = bench_now();
    }
    host::capture_copy_rect(pixels, (int64_t)WIDTH * 4, a.left, a.top, a.right, a.bottom);
    desktop.last_copy = bench_now();
    return host::CAPTURE_FRAME;
}

// On the receive thread, in a frame's end, under frame_lock.
static void look_at_picture() NO_THREAD_SAFETY_ANALYSIS
{
    int64_t now = bench_now();
    std::lock_guard<std::mutex> held(guard);
    uint32_t colour = 0;
    memcpy(&colour,
           viewer::frame.frame_pixels +
               ((size_t)desktop.block.top * (size_t)viewer::frame.frame_stride +
                (size_t)desktop.block.left) *
                   4,
           sizeof colour);
    if (desktop.seen || !desktop.change || colour != desktop.colour)
        return;
    desktop.pixel = now;
    desktop.seen = true;
    shown.notify_all();
}

// ---------------------------------------------------------------------------------------
// The session

struct ends {
    net_socket host, viewer;
};

static bool connect_ends(ends *e)
{
    *e = {NET_INVALID, NET_INVALID};
    net_start();
    for (uint32_t i = 0; i < 1000; i++) {
        uint16_t port = (uint16_t)(10000 + ((uint32_t)getpid() * 97 + i) % 20000);
        net_socket listener = net_listen(port, 1);
        if (listener == NET_INVALID)
            continue;
        if (net_connect("127.0.0.1", std::to_string(port).c_str(), false, &e->viewer) ==
            NET_CONNECTED)
            e->host = net_accept(listener);
        net_close(listener);
        break;
    }
    if (e->host == NET_INVALID)
        return false;
    net_set_nodelay(e->host);
    net_set_nodelay(e->viewer);
    return true;
}

static void host_thread(void *argument)
{
    bench_serve(*(net_socket *)argument, 0);
}

static void echo_thread(void *argument)
{
    net_socket sock = *(net_socket *)argument;
    uint8_t message[64];
    while (net_recv_all(sock, message, sizeof message, {}) &&
           net_send_all(sock, message, sizeof message)) {
    }
}

struct press {
    double key, wait, rest, echo; // to the change, to the capture, to the pixel; nanoseconds
};

// Presses a key and waits until it shows.
static bool press_key(bench_random *random, uint32_t number, press *taken)
{
    std::unique_lock<std::mutex> held(guard);
    int32_t x = (int32_t)random->below(WIDTH - BLOCK);
    int32_t y = (int32_t)random->below(HEIGHT - BLOCK);
    desktop.block = {x, y, x + BLOCK, y + BLOCK};
    desktop.colour = 0xFF000000 | (number * 2654435761u) >> 8;
    desktop.seen = false;
    desktop.change = desktop.capture = desktop.pixel = 0;
    held.unlock();

    int64_t start = bench_now();
    if (!viewer::viewer_send_key('A', true))
        return false;
    held.lock();
    if (!shown.wait_for(held, LIMIT, [] { return desktop.seen; }))
        return false;
    taken->key = (double)(desktop.change - start);
    taken->wait = (double)(desktop.capture - desktop.change);
    taken->rest = (double)(desktop.pixel - desktop.capture);
    held.unlock();
    return viewer::viewer_send_key('A', false);
}

static bool echo_once(net_socket sock, press *taken)
{
    uint8_t message[64] = {1};
    int64_t start = bench_now();
    if (!net_send_all(sock, message, sizeof message) ||
        !net_recv_all(sock, message, sizeof message, {}))
        return false;
    taken->echo = (double)(bench_now() - start);
    return true;
}

static bool press_keys(int32_t count, net_socket echo, std::vector<press> *all)
{
    if (!bench_join(viewer::viewer_channel.sender.sock))
        return false;
    thread *receive = thread_start(viewer::viewer_recv_thread, nullptr);
    if (!receive)
        return false;
    bench_random random = {99};
    bool right = true;
    for (int32_t i = 0; i < count && right; i++) {
        press taken = {};
        right = press_key(&random, (uint32_t)i + 1, &taken) && echo_once(echo, &taken);
        if (i > 0) // the first one waits for the session's first picture
            all->push_back(taken);
        // At no fixed distance from the last capture.
        usleep(desktop.duplication ? 500 + random.below(3000) : random.below(20000));
    }
    net_abort(viewer::viewer_channel.sender.sock);
    thread_join(receive, THREAD_WAIT_FOREVER);
    return right;
}

static bool run_session(bool duplication, int32_t count, std::vector<press> *all)
{
    lock_init(&host::host_lock);
    lock_init(&viewer::frame_lock);
    viewer::viewer_channel_init();
    host::screen.hello_width = host::screen.hello_height = 0;
    desktop.duplication = duplication;
    desktop.screen = picture_make(WIDTH, HEIGHT, 0);
    draw_desktop(&desktop.screen, 0);
    ends session, echo;
    if (!host::screen_resize(WIDTH, HEIGHT) || !viewer::frame_open(WIDTH, HEIGHT) ||
        !connect_ends(&session) || !connect_ends(&echo))
        return false;
    // The session's first picture: duplication has nothing to report of a screen at rest.
    host::capture_copy_rect((const uint8_t *)desktop.screen.pixels.data(), (int64_t)WIDTH * 4,
                            0, 0, WIDTH, HEIGHT);
    viewer::tile_cache_open();
    capture_script_step = take_picture;
    window_on_repaint = look_at_picture;

    thread *server = thread_start(host_thread, &session.host);
    thread *answers = thread_start(echo_thread, &echo.host);
    channel_open(&viewer::viewer_channel, session.viewer);
    bool right = server && answers && press_keys(count, echo.viewer, all);

    net_abort(session.viewer);
    net_abort(echo.viewer);
    if (server)
        thread_join(server, THREAD_WAIT_FOREVER);
    if (answers)
        thread_join(answers, THREAD_WAIT_FOREVER);
    net_close(session.viewer);
    net_close(echo.viewer);
    net_close(echo.host);
    channel_reset(&viewer::viewer_channel);
    capture_script_step = nullptr;
    window_on_repaint = nullptr;
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache_close();
    lock_leave(&viewer::frame_lock);
    viewer::frame_close();
    server_log_clear();
    desktop.screen = {};
    return right;
}

// ---------------------------------------------------------------------------------------
// Lines

template <class function>
static void add_line(std::vector<bench_line> *lines, const std::string &name,
                     const std::vector<press> &all, bool right, function value)
{
    bench_line line;
    line.group = "input to photon";
    line.name = name;
    line.unit = "press";
    line.sense = BENCH_TIME;
    line.other.name = "a message there and back";
    line.right = [=] { return right; };
    for (const press &p : all) {
        line.own_times.push_back(value(p));
        line.other_times.push_back(p.echo);
    }
    std::vector<double> sorted = line.own_times;
    std::sort(sorted.begin(), sorted.end());
    char note[64] = "";
    if (!sorted.empty())
        snprintf(note, sizeof note, "99th percentile %.2f ms",
                 sorted[(sorted.size() - 1) * 99 / 100] / 1e6);
    line.note = note;
    lines->push_back(line);
}

void photon_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words)
{
    bool wanted = words.empty();
    for (const std::string &word : words)
        wanted = wanted || std::string("input to photon").find(word) != std::string::npos;
    if (!wanted)
        return;
    for (bool duplication : {true, false}) {
        std::vector<press> all;
        int32_t count = bench.quick ? 4 : duplication ? 800 : 250;
        if (bench.brief && !bench.quick)
            count /= 4;
        bool right = run_session(duplication, count, &all);
        std::string how = duplication ? "told of changes: " : "asked every 16 ms: ";
        add_line(lines, how + "change to pixel", all, right,
                 [](const press &p) { return p.wait + p.rest; });
        add_line(lines, how + "capture's own wait", all, right,
                 [](const press &p) { return p.wait; });
        add_line(lines, how + "captured to pixel", all, right,
                 [](const press &p) { return p.rest; });
        add_line(lines, how + "key to change", all, right,
                 [](const press &p) { return p.key; });
    }
}
