// Fakes: viewer_channel_memory window_posts cache_disk_memory
#include "viewer/tile_cache.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

using namespace viewer;

namespace
{

// Hash number `member` of set 7: the sets are the remainders modulo 4096.
constexpr uint64_t of_set_7(uint64_t member)
{
    return 7 + 4096 * member;
}

// The lock, and the cache without the checks that need it written out.
struct opened_cache {
    opened_cache()
    {
        lock_init(&frame_lock);
        tile_cache_open();
    }

    ~opened_cache()
    {
        close();
    }

    tile_cache_record &record() NO_THREAD_SAFETY_ANALYSIS
    {
        return tile_cache;
    }

    void close()
    {
        lock_enter(&frame_lock);
        tile_cache_close();
        lock_leave(&frame_lock);
    }

    // Inserts a tile of one byte value.
    void insert(uint64_t hash, uint8_t value)
    {
        std::vector<uint8_t> tile(TILE_BYTES, value);
        lock_enter(&frame_lock);
        tile_cache_insert(hash, tile.data(), TILE_ROW_BYTES);
        lock_leave(&frame_lock);
    }

    // The byte value of the tile found, -1 when there is none, -2 when it is not uniform.
    int find(uint64_t hash)
    {
        lock_enter(&frame_lock);
        const uint8_t *tile = tile_cache_find(hash);
        int value = tile ? tile[0] : -1;
        for (int i = 0; tile && i < TILE_BYTES; i++) {
            if (tile[i] != tile[0])
                value = -2;
        }
        lock_leave(&frame_lock);
        return value;
    }
};

} // namespace

TEST_CASE("a new cache is enabled, empty and clean")
{
    opened_cache c;
    CHECK(c.record().cache_enabled);
    CHECK(c.record().cache_capacity == 8192);
    CHECK_FALSE(c.record().cache_dirty);
    CHECK(c.find(1) == -1);
    for (uint32_t i = 0; i < 8192; i++)
        REQUIRE(c.record().cache_keys[i] == 0);
}

TEST_CASE("way a is filled first, then way b")
{
    opened_cache c;
    c.insert(of_set_7(1), 11);
    CHECK(c.record().cache_keys[14] == of_set_7(1));
    CHECK(c.record().cache_victim[7] == 1);
    CHECK(c.record().cache_dirty);
    c.insert(of_set_7(2), 22);
    CHECK(c.record().cache_keys[15] == of_set_7(2));
    CHECK(c.record().cache_victim[7] == 0);
    CHECK(c.find(of_set_7(1)) == 11);
    CHECK(c.find(of_set_7(2)) == 22);
    // Slot i is at i * 16384.
    CHECK(c.record().cache_tiles[14 * 16384] == 11);
    CHECK(c.record().cache_tiles[16 * 16384 - 1] == 22);
}

TEST_CASE("a hit makes the other way the next victim")
{
    opened_cache c;
    c.insert(of_set_7(1), 11);
    c.insert(of_set_7(2), 22);
    CHECK(c.find(of_set_7(1)) == 11);
    CHECK(c.record().cache_victim[7] == 1);
    CHECK(c.find(of_set_7(2)) == 22);
    CHECK(c.record().cache_victim[7] == 0);
    CHECK(c.find(of_set_7(3)) == -1); // a miss leaves it
    CHECK(c.record().cache_victim[7] == 0);
}

TEST_CASE("a third hash in a full set replaces the victim and flips it")
{
    opened_cache c;
    c.insert(of_set_7(1), 11);
    c.insert(of_set_7(2), 22);
    c.insert(of_set_7(3), 33); // over way a
    CHECK(c.find(of_set_7(1)) == -1);
    CHECK(c.record().cache_keys[14] == of_set_7(3));
    CHECK(c.record().cache_victim[7] == 1);
    c.insert(of_set_7(4), 44); // over way b
    CHECK(c.find(of_set_7(2)) == -1);
    CHECK(c.record().cache_keys[15] == of_set_7(4));
    CHECK(c.record().cache_victim[7] == 0);
    CHECK(c.find(of_set_7(4)) == 44);
    CHECK(c.find(of_set_7(3)) == 33); // way a is used last now
    c.insert(of_set_7(5), 55);
    CHECK(c.find(of_set_7(3)) == 33);
    CHECK(c.find(of_set_7(4)) == -1);
    CHECK(c.find(of_set_7(5)) == 55);
}

TEST_CASE("a hash that is there already is written in its place")
{
    opened_cache c;
    c.insert(of_set_7(1), 11);
    c.insert(of_set_7(2), 22);
    c.insert(of_set_7(2), 23); // way b
    CHECK(c.record().cache_victim[7] == 0);
    c.insert(of_set_7(1), 12); // way a
    CHECK(c.record().cache_victim[7] == 1);
    CHECK(c.find(of_set_7(1)) == 12);
    CHECK(c.find(of_set_7(2)) == 23);
}

TEST_CASE("a hash in way b is refreshed even when way a is empty")
{
    opened_cache c;
    c.record().cache_keys[15] = of_set_7(2);
    c.insert(of_set_7(2), 22);
    CHECK(c.record().cache_keys[14] == 0);
    CHECK(c.record().cache_tiles[15 * 16384] == 22);
    CHECK(c.record().cache_victim[7] == 0);
}

TEST_CASE("sets are the remainders of the unsigned hash")
{
    opened_cache c;
    // 2^63 + 5 modulo 4096 is 5, 2^64 - 1 is 4095.
    c.insert(0x8000000000000005ull, 1);
    CHECK(c.record().cache_keys[10] == 0x8000000000000005ull);
    c.insert(0xFFFFFFFFFFFFFFFFull, 2);
    CHECK(c.record().cache_keys[8190] == 0xFFFFFFFFFFFFFFFFull);
    CHECK(c.find(0xFFFFFFFFFFFFFFFFull) == 2);
}

TEST_CASE("hash 0 is neither stored nor found")
{
    opened_cache c;
    c.insert(0, 9);
    CHECK_FALSE(c.record().cache_dirty);
    CHECK(c.record().cache_tiles[0] == 0);
    CHECK(c.find(0) == -1);
}

TEST_CASE("a tile is gathered from rows at any distance")
{
    opened_cache c;
    constexpr uint64_t stride = 1408 * 4;
    std::vector<uint8_t> picture(stride * 64, 0xEE);
    for (uint64_t row = 0; row < 64; row++) {
        for (uint64_t i = 0; i < 256; i++)
            picture[row * stride + 512 + i] = (uint8_t)(row + i);
    }
    lock_enter(&frame_lock);
    tile_cache_insert(99, picture.data() + 512, stride);
    const uint8_t *tile = tile_cache_find(99);
    lock_leave(&frame_lock);
    REQUIRE(tile);
    for (int i = 0; i < TILE_BYTES; i++)
        REQUIRE(tile[i] == (uint8_t)(i / 256 + i % 256));
}

TEST_CASE("a closed cache finds and stores nothing")
{
    opened_cache c;
    c.insert(5, 1);
    c.close();
    CHECK_FALSE(c.record().cache_enabled);
    CHECK(c.record().cache_tiles == nullptr);
    CHECK(c.find(5) == -1);
    c.insert(5, 1);
    CHECK(c.find(5) == -1);
    c.close(); // again: harmless
}

TEST_CASE("opening again starts empty")
{
    opened_cache c;
    c.insert(5, 1);
    tile_cache_open();
    CHECK(c.record().cache_enabled);
    CHECK_FALSE(c.record().cache_dirty);
    CHECK(c.find(5) == -1);
    CHECK(c.record().cache_victim[5] == 0);
}
