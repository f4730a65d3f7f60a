#include "host/tile_hash.h"
#include "protocol/bytes.h"
#include "tests/test.h"

#include <string.h>

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
