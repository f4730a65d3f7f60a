// Labels: threaded
//
// The same promises are checked of both implementations: POSIX sockets natively, Winsock
// under Wine. A call that should end and does not shows as a join that times out.
#include "protocol/net.h"

#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/socket_pair.h"
#include "tests/test.h"

#include <atomic>
#include <string.h>
#include <string>
#include <vector>
#ifdef _WIN32
#include "protocol/win32.h"
using native_socket = SOCKET;
using length_type = int;
#else
#include <sys/socket.h>
using native_socket = int;
using length_type = socklen_t;
#endif

static constexpr uint32_t SETTLE_MS = 100;    // for a thread to be inside its blocking call
static constexpr uint32_t AT_ONCE_MS = 30000; // a call that does not end never does
static constexpr net_deadline NO_DEADLINE = {};

namespace
{
enum blocking_call {
    CALL_RECV,
    CALL_SEND,
    CALL_ACCEPT,
    CALL_WAIT_READABLE,
};

struct blocked {
    net_socket sock;
    blocking_call call;
    std::atomic<bool> entered;
    std::atomic<bool> succeeded;
};
} // namespace

static const uint8_t too_much[64 << 20] = {}; // more than any socket buffers

// Closes so that the peer gets a reset in place of an end.
static void close_with_reset(net_socket sock)
{
    linger at_once = {};
    at_once.l_onoff = 1;
    setsockopt((native_socket)sock, SOL_SOCKET, SO_LINGER, (const char *)&at_once,
               sizeof at_once);
    net_close(sock);
}

static void block(void *parameter)
{
    blocked *b = (blocked *)parameter;
    b->entered = true;
    uint8_t byte;
    switch (b->call) {
    case CALL_RECV:
        b->succeeded = net_recv_all(b->sock, &byte, 1, NO_DEADLINE);
        break;
    case CALL_SEND:
        b->succeeded = net_send_all(b->sock, too_much, sizeof too_much);
        break;
    case CALL_ACCEPT:
        b->succeeded = net_accept(b->sock) != NET_INVALID;
        break;
    case CALL_WAIT_READABLE:
        b->succeeded = net_wait_readable(b->sock);
        break;
    }
}

static void check_abort_ends(net_socket sock, blocking_call call)
{
    blocked b = {sock, call, false, true};
    thread *t = thread_start(block, &b);
    REQUIRE(t);
    while (!b.entered)
        clock_sleep_ms(1);
    clock_sleep_ms(SETTLE_MS);
    CHECK(b.succeeded); // still inside
    net_abort(sock);
    REQUIRE(thread_join(t, AT_ONCE_MS));
    CHECK_FALSE(b.succeeded);
}

TEST_CASE("abort ends a blocked receive, and later calls fail")
{
    socket_pair p = socket_pair_open();
    check_abort_ends(p.host, CALL_RECV);
    uint8_t byte = 0;
    CHECK_FALSE(net_recv_all(p.host, &byte, 1, NO_DEADLINE));
    CHECK_FALSE(net_send_all(p.host, &byte, 1));
    CHECK_FALSE(net_send_once(p.host, &byte, 1));
    CHECK_FALSE(net_wait_readable(p.host));
    socket_pair_close(&p);
}

TEST_CASE("abort ends a blocked send")
{
    socket_pair p = socket_pair_open();
    check_abort_ends(p.host, CALL_SEND);
    socket_pair_close(&p);
}

TEST_CASE("abort ends a blocked accept, and the next accept fails")
{
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    check_abort_ends(listener, CALL_ACCEPT);
    CHECK(net_accept(listener) == NET_INVALID);
    net_close(listener);
}

TEST_CASE("a connection that is reset while it waits does not fail the accept")
{
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 4);
    for (int i = 0; i < 2; i++) {
        net_socket sock = NET_INVALID;
        REQUIRE(net_connect("127.0.0.1", std::to_string(port).c_str(), false, &sock) ==
                NET_CONNECTED);
        close_with_reset(sock);
    }
    net_socket sound = NET_INVALID;
    REQUIRE(net_connect("127.0.0.1", std::to_string(port).c_str(), false, &sound) ==
            NET_CONNECTED);
    const uint8_t sent = 7;
    REQUIRE(net_send_all(sound, &sent, 1));
    // The dead ones may come or not; the sound one is among the first three.
    uint8_t got = 0;
    for (int i = 0; i < 3 && got != 7; i++) {
        net_socket sock = net_accept(listener);
        REQUIRE(sock != NET_INVALID);
        (void)net_recv_all(sock, &got, 1, NO_DEADLINE);
        net_close(sock);
    }
    CHECK(got == 7);
    net_close(sound);
    net_close(listener);
}

TEST_CASE("abort ends a wait for the first byte")
{
    socket_pair p = socket_pair_open();
    check_abort_ends(p.viewer, CALL_WAIT_READABLE);
    socket_pair_close(&p);
}

TEST_CASE("abort before the call makes it fail at once")
{
    const blocking_call calls[] = {CALL_RECV, CALL_SEND, CALL_WAIT_READABLE};
    for (blocking_call call : calls) {
        CAPTURE((int)call);
        socket_pair p = socket_pair_open();
        net_abort(p.host);
        blocked b = {p.host, call, false, true};
        thread *t = thread_start(block, &b);
        REQUIRE(t);
        REQUIRE(thread_join(t, AT_ONCE_MS));
        CHECK_FALSE(b.succeeded);
        socket_pair_close(&p);
    }
}

TEST_CASE("abort tells the peer that the connection is over")
{
    socket_pair p = socket_pair_open();
    net_abort(p.host);
    uint8_t byte = 0;
    CHECK_FALSE(net_recv_all(p.viewer, &byte, 1, NO_DEADLINE));
    socket_pair_close(&p);
}

// Whether the handle is a socket's, whatever state that is in.
static bool is_socket(net_socket sock)
{
    int type = 0;
    length_type size = sizeof type;
    return getsockopt((native_socket)sock, SOL_SOCKET, SO_TYPE, (char *)&type, &size) == 0;
}

TEST_CASE("an aborted socket keeps its handle until its owner closes it")
{
    socket_pair p = socket_pair_open();
    net_abort(p.host);
    CHECK(is_socket(p.host));
    net_close(p.host);
    CHECK_FALSE(is_socket(p.host));
    p.host = NET_INVALID;
    socket_pair_close(&p);
}

TEST_CASE("abort and close take an invalid socket, and abort comes twice")
{
    net_abort(NET_INVALID);
    net_close(NET_INVALID);
    socket_pair p = socket_pair_open();
    net_abort(p.host);
    net_abort(p.host);
    uint8_t byte = 0;
    CHECK_FALSE(net_send_all(p.host, &byte, 1));
    socket_pair_close(&p);
}

TEST_CASE("a deadline bounds the whole receive")
{
    socket_pair p = socket_pair_open();
    const uint8_t three[3] = {1, 2, 3};
    REQUIRE(net_send_all(p.viewer, three, sizeof three));
    uint8_t data[4] = {};
    uint32_t start = clock_ms();
    net_deadline deadline = {true, start + 300};
    CHECK_FALSE(net_recv_all(p.host, data, sizeof data, deadline));
    CHECK(clock_ms() - start >= 250); // less the steps of the clock
    CHECK(memcmp(data, three, sizeof three) == 0);
    socket_pair_close(&p);
}

TEST_CASE("bytes that trickle in do not put the deadline off")
{
    socket_pair p = socket_pair_open();
    struct trickle {
        net_socket sock;
        std::atomic<bool> stop;
    } shared = {p.viewer, false};
    thread *t = thread_start(
        [](void *parameter) {
            trickle *s = (trickle *)parameter;
            uint8_t byte = 7;
            while (!s->stop && net_send_all(s->sock, &byte, 1))
                clock_sleep_ms(50);
        },
        &shared);
    REQUIRE(t);
    static uint8_t data[1 << 16];
    net_deadline deadline = {true, clock_ms() + 500};
    CHECK_FALSE(net_recv_all(p.host, data, sizeof data, deadline));
    shared.stop = true;
    CHECK(thread_join(t, AT_ONCE_MS));
    socket_pair_close(&p);
}

TEST_CASE("a deadline that has passed fails without reading, even across the clock's wrap")
{
    socket_pair p = socket_pair_open();
    uint8_t byte = 42;
    REQUIRE(net_send_all(p.viewer, &byte, 1));
    REQUIRE(net_wait_readable(p.host));
    uint8_t got = 0;
    net_deadline past = {true, clock_ms() - 1};
    CHECK_FALSE(net_recv_all(p.host, &got, 1, past));
    CHECK(got == 0);
    net_deadline long_past = {true, clock_ms() - 0x7FFFFFFF};
    CHECK_FALSE(net_recv_all(p.host, &got, 1, long_past));
    CHECK(net_recv_all(p.host, &got, 1, NO_DEADLINE));
    CHECK(got == 42);
    socket_pair_close(&p);
}

TEST_CASE("a bounded receive leaves no time-out behind")
{
    socket_pair p = socket_pair_open();
    uint8_t byte = 9;
    REQUIRE(net_send_all(p.viewer, &byte, 1));
    net_deadline deadline = {true, clock_ms() + 400};
    REQUIRE(net_recv_all(p.host, &byte, 1, deadline));
    blocked b = {p.host, CALL_RECV, false, false};
    thread *t = thread_start(block, &b);
    REQUIRE(t);
    clock_sleep_ms(700); // past what was left of the deadline
    REQUIRE(net_send_all(p.viewer, &byte, 1));
    REQUIRE(thread_join(t, AT_ONCE_MS));
    CHECK(b.succeeded);
    socket_pair_close(&p);
}

TEST_CASE("a closed peer ends a receive that is not complete")
{
    socket_pair p = socket_pair_open();
    const uint8_t three[3] = {1, 2, 3};
    REQUIRE(net_send_all(p.viewer, three, sizeof three));
    net_close(p.viewer);
    p.viewer = NET_INVALID;
    uint8_t data[4] = {};
    CHECK_FALSE(net_recv_all(p.host, data, sizeof data, NO_DEADLINE));
    CHECK_FALSE(net_wait_readable(p.host));
    socket_pair_close(&p);
}

TEST_CASE("sending to a peer that is gone fails and raises no signal")
{
    socket_pair p = socket_pair_open();
    net_close(p.viewer);
    p.viewer = NET_INVALID;
    static const uint8_t data[4096] = {};
    bool sent = true;
    for (int i = 0; i < 100 && sent; i++) { // the first may still be buffered
        sent = net_send_all(p.host, data, sizeof data);
        clock_sleep_ms(1);
    }
    CHECK_FALSE(sent);
    socket_pair_close(&p);
}

TEST_CASE("waiting for the first byte leaves it there")
{
    socket_pair p = socket_pair_open();
    const uint8_t two[2] = {5, 6};
    REQUIRE(net_send_once(p.viewer, two, sizeof two));
    CHECK(net_wait_readable(p.host));
    CHECK(net_wait_readable(p.host));
    uint8_t data[2] = {};
    CHECK(net_recv_all(p.host, data, sizeof data, NO_DEADLINE));
    CHECK(memcmp(data, two, sizeof two) == 0);
    socket_pair_close(&p);
}

TEST_CASE("eight MiB arrive whole and in order, in both directions at once")
{
    static constexpr size_t TOTAL = 8 << 20;
    socket_pair p = socket_pair_open();
    net_set_nodelay(p.host);
    net_set_send_buffer(p.host, 1 << 20);
    net_set_recv_buffer(p.viewer, 1 << 20);
    net_set_keepalive(p.host, 60, 10);
    struct side {
        net_socket sock;
        std::vector<uint8_t> data;
        std::atomic<bool> ok;
    };
    side sides[2] = {{p.host, std::vector<uint8_t>(TOTAL), false},
                     {p.viewer, std::vector<uint8_t>(TOTAL), false}};
    test_random random = test_random_seeded("net_test");
    for (side &s : sides)
        for (uint8_t &byte : s.data)
            byte = (uint8_t)random.next();
    thread *threads[2];
    for (int i = 0; i < 2; i++) {
        threads[i] = thread_start(
            [](void *parameter) {
                side *s = (side *)parameter;
                s->ok = net_send_all(s->sock, s->data.data(), s->data.size());
            },
            &sides[i]);
        REQUIRE(threads[i]);
    }
    struct receiver {
        net_socket sock;
        std::vector<uint8_t> data;
        std::atomic<bool> ok;
    } from_host = {p.viewer, std::vector<uint8_t>(TOTAL), false};
    thread *receiving = thread_start(
        [](void *parameter) {
            receiver *r = (receiver *)parameter;
            r->ok = net_recv_all(r->sock, r->data.data(), r->data.size(), NO_DEADLINE);
        },
        &from_host);
    REQUIRE(receiving);
    std::vector<uint8_t> from_viewer(TOTAL);
    CHECK(net_recv_all(p.host, from_viewer.data(), TOTAL, NO_DEADLINE));
    for (thread *t : threads)
        REQUIRE(thread_join(t, 60000));
    REQUIRE(thread_join(receiving, 60000));
    CHECK(sides[0].ok);
    CHECK(sides[1].ok);
    CHECK(from_host.ok);
    CHECK(from_host.data == sides[0].data);
    CHECK(from_viewer == sides[1].data);
    socket_pair_close(&p);
}

TEST_CASE("a send to a peer that does not read times out")
{
    socket_pair p = socket_pair_open();
    net_set_send_timeout(p.host, 300);
    blocked b = {p.host, CALL_SEND, false, true};
    thread *t = thread_start(block, &b);
    REQUIRE(t);
    REQUIRE(thread_join(t, 10000));
    CHECK_FALSE(b.succeeded);
    socket_pair_close(&p);
}

TEST_CASE("the send time-out measures progress, not the size of what is sent")
{
    static constexpr uint32_t TIMEOUT_MS = 1500;
    static constexpr size_t TOTAL = 4 << 20;
    static constexpr size_t STEP = 64 << 10;
    socket_pair p = socket_pair_open();
    net_set_send_buffer(p.host, 64 << 10);
    net_set_recv_buffer(p.viewer, 64 << 10);
    net_set_send_timeout(p.host, TIMEOUT_MS);
    struct reader {
        net_socket sock;
        std::atomic<bool> ok;
    } shared = {p.viewer, false};
    // Reads slowly, but never stands still for as long as the time-out.
    thread *t = thread_start(
        [](void *parameter) {
            reader *r = (reader *)parameter;
            static uint8_t data[STEP];
            bool ok = true;
            for (size_t got = 0; got < TOTAL && ok; got += STEP) {
                clock_sleep_ms(50);
                ok = net_recv_all(r->sock, data, STEP, NO_DEADLINE);
            }
            r->ok = ok;
        },
        &shared);
    REQUIRE(t);
    std::vector<uint8_t> data(TOTAL);
    uint32_t start = clock_ms();
    CHECK(net_send_all(p.host, data.data(), data.size()));
    // It is worth something only when it took longer than the time-out.
    REQUIRE(thread_join(t, 60000));
    CHECK(clock_ms() - start > TIMEOUT_MS);
    CHECK(shared.ok);
    socket_pair_close(&p);
}

TEST_CASE("a port where nobody listens refuses, with an error code")
{
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    net_close(listener);
    for (bool every : {false, true}) {
        net_socket sock = 0;
        CHECK(net_connect("127.0.0.1", std::to_string(port).c_str(), every, &sock) ==
              NET_REFUSED);
        CHECK(net_last_error() != 0);
        CHECK(sock == NET_INVALID);
    }
}

TEST_CASE("what has no IPv4 address or no port does not resolve")
{
    net_start();
    const struct {
        const char *host;
        const char *port;
    } rows[] = {{"::1", "7777"}, {"127.0.0.1", "no-such-service"}};
    for (const auto &row : rows) {
        CAPTURE(row.host);
        net_socket sock = 0;
        CHECK(net_connect(row.host, row.port, false, &sock) == NET_UNRESOLVED);
        CHECK(sock == NET_INVALID);
    }
}

TEST_CASE("listening on a port that is taken fails with an error code")
{
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    CHECK(net_listen(port, 1) == NET_INVALID);
    CHECK(net_last_error() != 0);
    net_close(listener);
}
