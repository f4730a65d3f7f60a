// Labels: threaded
// Fakes: input_record
#include "host/host_session.h"
#include "host/host_lock.h"
#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/fakes/input_record.h"
#include "tests/socket_pair.h"
#include "tests/test.h"

#include <atomic>
#include <new>
#include <stdlib.h>
#include <string.h>

using namespace host;

// A session's memory comes from here and is looked at when it is given back.
static const uint8_t *watched; // set and cleared while one thread runs
static size_t key_bytes_left;  // in what was given back, KEY_BYTE that is

constexpr uint8_t KEY_BYTE = 0xA7;

static void give_back(void *block)
{
    if (block && block == watched)
        for (size_t i = 0; i < sizeof(host_session); i++)
            key_bytes_left += watched[i] == KEY_BYTE;
    free(block);
}

void *operator new(size_t size)
{
    void *block = malloc(size ? size : 1);
    if (!block)
        abort();
    return block;
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return malloc(size ? size : 1);
}

void operator delete(void *block) noexcept
{
    give_back(block);
}

void operator delete(void *block, size_t) noexcept
{
    give_back(block);
}

// Whether the peer of a socket has ended the connection; waits a little for it.
static bool peer_ended(net_socket sock)
{
    net_deadline soon = {true, clock_ms() + 2000};
    uint32_t start = clock_ms();
    uint8_t byte;
    return !net_recv_all(sock, &byte, 1, soon) && clock_ms() - start < 1900;
}

// Whether the peer of a socket is still there for a while.
static bool peer_is_there(net_socket sock)
{
    net_deadline soon = {true, clock_ms() + 100};
    uint32_t start = clock_ms();
    uint8_t byte;
    return !net_recv_all(sock, &byte, 1, soon) && clock_ms() - start >= 90;
}

TEST_CASE("a session starts with one owner, nothing pressed and numbering from the last frame")
{
    socket_pair p = socket_pair_open();
    host_session *s = session_create(p.host, 4711);
    REQUIRE(s != nullptr);
    CHECK(s->generation == session_generation.load());
    CHECK(s->sock == p.host);
    CHECK(s->owners == 1);
    CHECK_FALSE(s->receiver.open);
    CHECK(s->receiver.recv_buf == nullptr);
    CHECK(s->estimator.ema_rtt16 == 0);
    CHECK(s->estimator.rtt_floor == 100000);
    CHECK(s->estimator.last_rtt == 0);
    CHECK(s->estimator.tile_budget == 4096);
    CHECK(s->estimator.ack_count == 0);
    CHECK(s->acked_seq == 4711);
    CHECK(s->confirmed_seq == 4711);
    CHECK(s->ema_rtt16 == 0);
    CHECK(s->tile_budget == 4096);
    CHECK(s->session_ended == 0);
    for (auto &keys : s->keys_down)
        CHECK(keys == 0);
    CHECK(s->buttons_down == 0);
    session_release(s);
    net_close(p.viewer);
}

TEST_CASE("the last owner closes the socket and frees the receiving half")
{
    socket_pair p = socket_pair_open();
    host_session *s = session_create(p.host, 0);
    REQUIRE(s != nullptr);
    s->owners = 2;
    s->receiver.recv_buf = (uint8_t *)malloc(100); // freed, or the leak checker complains
    session_release(s);
    CHECK(s->owners == 1);
    CHECK(peer_is_there(p.viewer));
    session_release(s);
    CHECK(peer_ended(p.viewer));
    net_close(p.viewer);
}

TEST_CASE("the key of the receiving half is wiped before its memory is given back")
{
    socket_pair p = socket_pair_open();
    host_session *s = session_create(p.host, 0);
    REQUIRE(s != nullptr);
    memset(s->receiver.recv_key, KEY_BYTE, sizeof s->receiver.recv_key);
    watched = (const uint8_t *)s;
    key_bytes_left = 0;
    session_release(s);
    watched = nullptr;
    CHECK(key_bytes_left == 0);
    net_close(p.viewer);
}

static void leave_session(void *session)
{
    ((host_session *)session)->acked_seq = 1;
    session_release((host_session *)session);
}

TEST_CASE("two threads may leave in any order")
{
    for (int i = 0; i < 200; i++) {
        host_session *s = session_create(NET_INVALID, 0);
        REQUIRE(s != nullptr);
        s->owners = 2;
        s->receiver.recv_buf = (uint8_t *)malloc(100);
        thread *t = thread_start(leave_session, s);
        REQUIRE(t != nullptr);
        session_release(s);
        CHECK(thread_join(t, 10000));
    }
}

TEST_CASE("a session that was retired is not the running one")
{
    lock_init(&host_lock);
    host_session *first = session_create(NET_INVALID, 0);
    REQUIRE(first != nullptr);
    session_retire();
    CHECK(first->generation != session_generation.load());
    host_session *second = session_create(NET_INVALID, 0);
    REQUIRE(second != nullptr);
    CHECK(second->generation == session_generation.load());
    session_release(first);
    session_release(second);
}

static void retire(void *)
{
    session_retire();
}

TEST_CASE("who holds host_lock and finds its generation stays in the running session")
{
    lock_init(&host_lock);
    uint32_t before = session_generation.load();
    lock_enter(&host_lock);
    thread *t = thread_start(retire, nullptr);
    if (t != nullptr)
        clock_sleep_ms(50);
    uint32_t inside = session_generation.load();
    lock_leave(&host_lock);
    REQUIRE(t != nullptr);
    CHECK(thread_join(t, 10000));
    CHECK(inside == before);
    CHECK(session_generation.load() == before + 1);
}

TEST_CASE("what is left pressed is released once, buttons where the pointer is")
{
    input_record_clear();
    host_session *s = session_create(NET_INVALID, 0);
    REQUIRE(s != nullptr);
    const uint16_t keys[] = {0, 0x25, 63, 64, 'A', 128, 163, 192, 255};
    for (uint16_t key : keys)
        s->keys_down[key / 64] |= (uint64_t)1 << key % 64;
    s->buttons_down = 1 << 0 | 1 << 2;

    session_release_input(s);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 11);
    for (size_t i = 0; i < 9; i++) {
        CAPTURE(keys[i]);
        REQUIRE(calls[i].size() == 1);
        CHECK(calls[i][0].keyboard);
        CHECK(calls[i][0].virtual_key == keys[i]);
        bool extended = keys[i] == 0x25 || keys[i] == 163;
        CHECK(calls[i][0].flags == (extended ? 3u : 2u)); // up
    }
    const uint32_t up[] = {0x4, 0x40}; // left, middle; without the flags of a move
    for (size_t i = 0; i < 2; i++) {
        REQUIRE(calls[9 + i].size() == 1);
        CHECK_FALSE(calls[9 + i][0].keyboard);
        CHECK(calls[9 + i][0].flags == up[i]);
    }

    session_release_input(s);
    CHECK(input_record_calls().size() == 11);
    session_release(s);
}

static void release_input(void *session)
{
    session_release_input((host_session *)session);
}

TEST_CASE("two threads that release at once send each release once")
{
    host_session *s = session_create(NET_INVALID, 0);
    REQUIRE(s != nullptr);
    for (int round = 0; round < 50; round++) {
        input_record_clear();
        for (auto &keys : s->keys_down)
            keys = ~(uint64_t)0;
        s->buttons_down = 7;
        thread *t = thread_start(release_input, s);
        REQUIRE(t != nullptr);
        session_release_input(s);
        CHECK(thread_join(t, 10000));
        CHECK(input_record_calls().size() == 259);
    }
    session_release(s);
}

// ---------------------------------------------------------------------------------------
// Acknowledgements on their way to the server thread

TEST_CASE("acknowledgements arrive in order, and what finds no room is dropped")
{
    host_session *s = session_create(NET_INVALID, 0);
    REQUIRE(s != nullptr);
    s->acks_put = s->acks_taken = 0xFFFFFFF0; // the counters wrap
    session_ack ack = {};
    CHECK_FALSE(session_take_ack(s, &ack));
    for (uint32_t round = 0; round < 3; round++) {
        CAPTURE(round);
        for (uint32_t i = 0; i < SESSION_ACKS + 5; i++)
            session_put_ack(s, {round * 1000 + i, i * 7});
        for (uint32_t i = 0; i < SESSION_ACKS; i++) {
            REQUIRE(session_take_ack(s, &ack));
            CHECK(ack.seq == round * 1000 + i);
            CHECK(ack.at_us == i * 7);
        }
        CHECK_FALSE(session_take_ack(s, &ack));
    }
    session_release(s);
}

static std::atomic<bool> acks_over;

// Until the other thread has seen enough.
static void put_acks(void *argument)
{
    host_session *s = (host_session *)argument;
    for (uint32_t i = 1; !acks_over; i++)
        session_put_ack(s, {i, (uint64_t)i * 3});
}

TEST_CASE("acknowledgements pass from one thread to the other whole")
{
    host_session *s = session_create(NET_INVALID, 0);
    REQUIRE(s != nullptr);
    acks_over = false;
    thread *control = thread_start(put_acks, s);
    REQUIRE(control != nullptr);
    uint32_t last = 0;
    for (int taken = 0; taken < 5000;) {
        session_ack ack;
        if (!session_take_ack(s, &ack))
            continue;
        REQUIRE(ack.seq > last);
        REQUIRE(ack.at_us == (uint64_t)ack.seq * 3);
        last = ack.seq;
        taken++;
    }
    acks_over = true;
    CHECK(thread_join(control, THREAD_WAIT_FOREVER));
    session_release(s);
}
