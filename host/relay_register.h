// The host's side of the relay: connect and wait in a room.
#ifndef QV_HOST_RELAY_REGISTER_H
#define QV_HOST_RELAY_REGISTER_H

#include "protocol/net.h"

namespace host
{

// Resolves the relay, connects to the first of its addresses that accepts, and sends the
// host's hello. Returns the connected socket, which the caller owns, or NET_INVALID;
// logs why it failed.
[[nodiscard]] net_socket relay_register(const char *relay_host, const char *room,
                                        const char *computer_name);

} // namespace host

#endif
