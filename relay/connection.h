// One TCP connection, from accept to its end.
#ifndef QV_RELAY_CONNECTION_H
#define QV_RELAY_CONNECTION_H

#include "relay/counters.h"
#include "relay/room_table.h"

#include <asio/ip/tcp.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace relay
{

class pair;

// Open connections by address.
using address_counts = std::unordered_map<std::string, std::uint32_t>;

// Counts one open connection of an address for as long as it lives.
class address_slot
{
  public:
    address_slot(std::shared_ptr<address_counts> counts, std::string key)
        : counts_(std::move(counts)), key_(std::move(key))
    {
        ++(*counts_)[key_];
    }
    ~address_slot()
    {
        const auto it = counts_->find(key_);
        if (--it->second == 0)
            counts_->erase(it);
    }
    address_slot(const address_slot &) = delete;
    address_slot &operator=(const address_slot &) = delete;

    std::uint32_t now() const
    {
        return counts_->at(key_);
    }

  private:
    std::shared_ptr<address_counts> counts_;
    std::string key_;
};

// Counts one in a gauge for as long as it lives.
class gauge_slot
{
  public:
    explicit gauge_slot(count &gauge) : gauge_(gauge)
    {
        gauge_++;
    }
    ~gauge_slot()
    {
        gauge_--;
    }
    gauge_slot(const gauge_slot &) = delete;
    gauge_slot &operator=(const gauge_slot &) = delete;

  private:
    count &gauge_;
};

struct connection {
    connection(asio::ip::tcp::socket s, connection_id n)
        : id(n), socket(std::move(s)), timer(socket.get_executor())
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

    const connection_id id;
    asio::ip::tcp::socket socket;
    asio::steady_timer timer;  // for the hello, then for a viewer's wait
    asio::ip::address address; // the client's, also behind a proxy
    std::optional<gauge_slot> open;
    std::optional<address_slot> of_address;
    bool has_hello = false, is_host = false;
    bool is_late = false; // its hello is
    std::string room, name;
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

// Keep-alive of 30 s, then three probes 10 s apart, no delay of small packets, and an end to
// data that nobody acknowledges for a minute. As far as the platform has it.
void set_socket_options(asio::ip::tcp::socket &socket);

} // namespace relay

#endif
