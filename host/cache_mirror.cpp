// The host's mirror of the viewer's tile cache.
//
// The viewer never says what it drops, so the mirror errs on the side of believing: a hash
// stays until a miss disproves it. A wrong entry costs one reference, one miss and one
// resend; a missing one costs sending a tile in full.
//
// Linear probing with deletion by reinsertion keeps one invariant: no empty slot lies
// between a hash's home slot and the slot that holds it. A quarter of the slots is always
// empty, so every probe ends soon.
//
// Callers hold host_lock: the frame pipeline on the host server thread, and the control
// thread for advertisements and misses.
#include "host/cache_mirror.h"

#include <stdlib.h>
#include <string.h>

namespace host
{

constexpr uint32_t SLOT_MASK = CACHE_MIRROR_SLOTS - 1;

static_assert((CACHE_MIRROR_SLOTS & SLOT_MASK) == 0);
static_assert(CACHE_MIRROR_FULL + 1 < CACHE_MIRROR_SLOTS); // some slot is always empty

static struct {
    uint64_t *slots; // null without memory; kept until process end
    uint32_t count;
} cache_mirror GUARDED_BY(host_lock);

// The slot that holds the hash, or the empty one where its probe ends. Slots exist.
static uint32_t probe(uint64_t hash) REQUIRES(host_lock)
{
    uint32_t at = (uint32_t)hash & SLOT_MASK;
    while (cache_mirror.slots[at] != 0 && cache_mirror.slots[at] != hash)
        at = (at + 1) & SLOT_MASK;
    return at;
}

void cache_mirror_reset()
{
    if (cache_mirror.slots)
        memset(cache_mirror.slots, 0, CACHE_MIRROR_SLOTS * sizeof(uint64_t));
    else
        cache_mirror.slots = (uint64_t *)calloc(CACHE_MIRROR_SLOTS, sizeof(uint64_t));
    cache_mirror.count = 0;
}

void cache_mirror_insert(uint64_t hash)
{
    if (hash == 0 || !cache_mirror.slots || cache_mirror.count > CACHE_MIRROR_FULL)
        return;
    uint32_t at = probe(hash);
    if (cache_mirror.slots[at] == 0) {
        cache_mirror.slots[at] = hash;
        cache_mirror.count++;
    }
}

bool cache_mirror_find(uint64_t hash)
{
    return hash != 0 && cache_mirror.slots && cache_mirror.slots[probe(hash)] == hash;
}

// Empties the hash's slot and inserts the rest of its probe run again, in order. Of each of
// those the outcome is known: if its probe passes the hole it moves there and leaves one
// behind, else it stays. So no probe is walked, and one pass over the run is all, however
// long a viewer made it: the lock is held meanwhile.
void cache_mirror_remove(uint64_t hash)
{
    if (!cache_mirror_find(hash))
        return;
    uint64_t *slots = cache_mirror.slots;
    uint32_t hole = probe(hash);
    for (uint32_t at = (hole + 1) & SLOT_MASK; slots[at] != 0; at = (at + 1) & SLOT_MASK) {
        uint32_t from_home = (at - (uint32_t)slots[at]) & SLOT_MASK;
        uint32_t from_hole = (at - hole) & SLOT_MASK;
        if (from_hole <= from_home) {
            slots[hole] = slots[at];
            hole = at;
        }
    }
    slots[hole] = 0;
    cache_mirror.count--;
}

uint32_t cache_mirror_count()
{
    return cache_mirror.count;
}

} // namespace host
