// How long the stages of the road take, without a change to the road: the linker sends calls
// between the product's files through functions here, which look at the clock.
//
// Also the link of the road: records to and from the two made-up sockets stay in memory. All
// other sockets are real ones.
#ifndef QV_BENCH_STAGES_H
#define QV_BENCH_STAGES_H

#include "protocol/net.h"

#include <atomic>
#include <functional>
#include <stdint.h>
#include <vector>

enum stage {
    // A few calls a frame, measured while stages.on is set.
    STAGE_SEAL,
    STAGE_OPEN,
    STAGE_LINK,
    STAGE_CAPTURE, // by the scripted capture itself
    STAGE_MOVES,   // looking for them; part of the host's time
    // Several calls a tile, measured while stages.fine is set as well.
    STAGE_COMPARE,
    STAGE_HASH,
    STAGE_LOOK_UP,
    STAGE_XOR,
    STAGE_COMPRESS,
    STAGE_COPY,
    STAGE_DECOMPRESS,
    STAGE_CACHE,
    STAGES
};

struct stage_record {
    bool on;           // the road is played, in one thread; otherwise nothing is measured
    bool fine;         // the second kind as well
    double ns[STAGES]; // processor time since they were last zeroed; one thread at a time
};
extern stage_record stages;

// Moves that were found so far.
extern uint64_t stage_moves_found;

// The product's memory in blocks of a page and more, by the side that took it.
enum memory_side { MEMORY_NOBODY, MEMORY_HOST, MEMORY_VIEWER, MEMORY_SIDES };
extern memory_side memory_of;            // who takes what is taken now; one thread at a time
extern size_t memory_peak[MEMORY_SIDES]; // bytes held at once so far

// The largest record sent so far, by either side.
extern std::atomic<size_t> stage_largest_record;

// Calls of malloc, calloc and realloc by the product and the bench so far.
extern std::atomic<uint64_t> stage_allocations;

constexpr net_socket ROAD_HOST_SOCKET = 0x70000001;
constexpr net_socket ROAD_VIEWER_SOCKET = 0x70000002;

struct road_link {
    std::vector<uint8_t> bytes;
    size_t taken;
};
extern road_link road_to_viewer, road_to_host;

// Called when the viewer wants a byte and there is none; when it brings none either, the
// viewer's connection has ended.
extern std::function<void()> road_refill;

#endif
