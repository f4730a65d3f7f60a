// Labels: threaded
//
// The record layer over real sockets. Expected bytes are libsodium's (tests/vectors); the
// malformed records are our own sealed ones, altered on their way.
#include "protocol/secure_channel.h"

#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/socket_pair.h"
#include "tests/test.h"
#include "tests/vectors/channel.h"

#include <atomic>
#include <string.h>
#include <vector>
#ifndef _WIN32
#include <sys/socket.h>
#include <unistd.h>
#endif

static constexpr net_deadline NO_DEADLINE = {};
static constexpr uint32_t LONG_MS = 60000;
static constexpr uint32_t OVERHEAD = RECORD_HEADER_BYTES + RECORD_TAG_BYTES;

namespace
{
// Two channels that talk to each other under one key for both directions.
struct linked {
    socket_pair socks;
    secure_channel host;
    secure_channel viewer;
};
} // namespace

static void start_sealed(secure_channel *channel, net_socket sock)
{
    channel_open(channel, sock);
    memcpy(channel->sender.send_key, RECORD_KEY, CHANNEL_KEY_BYTES);
    memcpy(channel->receiver.recv_key, RECORD_KEY, CHANNEL_KEY_BYTES);
    channel->sender.encrypted = 1;
    channel->receiver.encrypted = 1;
}

static linked open_linked()
{
    linked l = {};
    l.socks = socket_pair_open();
    start_sealed(&l.host, l.socks.host);
    start_sealed(&l.viewer, l.socks.viewer);
    return l;
}

static void close_linked(linked *l)
{
    channel_reset(&l->host);
    channel_reset(&l->viewer);
    socket_pair_close(&l->socks);
}

static std::vector<uint8_t> pattern(size_t n)
{
    std::vector<uint8_t> data(n);
    for (size_t i = 0; i < n; i++)
        data[i] = (uint8_t)(7 * i + 1);
    return data;
}

// The bytes of one record as `from` seals it next, taken off the wire at `raw`.
static std::vector<uint8_t> seal(channel_sender *from, net_socket raw,
                                 const std::vector<uint8_t> &plain)
{
    std::vector<uint8_t> record(plain.size() + OVERHEAD);
    REQUIRE(channel_send(from, plain.data(), plain.size()));
    REQUIRE(net_recv_all(raw, record.data(), record.size(), NO_DEADLINE));
    return record;
}

// Nothing is on its way to this socket, as far as a short wait can tell.
static bool nothing_arrives(net_socket sock)
{
    uint8_t byte;
    return !net_recv_all(sock, &byte, 1, {true, clock_ms() + 100});
}

static bool all_zero(const void *data, size_t n)
{
    const uint8_t *bytes = (const uint8_t *)data;
    for (size_t i = 0; i < n; i++)
        if (bytes[i] != 0)
            return false;
    return true;
}

namespace
{
struct send_task {
    channel_sender *sender;
    const uint8_t *data;
    uint64_t len;
    std::atomic<bool> ok;
};

struct recv_task {
    channel_receiver *receiver;
    uint8_t *dest;
    uint64_t n;
    std::atomic<bool> ok;
};
} // namespace

static void run_send(void *parameter)
{
    send_task *t = (send_task *)parameter;
    t->ok = channel_send(t->sender, t->data, t->len);
}

static void run_recv(void *parameter)
{
    recv_task *t = (recv_task *)parameter;
    t->ok = channel_recv(t->receiver, t->dest, t->n);
}

// Runs one channel_recv that is to fail without waiting for more bytes.
static bool fails_at_once(channel_receiver *receiver, uint8_t *dest, uint64_t n)
{
    recv_task task = {receiver, dest, n, true};
    thread *t = thread_start(run_recv, &task);
    REQUIRE(t);
    REQUIRE(thread_join(t, 10000));
    return !task.ok;
}

TEST_CASE("a zeroed channel refuses everything")
{
    secure_channel channel = {};
    uint8_t byte = 0;
    CHECK_FALSE(channel_send(&channel.sender, &byte, 1));
    CHECK_FALSE(channel_send(&channel.sender, &byte, 0));
    CHECK_FALSE(channel_recv(&channel.receiver, &byte, 1));
    CHECK_FALSE(channel_recv(&channel.receiver, &byte, 0));
    channel_reset(&channel);
}

TEST_CASE("a channel without a live socket refuses everything")
{
    secure_channel channel = {};
    channel_open(&channel, NET_INVALID);
    uint8_t byte = 0;
    for (uint64_t n : {0, 1}) {
        CHECK_FALSE(channel_send(&channel.sender, &byte, n));
        CHECK_FALSE(channel_recv(&channel.receiver, &byte, n));
    }
    channel_reset(&channel);
}

TEST_CASE("before the handshake bytes pass as they are")
{
    socket_pair p = socket_pair_open();
    secure_channel channel = {};
    channel_open(&channel, p.host);
    const uint8_t five[5] = {1, 2, 3, 4, 5};
    uint8_t got[5] = {};
    REQUIRE(channel_send(&channel.sender, five, sizeof five));
    REQUIRE(net_recv_all(p.viewer, got, sizeof got, NO_DEADLINE));
    CHECK(memcmp(got, five, sizeof five) == 0);

    CHECK(channel_send(&channel.sender, five, 0)); // succeeds without writing anything
    CHECK(nothing_arrives(p.viewer));

    memset(got, 0, sizeof got);
    REQUIRE(net_send_all(p.viewer, five, sizeof five));
    REQUIRE(channel_recv(&channel.receiver, got, 2));
    REQUIRE(channel_recv(&channel.receiver, got + 2, 3));
    CHECK(memcmp(got, five, sizeof five) == 0);
    CHECK(channel.sender.send_counter == 0);
    CHECK(channel.receiver.recv_counter == 0);
    CHECK(channel.sender.send_buf == nullptr);
    CHECK(channel.receiver.recv_buf == nullptr);
    channel_reset(&channel);
    socket_pair_close(&p);
}

TEST_CASE("records sent are what another implementation makes of them")
{
    linked l = open_linked();
    for (const record_vector &v : RECORDS) {
        CAPTURE(v.counter);
        CAPTURE(v.len);
        l.host.sender.send_counter = v.counter;
        std::vector<uint8_t> record = seal(&l.host.sender, l.socks.viewer, pattern(v.len));
        CHECK(memcmp(record.data(), v.record, record.size()) == 0);
        CHECK(l.host.sender.send_counter == v.counter + 1);
    }
    close_linked(&l);
}

TEST_CASE("records of another implementation open")
{
    linked l = open_linked();
    for (const record_vector &v : RECORDS) {
        CAPTURE(v.counter);
        CAPTURE(v.len);
        if (v.len == 0)
            continue; // empty ones have a test of their own
        l.viewer.receiver.recv_counter = v.counter;
        REQUIRE(net_send_all(l.socks.host, v.record, v.len + OVERHEAD));
        std::vector<uint8_t> got(v.len);
        REQUIRE(channel_recv(&l.viewer.receiver, got.data(), got.size()));
        CHECK(got == pattern(v.len));
        CHECK(l.viewer.receiver.recv_counter == v.counter + 1);
    }
    close_linked(&l);
}

TEST_CASE("the second record uses counter 1 in both directions")
{
    linked l = open_linked();
    // RECORDS[2] and RECORDS[3] have the counters 0 and 1.
    CHECK(memcmp(seal(&l.host.sender, l.socks.viewer, pattern(63)).data(), RECORDS[2].record,
                 63 + OVERHEAD) == 0);
    CHECK(memcmp(seal(&l.host.sender, l.socks.viewer, pattern(64)).data(), RECORDS[3].record,
                 64 + OVERHEAD) == 0);
    REQUIRE(net_send_all(l.socks.host, RECORDS[2].record, 63 + OVERHEAD));
    REQUIRE(net_send_all(l.socks.host, RECORDS[3].record, 64 + OVERHEAD));
    uint8_t got[127];
    CHECK(channel_recv(&l.viewer.receiver, got, sizeof got));
    close_linked(&l);
}

TEST_CASE("one receive takes the tail of a record and the head of the next")
{
    linked l = open_linked();
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"abcdefgh", 8));
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"ijklmnop", 8));
    uint8_t got[8];
    REQUIRE(channel_recv(&l.viewer.receiver, got, 5));
    CHECK(memcmp(got, "abcde", 5) == 0);
    REQUIRE(channel_recv(&l.viewer.receiver, got, 8));
    CHECK(memcmp(got, "fghijklm", 8) == 0);
    REQUIRE(channel_recv(&l.viewer.receiver, got, 3));
    CHECK(memcmp(got, "nop", 3) == 0);
    close_linked(&l);
}

TEST_CASE("empty records are sent, accepted and passed over")
{
    linked l = open_linked();
    // RECORDS[0] is the empty record with counter 0.
    CHECK(memcmp(seal(&l.host.sender, l.socks.viewer, {}).data(), RECORDS[0].record,
                 OVERHEAD) == 0);
    REQUIRE(net_send_all(l.socks.host, RECORDS[0].record, OVERHEAD));
    REQUIRE(channel_send(&l.host.sender, nullptr, 0));
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"ab", 2));
    REQUIRE(channel_send(&l.host.sender, nullptr, 0));
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"cd", 2));
    uint8_t got[4];
    REQUIRE(channel_recv(&l.viewer.receiver, got, 4));
    CHECK(memcmp(got, "abcd", 4) == 0);
    CHECK(l.viewer.receiver.recv_counter == 5);
    close_linked(&l);
}

TEST_CASE("a receive of no bytes reads nothing")
{
    linked l = open_linked();
    uint8_t byte = 0;
    CHECK(channel_recv(&l.viewer.receiver, &byte, 0));
    CHECK(l.viewer.receiver.recv_counter == 0);
    close_linked(&l);
}

TEST_CASE("streams of all record sizes pass in both directions at once")
{
    static constexpr int RECORD_COUNT = 150;
    linked l = open_linked();
    test_random random = test_random_seeded("secure_channel_test");
    struct direction {
        channel_sender *sender;
        channel_receiver *receiver;
        std::vector<uint8_t> data;
        std::vector<uint64_t> cuts; // record lengths
        std::vector<uint8_t> got;
        std::atomic<bool> sent, received;
        uint64_t seed;
    } directions[2] = {
        {&l.host.sender, &l.viewer.receiver, {}, {}, {}, false, false, random.next() | 1},
        {&l.viewer.sender, &l.host.receiver, {}, {}, {}, false, false, random.next() | 1},
    };
    for (direction &d : directions) {
        uint64_t total = 0;
        for (int i = 0; i < RECORD_COUNT; i++) {
            // Small, empty and large ones mixed.
            d.cuts.push_back(random.below(3) ? random.below(200) : random.below(100000));
            total += d.cuts.back();
        }
        d.data.resize(total);
        d.got.resize(total);
        for (uint8_t &byte : d.data)
            byte = (uint8_t)random.next();
    }
    thread *threads[4];
    for (int i = 0; i < 2; i++) {
        threads[2 * i] = thread_start(
            [](void *parameter) {
                direction *d = (direction *)parameter;
                const uint8_t *p = d->data.data();
                bool ok = true;
                for (uint64_t len : d->cuts) {
                    ok = ok && channel_send(d->sender, p, len);
                    p += len;
                }
                d->sent = ok;
            },
            &directions[i]);
        threads[2 * i + 1] = thread_start(
            [](void *parameter) {
                direction *d = (direction *)parameter;
                test_random parts = {d->seed};
                uint64_t at = 0;
                bool ok = true;
                while (ok && at < d->got.size()) {
                    uint64_t n = 1 + parts.below(50000);
                    if (n > d->got.size() - at)
                        n = d->got.size() - at;
                    ok = channel_recv(d->receiver, d->got.data() + at, n);
                    at += n;
                }
                d->received = ok;
            },
            &directions[i]);
        REQUIRE(threads[2 * i]);
        REQUIRE(threads[2 * i + 1]);
    }
    for (thread *t : threads)
        REQUIRE(thread_join(t, LONG_MS));
    for (direction &d : directions) {
        CHECK(d.sent);
        CHECK(d.received);
        CHECK(d.got == d.data);
    }
    close_linked(&l);
}

TEST_CASE("a record of exactly 16777216 bytes passes")
{
    linked l = open_linked();
    std::vector<uint8_t> data = pattern(16777216);
    std::vector<uint8_t> got(data.size());
    send_task task = {&l.host.sender, data.data(), data.size(), false};
    thread *t = thread_start(run_send, &task);
    REQUIRE(t);
    CHECK(channel_recv(&l.viewer.receiver, got.data(), got.size()));
    REQUIRE(thread_join(t, LONG_MS));
    CHECK(task.ok);
    CHECK(got == data);
    CHECK(l.viewer.receiver.recv_counter == 1); // one record, not two
    close_linked(&l);
}

TEST_CASE("a longer record is not sent, and the channel stays usable")
{
    linked l = open_linked();
    std::vector<uint8_t> data(16777217);
    CHECK_FALSE(channel_send(&l.host.sender, data.data(), data.size()));
    CHECK_FALSE(channel_send(&l.host.sender, data.data(), ~(uint64_t)0));
    CHECK(l.host.sender.open);
    CHECK(l.host.sender.send_counter == 0);
    CHECK(l.host.sender.send_cap == 0);
    CHECK(nothing_arrives(l.socks.viewer));
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"ok", 2));
    uint8_t got[2];
    CHECK(channel_recv(&l.viewer.receiver, got, 2));
    CHECK(memcmp(got, "ok", 2) == 0);
    close_linked(&l);
}

TEST_CASE("a header that announces too much fails without reading the body")
{
    for (uint32_t len : {16777217u, 0x80000000u, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
        CAPTURE(len);
        linked l = open_linked();
        uint8_t header[4];
        store_le32(header, len);
        REQUIRE(net_send_all(l.socks.host, header, sizeof header));
        uint8_t byte = 0;
        CHECK(fails_at_once(&l.viewer.receiver, &byte, 1)); // no body ever comes
        CHECK(l.viewer.receiver.recv_cap == 0);
        close_linked(&l);
    }
}

TEST_CASE("a record with one flipped bit anywhere fails and shows nothing")
{
    linked source = open_linked();
    std::vector<uint8_t> record =
        seal(&source.host.sender, source.socks.viewer, {'h', 'e', 'l', 'l', 'o'});
    close_linked(&source);
    REQUIRE(record.size() == 25);
    for (size_t bit = 0; bit < record.size() * 8; bit++) {
        CAPTURE(bit);
        linked l = open_linked();
        record[bit / 8] ^= (uint8_t)(1 << bit % 8);
        REQUIRE(net_send_all(l.socks.host, record.data(), record.size()));
        record[bit / 8] ^= (uint8_t)(1 << bit % 8);
        // A longer length makes the receiver wait for more; the end of the stream ends that.
        net_close(l.socks.host);
        l.socks.host = NET_INVALID;
        uint8_t got[5] = {};
        CHECK_FALSE(channel_recv(&l.viewer.receiver, got, 1));
        CHECK(all_zero(got, sizeof got));
        CHECK(l.viewer.receiver.recv_len == 0);
        CHECK_FALSE(l.viewer.receiver.open);
        close_linked(&l);
    }
    // Unchanged it opens.
    linked l = open_linked();
    REQUIRE(net_send_all(l.socks.host, record.data(), record.size()));
    uint8_t got[5] = {};
    CHECK(channel_recv(&l.viewer.receiver, got, 5));
    CHECK(memcmp(got, "hello", 5) == 0);
    close_linked(&l);
}

TEST_CASE("repeated, dropped and reordered records fail")
{
    linked source = open_linked();
    std::vector<uint8_t> records[3];
    for (int i = 0; i < 3; i++)
        records[i] = seal(&source.host.sender, source.socks.viewer, {(uint8_t)('a' + i)});
    close_linked(&source);
    const struct {
        const char *what;
        int order[3];
        int good; // how many open before the failure
    } rows[] = {
        {"in order", {0, 1, 2}, 3},           {"the first repeated", {0, 0, 1}, 1},
        {"the second dropped", {0, 2, 1}, 1}, {"the first dropped", {1, 2, 0}, 0},
        {"reordered", {1, 0, 2}, 0},          {"the second repeated", {0, 1, 1}, 2},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        linked l = open_linked();
        for (int i : row.order)
            REQUIRE(net_send_all(l.socks.host, records[i].data(), records[i].size()));
        uint8_t byte = 0;
        for (int i = 0; i < row.good; i++) {
            REQUIRE(channel_recv(&l.viewer.receiver, &byte, 1));
            CHECK(byte == 'a' + i);
        }
        if (row.good < 3)
            CHECK(fails_at_once(&l.viewer.receiver, &byte, 1));
        close_linked(&l);
    }
}

TEST_CASE("a record under another key fails")
{
    linked l = open_linked();
    l.host.sender.send_key[31] ^= 1;
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"x", 1));
    uint8_t byte = 0;
    CHECK(fails_at_once(&l.viewer.receiver, &byte, 1));
    close_linked(&l);
}

TEST_CASE("a stream that ends anywhere inside a record fails")
{
    linked source = open_linked();
    std::vector<uint8_t> record =
        seal(&source.host.sender, source.socks.viewer, {'h', 'e', 'l', 'l', 'o'});
    close_linked(&source);
    for (size_t n = 0; n < record.size(); n++) {
        CAPTURE(n);
        linked l = open_linked();
        REQUIRE(net_send_all(l.socks.host, record.data(), n));
        net_close(l.socks.host);
        l.socks.host = NET_INVALID;
        uint8_t byte = 0;
        CHECK_FALSE(channel_recv(&l.viewer.receiver, &byte, 1));
        CHECK(byte == 0);
        close_linked(&l);
    }
}

TEST_CASE("after a failed receive the channel is dead in both directions")
{
    linked l = open_linked();
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"ab", 2));
    uint8_t byte = 0;
    REQUIRE(channel_recv(&l.viewer.receiver, &byte, 1)); // 'b' is left
    uint8_t bad[OVERHEAD] = {};
    REQUIRE(net_send_all(l.socks.host, bad, sizeof bad));
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"cd", 2));
    uint8_t two[2] = {};
    CHECK(fails_at_once(&l.viewer.receiver, two, 2));
    CHECK(fails_at_once(&l.viewer.receiver, two, 1));
    CHECK(fails_at_once(&l.viewer.receiver, two, 0));
    CHECK_FALSE(channel_send(&l.viewer.sender, two, 1)); // its socket was aborted
    CHECK_FALSE(channel_send(&l.viewer.sender, two, 0));
    close_linked(&l);
}

TEST_CASE("after a failed send the channel is dead and nothing more is written")
{
    linked l = open_linked();
    std::vector<uint8_t> data = pattern(RECORD_MAX);
    net_set_send_timeout(l.socks.host, 200);
    send_task task = {&l.host.sender, data.data(), data.size(), true};
    thread *t = thread_start(run_send, &task); // the viewer does not read
    REQUIRE(t);
    REQUIRE(thread_join(t, LONG_MS));
    CHECK_FALSE(task.ok);
    CHECK_FALSE(l.host.sender.open);
    CHECK_FALSE(channel_send(&l.host.sender, data.data(), 1));
    CHECK_FALSE(channel_send(&l.host.sender, nullptr, 0));
    // What did get out is the beginning of that record and then the end of the stream.
    uint8_t header[4];
    REQUIRE(net_recv_all(l.socks.viewer, header, sizeof header, NO_DEADLINE));
    CHECK(load_le32(header) == RECORD_MAX);
    static uint8_t block[65536];
    uint64_t rest = 0; // in whole blocks
    while (rest < RECORD_MAX && net_recv_all(l.socks.viewer, block, sizeof block, NO_DEADLINE))
        rest += sizeof block;
    CHECK(rest < RECORD_MAX);
    close_linked(&l);
}

TEST_CASE("a send to a peer that is gone fails for good")
{
    linked l = open_linked();
    net_close(l.socks.viewer);
    l.socks.viewer = NET_INVALID;
    bool sent = true;
    for (int i = 0; i < 1000 && sent; i++) { // the first may still be buffered
        sent = channel_send(&l.host.sender, (const uint8_t *)"x", 1);
        clock_sleep_ms(1);
    }
    CHECK_FALSE(sent);
    uint64_t counter = l.host.sender.send_counter;
    CHECK_FALSE(channel_send(&l.host.sender, (const uint8_t *)"x", 1));
    CHECK(l.host.sender.send_counter == counter);
    close_linked(&l);
}

TEST_CASE("a deadline bounds the receives of records and of plain bytes")
{
    for (uint32_t sealed : {0u, 1u}) {
        CAPTURE(sealed);
        linked l = open_linked();
        l.viewer.receiver.encrypted = sealed;
        l.viewer.receiver.deadline = {true, clock_ms() + 200};
        uint8_t byte = 0;
        CHECK(fails_at_once(&l.viewer.receiver, &byte, 1));
        CHECK_FALSE(l.viewer.receiver.open);
        close_linked(&l);
    }
}

TEST_CASE("buffers grow to the need and 4096 bytes more, and then serve every record")
{
    linked l = open_linked();
    const struct {
        size_t len;
        uint64_t cap; // afterwards, on both sides
    } rows[] = {
        {0, 4112},      // 0 + 16 + 4096
        {4096, 4112},   // 4096 + 16 just fit
        {4097, 8209},   // 4097 + 16 do not: 4097 + 4112
        {1, 8209},      // never shrinks
        {8193, 8209},   // 8193 + 16 just fit
        {8194, 12306},  // 8194 + 4112
        {50000, 54112}, //
        {20000, 54112}, //
        {54096, 54112}, //
    };
    for (const auto &row : rows) {
        CAPTURE(row.len);
        uint8_t *sealed_in = l.host.sender.send_buf;
        uint8_t *opened_in = l.viewer.receiver.recv_buf;
        bool grows = row.cap != l.host.sender.send_cap;
        std::vector<uint8_t> data = pattern(row.len);
        std::vector<uint8_t> got(row.len + 1);
        REQUIRE(channel_send(&l.host.sender, data.data(), data.size()));
        if (row.len == 0) // the next byte makes the receiver take the empty record
            REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"x", 1));
        REQUIRE(channel_recv(&l.viewer.receiver, got.data(), row.len ? row.len : 1));
        if (row.len) {
            got.pop_back();
            CHECK(got == data);
        }
        CHECK(l.host.sender.send_cap == row.cap);
        CHECK(l.viewer.receiver.recv_cap == row.cap);
        if (!grows) {
            CHECK(l.host.sender.send_buf == sealed_in);
            CHECK(l.viewer.receiver.recv_buf == opened_in);
        }
    }
    close_linked(&l);
}

#ifndef _WIN32

// Over a socket that keeps the bounds of each send, where a receive takes one send.
TEST_CASE("a record leaves in one piece, header included, and a long one in pieces of 64 KiB")
{
    int ends[2];
    REQUIRE(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0);
    secure_channel channel = {};
    start_sealed(&channel, (net_socket)ends[0]);
    const struct {
        size_t len;
        std::vector<size_t> sends;
    } rows[] = {
        {0, {20}},           {1, {21}},
        {5000, {5020}},      {65516, {65536}},                      // 65516 + 20
        {65517, {65536, 1}}, {200000, {65536, 65536, 65536, 3412}}, // 200020 - 3 * 65536
    };
    for (const auto &row : rows) {
        CAPTURE(row.len);
        std::vector<uint8_t> data = pattern(row.len);
        send_task task = {&channel.sender, data.data(), data.size(), false};
        thread *t = thread_start(run_send, &task);
        REQUIRE(t);
        for (size_t expected : row.sends) {
            static uint8_t piece[1 << 18];
            CHECK(recv(ends[1], piece, sizeof piece, 0) == (ssize_t)expected);
        }
        REQUIRE(thread_join(t, LONG_MS));
        CHECK(task.ok);
    }
    channel_reset(&channel);
    close(ends[0]);
    close(ends[1]);
}

#endif

TEST_CASE("a reset leaves nothing, and the next connection starts at counter 0")
{
    linked l = open_linked();
    uint8_t got[3];
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"abc", 3));
    REQUIRE(channel_recv(&l.viewer.receiver, got, 2));
    REQUIRE(l.host.sender.send_counter == 1);
    REQUIRE(l.viewer.receiver.recv_counter == 1);
    channel_reset(&l.host);
    channel_reset(&l.viewer);
    CHECK(all_zero(&l.host, sizeof l.host)); // keys, counters, pointers, socket
    CHECK(all_zero(&l.viewer, sizeof l.viewer));
    CHECK_FALSE(channel_send(&l.host.sender, got, 1));
    CHECK_FALSE(channel_recv(&l.viewer.receiver, got, 1));
    channel_reset(&l.host); // harmless again
    socket_pair_close(&l.socks);

    l = open_linked();
    CHECK(memcmp(seal(&l.host.sender, l.socks.viewer, pattern(63)).data(), RECORDS[2].record,
                 63 + OVERHEAD) == 0);
    close_linked(&l);
}

TEST_CASE("opening a channel that was never reset frees and forgets what it held")
{
    linked l = open_linked();
    uint8_t got[3];
    REQUIRE(channel_send(&l.viewer.sender, (const uint8_t *)"abc", 3));
    REQUIRE(channel_recv(&l.host.receiver, got, 2));
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"abc", 3));
    channel_open(&l.host, l.socks.host);
    CHECK(l.host.sender.encrypted == 0);
    CHECK(l.host.receiver.encrypted == 0);
    CHECK(all_zero(l.host.sender.send_key, CHANNEL_KEY_BYTES));
    CHECK(all_zero(l.host.receiver.recv_key, CHANNEL_KEY_BYTES));
    CHECK(l.host.sender.send_counter == 0);
    CHECK(l.host.receiver.recv_counter == 0);
    CHECK(l.host.sender.send_buf == nullptr);
    CHECK(l.host.receiver.recv_buf == nullptr);
    CHECK(l.host.receiver.recv_len == 0);
    CHECK(l.host.receiver.recv_pos == 0);
    CHECK(l.host.sender.open);
    CHECK(l.host.receiver.open);
    close_linked(&l);
}

TEST_CASE("a receiving half that was taken goes on where it was, without its channel")
{
    linked l = open_linked();
    channel_receiver taken = {};
    uint8_t got[4] = {};
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"abc", 3));
    REQUIRE(channel_recv(&l.viewer.receiver, got, 2)); // 'c' is left in the buffer
    channel_take_receiver(&l.viewer, &taken);
    CHECK(all_zero(&l.viewer.receiver, sizeof l.viewer.receiver));
    CHECK_FALSE(channel_recv(&l.viewer.receiver, got, 1));
    channel_reset(&l.viewer);
    REQUIRE(channel_send(&l.host.sender, (const uint8_t *)"def", 3));
    REQUIRE(channel_recv(&taken, got, 4));
    CHECK(memcmp(got, "cdef", 4) == 0);
    channel_reset_receiver(&taken);
    CHECK(all_zero(&taken, sizeof taken));
    channel_reset_receiver(&taken);
    close_linked(&l);
}

TEST_CASE("aborting the socket ends a receive that waits inside a record")
{
    linked l = open_linked();
    uint8_t part[6] = {100, 0, 0, 0, 1, 2}; // a header and 2 of 116 bytes
    REQUIRE(net_send_all(l.socks.host, part, sizeof part));
    uint8_t byte = 0;
    recv_task task = {&l.viewer.receiver, &byte, 1, true};
    thread *t = thread_start(run_recv, &task);
    REQUIRE(t);
    clock_sleep_ms(50);
    net_abort(l.socks.viewer);
    REQUIRE(thread_join(t, 10000));
    CHECK_FALSE(task.ok);
    close_linked(&l);
}
