// Labels: threaded
// Locks: ports
// Fakes: desktop input_record window_none cache_disk_memory
//
// The real server, again and again: viewers that come and go in every way, stops at any
// moment, windows that close under a running stream, a control thread that is stuck while
// others are served. Afterwards the next viewer is served, and there are as many
// descriptors, threads and bytes as before.
//
// QV_REPEAT=n does everything n times as often (5 is the long form: 10,000 visits, 200
// windows). Log and identity are the test's own, so that they keep nothing, and the clock
// skips the server's pauses.
#include "host/host_server.h"
#include "host/screen.h"
#include "identity/host_identity.h"
#include "identity/server_log.h"
#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "protocol/handshake.h"
#include "protocol/messages.h"
#include "tests/fakes/desktop.h"
#include "tests/fakes/input_record.h"
#include "tests/fakes/window_none.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_session.h"

#include <atomic>
#include <chrono>
#include <string.h>
#include <thread>
#include <vector>

#ifdef _WIN32
#include "protocol/win32.h"
#include <tlhelp32.h>
using native_socket = SOCKET;
using length_type = int;
static constexpr net_socket HANDLE_STEP = 4;
static constexpr net_socket HANDLE_END = 16384;
#else
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
using native_socket = int;
using length_type = socklen_t;
static constexpr net_socket HANDLE_STEP = 1;
static constexpr net_socket HANDLE_END = 1024;
#endif

// ---------------------------------------------------------------------------------------
// What the server needs, keeping nothing

static std::atomic<int> times_waiting, times_offline, sessions_begun, sessions_ended;

void server_log(const char *format, ...)
{
    sessions_begun += strncmp(format, "client connected", 16) == 0;
    sessions_ended += strcmp(format, "client disconnected") == 0;
}

void host_set_state(int32_t state)
{
    times_waiting += state == HOST_WAITING;
    times_offline += state == HOST_OFFLINE;
}

void host_copy_password(char copy[HOST_PASSWORD_SIZE])
{
    copy_text(copy, HOST_PASSWORD_SIZE, "secret");
}

void host_rotate_password(int32_t)
{
}

void host_set_peer_name(const char *)
{
}

const char *host_get_computer_name()
{
    return "host-box";
}

const char *host_get_room()
{
    return "";
}

const char *host_get_relay()
{
    return "";
}

int32_t host_get_relay_mode()
{
    return 0;
}

int32_t host_get_text_layer_enabled()
{
    return 1;
}

int32_t host_get_window_list_enabled()
{
    return 0;
}

// Pauses of the server are sliced into 50 ms; what sleeps for less sleeps.
static std::atomic<uint32_t> skipped_ms;

uint32_t clock_ms()
{
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return (uint32_t)std::chrono::duration_cast<std::chrono::milliseconds>(now).count() +
           skipped_ms;
}

uint64_t clock_us()
{
    return (uint64_t)clock_ms() * 1000;
}

void clock_sleep_ms(uint32_t ms)
{
    if (ms >= 50)
        skipped_ms += ms;
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// ---------------------------------------------------------------------------------------
// Tools

static int repeat()
{
    const char *given = getenv("QV_REPEAT");
    return given && atoi(given) > 0 ? atoi(given) : 1;
}

static void pass_us(uint64_t us)
{
    std::this_thread::sleep_for(std::chrono::microseconds(us));
}

template <typename condition> static bool wait_until(condition met)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!met()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        pass_us(100);
    }
    return true;
}

static uint16_t port_of(net_socket sock)
{
    sockaddr_in address = {};
    length_type size = sizeof address;
    int result = getsockname((native_socket)sock, (sockaddr *)&address, &size);
    return result == 0 && address.sin_family == AF_INET ? ntohs(address.sin_port) : 0;
}

// A server leaves its listening socket to the end of the process; the next needs the port.
static void close_listener()
{
    for (net_socket sock = 0; sock < HANDLE_END; sock += HANDLE_STEP) {
        int listening = 0;
        length_type size = sizeof listening;
        if (port_of(sock) == HOST_PORT &&
            getsockopt((native_socket)sock, SOL_SOCKET, SO_ACCEPTCONN, (char *)&listening,
                       &size) == 0 &&
            listening != 0) {
            net_close(sock);
            return;
        }
    }
    FAIL("no listening socket");
}

// Closes so that the peer gets a reset in place of an end.
static void close_with_reset(net_socket sock)
{
    linger at_once = {};
    at_once.l_onoff = 1;
    setsockopt((native_socket)sock, SOL_SOCKET, SO_LINGER, (const char *)&at_once,
               sizeof at_once);
    net_close(sock);
}

struct usage {
    size_t descriptors, threads, bytes;
};

#ifdef _WIN32
static usage usage_now()
{
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    size_t threads = 0;
    HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(all, &entry); more; more = Thread32Next(all, &entry))
        threads += entry.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(all);
    return {handles, threads, 0};
}
#else
extern "C" size_t __sanitizer_get_current_allocated_bytes();

static size_t entries(const char *path)
{
    DIR *directory = opendir(path);
    REQUIRE(directory != nullptr);
    size_t count = 0;
    while (readdir(directory) != nullptr)
        count++;
    closedir(directory);
    return count;
}

static usage usage_now()
{
    return {entries("/proc/self/fd"), entries("/proc/self/task"),
            __sanitizer_get_current_allocated_bytes()};
}
#endif

// Whether nothing has grown since `before`, up to what lasts a moment longer (a thread that
// was joined may still be listed) and a few bytes of the C library's own.
static bool settles_at(const usage &before, usage *now)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    do {
        *now = usage_now();
        if (now->descriptors <= before.descriptors && now->threads <= before.threads &&
            now->bytes <= before.bytes + 4096)
            return true;
        pass_us(10000);
    } while (std::chrono::steady_clock::now() < end);
    return false;
}

static void check_no_growth(const usage &before)
{
    usage now = {};
    bool settled = settles_at(before, &now);
    CAPTURE(before.descriptors);
    CAPTURE(now.descriptors);
    CAPTURE(before.threads);
    CAPTURE(now.threads);
    CAPTURE(before.bytes);
    CAPTURE(now.bytes);
    CHECK(settled);
}

// ---------------------------------------------------------------------------------------
// The server and its viewers

static struct {
    std::thread runs;
    std::atomic<bool> returned;
} server;

static void start_server()
{
    net_start();
    host::host_stop_requested = 0;
    times_waiting = 0;
    times_offline = 0;
    desktop_reset(200, 130, false);
    input_record_clear();
    server.returned = false;
    server.runs = std::thread([] {
        (void)host::host_server_run();
        server.returned = true;
    });
    REQUIRE(wait_until([] { return times_waiting == 1; }));
}

static net_socket connect_host()
{
    net_socket sock = NET_INVALID;
    REQUIRE(net_connect("127.0.0.1", "7777", false, &sock) == NET_CONNECTED);
    return sock;
}

static void join_server()
{
    REQUIRE(wait_until([] { return server.returned.load(); }));
    server.runs.join();
    close_listener();
}

// A server that waits in accept ends with the next connection.
static void stop_server()
{
    host::host_stop();
    if (!server.returned)
        net_close(connect_host());
    join_server();
}

struct stress_viewer {
    net_socket sock = NET_INVALID;
    secure_channel channel = {};

    void leave(bool reset)
    {
        channel_reset(&channel);
        if (reset)
            close_with_reset(sock);
        else
            net_close(sock);
        sock = NET_INVALID;
    }

    bool send(message_type type, const std::vector<uint8_t> &payload)
    {
        std::vector<uint8_t> bytes(MESSAGE_HEADER_BYTES);
        put_header(bytes.data(), type, (uint32_t)payload.size());
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        return channel_send(&channel.sender, bytes.data(), bytes.size());
    }

    bool send_hello(uint32_t cut = CLIENT_HELLO_BYTES)
    {
        std::vector<uint8_t> payload(CLIENT_HELLO_BYTES);
        put_client_hello(payload.data(), CAP_TILE_CACHE, "viewer-box");
        payload.resize(cut);
        return send(MSG_CLIENT_HELLO, payload);
    }

    bool send_key(uint32_t value)
    {
        std::vector<uint8_t> payload(KEY_BYTES);
        store_le32(payload.data(), value);
        return send(MSG_KEY, payload);
    }

    bool receive(uint64_t n)
    {
        std::vector<uint8_t> bytes(n);
        return channel_recv(&channel.receiver, bytes.data(), n);
    }

    // From the connection to the host's hello.
    void join()
    {
        sock = connect_host();
        REQUIRE(handshake_as_viewer(&channel, sock, "secret"));
        REQUIRE(send_hello());
        REQUIRE(receive(MESSAGE_HEADER_BYTES + SERVER_HELLO_BYTES));
    }
};

// Goes as far as it likes, and then away.
static void visit(test_random *random)
{
    stress_viewer v;
    bool reset = random->below(2) != 0;
    uint64_t dice = random->below(100);
    if (dice >= 92) { // a session
        desktop_paint((uint8_t)(1 + random->below(255)));
        v.join();
        for (uint64_t keys = random->below(4); keys > 0; keys--)
            REQUIRE(v.send_key(0x10041));
        if (random->below(2) != 0)
            (void)v.receive(random->below(100)); // into the first frame
        if (random->below(2) != 0) {
            const uint8_t part[9] = {40};
            (void)net_send_all(v.sock, part, 1 + random->below(9)); // of a record
        }
        v.leave(reset);
        return;
    }
    v.sock = connect_host();
    if (dice >= 88) {
        REQUIRE(handshake_as_viewer(&v.channel, v.sock, "secret"));
        if (random->below(2) != 0)
            (void)v.send_hello((uint32_t)random->below(CLIENT_HELLO_BYTES));
    } else if (dice >= 84) {
        (void)handshake_as_viewer(&v.channel, v.sock, "Secret");
    } else if (dice >= 40) { // rubbish of any length that a handshake could have
        uint8_t bytes[48];
        for (uint8_t &byte : bytes)
            byte = (uint8_t)random->next();
        (void)net_send_all(v.sock, bytes, random->below(sizeof bytes + 1));
    }
    v.leave(reset);
}

TEST_CASE("viewers come and go, and nothing grows")
{
    test_random random = test_random_seeded("visits");
    start_server();
    int waits = 1;
    auto visits = [&](int count) {
        for (int i = 0; i < count; i++) {
            visit(&random);
            waits++;
            REQUIRE(wait_until([&] { return times_waiting == waits; }));
            if (i % 100 == 0)
                input_record_clear();
        }
        // A visitor that left between handshake and hello leaves its channel's buffers to
        // the next handshake; a session's end frees them.
        stress_viewer last;
        last.join();
        last.leave(false);
        waits++;
        REQUIRE(wait_until([&] { return times_waiting == waits; }));
        input_record_clear();
    };
    visits(200); // buffers find their sizes
    usage before = usage_now();
    int sessions = sessions_begun;
    visits(2000 * repeat());
    check_no_growth(before);
    CHECK(sessions_begun - sessions > 80 * repeat());
    CHECK(sessions_begun == sessions_ended);

    stress_viewer v;
    v.join();
    v.leave(false);
    CHECK(wait_until([&] { return times_waiting == waits + 1; }));
    stop_server();
}

TEST_CASE("a stop at any moment of a session's end ends the server")
{
    test_random random = test_random_seeded("stops");
    usage before = {};
    for (int round = 0; round < 10 + 60 * repeat(); round++) {
        if (round == 10)
            before = usage_now();
        start_server();
        desktop_paint((uint8_t)round);
        stress_viewer v;
        v.join();
        std::thread stops([delay = random.below(3000)] {
            pass_us(delay);
            host::host_stop();
        });
        pass_us(random.below(3000));
        v.leave(random.below(2) != 0);
        stops.join();
        stop_server();
        input_record_clear();
    }
    check_no_growth(before);
}

TEST_CASE("a window closes at any moment of a stream at 60 frames a second")
{
    test_random random = test_random_seeded("closes");
    start_server();
    std::atomic<bool> over = false;
    std::thread screen([&] { // 62 changes a second
        for (uint8_t colour = 1; !over; colour++) {
            desktop_paint(colour);
            pass_us(16000);
        }
    });
    usage before = {};
    uint32_t frames = 0;
    for (int round = 0; round < 3 + 40 * repeat(); round++) {
        if (round == 3) {
            input_record_clear();
            before = usage_now();
        }
        window_none_reset();
        std::thread user([delay = random.below(50000)] {
            if (window_none_wait_opened(1)) {
                viewer::viewer_send_key(0, false); // no advertisement comes: frames may
                pass_us(delay);
            }
            window_none_close();
        });
        CHECK(viewer::viewer_session_run("127.0.0.1", "7777", false, "", "secret", nullptr,
                                         0) == 0);
        user.join();
        frames += viewer::statistics.stat_frames;
    }
    CHECK(frames > 0);
    REQUIRE(wait_until([&] { return sessions_ended == sessions_begun; }));
    over = true;
    screen.join();
    input_record_clear();
    check_no_growth(before);
    stop_server();
}

TEST_CASE("input that comes late from a stuck thread is not injected into later sessions")
{
    start_server();
    int waits = 1;
    for (int round = 0; round < repeat(); round++) {
        // The first viewer types A without end; one of its presses gets stuck.
        input_record_clear();
        stress_viewer first;
        first.join();
        input_record_block_next();
        for (int i = 0; i < 300; i++)
            REQUIRE(first.send_key(0x10041));
        REQUIRE(wait_until(input_record_blocked));
        first.leave(round % 2 != 0);
        waits++;
        // The server notices when it has something to send.
        REQUIRE(wait_until([&] {
            desktop_paint((uint8_t)clock_ms());
            return times_waiting == waits;
        }));

        // Three seconds' worth of others, who type B.
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        size_t typed = 0;
        do {
            stress_viewer next;
            next.join();
            for (int i = 0; i < 20; i++)
                REQUIRE(next.send_key(i % 2 == 0 ? 0x10042 : 0x42));
            typed += 20;
            REQUIRE(wait_until([&] { return input_record_calls().size() == typed; }));
            next.leave(false);
            waits++;
            REQUIRE(wait_until([&] { return times_waiting == waits; }));
        } while (std::chrono::steady_clock::now() < end);
        REQUIRE(input_record_blocked());

        // It comes back in the middle of one more session: the press under way arrives and is
        // released, and the 299 others are not heard of.
        stress_viewer last;
        last.join();
        input_record_unblock();
        REQUIRE(wait_until([&] { return input_record_calls().size() == typed + 2; }));
        for (int i = 0; i < 50; i++)
            REQUIRE(last.send_key(0x10042));
        REQUIRE(wait_until([&] { return input_record_calls().size() == typed + 52; }));
        last.leave(false);
        waits++;
        REQUIRE(wait_until([&] { return times_waiting == waits; }));
        size_t presses = 0, releases = 0;
        for (const auto &call : input_record_calls())
            if (call[0].virtual_key == 0x41)
                (call[0].flags == 0 ? presses : releases)++;
        CHECK(presses == 1);
        CHECK(releases == 1);
    }
    stop_server();
}
