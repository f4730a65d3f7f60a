// The viewer's tile cache as it must be, by its keys.
//
// The mirror (cache_mirror.h) holds every hash that the viewer was ever sent, and the viewer
// keeps 8,192 tiles. The replica does with the keys alone what the viewer does with its tiles
// (protocol/cache_ways.h), so it also knows what was dropped. It is told what is sent, in the
// order of sending: what the viewer draws, it draws in that order.
//
// One replica per process. Nothing is allocated, and nothing takes longer than two slots but
// the end of the advertisement. Times are those of clock_ms.
#ifndef QV_HOST_CACHE_REPLICA_H
#define QV_HOST_CACHE_REPLICA_H

#include "host/host_lock.h"

#include <stdint.h>

namespace host
{

// Tiles and references that may be sent before the advertisement is over. With more the
// replica is given up for the session.
constexpr uint32_t REPLICA_EARLY_MAX = 16384;

// How long after its last use a tile is not thrown out for one that changes all the time.
constexpr uint32_t REPLICA_RECENT_MS = 600000;

// So many misses of tiles that are in the replica show that the viewer keeps its cache by
// rules of its own.
constexpr uint32_t REPLICA_MISSES_MAX = 4;

// A session begins, with an empty cache; its frames are numbered from frame_seq on.
void cache_replica_reset(uint32_t frame_seq, uint32_t now_ms) REQUIRES(host_lock);

// The viewer said that it holds a hash from earlier sessions.
void cache_replica_advertised(uint64_t hash) REQUIRES(host_lock);

// The viewer has said all that it holds from earlier sessions: what was sent meanwhile is
// applied. Until then the replica holds nothing. Harmless when called again.
void cache_replica_advert_over() REQUIRES(host_lock);

// A tile went out under a hash (0: the viewer does not keep it), or a reference in frame seq.
// Only tiles of the hello's grid: a viewer drops others unread.
void cache_replica_tile(uint64_t hash, uint32_t now_ms) REQUIRES(host_lock);
void cache_replica_reference(uint64_t hash, uint32_t seq, uint32_t now_ms) REQUIRES(host_lock);

// Whether the viewer holds the hash once it has drawn all that was sent.
bool cache_replica_holds(uint64_t hash) REQUIRES(host_lock);

// Whether storing the hash would throw out a tile that was sent or referred to within
// REPLICA_RECENT_MS, whichever of its set's two it is.
bool cache_replica_crowded(uint64_t hash, uint32_t now_ms) REQUIRES(host_lock);

// The viewer missed a hash. confirmed_seq is the newest frame that it acknowledged.
void cache_replica_missed(uint64_t hash, uint32_t confirmed_seq) REQUIRES(host_lock);

// Whether a hash that the mirror holds may be referred to: before the session's first miss
// always, then if the replica holds it too, and never again after REPLICA_MISSES_MAX misses
// of hashes that it held when they were referred to.
bool cache_replica_may_refer(uint64_t hash) REQUIRES(host_lock);

// Whether it is of any use still that the viewer keeps a tile.
bool cache_replica_in_use() REQUIRES(host_lock);

// Whether the viewer has proved that its cache is what the replica thinks: a reference of this
// session was acknowledged without a miss, and nothing that the replica held was missed.
bool cache_replica_proven(uint32_t confirmed_seq) REQUIRES(host_lock);

} // namespace host

#endif
