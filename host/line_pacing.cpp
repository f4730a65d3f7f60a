// How much may be on its way to the viewer.
//
// The in-flight cap counts frames, and one frame may carry megabytes: more than a slow line
// takes in seconds. Everything that is sent beyond what the line carries lies in a queue
// somewhere, and whatever happens on the screen meanwhile shows that much later. So where
// acknowledgements show such a queue, the bytes on their way are limited to what the line
// carries in one round trip and LINE_QUEUE_US more, so that it never runs dry.
//
// Two things are estimated for that. The base is the round trip without queues: the smallest
// of the last one or two minutes. The rate is what was acknowledged between a frame's start
// and its acknowledgement; of some seconds the largest counts, since a line is not slower
// for having had nothing to carry. Everything that passes between is as old as its own
// round trip, and the limit settles within a few of these.
//
// The base can turn out wrong in one direction only, too small: the line or the viewer has
// become slower. Each frame then seems to have queued, the limit falls to its minimum, and
// the round trips do not come down with it. That is how it is noticed.
//
// The viewer can make its own picture slow by what it acknowledges, and when, and nothing
// else: a limit is never below LINE_LIMIT_MIN, and without acknowledgements a frame goes
// every two seconds. Its echoed stamps are not looked at.
//
// Called by the frame pipeline on the server thread.
#include "host/line_pacing.h"

namespace host
{

// Stepping in and out.
static constexpr uint64_t STEP_IN_QUEUE_US = 60000;
static constexpr uint64_t STEP_IN_BYTES = 64 * 1024;
static constexpr uint64_t STEP_IN_RATE = 25000000;
static constexpr uint64_t STEP_IN_TRIP_US = 25000; // both of the handshake's
static constexpr uint64_t STEP_OUT_RATE = 30000000;

static constexpr uint64_t RATE_BYTES_MIN = 16 * 1024; // fewer say nothing about the line
static constexpr uint64_t RATE_SPAN_US = 1500000;
static constexpr uint64_t DRY_QUEUE_US = 40000; // what seems shorter may have run dry
static constexpr uint64_t BASE_SPAN_US = 60000000;
static constexpr uint64_t LONG_QUEUE_US = 120000; // from here only the latest rates count
static constexpr uint64_t SLOWER_US = 40000;
static constexpr uint32_t SLOWER_ACKS = 3;

static constexpr uint64_t NO_ACK_US = 2000000; // then a frame goes whatever the limit says

// Two spans of time, so that a value counts for one to two of them.
static void next_spans(uint64_t values[2], uint64_t none, uint64_t *start_us, uint64_t span_us,
                       uint64_t now_us)
{
    if (now_us - *start_us < span_us)
        return;
    values[1] = now_us - *start_us < 2 * span_us ? values[0] : none;
    values[0] = none;
    *start_us = now_us;
}

static uint64_t smaller(uint64_t a, uint64_t b)
{
    return a < b ? a : b;
}

static uint64_t larger(uint64_t a, uint64_t b)
{
    return a > b ? a : b;
}

// By a clock that another thread may have read before this one's last look at it.
static uint64_t since(uint64_t now_us, uint64_t then_us)
{
    return now_us > then_us ? now_us - then_us : 0;
}

void line_start(line_pacing *line, uint32_t frame_seq, uint64_t trip_us, uint64_t other_trip_us,
                uint64_t now_us)
{
    *line = {};
    line->sent_seq = frame_seq;
    line->acked_seq = frame_seq;
    line->trip_us = smaller(trip_us, other_trip_us);
    line->rtt_min_us[0] = LINE_NO_LIMIT;
    line->rtt_min_us[1] = LINE_NO_LIMIT;
    line->rtt_span_start_us = now_us;
    line->rate_span_start_us = now_us;
    // Both, since a peer that is merely slow at its first computation is not far away.
    line->in = line->trip_us >= STEP_IN_TRIP_US;
}

void line_sent(line_pacing *line, uint32_t seq, uint64_t bytes, uint64_t now_us)
{
    bool idle = line->sent_bytes == line->acked_bytes;
    line->sent_bytes += bytes;
    line->sent_seq = seq;
    line->last_sent_us = now_us;
    line->frames[seq % LINE_FRAMES] = {
        .seq = seq,
        .evidence = line->acked_any,
        .sent_us = now_us,
        // Else a second without anything to send would look like a slow line.
        .start_us = idle || line->last_ack_us == 0 ? now_us : line->last_ack_us,
        .acked_before = line->acked_bytes,
        .bytes = bytes,
        .end = line->sent_bytes,
    };
}

uint64_t line_base_us(const line_pacing *line)
{
    return smaller(line->trip_us, smaller(line->rtt_min_us[0], line->rtt_min_us[1]));
}

uint64_t line_limit(const line_pacing *line)
{
    if (line->estimate == 0)
        return LINE_LIMIT_START;
    // The base is a round trip that was measured, so at most some minutes.
    uint64_t window_us = line_base_us(line) + LINE_QUEUE_US;
    return larger(LINE_LIMIT_MIN, line->estimate * window_us / 1000000);
}

// Whether the base is too small, by round trips that stay long although the line is all but
// idle. If so it is learned anew.
static void check_base(line_pacing *line, uint64_t rtt_us)
{
    bool slower = line->in && line_limit(line) == LINE_LIMIT_MIN &&
                  rtt_us > line_base_us(line) + SLOWER_US;
    if (!slower) {
        line->slower_count = 0;
        return;
    }
    line->slower_min_us =
        line->slower_count == 0 ? rtt_us : smaller(line->slower_min_us, rtt_us);
    if (++line->slower_count < SLOWER_ACKS)
        return;
    line->slower_count = 0;
    line->trip_us = LINE_NO_LIMIT;
    line->rtt_min_us[0] = line->slower_min_us;
    line->rtt_min_us[1] = LINE_NO_LIMIT;
}

// What a frame says that the line carries. Where little waited but the frame behind itself,
// that is at least its rate, since the limit may have kept the line from carrying more; then
// the estimate stands. If it followed, a limit that is too low would lower the estimate, and
// that the limit: for frames that are long on this line, say, or a viewer slow to answer.
static uint64_t carried_rate(const line_pacing *line, uint64_t rate, uint64_t frame_bytes,
                             uint64_t queue_us)
{
    if (rate >= line->estimate)
        return rate;
    uint64_t own_us = frame_bytes * 1000000 / line->estimate;
    return since(queue_us, own_us) < DRY_QUEUE_US ? line->estimate : rate;
}

static void take_rate(line_pacing *line, uint64_t rate)
{
    line->rates[line->rate_count++ % LINE_SAMPLES] = rate;
    line->rate_max[0] = larger(line->rate_max[0], rate);
}

static void estimate_rate(line_pacing *line, uint64_t queue_us)
{
    uint64_t latest = larger(line->rates[0], larger(line->rates[1], line->rates[2]));
    if (queue_us > LONG_QUEUE_US && latest != 0) {
        // The line has become slower than it was some seconds ago.
        line->rate_max[0] = latest;
        line->rate_max[1] = 0;
    }
    uint64_t largest = larger(line->rate_max[0], line->rate_max[1]);
    if (largest != 0)
        line->estimate = largest;
}

void line_acked(line_pacing *line, uint32_t seq, uint64_t now_us)
{
    const line_frame *frame = &line->frames[seq % LINE_FRAMES];
    if ((int32_t)(seq - line->acked_seq) <= 0 || (int32_t)(line->sent_seq - seq) < 0 ||
        frame->seq != seq)
        return;

    uint64_t rtt_us = since(now_us, frame->sent_us);
    uint64_t delivered = frame->end - frame->acked_before;
    uint64_t taken_us = larger(since(now_us, frame->start_us), 1);
    uint64_t rate = delivered * 1000000 / taken_us;

    next_spans(line->rtt_min_us, LINE_NO_LIMIT, &line->rtt_span_start_us, BASE_SPAN_US, now_us);
    line->rtt_min_us[0] = smaller(line->rtt_min_us[0], rtt_us);
    check_base(line, rtt_us);
    uint64_t queue_us = since(rtt_us, line_base_us(line));

    next_spans(line->rate_max, 0, &line->rate_span_start_us, RATE_SPAN_US, now_us);
    if (frame->evidence && delivered >= RATE_BYTES_MIN)
        take_rate(line, carried_rate(line, rate, frame->bytes, queue_us));
    estimate_rate(line, queue_us);

    // What was sent before the first acknowledgement says nothing: the viewer may have been
    // opening its window and reading its cache all the while.
    if (frame->evidence && queue_us > STEP_IN_QUEUE_US && delivered >= STEP_IN_BYTES &&
        rate < STEP_IN_RATE)
        line->in = true;
    if (line->estimate > STEP_OUT_RATE)
        line->in = false;

    line->acked_seq = seq;
    line->acked_bytes = frame->end;
    line->acked_any = true;
    line->last_ack_us = now_us;
}

uint64_t line_frame_bytes(const line_pacing *line)
{
    return line->in ? larger(LINE_FRAME_MIN, line_limit(line) / 4) : LINE_NO_LIMIT;
}

uint64_t line_wait_us(const line_pacing *line, uint64_t now_us)
{
    if (!line->in || line->sent_bytes - line->acked_bytes < line_limit(line))
        return 0;
    uint64_t quiet_us = since(now_us, larger(line->last_ack_us, line->last_sent_us));
    return quiet_us >= NO_ACK_US ? 0 : NO_ACK_US - quiet_us;
}

} // namespace host
