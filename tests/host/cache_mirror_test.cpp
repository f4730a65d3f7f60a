// One thread runs here, so nobody else can hold the lock that guards the mirror.
#include "host/cache_mirror.h"
#include "tests/test.h"

#include <set>
#include <vector>

using namespace host;

// A hash whose probe starts at `slot`; `n` tells hashes of one slot apart.
static uint64_t hash_at(uint32_t slot, uint64_t n)
{
    return n * CACHE_MIRROR_SLOTS + slot;
}

// First in the file: no session has allocated the mirror yet.
TEST_CASE("without memory the mirror finds and learns nothing") NO_THREAD_SAFETY_ANALYSIS
{
    cache_mirror_insert(17);
    CHECK_FALSE(cache_mirror_find(17));
    cache_mirror_remove(17);
    CHECK(cache_mirror_count() == 0);
}

TEST_CASE("a hash is found once it was inserted and until it was removed")
NO_THREAD_SAFETY_ANALYSIS
{
    cache_mirror_reset();
    CHECK_FALSE(cache_mirror_find(17));
    cache_mirror_insert(17);
    CHECK(cache_mirror_find(17));
    CHECK(cache_mirror_count() == 1);
    cache_mirror_insert(17);
    CHECK(cache_mirror_count() == 1);
    CHECK_FALSE(cache_mirror_find(hash_at(17, 1))); // the same slot, another hash
    cache_mirror_remove(18);
    CHECK(cache_mirror_count() == 1);
    cache_mirror_remove(17);
    CHECK_FALSE(cache_mirror_find(17));
    CHECK(cache_mirror_count() == 0);
}

TEST_CASE("a new session starts with an empty mirror") NO_THREAD_SAFETY_ANALYSIS
{
    cache_mirror_reset();
    cache_mirror_insert(17);
    cache_mirror_reset();
    CHECK_FALSE(cache_mirror_find(17));
    CHECK(cache_mirror_count() == 0);
}

TEST_CASE("hash 0 is never stored and never found") NO_THREAD_SAFETY_ANALYSIS
{
    cache_mirror_reset();
    cache_mirror_insert(0);
    CHECK_FALSE(cache_mirror_find(0));
    CHECK(cache_mirror_count() == 0);
    cache_mirror_remove(0);
    CHECK(cache_mirror_count() == 0);
}

TEST_CASE("probes wrap past the last slot") NO_THREAD_SAFETY_ANALYSIS
{
    cache_mirror_reset();
    const uint32_t last = CACHE_MIRROR_SLOTS - 1;
    for (uint64_t n = 1; n <= 3; n++)
        cache_mirror_insert(hash_at(last, n)); // in slots last, 0, 1
    cache_mirror_insert(hash_at(0, 9));        // in slot 2
    cache_mirror_remove(hash_at(last, 1));
    CHECK(cache_mirror_count() == 3);
    CHECK(cache_mirror_find(hash_at(last, 2)));
    CHECK(cache_mirror_find(hash_at(last, 3)));
    CHECK(cache_mirror_find(hash_at(0, 9)));
}

TEST_CASE("removing from a run keeps the rest of the run reachable") NO_THREAD_SAFETY_ANALYSIS
{
    // Three hashes that start at slot 100, then one each that starts at 101 and 102: all
    // but the first lie beyond their home slots. Any of the five may go.
    const uint64_t run[] = {hash_at(100, 1), hash_at(100, 2), hash_at(100, 3), hash_at(101, 1),
                            hash_at(102, 1)};
    for (uint64_t gone : run) {
        cache_mirror_reset();
        for (uint64_t hash : run)
            cache_mirror_insert(hash);
        cache_mirror_remove(gone);
        CHECK(cache_mirror_count() == 4);
        for (uint64_t hash : run) {
            CAPTURE(hash);
            CHECK(cache_mirror_find(hash) == (hash != gone));
        }
    }
}

// A viewer may advertise hashes of one slot and miss them all. Work that grows with the
// square of the run's length for each removal would not end before the test's time-out.
TEST_CASE("a long run is removed hash by hash, from either end") NO_THREAD_SAFETY_ANALYSIS
{
    constexpr uint64_t LENGTH = 20000;
    cache_mirror_reset();
    for (uint64_t n = 1; n <= LENGTH; n++)
        cache_mirror_insert(hash_at(100, n));
    for (uint64_t n = 1; n <= LENGTH / 2; n++) {
        cache_mirror_remove(hash_at(100, n));
        cache_mirror_remove(hash_at(100, LENGTH + 1 - n));
        REQUIRE(cache_mirror_count() == LENGTH - 2 * n);
    }
    CHECK_FALSE(cache_mirror_find(hash_at(100, LENGTH / 2)));
}

TEST_CASE("above three quarters of the slots the mirror stops learning")
NO_THREAD_SAFETY_ANALYSIS
{
    cache_mirror_reset();
    // The rule looks at the count before an insert, so one more than 393216 fit.
    for (uint64_t n = 1; n <= 393300; n++)
        cache_mirror_insert(n);
    CHECK(cache_mirror_count() == 393217);
    CHECK(cache_mirror_find(393217));
    CHECK_FALSE(cache_mirror_find(393218));
    CHECK(cache_mirror_find(1));

    // A full mirror loses nothing but the hash that is removed, and learns one again.
    cache_mirror_remove(1);
    CHECK(cache_mirror_count() == 393216);
    uint32_t found = 0;
    for (uint64_t n = 2; n <= 393217; n++)
        found += cache_mirror_find(n);
    CHECK(found == 393216);
    cache_mirror_insert(400000);
    CHECK(cache_mirror_find(400000));
    cache_mirror_insert(400001);
    CHECK_FALSE(cache_mirror_find(400001));
}

TEST_CASE("random inserts and removals agree with a set") NO_THREAD_SAFETY_ANALYSIS
{
    test_random random = test_random_seeded("cache_mirror");
    cache_mirror_reset();
    std::set<uint64_t> expected;
    for (int round = 0; round < 20000; round++) {
        // Few slots and few hashes: long runs, many collisions, across the wrap.
        uint32_t slot =
            (uint32_t)(CACHE_MIRROR_SLOTS - 8 + random.below(16)) & (CACHE_MIRROR_SLOTS - 1);
        uint64_t hash = hash_at(slot, 1 + random.below(6));
        if (random.below(2)) {
            cache_mirror_insert(hash);
            expected.insert(hash);
        } else {
            cache_mirror_remove(hash);
            expected.erase(hash);
        }
        REQUIRE(cache_mirror_count() == expected.size());
        uint64_t other = hash_at(slot, 1 + random.below(6));
        REQUIRE(cache_mirror_find(other) == (expected.count(other) == 1));
    }
}
