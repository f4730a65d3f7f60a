// The life of one tile's base: what the host may assume that the viewer shows there.
//
//   start ----> KNOWN, blank             both sides hold zeros
//   pixels, difference ----> KNOWN       now the viewer shows what was sent
//   reference ----> PENDING              it does if it holds the hash
//   intra tile ----> PENDING, not blank  it does if it holds the tile of zeros
//   acknowledged without a miss ----> certain again, as far as differences go
//   miss ----> LOST, or KNOWN when the viewer cannot have drawn anything there yet
//
// The viewer sends the misses of a frame ahead of its acknowledgement, on one connection.
// So when frame n is acknowledged every miss of frame n has been dealt with, and a tile
// still PENDING for n shows what its reference named.
//
// base_blank is what a miss can be undone with. The host answers a miss by zeroing its
// prev_frame; for a tile that never left the zeros of the session's start the viewer
// shows exactly that, so the resend may be a difference and a black tile needs no resend.
#include "host/tile_base.h"

namespace host
{

bool tile_base_uncertain(const tile_base &base, uint32_t confirmed_seq)
{
    return base.base_state == BASE_LOST ||
           (base.base_state == BASE_PENDING && frame_later(base.ref_seq, confirmed_seq));
}

void tile_base_start(tile_base *base)
{
    *base = {
        .ref_seq = 0, .base_state = BASE_KNOWN, .base_blank = 1, .must_send = 0, .unused = 0};
}

void tile_base_sent(tile_base *base)
{
    base->base_state = BASE_KNOWN;
    base->base_blank = 0;
    base->must_send = 0;
}

void tile_base_referenced(tile_base *base, uint32_t ref_seq)
{
    // After an earlier reference or a loss the viewer may show something, whatever comes of
    // this one. A KNOWN blank tile still shows zeros if this reference misses.
    if (base->base_state != BASE_KNOWN)
        base->base_blank = 0;
    base->base_state = BASE_PENDING;
    base->ref_seq = ref_seq;
    base->must_send = 0;
}

void tile_base_intra(tile_base *base, uint32_t ref_seq)
{
    tile_base_referenced(base, ref_seq);
    base->base_blank = 0; // if the reference misses, the difference is drawn all the same
}

void tile_base_missed(tile_base *base, uint32_t confirmed_seq)
{
    bool shows_zeros =
        base->base_blank != 0 &&
        (base->base_state == BASE_KNOWN ||
         (base->base_state == BASE_PENDING && frame_later(base->ref_seq, confirmed_seq)));
    base->base_state = shows_zeros ? BASE_KNOWN : BASE_LOST;
}

} // namespace host
