// Pacing by bytes, for a line that queues what it cannot carry.
//
// Pure: numbers in, numbers out; the clock is an argument, in microseconds (clock_us). One
// record a session; whoever owns it calls everything from one thread.
#ifndef QV_HOST_LINE_PACING_H
#define QV_HOST_LINE_PACING_H

#include <stdint.h>

namespace host
{

constexpr uint64_t LINE_LIMIT_MIN = 24 * 1024;   // bytes unacknowledged; at least so many
constexpr uint64_t LINE_LIMIT_START = 96 * 1024; // before the first rate is known
constexpr uint64_t LINE_FRAME_MIN = 8 * 1024;    // bytes of one frame; at least so many
constexpr uint64_t LINE_QUEUE_US = 50000;        // time in queues that the limit allows for

// No limit: of a frame's bytes, or of time.
constexpr uint64_t LINE_NO_LIMIT = UINT64_MAX;

// A frame that may still be acknowledged. Byte counts are of the session.
struct line_frame {
    uint32_t seq;
    bool evidence;         // an acknowledgement had arrived when it was sent
    uint64_t sent_us;      // before the flush
    uint64_t start_us;     // from when on the line was busy with what was under way then
    uint64_t acked_before; // bytes acknowledged when it was sent
    uint64_t bytes;        // of this frame
    uint64_t end;          // bytes sent, this frame included
};

// Frames further back than this are forgotten; far more than are ever under way.
constexpr uint32_t LINE_FRAMES = 256;

constexpr uint32_t LINE_SAMPLES = 3;

struct line_pacing {
    bool in;            // the limit applies
    bool acked_any;     // an acknowledgement has arrived
    uint32_t sent_seq;  // newest frame sent
    uint32_t acked_seq; // newest frame really acknowledged
    uint64_t sent_bytes, acked_bytes;
    uint64_t last_ack_us;  // 0: none yet
    uint64_t last_sent_us; // 0: none yet
    line_frame frames[LINE_FRAMES];

    // Round trip without queues: the smallest of these, LINE_NO_LIMIT where there is none.
    uint64_t trip_us;       // of the handshake
    uint64_t rtt_min_us[2]; // of this span of time and the one before
    uint64_t rtt_span_start_us;
    uint64_t slower_min_us; // of the round trips in a row that speak for a longer one
    uint32_t slower_count;

    // Bytes a second; 0: none.
    uint64_t rate_max[2]; // of this span of time and the one before
    uint64_t rate_span_start_us;
    uint64_t rates[LINE_SAMPLES]; // the latest, in a ring
    uint32_t rate_count;
    uint64_t estimate;
};

// A session begins whose frames are numbered from frame_seq; the two round trips are those
// of its handshake.
void line_start(line_pacing *line, uint32_t frame_seq, uint64_t trip_us, uint64_t other_trip_us,
                uint64_t now_us);

// A frame of so many bytes is about to be flushed. Numbers rise by one.
void line_sent(line_pacing *line, uint32_t seq, uint64_t bytes, uint64_t now_us);

// The viewer said that it has this frame. What cannot be true is ignored.
void line_acked(line_pacing *line, uint32_t seq, uint64_t now_us);

// Round trip without queues, by what is known.
uint64_t line_base_us(const line_pacing *line);

// Bytes that may be unacknowledged while the limit applies.
uint64_t line_limit(const line_pacing *line);

// Bytes that one frame may take; the tile that reaches them is finished.
uint64_t line_frame_bytes(const line_pacing *line);

// How long nothing may be sent, if no acknowledgement comes: 0 when a frame may go now.
uint64_t line_wait_us(const line_pacing *line, uint64_t now_us);

} // namespace host

#endif
