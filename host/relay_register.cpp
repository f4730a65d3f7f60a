// How a host becomes reachable through a relay: it connects out and waits in its room.
//
// The relay answers nothing; the next bytes on the connection come from a viewer. One
// registration serves at most one viewer, and the server makes a new one afterwards. Called
// by the host server thread.
#include "host/relay_register.h"
#include "host/host_session.h"
#include "identity/server_log.h"
#include "protocol/relay_hello.h"

#include <stdio.h>

namespace host
{

net_socket relay_register(const char *relay_host, const char *room, const char *computer_name)
{
    char port[8];
    snprintf(port, sizeof port, "%u", (unsigned)RELAY_PORT);

    net_socket sock;
    switch (net_connect(relay_host, port, true, &sock)) {
    case NET_CONNECTED:
        break;
    case NET_UNRESOLVED:
        server_log("relay: cannot resolve %s", relay_host);
        return NET_INVALID;
    case NET_REFUSED:
        server_log("relay: connect %s:%d failed (%d)", relay_host, (int)RELAY_PORT,
                   net_last_error());
        return NET_INVALID;
    }

    // The wait in the room can take days; without these a line that went dead meanwhile
    // would never be noticed.
    net_set_keepalive(sock, SESSION_KEEPALIVE_IDLE_S, SESSION_KEEPALIVE_INTERVAL_S);

    char name[NAME_BYTES];
    copy_padded((uint8_t *)name, NAME_BYTES, computer_name);
    uint8_t hello[RELAY_HELLO_BYTES];
    relay_hello_build(hello, RELAY_ROLE_HOST, room, name);
    if (!net_send_once(sock, hello, sizeof hello)) {
        net_close(sock);
        return NET_INVALID;
    }
    server_log("relay: connected to %s:%d, room '%s', waiting for a viewer", relay_host,
               (int)RELAY_PORT, room);
    return sock;
}

} // namespace host
