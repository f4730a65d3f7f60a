// Labels: threaded
// Locks: ports
// Fakes: identity_script server_log_record desktop input_record thread_script clock_offset
//
// The real server on the real port, over loopback, against a viewer (and a relay) written
// here. The identity, the desktop and the log are the test's, and the clock can be put
// forward, so that deadlines and pauses need not be waited for.
//
// A server that stops leaves its listening socket to the end of the process. Here the next
// test needs the port, so stop_server closes it by way of the operating system.
#include "host/host_server.h"
#include "host/capture.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/screen.h"
#include "identity/host_identity.h"
#include "protocol/clock.h"
#include "protocol/handshake.h"
#include "protocol/messages.h"
#include "tests/fakes/clock_offset.h"
#include "tests/fakes/desktop.h"
#include "tests/fakes/identity_script.h"
#include "tests/fakes/input_record.h"
#include "tests/fakes/server_log_record.h"
#include "tests/fakes/thread_script.h"
#include "tests/test.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include "protocol/win32.h"
using native_socket = SOCKET;
using length_type = int;
static constexpr net_socket HANDLE_STEP = 4;
static constexpr net_socket HANDLE_END = 16384;
#else
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
using native_socket = int;
using length_type = socklen_t;
static constexpr net_socket HANDLE_STEP = 1;
static constexpr net_socket HANDLE_END = 1024;
#endif

static const char AUTH_FAILED[] = "auth failed (wrong password or not an qv client)";
static const char NO_TILES[] = "session stats: 0 tiles sent, 0 as cache refs (0%)";
static const char DISCONNECTED[] = "client disconnected";

using lines = std::vector<std::string>;

// The one thing that the host allocates by nothrow new as a single object is a session.
static std::atomic<bool> refuse_session;

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return refuse_session.exchange(false) ? nullptr : ::operator new(size);
}

// ---------------------------------------------------------------------------------------
// Waiting

static void pass(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

template <typename condition> static bool wait_until(condition met)
{
    for (int i = 0; i < 5000; i++) {
        if (met())
            return true;
        pass(2);
    }
    return false;
}

static int count_lines(const std::string &text)
{
    lines all = server_log_lines();
    return (int)std::count(all.begin(), all.end(), text);
}

static bool wait_line(const std::string &text, int times = 1)
{
    return wait_until([&] { return count_lines(text) >= times; });
}

// The log without what does not belong to the server: "frame ..." repeats as long as nothing
// changes.
static lines server_lines()
{
    lines all = server_log_lines();
    lines kept;
    for (auto &line : all)
        if (line.compare(0, 6, "frame ") != 0)
            kept.push_back(line);
    return kept;
}

static int last_state()
{
    auto states = identity_script_states();
    return states.empty() ? -1 : states.back();
}

// ---------------------------------------------------------------------------------------
// Sockets of this process, seen from outside

static bool socket_option(net_socket sock, int level, int name, int *value)
{
    length_type size = sizeof *value;
    return getsockopt((native_socket)sock, level, name, (char *)value, &size) == 0;
}

static uint16_t port_of(net_socket sock, bool peer)
{
    sockaddr_in address = {};
    length_type size = sizeof address;
    int result = peer ? getpeername((native_socket)sock, (sockaddr *)&address, &size)
                      : getsockname((native_socket)sock, (sockaddr *)&address, &size);
    return result == 0 && address.sin_family == AF_INET ? ntohs(address.sin_port) : 0;
}

// The socket that listens on the host's port, or NET_INVALID.
static net_socket find_listener()
{
    for (net_socket sock = 0; sock < HANDLE_END; sock += HANDLE_STEP) {
        int listening = 0;
        if (port_of(sock, false) == HOST_PORT &&
            socket_option(sock, SOL_SOCKET, SO_ACCEPTCONN, &listening) && listening != 0)
            return sock;
    }
    return NET_INVALID;
}

// The other end of a connection within this process, or NET_INVALID.
static net_socket find_peer(net_socket sock)
{
    uint16_t port = port_of(sock, false);
    for (net_socket other = 0; other < HANDLE_END; other += HANDLE_STEP)
        if (other != sock && port_of(other, true) == port)
            return other;
    return NET_INVALID;
}

// ---------------------------------------------------------------------------------------
// The server

static struct {
    std::thread *thread;
    std::atomic<bool> returned;
    int result;
} server;

// Clears every record and starts the server, with a black screen of 200 x 130.
static void prepare(int32_t relay_mode, bool duplication = false)
{
    host::host_stop_requested = 0;
    identity_script_reset(relay_mode);
    desktop_reset(200, 130, duplication);
    input_record_clear();
    server_log_clear();
}

static void launch()
{
    server.returned = false;
    server.thread = new std::thread([] {
        server.result = host::host_server_run();
        server.returned = true;
    });
}

// Waits for the server to return by itself.
static int join_server()
{
    bool returned = wait_until([] { return server.returned.load(); });
    REQUIRE_MESSAGE(returned, "the server does not return");
    server.thread->join();
    delete server.thread;
    server.thread = nullptr;
    return server.result;
}

static void close_listener()
{
    net_socket listener = find_listener();
    CHECK(listener != NET_INVALID); // left open on purpose
    net_close(listener);
}

static void start_direct(bool duplication = false)
{
    net_start();
    prepare(0, duplication);
    launch();
    REQUIRE(wait_line(duplication ? "server up on port 7777, dxgi=1"
                                  : "server up on port 7777, dxgi=0"));
    REQUIRE(wait_until([] { return last_state() == HOST_WAITING; }));
}

static net_socket connect_host()
{
    net_socket sock = NET_INVALID;
    REQUIRE(net_connect("127.0.0.1", "7777", false, &sock) == NET_CONNECTED);
    return sock;
}

// Stops a server that waits in accept (or is about to), by a last connection.
static void stop_direct()
{
    host::host_stop();
    if (!server.returned) {
        net_socket sock = connect_host();
        net_close(sock);
    }
    CHECK(join_server() == 0);
    close_listener();
}

// Whether nothing of a session is left in the channel: no buffer and no key. For when the
// server waits or has returned.
static bool channel_is_clean()
{
    const uint8_t *bytes = (const uint8_t *)&host::host_channel;
    return std::all_of(bytes, bytes + sizeof host::host_channel,
                       [](uint8_t byte) { return byte == 0; });
}

// ---------------------------------------------------------------------------------------
// The viewer

namespace
{
struct test_viewer {
    net_socket sock = NET_INVALID;
    secure_channel channel = {};

    test_viewer() = default;
    test_viewer(const test_viewer &) = delete;
    test_viewer &operator=(const test_viewer &) = delete;

    ~test_viewer()
    {
        close();
    }

    void close()
    {
        channel_reset(&channel);
        net_close(sock);
        sock = NET_INVALID;
    }

    bool log_in(const char *password)
    {
        return handshake_as_viewer(&channel, sock, password);
    }

    void send(uint32_t type, const std::vector<uint8_t> &payload)
    {
        std::vector<uint8_t> bytes(8);
        store_le32(bytes.data(), type);
        store_le32(bytes.data() + 4, (uint32_t)payload.size());
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        CHECK(channel_send(&channel.sender, bytes.data(), bytes.size()));
    }

    void send_hello(uint16_t caps = 3, const char *name = "viewer-box")
    {
        std::vector<uint8_t> payload(CLIENT_HELLO_BYTES);
        put_client_hello(payload.data(), caps, name);
        send(MSG_CLIENT_HELLO, payload);
    }

    void send_key(uint32_t value)
    {
        std::vector<uint8_t> payload(KEY_BYTES);
        store_le32(payload.data(), value);
        send(MSG_KEY, payload);
    }

    // The next message, or type 0 when the connection ended.
    uint8_t receive(std::vector<uint8_t> *payload)
    {
        uint8_t head[8];
        if (!channel_recv(&channel.receiver, head, sizeof head))
            return 0;
        message_header header = get_header(head);
        payload->resize(header.length);
        if (!channel_recv(&channel.receiver, payload->data(), header.length))
            return 0;
        return header.type;
    }

    server_hello receive_hello()
    {
        std::vector<uint8_t> payload;
        REQUIRE(receive(&payload) == MSG_SERVER_HELLO);
        REQUIRE(payload.size() == SERVER_HELLO_BYTES);
        return get_server_hello(payload.data());
    }

    // Reads on until the host ends the connection.
    void drain()
    {
        std::vector<uint8_t> payload;
        while (receive(&payload) != 0) {
        }
    }

    // From the connection to the host's hello.
    server_hello join_direct(const char *password = "secret", uint16_t caps = 3,
                             const char *name = "viewer-box")
    {
        sock = connect_host();
        REQUIRE(log_in(password));
        send_hello(caps, name);
        return receive_hello();
    }
};
} // namespace

// A whole session and its end, as proof that the server is in order.
static void serve_one_more()
{
    int ended = count_lines(DISCONNECTED);
    {
        test_viewer v;
        server_hello hello = v.join_direct();
        CHECK(hello.width == host::screen.screen_width);
    }
    CHECK(wait_line(DISCONNECTED, ended + 1));
}

// Whether nothing arrives on a socket for a while.
static bool stays_silent(net_socket sock, uint32_t ms)
{
    uint32_t start = clock_ms();
    uint8_t byte;
    bool got = net_recv_all(sock, &byte, 1, {true, start + ms});
    return !got && clock_ms() - start >= ms - 10;
}

// ---------------------------------------------------------------------------------------
// Start-up and stop

TEST_CASE("the server prepares the process, listens and says so, with either capture")
{
    for (bool duplication : {false, true}) {
        start_direct(duplication);
        CHECK(desktop_calls() == lines{"dpi", "real-time", "start"});
        CHECK(server_lines().size() == 1);
        stop_direct();
    }
}

TEST_CASE("a server that was stopped before it started says that it is up and returns 0")
{
    for (int32_t relay_mode : {0, 1}) {
        net_start();
        prepare(relay_mode);
        host::host_stop();
        launch();
        CHECK(join_server() == 0);
        CHECK(server_lines() ==
              lines{relay_mode ? "server up via relay 127.0.0.1:7000 room '123456789', dxgi=0"
                               : "server up on port 7777, dxgi=0"});
        CHECK(identity_script_states().empty());
        if (relay_mode == 0)
            close_listener();
    }
}

TEST_CASE("a port that is taken is logged and the server returns 1")
{
    net_start();
    prepare(0);
    net_socket taken = net_listen(HOST_PORT, 1);
    REQUIRE(taken != NET_INVALID);
    launch();
    CHECK(join_server() == 1);
    net_close(taken);
    lines all = server_lines();
    REQUIRE(all.size() == 1);
#ifdef _WIN32
    CHECK((all[0] == "bind/listen failed 10048" || all[0] == "bind/listen failed 10013"));
#else
    CHECK(all[0] == "bind/listen failed 98"); // address in use
#endif
    CHECK(desktop_calls() == lines{"dpi", "real-time"});
    CHECK(identity_script_states().empty());
}

TEST_CASE("an accept that fails ends the server without a line")
{
    start_direct();
    pass(50); // for it to be in accept
    net_socket listener = find_listener();
    net_abort(listener);
    CHECK(join_server() == 0);
    CHECK(server_lines().size() == 1);
    net_close(listener);
}

TEST_CASE("a stop during accept shows with the next connection, whose pass still runs")
{
    start_direct();
    pass(50);
    host::host_stop();
    pass(200);
    CHECK_FALSE(server.returned);
    test_viewer v;
    CHECK(v.join_direct().width == 200);
    v.drain();
    CHECK(join_server() == 0);
    CHECK(server_lines() == lines{"server up on port 7777, dxgi=0",
                                  "client connected: viewer-box, caps=3 (text=1 cache=1)",
                                  NO_TILES, DISCONNECTED});
    close_listener();
}

TEST_CASE("a stop during a session ends it and the server")
{
    start_direct();
    test_viewer v;
    v.join_direct();
    REQUIRE(wait_until([] { return last_state() == HOST_SERVING; }));
    host::host_stop();
    v.drain();
    CHECK(join_server() == 0);
    CHECK(count_lines(DISCONNECTED) == 1);
    CHECK(last_state() == HOST_OFFLINE);
    CHECK(identity_script_peer_name().empty());
    CHECK(channel_is_clean());
    close_listener();
}

TEST_CASE("a stop during a handshake ends it and the server")
{
    start_direct();
    net_socket sock = connect_host();
    REQUIRE(wait_until([] { return identity_script_rotation_checks() == 1; }));
    pass(50);
    host::host_stop();
    CHECK(join_server() == 0);
    CHECK(count_lines(AUTH_FAILED) == 1);
    net_close(sock);
    close_listener();
}

TEST_CASE("stops from several threads meet the end of a connection without harm")
{
    test_random random = test_random_seeded("stop");
    for (int round = 0; round < 25; round++) {
        start_direct();
        test_viewer v;
        bool session = random.below(2) != 0;
        if (session)
            v.join_direct();
        else
            v.sock = connect_host();
        int delay = (int)random.below(4);
        std::thread stops[2];
        for (auto &stop : stops)
            stop = std::thread([delay] {
                pass(delay);
                for (int i = 0; i < 50; i++)
                    host::host_stop();
            });
        pass((int)random.below(4));
        v.close();
        for (auto &stop : stops)
            stop.join();
        stop_direct();
    }
}

// ---------------------------------------------------------------------------------------
// The first frame

TEST_CASE("the first frame waits 100 ms and the shorter round trip of the handshake")
{
    const struct {
        bool slow;
        uint32_t at_least; // from before the viewer's hello
    } rows[] = {{false, 100}, {true, 350}};
    for (const auto &row : rows) {
        CAPTURE(row.slow);
        start_direct();
        desktop_paint(0x33);
        if (row.slow)
            identity_script_on_password([] { pass(250); });
        {
            test_viewer v;
            v.sock = connect_host();
            REQUIRE(v.log_in("secret"));
            if (row.slow)
                pass(1000);
            uint32_t before = clock_ms();
            v.send_hello();
            v.receive_hello();
            std::vector<uint8_t> payload;
            CHECK(v.receive(&payload) == MSG_TILE);
            CHECK(clock_ms() - before >= row.at_least);
        }
        identity_script_on_password(nullptr);
        stop_direct();
    }
}

TEST_CASE("of two round trips the shorter one counts, whichever it is")
{
    // The clock stands, and passes only while the host waits for a confirmation, or for the
    // hello. (It may come to look at the clock too late to see the second wait; then that is
    // the shorter one as before.)
    for (bool first_is_long : {true, false}) {
        CAPTURE(first_is_long);
        start_direct();
        desktop_paint(0x33);
        clock_hold(true);
        if (first_is_long)
            identity_script_on_password([] { clock_put_forward(800); });
        {
            test_viewer v;
            uint32_t frames = host::frame_seq;
            v.sock = connect_host();
            REQUIRE(v.log_in("secret"));
            if (!first_is_long) {
                pass(100);
                clock_put_forward(800);
            }
            v.send_hello();
            v.receive_hello();
            auto captures_again = [] {
                int before = desktop_captures();
                return wait_until([=] { return desktop_captures() > before + 2; });
            };
            // From here on, or from a moment later: 100 ms.
            clock_put_forward(99);
            CHECK(captures_again());
            CHECK(host::frame_seq == frames);
            clock_put_forward(100);
            CHECK(wait_until([&] { return host::frame_seq != frames; }));
        }
        clock_hold(false);
        identity_script_on_password(nullptr);
        stop_direct();
    }
}

// ---------------------------------------------------------------------------------------
// Handshake and hello

TEST_CASE("a wrong password is logged, and the right one is served after a pause")
{
    start_direct();
    uint32_t before = clock_ms();
    {
        test_viewer v;
        v.sock = connect_host();
        CHECK_FALSE(v.log_in("Secret"));
    }
    REQUIRE(wait_line(AUTH_FAILED));
    test_viewer v;
    CHECK(v.join_direct().width == 200);
    CHECK(clock_ms() - before >= 300);
    CHECK(identity_script_states() == std::vector<int32_t>{1, 1, 2});
    v.close();
    CHECK(wait_line(DISCONNECTED));
    CHECK(count_lines(AUTH_FAILED) == 1);
    stop_direct();
}

TEST_CASE("a connection that ends early is an authentication failure")
{
    start_direct();
    for (int bytes : {0, 31, 32, 47}) {
        CAPTURE(bytes);
        int before = count_lines(AUTH_FAILED);
        net_socket sock = connect_host();
        uint8_t rubbish[64];
        memset(rubbish, 9, sizeof rubbish);
        if (bytes > 0)
            CHECK(net_send_once(sock, rubbish, (size_t)bytes));
        net_close(sock);
        CHECK(wait_line(AUTH_FAILED, before + 1));
    }
    serve_one_more();
    stop_direct();
}

TEST_CASE("the rotation check comes before the handshake, once a connection")
{
    start_direct();
    identity_script_password_is_due("fresh");
    {
        test_viewer v;
        v.sock = connect_host();
        CHECK_FALSE(v.log_in("secret"));
    }
    CHECK(wait_line(AUTH_FAILED));
    CHECK(identity_script_rotation_checks() == 1);
    test_viewer v;
    v.join_direct("fresh");
    CHECK(identity_script_rotation_checks() == 2);
    v.close();
    CHECK(wait_line(DISCONNECTED));
    CHECK(identity_script_rotation_checks() == 2);
    stop_direct();
}

TEST_CASE("the password that counts is the one when the viewer's key arrives")
{
    start_direct();
    test_viewer v;
    v.sock = connect_host();
    REQUIRE(wait_until([] { return identity_script_rotation_checks() == 1; }));
    pass(50); // for it to wait for the key
    identity_script_set_password("set meanwhile");
    CHECK(v.log_in("set meanwhile"));
    v.close();
    stop_direct();
}

TEST_CASE("the hellos are exchanged and the viewer announced")
{
    struct {
        uint16_t caps;
        const char *name;
        const char *line, *peer;
    } rows[] = {
        {3, "viewer-box", "client connected: viewer-box, caps=3 (text=1 cache=1)",
         "viewer-box"},
        {0, "", "client connected: , caps=0 (text=0 cache=0)", ""},
        {1, "a", "client connected: a, caps=1 (text=1 cache=0)", "a"},
        {0xFFFE, "b", "client connected: b, caps=65534 (text=0 cache=1)", "b"},
        // 32 characters: no terminator on the wire
        {3, "12345678901234567890123456789012",
         "client connected: 12345678901234567890123456789012, caps=3 (text=1 cache=1)",
         "12345678901234567890123456789012"},
    };
    start_direct();
    for (auto &row : rows) {
        CAPTURE(row.line);
        int ended = count_lines(DISCONNECTED);
        test_viewer v;
        server_hello hello = v.join_direct("secret", row.caps, row.name);
        CHECK(hello.width == 200);
        CHECK(hello.height == 130);
        CHECK(hello.tile_size == 64);
        CHECK(hello.caps == 3);
        CHECK(strcmp(hello.name, "host-box") == 0);
        CHECK(count_lines(row.line) == 1);
        CHECK(identity_script_peer_name() == row.peer);
        CHECK(last_state() == HOST_SERVING);
        v.close();
        CHECK(wait_line(DISCONNECTED, ended + 1));
        CHECK(wait_until([] { return last_state() == HOST_WAITING; }));
        CHECK(identity_script_peer_name().empty());
    }
    std::vector<int32_t> states = {1};
    for (size_t i = 0; i < std::size(rows); i++)
        states.insert(states.end(), {2, 0, 1});
    CHECK(identity_script_states() == states);
    stop_direct();
}

TEST_CASE("a host name of 32 characters goes out whole")
{
    net_start();
    prepare(0);
    identity_script_set_computer_name("abcdefghijklmnopqrstuvwxyz012345");
    launch();
    REQUIRE(wait_line("server up on port 7777, dxgi=0"));
    test_viewer v;
    CHECK(strcmp(v.join_direct().name, "abcdefghijklmnopqrstuvwxyz012345") == 0);
    v.close();
    CHECK(wait_line(DISCONNECTED));
    stop_direct();
}

TEST_CASE("a hello counts by its low byte, its exact length and nothing else")
{
    struct {
        uint32_t type;
        uint32_t announced, sent;
        bool good;
    } rows[] = {
        {0x80, 34, 34, true},
        {0x11223380, 34, 34, true}, // the other three bytes are
                                    // not looked at
        {0x80, 33, 33, false},
        {0x80, 35, 35, false},
        {0x80, 0, 0, false},
        {0x80, 0xFFFFFFFFu, 34, false},
        {0x81, 34, 34, false},
        {0x01, 34, 34, false},
        {0x80, 34, 33, false}, // and then the viewer goes
    };
    start_direct();
    for (auto &row : rows) {
        CAPTURE(row.type);
        CAPTURE(row.announced);
        CAPTURE(row.sent);
        size_t lines_before = server_lines().size();
        size_t states_before = identity_script_states().size();
        test_viewer v;
        v.sock = connect_host();
        REQUIRE(v.log_in("secret"));
        std::vector<uint8_t> bytes(8 + row.sent);
        store_le32(bytes.data(), row.type);
        store_le32(bytes.data() + 4, row.announced);
        REQUIRE(channel_send(&v.channel.sender, bytes.data(), bytes.size()));
        if (row.good) {
            CHECK(v.receive_hello().width == 200);
            v.close();
            CHECK(wait_until(
                [&] { return identity_script_states().size() == states_before + 3; }));
            CHECK(server_lines().size() == lines_before + 3);
            continue;
        }
        if (row.sent != row.announced && row.sent < 34)
            net_abort(v.sock);
        std::vector<uint8_t> payload;
        CHECK(v.receive(&payload) == 0);
        // The next pass begins at once, and nothing was said.
        CHECK(wait_until([&] { return identity_script_states().size() == states_before + 1; }));
        CHECK(last_state() == HOST_WAITING);
        CHECK(server_lines().size() == lines_before);
        CHECK_FALSE(channel_is_clean()); // kept on purpose, until the next handshake
    }
    serve_one_more();
    stop_direct();
    CHECK(channel_is_clean());
}

// The connection that ends under its session's first capture.
static std::atomic<net_socket> broken_connection;

TEST_CASE("a host's hello that cannot be sent shows when the session begins")
{
    start_direct(true);
    {
        test_viewer v;
        v.sock = connect_host();
        REQUIRE(v.log_in("secret"));
        broken_connection = v.sock;
        // Between the viewer's hello and the host's there is one capture. The connection ends
        // in it, from the server's side, whose next send fails for certain.
        desktop_on_capture([] {
            net_abort(find_peer(broken_connection));
            desktop_on_capture(nullptr);
        });
        v.send_hello();
        std::vector<uint8_t> payload;
        CHECK(v.receive(&payload) == 0);
    }
    CHECK(wait_line(DISCONNECTED));
    CHECK(server_lines() == lines{"server up on port 7777, dxgi=1",
                                  "client connected: viewer-box, caps=3 (text=1 cache=1)",
                                  NO_TILES, DISCONNECTED});
    serve_one_more();
    stop_direct();
}

TEST_CASE("what is not sealed ends the connection, and the answer is never plain")
{
    // A hello and more, as they would look without encryption.
    uint8_t plain[512] = {};
    put_header(plain, MSG_CLIENT_HELLO, CLIENT_HELLO_BYTES);
    put_client_hello(plain + MESSAGE_HEADER_BYTES, 3, "viewer-box");

    // What came before it, and how many bytes the host says altogether: its public key, its
    // confirmation and the sealed hello.
    struct {
        bool handshake, sealed_hello;
        size_t answer;
    } rows[] = {{false, false, 32}, {true, false, 0}, {true, true, 0}};
    start_direct();
    for (auto &row : rows) {
        CAPTURE(row.handshake);
        CAPTURE(row.sealed_hello);
        test_viewer v;
        v.sock = connect_host();
        if (row.handshake)
            REQUIRE(v.log_in("secret"));
        if (row.sealed_hello) {
            v.send_hello();
            v.receive_hello();
        }
        REQUIRE(net_send_all(v.sock, plain, sizeof plain));
        size_t heard = 0;
        uint8_t byte;
        if (row.sealed_hello)
            v.drain(); // frames until then, each of which opens
        else
            while (net_recv_all(v.sock, &byte, 1, {true, clock_ms() + 20000}))
                heard++;
        CHECK(heard == row.answer);
        CHECK(wait_until([&] { return last_state() == HOST_WAITING; }));
    }
    serve_one_more();
    stop_direct();
}

TEST_CASE("a bad hello costs no pause")
{
    start_direct();
    uint32_t start = clock_ms();
    for (int i = 0; i < 20; i++) { // 6 s, if each had the pause of a failed handshake
        test_viewer v;
        v.sock = connect_host();
        REQUIRE(v.log_in("secret"));
        v.send(MSG_CLIENT_HELLO, {1});
        std::vector<uint8_t> payload;
        CHECK(v.receive(&payload) == 0);
    }
    CHECK(clock_ms() - start < 5000);
    CHECK(server_lines().size() == 1);
    serve_one_more();
    stop_direct();
}

TEST_CASE("duplication brings the hello up to date with the screen, GDI does not")
{
    for (bool duplication : {true, false}) {
        CAPTURE(duplication);
        start_direct(duplication);
        desktop_resize(320, 64);
        test_viewer v;
        server_hello hello = v.join_direct();
        CHECK(hello.width == (duplication ? 320 : 200));
        CHECK(hello.height == (duplication ? 64 : 130));
        v.close();
        CHECK(wait_line(DISCONNECTED));
        stop_direct();
    }
}

TEST_CASE("a screen that could not be had is asked for again before the hello")
{
    net_start();
    prepare(0);
    desktop_reset(0, 0, false);
    launch();
    REQUIRE(wait_line("server up on port 7777, dxgi=0"));
    REQUIRE(wait_until([] { return last_state() == HOST_WAITING; }));
    CHECK(host::screen.screen_width == 0);
    {
        test_viewer v; // nor can it be had now
        server_hello hello = v.join_direct();
        CHECK(hello.width == 0);
        CHECK(hello.height == 0);
    }
    CHECK(wait_line(DISCONNECTED));
    desktop_resize(320, 64);
    {
        test_viewer v;
        server_hello hello = v.join_direct();
        CHECK(hello.width == 320);
        CHECK(hello.height == 64);
    }
    CHECK(wait_line(DISCONNECTED, 2));
    stop_direct();
}

// ---------------------------------------------------------------------------------------
// Deadlines

TEST_CASE("15 s after accept a viewer without a hello has had its time")
{
    start_direct();

    // In the handshake: time passes, and the next byte comes too late.
    net_socket sock = connect_host();
    REQUIRE(wait_until([] { return identity_script_rotation_checks() == 1; }));
    pass(50);
    uint8_t byte = 1;
    CHECK(net_send_once(sock, &byte, 1));
    clock_put_forward(14000);
    pass(50);
    CHECK(net_send_once(sock, &byte, 1)); // in time
    pass(100);
    CHECK(count_lines(AUTH_FAILED) == 0);
    clock_put_forward(1000);
    CHECK(net_send_once(sock, &byte, 1)); // not any more
    CHECK(wait_line(AUTH_FAILED));
    net_close(sock);

    // After it: the hello has what is left of the same 15 s.
    {
        test_viewer v;
        v.sock = connect_host();
        REQUIRE(wait_until([] { return identity_script_rotation_checks() == 2; }));
        clock_put_forward(14000);
        REQUIRE(v.log_in("secret"));
        uint8_t head[8];
        put_header(head, MSG_CLIENT_HELLO, CLIENT_HELLO_BYTES);
        REQUIRE(channel_send(&v.channel.sender, head, sizeof head));
        pass(50);
        clock_put_forward(1000);
        uint8_t payload[CLIENT_HELLO_BYTES] = {3};
        REQUIRE(channel_send(&v.channel.sender, payload, sizeof payload));
        std::vector<uint8_t> answer;
        CHECK(v.receive(&answer) == 0);
    }
    CHECK(count_lines("client connected: , caps=3 (text=1 cache=1)") == 0);

    // Within it all is well, and afterwards the viewer may be silent for ever.
    {
        test_viewer v;
        v.sock = connect_host();
        REQUIRE(v.log_in("secret"));
        pass(50);
        clock_put_forward(14000);
        v.send_hello();
        v.receive_hello();
        clock_put_forward(3600000);
        v.send_key(0x10041);
        CHECK(wait_until([] { return input_record_calls().size() == 1; }));
        clock_put_forward(3600000);
        v.send_key(0x41);
        CHECK(wait_until([] { return input_record_calls().size() == 2; }));
        CHECK(count_lines(DISCONNECTED) == 0);
    }
    CHECK(wait_line(DISCONNECTED));
    stop_direct();
}

// Puts the clock so many milliseconds before its wrap.
static void clock_put_before_wrap(uint32_t ms)
{
    clock_put_forward(0u - ms - clock_ms());
}

TEST_CASE("the hello's deadline holds while the tick count wraps")
{
    start_direct();
    for (uint32_t before : {1000000u, 15001u, 15000u, 14500u, 7000u, 500u, 1u, 0u}) {
        CAPTURE(before);
        int failed = count_lines(AUTH_FAILED);
        int checks = identity_script_rotation_checks();
        clock_put_before_wrap(before);
        net_socket sock = connect_host();
        REQUIRE(wait_until([&] { return identity_script_rotation_checks() == checks + 1; }));
        pass(20);
        clock_put_forward(13000);
        uint8_t byte = 1;
        CHECK(net_send_once(sock, &byte, 1)); // in time
        pass(50);
        CHECK(count_lines(AUTH_FAILED) == failed);
        clock_put_forward(2000);
        CHECK(net_send_once(sock, &byte, 1));
        CHECK(wait_line(AUTH_FAILED, failed + 1));
        net_close(sock);
    }
    serve_one_more();
    stop_direct();
}

TEST_CASE("the pause after a failed handshake lasts while the tick count wraps")
{
    start_direct();
    for (uint32_t before : {1000000u, 400u, 300u, 150u, 1u, 0u}) {
        CAPTURE(before);
        int failed = count_lines(AUTH_FAILED);
        clock_put_before_wrap(before);
        uint32_t start = clock_ms();
        net_socket sock = connect_host();
        net_close(sock);
        REQUIRE(wait_line(AUTH_FAILED, failed + 1));
        serve_one_more();
        CHECK(clock_ms() - start >= 300);
    }
    stop_direct();
}

TEST_CASE("a session's socket is set up for frames, input and dead lines")
{
    start_direct();
    test_viewer v;
    v.join_direct();
    net_socket sock = find_peer(v.sock);
    REQUIRE(sock != NET_INVALID);
    int value = 0;
    CHECK(socket_option(sock, IPPROTO_TCP, TCP_NODELAY, &value));
    CHECK(value != 0);
    CHECK(socket_option(sock, SOL_SOCKET, SO_KEEPALIVE, &value));
    CHECK(value != 0);
#ifdef _WIN32
    CHECK(socket_option(sock, SOL_SOCKET, SO_SNDTIMEO, &value));
    CHECK(value == 30000);
    CHECK(socket_option(sock, SOL_SOCKET, SO_RCVTIMEO, &value));
    CHECK(value == 0);
    CHECK(socket_option(sock, SOL_SOCKET, SO_SNDBUF, &value));
    CHECK(value == 1048576);
#else
    timeval time = {};
    socklen_t size = sizeof time;
    CHECK(getsockopt((int)sock, SOL_SOCKET, SO_SNDTIMEO, &time, &size) == 0);
    CHECK(time.tv_sec == 30);
    CHECK(getsockopt((int)sock, SOL_SOCKET, SO_RCVTIMEO, &time, &size) == 0);
    CHECK(time.tv_sec == 0);
    CHECK(time.tv_usec == 0);
    CHECK(socket_option(sock, IPPROTO_TCP, TCP_KEEPIDLE, &value));
    CHECK(value == 60);
    CHECK(socket_option(sock, IPPROTO_TCP, TCP_KEEPINTVL, &value));
    CHECK(value == 10);
    // Setting it switches the system's own sizing off; what it grants has a limit.
    CHECK(socket_option(sock, SOL_SOCKET, SO_SNDBUF, &value));
    CHECK(value >= 131072);
#endif
    v.close();
    CHECK(wait_line(DISCONNECTED));
    stop_direct();
}

// ---------------------------------------------------------------------------------------
// Sessions

TEST_CASE("a session that sent no tile logs a share of 0 per cent")
{
    start_direct();
    serve_one_more(); // the screen is black, as the viewer's picture is at first
    CHECK(server_lines() == lines{"server up on port 7777, dxgi=0",
                                  "client connected: viewer-box, caps=3 (text=1 cache=1)",
                                  NO_TILES, DISCONNECTED});
    stop_direct();
}

TEST_CASE("what a session sends and takes is counted, and the next one starts afresh")
{
    start_direct();
    desktop_paint(0x33);
    {
        test_viewer v;
        v.join_direct();
        // 4 x 3 tiles: 3 x 2 whole ones alike, of which the first is sent as pixels, and
        // the edges, padded with zeros: the right column of two, the bottom row of three,
        // and the corner.
        int tiles = 0, refs = 0;
        std::vector<uint8_t> payload;
        uint8_t type;
        while ((type = v.receive(&payload)) != MSG_FRAME_END) {
            REQUIRE(type != 0);
            tiles += type == MSG_TILE;
            refs += type == MSG_TILE_REF;
        }
        CHECK(tiles == 4);
        CHECK(refs == 8);
    }
    CHECK(wait_line("session stats: 12 tiles sent, 8 as cache refs (67%)"));
    CHECK(wait_line(DISCONNECTED));
    {
        test_viewer v;
        v.join_direct("secret", 0); // without a cache
        std::vector<uint8_t> payload;
        while (v.receive(&payload) != MSG_FRAME_END)
            REQUIRE(v.channel.receiver.open);
    }
    CHECK(wait_line("session stats: 12 tiles sent, 0 as cache refs (0%)"));
    stop_direct();
}

TEST_CASE("a second viewer waits in the backlog until the first has gone")
{
    start_direct();
    test_viewer first;
    first.join_direct("secret", 3, "first");

    test_viewer second;
    second.sock = connect_host();
    std::atomic<bool> in{false};
    std::thread logging_in([&] { in = second.log_in("secret"); });
    pass(200);
    CHECK_FALSE(in);
    CHECK(identity_script_rotation_checks() == 1);
    first.close();
    logging_in.join();
    CHECK(in);
    second.send_hello(3, "second");
    CHECK(second.receive_hello().width == 200);
    CHECK(identity_script_peer_name() == "second");
    second.close();
    CHECK(wait_line(DISCONNECTED, 2));
    stop_direct();
}

TEST_CASE("what a viewer leaves pressed is released when it goes")
{
    start_direct();
    test_viewer v;
    v.join_direct();
    v.send_key(0x10011); // control down
    v.send_key(0x10041);
    v.send_key(0x41);
    std::vector<uint8_t> mouse(MOUSE_BYTES);
    put_mouse(mouse.data(), {10, 10, MOUSE_DOWN, 0, 0});
    v.send(MSG_MOUSE, mouse);
    REQUIRE(wait_until([] { return input_record_calls().size() == 4; }));
    v.close();
    CHECK(wait_line(DISCONNECTED));
    CHECK(wait_until([] { return last_state() == HOST_WAITING; }));
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 6);
    CHECK(calls[4][0].virtual_key == 0x11);
    CHECK(calls[4][0].flags == 2);
    CHECK_FALSE(calls[5][0].keyboard);
    CHECK(calls[5][0].flags == 4);
    stop_direct();
}

TEST_CASE("a control thread that is stuck does not hold the next session up")
{
    start_direct();
    test_viewer first;
    first.join_direct("secret", 3, "first");
    first.send_key(0x10010);
    REQUIRE(wait_until([] { return input_record_calls().size() == 1; }));
    input_record_block_next();
    first.send_key(0x10041);
    first.send_key(0x10042); // waits behind it
    REQUIRE(wait_until(input_record_blocked));
    first.close();
    uint8_t colour = 0;
    CHECK(wait_until([&] { // the frames of a changing screen find the connection broken
        desktop_paint(++colour);
        return count_lines(DISCONNECTED) == 1;
    }));

    // The server waits for a second, releases what it knows and goes on.
    test_viewer second;
    second.join_direct("secret", 3, "second");
    REQUIRE(input_record_blocked());
    CHECK(thread_script_join_limit() == 1000);
    auto calls = input_record_calls();
    REQUIRE(calls.size() == 2);
    CHECK(calls[1][0].virtual_key == 0x10);
    CHECK(calls[1][0].flags == 2);
    second.send_key(0x10043);
    CHECK(wait_until([] { return input_record_calls().size() == 3; }));

    // The late press comes, is taken back, and that is all that is left of the session.
    input_record_unblock();
    CHECK(wait_until([] { return input_record_calls().size() == 5; }));
    pass(50);
    calls = input_record_calls();
    REQUIRE(calls.size() == 5);
    CHECK(calls[3][0].virtual_key == 0x41);
    CHECK(calls[3][0].flags == 0);
    CHECK(calls[4][0].virtual_key == 0x41);
    CHECK(calls[4][0].flags == 2);

    second.send_key(0x43);
    CHECK(wait_until([] { return input_record_calls().size() == 6; }));
    CHECK(count_lines(DISCONNECTED) == 1);
    second.close();
    CHECK(wait_line(DISCONNECTED, 2));
    stop_direct();
}

TEST_CASE("a control thread that cannot be had ends its session, and only that")
{
    start_direct();
    thread_script_refuse_next();
    {
        test_viewer v;
        CHECK(v.join_direct().width == 200);
        v.drain();
    }
    CHECK(wait_line(DISCONNECTED));
    CHECK(server_lines() == lines{"server up on port 7777, dxgi=0",
                                  "client connected: viewer-box, caps=3 (text=1 cache=1)",
                                  NO_TILES, DISCONNECTED});
    CHECK(wait_until([] { return last_state() == HOST_WAITING; }));
    CHECK(identity_script_peer_name().empty());
    serve_one_more();
    stop_direct();
}

TEST_CASE("a session without memory ends after its hello, and only that")
{
    start_direct();
    refuse_session = true;
    {
        test_viewer v;
        CHECK(v.join_direct().width == 200);
        v.drain();
    }
    CHECK(wait_line(DISCONNECTED));
    CHECK_FALSE(refuse_session);
    CHECK(wait_until([] { return last_state() == HOST_WAITING; }));
    CHECK(identity_script_states() == std::vector<int32_t>{1, 2, 0, 1});
    CHECK(identity_script_peer_name().empty());
    CHECK(channel_is_clean());
    serve_one_more();
    stop_direct();
}

TEST_CASE("an oversize message ends the session")
{
    start_direct();
    test_viewer v;
    v.join_direct();
    uint8_t head[8];
    store_le32(head, MSG_KEY);
    store_le32(head + 4, 65537);
    REQUIRE(channel_send(&v.channel.sender, head, sizeof head));
    v.drain();
    CHECK(wait_line(DISCONNECTED));
    serve_one_more();
    stop_direct();
}

// ---------------------------------------------------------------------------------------
// The relay

namespace
{
// A relay for one host: takes its registration, and is then whatever the test lets it be.
// To pair a viewer with the host the test simply speaks as the viewer on the connection.
struct test_relay {
    net_socket listener;

    test_relay() : listener(net_listen(RELAY_PORT, 1))
    {
        REQUIRE(listener != NET_INVALID);
    }

    ~test_relay()
    {
        net_close(listener);
    }

    // The next registration's connection.
    net_socket take()
    {
        net_socket sock = net_accept(listener);
        REQUIRE(sock != NET_INVALID);
        uint8_t hello[56];
        REQUIRE(net_recv_all(sock, hello, sizeof hello, {}));
        uint8_t expected[56] = {'Q', 'V', 'R', 'L', 2, 'H'};
        memcpy(expected + 6, "123456789", 9);
        memcpy(expected + 24, "host-box", 8);
        CHECK(memcmp(hello, expected, sizeof hello) == 0);
        return sock;
    }
};
} // namespace

static const char UP_VIA_RELAY[] =
    "server up via relay 127.0.0.1:7000 room '123456789', dxgi=0";
static const char REGISTERED[] =
    "relay: connected to 127.0.0.1:7000, room '123456789', waiting for a viewer";

static void start_relayed()
{
    net_start();
    prepare(1);
    launch();
    REQUIRE(wait_line(UP_VIA_RELAY));
}

TEST_CASE("a relayed host registers, serves one viewer and registers again")
{
    net_start();
    test_relay relay;
    start_relayed();
    for (int session = 1; session <= 2; session++) {
        CAPTURE(session);
        test_viewer v;
        v.sock = relay.take();
        CHECK(wait_line(REGISTERED, session));
        CHECK(last_state() == HOST_WAITING);
        CHECK(stays_silent(v.sock, 100)); // the host speaks second
        CHECK(find_listener() == NET_INVALID);
        REQUIRE(v.log_in("secret"));
        v.send_hello();
        CHECK(v.receive_hello().width == 200);
        int value = 0;
        net_socket sock = find_peer(v.sock);
        CHECK(socket_option(sock, SOL_SOCKET, SO_KEEPALIVE, &value));
        CHECK(value != 0);
        CHECK(socket_option(sock, IPPROTO_TCP, TCP_NODELAY, &value));
        CHECK(value != 0);
        v.close();
        CHECK(wait_line(DISCONNECTED, session));
    }
    test_viewer v;
    v.sock = relay.take();
    host::host_stop();
    CHECK(join_server() == 0);
    lines expected = {UP_VIA_RELAY};
    for (int session = 1; session <= 2; session++)
        for (const char *line :
             {REGISTERED, "client connected: viewer-box, caps=3 (text=1 cache=1)", NO_TILES,
              DISCONNECTED})
            expected.push_back(line);
    expected.push_back(REGISTERED);
    expected.push_back(AUTH_FAILED); // the stopped wait
    CHECK(server_lines() == expected);
}

TEST_CASE("a registered host waits for ever, and checks its password when a viewer comes")
{
    net_start();
    test_relay relay;
    start_relayed();
    test_viewer v;
    v.sock = relay.take();
    CHECK(wait_line(REGISTERED));
    identity_script_password_is_due("fresh");
    pass(50);
    clock_put_forward(86400000);
    pass(100);
    CHECK(identity_script_rotation_checks() == 0);
    CHECK(v.log_in("fresh"));
    CHECK(identity_script_rotation_checks() == 1);

    // The deadline counts from the first byte.
    clock_put_forward(14000);
    v.send_hello();
    CHECK(v.receive_hello().width == 200);
    v.close();
    CHECK(wait_line(DISCONNECTED));

    v.sock = relay.take();
    uint8_t byte = 1;
    CHECK(net_send_once(v.sock, &byte, 1));
    REQUIRE(wait_until([] { return identity_script_rotation_checks() == 2; }));
    pass(50);
    clock_put_forward(15001);
    CHECK(net_send_once(v.sock, &byte, 1));
    CHECK(wait_line(AUTH_FAILED));

    host::host_stop();
    CHECK(join_server() == 0);
}

TEST_CASE("a relay that drops the waiting host sees it again")
{
    net_start();
    test_relay relay;
    start_relayed();
    net_socket sock = relay.take();
    CHECK(wait_line(REGISTERED));
    uint32_t before = clock_ms();
    net_close(sock);
    CHECK(wait_line(AUTH_FAILED));
    CHECK(identity_script_rotation_checks() == 0); // no viewer came
    sock = relay.take();
    CHECK(clock_ms() - before >= 300);
    CHECK(wait_line(REGISTERED, 2));
    CHECK(identity_script_states() == std::vector<int32_t>{1, 1});
    net_close(sock);
    CHECK(wait_line(AUTH_FAILED, 2));
    host::host_stop();
    CHECK(join_server() == 0);
}

TEST_CASE("a stop just before the host is registered does not leave it waiting")
{
    net_start();
    test_relay relay;
    prepare(1);
    static int asked;
    asked = 0;
    identity_script_on_relay([] {
        if (++asked == 2) // the first pass: there is no connection yet to be ended
            host::host_stop();
    });
    launch();
    CHECK(join_server() == 0);
    CHECK(server_lines() == lines{UP_VIA_RELAY, REGISTERED, AUTH_FAILED});
}

static int relay_failures()
{
    int count = 0;
    for (auto &line : server_lines())
        count += line.compare(0, 37, "relay: connect 127.0.0.1:7000 failed ") == 0;
    return count;
}

TEST_CASE("a relay out of reach is tried every 3 seconds while the tick count wraps")
{
    start_relayed();
    REQUIRE(wait_until([] { return relay_failures() >= 1; }));
    for (uint32_t before : {3001u, 3000u, 2999u, 1500u, 1u, 0u}) {
        CAPTURE(before);
        int last = relay_failures();
        clock_put_before_wrap(before); // which ends the pause
        REQUIRE(wait_until([&] { return relay_failures() == last + 1; }));
        pass(100);
        clock_put_forward(1500);
        pass(150);
        CHECK(relay_failures() == last + 1);
        clock_put_forward(1500);
        CHECK(wait_until([&] { return relay_failures() == last + 2; }));
    }
    host::host_stop();
    CHECK(join_server() == 0);
}

TEST_CASE("a relay out of reach is tried every 3 seconds")
{
    start_relayed();
    REQUIRE(wait_until([&] { return relay_failures() == 1; }));
    CHECK(server_lines()[0] == UP_VIA_RELAY);
    for (int n = 1; n <= 3; n++) {
        pass(100);
        clock_put_forward(2500);
        pass(150);
        CHECK(relay_failures() == n);
        clock_put_forward(500);
        CHECK(wait_until([&] { return relay_failures() == n + 1; }));
    }
    CHECK(last_state() == HOST_WAITING);

    // A relay that comes up is found.
    {
        test_relay relay;
        clock_put_forward(3000);
        net_socket sock = relay.take();
        CHECK(wait_line(REGISTERED));
        net_close(sock);
        CHECK(wait_line(AUTH_FAILED));
    }

    // The pause ends with the server.
    int before = relay_failures();
    REQUIRE(wait_until([&] { return relay_failures() > before; }));
    uint32_t start = clock_ms();
    host::host_stop();
    CHECK(join_server() == 0);
    CHECK(clock_ms() - start < 1500);
}
