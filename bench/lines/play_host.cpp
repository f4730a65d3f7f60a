// The host's end: the whole server, with a scripted desktop where Windows has the real one.
//
// The desktop is drawn on by a thread of its own, as programs do, and copied whole by the
// server's, at the pace of copies by GDI. Moves are the host's to find.
#include "bench/lines/play.h"

#include "bench/screens.h"
#include "host/capture_pace.h"
#include "host/frame_pipeline.h"
#include "host/host_platform.h"
#include "host/host_server.h"
#include "host/input.h"
#include "host/screen.h"
#include "protocol/clock.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/identity_script.h"

#include <mutex>
#include <stdlib.h>
#include <thread>
#include <time.h>
#include <unistd.h>

picture play_pages[2];

static constexpr uint32_t KEY_UP = 0x0002; // KEYEVENTF_KEYUP

static play_record *play;
static std::mutex guard;
static picture desktop; // under guard
static uint64_t random_state = 0x1234567;
static uint64_t copy_end_us; // server thread

void play_draw_pages()
{
    for (uint64_t i = 0; i < 2; i++) {
        play_pages[i] = picture_make(PLAY_WIDTH, PLAY_HEIGHT, 0);
        draw_document(&play_pages[i], picture_area(play_pages[i]), 11 + i);
    }
}

// ---------------------------------------------------------------------------------------
// Drawing

static void draw_new_noise(area a)
{
    std::lock_guard<std::mutex> held(guard);
    draw_noise(&desktop, a, random_state += 2);
}

static void draw_page(int page)
{
    std::lock_guard<std::mutex> held(guard);
    desktop.pixels = play_pages[page].pixels;
    play->page_us = clock_us();
}

static void draw_window(int place)
{
    int32_t left = PLAY_WINDOW_LEFT + place * PLAY_STEP;
    area window = {left, PLAY_WINDOW_TOP, left + PLAY_WINDOW_WIDTH,
                   PLAY_WINDOW_TOP + PLAY_WINDOW_HEIGHT};
    static picture face; // of the window
    if (face.pixels.empty()) {
        face = picture_make(PLAY_WINDOW_WIDTH, PLAY_WINDOW_HEIGHT, 0);
        draw_dialog(&face, picture_area(face), 5);
    }
    std::lock_guard<std::mutex> held(guard);
    area before = {left - PLAY_STEP, window.top, left, window.bottom};
    if (place > 0)
        draw_copy(&desktop, before.left, before.top, play_pages[0], before);
    draw_copy(&desktop, window.left, window.top, face, picture_area(face));
    draw_fill(&desktop, {left, window.top, left + 1, window.top + 1}, play_place_colour(place));
    play->place_us[place] = clock_us();
    play->places = place + 1;
}

static void sleep_until(uint64_t us)
{
    timespec until = {.tv_sec = (time_t)(us / 1000000), .tv_nsec = (long)(us % 1000000) * 1000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

static void play_scenes()
{
    int scene = PLAY_REST;
    int place = 0;
    uint64_t next_us = clock_us();
    for (;;) {
        int asked = play->scene;
        bool begins = asked != scene;
        scene = asked;
        switch (scene) {
        case PLAY_NOISE:
            draw_new_noise(PLAY_NOISE_AREA);
            break;
        case PLAY_VIDEO:
            draw_new_noise(PLAY_VIDEO_AREA);
            break;
        case PLAY_PAGE:
            if (begins)
                draw_page(play->page);
            break;
        case PLAY_DRAG:
            place = begins ? 0 : place;
            if (place < PLAY_PLACES)
                draw_window(place++);
            break;
        default:
            break;
        }
        bool moving = scene != PLAY_REST && scene != PLAY_PAGE;
        next_us = moving && !begins ? next_us + PLAY_PERIOD_US
                                    : clock_us() + (moving ? PLAY_PERIOD_US : 1000);
        sleep_until(next_us);
    }
}

static host::capture_result take_picture()
{
    host::capture_pace_wait(copy_end_us);
    {
        std::lock_guard<std::mutex> held(guard);
        host::capture_copy_rect((const uint8_t *)desktop.pixels.data(), (int64_t)PLAY_WIDTH * 4,
                                0, 0, PLAY_WIDTH, PLAY_HEIGHT);
    }
    copy_end_us = clock_us();
    return host::CAPTURE_FRAME;
}

// ---------------------------------------------------------------------------------------
// What the server asks of its surroundings

namespace host
{

// The program in front draws a character.
void input_send(const input_event *events, int32_t count)
{
    if (count < 1 || !events[0].keyboard || (events[0].flags & KEY_UP))
        return;
    std::lock_guard<std::mutex> held(guard);
    int i = (int)play->keys_drawn++;
    int32_t left = i * 8;
    if (i < PLAY_KEYS)
        draw_fill(&desktop, {left, PLAY_KEYS_TOP, left + 7, PLAY_KEYS_TOP + 10},
                  play_key_colour(i));
}

void host_platform_dpi_aware()
{
}

void host_platform_real_time()
{
}

} // namespace host

void play_host(play_record *record)
{
    play = record;
    desktop = picture_make(PLAY_WIDTH, PLAY_HEIGHT, 0xFF000000);
    identity_script_reset(0);
    host::paces_bytes = play->paced;
    capture_script_start = [] {
        (void)host::screen_resize(PLAY_WIDTH, PLAY_HEIGHT);
        play->listens = true; // the server does before it starts the capture
    };
    capture_script_step = take_picture;
    std::thread(play_scenes).detach();
    _exit(host::host_server_run());
}
