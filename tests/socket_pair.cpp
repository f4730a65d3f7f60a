#include "tests/socket_pair.h"

#include "tests/test.h"

#include <string>

#ifdef _WIN32
#include <process.h>
static uint32_t process_id()
{
    return (uint32_t)_getpid();
}
#else
#include <unistd.h>
static uint32_t process_id()
{
    return (uint32_t)getpid();
}
#endif

// Below the ports that systems hand out for outgoing connections.
static constexpr uint32_t FIRST_PORT = 10000;
static constexpr uint32_t PORTS = 20000;

net_socket test_listen(uint16_t *port, int backlog)
{
    static uint32_t next = process_id() * 97;
    net_start();
    for (uint32_t attempts = 0; attempts < 1000; attempts++) {
        *port = (uint16_t)(FIRST_PORT + next++ % PORTS);
        net_socket listener = net_listen(*port, backlog);
        if (listener != NET_INVALID)
            return listener;
    }
    FAIL("no port to listen on");
    return NET_INVALID;
}

socket_pair socket_pair_open()
{
    socket_pair pair = {NET_INVALID, NET_INVALID};
    uint16_t port = 0;
    net_socket listener = test_listen(&port, 1);
    net_connect_result result =
        net_connect("127.0.0.1", std::to_string(port).c_str(), false, &pair.viewer);
    REQUIRE(result == NET_CONNECTED);
    pair.host = net_accept(listener);
    REQUIRE(pair.host != NET_INVALID);
    net_close(listener);
    return pair;
}

void socket_pair_close(socket_pair *pair)
{
    net_close(pair->host);
    net_close(pair->viewer);
    *pair = {NET_INVALID, NET_INVALID};
}
