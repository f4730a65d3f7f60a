// What the viewer's tile cache is believed to hold: an open-addressed set of tile hashes.
//
// Probing starts at slot hash & 0x7FFFF and runs upwards, wrapping; 0 marks an empty slot,
// so hash 0 is never stored and never found. Above 393216 hashes the set stops learning,
// which costs bandwidth and never correctness.
//
// One mirror per process, allocated at the first session. Without memory for it every find
// fails and every insert does nothing.
#ifndef QV_HOST_CACHE_MIRROR_H
#define QV_HOST_CACHE_MIRROR_H

#include "host/host_lock.h"

#include <stdint.h>

namespace host
{

constexpr uint32_t CACHE_MIRROR_SLOTS = 0x80000;
constexpr uint32_t CACHE_MIRROR_FULL = 0x60000; // inserts do nothing above this count

// Allocates the mirror if there is none, empties it otherwise.
void cache_mirror_reset() REQUIRES(host_lock);

void cache_mirror_insert(uint64_t hash) REQUIRES(host_lock);
bool cache_mirror_find(uint64_t hash) REQUIRES(host_lock);

// Takes a hash out, and inserts the rest of its probe run again so that none of it becomes
// unreachable. Does nothing for a hash that is not there.
void cache_mirror_remove(uint64_t hash) REQUIRES(host_lock);

// Hashes in the mirror.
uint32_t cache_mirror_count() REQUIRES(host_lock);

} // namespace host

#endif
