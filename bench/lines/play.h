// Two sessions that are played over an emulated line, one of noise and one of everything else:
// a desktop on the host's side that does what the viewer's side asks for, and a viewer that
// notes when it shows.
//
// The two sides are processes, each in its own network, with the product's whole host and
// viewer in them. They have this record in common, in shared memory, and the machine's
// monotonic clock.
#ifndef QV_BENCH_PLAY_H
#define QV_BENCH_PLAY_H

#include "bench/picture.h"

#include <atomic>
#include <stdint.h>

constexpr int32_t PLAY_WIDTH = 1280, PLAY_HEIGHT = 768;
constexpr uint64_t PLAY_PERIOD_US = 33000; // of video, noise and the dragged window

constexpr int PLAY_KEYS = 24;
constexpr int PLAY_RETURNS = 4;
constexpr int PLAY_PLACES = 60; // of the dragged window
constexpr int PLAY_FRAMES_MAX = 8192;

enum play_scene {
    PLAY_REST,
    PLAY_NOISE, // new noise in a large area, for ever
    PLAY_PAGE,  // the page of play.page, once
    PLAY_VIDEO, // new noise in a window, for ever, and a character for each key
    PLAY_DRAG,  // a window moves from place to place, on the first page
};

// Where something is drawn.
constexpr area PLAY_NOISE_AREA = {0, 0, 640, 384};
constexpr area PLAY_VIDEO_AREA = {256, 64, 576, 256};
constexpr int32_t PLAY_KEYS_TOP = 316; // of 7 x 10 pixels, 8 apart
constexpr int32_t PLAY_WINDOW_LEFT = 100, PLAY_WINDOW_TOP = 150, PLAY_STEP = 9;
constexpr int32_t PLAY_WINDOW_WIDTH = 300, PLAY_WINDOW_HEIGHT = 200;

// The colour of the character of key i, of the window's corner in place i.
constexpr uint32_t play_key_colour(int i)
{
    return 0xFF000000 | (uint32_t)(i + 1) * 0x0A0301;
}
constexpr uint32_t play_place_colour(int i)
{
    return 0xFF800001 + (uint32_t)i;
}

// Times are microseconds of clock_us; 0: it did not happen.
struct play_record {
    // Set before there are processes.
    bool quick;           // a little of each scene will do
    bool paced;           // paces_bytes of the host
    uint64_t ack_late_us; // so late the viewer's acknowledgements leave

    // Set by the viewer's side, taken by the host's.
    std::atomic<int> scene;
    std::atomic<int> page;

    // Of the host's side.
    std::atomic<bool> listens; // for the viewer
    std::atomic<uint32_t> keys_drawn;
    std::atomic<uint64_t> page_us;               // when the page was drawn
    std::atomic<uint64_t> place_us[PLAY_PLACES]; // when the window got there
    std::atomic<int> places;                     // so many

    // Of the viewer's side.
    bool complete; // all was played
    uint64_t noise_begin_us, noise_end_us;
    uint64_t key_pressed_us[PLAY_KEYS], key_shown_us[PLAY_KEYS];
    uint64_t return_us[PLAY_RETURNS]; // each took so long
    uint64_t place_shown_us[PLAY_PLACES];
    int places_seen;        // of which a picture was shown
    uint64_t first_page_us; // from the window's opening to the whole first page

    // Each frame that the viewer got: when, and its age by the host's stamp, milliseconds.
    int frames;
    uint64_t frame_us[PLAY_FRAMES_MAX];
    uint32_t frame_age_ms[PLAY_FRAMES_MAX];
};

// Both pages, drawn before there are processes.
extern picture play_pages[2];
void play_draw_pages();

// The two sides, each to be called in a process of its own that is in its side's network. The
// host's does not return; the viewer's does when all was played, or cannot be.
void play_host(play_record *play);
void play_viewer(play_record *play);

#endif
