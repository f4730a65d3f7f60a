// The tile cache: one flat array of keys and one of tiles.
//
// A hash can only stand in the two slots of its set, so finding it costs one division and
// two comparisons. Of the two ways the one used last is kept: cache_victim names the other.
//
// The tiles take 128 MiB. calloc hands out zero pages that the system makes when they are first
// touched; while a session begins a thread touches them (tile_cache_touch), since a tile that
// is stored where nothing was yet holds the picture up for as long as all the rest of it.
//
// Opened by the session's thread, filled and searched by the receive thread, saved and closed
// by the window when it is destroyed; all of it under frame_lock. Every five minutes the
// window has a thread save it (the saver). It copies one slot at a time, key and pixels
// together, and writes without the lock, so that neither the picture nor the window waits for
// the disk. Which tiles are in the file then is a mixture of moments; what a key says about
// its tile is right for each.
#include "viewer/tile_cache.h"

#include "protocol/bytes.h"
#include "protocol/cache_ways.h"
#include "protocol/clock.h"
#include "protocol/thread.h"
#include "viewer/cache_file.h"
#include "viewer/viewer_channel.h"

#include <atomic>
#include <emmintrin.h> // SSE2, which every x86-64 has
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace viewer
{

tile_cache_record tile_cache;

// The saver's thread, null when there is none. Owner: the session's thread. The two flags are
// single words between it and the saver.
static thread *saver;
static std::atomic<bool> saver_stop; // give up
static std::atomic<bool> saver_done; // about to end

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

// Sets up an empty cache for the file.
static bool allocate(const char *path) REQUIRES(frame_lock)
{
    tile_cache_close();
    tile_cache.cache_capacity = CACHE_CAPACITY;
    tile_cache.cache_keys = (uint64_t *)calloc(CACHE_CAPACITY, sizeof(uint64_t));
    tile_cache.cache_tiles = (uint8_t *)calloc(CACHE_CAPACITY, TILE_BYTES);
    tile_cache.cache_victim = (uint8_t *)calloc(CACHE_CAPACITY / 2 + 1, 1);
    if (!tile_cache.cache_keys || !tile_cache.cache_tiles || !tile_cache.cache_victim) {
        tile_cache_close();
        return false;
    }
    copy_text(tile_cache.cache_path, sizeof tile_cache.cache_path, path);
    return true;
}

// Tells the host every hash that there is, in slot order; returns their number.
static uint32_t advertise() REQUIRES(frame_lock)
{
    uint8_t hashes[CACHE_ADVERT_MAX_HASHES * 8];
    uint32_t total = 0;
    uint32_t count = 0;
    for (uint32_t slot = 0; slot < CACHE_CAPACITY; slot++) {
        if (tile_cache.cache_keys[slot] == 0)
            continue;
        store_le64(hashes + (size_t)count * 8, tile_cache.cache_keys[slot]);
        total++;
        if (++count == CACHE_ADVERT_MAX_HASHES) {
            viewer_send_cache_advert(hashes, count);
            count = 0;
        }
    }
    if (count != 0)
        viewer_send_cache_advert(hashes, count);
    return total;
}

void tile_cache_open()
{
    char path[CACHE_PATH_SIZE];
    if (!cache_file_path(path))
        return;
    lock_enter(&frame_lock);
    if (!allocate(path)) {
        lock_leave(&frame_lock);
        return;
    }

    // The hashes go out before the tiles are read, which can take seconds: the host holds its
    // first frame back for them, but not for long.
    disk_file file = cache_file_open(path, tile_cache.cache_keys);
    tile_cache.cache_enabled = true;
    uint32_t resident = advertise();
    printf("tile cache: %u tiles resident from earlier sessions\n", resident);
    fflush(stdout);
    if (file != DISK_INVALID) {
        // Without its pixels no key may stay. What the host refers to is then missed.
        if (!cache_file_read_tiles(file, tile_cache.cache_keys, tile_cache.cache_tiles))
            memset(tile_cache.cache_keys, 0, CACHE_CAPACITY * sizeof(uint64_t));
        disk_close(file);
    }
    lock_leave(&frame_lock);
}

// Touches an empty slot; what it holds does not count. False when there is no cache any more.
static bool touch_slot(uint32_t slot)
{
    constexpr int32_t PAGE_BYTES = 4096;
    lock_enter(&frame_lock);
    bool open = tile_cache.cache_enabled;
    if (open && tile_cache.cache_keys[slot] == 0)
        for (int32_t at = 0; at < TILE_BYTES; at += PAGE_BYTES)
            *(volatile uint8_t *)(slot_tile(slot) + at) = 0;
    lock_leave(&frame_lock);
    return open;
}

void tile_cache_touch(void *)
{
    constexpr uint32_t SLOTS_A_TURN = 16; // some 100 us
    for (uint32_t slot = 0; slot < CACHE_CAPACITY; slot++) {
        if (viewer_ending || !touch_slot(slot))
            return;
        // A lock that is left and taken again at once may never pass to who waits for it.
        if (slot % SLOTS_A_TURN == SLOTS_A_TURN - 1)
            clock_sleep_ms(0);
    }
}

// Copies a slot; false when it is empty. The key is 0 then.
static bool take_slot(uint32_t slot, uint64_t *key, uint8_t pixels[TILE_BYTES])
{
    lock_enter(&frame_lock);
    *key = tile_cache.cache_keys[slot];
    if (*key != 0)
        memcpy(pixels, slot_tile(slot), TILE_BYTES);
    lock_leave(&frame_lock);
    return *key != 0;
}

// Writes the file. Takes frame_lock a slot at a time, or again if the caller has it. False
// when it failed or was told to stop.
static bool write_file(const char *path)
{
    disk_file file = cache_file_create(path);
    if (file == DISK_INVALID)
        return false;
    uint64_t keys[CACHE_CAPACITY];
    uint8_t pixels[TILE_BYTES];
    for (uint32_t slot = 0; slot < CACHE_CAPACITY; slot++) {
        if (saver_stop || (take_slot(slot, &keys[slot], pixels) &&
                           !cache_file_write_tile(file, slot, pixels))) {
            cache_file_discard(file, path);
            return false;
        }
    }
    return cache_file_commit(file, path, keys);
}

static void save()
{
    char path[CACHE_PATH_SIZE];
    lock_enter(&frame_lock);
    bool due = tile_cache.cache_path[0] != 0 && tile_cache.cache_dirty;
    copy_text(path, sizeof path, tile_cache.cache_path);
    // Before the first slot is taken: what is stored from now on may not be in this file.
    if (due)
        tile_cache.cache_dirty = false;
    lock_leave(&frame_lock);
    if (!due || write_file(path))
        return;
    lock_enter(&frame_lock);
    tile_cache.cache_dirty = true;
    lock_leave(&frame_lock);
}

void tile_cache_save()
{
    save();
}

static void save_thread(void *)
{
    save();
    saver_done = true;
}

void tile_cache_save_start()
{
    frame_lock_for_window();
    bool due = tile_cache.cache_dirty;
    lock_leave(&frame_lock);
    if (!due || (saver && !saver_done))
        return;
    tile_cache_save_stop(); // of the one that is done
    saver_done = false;
    saver = thread_start(save_thread, nullptr); // without a thread: the next time
}

void tile_cache_save_stop()
{
    if (!saver)
        return;
    saver_stop = true;
    thread_join(saver, THREAD_WAIT_FOREVER);
    saver = nullptr;
    saver_stop = false;
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

// Copies a tile of the picture into a slot, past the processor's caches: most slots are not
// looked at for long, and a store through the caches first reads what it overwrites. Half the
// time of a plain copy of rows.
static void store_tile(uint8_t *slot, const uint8_t *tile, uint64_t stride)
{
    for (int32_t row = 0; row < TILE_SIZE; row++) {
        for (int32_t i = 0; i < TILE_ROW_BYTES; i += 16) {
            __m128i v;
            memcpy(&v, tile + i, sizeof v);
            _mm_stream_si128((__m128i *)(void *)(slot + i), v); // slots are aligned
        }
        tile += stride;
        slot += TILE_ROW_BYTES;
    }
    _mm_sfence(); // such stores are ordered by nothing else, the lock included
}

void tile_cache_insert(uint64_t hash, const uint8_t *tile, uint64_t stride)
{
    if (!tile_cache.cache_enabled || hash == 0)
        return;

    uint64_t set = set_of(hash);
    uint64_t *keys = tile_cache.cache_keys + 2 * set;
    uint8_t way = cache_way_to_write(keys, hash, tile_cache.cache_victim[set]);
    keys[way] = hash;
    store_tile(slot_tile(2 * set + way), tile, stride);
    tile_cache.cache_victim[set] = !way;
    tile_cache.cache_dirty = true;
}

} // namespace viewer
