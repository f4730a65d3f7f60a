// Work on the pixels of one tile, at memory speed.
//
// A pitched tile lies inside a picture: `pitch` bytes lie between the starts of its rows.
// The others are TILE_BYTES in one piece. Pure; any thread.
#ifndef QV_HOST_TILE_OPS_H
#define QV_HOST_TILE_OPS_H

#include "protocol/tile.h"

#include <stdint.h>

namespace host
{

// True when two pitched tiles are the same in every byte, the fourth of each pixel included.
bool tile_equal(const uint8_t *a, const uint8_t *b, uint64_t pitch);

// True when every byte of a pitched tile is zero.
bool tile_is_zero(const uint8_t *tile, uint64_t pitch);

// Copies a pitched tile into one piece.
void tile_gather(uint8_t tile[TILE_BYTES], const uint8_t *src, uint64_t pitch);

// Copies a pitched tile into another picture. The two do not overlap.
void tile_copy(uint8_t *dst, const uint8_t *src, uint64_t pitch);

// Zeroes a pitched tile.
void tile_clear(uint8_t *tile, uint64_t pitch);

// delta = a XOR b, byte by byte; a and b are pitched. The three do not overlap.
void tile_difference(uint8_t delta[TILE_BYTES], const uint8_t *a, const uint8_t *b,
                     uint64_t pitch);

} // namespace host

#endif
