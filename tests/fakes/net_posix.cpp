// Sockets for native tests: the contract of net.h on POSIX sockets.
//
// Here shutdown() in both directions is all of net_abort: it also ends a blocked send and a
// blocked accept. A receive after it may still deliver bytes that had arrived before.
#include "protocol/net.h"

#include "protocol/clock.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

static_assert((net_socket)-1 == NET_INVALID);

void net_start()
{
}

int net_last_error()
{
    return errno;
}

static void close_failed(int fd)
{
    int error = errno;
    close(fd);
    errno = error;
}

static void set_int(net_socket sock, int level, int name, int value)
{
    (void)setsockopt((int)sock, level, name, &value, sizeof value);
}

net_socket net_listen(uint16_t port, int backlog)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return NET_INVALID;
    set_int((net_socket)fd, SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, (const sockaddr *)&address, sizeof address) != 0 || listen(fd, backlog) != 0) {
        close_failed(fd);
        return NET_INVALID;
    }
    return (net_socket)fd;
}

net_socket net_accept(net_socket listener)
{
    int fd;
    do {
        fd = accept4((int)listener, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
    return fd < 0 ? NET_INVALID : (net_socket)fd;
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
        int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0)
            continue;
        if (connect(fd, a->ai_addr, a->ai_addrlen) == 0)
            *sock = (net_socket)fd;
        else
            close_failed(fd);
    }
    int error = errno;
    freeaddrinfo(list);
    errno = error;
    return *sock == NET_INVALID ? NET_REFUSED : NET_CONNECTED;
}

static void set_timeout(net_socket sock, int name, uint32_t ms)
{
    timeval time = {};
    time.tv_sec = ms / 1000;
    time.tv_usec = (suseconds_t)(ms % 1000) * 1000;
    (void)setsockopt((int)sock, SOL_SOCKET, name, &time, sizeof time);
}

static bool recv_all(net_socket sock, uint8_t *data, size_t n, const net_deadline &deadline)
{
    while (n > 0) {
        if (deadline.set) {
            int32_t left = (int32_t)(deadline.at_ms - clock_ms());
            if (left <= 0)
                return false;
            set_timeout(sock, SO_RCVTIMEO, (uint32_t)left);
        }
        ssize_t got = recv((int)sock, data, n, 0);
        if (got < 0 && errno == EINTR)
            continue;
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
        set_timeout(sock, SO_RCVTIMEO, 0);
    return ok;
}

// One send that is not cut short by a signal and raises none.
static ssize_t send_some(net_socket sock, const uint8_t *data, size_t n)
{
    ssize_t sent;
    do {
        sent = send((int)sock, data, n, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

bool net_send_all(net_socket sock, const uint8_t *data, size_t n)
{
    while (n > 0) {
        ssize_t sent = send_some(sock, data, n < NET_SEND_CHUNK ? n : NET_SEND_CHUNK);
        if (sent <= 0)
            return false;
        data += sent;
        n -= (size_t)sent;
    }
    return true;
}

bool net_send_once(net_socket sock, const uint8_t *data, size_t n)
{
    return send_some(sock, data, n) == (ssize_t)n;
}

bool net_wait_readable(net_socket sock)
{
    char byte;
    ssize_t got;
    do {
        got = recv((int)sock, &byte, 1, MSG_PEEK);
    } while (got < 0 && errno == EINTR);
    return got == 1;
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
    set_timeout(sock, SO_SNDTIMEO, ms);
}

void net_set_keepalive(net_socket sock, uint32_t idle_s, uint32_t interval_s)
{
    set_int(sock, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_int(sock, IPPROTO_TCP, TCP_KEEPIDLE, (int)idle_s);
    set_int(sock, IPPROTO_TCP, TCP_KEEPINTVL, (int)interval_s);
}

void net_abort(net_socket sock)
{
    if (sock != NET_INVALID)
        (void)shutdown((int)sock, SHUT_RDWR);
}

void net_close(net_socket sock)
{
    if (sock != NET_INVALID)
        (void)close((int)sock);
}
