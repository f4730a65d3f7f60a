// The functions that the linker puts in the way (--wrap, see CMakeLists.txt). Names are those
// of the object files.
#include "bench/stages.h"

#include "bench/bench.h"
#include "host/move_search.h"
#include "protocol/tile.h"

#include <mutex>
#include <stdlib.h>
#include <string.h>

stage_record stages;
std::atomic<uint64_t> stage_allocations;
std::atomic<size_t> stage_largest_record;
uint64_t stage_moves_found;
road_link road_to_viewer, road_to_host;
std::function<void()> road_refill;

// What a pair of looks at the clock takes between them, measured once.
static double clock_cost()
{
    static double cost = [] {
        std::vector<double> costs;
        for (int32_t i = 0; i < 1000; i++) {
            int64_t start = bench_processor_time();
            costs.push_back((double)(bench_processor_time() - start));
        }
        return bench_spread_of(costs).median;
    }();
    return cost;
}

// Adds what it lives through to a stage.
struct stage_timer {
    stage which;
    double cost;
    int64_t start;
    explicit stage_timer(stage s) : which(s), cost(clock_cost()), start(bench_processor_time())
    {
    }
    ~stage_timer()
    {
        stages.ns[which] += (double)(bench_processor_time() - start) - cost;
    }
};

template <class function> static auto coarse_stage(stage which, function call)
{
    if (!stages.on)
        return call();
    stage_timer timer(which);
    return call();
}

template <class function> static auto fine_stage(stage which, function call)
{
    if (!stages.fine)
        return call();
    return coarse_stage(which, call);
}

// WRAP(result, symbol, stage, (parameters), (arguments)): times the function of that name.
#define WRAP(result, symbol, kind, which, parameters, arguments)                               \
    extern "C" result __real_##symbol parameters;                                              \
    extern "C" result __wrap_##symbol parameters                                               \
    {                                                                                          \
        return kind(which, [&] { return __real_##symbol arguments; });                         \
    }

// Older trees, which tools/bench also builds with this file, have none of these.
#pragma weak __real__ZN4host9tile_copyEPhPKhm
#pragma weak __real__ZN4host15tile_differenceEPhPKhS2_m
#pragma weak __real__Z15tile_hash_batchPKPKhimPm

// host::tile_equal, tile_gather, tile_copy, tile_difference
WRAP(bool, _ZN4host10tile_equalEPKhS1_m, fine_stage, STAGE_COMPARE,
     (const uint8_t *a, const uint8_t *b, uint64_t pitch), (a, b, pitch))
WRAP(void, _ZN4host11tile_gatherEPhPKhm, fine_stage, STAGE_COPY,
     (uint8_t * tile, const uint8_t *src, uint64_t pitch), (tile, src, pitch))
WRAP(void, _ZN4host9tile_copyEPhPKhm, fine_stage, STAGE_COPY,
     (uint8_t * dst, const uint8_t *src, uint64_t pitch), (dst, src, pitch))
WRAP(void, _ZN4host15tile_differenceEPhPKhS2_m, fine_stage, STAGE_XOR,
     (uint8_t * delta, const uint8_t *a, const uint8_t *b, uint64_t pitch),
     (delta, a, b, pitch))
// tile_hash_batch, lz4_compress_block, lz4_decompress_block
WRAP(void, _Z15tile_hash_batchPKPKhimPm, fine_stage, STAGE_HASH,
     (const uint8_t *const tiles[], int32_t count, uint64_t pitch, uint64_t hashes[]),
     (tiles, count, pitch, hashes))
WRAP(int32_t, _Z18lz4_compress_blockPKhiPhi, fine_stage, STAGE_COMPRESS,
     (const uint8_t *src, int32_t src_len, uint8_t *dst, int32_t dst_cap),
     (src, src_len, dst, dst_cap))
WRAP(int32_t, _Z20lz4_decompress_blockPKhiPhi, fine_stage, STAGE_DECOMPRESS,
     (const uint8_t *src, int32_t src_len, uint8_t *dst, int32_t dst_cap),
     (src, src_len, dst, dst_cap))
// host::cache_mirror_find, cache_mirror_insert
WRAP(bool, _ZN4host17cache_mirror_findEm, fine_stage, STAGE_LOOK_UP, (uint64_t hash), (hash))
WRAP(void, _ZN4host19cache_mirror_insertEm, fine_stage, STAGE_LOOK_UP, (uint64_t hash), (hash))
// viewer::tile_cache_find, tile_cache_insert
WRAP(const uint8_t *, _ZN6viewer15tile_cache_findEm, fine_stage, STAGE_CACHE, (uint64_t hash),
     (hash))
WRAP(void, _ZN6viewer17tile_cache_insertEmPKhm, fine_stage, STAGE_CACHE,
     (uint64_t hash, const uint8_t *tile, uint64_t stride), (hash, tile, stride))

// host::move_search_frame, of which the moves are counted as well
static int32_t count_moves(int32_t found)
{
    stage_moves_found += (uint64_t)found;
    return found;
}
#define SEARCH(prefix)                                                                         \
    prefix##_ZN4host17move_search_frameEPNS_11move_searchERKNS_13move_picturesEPNS_9move_tileEP9copy_rect
extern "C" int32_t SEARCH(__real_)(host::move_search *search,
                                   const host::move_pictures &pictures, host::move_tile *tiles,
                                   copy_rect *found);
extern "C" int32_t SEARCH(__wrap_)(host::move_search *search,
                                   const host::move_pictures &pictures, host::move_tile *tiles,
                                   copy_rect *found)
{
    return count_moves(coarse_stage(
        STAGE_MOVES, [&] { return SEARCH(__real_)(search, pictures, tiles, found); }));
}

WRAP(void, crypto_aead_lock, coarse_stage, STAGE_SEAL,
     (uint8_t * cipher, uint8_t mac[16], const uint8_t key[32], const uint8_t nonce[24],
      const uint8_t *ad, size_t ad_size, const uint8_t *plain, size_t size),
     (cipher, mac, key, nonce, ad, ad_size, plain, size))
WRAP(int, crypto_aead_unlock, coarse_stage, STAGE_OPEN,
     (uint8_t * plain, const uint8_t mac[16], const uint8_t key[32], const uint8_t nonce[24],
      const uint8_t *ad, size_t ad_size, const uint8_t *cipher, size_t size),
     (plain, mac, key, nonce, ad, ad_size, cipher, size))

// ---------------------------------------------------------------------------------------
// malloc, calloc, realloc, free

memory_side memory_of;
size_t memory_peak[MEMORY_SIDES];

static std::mutex memory_guard; // of the blocks
static struct {
    void *at;
    size_t bytes;
    memory_side side;
} memory_blocks[64];
static size_t memory_held[MEMORY_SIDES];

static void memory_taken(void *block, size_t bytes)
{
    if (memory_of == MEMORY_NOBODY || !block || bytes < 4096)
        return;
    std::lock_guard<std::mutex> hold(memory_guard);
    for (auto &b : memory_blocks) {
        if (b.at)
            continue;
        b = {block, bytes, memory_of};
        size_t held = memory_held[memory_of] += bytes;
        if (held > memory_peak[memory_of])
            memory_peak[memory_of] = held;
        return;
    }
    abort(); // more blocks than any session has
}

static void memory_given_back(void *block)
{
    if (!block)
        return;
    std::lock_guard<std::mutex> hold(memory_guard);
    for (auto &b : memory_blocks)
        if (b.at == block) {
            memory_held[b.side] -= b.bytes;
            b = {};
        }
}

extern "C" void *__real_malloc(size_t size);
extern "C" void *__real_calloc(size_t count, size_t size);
extern "C" void *__real_realloc(void *memory, size_t size);
extern "C" void __real_free(void *memory);
extern "C" void *__wrap_malloc(size_t size)
{
    stage_allocations++;
    void *block = __real_malloc(size);
    memory_taken(block, size);
    return block;
}
extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    stage_allocations++;
    void *block = __real_calloc(count, size);
    memory_taken(block, count * size);
    return block;
}
extern "C" void *__wrap_realloc(void *memory, size_t size)
{
    stage_allocations++;
    memory_given_back(memory); // no realloc fails here
    void *block = __real_realloc(memory, size);
    memory_taken(block, size);
    return block;
}
extern "C" void __wrap_free(void *memory)
{
    memory_given_back(memory);
    __real_free(memory);
}

// ---------------------------------------------------------------------------------------
// net_send_all, net_recv_all

extern "C" bool __real__Z12net_send_allmPKhm(net_socket sock, const uint8_t *data, size_t n);
extern "C" bool __wrap__Z12net_send_allmPKhm(net_socket sock, const uint8_t *data, size_t n)
{
    size_t largest = stage_largest_record;
    while (n > largest && !stage_largest_record.compare_exchange_weak(largest, n)) {
    }
    if (sock != ROAD_HOST_SOCKET && sock != ROAD_VIEWER_SOCKET)
        return __real__Z12net_send_allmPKhm(sock, data, n);
    road_link *link = sock == ROAD_HOST_SOCKET ? &road_to_viewer : &road_to_host;
    coarse_stage(STAGE_LINK, [&] { link->bytes.insert(link->bytes.end(), data, data + n); });
    return true;
}

extern "C" bool __real__Z12net_recv_allmPhmRK12net_deadline(net_socket sock, uint8_t *data,
                                                            size_t n,
                                                            const net_deadline &deadline);
extern "C" bool __wrap__Z12net_recv_allmPhmRK12net_deadline(net_socket sock, uint8_t *data,
                                                            size_t n,
                                                            const net_deadline &deadline)
{
    if (sock != ROAD_HOST_SOCKET && sock != ROAD_VIEWER_SOCKET)
        return __real__Z12net_recv_allmPhmRK12net_deadline(sock, data, n, deadline);
    road_link *link = sock == ROAD_HOST_SOCKET ? &road_to_host : &road_to_viewer;
    if (link->taken == link->bytes.size()) {
        link->bytes.clear();
        link->taken = 0;
        if (sock == ROAD_VIEWER_SOCKET)
            road_refill();
    }
    if (link->bytes.size() - link->taken < n)
        return false;
    coarse_stage(STAGE_LINK, [&] { memcpy(data, &link->bytes[link->taken], n); });
    link->taken += n;
    return true;
}
