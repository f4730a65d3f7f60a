// The loop that turns the captured screen into the viewer's messages.
#ifndef QV_HOST_FRAME_PIPELINE_H
#define QV_HOST_FRAME_PIPELINE_H

#include "host/host_session.h"

#include <atomic>
#include <stdint.h>

namespace host
{

// Number of the last frame ended; never reset, so numbering goes on across sessions.
// Written by the server thread; the control thread compares acknowledgements with it.
extern std::atomic<uint32_t> frame_seq;

// The capabilities that the viewer of this session announced (CAP_*). Server thread.
extern uint16_t peer_caps;

// Whether frames are limited in bytes on lines that queue (line_pacing.h). True except where
// tests and benchmarks compare; changed between sessions only.
extern bool paces_bytes;

// Whether moves are looked for in the pictures of a capture that reports none. True, except
// where a test or a benchmark wants to know the difference. Server thread.
extern bool finds_moves;

// Whether the host keeps track of what the viewer's cache drops (cache_replica.h). True, except
// where a test or a benchmark wants to know the difference; changed between sessions only.
extern bool keeps_replica;

// Whether tiles go without their base where that is shorter (intra_tile.h), while frames are
// limited in bytes. True, except where a test or a benchmark wants to know the difference.
// Server thread.
extern bool sends_intra;

// Prepares a session: screen, mirror, counters, walk start. Takes host_lock.
void frame_pipeline_start(uint16_t caps);

// Runs until host_stop_requested, session_ended or a failed flush; then logs the session's
// statistics. Host server thread.
void frame_pipeline_run(host_session *session);

// One iteration; false when a flush failed.
[[nodiscard]] bool frame_pipeline_step(host_session *session);

} // namespace host

#endif
