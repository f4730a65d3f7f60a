// Fakes: viewer_channel_memory window_posts cache_disk_memory
//
// The host's replica of the viewer's cache against that cache: whatever is sent, the one has
// the keys that the other has.
#include "host/cache_replica.h"
#include "protocol/tile.h"
#include "tests/test.h"
#include "viewer/tile_cache.h"

#include <algorithm>
#include <vector>

using viewer::tile_cache;

namespace
{

// Few sets and few hashes in each, so that tiles are thrown out all the time and come back.
constexpr uint64_t SETS = 5, MEMBERS = 6;
constexpr uint64_t HASHES = SETS * MEMBERS;

uint64_t hash_of(uint64_t n)
{
    return n % SETS + 1 + n / SETS * (viewer::CACHE_CAPACITY / 2);
}

void start_viewer() NO_THREAD_SAFETY_ANALYSIS
{
    // Where the tiles lie stays from one session to the next, which goes next does not.
    std::fill_n(tile_cache.cache_victim, viewer::CACHE_CAPACITY / 2, 0);
}

std::vector<uint64_t> advertised() NO_THREAD_SAFETY_ANALYSIS
{
    std::vector<uint64_t> hashes;
    for (uint32_t slot = 0; slot < viewer::CACHE_CAPACITY; slot++)
        if (tile_cache.cache_keys[slot] != 0)
            hashes.push_back(tile_cache.cache_keys[slot]);
    return hashes;
}

bool viewer_holds(uint64_t hash) NO_THREAD_SAFETY_ANALYSIS
{
    const uint64_t *set = tile_cache.cache_keys + hash % (viewer::CACHE_CAPACITY / 2) * 2;
    return set[0] == hash || set[1] == hash;
}

struct message {
    bool reference;
    uint64_t hash;
};

void draw(const message &m) NO_THREAD_SAFETY_ANALYSIS
{
    static const uint8_t pixels[TILE_BYTES] = {};
    if (m.reference)
        viewer::tile_cache_find(m.hash);
    else
        viewer::tile_cache_insert(m.hash, pixels, TILE_ROW_BYTES);
}

void send(const message &m, uint32_t seq) NO_THREAD_SAFETY_ANALYSIS
{
    if (m.reference)
        host::cache_replica_reference(m.hash, seq, 0);
    else
        host::cache_replica_tile(m.hash, 0);
}

// One in eight without a hash, half of the others references, to whatever it may be.
message random_message(test_random *random)
{
    message m = {random->below(2) == 0, hash_of(random->below(HASHES))};
    if (random->below(8) == 0)
        m.hash = 0;
    return m;
}

void check_keys() NO_THREAD_SAFETY_ANALYSIS
{
    for (uint64_t n = 0; n < HASHES; n++) {
        CAPTURE(n);
        REQUIRE(host::cache_replica_holds(hash_of(n)) == viewer_holds(hash_of(n)));
    }
}

} // namespace

TEST_CASE("the replica's keys are the viewer's after random sessions") NO_THREAD_SAFETY_ANALYSIS
{
    test_random random = test_random_seeded("cache keys");
    lock_init(&viewer::frame_lock);
    viewer::tile_cache_open();
    REQUIRE(tile_cache.cache_enabled);
    uint64_t thrown_out = 0, lone_in_b = 0;
    for (int session = 0; session < 2000; session++) {
        CAPTURE(session);
        if (random.below(4) == 0) // a file that was lost, or lies on another machine
            std::fill_n(tile_cache.cache_keys, viewer::CACHE_CAPACITY, 0);
        for (uint64_t n = random.below(4); n > 0; n--) // or was made by another version
            tile_cache
                .cache_keys[hash_of(random.below(HASHES)) % (viewer::CACHE_CAPACITY / 2) * 2] =
                0;
        for (uint64_t set = 1; set <= SETS; set++)
            lone_in_b +=
                tile_cache.cache_keys[set * 2] == 0 && tile_cache.cache_keys[set * 2 + 1] != 0;
        start_viewer();
        host::cache_replica_reset(0, 0);

        // The host sends while the advertisement is on its way.
        std::vector<message> early;
        std::vector<uint64_t> hashes = advertised();
        for (uint64_t hash : hashes) {
            while (random.below(3) == 0) {
                early.push_back(random_message(&random));
                send(early.back(), 1);
            }
            host::cache_replica_advertised(hash);
        }
        for (const message &m : early)
            draw(m);
        host::cache_replica_advert_over();
        check_keys();

        for (uint64_t n = random.below(100); n > 0; n--) {
            message m = random_message(&random);
            send(m, 2);
            draw(m);
            check_keys();
        }
        for (uint64_t hash : hashes)
            thrown_out += !viewer_holds(hash);
    }
    CHECK(thrown_out > 1000);
    CHECK(lone_in_b > 100);
    viewer::tile_cache_close();
}
