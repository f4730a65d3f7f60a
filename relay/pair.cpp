#include "relay/pair.h"

#include "relay/log.h"

#include <asio/co_spawn.hpp>
#include <asio/write.hpp>

#include <chrono>
#include <exception>

namespace relay
{

// A direction starts with a buffer for keystrokes and doubles it while it fills. The preset
// end, 32 KiB, is less than a segment of the sender: a read that fills its buffer is followed
// by another at once, one that comes short waits for the system to report the socket again.
// With 64 to 256 KiB most reads came short, which cost a pair on the loopback a third to half
// of its throughput.
static constexpr std::size_t FIRST_BUFFER_BYTES = 4096;

double now_seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

static std::chrono::nanoseconds seconds(double s)
{
    return std::chrono::nanoseconds((std::int64_t)(s * 1e9));
}

pair::pair(connection_ptr host, connection_ptr viewer, const options &settings,
           counters &numbers, token_bucket &total)
    : host_(std::move(host)), viewer_(std::move(viewer)), settings_(settings),
      numbers_(numbers), total_bandwidth_(total),
      // A tenth of a second's worth may pass at once.
      bandwidth_(settings.pair_bytes_per_second, settings.pair_bytes_per_second / 10,
                 now_seconds()),
      to_host_{*viewer_, *host_, numbers.bytes_to_host, progress_.to_host,
               asio::steady_timer(host_->socket.get_executor())},
      to_viewer_{*host_, *viewer_, numbers.bytes_to_viewer, progress_.to_viewer,
                 asio::steady_timer(host_->socket.get_executor())},
      timer_(host_->socket.get_executor())
{
}

bool pair::is_failed_login() const
{
    return !stalled_ && progress_.is_failed_login();
}

void pair::start(std::function<void(pair &)> ended)
{
    ended_ = std::move(ended);
    const auto executor = host_->socket.get_executor();
    const auto self = shared_from_this();
    const auto failed = [self](std::exception_ptr failure) { // no memory, for one
        if (failure)
            self->close();
    };
    asio::co_spawn(executor, forward(self, to_host_), failed);
    asio::co_spawn(executor, forward(self, to_viewer_), failed);
    asio::co_spawn(executor, watch_handshake(self), failed);
}

void pair::close()
{
    if (closed_)
        return;
    closed_ = true;
    timer_.cancel();
    to_host_.pause.cancel();
    to_viewer_.pause.cancel();
    host_->close();
    viewer_->close();
    ended_(*this);
}

asio::awaitable<void> pair::watch_handshake(std::shared_ptr<pair>)
{
    asio::error_code error;
    timer_.expires_after(seconds(settings_.handshake_seconds));
    co_await timer_.async_wait(into(error));
    if (error || closed_)
        co_return;
    if (progress_.is_past_handshake())
        co_return;
    stalled_ = true;
    numbers_.stalled_handshakes++;
    log(level::warning, host_->who() + " and " + viewer_->who() + ": closed, " +
                            std::to_string(progress_.to_host) + " and " +
                            std::to_string(progress_.to_viewer) +
                            " bytes of the handshake in time");
    close();
}

asio::awaitable<void> pair::forward(std::shared_ptr<pair>, direction &d)
{
    asio::error_code error;
    std::vector<std::uint8_t> buffer = std::move(d.from.early);
    std::size_t n = buffer.size(); // what came while it waited goes first
    if (buffer.size() < FIRST_BUFFER_BYTES)
        buffer.resize(FIRST_BUFFER_BYTES);
    while (!closed_) {
        if (n > 0) {
            co_await asio::async_write(d.to.socket, asio::buffer(buffer.data(), n),
                                       into(error));
            if (error || closed_)
                break;
            d.bytes += n;
            d.total += n;
            const double now = now_seconds();
            const double wait = std::max(bandwidth_.take((double)n, now),
                                         total_bandwidth_.take((double)n, now));
            if (wait > 0) {
                d.pause.expires_after(seconds(wait));
                co_await d.pause.async_wait(into(error));
                if (error || closed_)
                    break;
            }
            if (n == buffer.size() && n < settings_.buffer_bytes)
                buffer.resize(std::min<std::size_t>(2 * n, settings_.buffer_bytes));
        }
        n = co_await d.from.socket.async_read_some(asio::buffer(buffer), into(error));
        if (error)
            break;
    }
    direction_done(d, error == asio::error::eof);
}

void pair::direction_done(direction &d, bool in_order)
{
    if (closed_)
        return;
    d.done = true;
    if (!in_order || (to_host_.done && to_viewer_.done)) {
        close();
        return;
    }
    // What was under way to this end has been written; it may still be answered.
    asio::error_code ignored;
    d.to.socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    timer_.expires_after(seconds(settings_.half_closed_seconds));
    timer_.async_wait([self = shared_from_this()](asio::error_code error) {
        if (!error)
            self->close();
    });
}

} // namespace relay
