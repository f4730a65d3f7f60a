// Fakes: window_none allocation_limit cache_disk_memory
// Labels: threaded
//
// Sessions with a scripted host, over real connections. The session runs on the test's
// thread, the host on another.
#include "viewer/viewer_session.h"

#include "protocol/clock.h"
#include "protocol/computer_name.h"
#include "protocol/handshake.h"
#include "protocol/messages.h"
#include "tests/fakes/cache_disk_memory.h"
#include "tests/fakes/window_none.h"
#include "tests/socket_pair.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <atomic>
#include <fcntl.h>
#include <functional>
#include <string.h>
#include <string>
#include <thread>
#include <vector>
#ifdef _WIN32
#include "protocol/win32.h"
#include <io.h>
#include <process.h>
using native_socket = SOCKET;
using length_type = int;
#else
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
using native_socket = int;
using length_type = socklen_t;
#endif

using namespace viewer;
using bytes = std::vector<uint8_t>;

namespace
{

const std::string AUTH_FAILED = "authentication failed (wrong password, or host not online)";
const std::string EMPTY_CACHE = "tile cache: 0 tiles resident from earlier sessions\n";
constexpr net_deadline NO_DEADLINE = {};

// Standard output goes to a file while this lives. The file shows what has left the
// program, so a line that was printed but not flushed is missing.
struct captured_output {
    std::string path;
    int saved;

    captured_output()
    {
#ifdef _WIN32
        path = "viewer_session_test." + std::to_string(_getpid()) + ".out";
#else
        path = "viewer_session_test." + std::to_string(getpid()) + ".out";
#endif
        fflush(stdout);
        saved = dup(1);
        int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        REQUIRE(file >= 0);
        dup2(file, 1);
        close(file);
    }

    ~captured_output()
    {
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
        remove(path.c_str());
    }

    std::string text() const
    {
        std::string result;
        FILE *file = fopen(path.c_str(), "rb");
        for (int c; file && (c = fgetc(file)) != EOF;) {
            if (c != '\r')
                result += (char)c;
        }
        if (file)
            fclose(file);
        return result;
    }
};

char host_password[PASSWORD_MAX + 1] = "secret";

void read_host_password(char password[PASSWORD_MAX + 1])
{
    memcpy(password, host_password, sizeof host_password);
}

// One connection, seen from the host.
struct host_end {
    net_socket sock;
    secure_channel channel;

    bool send(const bytes &data)
    {
        return channel_send(&channel.sender, data.data(), data.size());
    }

    bool send_raw(const bytes &data)
    {
        return net_send_all(sock, data.data(), data.size());
    }

    // n bytes of the session's stream, fewer at its end.
    bytes recv(size_t n)
    {
        bytes data(n);
        if (!channel_recv(&channel.receiver, data.data(), n))
            data.clear();
        return data;
    }

    bytes recv_raw(size_t n)
    {
        bytes data(n);
        if (!net_recv_all(sock, data.data(), n, NO_DEADLINE))
            data.clear();
        return data;
    }

    // Waits until the viewer has gone.
    void wait_end()
    {
        while (recv(1).size() == 1) {
        }
    }

    bool handshake()
    {
        return handshake_as_host(&channel, sock, read_host_password, NO_DEADLINE);
    }
};

bytes message(uint32_t type_word, const bytes &payload)
{
    bytes m(8 + payload.size());
    store_le32(m.data(), type_word);
    store_le32(m.data() + 4, (uint32_t)payload.size());
    if (!payload.empty())
        memcpy(m.data() + 8, payload.data(), payload.size());
    return m;
}

bytes hello_payload(int32_t width, int32_t height, uint16_t caps = 3, const char *name = "HOST")
{
    bytes payload(SERVER_HELLO_BYTES);
    put_server_hello(payload.data(), width, height, caps, name);
    return payload;
}

bytes hello(int32_t width, int32_t height, uint16_t caps = 3, const char *name = "HOST")
{
    return message(MSG_SERVER_HELLO, hello_payload(width, height, caps, name));
}

// What one call of viewer_session_run did.
struct session_outcome {
    int result;
    std::string error;
    std::string printed;
};

// What a session is asked for.
struct session_request {
    const char *password = "secret";
    bool via_relay = false;
    const char *host_id = "123456789";
};

// Everything that a session holds is gone when it is over.
void check_nothing_left() NO_THREAD_SAFETY_ANALYSIS
{
    secure_channel closed = {};
    CHECK(memcmp(&viewer_channel, &closed, sizeof closed) == 0);
    CHECK(frame.frame_pixels == nullptr);
    CHECK(frame.text_cells == nullptr);
    CHECK(frame.text_scratch == nullptr);
    CHECK_FALSE(tile_cache.cache_enabled);
    CHECK(tile_cache.cache_tiles == nullptr);
}

session_outcome run_session(const char *host, const char *port, session_request request)
{
    captured_output output;
    char error[128] = "";
    int result = viewer_session_run(host, port, request.via_relay, request.host_id,
                                    request.password, error, sizeof error);
    return {result, error, output.text()};
}

// Runs a session with a host that does this once it is connected, and then hangs up.
session_outcome run_with_host(const std::function<void(host_end &)> &script,
                              session_request request = {})
{
    window_none_reset();
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    std::thread host([&] {
        host_end end = {};
        end.sock = net_accept(listener);
        script(end);
        net_abort(end.sock);
        channel_reset(&end.channel);
        net_close(end.sock);
    });
    session_outcome outcome = run_session("127.0.0.1", std::to_string(port).c_str(), request);
    host.join();
    net_close(listener);
    check_nothing_left();
    return outcome;
}

// The script of a session that starts well: the hellos, the window, then `rest`.
std::function<void(host_end &)> greeting(int32_t width, int32_t height, uint16_t caps,
                                         const std::function<void(host_end &)> &rest)
{
    return [=](host_end &h) {
        if (!h.handshake() || h.recv(42).size() != 42 || !h.send(hello(width, height, caps)) ||
            !window_none_wait_opened(1))
            return;
        rest(h);
    };
}

// The callback of the application.
std::string connected_name, connected_id, printed_by_then;
const captured_output *output_to_look_at;

void note_connected(const char *name, const char *id)
{
    connected_name = name;
    connected_id = id;
    if (output_to_look_at)
        printed_by_then = output_to_look_at->text();
}

} // namespace

// --- failures before there is a session ---

TEST_CASE("a name that does not resolve is reported")
{
    struct {
        const char *host, *port;
    } const rows[] = {{"127.0.0.1", "no-such-service"}, {"nowhere.invalid", "7777"}};
    for (const auto &row : rows) {
        for (bool via_relay : {false, true}) {
            CAPTURE(row.host);
            CAPTURE(via_relay);
            session_request request;
            request.via_relay = via_relay;
            session_outcome o = run_session(row.host, row.port, request);
            CHECK(o.result == 1);
            CHECK(o.error == "cannot resolve host");
            CHECK(o.printed == "cannot resolve host\n");
            check_nothing_left();
        }
    }
}

TEST_CASE("a port where nobody listens is reported")
{
    uint16_t port = 0;
    net_close(test_listen(&port, 1));
    for (bool via_relay : {false, true}) {
        CAPTURE(via_relay);
        session_request request;
        request.via_relay = via_relay;
        session_outcome o = run_session("127.0.0.1", std::to_string(port).c_str(), request);
        CHECK(o.result == 1);
        CHECK(o.error == "connection failed");
        CHECK(o.printed == "connection failed\n");
        check_nothing_left();
    }
}

TEST_CASE("every failure of the handshake gets the same words")
{
    struct {
        const char *what;
        std::function<void(host_end &)> script;
    } const rows[] = {
        {"hangs up at once", [](host_end &) {}},
        {"hangs up after the viewer's key", [](host_end &h) { h.recv_raw(32); }},
        {"a key cut short",
         [](host_end &h) {
             h.recv_raw(32);
             h.send_raw(bytes(31, 9));
         }},
        {"no confirmation",
         [](host_end &h) {
             h.recv_raw(32);
             h.send_raw(bytes(32, 9));
             h.recv_raw(16);
         }},
        {"a confirmation out of thin air",
         [](host_end &h) {
             h.recv_raw(32);
             h.send_raw(bytes(32, 9));
             h.recv_raw(16);
             h.send_raw(bytes(16, 9));
         }},
        {"a key that makes the shared secret zero",
         [](host_end &h) {
             h.recv_raw(32);
             h.send_raw(bytes(32, 0));
             h.recv_raw(16);
         }},
        {"another password",
         [](host_end &h) {
             strcpy(host_password, "Secret");
             h.handshake();
             strcpy(host_password, "secret");
         }},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        session_outcome o = run_with_host(row.script);
        CHECK(o.result == 1);
        CHECK(o.error == AUTH_FAILED);
        CHECK(o.printed == AUTH_FAILED + "\n");
        CHECK(window_none_opened() == 0);
    }
}

TEST_CASE("a bad hello is reported, whatever is bad about it")
{
    bytes longer = hello_payload(64, 64);
    longer.push_back(0);
    bytes shorter = hello_payload(64, 64);
    shorter.pop_back();
    bytes whole = hello(64, 64);
    struct {
        const char *what;
        bytes sent;
    } const rows[] = {
        {"none", {}},
        {"half a header", bytes(whole.begin(), whole.begin() + 4)},
        {"a header alone", bytes(whole.begin(), whole.begin() + 8)},
        {"cut short", bytes(whole.begin(), whole.end() - 1)},
        {"another type", message(MSG_FRAME_END, hello_payload(64, 64))},
        {"type 0x81", message(0x81, hello_payload(64, 64))},
        {"45 bytes", message(MSG_SERVER_HELLO, longer)},
        {"43 bytes", message(MSG_SERVER_HELLO, shorter)},
        {"no bytes", message(MSG_SERVER_HELLO, {})},
        {"width 0", hello(0, 64)},
        {"height 0", hello(64, 0)},
        {"negative", hello(-64, 64)},
        {"most negative", hello(64, INT32_MIN)},
        {"beyond the largest that rounds up", hello(0x7FFFFFC1, 64)},
        {"largest number", hello(INT32_MAX, INT32_MAX)},
        {"more than any memory", hello(0x7FFFFFC0, 0x7FFFFFC0)},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        session_outcome o = run_with_host([&](host_end &h) {
            if (h.handshake() && h.recv(42).size() == 42)
                h.send(row.sent);
        });
        CHECK(o.result == 1);
        CHECK(o.error == "bad hello from host");
        CHECK(o.printed == "bad hello from host\n");
        CHECK(window_none_opened() == 0);
    }
}

TEST_CASE("a hello that is not sealed is a bad one")
{
    session_outcome o = run_with_host([](host_end &h) {
        if (h.handshake())
            h.send_raw(hello(64, 64));
    });
    CHECK(o.result == 1);
    CHECK(o.error == "bad hello from host");
}

TEST_CASE("the error text fits its buffer, and there may be none")
{
    uint16_t port = 0;
    net_close(test_listen(&port, 1));
    std::string service = std::to_string(port);
    struct {
        int32_t size;
        const char *expected; // null: the buffer stays as it is
    } const rows[] = {
        {18, "connection failed"},
        {17, "connection faile"},
        {1, ""},
        {0, nullptr},
        {-1, nullptr},
        {INT32_MIN, nullptr},
    };
    for (const auto &row : rows) {
        CAPTURE(row.size);
        captured_output output;
        char text[32];
        memset(text, '#', sizeof text);
        CHECK(viewer_session_run("127.0.0.1", service.c_str(), false, nullptr, nullptr, text,
                                 row.size) == 1);
        CHECK(output.text() == "connection failed\n");
        size_t used = row.expected ? strlen(row.expected) + 1 : 0;
        if (row.expected)
            CHECK(std::string(text) == row.expected);
        for (size_t i = used; i < sizeof text; i++)
            REQUIRE(text[i] == '#');
    }
    captured_output output;
    CHECK(viewer_session_run("127.0.0.1", service.c_str(), false, nullptr, nullptr, nullptr,
                             100) == 1);
    CHECK(output.text() == "connection failed\n");
}

// --- sessions ---

TEST_CASE("a session says whom it reached, and ends with its window")
{
    bytes client_hello_sent;
    on_connected = note_connected;
    session_outcome o = run_with_host([&](host_end &h) {
        if (!h.handshake())
            return;
        client_hello_sent = h.recv(42);
        h.send(hello(1366, 768, 3, "WORKSHOP"));
        if (window_none_wait_opened(1))
            window_none_close();
        h.wait_end();
    });
    on_connected = nullptr;
    CHECK(o.result == 0);
    CHECK(o.error == "");
    CHECK(o.printed == "connected to WORKSHOP (1366x768)\n" + EMPTY_CACHE);
    CHECK(connected_name == "WORKSHOP");
    CHECK(connected_id == "123456789");
    CHECK(window_none_title() == "WORKSHOP");

    bytes expected = {0x80, 0, 0, 0, 34, 0, 0, 0, 3, 0};
    char name[NAME_BYTES];
    computer_name_get(name);
    expected.insert(expected.end(), name, name + NAME_BYTES);
    CHECK(client_hello_sent == expected);
}

TEST_CASE("a host's name of 32 characters needs no terminator")
{
    const char name[] = "0123456789abcdef0123456789ABCDEF";
    session_outcome o = run_with_host([&](host_end &h) {
        if (h.handshake() && h.recv(42).size() == 42)
            h.send(message(0x5A5A5A00 | MSG_SERVER_HELLO, hello_payload(1, 1, 3, name)));
    });
    CHECK(o.result == 0); // the host hung up, which closes the window
    CHECK(o.printed == "connected to 0123456789abcdef0123456789ABCDEF (1x1)\n" + EMPTY_CACHE);
    CHECK(window_none_title() == name);
}

TEST_CASE("every line has left the program before the session goes on")
{
    window_none_reset();
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    std::string service = std::to_string(port);
    std::string printed_while_waiting;
    on_connected = note_connected;
    {
        captured_output output;
        std::thread host([&] {
            host_end h = {};
            h.sock = net_accept(listener);
            h.recv_raw(56);
            if (net_wait_readable(h.sock)) // the viewer is in its handshake
                printed_while_waiting = output.text();
            if (h.handshake() && h.recv(42).size() == 42)
                h.send(hello(64, 64));
            net_abort(h.sock);
            channel_reset(&h.channel);
            net_close(h.sock);
        });
        output_to_look_at = &output;
        CHECK(viewer_session_run("127.0.0.1", service.c_str(), true, "7", "secret", nullptr,
                                 0) == 0);
        output_to_look_at = nullptr;
        host.join();
    }
    on_connected = nullptr;
    net_close(listener);
    std::string waiting = "via relay 127.0.0.1:" + service + ", ID 7, waiting for host...\n";
    CHECK(printed_while_waiting == waiting);
    CHECK(printed_by_then == waiting + "connected to HOST (64x64)\n");
}

TEST_CASE("a direct connection without an ID reports the empty one")
{
    connected_id = "unset";
    on_connected = note_connected;
    session_request request;
    request.host_id = nullptr;
    session_outcome o = run_with_host(greeting(64, 64, 3, [](host_end &) {}), request);
    on_connected = nullptr;
    CHECK(o.result == 0);
    CHECK(connected_id == "");
}

// The session's socket, looked at by the callback while it lives.
static net_socket session_socket;

static bool read_option(int level, int name, void *value, length_type size)
{
    return getsockopt((native_socket)session_socket, level, name, (char *)value, &size) == 0;
}

static int option(int level, int name)
{
    int value = 0;
    CHECK(read_option(level, name, &value, sizeof value));
    return value;
}

static void check_socket(const char *, const char *)
{
    session_socket = viewer_channel.sender.sock;
    CHECK(option(SOL_SOCKET, SO_TYPE) == SOCK_STREAM);
    CHECK(option(IPPROTO_TCP, TCP_NODELAY) != 0);
    CHECK(option(SOL_SOCKET, SO_KEEPALIVE) != 0);
#ifdef _WIN32
    CHECK(option(SOL_SOCKET, SO_SNDTIMEO) == 10000);
    CHECK(option(SOL_SOCKET, SO_RCVTIMEO) == 0);
    CHECK(option(SOL_SOCKET, SO_RCVBUF) == 1048576);
#else
    timeval time = {};
    CHECK(read_option(SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time));
    CHECK(time.tv_sec == 10);
    CHECK(read_option(SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time));
    CHECK(time.tv_sec == 0);
    CHECK(option(IPPROTO_TCP, TCP_KEEPIDLE) == 60);
    CHECK(option(IPPROTO_TCP, TCP_KEEPINTVL) == 10);
    // Linux grants up to a limit, and reports twice what it took.
    int limit = 0;
    FILE *file = fopen("/proc/sys/net/core/rmem_max", "r");
    REQUIRE(file);
    REQUIRE(fscanf(file, "%d", &limit) == 1);
    fclose(file);
    CHECK(option(SOL_SOCKET, SO_RCVBUF) == 2 * (limit < 1048576 ? limit : 1048576));
#endif
}

TEST_CASE("the socket has its options, and is closed when the session is over")
{
    session_socket = NET_INVALID;
    on_connected = check_socket;
    session_outcome o = run_with_host(greeting(64, 64, 3, [](host_end &) {}));
    on_connected = nullptr;
    CHECK(o.result == 0);
    REQUIRE(session_socket != NET_INVALID);
    int type = 0;
    CHECK_FALSE(read_option(SOL_SOCKET, SO_TYPE, &type, sizeof type));
}

TEST_CASE("no password is the empty one")
{
    session_request request;
    request.password = nullptr;
    host_password[0] = 0;
    session_outcome o = run_with_host(greeting(64, 64, 3, [](host_end &) {}), request);
    strcpy(host_password, "secret");
    CHECK(o.result == 0);
}

TEST_CASE("through a relay the room is asked for first")
{
    struct {
        const char *id, *room, *printed, *reported;
    } const rows[] = {
        {"123456789", "123456789", "123456789", "123456789"},
        {"123456789012345678", "123456789012345678", "123456789012345678",
         "123456789012345678"},
        {"12345678901234567890", "123456789012345678", "12345678901234567890",
         "123456789012345678"},
        {"", "", "", ""},
        {nullptr, "", "", ""},
    };
    for (const auto &row : rows) {
        CAPTURE(row.room);
        session_request request;
        request.via_relay = true;
        request.host_id = row.id;
        bytes relay_hello_sent;
        on_connected = note_connected;
        connected_id = "unset";
        session_outcome o = run_with_host(
            [&](host_end &h) {
                relay_hello_sent = h.recv_raw(56);
                greeting(64, 64, 3, [](host_end &) {})(h);
            },
            request);
        on_connected = nullptr;
        CHECK(o.result == 0);
        CHECK(connected_id == row.reported);
        CHECK(o.printed.find("via relay 127.0.0.1:") == 0);
        CHECK(o.printed.find(std::string(", ID ") + row.printed +
                             ", waiting for host...\nconnected to ") != std::string::npos);

        char name[NAME_BYTES];
        computer_name_get(name);
        bytes expected(24 + NAME_BYTES);
        memcpy(&expected[0], "QVRL\2V", 6);
        memcpy(&expected[6], row.room, strlen(row.room));
        memcpy(&expected[24], name, NAME_BYTES);
        CHECK(relay_hello_sent == expected);
    }
}

TEST_CASE("a relay that hangs up is a failed handshake")
{
    session_request request;
    request.via_relay = true;
    session_outcome o = run_with_host([](host_end &h) { h.recv_raw(56); }, request);
    CHECK(o.result == 1);
    CHECK(o.error == AUTH_FAILED);
    CHECK(o.printed.find("via relay ") == 0);
}

TEST_CASE("frames reach the picture and are answered")
{
    bytes tile(TILE_HEAD_BYTES + TILE_BYTES, 0x5A);
    put_tile_head(tile.data(), {1, 0, 1, 0});
    uint8_t shown[2] = {};
    bytes answer;
    session_outcome o = run_with_host(greeting(100, 64, 3, [&](host_end &h) {
        bytes all = message(MSG_TILE, tile);
        bytes end = message(MSG_FRAME_END, {1, 0, 0, 0, 9, 9, 9, 9});
        all.insert(all.end(), end.begin(), end.end());
        h.send(all);
        answer = h.recv(16);
        lock_enter(&frame_lock);
        shown[0] = frame.frame_pixels[63 * 4];
        shown[1] = frame.frame_pixels[64 * 4];
        lock_leave(&frame_lock);
        window_none_close();
        h.wait_end();
    }));
    CHECK(o.result == 0);
    CHECK(answer == message(MSG_FRAME_ACK, {1, 0, 0, 0, 9, 9, 9, 9}));
    CHECK(shown[0] == 0);
    CHECK(shown[1] == 0x5A);
    CHECK(window_none_repaints() == 1);
}

TEST_CASE("the cache serves references only when the host grants it")
{
    bytes tile(TILE_HEAD_BYTES + TILE_BYTES, 0x5A);
    put_tile_head(tile.data(), {0, 0, 1, 99});
    bytes ref(TILE_REF_BYTES);
    put_tile_ref(ref.data(), {0, 0, 99});
    bytes ack = message(MSG_FRAME_ACK, bytes(8));
    for (uint16_t caps = 0; caps < 4; caps++) {
        CAPTURE(caps);
        bytes answer;
        session_outcome o = run_with_host(greeting(64, 64, caps, [&](host_end &h) {
            h.send(message(MSG_TILE, tile));
            h.send(message(MSG_TILE_REF, ref));
            h.send(message(MSG_FRAME_END, bytes(8)));
            answer = h.recv(16);
            if (answer != ack) { // then it is the beginning of a miss: 4 bytes more
                bytes more = h.recv(4);
                answer.insert(answer.end(), more.begin(), more.end());
            }
        }));
        CHECK(o.result == 0);
        CHECK(answer == (caps & CAP_TILE_CACHE ? ack : message(MSG_CACHE_MISS, ref)));
    }
}

TEST_CASE("the end of the connection closes the window, however it comes")
{
    struct {
        const char *what;
        std::function<void(host_end &)> rest;
    } const rows[] = {
        {"hangs up", [](host_end &) {}},
        {"hangs up inside a message",
         [](host_end &h) {
             h.send({MSG_TILE, 0, 0, 0, 99, 0, 0, 0, 1, 2});
         }},
        {"bytes that are no record",
         [](host_end &h) {
             h.send_raw(bytes(4096, 0x10));
             h.wait_end();
         }},
        {"an oversize record",
         [](host_end &h) {
             h.send_raw({1, 0, 0, 1}); // 16777217
             h.wait_end();
         }},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        session_outcome o = run_with_host(greeting(64, 64, 3, row.rest));
        CHECK(o.result == 0);
        CHECK(o.error == "");
        CHECK(o.printed == "connected to HOST (64x64)\n" + EMPTY_CACHE);
        CHECK(window_none_close_requests() == 1);
    }
}

TEST_CASE("a message loop that ends by itself ends the connection and all that the session has")
{
    bool gone = false;
    session_outcome o = run_with_host(greeting(64, 64, 3, [&](host_end &h) {
        window_none_quit();
        gone = h.recv(1).empty();
    }));
    CHECK(o.result == 0);
    CHECK(gone);
}

TEST_CASE("closing the window does not wait for a host that is in the middle of a message")
{
    std::atomic<bool> over = false;
    bool over_before_host = false;
    window_none_reset();
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    std::thread host([&] {
        host_end h = {};
        h.sock = net_accept(listener);
        greeting(64, 64, 3, [](host_end &end) {
            end.send({MSG_TILE, 0, 0, 0, 0, 0, 16, 0, 1, 2}); // 1 MiB announced, 2 bytes sent
            clock_sleep_ms(50);                               // the receive thread waits
            window_none_close();
        })(h);
        for (int i = 0; i < 1000 && !over; i++)
            clock_sleep_ms(10);
        over_before_host = over;
        net_abort(h.sock);
        channel_reset(&h.channel);
        net_close(h.sock);
    });
    session_outcome o = run_session("127.0.0.1", std::to_string(port).c_str(), {});
    over = true;
    host.join();
    net_close(listener);
    CHECK(o.result == 0);
    CHECK(over_before_host);
    check_nothing_left();
}

TEST_CASE("closing the window does not wait for a host that reads nothing")
{
    std::atomic<bool> over = false;
    uint32_t ms_to_close = 0;
    uint32_t frames = 0;
    window_none_reset();
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    std::thread host([&] {
        host_end h = {};
        h.sock = net_accept(listener);
        net_set_recv_buffer(h.sock, 4096);
        greeting(64, 64, 3, [&](host_end &end) {
            // More frame ends than answers fit on their way: the receive thread comes to
            // stand in a send, with the frame lock held.
            bytes ends;
            for (int i = 0; i < 500000; i++) {
                const uint8_t one[16] = {MSG_FRAME_END, 0, 0, 0, 8};
                ends.insert(ends.end(), one, one + 16);
            }
            end.send(ends);
            do {
                frames = statistics.stat_frames;
                clock_sleep_ms(300);
            } while (frames == 0 || frames != statistics.stat_frames);
            uint32_t closed_at = clock_ms();
            window_none_close();
            while (!over)
                clock_sleep_ms(10);
            ms_to_close = clock_ms() - closed_at;
        })(h);
        net_abort(h.sock);
        channel_reset(&h.channel);
        net_close(h.sock);
    });
    session_outcome o = run_session("127.0.0.1", std::to_string(port).c_str(), {});
    over = true;
    host.join();
    net_close(listener);
    CHECK(o.result == 0);
    CHECK(frames < 500000);
    // Not ended by the send time-out, which is ten seconds.
    CHECK(ms_to_close < 8000);
    check_nothing_left();
}

TEST_CASE("closing the window does not wait for the work that a host has sent")
{
    // One record full of whole-screen moves: minutes of work.
    std::atomic<bool> over = false;
    uint32_t ms_to_close = 0;
    window_none_reset();
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    std::thread host([&] {
        host_end h = {};
        h.sock = net_accept(listener);
        greeting(1920, 1080, 3, [&](host_end &end) {
            bytes moves(600000 * COPY_RECT_BYTES);
            for (size_t at = 0; at < moves.size(); at += COPY_RECT_BYTES)
                put_copy_rect(
                    &moves[at],
                    {.src_x = 0, .src_y = 0, .dst_x = 0, .dst_y = 1, .w = 1920, .h = 1079});
            end.send(message(MSG_COPY_RECTS, moves));
            while (statistics.stat_bytes < moves.size()) // until it is being applied
                clock_sleep_ms(1);
            uint32_t closed_at = clock_ms();
            window_none_close();
            while (!over)
                clock_sleep_ms(10);
            ms_to_close = clock_ms() - closed_at;
        })(h);
        net_abort(h.sock);
        channel_reset(&h.channel);
        net_close(h.sock);
    });
    session_outcome o = run_session("127.0.0.1", std::to_string(port).c_str(), {});
    over = true;
    host.join();
    net_close(listener);
    CHECK(o.result == 0);
    CHECK(ms_to_close < 60000);
    check_nothing_left();
}

TEST_CASE("a window that cannot be created ends the session in silence")
{
    bool gone = false;
    captured_output output;
    window_none_reset();
    window_none_refuse();
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    std::thread host([&] {
        host_end h = {};
        h.sock = net_accept(listener);
        if (h.handshake() && h.recv(42).size() == 42) {
            h.send(hello(64, 64));
            gone = h.recv(1).empty();
        }
        channel_reset(&h.channel);
        net_close(h.sock);
    });
    char error[16] = "as it was";
    CHECK(viewer_session_run("127.0.0.1", std::to_string(port).c_str(), false, "1", "secret",
                             error, sizeof error) == 1);
    host.join();
    net_close(listener);
    CHECK(gone);
    CHECK(std::string(error) == "as it was");
    CHECK(output.text() == "connected to HOST (64x64)\n" + EMPTY_CACHE);
    check_nothing_left();
}

TEST_CASE("one session follows another in the same process")
{
    bytes ref(TILE_REF_BYTES);
    put_tile_ref(ref.data(), {0, 0, 99});
    bytes tile(TILE_HEAD_BYTES + TILE_BYTES, 0x5A);
    put_tile_head(tile.data(), {0, 0, 1, 99});

    for (int round = 0; round < 2; round++) {
        int32_t side = 64 + 100 * round;
        bytes answer;
        uint32_t misses = 0;
        session_outcome o = run_with_host(greeting(side, side, 3, [&](host_end &h) {
            h.send(message(MSG_TILE_REF, ref)); // a miss: nothing of a session before is left
            h.send(message(MSG_TILE, tile));
            h.send(message(MSG_TILE_REF, ref));
            h.send(message(MSG_FRAME_END, bytes(8)));
            answer = h.recv(20 + 16);
            misses = statistics.stat_misses;
        }));
        CHECK(o.result == 0);
        CHECK(o.printed == (round == 0 ? "connected to HOST (64x64)\n" + EMPTY_CACHE
                                       : "connected to HOST (164x164)\n" + EMPTY_CACHE));
        bytes expected = message(MSG_CACHE_MISS, ref);
        bytes ack = message(MSG_FRAME_ACK, bytes(8));
        expected.insert(expected.end(), ack.begin(), ack.end());
        CHECK(answer == expected);
        CHECK(misses == 1);

        // A failure in between leaves nothing behind either.
        CHECK(run_with_host([](host_end &) {}).error == AUTH_FAILED);
    }
}

TEST_CASE("a cache that was kept is told before anything else and serves the session")
{
    // Slots 14 and 15 are set 7: what leaves 7 when divided by 4096.
    disk_memory_reset();
    sparse_bytes &file = disk_memory.files[DISK_MEMORY_PATH];
    file.resize(134283280);
    const uint8_t header[16] = {0x31, 0x43, 0x56, 0x51, 0, 0x20, 0, 0, 0, 0x40};
    file.write(0, header, 16);
    const uint8_t keys[16] = {7, 0x10, 0, 0, 0, 0, 0, 0,  // 4096 + 7
                              7, 0x20, 0, 0, 0, 0, 0, 0}; // 8192 + 7
    file.write(16 + 14 * 8, keys, 16);
    file.write(65552 + 15 * 16384, bytes(16384, 0x77).data(), 16384);

    bytes ref(TILE_REF_BYTES);
    put_tile_ref(ref.data(), {0, 0, 8192 + 7});
    bytes advert, answer;
    uint32_t hits = 0, misses = 0;
    session_outcome o = run_with_host(greeting(64, 64, 3, [&](host_end &h) {
        advert = h.recv(8 + 16);
        h.send(message(MSG_TILE_REF, ref));
        h.send(message(MSG_FRAME_END, bytes(8)));
        answer = h.recv(16);
        hits = statistics.stat_hits;
        misses = statistics.stat_misses;
    }));
    CHECK(o.result == 0);
    CHECK(o.printed == "connected to HOST (64x64)\n"
                       "tile cache: 2 tiles resident from earlier sessions\n");
    CHECK(advert == bytes{0x85, 0,    0, 0, 16, 0, 0, 0,   // two hashes
                          7,    0x10, 0, 0, 0,  0, 0, 0,   // 4096 + 7
                          7,    0x20, 0, 0, 0,  0, 0, 0}); // 8192 + 7
    CHECK(answer == message(MSG_FRAME_ACK, bytes(8)));
    CHECK(hits == 1);
    CHECK(misses == 0);
    CHECK(disk_memory.created == 0); // nothing new to keep
    disk_memory_reset(true);
}

TEST_CASE("a host that grants no cache leaves its file alone")
{
    disk_memory_reset();
    session_outcome o = run_with_host(greeting(64, 64, CAP_TEXT_LAYER, [](host_end &) {}));
    CHECK(o.printed == "connected to HOST (64x64)\n");
    CHECK(disk_memory.calls == "");
    disk_memory_reset(true);
}

TEST_CASE("a user without a folder for it has a session without a cache")
{
    disk_memory_reset();
    disk_memory.no_folder = true;
    bool enabled = true;
    session_outcome o = run_with_host(greeting(64, 64, 3, [&](host_end &) {
        lock_enter(&frame_lock);
        enabled = tile_cache.cache_enabled;
        lock_leave(&frame_lock);
    }));
    CHECK(o.result == 0);
    CHECK(o.printed == "connected to HOST (64x64)\n");
    CHECK_FALSE(enabled);
    disk_memory_reset(true);
}

TEST_CASE("what a session brought is in the file when its window has gone")
{
    disk_memory_reset();
    bytes tile(TILE_HEAD_BYTES + TILE_BYTES, 0x5A);
    put_tile_head(tile.data(), {0, 0, 1, 99}); // slot 198, way a of set 99
    session_outcome o = run_with_host(greeting(64, 64, 3, [&](host_end &h) {
        h.send(message(MSG_TILE, tile));
        h.send(message(MSG_FRAME_END, bytes(8)));
        h.recv(16);
    }));
    CHECK(o.result == 0);
    const sparse_bytes &file = disk_memory.files[DISK_MEMORY_PATH];
    REQUIRE(file.size() == 134283280);
    CHECK(file.part(16 + 198 * 8, 8) == bytes{99, 0, 0, 0, 0, 0, 0, 0});
    CHECK(file.part(65552 + 198 * 16384, 16384) == bytes(16384, 0x5A));
    CHECK(disk_memory.files.count(DISK_MEMORY_TEMPORARY) == 0);
    disk_memory_reset(true);
}

TEST_CASE("aborting without a session does nothing")
{
    viewer_session_abort();
    session_outcome o = run_with_host(greeting(64, 64, 3, [](host_end &) {}));
    CHECK(o.result == 0);
    viewer_session_abort();
}
