// A viewer session: connect, authenticate, exchange hellos, show the window, tear down.
//
// The road, all of it on the calling thread:
//
//   resolve, connect        "cannot resolve host", "connection failed"
//   relay hello             (via_relay) no answer; a failure shows in the handshake
//   handshake               "authentication failed (wrong password, or host not online)"
//   hellos, frame buffer    "bad hello from host"
//   cache, window, receive thread
//   message loop            until the window was destroyed
//   teardown
//
// Whichever way the road is left, teardown() is the one way out, and it copes with a session
// that got only part of the way. Its order matters: the session is marked as ending and its
// socket aborted, which ends the receive thread's work and its blocked call; the thread is
// joined; only then is anything closed, wiped or freed that it may still have been using.
//
// What is printed may be read through a pipe by whoever waits for it, so every line is
// flushed at once.
#include "viewer/viewer_session.h"

#include "protocol/computer_name.h"
#include "protocol/handshake.h"
#include "protocol/net.h"
#include "protocol/relay_hello.h"
#include "protocol/thread.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_window.h"

#include <stdio.h>
#include <string.h>

namespace viewer
{

constexpr int SOCKET_RECV_BUFFER = 1048576;
constexpr uint32_t SEND_TIMEOUT_MS = 10000; // a host that reads nothing for so long is gone
constexpr uint32_t KEEPALIVE_IDLE_S = 60;
constexpr uint32_t KEEPALIVE_INTERVAL_S = 10;

void (*on_connected)(const char *host_name, const char *host_id);

// The running session. Owner: the thread that runs it, which is the window thread; the
// receive thread knows the socket only through the channel.
static struct {
    net_socket viewer_socket = NET_INVALID;
    char host_name[NAME_BYTES + 1];
    char host_id[RELAY_ROOM_BYTES + 1];
    thread *receiver;
    thread *toucher; // of the cache's memory; null without a cache, or a thread for it
} session;

// Ends a failed attempt: the message goes to the caller's buffer and to standard output.
static int fail(const char *message, char *error_text, int32_t error_size)
{
    if (error_text && error_size > 0)
        copy_text(error_text, (size_t)error_size, message);
    printf("%s\n", message);
    fflush(stdout);
    return 1;
}

// Asks the relay for a room. The result is not looked at: a relay that is gone fails the
// handshake that follows.
static void relay_join(net_socket sock, const char *room)
{
    char name[NAME_BYTES];
    computer_name_get(name);
    uint8_t hello[RELAY_HELLO_BYTES];
    relay_hello_build(hello, RELAY_ROLE_VIEWER, room, name);
    (void)net_send_once(sock, hello, sizeof hello);
}

static void send_hello()
{
    char name[NAME_BYTES];
    computer_name_get(name);
    uint8_t message[MESSAGE_HEADER_BYTES + CLIENT_HELLO_BYTES];
    put_header(message, MSG_CLIENT_HELLO, CLIENT_HELLO_BYTES);
    put_client_hello(message + MESSAGE_HEADER_BYTES, CAP_TEXT_LAYER | CAP_TILE_CACHE, name);
    viewer_send(message, sizeof message); // a failure shows at the next receive
}

// Reads the host's hello and opens the picture for it. The sizes are the host's word:
// frame_open refuses those that make no screen, or one that has no room here.
static bool receive_hello(server_hello *hello)
{
    uint8_t header_bytes[MESSAGE_HEADER_BYTES];
    if (!viewer_recv(header_bytes, sizeof header_bytes))
        return false;
    message_header header = get_header(header_bytes);
    if (header.type != MSG_SERVER_HELLO || header.length != SERVER_HELLO_BYTES)
        return false;
    uint8_t payload[SERVER_HELLO_BYTES];
    if (!viewer_recv(payload, sizeof payload))
        return false;
    *hello = get_server_hello(payload);
    return frame_open(hello->width, hello->height);
}

// Undoes whatever there is of a session.
static void teardown()
{
    viewer_session_abort();
    if (session.receiver)
        thread_join(session.receiver, THREAD_WAIT_FOREVER);
    if (session.toucher)
        thread_join(session.toucher, THREAD_WAIT_FOREVER);
    net_close(session.viewer_socket);
    channel_reset(&viewer_channel);

    // A window that existed has saved and closed the cache already.
    tile_cache_save_stop();
    lock_enter(&frame_lock);
    tile_cache_close();
    lock_leave(&frame_lock);
    frame_close();

    session = {};
}

static int run(const char *host, const char *port, bool via_relay, const char *host_id,
               const char *password, char *error_text, int32_t error_size)
{
    switch (net_connect(host, port, false, &session.viewer_socket)) {
    case NET_UNRESOLVED:
        return fail("cannot resolve host", error_text, error_size);
    case NET_REFUSED:
        return fail("connection failed", error_text, error_size);
    case NET_CONNECTED:
        break;
    }
    net_set_nodelay(session.viewer_socket);
    net_set_recv_buffer(session.viewer_socket, SOCKET_RECV_BUFFER);
    net_set_send_timeout(session.viewer_socket, SEND_TIMEOUT_MS);
    net_set_keepalive(session.viewer_socket, KEEPALIVE_IDLE_S, KEEPALIVE_INTERVAL_S);

    if (via_relay) {
        relay_join(session.viewer_socket, host_id);
        printf("via relay %s:%s, ID %s, waiting for host...\n", host, port, host_id);
        fflush(stdout);
    }
    copy_text(session.host_id, sizeof session.host_id, host_id);

    if (!handshake_as_viewer(&viewer_channel, session.viewer_socket, password))
        return fail("authentication failed (wrong password, or host not online)", error_text,
                    error_size);

    send_hello();
    server_hello hello;
    if (!receive_hello(&hello))
        return fail("bad hello from host", error_text, error_size);
    copy_text(session.host_name, sizeof session.host_name, hello.name);
    printf("connected to %s (%dx%d)\n", session.host_name, (int)hello.width, (int)hello.height);
    fflush(stdout);
    if (on_connected)
        on_connected(session.host_name, session.host_id);

    if (hello.caps & CAP_TILE_CACHE) {
        tile_cache_open();
        session.toucher =
            thread_start(tile_cache_touch, nullptr); // else tiles just take longer
    }
    if (!viewer_window_open(session.host_name))
        return 1;

    session.receiver = thread_start(viewer_recv_thread, nullptr);
    if (!session.receiver)
        viewer_window_post_close(); // nothing would ever be shown
    viewer_window_run();
    return 0;
}

int viewer_session_run(const char *host, const char *port, bool via_relay, const char *host_id,
                       const char *password, char *error_text, int32_t error_size)
{
    net_start();
    lock_init(&frame_lock); // by the first session; later ones find it made
    viewer_channel_init();

    int result = run(host, port, via_relay, host_id ? host_id : "", password ? password : "",
                     error_text, error_size);
    teardown();
    return result;
}

void viewer_session_abort()
{
    viewer_ending = true;
    net_abort(session.viewer_socket);
}

} // namespace viewer
