// Pacing by the measured round trip.
//
// The viewer acknowledges every frame, and the acknowledgement carries the host's own time
// stamp back, so each gives one round trip. Their smoothed value sets how many frames may be
// under way: about one for every 8 ms, so that a long line is kept full and a short one is
// not queued up. What the smoothed value exceeds the smallest by is time spent in queues; it
// sets how many tiles a frame may carry: 32 more with each acknowledgement while queues are
// short, a quarter less while they are long, unchanged between the two.
//
// The control thread updates its session's estimator and publishes the two values that the
// server thread reads (host_session.h). Everything is integer arithmetic; the smoothed value
// is kept in sixteenths so that an eighth of a small difference is not lost.
#include "host/flow_control.h"

namespace host
{

static constexpr int32_t RTT_MAX = 5000;

// Queueing delay, ms.
static constexpr int32_t EXCESS_LONG = 26;
static constexpr int32_t EXCESS_SHORT = 7;

static constexpr int32_t BUDGET_STEP = 32;

static constexpr int32_t CAP_MAX = 6;
static constexpr int32_t CAP_EMA_MIN = 8;  // ms; below this one frame at a time
static constexpr int32_t CAP_EMA_MAX = 56; // ms; from here CAP_MAX frames

latency_estimator latency_start()
{
    return {.ema_rtt16 = 0,
            .rtt_floor = RTT_FLOOR_START,
            .last_rtt = 0,
            .tile_budget = TILE_BUDGET_MAX,
            .ack_count = 0};
}

int32_t latency_sample(uint32_t now_ms, uint32_t sent_ms)
{
    // The viewer echoes the stamp and may have tampered with it: one from the future counts
    // as no time at all.
    int32_t rtt = (int32_t)(now_ms - sent_ms);
    if (rtt < 0)
        return 0;
    if (rtt > RTT_MAX)
        return RTT_MAX;
    return rtt;
}

void latency_update(latency_estimator *estimator, int32_t rtt)
{
    if (estimator->ema_rtt16 == 0)
        estimator->ema_rtt16 = rtt * 16;
    else
        estimator->ema_rtt16 = estimator->ema_rtt16 - (estimator->ema_rtt16 >> 3) + 2 * rtt;

    if (estimator->rtt_floor == 0 || estimator->rtt_floor > rtt)
        estimator->rtt_floor = rtt;

    int32_t excess = (estimator->ema_rtt16 >> 4) - estimator->rtt_floor;
    int32_t budget = estimator->tile_budget;
    if (excess >= EXCESS_LONG && budget > TILE_BUDGET_MIN)
        budget = (budget * 3) >> 2;
    else if (excess <= EXCESS_SHORT && budget < TILE_BUDGET_MAX)
        budget += BUDGET_STEP;
    if (budget < TILE_BUDGET_MIN)
        budget = TILE_BUDGET_MIN;
    if (budget > TILE_BUDGET_MAX)
        budget = TILE_BUDGET_MAX;
    estimator->tile_budget = budget;

    estimator->last_rtt = rtt;
    estimator->ack_count++;
}

int32_t inflight_cap(int32_t ema_rtt16)
{
    int32_t ema = ema_rtt16 >> 4;
    if (ema < CAP_EMA_MIN)
        return 1;
    if (ema >= CAP_EMA_MAX)
        return CAP_MAX;
    return ema_rtt16 >> 7;
}

pacing_decision pacing_step(uint32_t frame_seq, uint32_t acked_seq, int32_t ema_rtt16,
                            uint32_t now_ms, uint32_t last_iteration_tick)
{
    if (now_ms - last_iteration_tick > STALL_MS)
        return PACE_STALL;
    uint32_t inflight = frame_seq - acked_seq;
    return inflight >= (uint32_t)inflight_cap(ema_rtt16) ? PACE_WAIT : PACE_SEND;
}

uint32_t advert_wait(uint32_t round_trip_ms, uint32_t other_round_trip_ms)
{
    uint32_t trip = round_trip_ms < other_round_trip_ms ? round_trip_ms : other_round_trip_ms;
    constexpr uint32_t LONGEST_TRIP = ADVERT_WAIT_MAX_MS - ADVERT_SLACK_MS;
    return (trip < LONGEST_TRIP ? trip : LONGEST_TRIP) + ADVERT_SLACK_MS;
}

} // namespace host
