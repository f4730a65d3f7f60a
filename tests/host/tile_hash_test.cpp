#include "host/tile_hash.h"
#include "protocol/bytes.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

#include "tests/vectors/tile_hash.h"

static uint8_t tile[TILE_BYTES];

TEST_CASE("hashes equal those of another implementation")
{
    memset(tile, 0, sizeof tile);
    CHECK(tile_hash(tile) == TILE_HASH_ZEROS);
    tile[TILE_BYTES - 1] = 1;
    CHECK(tile_hash(tile) == TILE_HASH_LAST_BYTE);
    memset(tile, 0xFF, sizeof tile);
    CHECK(tile_hash(tile) == TILE_HASH_ONES);
    for (int i = 0; i < TILE_BYTES; i++)
        tile[i] = (uint8_t)i;
    CHECK(tile_hash(tile) == TILE_HASH_COUNT);
}

TEST_CASE("each word counts, and so does its place")
{
    memset(tile, 0, sizeof tile);
    uint64_t seen[TILE_BYTES / 8];
    for (int i = 0; i < TILE_BYTES / 8; i++) {
        tile[i * 8 + 3] = 1;
        seen[i] = tile_hash(tile);
        tile[i * 8 + 3] = 0;
    }
    int equal = 0;
    for (int i = 1; i < TILE_BYTES / 8; i++)
        equal += seen[i] == seen[i - 1];
    CHECK(equal == 0);
}

TEST_CASE("a hash that would be 0 is 1, since 0 marks what is not cached")
{
    memset(tile, 0, sizeof tile);
    store_le64(tile + TILE_BYTES - 8, TILE_HASH_VANISHING_WORD);
    CHECK(tile_hash(tile) == 1);
    // No other last word does that: each step is one to one.
    store_le64(tile + TILE_BYTES - 8, TILE_HASH_VANISHING_WORD ^ 1);
    CHECK(tile_hash(tile) > 1);
}

// The hash as it is defined, byte by byte.
static uint64_t plain_hash(const uint8_t *first, uint64_t pitch)
{
    uint64_t h = 0x9E3779B97F4A7C15ull;
    for (uint64_t row = 0; row < 64; row++)
        for (uint64_t i = 0; i < 256; i += 8) {
            uint64_t word = 0;
            for (uint64_t b = 0; b < 8; b++)
                word |= (uint64_t)first[row * pitch + i + b] << (8 * b);
            uint64_t k = word * 0xFF51AFD7ED558CCDull;
            k = (k ^ (k >> 32)) ^ h;
            h = ((k << 31) | (k >> 33)) * 0xC4CEB9FE1A85EC53ull;
        }
    h = (h ^ (h >> 29)) * 0x94D049BB133111EBull;
    h = h ^ (h >> 32);
    return h == 0 ? 1 : h;
}

TEST_CASE("tiles of a picture hashed together have the hashes that they have alone")
{
    test_random random = test_random_seeded("tile_hash_batch");
    for (uint64_t pitch : {256u, 512u, 1408u * 4, 257u}) {
        std::vector<uint8_t> picture(pitch * 64 + 9 * 256 + 7);
        for (uint8_t &b : picture)
            b = (uint8_t)random.next();
        for (int32_t count = 0; count <= 9; count++) {
            const uint8_t *tiles[9] = {};
            uint64_t hashes[10] = {};
            for (int32_t i = 0; i < count; i++)
                tiles[i] = &picture[random.below(9 * 256 + 7)];
            tile_hash_batch(tiles, count, pitch, hashes);
            for (int32_t i = 0; i < count; i++)
                CHECK(hashes[i] == plain_hash(tiles[i], pitch));
            CHECK(hashes[count] == 0);
        }
    }
}

TEST_CASE("hashed together, tiles have the hashes of another implementation")
{
    static uint8_t four[4][TILE_BYTES];
    four[1][TILE_BYTES - 1] = 1;
    memset(four[2], 0xFF, TILE_BYTES);
    store_le64(four[3] + TILE_BYTES - 8, TILE_HASH_VANISHING_WORD);
    const uint8_t *tiles[] = {four[0], four[1], four[2], four[3]};
    uint64_t hashes[4];
    tile_hash_batch(tiles, 4, TILE_ROW_BYTES, hashes);
    CHECK(hashes[0] == TILE_HASH_ZEROS);
    CHECK(hashes[1] == TILE_HASH_LAST_BYTE);
    CHECK(hashes[2] == TILE_HASH_ONES);
    CHECK(hashes[3] == 1);
}
