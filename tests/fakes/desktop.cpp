#include "tests/fakes/desktop.h"

#include "host/capture.h"
#include "host/cursor.h"
#include "host/host_platform.h"
#include "host/screen.h"
#include "protocol/clock.h"

#include <atomic>
#include <mutex>

static std::mutex guard;
static int32_t width, height;
static bool duplication;
static uint8_t colour;
static bool painted; // the colour is to be captured
static int captures;
static std::vector<std::string> calls;
static std::atomic<void (*)()> on_capture;

void desktop_reset(int32_t new_width, int32_t new_height, bool new_duplication)
{
    std::lock_guard<std::mutex> held(guard);
    width = new_width;
    height = new_height;
    duplication = new_duplication;
    colour = 0;
    painted = false;
    captures = 0;
    calls.clear();
    on_capture = nullptr;
}

void desktop_on_capture(void (*called)())
{
    on_capture = called;
}

void desktop_paint(uint8_t byte)
{
    std::lock_guard<std::mutex> held(guard);
    colour = byte;
    painted = true;
}

void desktop_resize(int32_t new_width, int32_t new_height)
{
    std::lock_guard<std::mutex> held(guard);
    width = new_width;
    height = new_height;
}

std::vector<std::string> desktop_calls()
{
    std::lock_guard<std::mutex> held(guard);
    return calls;
}

int desktop_captures()
{
    std::lock_guard<std::mutex> held(guard);
    return captures;
}

namespace host
{

void host_platform_dpi_aware()
{
    std::lock_guard<std::mutex> held(guard);
    calls.push_back("dpi");
}

void host_platform_real_time()
{
    std::lock_guard<std::mutex> held(guard);
    calls.push_back("real-time");
}

int capture_start()
{
    std::lock_guard<std::mutex> held(guard);
    calls.push_back("start");
    screen_resize(width, height);
    return duplication ? 1 : 0;
}

bool capture_is_duplication()
{
    return duplication;
}

capture_result capture_step()
{
    if (auto called = on_capture.load())
        called();
    clock_sleep_ms(2);
    std::lock_guard<std::mutex> held(guard);
    captures++;
    if (screen.screen_width != width || screen.screen_height != height) {
        screen_resize(width, height);
        return CAPTURE_RESTARTED;
    }
    if (!painted)
        return CAPTURE_NOTHING;
    painted = false;
    std::vector<uint8_t> picture((size_t)width * (size_t)height * 4, colour);
    capture_copy_rect(picture.data(), (int64_t)width * 4, 0, 0, width, height);
    return CAPTURE_FRAME;
}

cursor_state cursor_read()
{
    return {.x = 0, .y = 0, .visible = 0};
}

} // namespace host
