// The content hash of a tile: one multiply-xor-rotate round for each of its 2048 words.
//
// Host and viewer only ever compare these values, but they live in the viewer's cache file
// across versions: the function must not change.

#include "host/tile_hash.h"

#include <string.h>

uint64_t tile_hash(const uint8_t tile[TILE_BYTES])
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words are little-endian");
    uint64_t h = 0x9E3779B97F4A7C15ull;
    for (int32_t i = 0; i < TILE_BYTES; i += 8) {
        uint64_t word;
        memcpy(&word, tile + i, sizeof word);
        uint64_t k = word * 0xFF51AFD7ED558CCDull;
        k = k ^ (k >> 32) ^ h;
        k = k << 31 | k >> 33;
        h = k * 0xC4CEB9FE1A85EC53ull;
    }
    h = (h ^ (h >> 29)) * 0x94D049BB133111EBull;
    h ^= h >> 32;
    return h != 0 ? h : 1; // 0 marks an empty slot and a tile that is not to be cached
}
