// The relay's settings: the command line, a configuration file, and their defaults.
#ifndef QV_RELAY_OPTIONS_H
#define QV_RELAY_OPTIONS_H

#include <asio/ip/address.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace relay
{

// Addresses that have their first `bits` bits in common.
struct address_range {
    asio::ip::address base;
    unsigned bits;
};

// "10.0.0.0/8", "2001:db8::/32", or one address.
std::optional<address_range> parse_range(const std::string &text);

// address as plain_address gives it.
bool contains(const address_range &range, const asio::ip::address &address);
bool contains(const std::vector<address_range> &ranges, const asio::ip::address &address);

struct endpoint {
    asio::ip::address address;
    std::uint16_t port;
};

// "127.0.0.1:9700", "[::1]:9700".
std::optional<endpoint> parse_endpoint(const std::string &text);

struct options {
    std::optional<endpoint> listen;             // absent: port 7000 of all addresses
    std::optional<endpoint> metrics;            // absent: none
    std::vector<address_range> trusted_proxies; // these must write a proxy header
    std::vector<address_range> hosts, viewers;  // empty: from anywhere
    std::optional<std::unordered_set<std::string>> allowed_ids; // absent: every room

    double hello_seconds;       // from accept to the last byte of the hello
    double viewer_wait_seconds; // for a host
    double handshake_seconds;   // from pairing to the handshake's last byte
    double half_closed_seconds; // for one side when the other has ended
    double drain_seconds;       // for the pairs that are left when told to end
    // A silent connection is probed after so long, again so often, and then given up; so is
    // data that its peer's system does not acknowledge.
    std::uint32_t keep_alive_seconds, probe_seconds, probes;
    std::uint32_t user_timeout_seconds;
    double logins_per_room; // failed ones a minute
    double logins_per_address;
    std::uint32_t connections; // in all
    std::uint32_t connections_per_address;
    double accepts_per_address; // a second
    double accept_burst;
    std::uint32_t rooms;
    std::uint32_t viewers_per_room;
    std::uint32_t buffer_bytes;   // per direction of a pair
    double pair_bytes_per_second; // both directions together
    double total_bytes_per_second;
    bool quiet; // only what is refused or goes wrong is logged
};

// The settings, or the status to exit with after help or an error was printed.
struct parsed_options {
    std::optional<options> settings;
    int exit_status = 0;
};
parsed_options parse_options(int argc, const char *const *argv);

} // namespace relay

#endif
