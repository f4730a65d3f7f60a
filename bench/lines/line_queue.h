// One direction of an emulated line: a queue that is emptied at a rate and drops what would
// wait in it for too long, then a delay, on whose way packets may be lost.
//
// Pure: packets in by size and time, verdicts out. Times are microseconds of any clock that
// does not go back.
#ifndef QV_BENCH_LINE_QUEUE_H
#define QV_BENCH_LINE_QUEUE_H

#include <stdint.h>
#include <vector>

struct line_settings {
    uint64_t rate;     // bytes a second
    uint64_t delay_us; // one way
    uint64_t queue_us; // a packet that would wait for longer is dropped
    uint32_t loss;     // packets lost of a million, behind the queue
    uint64_t seed;     // of which ones; not 0
};

// What a packet found.
struct line_moment {
    uint64_t at_us;
    uint32_t wait_us; // until its own first byte goes out
    uint32_t bytes;
    bool dropped, lost;
};

struct line_queue {
    line_settings settings;
    uint64_t free_us; // when the line has carried what it was given
    uint64_t random;
    std::vector<line_moment> moments; // of every packet, in order
};

line_queue line_queue_make(const line_settings &settings);

// A packet comes to the line's beginning. True when it reaches the end, at *there_us, which is
// never before that of an earlier packet.
bool line_queue_put(line_queue *queue, uint64_t now_us, uint32_t bytes, uint64_t *there_us);

// What became of the packets that came from begin to before end.
struct line_count {
    uint64_t packets, bytes; // that came
    uint64_t dropped, lost;  // packets
    uint64_t carried_bytes;  // that left the queue then, and were not lost
};
line_count line_queue_count(const line_queue &queue, uint64_t begin_us, uint64_t end_us);

// Waiting times of the packets that came then and were not dropped, in order of size.
std::vector<uint32_t> line_queue_waits(const line_queue &queue, uint64_t begin_us,
                                       uint64_t end_us);

#endif
