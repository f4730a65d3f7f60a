// What the viewer's tile cache keeps and what it drops.
//
// A two-way set-associative cache: set = hash mod (slots / 2), its ways are slots 2 * set and
// 2 * set + 1. Of the two ways the one used last is kept, whether it was written or found; the
// other is the victim. Part of the protocol, since the host, who knows all that it sends, can
// so tell without asking which tiles the viewer holds.
#ifndef QV_PROTOCOL_CACHE_WAYS_H
#define QV_PROTOCOL_CACHE_WAYS_H

#include <stdint.h>

constexpr uint32_t TILE_CACHE_SLOTS = 8192;

static_assert(TILE_CACHE_SLOTS % 2 == 0, "two ways a set");

// Which way of a set takes a hash: the one that has it, else an empty one, else the victim.
// After that the other way is the victim. 0 is the key of an empty slot.
inline uint8_t cache_way_to_write(const uint64_t keys[2], uint64_t hash, uint8_t victim)
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

#endif
