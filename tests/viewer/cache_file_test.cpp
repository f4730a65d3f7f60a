// The tile cache and its file: what is read, told to the host and written, with a disk in
// memory.
//
// Fakes: cache_disk_memory viewer_channel_memory window_posts
// Labels: threaded
#include "viewer/tile_cache.h"

#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "protocol/messages.h"
#include "tests/fakes/cache_disk_memory.h"
#include "tests/fakes/viewer_channel_memory.h"
#include "tests/test.h"

#include <string.h>
#include <string>
#include <thread>
#include <vector>

using namespace viewer;
using bytes = std::vector<uint8_t>;

namespace
{

constexpr uint64_t FILE_BYTES = 134283280; // 16 + 8192 * 8 + 8192 * 16384
constexpr uint64_t TILES_AT = 65552;

// A hash whose place is this slot: sets are the remainders modulo 4096, two slots each.
uint64_t hash_of(uint32_t slot)
{
    return slot / 2 + 4096ull * (1 + slot % 2);
}

// The pixels that belong to a hash in these tests.
bytes pixels_of(uint64_t hash)
{
    bytes pixels(TILE_BYTES);
    for (size_t i = 0; i < pixels.size(); i += 8)
        store_le64(&pixels[i], hash * 0x9E3779B97F4A7C15ull + i);
    return pixels;
}

uint64_t key_in(const sparse_bytes &file, uint32_t slot)
{
    return load_le64(file.part(16 + slot * 8, 8).data());
}

void put_slot(sparse_bytes *file, uint32_t slot)
{
    uint8_t key[8];
    store_le64(key, hash_of(slot));
    file->write(16 + slot * 8, key, 8);
    file->write(TILES_AT + slot * 16384ull, pixels_of(hash_of(slot)).data(), 16384);
}

// A file with the slots first, first + step, ... (count of them).
sparse_bytes make_file(uint32_t first, uint32_t step, uint32_t count)
{
    sparse_bytes file;
    file.resize(FILE_BYTES);
    const uint8_t header[16] = {0x31, 0x43, 0x56, 0x51, 0, 0x20, 0, 0, 0, 0x40};
    file.write(0, header, sizeof header);
    for (uint32_t i = 0; i < count; i++)
        put_slot(&file, first + i * step);
    return file;
}

// A disk with this file or none, and the cache opened from it.
struct opened_cache {
    explicit opened_cache(const sparse_bytes *file = nullptr)
    {
        lock_init(&frame_lock);
        disk_memory_reset();
        memory_reset();
        if (file)
            disk_memory.files[DISK_MEMORY_PATH] = *file;
    }

    ~opened_cache()
    {
        close();
        disk_memory_reset(true);
    }

    void close()
    {
        tile_cache_save_stop();
        lock_enter(&frame_lock);
        tile_cache_close();
        lock_leave(&frame_lock);
    }

    // For tests that run alone on it.
    tile_cache_record &record() NO_THREAD_SAFETY_ANALYSIS
    {
        return tile_cache;
    }

    bool dirty()
    {
        lock_enter(&frame_lock);
        bool is = tile_cache.cache_dirty;
        lock_leave(&frame_lock);
        return is;
    }

    void save()
    {
        lock_enter(&frame_lock);
        tile_cache_save();
        lock_leave(&frame_lock);
    }

    void insert(uint64_t hash)
    {
        bytes pixels = pixels_of(hash);
        lock_enter(&frame_lock);
        tile_cache_insert(hash, pixels.data(), TILE_ROW_BYTES);
        lock_leave(&frame_lock);
    }

    bool finds(uint64_t hash)
    {
        bytes pixels = pixels_of(hash);
        lock_enter(&frame_lock);
        const uint8_t *tile = tile_cache_find(hash);
        bool right = tile && memcmp(tile, pixels.data(), TILE_BYTES) == 0;
        lock_leave(&frame_lock);
        return right;
    }

    uint32_t used()
    {
        uint32_t n = 0;
        for (uint32_t slot = 0; slot < 8192; slot++)
            n += record().cache_keys[slot] != 0;
        return n;
    }
};

// Whether a file is whole and every key in it has its own pixels.
bool file_is_right(const sparse_bytes &file)
{
    if (file.size() != FILE_BYTES || load_le32(file.part(0, 4).data()) != 0x51564331)
        return false;
    for (uint32_t slot = 0; slot < 8192; slot++) {
        uint64_t key = key_in(file, slot);
        if (key != 0 && file.part(TILES_AT + slot * 16384ull, 16384) != pixels_of(key))
            return false;
    }
    return true;
}

const sparse_bytes &saved()
{
    return disk_memory.files[DISK_MEMORY_PATH];
}

} // namespace

TEST_CASE("the file is written as it is laid out")
{
    opened_cache c;
    tile_cache_open();
    CHECK(std::string(c.record().cache_path) == "memory\\qv\\tiles.bin");
    CHECK(disk_memory.calls == "folder=memory\\qv open ");
    disk_memory.calls.clear();
    c.insert(hash_of(14));
    c.insert(hash_of(15));
    std::vector<uint64_t> writes;
    disk_memory.hook = [&](const disk_memory_call &call) {
        if (strcmp(call.what, "write") == 0)
            writes.push_back(call.offset);
        return true;
    };
    c.save();
    CHECK(disk_memory.calls == "create length flush close replace ");
    REQUIRE(writes.size() >= 4); // the keys in pieces
    CHECK(writes[0] == TILES_AT + 14 * 16384);
    CHECK(writes[1] == TILES_AT + 15 * 16384);
    CHECK(writes[2] == 16);
    CHECK(writes.back() == 0); // what is cut short has no header
    CHECK_FALSE(c.dirty());
    CHECK(disk_memory.files.size() == 1);

    REQUIRE(saved().size() == 134283280);
    CHECK(saved().part(0, 16) ==
          bytes{0x31, 0x43, 0x56, 0x51, 0, 0x20, 0, 0, 0, 0x40, 0, 0, 0, 0, 0, 0});
    // 7 + 4096 and 7 + 8192, at 16 + 14 * 8.
    CHECK(saved().part(128, 16) == bytes{7, 0x10, 0, 0, 0, 0, 0, 0, 7, 0x20, 0, 0, 0, 0, 0, 0});
    CHECK(saved() == make_file(14, 1, 2)); // and zeros everywhere else
}

TEST_CASE("what was saved is there again, in its place")
{
    opened_cache c;
    tile_cache_open();
    c.insert(hash_of(14));
    c.insert(hash_of(15)); // way b, which makes way a the next to go
    c.insert(hash_of(15));
    CHECK(c.finds(hash_of(14))); // and this way b
    CHECK(c.record().cache_victim[7] == 1);
    c.save();
    c.close();

    tile_cache_open();
    CHECK(c.record().cache_enabled);
    CHECK_FALSE(c.dirty());
    CHECK(c.used() == 2);
    CHECK(c.record().cache_victim[7] == 0);
    CHECK(c.record().cache_keys[15] == hash_of(15));
    c.insert(3 * 4096 + 7); // a third for the set: over way a
    CHECK(c.record().cache_keys[14] == 3 * 4096 + 7);
    CHECK(c.finds(hash_of(15)));
    CHECK_FALSE(c.finds(hash_of(14)));
}

TEST_CASE("a file that is wrong in any way makes an empty cache, which is saved over it")
{
    const sparse_bytes good = make_file(100, 3, 20);
    struct {
        const char *what;
        size_t size;
        size_t at; // of one byte that is changed
        uint8_t value;
    } const rows[] = {
        {"empty", 0, 0, 0x31},
        {"inside the header", 15, 0, 0x31},
        {"without keys", 16, 0, 0x31},
        {"inside the keys", 65551, 0, 0x31},
        {"without tiles", 65552, 0, 0x31},
        {"inside the tiles", FILE_BYTES / 2, 0, 0x31},
        {"one byte short", FILE_BYTES - 1, 0, 0x31},
        {"another magic", FILE_BYTES, 0, 0x32},
        {"another magic's end", FILE_BYTES, 3, 0x50},
        {"4096 slots", FILE_BYTES, 5, 0x10},
        {"8193 slots", FILE_BYTES, 4, 1},
        {"tiles of 16640 bytes", FILE_BYTES, 9, 0x41},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        sparse_bytes file = good;
        file.resize(row.size);
        if (row.at < row.size)
            file.write(row.at, &row.value, 1);
        opened_cache c(&file);
        tile_cache_open();
        CHECK(c.record().cache_enabled);
        CHECK(c.used() == 0);
        CHECK(memory_sent.empty()); // nothing to advertise
        c.save();
        CHECK(saved() == file); // nothing came: not rewritten
        c.insert(hash_of(8));
        c.save();
        CHECK(saved() == make_file(8, 1, 1));
    }
}

TEST_CASE("the reserved word and what follows the file are not looked at")
{
    sparse_bytes file = make_file(100, 3, 20);
    file.write(12, bytes(4, 0xFF).data(), 4);
    file.write(file.size(), bytes(7, 0xEE).data(), 7);
    opened_cache c(&file);
    tile_cache_open();
    CHECK(c.used() == 20);
    CHECK(c.finds(hash_of(157)));
}

TEST_CASE("a file that cannot be read makes an empty cache")
{
    sparse_bytes file = make_file(100, 3, 20);
    for (uint64_t fails_at : {0ull, 16ull, 65552ull + 100 * 16384, 65552ull + 157 * 16384}) {
        CAPTURE(fails_at);
        opened_cache c(&file);
        disk_memory.hook = [&](const disk_memory_call &call) {
            return strcmp(call.what, "read") != 0 || call.offset != fails_at;
        };
        tile_cache_open();
        CHECK(c.record().cache_enabled);
        CHECK(c.used() == 0);
        // By the time the tiles failed, their hashes were out.
        CHECK(memory_sent.size() == (fails_at < 65552 ? 0 : 2));
        CHECK(disk_memory.calls.find("close") != std::string::npos);
    }
    opened_cache c(&file);
    disk_memory.hook = [](const disk_memory_call &call) { return strcmp(call.what, "open"); };
    tile_cache_open();
    CHECK(c.record().cache_enabled);
    CHECK(c.used() == 0);
}

TEST_CASE("5000 tiles are advertised as 4096 and 904, before their pixels are read")
{
    sparse_bytes file = make_file(1000, 1, 5000);
    opened_cache c(&file);
    size_t sent_before_tiles = 0;
    disk_memory.hook = [&](const disk_memory_call &call) {
        if (strcmp(call.what, "read") == 0 && call.offset >= TILES_AT)
            sent_before_tiles = memory_sent.size();
        return true;
    };
    tile_cache_open();
    CHECK(sent_before_tiles == 4);
    REQUIRE(memory_sent.size() == 4);                                // header and payload apart
    CHECK(memory_sent[0] == bytes{0x85, 0, 0, 0, 0, 0x80, 0, 0});    // 4096 * 8
    CHECK(memory_sent[2] == bytes{0x85, 0, 0, 0, 0x40, 0x1C, 0, 0}); // 904 * 8
    bytes hashes = memory_sent[1];
    hashes.insert(hashes.end(), memory_sent[3].begin(), memory_sent[3].end());
    REQUIRE(hashes.size() == 40000);
    int wrong = 0;
    for (uint32_t i = 0; i < 5000; i++)
        wrong += load_le64(&hashes[i * 8]) != hash_of(1000 + i);
    CHECK(wrong == 0);
    CHECK(c.used() == 5000);
    CHECK(c.finds(hash_of(5999)));
}

TEST_CASE("a number of tiles that fills its messages has no empty one after them")
{
    for (uint32_t count : {4096u, 8192u}) {
        sparse_bytes file = make_file(0, 1, 0);
        for (uint32_t slot = 0; slot < count; slot++) {
            const uint8_t key[8] = {1, (uint8_t)slot, (uint8_t)(slot >> 8)};
            file.write(16 + slot * 8, key, 8);
        }
        opened_cache c(&file);
        disk_memory.hook = [](const disk_memory_call &call) { return call.offset < TILES_AT; };
        tile_cache_open(); // tiles of 128 MiB are read elsewhere
        CHECK(memory_sent.size() == count / 4096 * 2);
        CHECK(memory_sent.back().size() == 32768);
    }
}

TEST_CASE("a header that cannot be sent takes its payload along")
{
    sparse_bytes file = make_file(0, 1, 5000);
    opened_cache c(&file);
    memory_send_fails = true;
    tile_cache_open();
    REQUIRE(memory_sent.size() == 2);
    CHECK(memory_sent[0].size() == 8);
    CHECK(memory_sent[1].size() == 8);
    CHECK(c.used() == 5000);
}

TEST_CASE("a cache to which nothing came is not written")
{
    sparse_bytes file = make_file(5, 1, 3);
    opened_cache c(&file);
    tile_cache_open();
    CHECK(c.finds(hash_of(5)));
    c.save();
    tile_cache_save_start();
    tile_cache_save_stop();
    CHECK(disk_memory.created == 0);
    c.close();
    c.save(); // nor one that is not there
    tile_cache_save_start();
    tile_cache_save_stop();
    CHECK(disk_memory.created == 0);
}

TEST_CASE("a save that fails anywhere leaves the old file and is tried again")
{
    const sparse_bytes old = make_file(40, 1, 2);
    const sparse_bytes now = make_file(40, 1, 4);
    struct {
        const char *what;
        uint64_t offset;
    } const rows[] = {{"create", 0},
                      {"length", FILE_BYTES},
                      {"write", TILES_AT + 40 * 16384},
                      {"write", TILES_AT + 43 * 16384},
                      {"write", 16},
                      {"write", 16 + 61440}, // the last of the keys
                      {"write", 0},
                      {"flush", 0},
                      {"replace", 0}};
    for (const auto &row : rows) {
        for (bool on_thread : {false, true}) {
            CAPTURE(row.what);
            CAPTURE(row.offset);
            CAPTURE(on_thread);
            opened_cache c(&old);
            tile_cache_open();
            c.insert(hash_of(42));
            c.insert(hash_of(43));
            std::atomic<int> failed = 0;
            disk_memory.hook = [&](const disk_memory_call &call) {
                bool fails = strcmp(call.what, row.what) == 0 && call.offset == row.offset;
                failed += fails;
                return !fails;
            };
            if (on_thread) {
                tile_cache_save_start();
                while (failed == 0)
                    clock_sleep_ms(1);
                tile_cache_save_stop();
            } else {
                c.save();
            }
            CHECK(failed == 1);
            CHECK(c.dirty());
            CHECK(saved() == old);
            CHECK(disk_memory.files.size() == 1); // nothing is left lying about
            disk_memory.hook = nullptr;
            c.save();
            CHECK_FALSE(c.dirty());
            CHECK(saved() == now);
        }
    }
}

TEST_CASE("while a thread saves, tiles come and go, and each key keeps its own pixels")
{
    const sparse_bytes old = make_file(0, 1, 800);
    opened_cache c(&old);
    tile_cache_open();
    c.insert(hash_of(800));
    // The second half of the writes finds other tiles in many slots than the first half.
    std::atomic<uint32_t> writes = 0;
    std::atomic<bool> go_on = false;
    disk_memory.hook = [&](const disk_memory_call &call) {
        if (strcmp(call.what, "write") == 0 && ++writes == 400)
            while (!go_on)
                clock_sleep_ms(1);
        return true;
    };
    tile_cache_save_start();
    while (writes < 400)
        clock_sleep_ms(1);
    // The lock is free while a write is under way.
    for (uint32_t slot = 0; slot < 800; slot += 3)
        c.insert(hash_of(slot) + 8192); // into the same set, over one of the two
    CHECK(c.dirty());
    tile_cache_save_start(); // one runs: no second one
    go_on = true;
    while (disk_memory.replaced == 0)
        clock_sleep_ms(1);
    tile_cache_save_stop();
    CHECK(disk_memory.created == 1);
    CHECK(file_is_right(saved()));
    CHECK(saved() != old);
    CHECK(c.dirty()); // what came meanwhile may not be in it

    disk_memory.hook = nullptr;
    c.save();
    CHECK_FALSE(c.dirty());
    CHECK(file_is_right(saved()));
    CHECK(disk_memory.created == 2);
    // A thread that has ended does not stand in the next one's way.
    c.insert(1);
    tile_cache_save_start();
    while (disk_memory.replaced < 3)
        clock_sleep_ms(1);
    c.insert(2);
    for (int i = 0; i < 60000 && disk_memory.replaced < 4; i++) {
        tile_cache_save_start(); // the first times it may not quite have ended
        clock_sleep_ms(1);
    }
    CHECK(disk_memory.replaced == 4);
    tile_cache_save_stop();
    CHECK_FALSE(c.dirty());
}

TEST_CASE("a slot that changes all the time never goes with another tile's pixels")
{
    const sparse_bytes old = make_file(0, 1, 16);
    opened_cache c(&old);
    tile_cache_open();
    bytes pixels[16 * 3];
    for (uint32_t i = 0; i < 48; i++)
        pixels[i] = pixels_of(hash_of(i % 16) + 8192 * (i / 16));
    for (uint32_t save = 1; save <= 20; save++) {
        c.insert(hash_of(0));
        tile_cache_save_start();
        for (uint32_t i = 0; disk_memory.replaced < save; i = (i + 1) % 48) {
            lock_enter(&frame_lock);
            tile_cache_insert(hash_of(i % 16) + 8192 * (i / 16), pixels[i].data(),
                              TILE_ROW_BYTES);
            lock_leave(&frame_lock);
        }
        tile_cache_save_stop();
        REQUIRE(file_is_right(saved()));
    }
}

TEST_CASE("a save that is told to stop leaves the old file, and the last one follows")
{
    const sparse_bytes old = make_file(0, 1, 800);
    opened_cache c(&old);
    tile_cache_open();
    c.insert(hash_of(800));
    std::atomic<uint32_t> writes = 0;
    std::atomic<bool> go_on = false;
    disk_memory.hook = [&](const disk_memory_call &call) {
        if (strcmp(call.what, "write") == 0 && ++writes == 10)
            while (!go_on)
                clock_sleep_ms(1);
        return true;
    };
    tile_cache_save_start();
    while (writes < 10)
        clock_sleep_ms(1);
    std::thread later([&] {
        clock_sleep_ms(50); // by then the other thread waits for the end
        go_on = true;
    });
    tile_cache_save_stop();
    later.join();
    CHECK(writes < 801);
    CHECK(saved() == old);
    CHECK(disk_memory.files.size() == 1);
    CHECK(c.dirty());
    disk_memory.hook = nullptr;
    c.save();
    CHECK(saved() == make_file(0, 1, 801));
}
