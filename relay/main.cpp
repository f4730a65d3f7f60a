// qv_relay: hosts wait here in the room of their ID, viewers join them.
#include "relay/log.h"
#include "relay/metrics.h"
#include "relay/options.h"
#include "relay/server.h"

#include <asio/signal_set.hpp>

#include <cstdio>
#include <exception>

#ifdef _WIN32
#include "protocol/system_library.h"
#else
#include <sys/resource.h>
#endif

// As many descriptors as this process may have: each connection takes one.
static void raise_descriptor_limit()
{
#ifndef _WIN32
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
#endif
}

static void run(const relay::options &settings)
{
    relay::log_quietly(settings.quiet);
    raise_descriptor_limit();
    relay::counters numbers = {};
    std::shared_ptr<relay::metrics_server> metrics;
    if (settings.metrics)
        metrics = relay::serve_metrics(*settings.metrics, numbers);

    asio::io_context io(1); // one thread: no locks
    relay::server server(io, settings, numbers);
    server.start();
    const auto where = server.local_endpoint();
    relay::log(relay::level::warning, "listening on " + where.address().to_string() + " port " +
                                          std::to_string(where.port()));

    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](asio::error_code, int) {
        server.drain([&] { io.stop(); });
        signals.async_wait([&](asio::error_code, int) { io.stop(); }); // asked twice: at once
    });
    io.run();
    relay::log(relay::level::warning, "ended");
}

int main(int argc, char **argv)
{
#ifdef _WIN32
    system_library_restrict();
#endif
    const relay::parsed_options parsed = relay::parse_options(argc, argv);
    if (!parsed.settings)
        return parsed.exit_status;
    try {
        run(*parsed.settings);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "qv_relay: %s\n", error.what());
        return 1;
    }
    return 0;
}
