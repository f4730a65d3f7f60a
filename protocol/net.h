// Sockets, as much of them as qv needs: blocking TCP over IPv4.
//
// The product links net_win32.cpp (Winsock); native tests link tests/fakes/net_posix.cpp.
// Any thread may call any of these, within one rule: a socket has one owner, who alone
// closes it, and only when no other thread can still use the handle. Whoever else wants a
// connection to end calls net_abort.
#ifndef QV_PROTOCOL_NET_H
#define QV_PROTOCOL_NET_H

#include <stddef.h>
#include <stdint.h>

using net_socket = uint64_t;
constexpr net_socket NET_INVALID = ~(net_socket)0;

constexpr uint16_t HOST_PORT = 7777;
constexpr uint16_t RELAY_PORT = 7000;

// Starts the platform's network library (Winsock 2.2). Balanced by process end.
void net_start();

// The calling thread's last network error code, for log lines.
int net_last_error();

// A listening socket on all addresses, with SO_REUSEADDR; NET_INVALID on failure
// (net_last_error says why).
[[nodiscard]] net_socket net_listen(uint16_t port, int backlog);

// The next connection, which may be dead already; NET_INVALID on a failure of the listening
// socket. Blocks.
[[nodiscard]] net_socket net_accept(net_socket listener);

enum net_connect_result {
    NET_CONNECTED,
    NET_UNRESOLVED, // the name has no IPv4 address
    NET_REFUSED,    // no address took the connection; net_last_error says why
};

// Resolves host and port (a service text, decimal as a rule) and connects to the first
// address, or with every_address to the first that accepts. On NET_CONNECTED *sock is an
// open socket that the caller owns; otherwise *sock is NET_INVALID.
[[nodiscard]] net_connect_result net_connect(const char *host, const char *port,
                                             bool every_address, net_socket *sock);

// When a blocking receive must be over: at `at_ms` of clock_ms, if set.
struct net_deadline {
    bool set;
    uint32_t at_ms;
};

// Receives exactly n bytes; false when the peer closed, the connection failed or the
// deadline passed. A bounded receive leaves the socket without a receive time-out.
[[nodiscard]] bool net_recv_all(net_socket sock, uint8_t *data, size_t n,
                                const net_deadline &deadline);

// Sends all n bytes, at most NET_SEND_CHUNK of them a system call, so that the send
// time-out measures progress and not the size of what is sent.
[[nodiscard]] bool net_send_all(net_socket sock, const uint8_t *data, size_t n);
constexpr size_t NET_SEND_CHUNK = 65536;

// Sends n bytes with one system call; false unless it took them all.
[[nodiscard]] bool net_send_once(net_socket sock, const uint8_t *data, size_t n);

// Waits until a byte can be read (and leaves it there). False when the connection ended
// first. No time-out.
[[nodiscard]] bool net_wait_readable(net_socket sock);

// Socket options. Failures are ignored: none of them changes what is right.
void net_set_nodelay(net_socket sock);
void net_set_send_buffer(net_socket sock, int bytes);
void net_set_recv_buffer(net_socket sock, int bytes);
void net_set_send_timeout(net_socket sock, uint32_t ms);
// Switches keep-alive on, with these times where the platform lets them be set.
void net_set_keepalive(net_socket sock, uint32_t idle_s, uint32_t interval_s);

// Ends a connection from any thread: calls blocked on it return at once, later ones fail.
// Never closes the handle, so its number cannot pass to another connection while a thread
// still holds it. Harmless on NET_INVALID and when called again.
void net_abort(net_socket sock);

// Closes a socket. For its owner, when no other thread can still use it. Harmless on
// NET_INVALID.
void net_close(net_socket sock);

#endif
