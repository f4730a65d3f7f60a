// What host and viewer need of memory, as the system counts it: two processes that are
// connected, one a host only and one a viewer only, and beside them one that does nothing.
// By so much as the peak of one is above the idle one's, that side needed more: its buffers,
// and whatever else it touched of stacks, code and data.
//
// The host shows new pictures of a whole screen, one after the other, so that its messages are
// as large as they become. The viewer's cache is touched whole, as in the product.
#include "bench/memory.h"

#include "bench/screens.h"
#include "bench/session.h"
#include "host/cache_mirror.h"
#include "host/screen.h"
#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/fakes/capture_script.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr unsigned CHILD_SECONDS = 120; // the longest; a second or two is usual
static constexpr int32_t PICTURE_MS = 30;      // from one to the next

static std::vector<picture> pictures;

bench_line memory_line(memory_side side, const std::string &name, int32_t width, int32_t height,
                       double peak)
{
    double pixels = (double)pad_to_tile(width) * pad_to_tile(height) * PIXEL_BYTES;
    double record = (double)stage_largest_record;
    double host = 2 * pixels + host::CACHE_MIRROR_SLOTS * 8.0 + // the mirror of the cache
                  2 * record + 65536 +                          // messages of a frame
                  record + 4096;                                // sealing them
    double viewer = pixels + viewer::CACHE_CAPACITY * (TILE_BYTES + 8.0) + record + 4096;
    bench_line line;
    line.group = "memory";
    line.name = name;
    line.unit = "side";
    line.sense = BENCH_TIME;
    line.bytes = true;
    line.target = 1;
    line.other.name = "its buffers and 16 MiB";
    line.own_times = {peak};
    line.other_times = {(side == MEMORY_HOST ? host : viewer) + 16 * 1048576.0};
    bool right = peak > pixels && bench_met(line);
    line.right = [=] { return right; };
    return line;
}

static host::capture_result take_picture()
{
    static size_t next;
    static uint32_t last_ms;
    clock_sleep_ms(1);
    if (next == pictures.size() || (next > 0 && clock_ms() - last_ms < PICTURE_MS))
        return host::CAPTURE_NOTHING;
    const picture &p = pictures[next++];
    host::capture_copy_rect((const uint8_t *)p.pixels.data(), (int64_t)p.width * 4, 0, 0,
                            p.width, p.height);
    last_ms = clock_ms();
    return host::CAPTURE_FRAME;
}

static bool be_host(net_socket sock)
{
    lock_init(&host::host_lock);
    host::screen.hello_width = host::screen.hello_height = 0;
    if (!host::screen_resize(pictures[0].width, pictures[0].height))
        return false;
    capture_script_step = take_picture;
    bench_serve(sock, 0);
    return true;
}

static bool be_viewer(net_socket sock)
{
    lock_init(&viewer::frame_lock);
    viewer::viewer_channel_init();
    if (!viewer::frame_open(pictures[0].width, pictures[0].height) || !bench_join(sock))
        return false;
    viewer::tile_cache_open();
    bench_touch_cache();
    thread *receive = thread_start(viewer::viewer_recv_thread, nullptr);
    while (receive && !bench_shows(pictures.back()))
        clock_sleep_ms(1);
    net_abort(sock);
    return receive && thread_join(receive, THREAD_WAIT_FOREVER);
}

// Runs `life` in a process of its own; its exit status is whether it was true.
template <class function> static pid_t start(function life)
{
    pid_t child = fork();
    if (child != 0)
        return child;
    alarm(CHILD_SECONDS);
    mallopt(M_MMAP_THRESHOLD, 65536); // nothing large in memory that the parent gave back
    _exit(life() ? 0 : 1);
}

// Waits for a process's end: what it had in memory at most, or 0 when it failed.
static double peak_of(pid_t child)
{
    int status = 0;
    rusage used = {};
    if (child < 0 || wait4(child, &status, 0, &used) != child || status != 0)
        return 0;
    return (double)used.ru_maxrss * 1024;
}

void memory_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words)
{
    int32_t width = bench.quick ? 650 : 1920, height = bench.quick ? 390 : 1080;
    std::string size = std::to_string(width) + "x" + std::to_string(height);
    bool wanted = words.empty();
    for (const std::string &word : words)
        wanted = wanted || ("memory " + size + " processes").find(word) != std::string::npos;
    if (!wanted || (bench.brief && !bench.quick))
        return;

    for (uint64_t n = 0; n < 6; n++) {
        pictures.push_back(picture_make(width, height, 0));
        picture *p = &pictures.back();
        if (n % 2 == 0)
            draw_desktop(p, n);
        else
            draw_photo(p, picture_area(*p), 100 + n, 0, 0, 3, 17);
    }
    // Written by the host, read here.
    size_t *largest = (size_t *)mmap(nullptr, sizeof *largest, PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int ends[2];
    if (largest == MAP_FAILED || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        abort(); // a machine on which nothing else would run either
    malloc_trim(0);
    pid_t host = start([&] {
        close(ends[1]);
        bool done = be_host(ends[0]);
        *largest = stage_largest_record;
        return done;
    });
    pid_t viewer = start([&] {
        close(ends[0]);
        return be_viewer(ends[1]);
    });
    pid_t idle = start([] { return true; });
    close(ends[0]);
    close(ends[1]);
    double nothing = peak_of(idle), viewer_peak = peak_of(viewer), host_peak = peak_of(host);
    stage_largest_record = *largest;
    munmap(largest, sizeof *largest);
    for (memory_side side : {MEMORY_HOST, MEMORY_VIEWER}) {
        double peak = side == MEMORY_HOST ? host_peak : viewer_peak;
        bench_line line = memory_line(
            side, size + ": " + (side == MEMORY_HOST ? "host" : "viewer") + ", a process",
            width, height, peak - nothing);
        bool done = host_peak > 0 && viewer_peak > 0 && nothing > 0;
#ifdef QV_BENCH_SANITIZED
        line.right = [=] { return done; }; // a sanitizer keeps memory that was given back
#else
        line.right = [=, right = line.right] { return done && right(); };
#endif
        lines->push_back(line);
    }
    pictures = {};
}
