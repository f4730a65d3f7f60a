#include "relay/server.h"

#include "relay/hello.h"
#include "relay/log.h"

#include <asio/co_spawn.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/read.hpp>

#include <array>
#include <chrono>
#include <exception>

namespace relay
{

using asio::ip::tcp;

static constexpr std::uint16_t RELAY_PORT = 7000;
static constexpr std::chrono::milliseconds ACCEPT_PAUSE(100); // when the system has no more

// What is kept of what one side sends before it has met the other. A viewer sends its key,
// 32 bytes; what it sends beyond this waits in the system's buffers.
static constexpr std::size_t EARLY_STEP_BYTES = 256;
static constexpr std::size_t EARLY_MAX_BYTES = 4096;

// Refusals in the log: so many at once, so many a second. A flood fills no disk.
static constexpr double REFUSAL_LINES_BURST = 200;
static constexpr double REFUSAL_LINES_PER_SECOND = 20;

static std::chrono::nanoseconds seconds(double s)
{
    return std::chrono::nanoseconds((std::int64_t)(s * 1e9));
}

server::server(asio::io_context &io, const options &settings, counters &numbers)
    : io_(io), settings_(settings), numbers_(numbers), acceptor_(io), drain_timer_(io),
      lobby_(settings, numbers),
      bandwidth_(settings.total_bytes_per_second, settings.total_bytes_per_second / 10,
                 now_seconds()),
      refusal_lines_(REFUSAL_LINES_PER_SECOND, REFUSAL_LINES_BURST, now_seconds())
{
}

void server::start()
{
    const auto listen = [&](const tcp::endpoint &where) {
        acceptor_.open(where.protocol());
#ifndef _WIN32 // there it would let any program take the port away
        acceptor_.set_option(asio::socket_base::reuse_address(true));
#endif
        if (where.address().is_v6() && where.address().is_unspecified())
            acceptor_.set_option(asio::ip::v6_only(false)); // IPv4 as well
        acceptor_.bind(where);
        acceptor_.listen(asio::socket_base::max_listen_connections);
    };
    if (settings_.listen) {
        listen(tcp::endpoint(settings_.listen->address, settings_.listen->port));
    } else {
        try {
            listen(tcp::endpoint(tcp::v6(), RELAY_PORT));
        } catch (const std::system_error &error) {
            if (error.code() != asio::error::address_family_not_supported)
                throw;
            acceptor_.close(); // a machine without IPv6
            listen(tcp::endpoint(tcp::v4(), RELAY_PORT));
        }
    }
    asio::co_spawn(io_, accept_loop(), [](std::exception_ptr failure) {
        if (failure)
            std::rethrow_exception(failure); // out of io's run: no relay without this loop
    });
}

// What ends the coroutine of a connection when it fails (no memory, for one).
auto server::end_on_failure(connection_ptr c)
{
    return [this, c](std::exception_ptr failure) {
        if (!failure)
            return;
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception &e) {
            log(level::warning, c->who() + ": " + e.what());
        }
        if (c->waits)
            leave(c);
        c->close();
    };
}

asio::awaitable<void> server::accept_loop()
{
    while (!draining_) {
        asio::error_code error;
        tcp::socket socket = co_await acceptor_.async_accept(into(error));
        if (draining_)
            break;
        if (error) {
            if (error == asio::error::connection_aborted)
                continue; // gone before we looked
            log(level::warning, "accept: " + error.message());
            asio::steady_timer pause(io_, ACCEPT_PAUSE);
            co_await pause.async_wait(asio::use_awaitable);
            continue;
        }
        numbers_.accepted++;
        auto c = std::make_shared<connection>(std::move(socket), ++last_id_);
        asio::co_spawn(io_, serve(c), end_on_failure(c));
    }
}

// ---------------------------------------------------------------------------------------
// From accept to the hello

void server::refuse(connection &c, refusal why, const std::string &detail)
{
    numbers_.refused[(std::size_t)why]++;
    c.close();
    if (!refusal_lines_.try_take(1, now_seconds())) {
        unlogged_refusals_++;
        return;
    }
    if (unlogged_refusals_ > 0)
        log(level::warning, std::to_string(unlogged_refusals_) + " refusals without a line");
    unlogged_refusals_ = 0;
    log(level::warning,
        c.who() + ": refused, " + describe(why).text + (detail.empty() ? "" : ": " + detail));
}

// A connection ended, or its time did, n bytes into what it had to say first. One that said
// nothing only looked whether somebody listens.
void server::refuse_unfinished(connection &c, std::size_t n, refusal unfinished)
{
    if (c.is_late)
        refuse(c, lobby::times_out(c), std::to_string(n) + " bytes");
    else if (n > 0)
        refuse(c, unfinished, "ends after " + std::to_string(n) + " bytes");
    c.close();
}

asio::awaitable<bool> server::read_proxy_header(connection_ptr c)
{
    asio::error_code error;
    std::array<std::uint8_t, PROXY_HEADER_BYTES> head;
    std::size_t got = co_await asio::async_read(c->socket, asio::buffer(head), into(error));
    if (error) {
        refuse_unfinished(*c, got, refusal::bad_proxy_header);
        co_return false;
    }
    const auto header = parse_proxy_header(head);
    if (!header) {
        refuse(*c, refusal::bad_proxy_header);
        co_return false;
    }
    std::vector<std::uint8_t> body(header->body_bytes);
    got = co_await asio::async_read(c->socket, asio::buffer(body), into(error));
    if (error) {
        refuse_unfinished(*c, head.size() + got, refusal::bad_proxy_header);
        co_return false;
    }
    if (!header->has_client)
        co_return true; // the proxy speaks for itself, under its own address
    const auto source = parse_proxy_source(*header, body);
    if (!source) {
        refuse(*c, refusal::bad_proxy_header, "no address of its client");
        co_return false;
    }
    c->address = *source;
    co_return true;
}

asio::awaitable<void> server::serve(connection_ptr c)
{
    asio::error_code error;
    const tcp::endpoint peer = c->socket.remote_endpoint(error);
    if (error)
        co_return; // gone already
    c->address = plain_address(peer.address());
    if (const refusal why = lobby_.opens(*c, now_seconds()); why != refusal::none) {
        refuse(*c, why);
        co_return;
    }
    set_socket_options(c->socket, settings_);
    c->socket.non_blocking(true); // for the watcher, which reads what is there

    // One time for all that comes before a room.
    c->timer.expires_after(seconds(*c->deadline - now_seconds()));
    c->timer.async_wait([c](asio::error_code cancelled) {
        if (cancelled || c->has_hello)
            return;
        c->is_late = true;
        c->close(); // not only what it reads now: what it would read next as well
    });
    if (contains(settings_.trusted_proxies, c->address) && !co_await read_proxy_header(c))
        co_return;
    if (const refusal why = lobby_.arrives(*c, now_seconds()); why != refusal::none) {
        refuse(*c, why);
        co_return;
    }
    std::array<std::uint8_t, RELAY_HELLO_BYTES> bytes;
    const std::size_t got =
        co_await asio::async_read(c->socket, asio::buffer(bytes), into(error));
    if (error || c->is_late) {
        refuse_unfinished(*c, got, refusal::bad_hello);
        co_return;
    }
    const char *detail = "";
    if (const refusal why = lobby_.greets(*c, bytes, &detail); why != refusal::none) {
        refuse(*c, why, detail);
        co_return;
    }
    c->timer.cancel();
    enter(c);
}

// ---------------------------------------------------------------------------------------
// Rooms

void server::enter(connection_ptr c)
{
    const outcome o = lobby_.enters(*c, now_seconds());
    if (o.refused != refusal::none) {
        refuse(*c, o.refused, "room '" + printable(c->room) + "'");
        return;
    }
    log(level::info, c->who() + ": room '" + printable(c->room) + "', name '" +
                         printable(c->name) + (o.in_line ? "', waits in line" : "'"));
    in_rooms_[c->id] = c;
    c->waits = true;
    apply(o);
    if (!c->waits)
        return; // its partner was there
    asio::co_spawn(io_, watch(c), end_on_failure(c));
    if (c->deadline) {
        c->timer.expires_after(seconds(*c->deadline - now_seconds()));
        c->timer.async_wait([this, c](asio::error_code cancelled) {
            if (cancelled || !c->waits)
                return;
            refuse(*c, lobby::times_out(*c), "room '" + printable(c->room) + "'");
            leave(c);
        });
    }
}

// Sees a waiting connection's end, and keeps what it says early for its partner.
asio::awaitable<void> server::watch(connection_ptr c)
{
    for (;;) {
        asio::error_code error;
        co_await c->socket.async_wait(tcp::socket::wait_read, into(error));
        if (!c->waits)
            co_return; // met, or sent away
        const std::size_t kept = c->early.size();
        if (!error && kept >= EARLY_MAX_BYTES) {
            if (!c->is_host)
                co_return; // its wait is bounded, and the rest stays where it is
            refuse(*c, refusal::early_flood);
            break;
        }
        std::size_t n = 0;
        if (!error) {
            c->early.resize(kept + EARLY_STEP_BYTES);
            n = c->socket.read_some(asio::buffer(c->early.data() + kept, EARLY_STEP_BYTES),
                                    error);
            c->early.resize(kept + n);
        }
        if (error && error != asio::error::would_block && error != asio::error::try_again) {
            log(level::info, c->who() + ": gone while it waited (" + error.message() + ")");
            break;
        }
    }
    leave(c);
}

// Takes a connection that waits out of its room and ends it.
void server::leave(connection_ptr c)
{
    c->waits = false;
    c->close();
    in_rooms_.erase(c->id);
    apply(lobby_.ends(c->id));
}

void server::apply(const outcome &o)
{
    for (const connection_id id : o.close) {
        const auto entry = in_rooms_.extract(id);
        const connection_ptr old = entry.mapped();
        numbers_.replaced_hosts++;
        log(level::warning, old->who() + ": its place in room '" + printable(old->room) +
                                "' is taken by a new connection from there");
        old->waits = false;
        if (const auto p = old->paired.lock())
            p->close();
        old->close();
    }
    if (o.promoted != 0)
        log(level::warning, in_rooms_.at(o.promoted)->who() + ": no longer in line, room '" +
                                printable(in_rooms_.at(o.promoted)->room) + "' is its own");
    if (o.pair)
        make_pair(in_rooms_.at(o.pair->host), in_rooms_.extract(o.pair->viewer).mapped());
}

// ---------------------------------------------------------------------------------------
// Pairs

void server::make_pair(connection_ptr host, connection_ptr viewer)
{
    for (connection *c : {host.get(), viewer.get()}) {
        c->waits = false;
        c->timer.cancel();
        c->socket.cancel(); // ends its watcher
    }
    numbers_.paired++;
    log(level::info, host->who() + " and " + viewer->who() + ": paired");
    const auto p = std::make_shared<pair>(host, viewer, settings_, numbers_, bandwidth_);
    host->paired = p;
    pairs_.insert(p);
    numbers_.pairs = pairs_.size();
    p->start([this](pair &ended) { pair_ended(ended); });
}

void server::pair_ended(pair &p)
{
    log(level::info, p.host().who() + " and " + p.viewer().who() + ": ended after " +
                         std::to_string(p.progress().to_host) + " bytes to the host and " +
                         std::to_string(p.progress().to_viewer) + " to the viewer");
    if (p.is_failed_login())
        count_login(p);
    const connection_id host = p.host().id;
    pairs_.erase(p.shared_from_this());
    numbers_.pairs = pairs_.size();
    in_rooms_.erase(host);
    apply(lobby_.ends(host));
    if (draining_ && pairs_.empty())
        end_drain();
}

void server::count_login(pair &p)
{
    const lobby::closure closed = lobby_.fails_login(p.viewer(), now_seconds());
    std::string text =
        p.viewer().who() + ": failed to log in to room '" + printable(p.viewer().room) + "'";
    if (closed.room > 0)
        text += ", which takes no viewer for " + std::to_string((int)closed.room) + " s";
    if (closed.address > 0)
        text += ", takes nobody from there for " + std::to_string((int)closed.address) + " s";
    log(level::warning, text);
}

// ---------------------------------------------------------------------------------------
// The end

void server::drain(std::function<void()> done)
{
    draining_ = true;
    lobby_.drain();
    drained_ = std::move(done);
    log(level::warning, "ending: " + std::to_string(pairs_.size()) + " pairs left");
    acceptor_.close();
    // Viewers first, so that no host that moves up meets one.
    const auto waiting = in_rooms_; // leave() changes it
    for (const bool hosts : {false, true}) {
        for (const auto &[id, c] : waiting) {
            if (!c->waits || c->is_host != hosts)
                continue;
            refuse(*c, refusal::draining);
            leave(c);
        }
    }
    if (pairs_.empty()) {
        end_drain();
        return;
    }
    drain_timer_.expires_after(seconds(settings_.drain_seconds));
    drain_timer_.async_wait([this](asio::error_code cancelled) {
        if (cancelled)
            return;
        const auto left = pairs_;
        for (const auto &p : left)
            p->close();
    });
}

void server::end_drain()
{
    drain_timer_.cancel();
    drained_();
}

} // namespace relay
