// Whether what a tile shows is worth a slot of the viewer's cache.
//
// Two ends of one scale. A tile that changes all the time, as under a video, shows nothing
// twice: its contents would only drive out what may come back. And a tile whose content the
// viewer did not get under a hash, but by a move of its own pixels, say, and which then stays,
// is worth to be kept although nothing about it need be sent.
//
// Pure. The records live beside the dirty map (screen.h), under host_lock.
#ifndef QV_HOST_TILE_WORTH_H
#define QV_HOST_TILE_WORTH_H

#include <stdint.h>

namespace host
{

// For so long a tile must have stayed as it is.
constexpr uint32_t TILE_SETTLED_MS = 300;

// Zeroed: nothing changed yet.
struct tile_worth {
    uint32_t turn;     // in which it changed last
    uint32_t since_ms; // when its content came, while unnamed
    uint8_t changes;   // a bit a turn in which it changed, the last one lowest
    uint8_t unnamed;   // 1: the viewer got its content without a hash
    uint16_t unused;
};

// The tile changed. Turns are counted over all tiles: one is over when every tile that changed
// has been sent, so it takes one frame, or several where a frame does not take all. Turns in
// which nothing changed are not counted.
void tile_worth_changed(tile_worth *worth, uint32_t turn);

// Whether it changed in at least 6 of the 8 turns that end with its last change.
bool tile_worth_restless(const tile_worth &worth);

// The viewer got the tile's content without a hash.
void tile_worth_unnamed(tile_worth *worth, uint32_t now_ms);

// Whether it did, and the tile has settled since.
bool tile_worth_settled(const tile_worth &worth, uint32_t now_ms);

} // namespace host

#endif
