// Loops over the 64 rows of 256 bytes of a tile.
//
// Those that run for every changed or unchanged tile are written so that the compiler makes
// vector code of them at -O2 without a check at run time: constant trip counts, whole words
// read through memcpy, no early way out inside a row, no aliasing with what is written. A
// comparison then runs as fast as memory delivers; hand-written vector code measured no
// faster. tile_is_zero is for the few tiles that a viewer missed and may be slower.
#include "host/tile_ops.h"

#include <string.h>

namespace host
{

static inline uint64_t load_word(const uint8_t *p)
{
    uint64_t word;
    memcpy(&word, p, sizeof word);
    return word;
}

bool tile_equal(const uint8_t *a, const uint8_t *b, uint64_t pitch)
{
    for (int32_t row = 0; row < TILE_SIZE; row++) {
        const uint8_t *p = a + (uint64_t)row * pitch;
        const uint8_t *q = b + (uint64_t)row * pitch;
        uint64_t difference = 0;
        for (int32_t i = 0; i < TILE_ROW_BYTES; i += 8)
            difference |= load_word(p + i) ^ load_word(q + i);
        if (difference != 0)
            return false;
    }
    return true;
}

bool tile_is_zero(const uint8_t *tile, uint64_t pitch)
{
    for (int32_t row = 0; row < TILE_SIZE; row++) {
        const uint8_t *p = tile + (uint64_t)row * pitch;
        uint64_t any = 0;
        for (int32_t i = 0; i < TILE_ROW_BYTES; i += 8)
            any |= load_word(p + i);
        if (any != 0)
            return false;
    }
    return true;
}

void tile_gather(uint8_t tile[TILE_BYTES], const uint8_t *src, uint64_t pitch)
{
    for (int32_t row = 0; row < TILE_SIZE; row++)
        memcpy(tile + row * TILE_ROW_BYTES, src + (uint64_t)row * pitch, TILE_ROW_BYTES);
}

void tile_scatter(uint8_t *dst, uint64_t pitch, const uint8_t tile[TILE_BYTES])
{
    for (int32_t row = 0; row < TILE_SIZE; row++)
        memcpy(dst + (uint64_t)row * pitch, tile + row * TILE_ROW_BYTES, TILE_ROW_BYTES);
}

// A function of its own for the sake of __restrict, which GCC heeds on parameters only.
static void xor_row(uint8_t *__restrict to, const uint8_t *__restrict a,
                    const uint8_t *__restrict b)
{
    for (int32_t i = 0; i < TILE_ROW_BYTES; i++)
        to[i] = a[i] ^ b[i];
}

void tile_xor(uint8_t delta[TILE_BYTES], const uint8_t tile[TILE_BYTES], const uint8_t *base,
              uint64_t pitch)
{
    for (int32_t row = 0; row < TILE_SIZE; row++)
        xor_row(delta + row * TILE_ROW_BYTES, tile + row * TILE_ROW_BYTES,
                base + (uint64_t)row * pitch);
}

} // namespace host
