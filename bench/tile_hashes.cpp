// tile_hash against what its own definition allows, and against XXH3.
//
// Each of a tile's 2048 words waits for the one before it: exclusive or, rotation,
// multiplication, one and one and three cycles. The chain is those three operations alone,
// without loads and without the work that does not wait; no way of hashing one tile can be
// faster. Several tiles at once can: their chains do not wait for each other.
#include "bench/groups.h"
#include "host/tile_hash.h"

#include <memory>
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>

static constexpr size_t TILES = 32;

using tiles = std::vector<uint8_t>; // TILES of them

static void hash_alone(const tiles &t)
{
    for (size_t i = 0; i < TILES; i++)
        bench_keep(tile_hash(&t[i * TILE_BYTES]));
}

// How the frame pipeline hashes the changed tiles of a frame. Older trees have no batches.
template <class pointer> static void hash_all(const pointer *at, uint64_t *hashes)
{
    if constexpr (requires { tile_hash_batch(at, TILES, TILE_ROW_BYTES, hashes); })
        tile_hash_batch(at, TILES, TILE_ROW_BYTES, hashes);
    else
        for (size_t i = 0; i < TILES; i++)
            hashes[i] = tile_hash(at[i]);
}

static void hash_batch(const tiles &t, uint64_t hashes[TILES])
{
    const uint8_t *at[TILES];
    for (size_t i = 0; i < TILES; i++)
        at[i] = &t[i * TILE_BYTES];
    hash_all(at, hashes);
}

static uint64_t chain_of_one_tile(uint64_t h)
{
    for (int32_t i = 0; i < TILE_BYTES / 8; i++) {
        h ^= 0xFF51AFD7ED558CCDull;
        asm volatile("" : "+r"(h)); // nothing is worked out across steps
        h = h << 31 | h >> 33;
        h *= 0xC4CEB9FE1A85EC53ull;
    }
    return h;
}

// The hash as it is defined, byte by byte.
static uint64_t plain_hash(const uint8_t *tile)
{
    uint64_t h = 0x9E3779B97F4A7C15ull;
    for (int32_t i = 0; i < TILE_BYTES; i += 8) {
        uint64_t word = 0;
        for (int32_t b = 0; b < 8; b++)
            word |= (uint64_t)tile[i + b] << (8 * b);
        uint64_t k = word * 0xFF51AFD7ED558CCDull;
        k = k ^ k >> 32 ^ h;
        h = (k << 31 | k >> 33) * 0xC4CEB9FE1A85EC53ull;
    }
    h = (h ^ h >> 29) * 0x94D049BB133111EBull;
    h ^= h >> 32;
    return h != 0 ? h : 1;
}

void tile_hash_lines(std::vector<bench_line> *lines)
{
    auto t = std::make_shared<tiles>(TILES * TILE_BYTES);
    bench_random random = {77};
    for (uint8_t &byte : *t)
        byte = (uint8_t)(random.next() >> 32);

    bench_line line;
    line.group = "tile hash";
    line.unit = "tile";
    line.units = (double)TILES;
    line.right = [=] {
        uint64_t hashes[TILES];
        hash_batch(*t, hashes);
        for (size_t i = 0; i < TILES; i++) {
            uint64_t plain = plain_hash(&(*t)[i * TILE_BYTES]);
            if (tile_hash(&(*t)[i * TILE_BYTES]) != plain || hashes[i] != plain)
                return false;
        }
        return true;
    };
    bench_side alone = {"one at a time", [=] { hash_alone(*t); }};
    bench_side batch = {"batch", [=] {
                            uint64_t hashes[TILES];
                            hash_batch(*t, hashes);
                            for (uint64_t hash : hashes)
                                bench_keep(hash);
                        }};

    line.name = "one tile";
    line.own = alone;
    line.other = {"its dependency chain", [] {
                      uint64_t h = 1;
                      for (size_t i = 0; i < TILES; i++)
                          h = chain_of_one_tile(h);
                      bench_keep(h);
                  }};
    lines->push_back(line);

    line.name = "changed tiles in batches";
    line.own = batch;
    line.other = alone;
    line.target = 2.3;
    lines->push_back(line);

    line.name = "changed tiles in batches, XXH3";
    line.other = {"XXH3_64bits", [=] {
                      for (size_t i = 0; i < TILES; i++)
                          bench_keep(XXH3_64bits(&(*t)[i * TILE_BYTES], TILE_BYTES));
                  }};
    line.target = 0;
    lines->push_back(line);
}
