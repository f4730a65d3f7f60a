// Fakes: cache_disk_memory viewer_channel_memory window_posts thread_inline
// Options: -max_len=1024 -len_control=0
// Seeds: 20 700
//
// The tile cache over several sessions, whose file the input damages in between: other
// lengths, headers, keys and pixels, reads and writes that fail, leftovers of a save that was
// cut short, tiles that come while a save is under way.
//
// A file that is not whole makes an empty cache; of any other the cache holds what it says,
// slot by slot, tells the host those hashes and no others, and finds a hash in its set only.
// What is saved is what was there when each slot's turn came, key and pixels together; a save
// that fails leaves the old file. The memory is the same whatever the file says.
#include "fuzz/fuzz.h"
#include "protocol/bytes.h"
#include "protocol/messages.h"
#include "tests/fakes/cache_disk_memory.h"
#include "tests/fakes/viewer_channel_memory.h"
#include "viewer/tile_cache.h"

#include <sanitizer/allocator_interface.h>

using namespace viewer;
using bytes = std::vector<uint8_t>;

static constexpr uint32_t SLOTS = 8192;
static constexpr uint64_t TILES_AT = 65552;      // 16 + 8192 * 8
static constexpr uint64_t WHOLE = 134283280;     // 65552 + 8192 * 16384
static constexpr size_t CACHE_BYTES = 128 << 20; // and 64 KiB of keys, 4 KiB of ways

// The other targets let so large an allocation fail.
const char *fuzz_sanitizer_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=160:quarantine_size_mb=1:"
           "detect_stack_use_after_return=0";
}

// ---------------------------------------------------------------------------------------
// The cache in the plainest form

static struct {
    fuzz_input *in;
    uint64_t keys[SLOTS];
    bytes tiles[SLOTS];           // of those that have a key
    uint8_t used_last[SLOTS / 2]; // way, of each set
    bool dirty;
    std::vector<uint64_t> hashes; // that were used so far
} run;

static uint64_t take_hash()
{
    uint8_t kind = take_u8(run.in);
    if (kind < 160 && !run.hashes.empty())
        return run.hashes[kind % run.hashes.size()];
    // Few sets, so that they fill up.
    uint64_t hash = take_u8(run.in) % 8 + 4096ull * (kind % 16);
    if (kind >= 250)
        hash = (uint64_t)take_u32(run.in) << 32 | take_u32(run.in);
    run.hashes.push_back(hash);
    return hash;
}

static bytes take_tile()
{
    bytes tile(TILE_BYTES);
    fill_noise(tile.data(), tile.size(), take_u8(run.in));
    return tile;
}

// The slot that a hash is found in, or -1.
static int32_t slot_of(uint64_t hash)
{
    uint32_t set = (uint32_t)(hash % (SLOTS / 2));
    for (uint32_t slot = 2 * set; hash != 0 && slot < 2 * set + 2; slot++)
        if (run.keys[slot] == hash)
            return (int32_t)slot;
    return -1;
}

static void find() NO_THREAD_SAFETY_ANALYSIS
{
    uint64_t hash = take_hash();
    int32_t slot = slot_of(hash);
    const uint8_t *tile = tile_cache_find(hash);
    FUZZ_CHECK((tile != nullptr) == (slot >= 0));
    if (!tile)
        return;
    FUZZ_CHECK(memcmp(tile, run.tiles[slot].data(), TILE_BYTES) == 0);
    run.used_last[slot / 2] = (uint8_t)(slot % 2);
}

static void insert()
{
    uint64_t hash = take_hash();
    exact_bytes tile(take_tile());
    lock_enter(&frame_lock);
    tile_cache_insert(hash, tile.data, TILE_ROW_BYTES);
    lock_leave(&frame_lock);
    if (hash == 0)
        return;
    uint32_t set = (uint32_t)(hash % (SLOTS / 2));
    int32_t slot = slot_of(hash);
    for (uint32_t way = 0; way < 2 && slot < 0; way++)
        if (run.keys[2 * set + way] == 0)
            slot = (int32_t)(2 * set + way);
    if (slot < 0)
        slot = (int32_t)(2 * set + !run.used_last[set]);
    run.keys[slot] = hash;
    run.tiles[slot].assign(tile.data, tile.data + TILE_BYTES);
    run.used_last[set] = (uint8_t)(slot % 2);
    run.dirty = true;
}

static void check_cache() NO_THREAD_SAFETY_ANALYSIS
{
    FUZZ_CHECK(tile_cache.cache_enabled && tile_cache.cache_dirty == run.dirty);
    FUZZ_CHECK(memcmp(tile_cache.cache_keys, run.keys, sizeof run.keys) == 0);
    for (uint32_t slot = 0; slot < SLOTS; slot++)
        if (run.keys[slot] != 0)
            FUZZ_CHECK(memcmp(tile_cache.cache_tiles + (size_t)slot * TILE_BYTES,
                              run.tiles[slot].data(), TILE_BYTES) == 0);
}

// ---------------------------------------------------------------------------------------
// The file

static void put_slot(sparse_bytes *file, uint32_t slot, uint64_t key, const bytes &tile)
{
    uint8_t bytes_of_key[8];
    store_le64(bytes_of_key, key);
    file->write(16 + slot * 8ull, bytes_of_key, 8);
    file->write(TILES_AT + slot * (uint64_t)TILE_BYTES, tile.data(), TILE_BYTES);
}

static sparse_bytes new_file()
{
    const uint8_t header[16] = {0x31, 0x43, 0x56, 0x51, 0, 0x20, 0, 0, 0, 0x40};
    sparse_bytes file;
    file.resize(WHOLE);
    file.write(0, header, sizeof header);
    return file;
}

static void damage_file(sparse_bytes *file)
{
    switch (take_below(run.in, 10)) {
    case 0: { // a byte of the header, most often of what must be right
        uint8_t byte = take_u8(run.in);
        file->write(take_below(run.in, 16), &byte, 1);
        break;
    }
    case 1: { // a field of it
        uint8_t field[4];
        store_le32(field, take_edge(run.in));
        file->write(take_below(run.in, 4) * 4, field, 4);
        break;
    }
    case 2: { // a length at or around a border
        const uint64_t borders[] = {0, 16, TILES_AT, WHOLE, WHOLE - TILE_BYTES};
        uint64_t length = borders[take_below(run.in, 5)] + take_below(run.in, 5);
        file->resize(length < 2 ? 0 : length - 2);
        break;
    }
    case 3: // any length
        file->resize(take_u32(run.in) % (WHOLE + 4096));
        break;
    case 4: { // the start of it is something else
        bytes anything = take_bytes(run.in, take_u8(run.in));
        file->write(0, anything.data(), anything.size());
        break;
    }
    case 5:
    case 6: { // a slot, in its set or anywhere
        uint64_t key = take_hash();
        uint32_t slot = take_u8(run.in) % 8 == 0
                            ? take_u16(run.in) % SLOTS
                            : (uint32_t)(key % (SLOTS / 2)) * 2 + take_below(run.in, 2);
        put_slot(file, slot, key, take_tile());
        break;
    }
    case 7: // pixels without a key
        file->write(TILES_AT + take_u16(run.in) % SLOTS * (uint64_t)TILE_BYTES,
                    take_tile().data(), TILE_BYTES);
        break;
    case 8: { // many keys; beyond 4096 takes two messages, and long
        uint32_t count = take_u8(run.in) % 16 == 0 ? 4000 + take_u8(run.in) : take_u8(run.in);
        uint32_t first = take_u16(run.in) % (SLOTS - count);
        for (uint32_t slot = first; slot < first + count; slot++) {
            uint8_t key[8];
            store_le64(key, slot / 2 + 4096ull * (1 + slot % 2));
            file->write(16 + slot * 8ull, key, 8);
        }
        break;
    }
    default:
        *file = new_file();
        break;
    }
}

// What a cache that is opened from the file as it is must hold.
static void expect_file(const sparse_bytes &file, bool header_read, bool tiles_read,
                        std::vector<uint64_t> *advertised)
{
    const uint8_t wanted[12] = {0x31, 0x43, 0x56, 0x51, 0, 0x20, 0, 0, 0, 0x40};
    bool good =
        header_read && file.size() >= WHOLE && file.part(0, 12) == bytes(wanted, wanted + 12);
    bytes keys = file.part(16, SLOTS * 8);
    for (uint32_t slot = 0; slot < SLOTS; slot++) {
        uint64_t key = good ? load_le64(&keys[slot * 8]) : 0;
        if (key != 0)
            advertised->push_back(key);
        run.keys[slot] = tiles_read ? key : 0;
        run.tiles[slot].clear();
        if (run.keys[slot] != 0)
            run.tiles[slot] = file.part(TILES_AT + slot * (uint64_t)TILE_BYTES, TILE_BYTES);
    }
    memset(run.used_last, 1, sizeof run.used_last); // the first to go is way a
    run.dirty = false;
}

static void check_advertisement(const std::vector<uint64_t> &hashes)
{
    size_t messages = (hashes.size() + 4095) / 4096;
    FUZZ_CHECK(memory_sent.size() == 2 * messages);
    for (size_t i = 0; i < messages; i++) {
        size_t count = i + 1 < messages ? 4096 : hashes.size() - 4096 * i;
        message_header header = get_header(memory_sent[2 * i].data());
        FUZZ_CHECK(header.type == MSG_CACHE_ADVERT && header.length == count * 8);
        FUZZ_CHECK(memory_sent[2 * i + 1].size() == count * 8);
        for (size_t j = 0; j < count; j++)
            FUZZ_CHECK(load_le64(&memory_sent[2 * i + 1][j * 8]) == hashes[4096 * i + j]);
    }
}

static void open_cache()
{
    memory_reset();
    uint32_t reads = 0, fails_at = take_u8(run.in) % 16; // 0: none
    bool header_read = true, tiles_read = true;
    disk_memory.hook = [&](const disk_memory_call &call) {
        bool fails = ++reads == fails_at;
        if (fails && call.offset < TILES_AT)
            header_read = false;
        if (fails && call.offset >= TILES_AT)
            tiles_read = false;
        return !fails;
    };
    size_t before = __sanitizer_get_current_allocated_bytes();
    tile_cache_open();
    size_t taken = __sanitizer_get_current_allocated_bytes() - before;
    disk_memory.hook = nullptr;
    FUZZ_CHECK(taken >= CACHE_BYTES && taken < CACHE_BYTES + (2 << 20));

    std::vector<uint64_t> advertised;
    sparse_bytes none;
    auto file = disk_memory.files.find(DISK_MEMORY_PATH);
    expect_file(file == disk_memory.files.end() ? none : file->second, header_read, tiles_read,
                &advertised);
    check_cache();
    check_advertisement(advertised);
}

// Saves, on the thread that is none here: it runs inside the call. Tiles come between its
// writes, where the lock is free.
static void save(bool last)
{
    sparse_bytes before, expected = new_file();
    bool existed = disk_memory.files.count(DISK_MEMORY_PATH) != 0;
    if (existed)
        before = disk_memory.files[DISK_MEMORY_PATH];
    uint32_t next = 0; // slots before this one have had their turn
    bool failed = false, due = run.dirty;
    uint8_t trouble = take_u8(run.in);
    uint32_t calls = 0, fails_at = trouble < 64 ? 1 + take_u8(run.in) : 0;
    run.dirty = false;
    disk_memory.hook = [&](const disk_memory_call &call) {
        bool tile = strcmp(call.what, "write") == 0 && call.offset >= TILES_AT;
        if (tile) {
            uint32_t slot = (uint32_t)((call.offset - TILES_AT) / TILE_BYTES);
            for (; next < slot; next++)
                FUZZ_CHECK(run.keys[next] == 0);
            FUZZ_CHECK(run.keys[slot] != 0);
            put_slot(&expected, slot, run.keys[slot], run.tiles[slot]);
            next = slot + 1;
        }
        if (++calls == fails_at)
            failed = true;
        if (!last && !failed && take_u8(run.in) % 4 == 0 && run.in->left > 0)
            insert();
        return calls != fails_at;
    };
    if (last) {
        lock_enter(&frame_lock);
        tile_cache_save();
        lock_leave(&frame_lock);
    } else {
        tile_cache_save_start();
        tile_cache_save_stop();
    }
    disk_memory.hook = nullptr;
    run.dirty = run.dirty || failed;
    bool exists = disk_memory.files.count(DISK_MEMORY_PATH) != 0;
    FUZZ_CHECK(exists == (existed || (due && !failed)));
    if (exists)
        FUZZ_CHECK(disk_memory.files[DISK_MEMORY_PATH] == (due && !failed ? expected : before));
    FUZZ_CHECK(!due || disk_memory.files.count(DISK_MEMORY_TEMPORARY) == 0 ||
               (failed && calls == 1)); // one that could not be made
    check_cache();
}

static void close_cache()
{
    lock_enter(&frame_lock);
    tile_cache_close();
    lock_leave(&frame_lock);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    lock_init(&frame_lock);
    disk_memory_reset();
    run = {};
    run.in = &in;
    if (take_u8(&in) % 8 != 0)
        disk_memory.files[DISK_MEMORY_PATH] = new_file();
    for (int32_t session = 0; session < 6 && in.left > 0; session++) {
        for (uint32_t n = take_below(&in, 6); n > 0; n--)
            damage_file(&disk_memory.files[DISK_MEMORY_PATH]);
        if (take_u8(&in) % 4 == 0) // what a viewer that was killed leaves behind
            damage_file(&disk_memory.files[DISK_MEMORY_TEMPORARY]);
        open_cache();
        for (uint32_t n = take_below(&in, 40); n > 0 && in.left > 0; n--) {
            uint32_t what = take_below(&in, 8);
            if (what < 4)
                insert();
            else if (what < 7)
                find();
            else
                save(false);
        }
        check_cache();
        save(true);
        close_cache();
    }
    disk_memory_reset(true);
    return 0;
}
