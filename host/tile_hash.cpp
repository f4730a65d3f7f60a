// The content hash of a tile: one multiply-xor-rotate round for each of its 2048 words.
//
// Host and viewer only ever compare these values, but they live in the viewer's cache file
// across versions: the function must not change.
//
// A round waits for the one before it, five cycles a word, of which the processor's multiplier
// is busy for two. So tiles are best hashed four at a time, word by word in turn: their rounds
// do not wait for each other. That is 2.4 times as fast and as fast as one multiplier goes;
// vector code would not help, SSE2 multiplies no 64-bit words.

#include "host/tile_hash.h"

#include <string.h>

constexpr uint64_t HASH_START = 0x9E3779B97F4A7C15ull;
constexpr int32_t BATCH = 4;

// Rows that are asked for ahead of those being hashed. Most changed tiles come from memory
// here: the comparison leaves off at their first difference. Takes a third off such a tile's
// time.
constexpr int32_t ROWS_AHEAD = 4;

static inline uint64_t hash_word(uint64_t h, const uint8_t *at)
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words are little-endian");
    uint64_t word;
    memcpy(&word, at, sizeof word);
    uint64_t k = word * 0xFF51AFD7ED558CCDull;
    k = k ^ (k >> 32) ^ h;
    k = k << 31 | k >> 33;
    return k * 0xC4CEB9FE1A85EC53ull;
}

static uint64_t hash_finish(uint64_t h)
{
    h = (h ^ (h >> 29)) * 0x94D049BB133111EBull;
    h ^= h >> 32;
    return h != 0 ? h : 1; // 0 marks an empty slot and a tile that is not to be cached
}

static uint64_t hash_one(const uint8_t *tile, uint64_t pitch)
{
    uint64_t h = HASH_START;
    for (int32_t row = 0; row < TILE_SIZE; row++, tile += pitch)
        for (int32_t i = 0; i < TILE_ROW_BYTES; i += 8)
            h = hash_word(h, tile + i);
    return hash_finish(h);
}

static inline void prefetch_row(const uint8_t *p)
{
    for (int32_t i = 0; i < TILE_ROW_BYTES; i += 64)
        __builtin_prefetch(p + i);
}

// The same for four tiles.
static void hash_four(const uint8_t *const tiles[BATCH], uint64_t pitch, uint64_t hashes[BATCH])
{
    const uint8_t *t0 = tiles[0], *t1 = tiles[1], *t2 = tiles[2], *t3 = tiles[3];
    uint64_t h0 = HASH_START, h1 = HASH_START, h2 = HASH_START, h3 = HASH_START;
    for (int32_t row = 0; row < TILE_SIZE; row++) {
        if (row < TILE_SIZE - ROWS_AHEAD) {
            prefetch_row(t0 + ROWS_AHEAD * pitch);
            prefetch_row(t1 + ROWS_AHEAD * pitch);
            prefetch_row(t2 + ROWS_AHEAD * pitch);
            prefetch_row(t3 + ROWS_AHEAD * pitch);
        }
        for (int32_t i = 0; i < TILE_ROW_BYTES; i += 8) {
            h0 = hash_word(h0, t0 + i);
            h1 = hash_word(h1, t1 + i);
            h2 = hash_word(h2, t2 + i);
            h3 = hash_word(h3, t3 + i);
        }
        t0 += pitch;
        t1 += pitch;
        t2 += pitch;
        t3 += pitch;
    }
    hashes[0] = hash_finish(h0);
    hashes[1] = hash_finish(h1);
    hashes[2] = hash_finish(h2);
    hashes[3] = hash_finish(h3);
}

uint64_t tile_hash(const uint8_t tile[TILE_BYTES])
{
    return hash_one(tile, TILE_ROW_BYTES);
}

void tile_hash_batch(const uint8_t *const tiles[], int32_t count, uint64_t pitch,
                     uint64_t hashes[])
{
    for (; count >= BATCH; count -= BATCH, tiles += BATCH, hashes += BATCH)
        hash_four(tiles, pitch, hashes);
    for (int32_t i = 0; i < count; i++)
        hashes[i] = hash_one(tiles[i], pitch);
}
