// Loops over the 64 rows of 256 bytes of a tile, for the receive thread (frame_decode.cpp).
#include "viewer/tile_place.h"

#include <emmintrin.h> // SSE2, which every x86-64 has
#include <string.h>

namespace viewer
{

// Rows of the picture that are asked for ahead of the one being written. They lie kilobytes
// apart, which the processor does not read ahead by itself.
constexpr int32_t ROWS_AHEAD = 8;

static inline uint64_t bytes_ahead(int32_t row, uint64_t stride)
{
    return row < TILE_SIZE - ROWS_AHEAD ? ROWS_AHEAD * stride : 0;
}

void tile_place(uint8_t *at, uint64_t stride, const uint8_t tile[TILE_BYTES])
{
    for (int32_t row = 0; row < TILE_SIZE; row++) {
        uint64_t ahead = bytes_ahead(row, stride);
        for (int32_t i = 0; i < TILE_ROW_BYTES; i += 64) {
            __builtin_prefetch(at + ahead + i, 1);
            memcpy(at + i, tile + i, 64);
        }
        at += stride;
        tile += TILE_ROW_BYTES;
    }
}

static inline __m128i load_16(const uint8_t *p)
{
    __m128i v;
    memcpy(&v, p, sizeof v);
    return v;
}

static inline void xor_16(uint8_t *at, const uint8_t *difference)
{
    __m128i v = _mm_xor_si128(load_16(at), load_16(difference));
    memcpy(at, &v, sizeof v);
}

void tile_xor_into(uint8_t *at, uint64_t stride, const uint8_t difference[TILE_BYTES])
{
    for (int32_t row = 0; row < TILE_SIZE; row++) {
        uint64_t ahead = bytes_ahead(row, stride);
        for (int32_t i = 0; i < TILE_ROW_BYTES; i += 64) {
            __builtin_prefetch(at + ahead + i, 1);
            xor_16(at + i, difference + i);
            xor_16(at + i + 16, difference + i + 16);
            xor_16(at + i + 32, difference + i + 32);
            xor_16(at + i + 48, difference + i + 48);
        }
        at += stride;
        difference += TILE_ROW_BYTES;
    }
}

} // namespace viewer
