// The replica of the viewer's tile cache.
//
// Both sides see the same messages in the same order, and what the cache does with them
// depends on nothing else. So the keys here are the viewer's, as of when it will have drawn
// what was sent. Which of a set's two ways holds a key may differ: a viewer advertises its
// keys without their places, and a lone one may lie in way b. That makes no difference to
// what is dropped, since an empty way is filled before anything is.
//
// A viewer advertises before it draws anything, but the host may not wait that long. What it
// sends meanwhile comes to the viewer's cache on top of what is advertised, so it is listed
// (early) and applied when the advertisement is over. That is known with the first message of
// any other kind.
//
// A reference to something that is not in the replica changes nothing here. It is sent only
// before the session's first miss, by the mirror, and then it misses; if it does not, the
// viewer has a larger cache, or one with other rules. The same goes for a miss: by the rules,
// what is missed was not there.
//
// Misses of what was there are counted, because the viewer then has no such cache. A miss
// arrives before its frame's acknowledgement. So it can belong to a reference that was held
// if one was sent since the last acknowledged frame; if another was sent since then that was
// not held, the miss could be that one's, and is not counted.
//
// Callers hold host_lock: the frame pipeline on the host server thread, and the control
// thread for advertisements and misses.
#include "host/cache_replica.h"

#include "protocol/cache_ways.h"

#include <string.h>

namespace host
{

constexpr uint32_t SETS = TILE_CACHE_SLOTS / 2;

// What was sent before the advertisement was over.
struct early_send {
    uint64_t hash;
    uint32_t now_ms;
    uint32_t seq;
    bool reference;
};

static struct {
    uint64_t keys[TILE_CACHE_SLOTS];    // 0 = empty slot
    uint8_t victims[SETS];              // for each set the way to replace next
    uint32_t used_ms[TILE_CACHE_SLOTS]; // when its key was last sent or referred to
    uint32_t ref_seq[TILE_CACHE_SLOTS]; // last frame that referred to its key

    bool advert_over;
    bool given_up;
    uint32_t early_count;
    early_send early[REPLICA_EARLY_MAX];

    uint32_t start_ms;
    uint32_t start_seq;   // frames of the session are later
    uint32_t unheld_seq;  // last frame with a reference that was not in the replica
    uint32_t misses;      // of anything
    uint32_t misses_held; // of what was in the replica

    // To find out that a reference was acknowledged without a miss: once frame mark_seq is, of
    // the mark_references that were sent up to then more were right than missed.
    uint32_t references; // sent
    bool marked;
    uint32_t mark_seq;
    uint32_t mark_references;
    bool proven;
} replica GUARDED_BY(host_lock);

// Whether frame a was numbered after frame b; numbers wrap.
static bool later(uint32_t a, uint32_t b)
{
    return (int32_t)(a - b) > 0;
}

// Finds a hash in the two slots of its set; false when neither has it.
static bool find_slot(uint64_t hash, uint32_t *slot) REQUIRES(host_lock)
{
    uint32_t first = (uint32_t)(hash % SETS) * 2;
    for (*slot = first; *slot < first + 2; ++*slot)
        if (replica.keys[*slot] == hash)
            return hash != 0;
    return false;
}

static void touch(uint32_t slot, uint32_t now_ms) REQUIRES(host_lock)
{
    replica.victims[slot / 2] = slot % 2 == 0;
    replica.used_ms[slot] = now_ms;
}

static void store(uint64_t hash, uint32_t now_ms) REQUIRES(host_lock)
{
    uint32_t set = (uint32_t)(hash % SETS);
    uint64_t *keys = &replica.keys[set * 2];
    uint8_t way = cache_way_to_write(keys, hash, replica.victims[set]);
    if (keys[way] != hash) {
        keys[way] = hash;
        replica.ref_seq[set * 2 + way] = replica.start_seq;
    }
    touch(set * 2 + way, now_ms);
}

static void refer(uint64_t hash, uint32_t seq, uint32_t now_ms) REQUIRES(host_lock)
{
    uint32_t slot;
    if (!find_slot(hash, &slot)) {
        replica.unheld_seq = seq;
        return;
    }
    replica.ref_seq[slot] = seq;
    touch(slot, now_ms);
}

// Lists a send for later. True when the advertisement is not over.
static bool put_early(const early_send &sent) REQUIRES(host_lock)
{
    if (replica.advert_over)
        return false;
    if (replica.early_count < REPLICA_EARLY_MAX)
        replica.early[replica.early_count++] = sent;
    else
        replica.given_up = true;
    return true;
}

void cache_replica_reset(uint32_t frame_seq, uint32_t now_ms)
{
    replica.early_count = 0; // the list stays as it is
    memset(replica.keys, 0, sizeof replica.keys);
    memset(replica.victims, 0, sizeof replica.victims);
    replica.advert_over = false;
    replica.given_up = false;
    replica.start_ms = now_ms;
    replica.start_seq = frame_seq;
    replica.unheld_seq = frame_seq;
    replica.misses = 0;
    replica.misses_held = 0;
    replica.references = 0;
    replica.marked = false;
    replica.proven = false;
}

void cache_replica_advertised(uint64_t hash)
{
    // In order, so that the first of a set is way a, which goes first. No cache has more of a
    // set than two, or one of them twice.
    uint32_t slot;
    if (hash == 0 || find_slot(hash, &slot))
        return;
    uint32_t first = (uint32_t)(hash % SETS) * 2;
    for (slot = first; slot < first + 2; slot++) {
        if (replica.keys[slot] != 0)
            continue;
        replica.keys[slot] = hash;
        replica.used_ms[slot] = replica.start_ms - REPLICA_RECENT_MS; // not in this session
        replica.ref_seq[slot] = replica.start_seq;
        return;
    }
}

void cache_replica_advert_over()
{
    if (replica.advert_over)
        return;
    replica.advert_over = true;
    for (uint32_t i = 0; i < replica.early_count; i++) {
        const early_send &sent = replica.early[i];
        if (sent.reference)
            refer(sent.hash, sent.seq, sent.now_ms);
        else
            store(sent.hash, sent.now_ms);
    }
}

void cache_replica_tile(uint64_t hash, uint32_t now_ms)
{
    if (hash != 0 && !put_early({.hash = hash, .now_ms = now_ms, .seq = 0, .reference = false}))
        store(hash, now_ms);
}

void cache_replica_reference(uint64_t hash, uint32_t seq, uint32_t now_ms)
{
    replica.references++;
    if (!replica.marked) {
        replica.marked = true;
        replica.mark_seq = seq;
    }
    if (replica.mark_seq == seq)
        replica.mark_references = replica.references;
    if (!put_early({.hash = hash, .now_ms = now_ms, .seq = seq, .reference = true}))
        refer(hash, seq, now_ms);
}

bool cache_replica_holds(uint64_t hash)
{
    uint32_t slot;
    return replica.advert_over && !replica.given_up && find_slot(hash, &slot);
}

bool cache_replica_crowded(uint64_t hash, uint32_t now_ms)
{
    if (!replica.advert_over || replica.given_up)
        return false;
    uint32_t first = (uint32_t)(hash % SETS) * 2;
    for (uint32_t slot = first; slot < first + 2; slot++)
        if (replica.keys[slot] == 0 || replica.keys[slot] == hash ||
            now_ms - replica.used_ms[slot] >= REPLICA_RECENT_MS)
            return false;
    return true;
}

void cache_replica_missed(uint64_t hash, uint32_t confirmed_seq)
{
    cache_replica_advert_over(); // a viewer does not draw before that
    replica.misses++;
    uint32_t slot;
    if (cache_replica_holds(hash) && find_slot(hash, &slot) &&
        later(replica.ref_seq[slot], confirmed_seq) &&
        !later(replica.unheld_seq, confirmed_seq))
        replica.misses_held++;
}

bool cache_replica_in_use()
{
    return replica.advert_over && !replica.given_up && replica.misses_held < REPLICA_MISSES_MAX;
}

bool cache_replica_may_refer(uint64_t hash)
{
    return replica.misses == 0 || (cache_replica_in_use() && cache_replica_holds(hash));
}

bool cache_replica_proven(uint32_t confirmed_seq)
{
    if (replica.marked && !later(replica.mark_seq, confirmed_seq)) {
        replica.marked = false;
        // Their misses came ahead of the acknowledgement, so these are all of them.
        if (replica.mark_references > replica.misses)
            replica.proven = true;
    }
    return replica.proven && replica.misses_held == 0;
}

} // namespace host
