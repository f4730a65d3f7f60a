// The viewer without a window to look at, for hosts that mean harm: the real session, receive
// thread, decoder, cache and sockets, built with the sanitizers, told what to do through
// standard input.
//
//   hostile_viewer
//
// What a session prints goes to standard output as it is. Requests, one a line:
//
//   run PORT PASSWORD   starts a session with 127.0.0.1; "ended N" says its result
//   close               closes the window, as the user would
//   picture             answers "picture WIDTH HEIGHT CRC": of the padded picture's bytes,
//                       with the CRC that zip files use
//   key N               presses and releases a key N times, from this thread
//   memory              answers "memory BYTES": allocated at this moment
#include "tests/fakes/window_none.h"
#include "viewer/frame_decode.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_session.h"

#include <sanitizer/allocator_interface.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <thread>

static void answer(const char *format, ...) __attribute__((format(printf, 1, 2)));

static void answer(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char line[256];
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    printf("%s\n", line); // one call: lines stay whole
    fflush(stdout);
}

static uint32_t crc(const uint8_t *data, uint64_t size)
{
    static uint32_t table[256];
    if (table[1] == 0)
        for (uint32_t i = 0; i < 256; i++) {
            table[i] = i;
            for (int bit = 0; bit < 8; bit++)
                table[i] = table[i] >> 1 ^ (table[i] & 1 ? 0xEDB88320u : 0);
        }
    uint32_t value = 0xFFFFFFFFu;
    for (uint64_t i = 0; i < size; i++)
        value = table[(value ^ data[i]) & 255] ^ value >> 8;
    return ~value;
}

static void answer_picture()
{
    using viewer::frame;
    lock_enter(&viewer::frame_lock);
    uint64_t bytes = (uint64_t)frame.frame_stride * (uint64_t)frame.frame_rows * 4;
    answer("picture %d %d %u", frame.frame_width, frame.frame_height,
           crc(frame.frame_pixels, bytes));
    lock_leave(&viewer::frame_lock);
}

static std::thread session;

static void start(const char *port, const char *password)
{
    if (session.joinable())
        session.join();
    session = std::thread([port = std::string(port), password = std::string(password)] {
        int result = viewer::viewer_session_run("127.0.0.1", port.c_str(), false, nullptr,
                                                password.c_str(), nullptr, 0);
        answer("ended %d", result);
    });
}

static void obey(const char *line)
{
    char port[16], password[64];
    unsigned number = 0;
    if (sscanf(line, "run %15s %63s", port, password) == 2)
        start(port, password);
    else if (strcmp(line, "close\n") == 0)
        window_none_close();
    else if (strcmp(line, "picture\n") == 0)
        answer_picture();
    else if (sscanf(line, "key %u", &number) == 1)
        for (unsigned i = 0; i < 2 * number; i++)
            (void)viewer::viewer_send_key('A', i % 2 == 0);
    else if (strcmp(line, "memory\n") == 0)
        answer("memory %zu", __sanitizer_get_current_allocated_bytes());
}

int main()
{
    lock_init(&viewer::frame_lock); // "picture" may come before any session
    char line[256];
    while (fgets(line, sizeof line, stdin))
        obey(line);
    if (session.joinable()) {
        window_none_close();
        session.join();
    }
    return 0;
}
