// The tile: the unit in which the screen is compared, sent, cached and shown.
#ifndef QV_PROTOCOL_TILE_H
#define QV_PROTOCOL_TILE_H

#include <stdint.h>

constexpr int32_t TILE_SIZE = 64;                           // pixels, both ways
constexpr int32_t PIXEL_BYTES = 4;                          // blue, green, red, unused
constexpr int32_t TILE_ROW_BYTES = TILE_SIZE * PIXEL_BYTES; // 256
constexpr int32_t TILE_BYTES = TILE_ROW_BYTES * TILE_SIZE;  // 16384

// Pixels rounded up to whole tiles. n is at most 0x7FFFFFC0.
constexpr int32_t pad_to_tile(int32_t n)
{
    return (n + (TILE_SIZE - 1)) & ~(TILE_SIZE - 1);
}

// Tiles that n pixels touch. n is at most 0x7FFFFFC0.
constexpr int32_t tiles_for(int32_t n)
{
    return (n + (TILE_SIZE - 1)) >> 6;
}

static_assert(TILE_BYTES == 16384);

#endif
