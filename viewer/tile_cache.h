// The tile cache: tiles by content hash, so that the host can name a tile instead of sending
// it.
//
// What it keeps and drops is protocol/cache_ways.h's matter. Guarded by frame_lock, with the
// picture that it feeds.
//
// The cache outlives the session in a file (cache_file.h). Opening it tells the host which
// tiles there are; it is saved every few minutes while tiles arrive, and at the end.
#ifndef QV_VIEWER_TILE_CACHE_H
#define QV_VIEWER_TILE_CACHE_H

#include "protocol/cache_ways.h"
#include "protocol/tile.h"
#include "viewer/frame_decode.h"

#include <stddef.h>
#include <stdint.h>

namespace viewer
{

constexpr uint32_t CACHE_CAPACITY = TILE_CACHE_SLOTS;
constexpr size_t CACHE_PATH_SIZE = 512;

struct tile_cache_record {
    bool cache_enabled;
    uint32_t cache_capacity;
    uint64_t *cache_keys;  // 0 = empty slot
    uint8_t *cache_tiles;  // slot i at i * TILE_BYTES
    uint8_t *cache_victim; // for each set the way to replace next, and one spare byte
    bool cache_dirty;      // an entry was written since the last save
    char cache_path[CACHE_PATH_SIZE]; // of its file; empty when there is no cache
};

extern tile_cache_record tile_cache GUARDED_BY(frame_lock);

// Sets up the cache with what its file holds, tells the host the hashes and prints their
// number; without memory, or a folder for the file, it stays disabled. Takes frame_lock. Before
// any other thread sends: an advertisement is two sends.
void tile_cache_open();

// Has the system hand over the memory of the empty slots, which takes it ten times as long as
// a tile takes to copy, before tiles need it. Takes frame_lock for a slot at a time; ends early
// when the cache is closed or the session ends. Thread entry; the argument is not used.
void tile_cache_touch(void *);

// Writes the file if anything was stored since the last time. A failure leaves the old file
// as it was, for another try. Not while tile_cache_save_start's thread may run.
void tile_cache_save() REQUIRES(frame_lock);

// The same on a thread of its own, which takes frame_lock for a moment at a time. Does nothing
// while the last one runs. To end it (waits for it, and drops what is not complete):
// tile_cache_save_stop, without frame_lock. Both on the session's thread.
void tile_cache_save_start();
void tile_cache_save_stop();

// Frees the cache and disables it; nothing is saved. Harmless when it is disabled. Not while
// tile_cache_save_start's thread may run.
void tile_cache_close() REQUIRES(frame_lock);

// The cached tile of that hash, or null; a hit makes its way the last to be replaced. Hash 0
// is never found. The pointer holds until the next insertion.
const uint8_t *tile_cache_find(uint64_t hash) REQUIRES(frame_lock);

// Stores a tile under a hash other than 0, if the cache is enabled. tile addresses its first
// row, stride is the distance of rows in bytes.
void tile_cache_insert(uint64_t hash, const uint8_t *tile, uint64_t stride)
    REQUIRES(frame_lock);

} // namespace viewer

#endif
