// Two connections that have met: bytes go both ways, unchanged and in order.
//
// Each direction is one loop with one buffer: read, write, read again. So what a slow reader
// does not take stays with its sender, and nobody else notices.
#ifndef QV_RELAY_PAIR_H
#define QV_RELAY_PAIR_H

#include "relay/connection.h"
#include "relay/counters.h"
#include "relay/limits.h"
#include "relay/options.h"

#include <asio/awaitable.hpp>

#include <cstdint>
#include <functional>
#include <memory>

namespace relay
{

// Seconds of a clock that never goes back.
double now_seconds();

class pair : public std::enable_shared_from_this<pair>
{
  public:
    // total is the bandwidth of all pairs and outlives this one, as do settings and numbers.
    pair(connection_ptr host, connection_ptr viewer, const options &settings, counters &numbers,
         token_bucket &total);

    // Starts to forward. ended is called once, when both connections are closed.
    void start(std::function<void(pair &)> ended);

    // Closes both connections. Harmless when they are.
    void close();

    connection &host()
    {
        return *host_;
    }
    connection &viewer()
    {
        return *viewer_;
    }
    const pair_progress &progress() const
    {
        return progress_;
    }
    // Whether it went, up to its end, as it does with a wrong password.
    bool is_failed_login() const;

  private:
    struct direction {
        connection &from, &to;
        count &total;
        std::uint64_t &bytes; // in progress_
        asio::steady_timer pause;
        bool done = false;
    };

    asio::awaitable<void> forward(std::shared_ptr<pair> self, direction &d);
    asio::awaitable<void> watch_handshake(std::shared_ptr<pair> self);
    void direction_done(direction &d, bool in_order);

    connection_ptr host_, viewer_;
    const options &settings_;
    counters &numbers_;
    token_bucket &total_bandwidth_;
    token_bucket bandwidth_;
    pair_progress progress_;
    direction to_host_, to_viewer_;
    asio::steady_timer timer_; // the handshake's, then that of a half-closed pair
    bool closed_ = false, stalled_ = false;
    std::function<void(pair &)> ended_;
};

} // namespace relay

#endif
