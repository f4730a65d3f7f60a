// The whole road of a frame, host and viewer in one thread.
#ifndef QV_BENCH_ROAD_H
#define QV_BENCH_ROAD_H

#include "bench/bench.h"
#include "bench/picture.h"
#include "bench/stages.h"

// What is on the screen. Frame 0 is the session's first picture and not measured, nor are
// the frames before `first`.
struct scene {
    const char *name;
    int32_t first, frames;
    // Draws frame n into the screen; as duplication would, says what changed and moved.
    std::function<void(int32_t n)> draw;
    bool duplication;   // report what changed; otherwise the whole screen, as GDI does
    double host_target; // the walk's time over the other side's
    double viewer_target;
};

// Of one frame.
struct frame_times {
    double host, viewer; // without capture, link and cipher; nanoseconds
    double stage[STAGES];
    double bytes, tiles, moves;
    double host_other, viewer_other;
};

// The screen of the scenes that are played.
extern picture road_screen;

// The line between the two: bytes a second, 0 as fast as memory; and its round trip, which the
// handshake took, too. The clock is put forward by what it takes, so nobody waits.
struct road_line {
    uint64_t rate;
    uint32_t trip_ms;
};
extern road_line road_slow_line;

enum road_manner {
    ROAD_WHOLE,
    // Nothing is sealed and the other sides are left out, times and tiles zero: for comparing
    // the host with itself, in two thirds of the time.
    ROAD_PLAIN,
};

// Plays the scene once; false when the viewer's picture was wrong at any time.
bool road_play(const scene &now, road_manner manner, std::vector<frame_times> *account);

// Plays every scene on screens of several sizes and appends their lines, measured. Scenes
// whose line has none of the words in its name are left out.
void road_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words);

#endif
