// Sockets on Winsock. See net.h for what callers may rely on.
//
// The one surprise is net_abort. shutdown() alone makes later calls fail, but does not end
// a send that already waits for a full buffer, nor an accept; CancelIoEx alone ends what
// waits now, but nothing later. Together they end a connection whatever its threads are
// doing, and neither gives the handle free.
#include "protocol/net.h"

#include "protocol/clock.h"
#include "protocol/win32.h"

#include <mstcpip.h>

static_assert(sizeof(SOCKET) == sizeof(net_socket));
static_assert((net_socket)INVALID_SOCKET == NET_INVALID);

// The most that one recv is asked for; its length is an int.
static constexpr size_t RECV_CHUNK = 1 << 30;

void net_start()
{
    WSADATA data;
    (void)WSAStartup(MAKEWORD(2, 2), &data);
}

int net_last_error()
{
    return WSAGetLastError();
}

// Closes a socket that did not come to be, keeping the error code that tells why.
static void close_failed(SOCKET s)
{
    int error = WSAGetLastError();
    closesocket(s);
    WSASetLastError(error);
}

static void set_int(net_socket sock, int level, int name, int value)
{
    (void)setsockopt((SOCKET)sock, level, name, (const char *)&value, sizeof value);
}

net_socket net_listen(uint16_t port, int backlog)
{
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET)
        return NET_INVALID;
    set_int(s, SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(s, (const sockaddr *)&address, sizeof address) != 0 || listen(s, backlog) != 0) {
        close_failed(s);
        return NET_INVALID;
    }
    return s;
}

net_socket net_accept(net_socket listener)
{
    // A connection that its maker reset while it waited here is not a failure of the listening
    // socket, though Windows may report it as one: the next may be sound.
    SOCKET s;
    do {
        s = accept((SOCKET)listener, nullptr, nullptr);
    } while (s == INVALID_SOCKET && WSAGetLastError() == WSAECONNRESET);
    return s;
}

net_connect_result net_connect(const char *host, const char *port, bool every_address,
                               net_socket *sock)
{
    *sock = NET_INVALID;
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    if (getaddrinfo(host, port, &hints, &list) != 0)
        return NET_UNRESOLVED;
    for (const addrinfo *a = list; a && *sock == NET_INVALID;
         a = every_address ? a->ai_next : nullptr) {
        SOCKET s = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
        if (s == INVALID_SOCKET)
            continue;
        if (connect(s, a->ai_addr, (int)a->ai_addrlen) == 0)
            *sock = s;
        else
            close_failed(s);
    }
    int error = WSAGetLastError();
    freeaddrinfo(list);
    WSASetLastError(error);
    return *sock == NET_INVALID ? NET_REFUSED : NET_CONNECTED;
}

static void set_recv_timeout(net_socket sock, uint32_t ms)
{
    set_int(sock, SOL_SOCKET, SO_RCVTIMEO, (int)ms);
}

static bool recv_all(net_socket sock, uint8_t *data, size_t n, const net_deadline &deadline)
{
    while (n > 0) {
        if (deadline.set) {
            int32_t left = (int32_t)(deadline.at_ms - clock_ms());
            if (left <= 0)
                return false;
            set_recv_timeout(sock, (uint32_t)left);
        }
        int got = recv((SOCKET)sock, (char *)data, (int)(n < RECV_CHUNK ? n : RECV_CHUNK), 0);
        if (got <= 0)
            return false;
        data += got;
        n -= (size_t)got;
    }
    return true;
}

bool net_recv_all(net_socket sock, uint8_t *data, size_t n, const net_deadline &deadline)
{
    bool ok = recv_all(sock, data, n, deadline);
    if (deadline.set)
        set_recv_timeout(sock, 0);
    return ok;
}

bool net_send_all(net_socket sock, const uint8_t *data, size_t n)
{
    while (n > 0) {
        size_t chunk = n < NET_SEND_CHUNK ? n : NET_SEND_CHUNK;
        int sent = send((SOCKET)sock, (const char *)data, (int)chunk, 0);
        if (sent <= 0)
            return false;
        data += sent;
        n -= (size_t)sent;
    }
    return true;
}

bool net_send_once(net_socket sock, const uint8_t *data, size_t n)
{
    if (n > INT_MAX)
        return false;
    return send((SOCKET)sock, (const char *)data, (int)n, 0) == (int)n;
}

bool net_wait_readable(net_socket sock)
{
    char byte;
    return recv((SOCKET)sock, &byte, 1, MSG_PEEK) == 1;
}

void net_set_nodelay(net_socket sock)
{
    set_int(sock, IPPROTO_TCP, TCP_NODELAY, 1);
}

void net_set_send_buffer(net_socket sock, int bytes)
{
    set_int(sock, SOL_SOCKET, SO_SNDBUF, bytes);
}

void net_set_recv_buffer(net_socket sock, int bytes)
{
    set_int(sock, SOL_SOCKET, SO_RCVBUF, bytes);
}

void net_set_send_timeout(net_socket sock, uint32_t ms)
{
    set_int(sock, SOL_SOCKET, SO_SNDTIMEO, (int)ms);
}

void net_set_keepalive(net_socket sock, uint32_t idle_s, uint32_t interval_s)
{
    set_int(sock, SOL_SOCKET, SO_KEEPALIVE, 1);
    tcp_keepalive times = {};
    times.onoff = 1;
    times.keepalivetime = idle_s * 1000;
    times.keepaliveinterval = interval_s * 1000;
    DWORD returned = 0;
    (void)WSAIoctl((SOCKET)sock, SIO_KEEPALIVE_VALS, &times, sizeof times, nullptr, 0,
                   &returned, nullptr, nullptr);
}

void net_abort(net_socket sock)
{
    if (sock == NET_INVALID)
        return;
    // A listener cannot be shut down: no longer blocking, its later accepts fail unless a
    // connection waits.
    u_long not_blocking = 1;
    (void)ioctlsocket((SOCKET)sock, (long)FIONBIO, &not_blocking);
    (void)shutdown((SOCKET)sock, SD_BOTH);
    (void)CancelIoEx((HANDLE)sock, nullptr);
}

void net_close(net_socket sock)
{
    if (sock != NET_INVALID)
        (void)closesocket((SOCKET)sock);
}
