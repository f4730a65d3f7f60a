// The host on a scripted desktop, for peers that mean harm: the real server, control thread,
// pipeline and sockets, built with the sanitizers, told what to draw through standard input.
//
//   hostile_host WIDTH HEIGHT
//
// The log goes to standard output, "log " before each line. Requests, one a line:
//
//   paint N      the picture number N, on the whole screen, which then rests
//   noise        a new picture that cannot be compressed, at every capture
//   moves        scrolls at every capture
//   clock MS     puts the clock forward, and answers "clock"
//   input        answers "input CALLS DOWN...": injected so far, and what is down
//   memory       answers "memory BYTES": allocated at this moment
//   stop         stops the server; the next connection is the last
//
// Ends with the server's result once it returns.
#include "host/capture.h"
#include "host/cursor.h"
#include "host/host_platform.h"
#include "host/host_server.h"
#include "host/input.h"
#include "host/screen.h"
#include "identity/server_log.h"
#include "protocol/clock.h"
#include "tests/fakes/clock_offset.h"
#include "tests/fakes/identity_script.h"

#include <sanitizer/allocator_interface.h>

#include <map>
#include <mutex>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <thread>
#include <vector>

// ---------------------------------------------------------------------------------------
// Output: whole lines from any thread

static std::mutex &print_lock = *new std::mutex;

static void answer(const char *format, ...) QV_PRINTF(1, 2);

static void answer(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::lock_guard<std::mutex> held(print_lock);
    vprintf(format, arguments);
    putchar('\n');
    fflush(stdout);
    va_end(arguments);
}

void server_log_open()
{
}

void server_log(const char *format, ...)
{
    // This one repeats at every iteration while nothing changes.
    if (strncmp(format, "frame ", 6) == 0)
        return;
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    answer("log %s", text);
}

int32_t server_log_path(char *dst, int32_t size)
{
    return snprintf(dst, (size_t)size, "(standard output)");
}

// ---------------------------------------------------------------------------------------
// The desktop

enum activity { REST, NOISE, MOVES };

static struct {
    std::mutex lock;
    int32_t width, height;
    activity now;
    uint32_t picture;
    bool painted; // the picture is to be captured
    std::vector<uint32_t> pixels;
    uint64_t random;
} &desktop = *new std::remove_reference_t<decltype(desktop)>();

// The peer makes the same picture from the number: blocks of 7 x 5 pixels, fourth byte 0.
static void paint(uint32_t number)
{
    uint32_t *pixel = desktop.pixels.data();
    for (uint32_t y = 0; y < (uint32_t)desktop.height; y++)
        for (uint32_t x = 0; x < (uint32_t)desktop.width; x++)
            *pixel++ =
                (x / 7 * 0x9E3779B1u + y / 5 * 0x85EBCA6Bu + number * 0xC2B2AE35u) & 0xFFFFFFu;
}

static void paint_noise()
{
    for (uint32_t &pixel : desktop.pixels) {
        desktop.random ^= desktop.random << 13;
        desktop.random ^= desktop.random >> 7;
        desktop.random ^= desktop.random << 17;
        pixel = (uint32_t)desktop.random;
    }
}

static void copy_all()
{
    host::capture_copy_rect((const uint8_t *)desktop.pixels.data(), (int64_t)desktop.width * 4,
                            0, 0, desktop.width, desktop.height);
}

namespace host
{

void host_platform_dpi_aware()
{
}

void host_platform_real_time()
{
}

int capture_start()
{
    if (!screen_resize(desktop.width, desktop.height))
        abort();
    return 1;
}

bool capture_is_duplication()
{
    return true;
}

capture_result capture_step()
{
    clock_sleep_ms(2);
    std::lock_guard<std::mutex> held(desktop.lock);
    if (desktop.now == NOISE) {
        paint_noise();
    } else if (desktop.now == MOVES) {
        // The picture moves up by 3 lines; the lowest ones stay.
        size_t row = (size_t)desktop.width;
        memmove(desktop.pixels.data(), desktop.pixels.data() + 3 * row,
                (desktop.pixels.size() - 3 * row) * 4);
        if (screen.move_count < MOVE_MAX)
            screen.move_list[screen.move_count++] = {
                0, 3, 0, 0, desktop.width, desktop.height - 3};
    } else if (!desktop.painted) {
        return CAPTURE_NOTHING;
    }
    desktop.painted = false;
    copy_all();
    return CAPTURE_FRAME;
}

cursor_state cursor_read()
{
    return {.x = 0, .y = 0, .visible = 0};
}

// -----------------------------------------------------------------------------------
// Input

static std::mutex &input_lock = *new std::mutex;
static uint64_t input_calls;
static auto &input_down = *new std::map<uint32_t, bool>; // virtual keys; 0x10000 + button

void input_send(const input_event *events, int32_t count)
{
    std::lock_guard<std::mutex> held(input_lock);
    input_calls++;
    for (int32_t i = 0; i < count; i++) {
        const input_event &e = events[i];
        if (e.keyboard && e.virtual_key != 0 && e.virtual_key < 256) // there are no others
            input_down[e.virtual_key] = (e.flags & 0x0002) == 0;
        for (uint32_t button = 0; !e.keyboard && button < 3; button++) {
            if (e.flags & 0x0002u << 2 * button)
                input_down[0x10000 + button] = true;
            if (e.flags & 0x0004u << 2 * button)
                input_down[0x10000 + button] = false;
        }
    }
}

} // namespace host

static void answer_input()
{
    std::lock_guard<std::mutex> held(host::input_lock);
    std::string down;
    for (auto &[key, is_down] : host::input_down)
        if (is_down)
            down += " " + std::to_string(key);
    answer("input %llu%s", (unsigned long long)host::input_calls, down.c_str());
}

// ---------------------------------------------------------------------------------------

static void draw(activity now, uint32_t picture)
{
    std::lock_guard<std::mutex> held(desktop.lock);
    desktop.now = now;
    desktop.picture = picture;
    desktop.painted = true;
    if (now != NOISE)
        paint(picture);
}

static void put_forward(uint32_t ms)
{
    clock_put_forward(ms);
    answer("clock");
}

static void obey(const char *line)
{
    unsigned number = 0;
    if (sscanf(line, "paint %u", &number) == 1)
        draw(REST, number);
    else if (strcmp(line, "noise\n") == 0)
        draw(NOISE, 0);
    else if (strcmp(line, "moves\n") == 0)
        draw(MOVES, 1);
    else if (sscanf(line, "clock %u", &number) == 1)
        put_forward(number);
    else if (strcmp(line, "input\n") == 0)
        answer_input();
    else if (strcmp(line, "memory\n") == 0)
        answer("memory %zu", __sanitizer_get_current_allocated_bytes());
    else if (strcmp(line, "stop\n") == 0)
        host::host_stop();
}

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    desktop.width = atoi(argv[1]);
    desktop.height = atoi(argv[2]);
    desktop.random = 88172645463325252u;
    desktop.pixels.resize((size_t)desktop.width * (size_t)desktop.height);
    identity_script_reset(0);
    draw(REST, 1);

    int result = -1;
    std::thread server([&] {
        result = host::host_server_run();
        answer("ended %d", result);
    });
    char line[256];
    while (fgets(line, sizeof line, stdin))
        obey(line);
    server.join();
    return result;
}
