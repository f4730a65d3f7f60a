// An emulated line between two network namespaces: a TUN device in each, and between them the
// two directions of the line.
//
// Namespaces and devices have no names and are held by descriptors and processes only: when
// those are gone, however they ended, so are they.
#ifndef QV_BENCH_LINE_TUN_H
#define QV_BENCH_LINE_TUN_H

#include "bench/lines/line_queue.h"

#include <atomic>
#include <string>

enum line_side { LINE_HOST, LINE_VIEWER, LINE_SIDES };

// The addresses of the two sides.
extern const char *const line_address[LINE_SIDES];

struct line_tun {
    int net[LINE_SIDES]; // descriptors of the namespaces; -1: none
    int tun[LINE_SIDES];
    line_queue from[LINE_SIDES]; // the direction that begins at that side
    std::atomic<bool> stop;
};

// Makes namespaces and devices possible for the process: one who is not root needs a user
// namespace for that, in which the process then is. To be called before there are threads.
// False, with the reason, where the system refuses. Does nothing when called again.
bool line_allowed(std::string *reason);

// Makes the line, idle. False, with the reason, on failure; then nothing is left of it.
bool line_open(line_tun *line, const line_settings &to_viewer, const line_settings &to_host,
               std::string *reason);
void line_close(line_tun *line);

// Puts the calling thread, and what it starts, into a side's network.
bool line_enter(const line_tun &line, line_side side);

// Carries packets until stop is set, which is looked at 50 times a second. False when a device
// failed.
bool line_run(line_tun *line);

// Packets that a side's device dropped because nobody took them: not the line's doing, and a
// reason not to believe a measurement.
uint64_t line_device_drops(const line_tun &line, line_side side);

#endif
