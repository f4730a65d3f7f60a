// The server's life: become reachable, take a viewer, serve it, take the next.
//
// Everything here runs on the host server thread, host_stop apart. A pass of the main loop
// is one connection:
//
//   wait          accept, or register at the relay and wait for a viewer's first byte
//   handshake     both ends prove the password; any failure is answered with silence
//   hellos        within 15 s in all, so that nobody can occupy the only place for nothing
//   session       the frame pipeline on this thread, the control thread beside it
//   teardown      abort, wait for the control thread, close, free, wipe
//
// The process ends with the server, so nothing is given back when the loop stops: the
// listening socket stays open, as do timer resolution and priorities.
#include "host/host_server.h"
#include "host/capture.h"
#include "host/control_thread.h"
#include "host/flow_control.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/host_lock.h"
#include "host/host_platform.h"
#include "host/host_session.h"
#include "host/out_buffer.h"
#include "host/relay_register.h"
#include "host/screen.h"
#include "identity/host_identity.h"
#include "identity/server_log.h"
#include "protocol/clock.h"
#include "protocol/handshake.h"
#include "protocol/thread.h"

namespace host
{

static constexpr int LISTEN_BACKLOG = 1;
static constexpr uint32_t RELAY_RETRY_MS = 3000;
static constexpr uint32_t AUTH_FAILED_PAUSE_MS = 300;
static constexpr uint32_t PAUSE_SLICE_MS = 50;
static constexpr uint32_t HELLO_DEADLINE_MS = 15000;
static constexpr uint32_t SEND_TIMEOUT_MS = 30000;
static constexpr int SEND_BUFFER_BYTES = 1048576; // a frame's record goes down in one go
static constexpr uint32_t CONTROL_JOIN_MS = 1000;
static constexpr uint16_t GRANTED_CAPS = CAP_TEXT_LAYER | CAP_TILE_CACHE;

static_assert(HOST_PASSWORD_SIZE == PASSWORD_MAX + 1, "the handshake takes any password");

std::atomic<uint32_t> host_stop_requested;

// The connection that host_stop would end: the present one, or NET_INVALID. While host_stop
// aborts it, SOCK_BORROWED stands in its place, so that it cannot be taken out, and its
// handle not be closed and given to another connection, under host_stop's hands. No lock:
// host_stop may be called before there is one.
static constexpr net_socket SOCK_BORROWED = NET_INVALID - 1;
static std::atomic<net_socket> session_sock = NET_INVALID;

void host_stop()
{
    host_stop_requested.store(1);
    net_socket sock = session_sock.load();
    if (sock == NET_INVALID || sock == SOCK_BORROWED)
        return; // none, or another thread is at it
    if (!session_sock.compare_exchange_strong(sock, SOCK_BORROWED))
        return; // just taken out: the server is on its way to look at the flag
    net_abort(sock);
    session_sock.store(sock);
}

// Takes the connection out; from then on the server thread alone aborts and closes it.
static void withdraw_sock()
{
    net_socket sock = session_sock.load();
    while (sock == SOCK_BORROWED || !session_sock.compare_exchange_strong(sock, NET_INVALID)) {
        clock_sleep_ms(1);
        sock = session_sock.load();
    }
}

// Ends a connection that has not become a session.
static void drop_connection(net_socket sock)
{
    withdraw_sock();
    net_abort(sock);
    net_close(sock);
}

// Sleeps, but not on when the server is asked to stop.
static void pause_ms(uint32_t ms)
{
    uint32_t start = clock_ms();
    while (host_stop_requested.load() == 0) {
        uint32_t gone = clock_ms() - start;
        if (gone >= ms)
            break;
        clock_sleep_ms(ms - gone < PAUSE_SLICE_MS ? ms - gone : PAUSE_SLICE_MS);
    }
}

static bool read_client_hello(client_hello *hello)
{
    uint8_t head[MESSAGE_HEADER_BYTES];
    if (!channel_recv(&host_channel.receiver, head, sizeof head))
        return false;
    message_header header = get_header(head);
    if (header.type != MSG_CLIENT_HELLO || header.length != CLIENT_HELLO_BYTES)
        return false;
    uint8_t payload[CLIENT_HELLO_BYTES];
    if (!channel_recv(&host_channel.receiver, payload, sizeof payload))
        return false;
    *hello = get_client_hello(payload);
    return true;
}

static void send_server_hello()
{
    uint8_t payload[SERVER_HELLO_BYTES];
    put_server_hello(payload, screen.screen_width.load(), screen.screen_height.load(),
                     GRANTED_CAPS, host_get_computer_name());
    out_reset();
    out_append_header(MSG_SERVER_HELLO, sizeof payload);
    out_append(payload, sizeof payload);
    // Not checked, on purpose: a broken connection shows at the next flush.
    (void)channel_flush();
}

static void announce_viewer(const client_hello &hello)
{
    host_set_peer_name(hello.name);
    host_set_state(HOST_SERVING);
    server_log("client connected: %s, caps=%u (text=%d cache=%d)", hello.name,
               (unsigned)hello.caps, (hello.caps & CAP_TEXT_LAYER) != 0,
               (hello.caps & CAP_TILE_CACHE) != 0);
}

static void announce_no_viewer()
{
    host_set_peer_name("");
    host_set_state(HOST_OFFLINE);
}

static uint32_t trip_ms(uint64_t us)
{
    uint64_t ms = us / 1000;
    return ms < ADVERT_WAIT_MAX_MS ? (uint32_t)ms : ADVERT_WAIT_MAX_MS;
}

// Serves one viewer from its hello to the end of the session, and closes the socket.
// The two round trips are those of the handshake, in microseconds.
static void run_session(net_socket sock, const client_hello &hello, uint64_t key_trip_us,
                        uint64_t hello_trip_us)
{
    announce_viewer(hello);
    net_set_send_buffer(sock, SEND_BUFFER_BYTES);

    // The screen may have changed its size since the last session; the hello is the one
    // place to say so. (GDI capture keeps the size that it started with.) Or there was no
    // memory for it, and now there is.
    if (capture_is_duplication() || screen.screen_width.load() == 0)
        (void)capture_step();
    send_server_hello();
    uint32_t hello_sent_ms = clock_ms();

    host_session *session = session_create(sock, frame_seq.load());
    if (session == nullptr) {
        server_log("client disconnected");
        drop_connection(sock);
        channel_reset(&host_channel);
        announce_no_viewer();
        return;
    }
    session->hello_sent_ms = hello_sent_ms;
    session->advert_wait_ms = advert_wait(trip_ms(key_trip_us), trip_ms(hello_trip_us));
    session->key_trip_us = key_trip_us;
    session->hello_trip_us = hello_trip_us;
    host_channel.receiver.deadline = {}; // a viewer may be silent for as long as it likes
    channel_take_receiver(&host_channel, &session->receiver);
    frame_pipeline_start(hello.caps);

    session->owners.fetch_add(1);
    thread *control = thread_start(control_thread, session);
    if (control == nullptr) {
        session_release(session);
        session->session_ended.store(1);
    }

    frame_pipeline_run(session); // logs the session's end

    withdraw_sock();
    net_abort(sock);
    announce_no_viewer();
    bool ended = control == nullptr || thread_join(control, CONTROL_JOIN_MS);
    session_retire();
    if (!ended)
        session_release_input(session);
    channel_reset(&host_channel);
    session_release(session);
}

// One pass: takes a fresh connection as far as it will go, and closes it.
static void serve_connection(net_socket sock, bool relay)
{
    net_deadline deadline = {.set = true, .at_ms = clock_ms() + HELLO_DEADLINE_MS};
    session_sock.store(sock);
    // host_stop may have come just before, when it found no connection to end. What waits in
    // the relay's room might wait for ever; a viewer that was accepted is served once more.
    if (relay && host_stop_requested.load() != 0)
        net_abort(sock);

    net_set_nodelay(sock);
    net_set_send_timeout(sock, SEND_TIMEOUT_MS);

    // A password that is due is replaced when a viewer comes, which in relay mode may be
    // days after the connection was made. If none comes, the handshake says so.
    bool viewer_came = true;
    if (relay) {
        viewer_came = net_wait_readable(sock);
        deadline.at_ms = clock_ms() + HELLO_DEADLINE_MS;
    } else {
        net_set_keepalive(sock, SESSION_KEEPALIVE_IDLE_S, SESSION_KEEPALIVE_INTERVAL_S);
    }
    if (viewer_came)
        host_rotate_password(0);

    uint64_t key_trip_us = 0;
    if (!handshake_as_host(&host_channel, sock, host_copy_password, deadline, &key_trip_us)) {
        server_log("auth failed (wrong password or not an qv client)");
        drop_connection(sock);
        pause_ms(AUTH_FAILED_PAUSE_MS);
        return;
    }

    uint64_t confirmed_us = clock_us();
    client_hello hello;
    if (!read_client_hello(&hello)) {
        // No word to the log, and the channel's buffers and keys stay until the next
        // handshake; both kept on purpose.
        drop_connection(sock);
        return;
    }
    run_session(sock, hello, key_trip_us, clock_us() - confirmed_us);
}

int host_server_run()
{
    host_platform_dpi_aware();
    lock_init(&host_lock);
    host_platform_real_time();
    net_start();

    bool relay = host_get_relay_mode() != 0;
    net_socket listener = NET_INVALID;
    if (!relay) {
        listener = net_listen(HOST_PORT, LISTEN_BACKLOG);
        if (listener == NET_INVALID) {
            server_log("bind/listen failed %d", net_last_error());
            return 1;
        }
    }

    int duplication = capture_start();
    if (relay)
        server_log("server up via relay %s:%d room '%s', dxgi=%d", host_get_relay(),
                   (int)RELAY_PORT, host_get_room(), duplication);
    else
        server_log("server up on port %d, dxgi=%d", (int)HOST_PORT, duplication);
    if (host_stop_requested.load() != 0)
        return 0;

    do {
        host_set_state(HOST_WAITING);
        net_socket sock;
        if (relay) {
            sock = relay_register(host_get_relay(), host_get_room(), host_get_computer_name());
            if (sock == NET_INVALID) {
                pause_ms(RELAY_RETRY_MS);
                continue;
            }
        } else {
            sock = net_accept(listener);
            if (sock == NET_INVALID)
                return 0;
        }
        serve_connection(sock, relay);
    } while (host_stop_requested.load() == 0);
    return 0;
}

} // namespace host
