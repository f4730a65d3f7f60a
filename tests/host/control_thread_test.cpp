// Labels: threaded
// Fakes: input_record server_log_record clock_script
//
// Three things are replaced in this file besides the fakes: the lock, by one that counts how
// often it is taken and can call back when it is left, the pipeline's frame number, and the
// server thread's pause, of which the wakes are counted.
#include "host/control_thread.h"
#include "host/cache_mirror.h"
#include "host/frame_pipeline.h"
#include "host/screen.h"
#include "host/server_wake.h"
#include "protocol/thread.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/input_record.h"
#include "tests/fakes/server_log_record.h"
#include "tests/socket_pair.h"
#include "tests/test.h"

#include <atomic>
#include <mutex>
#include <chrono>
#include <string.h>
#include <thread>
#include <vector>

using namespace host;

static std::recursive_mutex the_lock;
static std::atomic<int> lock_count;
static int leaves_until_retire; // 0: never

void lock_init(lock *)
{
}

void lock_enter(lock *) NO_THREAD_SAFETY_ANALYSIS
{
    the_lock.lock();
    lock_count++;
}

void lock_leave(lock *) NO_THREAD_SAFETY_ANALYSIS
{
    the_lock.unlock();
    if (leaves_until_retire > 0 && --leaves_until_retire == 0)
        session_retire();
}

static std::atomic<int> wake_count;

namespace host
{
std::atomic<uint32_t> frame_seq;

void server_pause(uint64_t)
{
}

void server_wake()
{
    wake_count++;
}
} // namespace host

namespace
{
// A session, an empty mirror, and a clean slate in every record.
struct fixture {
    host_session *session;

    explicit fixture(uint32_t seq = 100, net_socket sock = NET_INVALID)
    {
        leaves_until_retire = 0;
        frame_seq = seq;
        clock_script_now = 1000;
        input_record_clear();
        server_log_clear();
        screen.hello_width = screen.hello_height = 0;
        REQUIRE(screen_resize(1920, 1080)); // 30 x 17 tiles
        lock_enter(&host_lock);
        cache_mirror_reset();
        lock_leave(&host_lock);
        session = session_create(sock, seq);
        REQUIRE(session != nullptr);
        lock_count = 0;
        wake_count = 0;
    }

    ~fixture()
    {
        if (session != nullptr)
            session_release(session);
    }

    void message(uint8_t type, const void *payload, uint32_t length)
    {
        // On the heap and to the byte, so that reading past it is noticed.
        uint8_t *copy = (uint8_t *)malloc(length > 0 ? length : 1);
        REQUIRE(copy != nullptr);
        if (length > 0)
            memcpy(copy, payload, length);
        control_message(session, type, copy, length);
        free(copy);
    }

    void ack(uint32_t seq, uint32_t sent_ms)
    {
        uint8_t p[FRAME_ACK_BYTES];
        put_frame_stamp(p, {seq, sent_ms});
        message(MSG_FRAME_ACK, p, sizeof p);
    }

    void mouse(int32_t x, int32_t y, uint8_t kind, uint8_t button = 0, int16_t wheel = 0)
    {
        uint8_t p[MOUSE_BYTES];
        put_mouse(p, {x, y, kind, button, wheel});
        message(MSG_MOUSE, p, sizeof p);
    }

    void key(uint32_t value)
    {
        uint8_t p[KEY_BYTES];
        store_le32(p, value);
        message(MSG_KEY, p, sizeof p);
    }

    void miss(uint16_t tx, uint16_t ty, uint64_t hash)
    {
        uint8_t p[CACHE_MISS_BYTES];
        put_tile_ref(p, {tx, ty, hash});
        message(MSG_CACHE_MISS, p, sizeof p);
    }
};
} // namespace

static bool mirror_has(uint64_t hash)
{
    lock_enter(&host_lock);
    bool found = cache_mirror_find(hash);
    lock_leave(&host_lock);
    return found;
}

static uint32_t mirror_count()
{
    lock_enter(&host_lock);
    uint32_t count = cache_mirror_count();
    lock_leave(&host_lock);
    return count;
}

static void mirror_insert(uint64_t hash)
{
    lock_enter(&host_lock);
    cache_mirror_insert(hash);
    lock_leave(&host_lock);
}

// ---------------------------------------------------------------------------------------
// Acknowledgements

TEST_CASE("the first acknowledgement of 40 ms is published for pacing")
{
    fixture f;
    clock_script_now = 5040;
    f.ack(100, 5000);
    CHECK(f.session->acked_seq == 100);
    CHECK(f.session->ema_rtt16 == 640);
    CHECK(f.session->tile_budget == 4096);
    CHECK(f.session->estimator.rtt_floor == 40);
    CHECK(f.session->estimator.last_rtt == 40);
    CHECK(inflight_cap(f.session->ema_rtt16) == 5);
    CHECK(server_log_lines().empty());
}

TEST_CASE("a stamp from the future counts as 0 ms and an old one as 5000")
{
    fixture f;
    clock_script_now = 7;
    f.ack(100, 8);
    CHECK(f.session->estimator.last_rtt == 0);
    f.ack(100, 7 - 5001u);
    CHECK(f.session->estimator.last_rtt == 5000);
    f.ack(100, 7 - 4999u);
    CHECK(f.session->estimator.last_rtt == 4999);
}

TEST_CASE("congestion cuts the budget that is published")
{
    fixture f;
    clock_script_now = 10;
    f.ack(100, 0);
    clock_script_now = 5000;
    f.ack(100, 0); // 160 - 20 + 10000: 633 ms over a floor of 10
    CHECK(f.session->ema_rtt16 == 10140);
    CHECK(f.session->tile_budget == 3072);
}

TEST_CASE("acked_seq is what the viewer says, confirmed_seq only what can be true")
{
    struct {
        uint32_t frame, confirmed, ack, confirmed_after;
    } rows[] = {
        {110, 100, 105, 105},
        {110, 100, 110, 110},
        {110, 100, 100, 100}, // from before the session
        {110, 100, 99, 100},  // stale: never back
        {110, 105, 101, 105},
        {110, 100, 111, 100}, // forged: not sent yet
        {110, 100, 0x80000000u, 100},
        {110, 100, 0xFFFFFFFFu, 100},
        {0x00000003u, 0xFFFFFFF0u, 0xFFFFFFF8u, 0xFFFFFFF8u}, // across the wrap
        {0x00000003u, 0xFFFFFFF0u, 0x00000002u, 0x00000002u},
        {0x00000003u, 0xFFFFFFF0u, 0x00000004u, 0xFFFFFFF0u},
        {0x00000003u, 0x00000001u, 0xFFFFFFFFu, 0x00000001u},
    };
    for (auto &row : rows) {
        CAPTURE(row.frame);
        CAPTURE(row.ack);
        fixture f(row.confirmed);
        frame_seq = row.frame;
        f.ack(row.ack, 1000);
        CHECK(f.session->acked_seq == row.ack);
        CHECK(f.session->confirmed_seq == row.confirmed_after);
    }
}

TEST_CASE("acknowledgements that can be true are handed to the server thread, with their time")
{
    fixture f(100);
    session_ack ack = {};
    clock_script_now = 5000;
    frame_seq = 103;
    for (uint32_t seq : {100u, 99u, 104u, 0x80000000u}) // known, older, never sent
        f.ack(seq, 4000);
    CHECK_FALSE(session_take_ack(f.session, &ack));
    f.ack(102, 99999); // whatever it stamps
    f.ack(101, 4000);  // older than the last
    clock_script_now = 5007;
    f.ack(103, 4000);
    REQUIRE(session_take_ack(f.session, &ack));
    CHECK(ack.seq == 102);
    CHECK(ack.at_us == 5000000);
    REQUIRE(session_take_ack(f.session, &ack));
    CHECK(ack.seq == 103);
    CHECK(ack.at_us == 5007000);
    CHECK_FALSE(session_take_ack(f.session, &ack));
}

TEST_CASE("what a stall passed over is not confirmed by it")
{
    fixture f;
    frame_seq = 103;
    f.session->acked_seq = 103; // the pipeline's rule
    f.ack(101, 1000);
    CHECK(f.session->acked_seq == 101);
    CHECK(f.session->confirmed_seq == 101);
}

TEST_CASE("every 32nd acknowledgement is logged")
{
    fixture f;
    clock_script_now = 1040;
    for (int i = 0; i < 31; i++)
        f.ack(100, 1000);
    CHECK(server_log_lines().empty());
    clock_script_now = 1060;
    f.ack(100, 1000); // 640 - 80 + 120 = 680: 42 ms
    auto lines = server_log_lines();
    REQUIRE(lines.size() == 1);
    CHECK(lines[0] == "latency: rtt=60ms floor=40ms ema=42ms budget=4096 inflight_cap=5");
    for (int i = 0; i < 32; i++)
        f.ack(100, 1000);
    CHECK(server_log_lines().size() == 2);
}

TEST_CASE("acknowledgements and input take no lock")
{
    fixture f;
    f.ack(100, 1000);
    f.mouse(1, 1, MOUSE_DOWN);
    f.key(0x10041);
    const uint8_t unit[2] = {'x', 0};
    f.message(MSG_CHAR, unit, 2);
    CHECK(lock_count == 0);
    CHECK(input_record_calls().size() == 3);
}

TEST_CASE("what the server should look at wakes it, and nothing else does")
{
    fixture f;
    int wakes = 0;
    f.ack(100, 1000); // nobody waits for it
    CHECK(wake_count == wakes);
    f.session->waits_for_ack = 1;
    f.ack(100, 1000);
    CHECK(wake_count == ++wakes);
    f.ack(100, 1000);
    CHECK(wake_count == wakes);
    f.mouse(1, 1, MOUSE_MOVE);
    CHECK(wake_count == ++wakes);
    f.key(0x10041);
    CHECK(wake_count == ++wakes);
    const uint8_t unit[2] = {'x', 0};
    f.message(MSG_CHAR, unit, 2);
    CHECK(wake_count == ++wakes);
    f.miss(3, 2, 42);
    CHECK(wake_count == ++wakes);
    f.message(MSG_CACHE_ADVERT, nullptr, 0);
    f.message(MSG_SERVER_HELLO, unit, 2);
    CHECK(wake_count == wakes);

    session_retire();
    f.key(0x41);
    f.mouse(1, 1, MOUSE_UP);
    f.message(MSG_CHAR, unit, 2);
    f.miss(3, 2, 42);
    CHECK(wake_count == wakes);
}

// ---------------------------------------------------------------------------------------
// Lengths and types

TEST_CASE("a payload one byte short of its layout is ignored, a longer one taken")
{
    struct {
        uint8_t type;
        uint32_t least;
    } rows[] = {
        {MSG_FRAME_ACK, 8}, {MSG_MOUSE, 12}, {MSG_KEY, 4}, {MSG_CHAR, 2}, {MSG_CACHE_MISS, 12},
    };
    for (auto &row : rows) {
        CAPTURE(row.type);
        uint8_t payload[32] = {1, 0, 1, 0}; // tile (1, 1)
        for (uint32_t extra = 0; extra < 2; extra++) {
            fixture f;
            screen.dirty_map[31].store(0);
            auto acted = [&] {
                return f.session->acked_seq == 0x10001 || !input_record_calls().empty() ||
                       screen.dirty_map[31].load() == 1;
            };
            for (uint32_t length = 0; length < row.least; length++) {
                f.message(row.type, payload, length);
                CHECK_FALSE(acted());
            }
            f.message(row.type, payload, row.least + extra * 7);
            CHECK(acted());
        }
    }
}

TEST_CASE("types that only the viewer, or nobody, knows are ignored")
{
    fixture f;
    uint8_t payload[64];
    memset(payload, 1, sizeof payload);
    for (uint32_t type = 0; type < 256; type++) {
        if (type >= 0x81 && type <= 0x86)
            continue;
        f.message((uint8_t)type, payload, sizeof payload);
        f.message((uint8_t)type, payload, 0);
    }
    CHECK(f.session->acked_seq == 100);
    CHECK(f.session->estimator.ack_count == 0);
    CHECK(input_record_calls().empty());
    CHECK(server_log_lines().empty());
    CHECK(lock_count == 0);
    CHECK(mirror_count() == 0);
}

// ---------------------------------------------------------------------------------------
// Input

TEST_CASE("the pixel in the bottom right corner is the end of the absolute range")
{
    fixture f;
    f.mouse(1919, 1079, MOUSE_MOVE);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 1);
    REQUIRE(calls[0].size() == 1);
    CHECK(calls[0][0].dx == 65535);
    CHECK(calls[0][0].dy == 65535);
    CHECK(calls[0][0].flags == 0x8001);
}

TEST_CASE("the left arrow is pressed and released with the extended flag")
{
    fixture f;
    f.key(0x10025);
    f.key(0x25);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 2);
    CHECK(calls[0][0].virtual_key == 0x25);
    CHECK(calls[0][0].flags == 1);
    CHECK(calls[1][0].virtual_key == 0x25);
    CHECK(calls[1][0].flags == 3);
}

TEST_CASE("a character's press and release go in one call")
{
    fixture f;
    const uint8_t unit[2] = {0xAC, 0x20};
    f.message(MSG_CHAR, unit, 2);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 1);
    REQUIRE(calls[0].size() == 2);
    CHECK(calls[0][0].scan == 0x20AC);
    CHECK(calls[0][0].flags == 4);
    CHECK(calls[0][1].scan == 0x20AC);
    CHECK(calls[0][1].flags == 6);
    session_release_input(f.session);
    CHECK(input_record_calls().size() == 1); // nothing is left pressed
}

TEST_CASE("the session knows what it has pressed")
{
    fixture f;
    f.key(0x10041);
    f.key(0x10041); // repeats
    f.key(0x10010);
    f.key(0x100FF);
    f.key(0x10100); // no such key: 0x100 must not count as key 0
    f.key(0x10);
    f.mouse(5, 5, MOUSE_DOWN, 0);
    f.mouse(5, 5, MOUSE_DOWN, 1);
    f.mouse(5, 5, MOUSE_DOWN, 2);
    f.mouse(5, 5, MOUSE_DOWN, 3); // no such button
    f.mouse(5, 5, MOUSE_DOWN, 255);
    f.mouse(5, 5, MOUSE_UP, 1);
    f.mouse(5, 5, MOUSE_UP, 3);
    f.mouse(5, 5, MOUSE_WHEEL, 0, 120);
    CHECK(f.session->keys_down[0] == 0);
    CHECK(f.session->keys_down[1] == (uint64_t)1 << 1); // 0x41 = 64 + 1
    CHECK(f.session->keys_down[2] == 0);
    CHECK(f.session->keys_down[3] == (uint64_t)1 << 63);
    CHECK(f.session->buttons_down == 5);

    input_record_clear();
    session_release_input(f.session);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 4);
    CHECK(calls[0][0].virtual_key == 0x41);
    CHECK(calls[1][0].virtual_key == 0xFF);
    CHECK(calls[2][0].flags == 0x4);
    CHECK(calls[3][0].flags == 0x40);
}

TEST_CASE("a release that nothing pressed is passed on all the same")
{
    fixture f;
    f.key(0x41);
    f.mouse(0, 0, MOUSE_UP, 1);
    CHECK(input_record_calls().size() == 2);
    session_release_input(f.session);
    CHECK(input_record_calls().size() == 2);
}

// ---------------------------------------------------------------------------------------
// The mirror

TEST_CASE("an advertisement of no hashes is logged with the mirror's count")
{
    fixture f;
    mirror_insert(77);
    f.message(MSG_CACHE_ADVERT, nullptr, 0);
    auto lines = server_log_lines();
    REQUIRE(lines.size() == 1);
    CHECK(lines[0] == "cache: client advertised 0 tiles (mirror now 1)");
}

TEST_CASE("a remainder of an advertisement is ignored, and so is hash 0")
{
    fixture f;
    uint8_t payload[28] = {};
    store_le64(payload, 0x1122334455667788u);
    f.message(MSG_CACHE_ADVERT, payload, 12);
    f.message(MSG_CACHE_ADVERT, payload, 7);
    f.message(MSG_CACHE_ADVERT, payload, 16);
    auto lines = server_log_lines();
    REQUIRE(lines.size() == 3);
    CHECK(lines[0] == "cache: client advertised 1 tiles (mirror now 1)");
    CHECK(lines[1] == "cache: client advertised 0 tiles (mirror now 1)");
    CHECK(lines[2] == "cache: client advertised 2 tiles (mirror now 1)");
    CHECK(mirror_has(0x1122334455667788u));
}

static void fill_hashes(uint8_t *payload, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++)
        store_le64(payload + i * 8, (uint64_t)(i + 1) * 0x9E3779B97F4A7C15u);
}

TEST_CASE("a long advertisement gives the lock up every 256 hashes")
{
    struct {
        uint32_t hashes;
        int times;
    } rows[] = {{1, 1}, {256, 1}, {257, 2}, {512, 2}, {8192, 32}};
    static uint8_t payload[65536];
    fill_hashes(payload, 8192);
    for (auto &row : rows) {
        CAPTURE(row.hashes);
        fixture f;
        f.message(MSG_CACHE_ADVERT, payload, row.hashes * 8);
        CHECK(lock_count == row.times);
        CHECK(mirror_count() == row.hashes);
        CHECK(mirror_has(load_le64(payload + (row.hashes - 1) * 8)));
    }
}

TEST_CASE("an advertisement stops where its session ends")
{
    fixture f;
    uint8_t payload[1000 * 8];
    fill_hashes(payload, 1000);
    leaves_until_retire = 2;
    f.message(MSG_CACHE_ADVERT, payload, sizeof payload);
    CHECK(mirror_count() == 512);
    CHECK(server_log_lines().empty());
}

// ---------------------------------------------------------------------------------------
// Misses

// Tile (3, 2) of the 30 x 17 and the first pixel rows below and beside it.
static constexpr int64_t TILE_3_2 = 2 * 30 + 3;

// Fills prev_frame with 0x55 and marks nothing dirty.
static void show_something()
{
    lock_enter(&host_lock);
    memset(screen.prev_frame, 0x55,
           (size_t)screen.padded_width * (size_t)screen.padded_height * 4);
    for (int64_t i = 0; i < 30 * 17; i++) {
        screen.dirty_map[i].store(0);
        tile_base_sent(&screen.bases[i]);
    }
    lock_leave(&host_lock);
}

// Counts prev_frame's bytes of one value inside and outside a tile.
static int64_t bytes_equal(uint8_t value, int32_t tx, int32_t ty, bool inside)
{
    int64_t count = 0;
    lock_enter(&host_lock);
    for (int64_t y = 0; y < screen.padded_height; y++)
        for (int64_t x = 0; x < (int64_t)screen.padded_width * 4; x++)
            if ((y / 64 == ty && x / 256 == tx) == inside &&
                screen.prev_frame[y * screen.padded_width * 4 + x] == value)
                count++;
    lock_leave(&host_lock);
    return count;
}

static int dirty_count()
{
    int count = 0;
    for (int64_t i = 0; i < 30 * 17; i++)
        count += screen.dirty_map[i].load();
    return count;
}

static tile_base base_of(int64_t tile)
{
    lock_enter(&host_lock);
    tile_base base = screen.bases[tile];
    lock_leave(&host_lock);
    return base;
}

TEST_CASE("a miss forgets the hash and has exactly its tile sent again")
{
    fixture f;
    show_something();
    mirror_insert(42);
    mirror_insert(42 + 0x80000); // the same slot: found behind 42
    f.miss(3, 2, 42);
    CHECK_FALSE(mirror_has(42));
    CHECK(mirror_has(42 + 0x80000));
    CHECK(mirror_count() == 1);
    CHECK(dirty_count() == 1);
    CHECK(screen.dirty_map[TILE_3_2].load() == 1);
    CHECK(bytes_equal(0, 3, 2, true) == 16384);
    CHECK(bytes_equal(0x55, 3, 2, false) == (int64_t)1920 * 1088 * 4 - 16384);
    CHECK(base_of(TILE_3_2).base_state == BASE_LOST);
    CHECK(base_of(TILE_3_2 + 1).base_state == BASE_KNOWN);
    CHECK(base_of(TILE_3_2 - 1).base_state == BASE_KNOWN);
    CHECK(server_log_lines().empty());
}

TEST_CASE("a miss of a hash that the mirror does not hold has the tile sent again too")
{
    fixture f;
    show_something();
    mirror_insert(43);
    f.miss(29, 16, 42); // the last tile
    CHECK(mirror_count() == 1);
    CHECK(dirty_count() == 1);
    CHECK(screen.dirty_map[30 * 17 - 1].load() == 1);
    CHECK(bytes_equal(0, 29, 16, true) == 16384);
}

TEST_CASE("a miss outside the grid only removes the hash")
{
    const struct {
        uint16_t tx, ty;
    } rows[] = {{30, 0}, {0, 17}, {30, 17}, {65535, 65535}, {65535, 0}, {0, 65535}};
    for (auto &row : rows) {
        CAPTURE(row.tx);
        CAPTURE(row.ty);
        fixture f;
        show_something();
        mirror_insert(42);
        f.miss(row.tx, row.ty, 42);
        CHECK(mirror_count() == 0);
        CHECK(dirty_count() == 0);
        CHECK(bytes_equal(0x55, -1, -1, false) == (int64_t)1920 * 1088 * 4);
    }
}

TEST_CASE("a miss without a screen only removes the hash")
{
    fixture f;
    CHECK_FALSE(screen_resize(0, 0));
    mirror_insert(42);
    f.miss(0, 0, 42);
    CHECK(mirror_count() == 0);
}

TEST_CASE("a miss on a blank tile in time leaves its base known")
{
    fixture f;
    lock_enter(&host_lock);
    tile_base_start(&screen.bases[TILE_3_2]);
    tile_base_start(&screen.bases[TILE_3_2 + 1]);
    tile_base_referenced(&screen.bases[TILE_3_2], 101);
    tile_base_referenced(&screen.bases[TILE_3_2 + 1], 101);
    lock_leave(&host_lock);
    frame_seq = 101;
    f.miss(3, 2, 42); // ahead of the acknowledgement: nothing was drawn there yet
    CHECK(base_of(TILE_3_2).base_state == BASE_KNOWN);
    f.ack(101, 1000);
    f.miss(4, 2, 42); // after it: false, and believed in nothing
    CHECK(base_of(TILE_3_2 + 1).base_state == BASE_LOST);
}

// ---------------------------------------------------------------------------------------
// A session that is over

TEST_CASE("messages of a session that is over touch nothing")
{
    fixture f;
    show_something();
    mirror_insert(42);
    session_retire();
    f.key(0x10041);
    f.key(0x41);
    f.mouse(1, 1, MOUSE_DOWN);
    f.mouse(1, 1, MOUSE_UP);
    const uint8_t unit[2] = {'x', 0};
    f.message(MSG_CHAR, unit, 2);
    uint8_t hash[8];
    store_le64(hash, 43);
    f.message(MSG_CACHE_ADVERT, hash, 8);
    f.message(MSG_CACHE_ADVERT, nullptr, 0);
    f.miss(3, 2, 42);
    CHECK(input_record_calls().empty());
    CHECK(f.session->keys_down[1] == 0);
    CHECK(f.session->buttons_down == 0);
    CHECK(server_log_lines().empty());
    CHECK(mirror_has(42));
    CHECK_FALSE(mirror_has(43));
    CHECK(dirty_count() == 0);
}

// ---------------------------------------------------------------------------------------
// The thread

namespace
{
// A session whose control thread runs on one end of a connection, and the viewer's half of
// the channel on the other. The test is the server: the session's second owner.
struct running : fixture {
    socket_pair sockets;
    secure_channel viewer;
    thread *control;

    running() : running(socket_pair_open())
    {
    }

    explicit running(socket_pair pair) : fixture(100, pair.host), sockets(pair), viewer()
    {
        channel_open(&viewer, sockets.viewer);
        viewer.sender.encrypted = 1;
        session->receiver.open = true;
        session->receiver.sock = sockets.host;
        session->receiver.encrypted = 1;
        for (uint32_t i = 0; i < CHANNEL_KEY_BYTES; i++)
            viewer.sender.send_key[i] = session->receiver.recv_key[i] = (uint8_t)i;
        session->owners = 2;
        control = thread_start(control_thread, session);
        REQUIRE(control != nullptr);
    }

    ~running()
    {
        net_abort(sockets.viewer);
        if (control != nullptr)
            thread_join(control, 10000);
        channel_reset(&viewer);
        net_close(sockets.viewer);
    }

    // The thread ends by itself, and says so.
    void check_ends()
    {
        bool ended = thread_join(control, 10000);
        control = nullptr;
        REQUIRE(ended);
        CHECK(session->session_ended == 1);
        CHECK(session->owners == 1);
    }

    // Several messages may go in one record: bytes are headers and payloads.
    void send(const std::vector<uint8_t> &bytes)
    {
        REQUIRE(channel_send(&viewer.sender, bytes.data(), bytes.size()));
    }
};
} // namespace

static void append_message(std::vector<uint8_t> *bytes, uint32_t type,
                           const std::vector<uint8_t> &payload)
{
    uint8_t header[MESSAGE_HEADER_BYTES];
    store_le32(header, type);
    store_le32(header + 4, (uint32_t)payload.size());
    bytes->insert(bytes->end(), header, header + sizeof header);
    bytes->insert(bytes->end(), payload.begin(), payload.end());
}

static std::vector<uint8_t> message_bytes(uint32_t type, const std::vector<uint8_t> &payload)
{
    std::vector<uint8_t> bytes;
    append_message(&bytes, type, payload);
    return bytes;
}

static const std::vector<uint8_t> PRESS_A = {0x41, 0, 1, 0};
static const std::vector<uint8_t> RELEASE_A = {0x41, 0, 0, 0};

template <typename condition> static bool wait_until(condition met)
{
    for (int i = 0; i < 5000; i++) {
        if (met())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

TEST_CASE("messages are read across records and judged by the low byte of their type")
{
    running r;
    std::vector<uint8_t> bytes;
    append_message(&bytes, 0xABCDEF83u, PRESS_A); // the other three bytes mean nothing
    append_message(&bytes, 0x99, {1, 2, 3});      // unknown: read and dropped
    append_message(&bytes, 0x83, {});             // nothing in it
    append_message(&bytes, 0x42, {});
    append_message(&bytes, 0x83, RELEASE_A);
    for (uint8_t byte : bytes)
        r.send({byte});
    CHECK(wait_until([] { return input_record_calls().size() == 2; }));
    auto calls = input_record_calls();
    CHECK(calls[0][0].flags == 0);
    CHECK(calls[1][0].flags == 2);
    CHECK(r.session->session_ended == 0);
}

TEST_CASE("65536 bytes of payload are accepted")
{
    running r;
    std::vector<uint8_t> hashes(65536);
    fill_hashes(hashes.data(), 8192);
    r.send(message_bytes(MSG_CACHE_ADVERT, hashes));
    CHECK(wait_until([] { return server_log_lines().size() == 1; }));
    CHECK(server_log_lines()[0] == "cache: client advertised 8192 tiles (mirror now 8192)");
    r.send(message_bytes(MSG_CACHE_ADVERT, {}));
    CHECK(wait_until([] { return server_log_lines().size() == 2; }));
    CHECK(server_log_lines()[1] == "cache: client advertised 0 tiles (mirror now 8192)");
}

TEST_CASE("a header of 65537 bytes ends the session, whatever its type")
{
    for (uint32_t type : {0x85u, 0x99u}) {
        for (uint32_t length : {65537u, 0x80000000u, 0xFFFFFFFFu}) {
            CAPTURE(length);
            running r;
            uint8_t header[8];
            store_le32(header, type);
            store_le32(header + 4, length);
            r.send({header, header + 8});
            r.check_ends();
            uint8_t byte;
            CHECK_FALSE(net_recv_all(r.sockets.viewer, &byte, 1, {})); // shut down
            CHECK(server_log_lines().empty());
        }
    }
}

TEST_CASE("a connection that breaks ends the session and releases what was pressed")
{
    running r;
    r.send(message_bytes(MSG_KEY, PRESS_A));
    r.send(message_bytes(MSG_KEY, {0x42, 0, 1, 0}));
    r.send(message_bytes(MSG_KEY, {0x42, 0, 0, 0}));
    std::vector<uint8_t> mouse(MOUSE_BYTES);
    put_mouse(mouse.data(), {10, 10, MOUSE_DOWN, 1, 0});
    r.send(message_bytes(MSG_MOUSE, mouse));
    r.send({0x83, 0, 0, 0}); // half a header
    CHECK(wait_until([] { return input_record_calls().size() == 4; }));
    int wakes = wake_count;
    net_abort(r.sockets.viewer);
    r.check_ends();
    CHECK(wake_count == wakes + 1);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 6);
    CHECK(calls[4][0].virtual_key == 0x41);
    CHECK(calls[4][0].flags == 2);
    CHECK_FALSE(calls[5][0].keyboard);
    CHECK(calls[5][0].flags == 0x10);
    session_release_input(r.session);
    CHECK(input_record_calls().size() == 6);
}

TEST_CASE("the end is reported before the releases, which may be stuck")
{
    running r;
    r.send(message_bytes(MSG_KEY, PRESS_A));
    REQUIRE(wait_until([&] { return r.session->keys_down[1] != 0; }));
    input_record_block_next();
    net_abort(r.sockets.viewer);
    REQUIRE(wait_until(input_record_blocked));
    CHECK(r.session->session_ended == 1);
    input_record_unblock();
    r.check_ends();
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 2);
    CHECK(calls[1][0].virtual_key == 0x41);
    CHECK(calls[1][0].flags == 2);
}

TEST_CASE("a record that was tampered with ends the session")
{
    running r;
    r.viewer.sender.send_key[0] ^= 1;
    r.send(message_bytes(MSG_KEY, PRESS_A));
    r.check_ends();
    CHECK(input_record_calls().empty());
}

TEST_CASE("the server's abort ends the thread")
{
    running r;
    net_abort(r.session->sock);
    r.check_ends();
}

TEST_CASE("a press that was stuck when its session ended is released after it, and no more")
{
    running r;
    input_record_block_next();
    std::vector<uint8_t> bytes;
    append_message(&bytes, MSG_KEY, PRESS_A);
    append_message(&bytes, MSG_KEY, {0x42, 0, 1, 0}); // already received when it comes back
    append_message(&bytes, MSG_CACHE_ADVERT, std::vector<uint8_t>(8, 7));
    r.send(bytes);
    REQUIRE(wait_until(input_record_blocked));

    // What the server does when it has waited long enough.
    session_retire();
    session_release_input(r.session);
    CHECK(input_record_calls().empty());

    input_record_unblock();
    r.check_ends();
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 2);
    CHECK(calls[0][0].virtual_key == 0x41);
    CHECK(calls[0][0].flags == 0);
    CHECK(calls[1][0].virtual_key == 0x41);
    CHECK(calls[1][0].flags == 2);
    CHECK(server_log_lines().empty());
    CHECK(mirror_count() == 0);
}

TEST_CASE("a release that was stuck when its session ended is not sent twice")
{
    running r;
    r.send(message_bytes(MSG_KEY, PRESS_A));
    REQUIRE(wait_until([] { return input_record_calls().size() == 1; }));
    input_record_block_next();
    r.send(message_bytes(MSG_KEY, RELEASE_A));
    REQUIRE(wait_until(input_record_blocked));
    session_retire();
    session_release_input(r.session);
    input_record_unblock();
    r.check_ends();
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 2);
    CHECK(calls[1][0].flags == 2);
}

TEST_CASE("a key that went down before the stuck call is released by the server")
{
    running r;
    r.send(message_bytes(MSG_KEY, PRESS_A));
    REQUIRE(wait_until([&] { return r.session->keys_down[1] != 0; }));
    input_record_block_next();
    std::vector<uint8_t> unit = {'x', 0};
    r.send(message_bytes(MSG_CHAR, unit));
    REQUIRE(wait_until(input_record_blocked));
    session_retire();
    session_release_input(r.session);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 2);
    CHECK(calls[1][0].virtual_key == 0x41);
    CHECK(calls[1][0].flags == 2);
    input_record_unblock();
    r.check_ends();
    CHECK(input_record_calls().size() == 3); // the character, and nothing else
}
