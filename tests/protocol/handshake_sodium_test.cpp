// Native libraries: sodium
// Labels: threaded
//
// Both our sides against a peer written with libsodium, with fresh random keys each time.
#include "protocol/handshake.h"

#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/socket_pair.h"
#include "tests/sodium_peer.h"
#include "tests/test.h"

#include <atomic>
#include <string.h>
#include <string>
#include <vector>

namespace
{
struct our_side {
    secure_channel channel;
    net_socket sock;
    bool host;
    const char *password;
    std::atomic<bool> ok;
};
} // namespace

static const char *host_password;

static void read_host_password(char password[PASSWORD_MAX + 1])
{
    strcpy(password, host_password);
}

static void run_ours(void *parameter)
{
    our_side *s = (our_side *)parameter;
    s->ok = s->host ? handshake_as_host(&s->channel, s->sock, read_host_password,
                                        {true, clock_ms() + 20000})
                    : handshake_as_viewer(&s->channel, s->sock, s->password);
    if (!s->ok)
        net_abort(s->sock);
}

static std::vector<unsigned char> bytes(const char *text)
{
    return std::vector<unsigned char>(text, text + strlen(text));
}

// A few records each way, every byte of ours compared with the peer's own sealing.
static void check_records(secure_channel *ours, sodium_peer *theirs)
{
    for (const char *text : {"first", "", "the third record of this direction"}) {
        CAPTURE(text);
        std::vector<unsigned char> plain = bytes(text), opened, wire;
        uint64_t counter = theirs->recv_counter;
        REQUIRE(channel_send(&ours->sender, plain.data(), plain.size()));
        CHECK(sodium_recv(theirs, &opened, &wire));
        CHECK(opened == plain);
        CHECK(wire == sodium_record(theirs->recv_key, counter, plain));

        REQUIRE(sodium_send(theirs, plain));
        opened.assign(plain.size(), 0);
        CHECK(channel_recv(&ours->receiver, opened.data(), opened.size()));
        CHECK(opened == plain);
    }
}

TEST_CASE("both sides meet an independent peer under every kind of password")
{
    REQUIRE(sodium_init() >= 0);
    const struct {
        const char *ours;
        std::string theirs;
        bool meet;
    } rows[] = {
        {"", "", true},
        {"a", "a", true},
        {"Kd8fQz2m", "Kd8fQz2m", true},
        {"0123456789abcdef0123456789ABCDEF", "0123456789abcdef0123456789ABCDEF", true},
        {"\xE4\xF6\xFC", "\xE4\xF6\xFC", true},
        {"Kd8fQz2m", "Kd8fQz2n", false},
        {"Kd8fQz2m", "", false},
        {"", "Kd8fQz2m", false},
        {"Kd8fQz2m", std::string("Kd8fQz2m\0", 9), false}, // the NUL is not hashed
    };
    for (const auto &row : rows) {
        for (bool host : {true, false}) {
            CAPTURE(row.ours);
            CAPTURE(host);
            socket_pair p = socket_pair_open();
            host_password = row.ours;
            our_side ours = {{}, host ? p.host : p.viewer, host, row.ours, false};
            thread *t = thread_start(run_ours, &ours);
            REQUIRE(t);
            sodium_peer theirs = {};
            bool ok = host ? sodium_as_viewer(&theirs, p.viewer, row.theirs)
                           : sodium_as_host(&theirs, p.host, row.theirs);
            if (!ok)
                net_abort(host ? p.viewer : p.host);
            REQUIRE(thread_join(t, 30000));
            CHECK(ok == row.meet);
            CHECK(ours.ok == row.meet);
            if (ok && ours.ok)
                check_records(&ours.channel, &theirs);
            channel_reset(&ours.channel);
            socket_pair_close(&p);
        }
    }
}

// Stands for a slow line: the host asks for its password between its key and the viewer's
// confirmation.
static void read_password_slowly(char password[PASSWORD_MAX + 1])
{
    clock_sleep_ms(150);
    strcpy(password, "Kd8fQz2m");
}

TEST_CASE("the host measures from its key to the viewer's confirmation")
{
    REQUIRE(sodium_init() >= 0);
    socket_pair p = socket_pair_open();
    struct late_viewer {
        net_socket sock;
        sodium_peer peer;
        bool ok;
    } late = {p.viewer, {}, false};
    thread *t = thread_start(
        [](void *parameter) {
            late_viewer *v = (late_viewer *)parameter;
            clock_sleep_ms(2000); // before its key: not part of it
            v->ok = sodium_as_viewer(&v->peer, v->sock, "Kd8fQz2m");
        },
        &late);
    REQUIRE(t);
    secure_channel channel = {};
    uint64_t round_trip_us = 0;
    CHECK(handshake_as_host(&channel, p.host, read_password_slowly, {true, clock_ms() + 20000},
                            &round_trip_us));
    REQUIRE(thread_join(t, 30000));
    CHECK(late.ok);
    CHECK(round_trip_us >= 150000);
    CHECK(round_trip_us < 2000000);
    channel_reset(&channel);
    socket_pair_close(&p);
}

TEST_CASE("the viewer's password may be longer than any host's")
{
    REQUIRE(sodium_init() >= 0);
    std::string password(1000, 'x');
    socket_pair p = socket_pair_open();
    our_side ours = {{}, p.viewer, false, password.c_str(), false};
    thread *t = thread_start(run_ours, &ours);
    REQUIRE(t);
    sodium_peer theirs = {};
    CHECK(sodium_as_host(&theirs, p.host, password));
    REQUIRE(thread_join(t, 30000));
    CHECK(ours.ok);
    channel_reset(&ours.channel);
    socket_pair_close(&p);
}

TEST_CASE("every connection has new public keys")
{
    REQUIRE(sodium_init() >= 0);
    unsigned char keys[2][2][32]; // connection, then host's and viewer's
    for (auto &pair : keys) {
        for (bool host : {true, false}) {
            socket_pair p = socket_pair_open();
            host_password = "p";
            our_side ours = {{}, host ? p.host : p.viewer, host, "p", false};
            thread *t = thread_start(run_ours, &ours);
            REQUIRE(t);
            sodium_peer theirs = {};
            CHECK((host ? sodium_as_viewer(&theirs, p.viewer, "p")
                        : sodium_as_host(&theirs, p.host, "p")));
            REQUIRE(thread_join(t, 30000));
            memcpy(pair[host], host ? theirs.host_key : theirs.viewer_key, 32);
            channel_reset(&ours.channel);
            socket_pair_close(&p);
        }
    }
    CHECK(memcmp(keys[0][0], keys[1][0], 32) != 0);
    CHECK(memcmp(keys[0][1], keys[1][1], 32) != 0);
}
