// Locks: ports
// Fakes: allocation_script capture_edges clock_script input_record window_none
// Wraps: malloc calloc realloc _ZnwmRKSt9nothrow_t _ZnamRKSt9nothrow_t
// Wraps: fopen fdopen pthread_create
//
// Host and viewer when the system has no more memory, files or threads to give.
//
// The real identity, log, server and capture logic serve the real viewer session, on the real
// port, through a session in which the screen is drawn on, shows again what it showed, and
// changes its size both ways. Each run lets one allocation of that session fail, or all from
// one on, and then has the same server serve a session in which none fails. Buffers that are
// kept to the end of the process are allocated only once in it, so each run is a process of
// its own.
#include "host/cache_mirror.h"
#include "host/cursor.h"
#include "host/host_channel.h"
#include "host/host_platform.h"
#include "host/host_server.h"
#include "host/host_session.h"
#include "host/screen.h"
#include "host/tile_base.h"
#include "identity/host_identity.h"
#include "identity/server_log.h"
#include "protocol/net.h"
#include "tests/fakes/allocation_script.h"
#include "tests/fakes/capture_edges.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/window_none.h"
#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_session.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
static bool memory_leaks()
{
    return __lsan_do_recoverable_leak_check() != 0;
}
#else
static bool memory_leaks()
{
    return false;
}
#endif

// ---------------------------------------------------------------------------------------
// The desktop
//
// The server reads the pointer once an iteration, and that is where the desktop changes.

static constexpr int32_t WIDTH = 150, HEIGHT = 100; // 3 x 2 tiles
static constexpr int32_t WIDE = 500, TALL = 300;    // 8 x 5
static constexpr int32_t SMALL = 64;                // 1
static constexpr uint32_t ACCESS_LOST = 0x887A0026;

static constexpr int ITERATIONS = 40; // of a session's changes
static std::atomic<int> iteration = ITERATIONS;

static void show_frame(uint32_t code = 0)
{
    scripted_frame whole;
    whole.code = code;
    capture_edges.frames.push_back(whole);
}

static void show_size(int32_t width, int32_t height)
{
    capture_edges_desktop(width, height);
    show_frame(ACCESS_LOST);
    show_frame();
}

static void change_desktop(int now)
{
    static std::vector<uint32_t> before;
    switch (now) {
    case 0:
        capture_edges.frames.clear();
        capture_edges_desktop(WIDTH, HEIGHT);
        before = capture_edges.pixels;
        show_frame();
        break;
    case 5:
        capture_edges.pixels.assign(before.size(), 0x00102030);
        show_frame();
        break;
    case 10: // seen before: references
        capture_edges.pixels = before;
        show_frame();
        break;
    case 15:
        show_size(WIDE, TALL);
        break;
    case 20:
        show_size(SMALL, SMALL);
        break;
    case 25:
        show_size(WIDTH, HEIGHT);
        break;
    default:
        break;
    }
}

namespace host
{

cursor_state cursor_read()
{
    int now = iteration;
    if (now < ITERATIONS) {
        change_desktop(now);
        iteration = now + 1;
    }
    capture_edges.calls.clear();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return {};
}

void host_platform_dpi_aware()
{
}

void host_platform_real_time()
{
}

} // namespace host

// Whether the viewer shows what is on the desktop, as far as the host's screen reaches: one
// that fell back to GDI keeps its size.
static bool picture_right()
{
    lock_enter(&viewer::frame_lock);
    int32_t width = std::min(viewer::frame.frame_width, host::screen.screen_width.load());
    int32_t height = std::min(viewer::frame.frame_height, host::screen.screen_height.load());
    bool right = width > 0 && height > 0;
    for (int32_t y = 0; right && y < height && y < capture_edges.height; y++)
        right = memcmp(viewer::frame.frame_pixels + y * viewer::frame.frame_stride * 4,
                       &capture_edges.pixels[(size_t)(y * capture_edges.width)],
                       (size_t)std::min(width, capture_edges.width) * 4) == 0;
    lock_leave(&viewer::frame_lock);
    return right;
}

// ---------------------------------------------------------------------------------------
// What fails

enum outcome {
    COMPLETE,     // the session goes on to its end, with the cache in use
    WITHOUT_REFS, // the same, but the host does not know what the viewer has
    WITHOUT_CACHE,
    BAD_HELLO,  // "bad hello from host", and no window
    ENDS,       // the window opens and closes
    ENDS_EARLY, // one of the last two
};

struct allocation_row {
    const char *what;
    bool (*is)(const allocation &);
    outcome expected;
};

static bool is_calloc(const allocation &a, size_t count, size_t size)
{
    return a.kind == ALLOCATED_CALLOC && a.count == count && a.size == size;
}

static thread_local bool in_viewer_session; // on the thread that runs it

// Whether the viewer's session is at the thread that touches its cache's memory: the first of
// its threads, and the one before the window.
static bool at_toucher()
{
    return in_viewer_session && window_none_opened() == 0;
}

static bool is_thread_record(const allocation &a)
{
    return a.kind == ALLOCATED_CALLOC && a.count == 1 && a.size > sizeof(host::tile_worth) &&
           a.size < 1024;
}

// Every allocation of a session, each in one row: whoever adds one says here what becomes of
// a session without it.
static const allocation_row rows[] = {
    {"a file of the identity or the log",
     [](const allocation &a) { return a.kind == ALLOCATED_FILE; }, COMPLETE},
    {"a thread, on either side",
     [](const allocation &a) { return a.kind == ALLOCATED_THREAD && !at_toucher(); }, ENDS},
    {"the record of a thread",
     [](const allocation &a) { return is_thread_record(a) && !at_toucher(); }, ENDS},
    {"viewer: the thread that touches the cache's memory",
     [](const allocation &a) { return a.kind == ALLOCATED_THREAD && at_toucher(); }, COMPLETE},
    {"viewer: the record of that thread",
     [](const allocation &a) { return is_thread_record(a) && at_toucher(); }, COMPLETE},
    {"host: a picture of the screen", // the screen is asked for again at the next capture
     [](const allocation &a) {
         return a.kind == ALLOCATED_CALLOC && a.size == TILE_BYTES && a.count <= 40;
     },
     COMPLETE},
    {"host: base states",
     [](const allocation &a) {
         return a.kind == ALLOCATED_CALLOC && a.size == sizeof(host::tile_base) &&
                a.count <= 40;
     },
     COMPLETE},
    {"host: the tiles' past",
     [](const allocation &a) {
         return a.kind == ALLOCATED_CALLOC && a.size == sizeof(host::tile_worth) &&
                a.count <= 40;
     },
     COMPLETE},
    {"host: dirty map",
     [](const allocation &a) { return a.kind == ALLOCATED_NEW_ARRAY && a.size <= 40; },
     COMPLETE},
    {"host: what lies outside a smaller screen",
     [](const allocation &a) { return is_calloc(a, 3, 2); }, COMPLETE},
    {"host: the session",
     [](const allocation &a) {
         return a.kind == ALLOCATED_NEW && a.size == sizeof(host::host_session);
     },
     ENDS},
    {"host: the mirror of the cache",
     [](const allocation &a) { return is_calloc(a, host::CACHE_MIRROR_SLOTS, 8); },
     WITHOUT_REFS},
    {"viewer: the cache's keys",
     [](const allocation &a) { return is_calloc(a, viewer::CACHE_CAPACITY, 8); },
     WITHOUT_CACHE},
    {"viewer: the cache's tiles",
     [](const allocation &a) { return is_calloc(a, viewer::CACHE_CAPACITY, TILE_BYTES); },
     WITHOUT_CACHE},
    {"viewer: the cache's victims",
     [](const allocation &a) { return is_calloc(a, viewer::CACHE_CAPACITY / 2 + 1, 1); },
     WITHOUT_CACHE},
    {"viewer: the picture", [](const allocation &a) { return is_calloc(a, 192 * 128 * 4, 1); },
     BAD_HELLO},
    {"viewer: room for text", [](const allocation &a) { return is_calloc(a, 196607, 1); },
     BAD_HELLO},
    {"viewer: room for a message", [](const allocation &a) { return is_calloc(a, 4096, 1); },
     ENDS},
    {"a buffer that grows, on either side",
     [](const allocation &a) {
         return a.kind == ALLOCATED_REALLOC || a.kind == ALLOCATED_MALLOC;
     },
     ENDS_EARLY},
};

// What the present run lets fail: the nth allocation of a row (or without one, of all), and
// with `later` all that come after it.
static struct {
    const allocation_row *row;
    int nth;
    bool later;
} plan;

// What the child process found out.
struct run_report {
    int seen; // allocations of the kind that could fail
    int failed;
    int unknown; // allocations that have no row
    allocation unknown_first;

    int result;
    char error[128];
    bool opened, complete, cached, screen_lost;
    uint32_t hits, misses;

    bool honest_complete;
    uint32_t honest_hits;
    int server_result;
    bool channels_clean, leaks, log_right;
    int files_before, files_after;
    bool finished;
};

static run_report *report; // shared with the child

static bool fails(const allocation &a)
{
    int known = 0;
    for (const allocation_row &row : rows)
        known += row.is(a);
    if (known != 1 && report->unknown++ == 0)
        report->unknown_first = a;
    if (plan.row && !plan.row->is(a))
        return false;
    int n = ++report->seen;
    bool refused = n == plan.nth || (plan.later && n > plan.nth);
    report->failed += refused;
    return refused;
}

// ---------------------------------------------------------------------------------------
// One run, in a process of its own

static int open_files()
{
    int count = 0;
    for (auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count += !entry.path().empty();
    return count;
}

// Waits until the server has done with whoever came before: it takes one at a time, and so
// it is when it answers a handshake. Returns the number of files open then. The handshake
// ends there, with no pause, since the clock is scripted.
static int wait_server_free()
{
    net_socket sock = NET_INVALID;
    for (int i = 0; i < 5000 && sock == NET_INVALID; i++) // it may not listen yet
        if (net_connect("127.0.0.1", "7777", false, &sock) != NET_CONNECTED)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    uint8_t key[32] = {9};
    bool answered =
        net_send_all(sock, key, sizeof key) && net_recv_all(sock, key, sizeof key, {});
    int files = open_files();
    net_close(sock);
    return answered ? files : -1;
}

// A viewer's session, closed by its user once the desktop has come to rest and is shown.
static void run_viewer(run_report *r)
{
    std::atomic<bool> ended = false;
    window_none_reset();
    iteration = 0;
    std::string password = host_get_password();
    std::thread session([&] {
        in_viewer_session = true;
        r->result = viewer::viewer_session_run("127.0.0.1", "7777", false, nullptr,
                                               password.c_str(), r->error, sizeof r->error);
        ended = true;
    });
    r->complete = false;
    for (int i = 0; i < 15000 && !ended && !r->complete; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        clock_script_now += 2; // the first frame waits for the viewer's advertisement
        if (iteration < ITERATIONS || window_none_opened() == 0)
            continue;
        if (host::screen.screen_width == 0) { // the picture comes back when memory does
            r->screen_lost = true;
            allocation_script_stop();
        }
        r->complete = picture_right();
    }
    r->opened = window_none_opened() == 1;
    lock_enter(&viewer::frame_lock);
    r->cached = viewer::tile_cache.cache_enabled;
    lock_leave(&viewer::frame_lock);
    r->hits = viewer::statistics.stat_hits;
    r->misses = viewer::statistics.stat_misses;
    window_none_close();
    session.join();
    iteration = ITERATIONS;
}

template <class T> static bool all_zero(const T &record)
{
    const uint8_t *bytes = (const uint8_t *)&record;
    return std::all_of(bytes, bytes + sizeof record, [](uint8_t byte) { return byte == 0; });
}

// Every viewer that came has left, and the password is in no line. There is no log when its
// file could not be opened.
static bool log_is_right(const temp_data_dir &data)
{
    std::string log = data.read("qv_server.log");
    int came = 0, left = 0;
    for (size_t at = 0, end; at < log.size() && (end = log.find('\n', at)) != log.npos;
         at = end + 1) {
        came += log.compare(at, 18, "client connected: ") == 0;
        left += log.compare(at, 20, "client disconnected\n") == 0;
    }
    return came == left && log.find(host_get_password()) == log.npos;
}

static void run_child(run_report *r)
{
    alarm(120); // whatever hangs
    (void)!freopen("/dev/null", "w", stdout);
    temp_data_dir data;
    data.make(); // natively the path's backslash is part of a name
    capture_edges_reset(WIDTH, HEIGHT);
    host::host_stop_requested = 0;

    allocation_script_start(fails);
    host_identity_init(0);
    server_log_open();
    std::thread server([r] { r->server_result = host::host_server_run(); });
    r->files_before = wait_server_free();
    run_viewer(r);
    allocation_script_stop();
    (void)wait_server_free();

    run_report honest = {};
    run_viewer(&honest);
    r->honest_complete = honest.complete && honest.result == 0 && honest.cached;
    r->honest_hits = honest.hits;
    r->files_after = wait_server_free();

    host::host_stop();
    net_socket last = NET_INVALID;
    (void)!net_connect("127.0.0.1", "7777", false, &last);
    net_close(last);
    server.join();
    r->channels_clean = all_zero(host::host_channel) && all_zero(viewer::viewer_channel);
    r->log_right = log_is_right(data);
    r->leaks = memory_leaks();
    r->finished = true;
}

// Runs the plan in a child and returns what it reported.
static run_report run_plan(const allocation_row *row, int nth, bool later)
{
    plan = {row, nth, later};
    *report = {};
    report->server_result = -1;
    fflush(stdout); // the child would write it again
    pid_t child = fork();
    REQUIRE(child >= 0);
    if (child == 0) {
        run_child(report);
        _exit(0);
    }
    int status = -1;
    REQUIRE(waitpid(child, &status, 0) == child);
    CHECK(status == 0);
    return *report;
}

// What holds after every run, whatever failed in it.
static void check_all_is_well(const run_report &r)
{
    CHECK(r.finished);
    CHECK(r.honest_complete);
    CHECK(r.honest_hits > 0);
    CHECK(r.server_result == 0);
    CHECK(r.channels_clean);
    CHECK_FALSE(r.leaks);
    CHECK(r.log_right);
    CHECK(r.files_before > 0);
    CHECK(r.files_after == r.files_before);
    CAPTURE(r.unknown_first.kind);
    CAPTURE(r.unknown_first.count);
    CAPTURE(r.unknown_first.size);
    CHECK(r.unknown == 0); // give it a row
}

// A failed attempt is one that the user is told about, and only that.
static void check_clear_end(const run_report &r)
{
    if (r.opened) {
        CHECK(r.result == 0);
        CHECK(std::string(r.error) == "");
    } else {
        CHECK(r.result == 1);
        CHECK(std::string(r.error) == "bad hello from host");
    }
}

static void check_outcome(const run_report &r, outcome expected)
{
    check_clear_end(r);
    switch (expected) {
    case COMPLETE:
        CHECK(r.complete);
        CHECK(r.cached);
        CHECK(r.hits > 0);
        break;
    case WITHOUT_REFS:
        CHECK(r.complete);
        CHECK(r.cached);
        CHECK(r.hits + r.misses == 0);
        break;
    case WITHOUT_CACHE:
        CHECK(r.complete);
        CHECK_FALSE(r.cached);
        CHECK(r.hits == 0);
        CHECK(r.misses > 0);
        break;
    case BAD_HELLO:
        CHECK_FALSE(r.opened);
        break;
    case ENDS:
        CHECK(r.opened);
        CHECK_FALSE(r.complete);
        break;
    case ENDS_EARLY:
        CHECK_FALSE(r.complete);
        break;
    }
}

static void share_report()
{
    if (!report)
        report = (run_report *)mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    REQUIRE(report != MAP_FAILED);
}

TEST_CASE("what cannot be had ends the session clearly or is done without")
{
    share_report();
    for (const allocation_row &row : rows) {
        for (int nth = 1;; nth++) {
            std::string what = row.what;
            CAPTURE(what);
            CAPTURE(nth);
            run_report r = run_plan(&row, nth, false);
            check_all_is_well(r);
            check_outcome(r, r.failed ? row.expected : COMPLETE);
            if (r.failed == 0) {
                CHECK(r.seen > 0);
                CHECK(nth > 1);
                break;
            }
        }
    }
}

TEST_CASE("memory that runs out and comes back leaves a server that serves")
{
    share_report();
    int recovered = 0;
    for (int nth = 1;; nth++) {
        CAPTURE(nth);
        run_report r = run_plan(nullptr, nth, true);
        check_all_is_well(r);
        if (r.failed == 0)
            break;
        check_clear_end(r);
        if (r.screen_lost)
            CHECK(r.complete);
        recovered += r.screen_lost;
    }
    CHECK(recovered > 0); // sessions that lost the screen's buffers, and got them back
}
