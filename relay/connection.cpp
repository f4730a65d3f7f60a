#include "relay/connection.h"

#ifdef _WIN32
#include <mstcpip.h>
#else
#include <netinet/tcp.h>
#endif

namespace relay
{

void set_socket_options(asio::ip::tcp::socket &socket, const options &settings)
{
    // A socket whose peer has gone already refuses; its first read says so.
    asio::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    const auto handle = socket.native_handle();
#ifdef _WIN32
    tcp_keepalive values = {.onoff = 1,
                            .keepalivetime = 1000 * settings.keep_alive_seconds,
                            .keepaliveinterval = 1000 * settings.probe_seconds};
    DWORD size = 0;
    WSAIoctl(handle, SIO_KEEPALIVE_VALS, &values, sizeof values, nullptr, 0, &size, nullptr,
             nullptr);
#else
    const int idle = (int)settings.keep_alive_seconds, interval = (int)settings.probe_seconds,
              probes = (int)settings.probes;
    const unsigned user_timeout_ms = 1000 * settings.user_timeout_seconds;
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
    setsockopt(handle, IPPROTO_TCP, TCP_USER_TIMEOUT, &user_timeout_ms, sizeof user_timeout_ms);
#endif
}

} // namespace relay
