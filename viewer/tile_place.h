// Work on the pixels of one tile inside the viewer's picture, at memory speed.
//
// `at` addresses the tile's first pixel in the picture, whose rows lie stride bytes apart; the
// other operand is TILE_BYTES in one piece. The two do not overlap. Pure; any thread.
#ifndef QV_VIEWER_TILE_PLACE_H
#define QV_VIEWER_TILE_PLACE_H

#include "protocol/tile.h"

#include <stdint.h>

namespace viewer
{

// Copies a tile into the picture.
void tile_place(uint8_t *at, uint64_t stride, const uint8_t tile[TILE_BYTES]);

// XORs a difference into the picture.
void tile_xor_into(uint8_t *at, uint64_t stride, const uint8_t difference[TILE_BYTES]);

} // namespace viewer

#endif
