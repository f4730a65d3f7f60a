// The tile cache: one flat array of keys and one of tiles.
//
// A hash can only stand in the two slots of its set, so finding it costs one division and
// two comparisons. Of the two ways the one used last is kept: cache_victim names the other.
//
// The tiles take 128 MiB of address space, but calloc hands out untouched zero pages, so a
// session pays for the tiles that it stores.
//
// Opened by the session's thread, filled and searched by the receive thread, closed by the
// window when it is destroyed; all of it under frame_lock.
#include "viewer/tile_cache.h"

#include <stdlib.h>
#include <string.h>

namespace viewer
{

static_assert(CACHE_CAPACITY % 2 == 0, "two ways a set");

tile_cache_record tile_cache;

static uint64_t set_of(uint64_t hash) REQUIRES(frame_lock)
{
    return hash % (tile_cache.cache_capacity / 2);
}

static uint8_t *slot_tile(uint64_t slot) REQUIRES(frame_lock)
{
    return tile_cache.cache_tiles + slot * TILE_BYTES;
}

void tile_cache_close()
{
    free(tile_cache.cache_keys);
    free(tile_cache.cache_tiles);
    free(tile_cache.cache_victim);
    tile_cache = {};
}

void tile_cache_open()
{
    lock_enter(&frame_lock);
    tile_cache_close();
    tile_cache.cache_capacity = CACHE_CAPACITY;
    tile_cache.cache_keys = (uint64_t *)calloc(CACHE_CAPACITY, sizeof(uint64_t));
    tile_cache.cache_tiles = (uint8_t *)calloc(CACHE_CAPACITY, TILE_BYTES);
    tile_cache.cache_victim = (uint8_t *)calloc(CACHE_CAPACITY / 2 + 1, 1);
    if (tile_cache.cache_keys && tile_cache.cache_tiles && tile_cache.cache_victim)
        tile_cache.cache_enabled = true;
    else
        tile_cache_close();
    lock_leave(&frame_lock);
}

const uint8_t *tile_cache_find(uint64_t hash)
{
    if (!tile_cache.cache_enabled || hash == 0)
        return nullptr;

    uint64_t set = set_of(hash);
    for (uint8_t way = 0; way < 2; way++) {
        if (tile_cache.cache_keys[2 * set + way] == hash) {
            tile_cache.cache_victim[set] = !way;
            return slot_tile(2 * set + way);
        }
    }
    return nullptr;
}

// Which way of a set takes a hash: the one that has it, else an empty one, else the victim.
static uint8_t way_to_write(const uint64_t keys[2], uint64_t hash, uint8_t victim)
{
    for (uint8_t way = 0; way < 2; way++) {
        if (keys[way] == hash)
            return way;
    }
    for (uint8_t way = 0; way < 2; way++) {
        if (keys[way] == 0)
            return way;
    }
    return victim;
}

void tile_cache_insert(uint64_t hash, const uint8_t *tile, uint64_t stride)
{
    if (!tile_cache.cache_enabled || hash == 0)
        return;

    uint64_t set = set_of(hash);
    uint64_t *keys = tile_cache.cache_keys + 2 * set;
    uint8_t way = way_to_write(keys, hash, tile_cache.cache_victim[set]);
    keys[way] = hash;
    uint8_t *slot = slot_tile(2 * set + way);
    for (int32_t row = 0; row < TILE_SIZE; row++)
        memcpy(slot + row * TILE_ROW_BYTES, tile + row * stride, TILE_ROW_BYTES);
    tile_cache.cache_victim[set] = !way;
    tile_cache.cache_dirty = true;
}

} // namespace viewer
