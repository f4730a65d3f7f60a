#include "tests/fakes/net_memory.h"

#include "protocol/clock.h"

#include <string.h>

net_memory_record net_memory;

void net_memory_reset()
{
    net_memory = {};
    net_memory.send_limit = UINT64_MAX;
    net_memory.connections = 1;
}

static bool take_connection()
{
    if (net_memory.connections == 0)
        return false;
    net_memory.connections--;
    return true;
}

static bool usable(net_socket sock)
{
    return sock == NET_MEMORY_SOCKET && !net_memory.aborted;
}

void net_start()
{
}

int net_last_error()
{
    return 10061;
}

net_socket net_listen(uint16_t, int)
{
    return NET_MEMORY_SOCKET + 1;
}

net_socket net_accept(net_socket)
{
    return take_connection() ? NET_MEMORY_SOCKET : NET_INVALID;
}

net_connect_result net_connect(const char *, const char *, bool, net_socket *sock)
{
    bool connected = take_connection();
    *sock = connected ? NET_MEMORY_SOCKET : NET_INVALID;
    return connected ? NET_CONNECTED : NET_REFUSED;
}

// Whether n bytes can be received, after asking the peer for more as often as it takes.
static bool wait_for(size_t n)
{
    while (net_memory.incoming.size() - net_memory.taken < n) {
        size_t before = net_memory.incoming.size();
        if (net_memory.refill)
            net_memory.refill();
        if (net_memory.incoming.size() == before)
            return false;
    }
    return true;
}

bool net_recv_all(net_socket sock, uint8_t *data, size_t n, const net_deadline &deadline)
{
    if (!usable(sock))
        return false;
    if (deadline.set && n > 0 && (int32_t)(deadline.at_ms - clock_ms()) <= 0)
        return false;
    bool there = wait_for(n) && usable(sock);
    size_t left = net_memory.incoming.size() - net_memory.taken;
    size_t got = n < left ? n : left;
    if (got > 0)
        memcpy(data, net_memory.incoming.data() + net_memory.taken, got);
    net_memory.taken += got;
    return there;
}

bool net_send_all(net_socket sock, const uint8_t *data, size_t n)
{
    if (!usable(sock))
        return false;
    size_t some = n < net_memory.send_limit ? n : (size_t)net_memory.send_limit;
    net_memory.sent.insert(net_memory.sent.end(), data, data + some);
    net_memory.send_limit -= some;
    return some == n;
}

bool net_send_once(net_socket sock, const uint8_t *data, size_t n)
{
    return net_send_all(sock, data, n);
}

bool net_wait_readable(net_socket sock)
{
    return usable(sock) && wait_for(1);
}

void net_set_nodelay(net_socket)
{
}

void net_set_send_buffer(net_socket, int)
{
}

void net_set_recv_buffer(net_socket, int)
{
}

void net_set_send_timeout(net_socket, uint32_t)
{
}

void net_set_keepalive(net_socket, uint32_t, uint32_t)
{
}

void net_abort(net_socket sock)
{
    if (sock == NET_MEMORY_SOCKET)
        net_memory.aborted = true;
}

void net_close(net_socket sock)
{
    if (sock == NET_MEMORY_SOCKET) {
        net_memory.aborted = true;
        net_memory.closed++;
    }
}
