// The relay itself: takes connections, reads their hellos, brings hosts and viewers together.
//
// One thread runs everything; nothing here is safe to call from another.
#ifndef QV_RELAY_SERVER_H
#define QV_RELAY_SERVER_H

#include "relay/connection.h"
#include "relay/counters.h"
#include "relay/limits.h"
#include "relay/lobby.h"
#include "relay/options.h"
#include "relay/pair.h"

#include <asio/awaitable.hpp>
#include <asio/io_context.hpp>

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace relay
{

class server
{
  public:
    // io, settings and numbers outlive the server.
    server(asio::io_context &io, const options &settings, counters &numbers);

    // Listens; throws std::system_error when it cannot. Connections are served while io runs.
    void start();

    asio::ip::tcp::endpoint local_endpoint() const
    {
        return acceptor_.local_endpoint();
    }

    // Takes nobody any more and sends away who waits; pairs go on for the settings' time.
    // done is called once, when the last has ended. To be called once.
    void drain(std::function<void()> done);

  private:
    asio::awaitable<void> accept_loop();
    asio::awaitable<void> serve(connection_ptr c);
    asio::awaitable<bool> read_proxy_header(connection_ptr c);
    asio::awaitable<void> watch(connection_ptr c);

    void enter(connection_ptr c);
    void leave(connection_ptr c);
    void apply(const outcome &o);
    void make_pair(connection_ptr host, connection_ptr viewer);
    void pair_ended(pair &p);
    void count_login(pair &p);
    void end_drain();
    void refuse(connection &c, refusal why, const std::string &detail = {});
    void refuse_unfinished(connection &c, std::size_t n, refusal unfinished);
    auto end_on_failure(connection_ptr c);

    asio::io_context &io_;
    const options &settings_;
    counters &numbers_;
    asio::ip::tcp::acceptor acceptor_;
    asio::steady_timer drain_timer_;
    bool draining_ = false;
    std::function<void()> drained_;

    lobby lobby_;
    std::unordered_map<connection_id, connection_ptr> in_rooms_; // all that entered
    std::unordered_set<std::shared_ptr<pair>> pairs_;
    connection_id last_id_ = 0;

    token_bucket bandwidth_, refusal_lines_;
    std::uint64_t unlogged_refusals_ = 0;
};

} // namespace relay

#endif
