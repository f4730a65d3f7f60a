// What the host knows of the base that a tile's next difference would be applied to.
//
// The host sends differences against prev_frame, its idea of the viewer's picture. That idea
// is certain for a tile sent as pixels or as a difference from a certain base. It is not for
// a tile sent as a reference: the viewer may not hold the hash, and says so in a miss that
// arrives ahead of the frame's acknowledgement. Until a frame is acknowledged its references
// are PENDING; after a miss the tile is LOST. While a tile is uncertain it goes raw or as a
// reference, never as a difference from prev_frame.
//
// Pure: a record and frame numbers in, a record out. The records live beside the dirty map
// (screen.h), under host_lock.
#ifndef QV_HOST_TILE_BASE_H
#define QV_HOST_TILE_BASE_H

#include <stdint.h>

namespace host
{

enum base_state : uint8_t {
    BASE_KNOWN = 0,   // the viewer shows what prev_frame holds
    BASE_PENDING = 1, // sent as a reference in frame ref_seq, or on top of one
    BASE_LOST = 2,    // the viewer may show anything
};

// Zeroed = KNOWN and not blank.
struct tile_base {
    uint32_t ref_seq;   // the frame that carried the reference, while PENDING
    uint8_t base_state; // enum base_state
    uint8_t base_blank; // 1: the viewer still shows the zeros that it started with
    uint8_t must_send;  // 1: to be sent even when it equals prev_frame
    uint8_t unused;
};

// Whether frame a was numbered after frame b; numbers wrap.
inline bool frame_later(uint32_t a, uint32_t b)
{
    return (int32_t)(a - b) > 0;
}

// True unless the viewer is known to show what prev_frame holds. confirmed_seq is the newest
// frame that the viewer really acknowledged in this session.
bool tile_base_uncertain(const tile_base &base, uint32_t confirmed_seq);

// At session start: the viewer shows zeros and so does prev_frame.
void tile_base_start(tile_base *base);

// The tile went out as pixels or as a difference.
void tile_base_sent(tile_base *base);

// The tile goes out as a reference in frame ref_seq.
void tile_base_referenced(tile_base *base, uint32_t ref_seq);

// The tile goes out as an intra tile (intra_tile.h) in frame ref_seq: a reference, and on top
// of it a difference. If the reference misses, nobody knows what that makes of the tile.
void tile_base_intra(tile_base *base, uint32_t ref_seq);

// The viewer reported a miss for this tile; the caller zeroes its prev_frame.
void tile_base_missed(tile_base *base, uint32_t confirmed_seq);

} // namespace host

#endif
