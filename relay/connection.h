// One TCP connection, from accept to its end.
#ifndef QV_RELAY_CONNECTION_H
#define QV_RELAY_CONNECTION_H

#include "relay/lobby.h"

#include <asio/ip/tcp.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace relay
{

class pair;

struct connection : guest {
    connection(asio::ip::tcp::socket s, connection_id n)
        : guest(n), socket(std::move(s)), timer(socket.get_executor())
    {
    }

    // "host 17 of 192.0.2.7", for the log.
    std::string who() const
    {
        return std::string(!has_hello ? "connection "
                           : is_host  ? "host "
                                      : "viewer ") +
               std::to_string(id) + " of " + address.to_string();
    }

    // Ends everything that is under way on it.
    void close()
    {
        asio::error_code ignored;
        timer.cancel();
        socket.close(ignored);
    }

    asio::ip::tcp::socket socket;
    asio::steady_timer timer;        // for its deadline
    bool is_late = false;            // its hello is
    bool waits = false;              // for its partner; its watcher reads then
    std::vector<std::uint8_t> early; // what arrived after the hello while it waited
    std::weak_ptr<pair> paired;      // once it has met its partner
};

using connection_ptr = std::shared_ptr<connection>;

// The token of a coroutine that waits and finds out how it went in error, without exceptions.
inline auto into(asio::error_code &error)
{
    return asio::redirect_error(asio::use_awaitable, error);
}

// Keep-alive and user time-out as in the settings, and no delay of small packets; as far as
// the platform has it. Linux ends its probes when the user time-out is over, however many
// they were.
void set_socket_options(asio::ip::tcp::socket &socket, const options &settings);

} // namespace relay

#endif
