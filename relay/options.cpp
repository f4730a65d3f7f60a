#include "relay/options.h"

#include "relay/hello.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <type_traits>
#include <variant>

namespace relay
{

std::optional<address_range> parse_range(const std::string &text)
{
    const std::size_t slash = text.find('/');
    asio::error_code error;
    const asio::ip::address base =
        plain_address(asio::ip::make_address(text.substr(0, slash), error));
    if (error)
        return {};
    const unsigned width = base.is_v4() ? 32 : 128;
    unsigned bits = width;
    if (slash != std::string::npos) {
        const char *first = text.data() + slash + 1, *last = text.data() + text.size();
        const auto [end, failure] = std::from_chars(first, last, bits);
        if (failure != std::errc() || end != last || first == last || bits > width)
            return {};
    }
    return address_range{base, bits};
}

static bool same_bits(const unsigned char *a, const unsigned char *b, unsigned bits)
{
    for (; bits >= 8; bits -= 8)
        if (*a++ != *b++)
            return false;
    return bits == 0 || (*a ^ *b) >> (8 - bits) == 0;
}

bool contains(const address_range &range, const asio::ip::address &address)
{
    if (range.base.is_v4() != address.is_v4())
        return false;
    if (address.is_v4())
        return same_bits(range.base.to_v4().to_bytes().data(),
                         address.to_v4().to_bytes().data(), range.bits);
    return same_bits(range.base.to_v6().to_bytes().data(), address.to_v6().to_bytes().data(),
                     range.bits);
}

bool contains(const std::vector<address_range> &ranges, const asio::ip::address &address)
{
    for (const address_range &range : ranges)
        if (contains(range, address))
            return true;
    return false;
}

std::optional<endpoint> parse_endpoint(const std::string &text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return {};
    std::string host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != std::string::npos)
        return {}; // an IPv6 address needs its brackets
    asio::error_code error;
    const asio::ip::address address = asio::ip::make_address(host, error);
    std::uint16_t port = 0;
    const char *first = text.data() + colon + 1, *last = text.data() + text.size();
    const auto [end, failure] = std::from_chars(first, last, port);
    if (error || failure != std::errc() || end != last || first == last)
        return {};
    return endpoint{address, port};
}

static std::vector<address_range> read_ranges(const std::string &option,
                                              const std::vector<std::string> &texts)
{
    std::vector<address_range> ranges;
    for (const std::string &text : texts) {
        const auto range = parse_range(text);
        if (!range)
            throw CLI::ValidationError(option, "'" + text + "' is no address or range");
        ranges.push_back(*range);
    }
    return ranges;
}

static endpoint read_endpoint(const std::string &option, const std::string &text)
{
    const auto point = parse_endpoint(text);
    if (!point)
        throw CLI::ValidationError(option, "'" + text + "' is no ADDRESS:PORT");
    return *point;
}

// One ID a line; blank lines and what follows a '#' do not count.
static std::unordered_set<std::string> read_ids(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        throw CLI::ValidationError("--allowed-ids", "cannot read '" + path + "'");
    std::unordered_set<std::string> ids;
    std::string line;
    while (std::getline(file, line)) {
        line.erase(std::find(line.begin(), line.end(), '#'), line.end());
        CLI::detail::trim(line);
        if (!line.empty())
            ids.insert(line.substr(0, RELAY_ROOM_BYTES)); // as hellos cut it
    }
    if (file.bad()) // a directory, for one
        throw CLI::ValidationError("--allowed-ids", "cannot read '" + path + "'");
    return ids;
}

// 4000 and 0.1, not 4e+03 and 0.100000.
static std::string plain_number(double n)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", n);
    return text;
}

static CLI::Validator between(double least, double most)
{
    const std::string range = plain_number(least) + " to " + plain_number(most);
    return CLI::Validator(
        [=](const std::string &text) {
            double n = 0;
            // A comparison with what is no number is false.
            const bool is_right = CLI::detail::lexical_cast(text, n) && n >= least && n <= most;
            return is_right ? std::string() : "'" + text + "' is not " + range;
        },
        "");
}

// A number that can be set: where it is kept, its default and its range.
struct number {
    const char *name;
    std::variant<double options::*, std::uint32_t options::*> field;
    double preset, least, most;
    const char *text;
};

static constexpr number NUMBERS[] = {
    {"--hello-seconds", &options::hello_seconds, 5, 0.1, 60, "from accept to a whole hello"},
    {"--viewer-wait-seconds", &options::viewer_wait_seconds, 10, 0, 300,
     "how long a viewer waits for its host"},
    {"--handshake-seconds", &options::handshake_seconds, 10, 0.1, 60,
     "from pairing to the end of the handshake"},
    {"--half-closed-seconds", &options::half_closed_seconds, 5, 0, 300,
     "how long one side may go on after the other has ended"},
    {"--drain-seconds", &options::drain_seconds, 600, 0, 86400,
     "how long pairs may go on once the relay was told to end"},
    {"--keep-alive-seconds", &options::keep_alive_seconds, 30, 1, 3600,
     "how long a connection may be silent before it is probed"},
    {"--probe-seconds", &options::probe_seconds, 10, 1, 600, "from one probe to the next"},
    {"--probes", &options::probes, 3, 1, 100, "probes without an answer that end it"},
    {"--user-timeout-seconds", &options::user_timeout_seconds, 60, 1, 3600,
     "how long a peer may acknowledge nothing"},
    {"--logins-per-room", &options::logins_per_room, 10, 1, 10000,
     "failed log-ins a minute to one ID, then back-off"},
    {"--logins-per-address", &options::logins_per_address, 5, 1, 10000,
     "failed log-ins a minute from one address, then back-off"},
    {"--connections", &options::connections, 4000, 1, 1000000, "connections in all"},
    {"--connections-per-address", &options::connections_per_address, 200, 1, 1000000,
     "connections of one address"},
    {"--accepts-per-address", &options::accepts_per_address, 20, 0.01, 100000,
     "new connections a second from one address"},
    {"--accept-burst", &options::accept_burst, 100, 1, 1000000,
     "new connections of one address that may come at once"},
    {"--rooms", &options::rooms, 1000, 1, 1000000, "rooms, that is IDs, at the same time"},
    {"--viewers-per-room", &options::viewers_per_room, 8, 1, 1000,
     "viewers that wait for one host"},
    {"--buffer-bytes", &options::buffer_bytes, 32768, 1024, 16777216,
     "buffer of one direction of a pair"},
    {"--pair-bytes-per-second", &options::pair_bytes_per_second, 125e6, 1000, 100e9,
     "both directions of one pair"},
    {"--total-bytes-per-second", &options::total_bytes_per_second, 1000e6, 1000, 100e9,
     "all pairs together"},
};

static void add_number(CLI::App &app, options &o, const number &n)
{
    const auto add = [&](auto member) {
        o.*member = static_cast<std::remove_reference_t<decltype(o.*member)>>(n.preset);
        return app.add_option(n.name, o.*member,
                              std::string(n.text) + " (" + plain_number(n.preset) + "; " +
                                  plain_number(n.least) + " to " + plain_number(n.most) + ")");
    };
    std::visit(add, n.field)->check(between(n.least, n.most))->type_name("N");
}

parsed_options parse_options(int argc, const char *const *argv)
{
    CLI::App app("Relay for qv: hosts wait here in the room of their ID, viewers join them.",
                 "qv_relay");
    app.get_formatter()->column_width(32);
    app.get_formatter()->label("REQUIRED", "required");
    options o = {};
    std::string listen, metrics = QV_RELAY_METRICS, allowed_ids;
    std::vector<std::string> proxies, hosts, viewers;

    app.add_option("--listen", listen, "where to listen (port 7000 of all addresses)")
        ->type_name("ADDRESS:PORT");
    app.add_option("--metrics", metrics,
                   "where to serve Prometheus metrics, or 'none' (" QV_RELAY_METRICS ")")
        ->type_name("ADDRESS:PORT");
    app.add_option("--trust-proxy", proxies,
                   "proxies that say their clients' addresses (PROXY protocol version 2)")
        ->type_name("RANGE");
    app.add_option("--allow-hosts", hosts, "where hosts may come from (anywhere)")
        ->type_name("RANGE");
    app.add_option("--allow-viewers", viewers, "where viewers may come from (anywhere)")
        ->type_name("RANGE");
    app.add_option("--allowed-ids", allowed_ids,
                   "only these IDs: a file with one a line (any ID)")
        ->type_name("FILE");

    for (const number &n : NUMBERS)
        add_number(app, o, n);
    app.add_flag("--quiet", o.quiet, "log only what is refused or goes wrong");
    app.set_config("--config", "", "a file with any of these: one 'name = value' a line")
        ->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.footer("In brackets: the default, then the range. A RANGE is an address or "
               "ADDRESS/BITS;\nseveral may follow one another.");

    try {
        app.parse(argc, argv);
        if (!listen.empty())
            o.listen = read_endpoint("--listen", listen);
        if (metrics != "none" && !metrics.empty())
            o.metrics = read_endpoint("--metrics", metrics);
        o.trusted_proxies = read_ranges("--trust-proxy", proxies);
        o.hosts = read_ranges("--allow-hosts", hosts);
        o.viewers = read_ranges("--allow-viewers", viewers);
        if (!allowed_ids.empty())
            o.allowed_ids = read_ids(allowed_ids);
    } catch (const CLI::ParseError &error) {
        return {.settings = {}, .exit_status = app.exit(error)};
    }
    return {.settings = std::move(o)};
}

} // namespace relay
