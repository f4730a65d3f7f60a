// Fakes: random_secrets
// Labels: threaded
//
// The peer of most tests is a script: its bytes are computed by libsodium (tests/vectors)
// and wait in the socket before our side starts, so one thread is enough. Our two sides
// against each other come last.
#include "protocol/handshake.h"

#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/fakes/random_secrets.h"
#include "tests/socket_pair.h"
#include "tests/test.h"
#include "tests/vectors/channel.h"

#include <atomic>
#include <string.h>
#include <vector>
#ifndef _WIN32
#include <pthread.h>
#endif

static constexpr net_deadline NO_DEADLINE = {};
static constexpr size_t KEY = 32;
static constexpr size_t CONFIRM = 16;

// The host's password, and how often it was asked for.
static struct {
    const char *text;
    int reads;
} host_password;

static void read_host_password(char password[PASSWORD_MAX + 1])
{
    strcpy(password, host_password.text);
    host_password.reads++;
}

static void set_host_password(const char *text)
{
    host_password = {text, 0};
}

static void script_secret(const uint8_t secret[KEY])
{
    random_secrets_reset();
    random_secrets_give(secret, KEY);
}

// Everything that comes until the stream ends.
static std::vector<uint8_t> read_to_end(net_socket sock)
{
    std::vector<uint8_t> got;
    uint8_t byte;
    while (net_recv_all(sock, &byte, 1, {true, clock_ms() + 10000}))
        got.push_back(byte);
    return got;
}

static bool all_zero(const void *data, size_t n)
{
    for (size_t i = 0; i < n; i++)
        if (((const uint8_t *)data)[i] != 0)
            return false;
    return true;
}

static std::vector<uint8_t> join(const uint8_t *key, const uint8_t *confirm)
{
    std::vector<uint8_t> bytes(key, key + KEY);
    bytes.insert(bytes.end(), confirm, confirm + CONFIRM);
    return bytes;
}

// Runs our host against a viewer that sends these bytes and then closes its sending side,
// which the host notices only if it wants more. *reply is all that the host sent.
static bool host_against(const std::vector<uint8_t> &bytes, secure_channel *channel,
                         std::vector<uint8_t> *reply)
{
    socket_pair p = socket_pair_open();
    REQUIRE(net_send_all(p.viewer, bytes.data(), bytes.size()));
    // Not a close: the host's answer is still to be read.
    net_deadline deadline = {true, clock_ms() + (bytes.size() < 48 ? 1000 : 20000)};
    bool ok = handshake_as_host(channel, p.host, read_host_password, deadline);
    net_abort(p.host);
    *reply = read_to_end(p.viewer);
    socket_pair_close(&p);
    return ok;
}

// Runs our viewer against a host that sends these bytes and nothing more. The host's end is
// shut only when they have all been sent.
static bool viewer_against(const std::vector<uint8_t> &bytes, const char *password,
                           secure_channel *channel, std::vector<uint8_t> *sent)
{
    socket_pair p = socket_pair_open();
    REQUIRE(net_send_all(p.host, bytes.data(), bytes.size()));
    struct side {
        secure_channel *channel;
        net_socket sock;
        const char *password;
        std::atomic<bool> ok;
    } viewer = {channel, p.viewer, password, false};
    thread *t = thread_start(
        [](void *parameter) {
            side *s = (side *)parameter;
            s->ok = handshake_as_viewer(s->channel, s->sock, s->password);
            net_abort(s->sock);
        },
        &viewer);
    REQUIRE(t);
    // The viewer has sent its key and, had it got a whole one, its confirmation.
    sent->resize(bytes.size() < KEY ? KEY : KEY + CONFIRM);
    CHECK(net_recv_all(p.host, sent->data(), sent->size(), {true, clock_ms() + 10000}));
    if (bytes.size() < KEY + CONFIRM)
        net_abort(p.host); // it waits for bytes that never come
    REQUIRE(thread_join(t, 20000));
    socket_pair_close(&p);
    return viewer.ok;
}

TEST_CASE("the host answers every byte as another implementation expects it")
{
    for (const handshake_vector &v : HANDSHAKES) {
        CAPTURE(v.password);
        script_secret(v.host_secret);
        set_host_password(v.password);
        secure_channel channel = {};
        std::vector<uint8_t> reply;
        CHECK(host_against(join(v.viewer_key, v.client_confirm), &channel, &reply));
        CHECK(reply == join(v.host_key, v.server_confirm));
        CHECK(host_password.reads == 1);
        CHECK(channel.sender.encrypted == 1);
        CHECK(channel.receiver.encrypted == 1);
        CHECK(memcmp(channel.sender.send_key, v.s2c, KEY) == 0);
        CHECK(memcmp(channel.receiver.recv_key, v.c2s, KEY) == 0);
        CHECK(channel.sender.send_counter == 0);
        CHECK(channel.receiver.recv_counter == 0);
        CHECK(channel.receiver.deadline.set); // still in force
        channel_reset(&channel);
    }
}

TEST_CASE("the viewer sends every byte as another implementation expects it")
{
    for (const handshake_vector &v : HANDSHAKES) {
        CAPTURE(v.password);
        script_secret(v.viewer_secret);
        secure_channel channel = {};
        std::vector<uint8_t> sent;
        CHECK(viewer_against(join(v.host_key, v.server_confirm), v.password, &channel, &sent));
        CHECK(sent == join(v.viewer_key, v.client_confirm));
        CHECK(channel.sender.encrypted == 1);
        CHECK(channel.receiver.encrypted == 1);
        CHECK(memcmp(channel.sender.send_key, v.c2s, KEY) == 0);
        CHECK(memcmp(channel.receiver.recv_key, v.s2c, KEY) == 0);
        CHECK(channel.sender.send_counter == 0);
        CHECK(channel.receiver.recv_counter == 0);
        CHECK_FALSE(channel.receiver.deadline.set);
        channel_reset(&channel);
    }
}

TEST_CASE("the first records follow the handshake at once, on both sides")
{
    for (const handshake_vector &v : HANDSHAKES) {
        CAPTURE(v.password);
        script_secret(v.host_secret);
        set_host_password(v.password);
        socket_pair p = socket_pair_open();
        std::vector<uint8_t> viewer = join(v.viewer_key, v.client_confirm);
        viewer.insert(viewer.end(), v.viewer_first, v.viewer_first + sizeof v.viewer_first);
        REQUIRE(net_send_all(p.viewer, viewer.data(), viewer.size()));
        secure_channel channel = {};
        REQUIRE(handshake_as_host(&channel, p.host, read_host_password, NO_DEADLINE));
        uint8_t text[12];
        REQUIRE(channel_recv(&channel.receiver, text, sizeof text));
        CHECK(memcmp(text, "from  viewer", sizeof text) == 0);
        REQUIRE(channel_send(&channel.sender, (const uint8_t *)"from  host", 10));
        REQUIRE(channel_send(&channel.sender, nullptr, 0));
        uint8_t wire[48 + sizeof v.host_first + sizeof v.host_second];
        REQUIRE(net_recv_all(p.viewer, wire, sizeof wire, NO_DEADLINE));
        CHECK(memcmp(wire + 48, v.host_first, sizeof v.host_first) == 0);
        CHECK(memcmp(wire + 48 + sizeof v.host_first, v.host_second, sizeof v.host_second) ==
              0);
        channel_reset(&channel);
        socket_pair_close(&p);

        script_secret(v.viewer_secret);
        p = socket_pair_open();
        std::vector<uint8_t> host = join(v.host_key, v.server_confirm);
        host.insert(host.end(), v.host_first, v.host_first + sizeof v.host_first);
        REQUIRE(net_send_all(p.host, host.data(), host.size()));
        REQUIRE(handshake_as_viewer(&channel, p.viewer, v.password));
        REQUIRE(channel_recv(&channel.receiver, text, 10));
        CHECK(memcmp(text, "from  host", 10) == 0);
        REQUIRE(channel_send(&channel.sender, (const uint8_t *)"from  viewer", 12));
        REQUIRE(net_recv_all(p.host, wire, 48 + sizeof v.viewer_first, NO_DEADLINE));
        CHECK(memcmp(wire + 48, v.viewer_first, sizeof v.viewer_first) == 0);
        channel_reset(&channel);
        socket_pair_close(&p);
    }
}

TEST_CASE("a wrong confirmation gets nothing but the end of the connection")
{
    const handshake_vector &v = HANDSHAKES[1];
    for (int bit = 0; bit < 128; bit++) {
        CAPTURE(bit);
        script_secret(v.host_secret);
        set_host_password(v.password);
        std::vector<uint8_t> bytes = join(v.viewer_key, v.client_confirm);
        bytes[KEY + bit / 8] ^= (uint8_t)(1 << bit % 8);
        secure_channel channel = {};
        std::vector<uint8_t> reply;
        CHECK_FALSE(host_against(bytes, &channel, &reply));
        CHECK(reply == std::vector<uint8_t>(v.host_key, v.host_key + KEY));
        CHECK(all_zero(&channel, sizeof channel));
    }
}

TEST_CASE("the viewer refuses a wrong confirmation of the host")
{
    const handshake_vector &v = HANDSHAKES[1];
    for (int bit = 0; bit < 128; bit++) {
        CAPTURE(bit);
        script_secret(v.viewer_secret);
        std::vector<uint8_t> bytes = join(v.host_key, v.server_confirm);
        bytes[KEY + bit / 8] ^= (uint8_t)(1 << bit % 8);
        secure_channel channel = {};
        std::vector<uint8_t> sent;
        CHECK_FALSE(viewer_against(bytes, v.password, &channel, &sent));
        CHECK(all_zero(&channel, sizeof channel));
    }
}

TEST_CASE("the host refuses a viewer of another password")
{
    const struct {
        const char *host, *viewer;
    } rows[] = {
        {"", HANDSHAKES[1].password},
        {HANDSHAKES[1].password, ""},
        {"abc12346", HANDSHAKES[1].password},
        {"abc1234", HANDSHAKES[1].password},
        {"abc123456", HANDSHAKES[1].password},
        {"0123456789abcdef0123456789ABCDE", HANDSHAKES[2].password},
    };
    for (const auto &row : rows) {
        CAPTURE(row.host);
        CAPTURE(row.viewer);
        const handshake_vector *v = nullptr;
        for (const handshake_vector &one : HANDSHAKES)
            if (strcmp(one.password, row.viewer) == 0)
                v = &one;
        REQUIRE(v);
        script_secret(v->host_secret);
        set_host_password(row.host);
        secure_channel channel = {};
        std::vector<uint8_t> reply;
        CHECK_FALSE(host_against(join(v->viewer_key, v->client_confirm), &channel, &reply));
        CHECK(reply.size() == KEY);
    }
}

TEST_CASE("a public key that makes the shared secret zero fails on the host")
{
    for (const low_order_vector &v : LOW_ORDER_KEYS) {
        CAPTURE((int)v.key[0]);
        for (uint8_t top : {0x00, 0x80}) { // the top bit of a key does not count
            uint8_t key[KEY];
            memcpy(key, v.key, KEY);
            key[31] |= top;
            script_secret(HANDSHAKES[0].host_secret);
            set_host_password("secret");
            secure_channel channel = {};
            std::vector<uint8_t> reply;
            CHECK_FALSE(host_against(join(key, v.client_confirm), &channel, &reply));
            CHECK(reply ==
                  std::vector<uint8_t>(HANDSHAKES[0].host_key, HANDSHAKES[0].host_key + KEY));
            CHECK(host_password.reads == 0);
        }
    }
}

TEST_CASE("a public key that makes the shared secret zero fails on the viewer")
{
    for (const low_order_vector &v : LOW_ORDER_KEYS) {
        CAPTURE((int)v.key[0]);
        script_secret(HANDSHAKES[0].viewer_secret);
        socket_pair p = socket_pair_open();
        std::vector<uint8_t> bytes = join(v.key, v.server_confirm);
        REQUIRE(net_send_all(p.host, bytes.data(), bytes.size()));
        secure_channel channel = {};
        CHECK_FALSE(handshake_as_viewer(&channel, p.viewer, "secret"));
        net_abort(p.viewer);
        // It gave away its key, and no confirmation that a guess could be tried on.
        CHECK(read_to_end(p.host).size() == KEY);
        socket_pair_close(&p);
    }
}

TEST_CASE("the host fails and asks for no password early when the viewer's bytes stop short")
{
    const handshake_vector &v = HANDSHAKES[1];
    std::vector<uint8_t> whole = join(v.viewer_key, v.client_confirm);
    for (size_t n : {0, 1, 31, 32, 33, 47}) {
        CAPTURE(n);
        script_secret(v.host_secret);
        set_host_password(v.password);
        secure_channel channel = {};
        std::vector<uint8_t> reply;
        std::vector<uint8_t> bytes(whole.begin(), whole.begin() + (long)n);
        CHECK_FALSE(host_against(bytes, &channel, &reply));
        // It reads first: without the whole key of the viewer nothing leaves.
        CHECK(reply.size() == (n < KEY ? 0 : KEY));
        CHECK(host_password.reads == (n < KEY ? 0 : 1));
        CHECK(all_zero(&channel, sizeof channel));
    }
}

TEST_CASE("the viewer fails when the host's bytes stop short, and writes first")
{
    const handshake_vector &v = HANDSHAKES[1];
    std::vector<uint8_t> whole = join(v.host_key, v.server_confirm);
    for (size_t n : {0, 1, 31, 32, 33, 47}) {
        CAPTURE(n);
        script_secret(v.viewer_secret);
        secure_channel channel = {};
        std::vector<uint8_t> sent;
        std::vector<uint8_t> bytes(whole.begin(), whole.begin() + (long)n);
        CHECK_FALSE(viewer_against(bytes, v.password, &channel, &sent));
        CHECK(memcmp(sent.data(), v.viewer_key, KEY) == 0);
        CHECK(all_zero(&channel, sizeof channel));
    }
}

TEST_CASE("a peer that closes ends the handshake of either side")
{
    random_secrets_reset();
    random_secrets_give(HANDSHAKES[0].host_secret, KEY);
    random_secrets_give(HANDSHAKES[0].viewer_secret, KEY);
    set_host_password("");
    secure_channel channel = {};
    socket_pair p = socket_pair_open();
    net_close(p.viewer);
    p.viewer = NET_INVALID;
    CHECK_FALSE(handshake_as_host(&channel, p.host, read_host_password, NO_DEADLINE));
    socket_pair_close(&p);
    p = socket_pair_open();
    net_close(p.host);
    p.host = NET_INVALID;
    CHECK_FALSE(handshake_as_viewer(&channel, p.viewer, ""));
    socket_pair_close(&p);
}

TEST_CASE("without random bytes the handshake fails before anything is sent")
{
    random_secrets_reset();
    set_host_password("");
    const handshake_vector &v = HANDSHAKES[0];
    secure_channel channel = {};
    std::vector<uint8_t> reply;
    CHECK_FALSE(host_against(join(v.viewer_key, v.client_confirm), &channel, &reply));
    CHECK(reply.empty());
    CHECK(all_zero(&channel, sizeof channel));

    socket_pair p = socket_pair_open();
    CHECK_FALSE(handshake_as_viewer(&channel, p.viewer, ""));
    net_abort(p.viewer);
    CHECK(read_to_end(p.host).empty());
    CHECK(all_zero(&channel, sizeof channel));
    socket_pair_close(&p);
}

#ifndef _WIN32

// One side's handshake, on a stack that can be looked at when it is over.
namespace
{
struct side_on_stack {
    secure_channel channel;
    net_socket sock;
    const char *password; // the viewer's; null for a host
    bool ok;
};
} // namespace

static void *run_side_on_stack(void *parameter)
{
    side_on_stack *s = (side_on_stack *)parameter;
    s->ok = s->password
                ? handshake_as_viewer(&s->channel, s->sock, s->password)
                : handshake_as_host(&s->channel, s->sock, read_host_password, NO_DEADLINE);
    net_abort(s->sock);
    return nullptr;
}

static bool contains(const std::vector<uint8_t> &bytes, const void *what, size_t n)
{
    return memmem(bytes.data(), bytes.size(), what, n) != nullptr;
}

// Runs one side against these bytes of its peer, with the passwords of a vector, and looks
// at what it left.
static void check_stack(const handshake_vector &v, bool as_viewer,
                        const std::vector<uint8_t> &whole)
{
    std::vector<uint8_t> wrong = whole;
    wrong.back() ^= 1;
    const std::vector<uint8_t> scripts[] = {
        {},                                   // our secret key is there
        {whole.begin(), whole.begin() + KEY}, // and the session key
        wrong,
        whole,
    };
    for (const std::vector<uint8_t> &bytes : scripts) {
        CAPTURE(as_viewer);
        CAPTURE(bytes.size());
        script_secret(as_viewer ? v.viewer_secret : v.host_secret);
        set_host_password(v.password);
        socket_pair p = socket_pair_open();
        net_socket peer = as_viewer ? p.host : p.viewer;
        REQUIRE(net_send_all(peer, bytes.data(), bytes.size()));

        std::vector<uint8_t> stack(1 << 20);
        side_on_stack side = {{}, as_viewer ? p.viewer : p.host, nullptr, false};
        if (as_viewer)
            side.password = v.password;
        pthread_attr_t attributes;
        pthread_t t;
        REQUIRE(pthread_attr_init(&attributes) == 0);
        REQUIRE(pthread_attr_setstack(&attributes, stack.data(), stack.size()) == 0);
        REQUIRE(pthread_create(&t, &attributes, run_side_on_stack, &side) == 0);
        pthread_attr_destroy(&attributes);
        if (bytes.size() < whole.size())
            net_abort(peer);
        REQUIRE(pthread_join(t, nullptr) == 0);

        CHECK(side.ok == (bytes == whole));
        CHECK_FALSE(contains(stack, as_viewer ? v.viewer_secret : v.host_secret, KEY));
        CHECK_FALSE(contains(stack, v.shared_secret, KEY));
        CHECK_FALSE(contains(stack, v.session_key, KEY));
        // The confirmation that it expected is a secret until it comes.
        if (bytes != whole)
            CHECK_FALSE(
                contains(stack, as_viewer ? v.server_confirm : v.client_confirm, CONFIRM));
        CHECK_FALSE(contains(stack, v.c2s, KEY));
        CHECK_FALSE(contains(stack, v.s2c, KEY));
        CHECK_FALSE(contains(stack, v.password, strlen(v.password)));
        channel_reset(&side.channel);
        socket_pair_close(&p);
    }
}

TEST_CASE("no way out of the handshake leaves a secret on the stack")
{
    const handshake_vector &v = HANDSHAKES[1];
    REQUIRE(strlen(v.password) >= 6); // not there by accident
    check_stack(v, false, join(v.viewer_key, v.client_confirm));
    check_stack(v, true, join(v.host_key, v.server_confirm));
}

#endif

TEST_CASE("a handshake starts from a clean channel, whatever it held")
{
    const handshake_vector &v = HANDSHAKES[0];
    script_secret(v.host_secret);
    set_host_password(v.password);
    secure_channel channel = {};
    channel.sender.encrypted = 1;
    channel.sender.send_counter = 77;
    channel.sender.send_buf = (uint8_t *)malloc(10);
    channel.receiver.encrypted = 1;
    channel.receiver.recv_counter = 78;
    channel.receiver.recv_buf = (uint8_t *)malloc(10);
    channel.receiver.recv_cap = 10;
    channel.receiver.recv_len = 5;
    std::vector<uint8_t> reply;
    CHECK(host_against(join(v.viewer_key, v.client_confirm), &channel, &reply));
    CHECK(reply == join(v.host_key, v.server_confirm));
    CHECK(channel.sender.send_counter == 0);
    CHECK(channel.receiver.recv_counter == 0);
    CHECK(channel.receiver.recv_len == 0);
    channel_reset(&channel);
}

TEST_CASE("the deadline ends the wait for a silent viewer")
{
    script_secret(HANDSHAKES[0].host_secret);
    set_host_password("");
    socket_pair p = socket_pair_open();
    secure_channel channel = {};
    uint32_t start = clock_ms();
    CHECK_FALSE(handshake_as_host(&channel, p.host, read_host_password, {true, start + 200}));
    CHECK(clock_ms() - start < 10000);
    socket_pair_close(&p);
}

namespace
{
struct viewer_side {
    secure_channel channel;
    net_socket sock;
    const char *password;
    std::atomic<bool> ok;
};
} // namespace

static void run_viewer(void *parameter)
{
    viewer_side *v = (viewer_side *)parameter;
    v->ok = handshake_as_viewer(&v->channel, v->sock, v->password);
}

// Both our sides against each other; true when both agree that it worked.
static bool meet(const char *host, const char *viewer, secure_channel *host_channel,
                 viewer_side *side, socket_pair *p)
{
    *p = socket_pair_open();
    set_host_password(host);
    side->sock = p->viewer;
    side->password = viewer;
    side->ok = false;
    thread *t = thread_start(run_viewer, side);
    REQUIRE(t);
    bool ok = handshake_as_host(host_channel, p->host, read_host_password,
                                {true, clock_ms() + 20000});
    if (!ok) {
        net_close(p->host);
        p->host = NET_INVALID;
    }
    REQUIRE(thread_join(t, 20000));
    CHECK(side->ok == ok);
    return ok;
}

TEST_CASE("our two sides meet when the passwords are equal, and only then")
{
    const struct {
        const char *host, *viewer;
        bool meet;
    } rows[] = {
        {"", "", true},
        {"abc12345", "abc12345", true},
        {"0123456789abcdef0123456789ABCDEF", "0123456789abcdef0123456789ABCDEF", true},
        {"abc12345", "abc12344", false},
        {"abc12345", "", false},
        {"", "abc12345", false},
        {"0123456789abcdef0123456789ABCDEF", "0123456789abcdef0123456789ABCDEF0", false},
    };
    for (const auto &row : rows) {
        CAPTURE(row.host);
        CAPTURE(row.viewer);
        random_secrets_reset(); // it does not matter which side takes which
        random_secrets_give(HANDSHAKES[0].viewer_secret, KEY);
        random_secrets_give(HANDSHAKES[0].host_secret, KEY);
        secure_channel host = {};
        viewer_side viewer = {};
        socket_pair p;
        CHECK(meet(row.host, row.viewer, &host, &viewer, &p) == row.meet);
        if (row.meet) {
            uint8_t text[5];
            REQUIRE(channel_send(&host.sender, (const uint8_t *)"hello", 5));
            REQUIRE(channel_recv(&viewer.channel.receiver, text, 5));
            CHECK(memcmp(text, "hello", 5) == 0);
            REQUIRE(channel_send(&viewer.channel.sender, (const uint8_t *)"olleh", 5));
            REQUIRE(channel_recv(&host.receiver, text, 5));
            CHECK(memcmp(text, "olleh", 5) == 0);
        }
        channel_reset(&host);
        channel_reset(&viewer.channel);
        socket_pair_close(&p);
    }
}
