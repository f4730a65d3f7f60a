// Pacing: from acknowledgements to the number of frames in flight and tiles in a frame.
//
// Pure integer arithmetic; the clock is an argument. All times in milliseconds.
#ifndef QV_HOST_FLOW_CONTROL_H
#define QV_HOST_FLOW_CONTROL_H

#include <stdint.h>

namespace host
{

constexpr int32_t TILE_BUDGET_MIN = 8;
constexpr int32_t TILE_BUDGET_MAX = 4096;
constexpr int32_t RTT_FLOOR_START = 100000;
constexpr uint32_t STALL_MS = 250; // longest wait for an acknowledgement
constexpr uint32_t ADVERT_WAIT_MAX_MS = 1000;
constexpr uint32_t ADVERT_SLACK_MS = 100; // for the viewer to read its file's keys

struct latency_estimator {
    int32_t ema_rtt16;   // smoothed round trip in sixteenths of a millisecond; 0 = no sample
    int32_t rtt_floor;   // smallest round trip; 0 counts as no floor
    int32_t last_rtt;    // latest sample
    int32_t tile_budget; // tiles that a frame may handle
    int32_t ack_count;   // acknowledgements so far
};

// Values at session start.
latency_estimator latency_start();

// The round trip of a frame stamped sent_ms and acknowledged at now_ms: the signed
// difference, clamped to 0..5000.
int32_t latency_sample(uint32_t now_ms, uint32_t sent_ms);

// Takes one round trip in.
void latency_update(latency_estimator *estimator, int32_t rtt);

// Frames that may be unacknowledged, 1 to 6.
int32_t inflight_cap(int32_t ema_rtt16);

enum pacing_decision {
    PACE_SEND,  // go on
    PACE_WAIT,  // end the iteration
    PACE_STALL, // go on, and count every frame as acknowledged
};

// What an iteration does at the pacing step. last_iteration_tick is the time of the last
// full one.
pacing_decision pacing_step(uint32_t frame_seq, uint32_t acked_seq, int32_t ema_rtt16,
                            uint32_t now_ms, uint32_t last_iteration_tick);

// How long the first frame of a session may wait for the viewer's advertisement, by the two
// round trips that the handshake made: long enough for it to arrive, and never long.
uint32_t advert_wait(uint32_t round_trip_ms, uint32_t other_round_trip_ms);

} // namespace host

#endif
