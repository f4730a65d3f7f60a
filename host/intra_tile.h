// Intra tiles: a tile compressed by itself, without the one that the viewer shows in its place.
//
// The difference of two unrelated pictures holds the detail of both. Where a tile has nothing
// to do with what was there before, its own pixels take half to two thirds of the bytes. The
// protocol has no message for that, but two make one: a reference to the tile of zeros, which
// the viewer's cache has to hold, and behind it a MSG_TILE with hash 0, a difference from
// those zeros. As a reference can miss, the tile is PENDING until the frame is acknowledged
// (tile_base.h), and its hash goes into nobody's cache: what stands there after a miss is
// rubbish.
//
// Worth that only where bytes are what is short: the frame pipeline sends none unless it
// limits the bytes of its frames.
#ifndef QV_HOST_INTRA_TILE_H
#define QV_HOST_INTRA_TILE_H

#include "host/host_lock.h"
#include "host/tile_base.h"

#include <stdint.h>

namespace host
{

// How much a tile repeats itself, by every fourth row: pixels of which the same one stood in
// their place of a small table when they came by. 0 to INTRA_PIXELS.
constexpr int32_t INTRA_ROW_STEP = 4;
constexpr int32_t INTRA_PIXELS = 1024;
struct intra_repeats {
    int32_t own;        // the tile
    int32_t difference; // its difference from what was there before
};

// Both are pitched (tile_ops.h).
intra_repeats intra_count(const uint8_t *now, const uint8_t *before, uint64_t pitch);

// Whether the tile compresses clearly better by itself, as far as that count tells.
bool intra_pays(const intra_repeats &repeats);

// ---------------------------------------------------------------------------------------
// The session. `proven`: a reference of this session was acknowledged without a miss, and the
// viewer has missed nothing that its cache must hold. `held`: it must hold the tile of zeros,
// by all that is known. A viewer that misses it all the same gets no intra tile any more.
// Callers hold host_lock.

// A session begins.
void intra_start() REQUIRES(host_lock);

// The hash of the tile of zeros.
uint64_t intra_zero_hash();

// Whether a tile may go as an intra tile. confirmed_seq is the newest frame that the viewer
// acknowledged.
bool intra_ready(bool proven, bool held, uint32_t confirmed_seq) REQUIRES(host_lock);

// Whether this tile, which is about to go out as a difference, is to teach the viewer the tile
// of zeros: it goes twice then, first as zeros under their hash. That costs next to nothing
// where the viewer still shows zeros; elsewhere it is done only if the rest is settled.
bool intra_teaches(const tile_base &base, bool proven, bool held, uint32_t confirmed_seq)
    REQUIRES(host_lock);

// The tile of zeros goes out under its hash in frame seq.
void intra_taught(uint32_t seq) REQUIRES(host_lock);

// A tile goes out as an intra tile.
void intra_sent() REQUIRES(host_lock);

// The viewer missed a reference. True when its tile may show the rubbish of an intra tile, and
// has to be sent again whatever it is.
bool intra_missed(uint64_t hash) REQUIRES(host_lock);

} // namespace host

#endif
