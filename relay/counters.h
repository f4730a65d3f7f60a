// What the relay counts. Written by its one thread, read by whoever asks for metrics.
#ifndef QV_RELAY_COUNTERS_H
#define QV_RELAY_COUNTERS_H

#include <array>
#include <atomic>
#include <cstdint>

namespace relay
{

// Why a connection was closed that had done nothing, or nothing right.
enum class refusal {
    none,
    bad_hello,
    hello_late,
    bad_proxy_header,
    address_not_allowed,
    id_not_allowed,
    connections,
    connections_of_address,
    accept_rate,
    rooms,
    viewers_in_room,
    room_taken,
    line_taken,
    back_off,
    no_host_came,
    early_flood,
    draining,
    count
};

struct refusal_text {
    const char *label; // in metrics
    const char *text;  // in the log
};

constexpr std::array<refusal_text, (std::size_t)refusal::count> REFUSALS = {{
    {"none", ""},
    {"bad_hello", "the hello is none"},
    {"hello_late", "no whole hello in time"},
    {"bad_proxy_header", "the proxy's header is none"},
    {"address_not_allowed", "this role may not come from there"},
    {"id_not_allowed", "the ID is not on the list"},
    {"connections", "too many connections"},
    {"connections_of_address", "too many connections from there"},
    {"accept_rate", "too many new connections from there"},
    {"rooms", "too many rooms"},
    {"viewers_in_room", "too many viewers wait for this host"},
    {"room_taken", "the room belongs to a host of another name"},
    {"line_taken", "another host is in line already"},
    {"back_off", "too many failed log-ins lately"},
    {"no_host_came", "no host came"},
    {"early_flood", "a host that waits has nothing to say"},
    {"draining", "the relay is about to end"},
}};

constexpr const refusal_text &describe(refusal why)
{
    return REFUSALS[(std::size_t)why];
}

using count = std::atomic<std::uint64_t>;

struct counters {
    // As it is now.
    count connections, rooms, waiting_hosts, waiting_viewers, pairs;
    // Since the start.
    count accepted, hosts, viewers, paired, failed_logins, stalled_handshakes, replaced_hosts;
    count bytes_to_host, bytes_to_viewer;
    std::array<count, (std::size_t)refusal::count> refused;
};

} // namespace relay

#endif
