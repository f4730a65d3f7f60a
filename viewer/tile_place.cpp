// Loops over the 64 rows of 256 bytes of a tile, for the receive thread (frame_decode.cpp).
#include "viewer/tile_place.h"

#include <string.h>

namespace viewer
{

void tile_place(uint8_t *at, uint64_t stride, const uint8_t tile[TILE_BYTES])
{
    for (int32_t row = 0; row < TILE_SIZE; row++)
        memcpy(at + (uint64_t)row * stride, tile + row * TILE_ROW_BYTES, TILE_ROW_BYTES);
}

// A loop of fixed length over memory that cannot overlap: the compiler turns it into vector
// operations.
static void xor_row(uint8_t *__restrict at, const uint8_t *__restrict difference)
{
    for (int32_t i = 0; i < TILE_ROW_BYTES; i++)
        at[i] ^= difference[i];
}

void tile_xor_into(uint8_t *at, uint64_t stride, const uint8_t difference[TILE_BYTES])
{
    for (int32_t row = 0; row < TILE_SIZE; row++)
        xor_row(at + (uint64_t)row * stride, difference + row * TILE_ROW_BYTES);
}

} // namespace viewer
