#include "relay/options.h"

#include "relay/hello.h"
#include "tests/test.h"

#include <unistd.h>

#include <cstring>
#include <fstream>

using namespace relay;

// Parses a command line whose words the arguments are.
static parsed_options parse(const std::vector<std::string> &words)
{
    std::vector<const char *> argv = {"qv_relay"};
    for (const std::string &word : words)
        argv.push_back(word.c_str());
    return parse_options((int)argv.size(), argv.data());
}

static asio::ip::address address(const char *text)
{
    return asio::ip::make_address(text);
}

// A file with this text, for as long as it lives.
struct text_file {
    explicit text_file(const std::string &text)
    {
        const int handle = mkstemp(path);
        REQUIRE(handle >= 0);
        close(handle);
        std::ofstream(path) << text;
    }
    ~text_file()
    {
        unlink(path);
    }
    char path[32] = "/tmp/options_test.XXXXXX";
};

TEST_CASE("without an argument there is a relay for a small office")
{
    const auto parsed = parse({});
    REQUIRE(parsed.settings);
    const options &o = *parsed.settings;
    CHECK_FALSE(o.listen);
    REQUIRE(o.metrics);
    CHECK(o.metrics->address == address("127.0.0.1"));
    CHECK(o.metrics->port == 9700);
    CHECK(o.trusted_proxies.empty());
    CHECK(o.hosts.empty());
    CHECK(o.viewers.empty());
    CHECK_FALSE(o.allowed_ids);
    CHECK(o.hello_seconds == 5);
    CHECK(o.viewer_wait_seconds == 10);
    CHECK(o.handshake_seconds == 10);
    CHECK(o.logins_per_room == 10);
    CHECK_FALSE(o.quiet);
}

namespace
{

struct number_row {
    const char *name;
    double least, most, preset;
    double (*get)(const options &);
};

#define ROW(name, field, least, most, preset)                                                  \
    {                                                                                          \
        name, least, most, preset, [](const options &o) { return (double)o.field; }            \
    }
const number_row NUMBERS[] = {
    ROW("--hello-seconds", hello_seconds, 0.1, 60, 5),
    ROW("--viewer-wait-seconds", viewer_wait_seconds, 0, 300, 10),
    ROW("--handshake-seconds", handshake_seconds, 0.1, 60, 10),
    ROW("--half-closed-seconds", half_closed_seconds, 0, 300, 5),
    ROW("--drain-seconds", drain_seconds, 0, 86400, 600),
    ROW("--keep-alive-seconds", keep_alive_seconds, 1, 3600, 30),
    ROW("--probe-seconds", probe_seconds, 1, 600, 10),
    ROW("--probes", probes, 1, 100, 3),
    ROW("--user-timeout-seconds", user_timeout_seconds, 1, 3600, 60),
    ROW("--logins-per-room", logins_per_room, 1, 10000, 10),
    ROW("--logins-per-address", logins_per_address, 1, 10000, 5),
    ROW("--connections", connections, 1, 1000000, 4000),
    ROW("--connections-per-address", connections_per_address, 1, 1000000, 200),
    ROW("--accepts-per-address", accepts_per_address, 0.01, 100000, 20),
    ROW("--accept-burst", accept_burst, 1, 1000000, 100),
    ROW("--rooms", rooms, 1, 1000000, 1000),
    ROW("--viewers-per-room", viewers_per_room, 1, 1000, 8),
    ROW("--buffer-bytes", buffer_bytes, 1024, 16777216, 32768),
    ROW("--pair-bytes-per-second", pair_bytes_per_second, 1000, 100e9, 125e6),
    ROW("--total-bytes-per-second", total_bytes_per_second, 1000, 100e9, 1000e6),
};
#undef ROW

} // namespace

static std::string digits(double n)
{
    char text[40];
    snprintf(text, sizeof text, "%.15g", n);
    return text;
}

TEST_CASE("every number has its default, and both ends of its range, and nothing beyond")
{
    for (const number_row &row : NUMBERS) {
        CAPTURE(row.name);
        CHECK(row.get(*parse({}).settings) == row.preset);
        for (const double inside : {row.least, row.most}) {
            const auto parsed = parse({row.name, digits(inside)});
            REQUIRE(parsed.settings);
            CHECK(row.get(*parsed.settings) == inside);
        }
        for (const std::string &outside :
             {digits(row.least - 0.001), digits(row.most + 1), std::string("-1"),
              std::string("nan"), std::string("inf"), std::string("-inf"), std::string("x"),
              std::string(""), std::string("5x"), std::string("1e300")}) {
            CAPTURE(outside);
            const auto parsed = parse({row.name, outside});
            CHECK_FALSE(parsed.settings);
            CHECK(parsed.exit_status != 0);
        }
    }
}

TEST_CASE("what is asked for twice, unknown or without its value is an error")
{
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{"--nothing"},
                                               {"stray"},
                                               {"--rooms"},
                                               {"--rooms", "5", "--rooms", "6"},
                                               {"--listen"},
                                               {"--listen", "7000"},
                                               {"--listen", "localhost:7000"},
                                               {"--metrics", "127.0.0.1"},
                                               {"--allow-hosts", "10.0.0.0/33"},
                                               {"--allow-viewers", "here"},
                                               {"--trust-proxy", ""},
                                               {"--allowed-ids", "/nowhere/ids"},
                                               {"--allowed-ids", "/"},
                                               {"--config", "/nowhere/config"}}) {
        CAPTURE(words[0]);
        const auto parsed = parse(words);
        CHECK_FALSE(parsed.settings);
        CHECK(parsed.exit_status != 0);
    }
}

TEST_CASE("help is no error and starts nothing")
{
    const auto parsed = parse({"--help"});
    CHECK_FALSE(parsed.settings);
    CHECK(parsed.exit_status == 0);
}

TEST_CASE("endpoints have an address and a port")
{
    const struct {
        const char *text, *address; // null: none
        unsigned port;
    } rows[] = {
        {"127.0.0.1:9700", "127.0.0.1", 9700},
        {"0.0.0.0:0", "0.0.0.0", 0},
        {"[::1]:65535", "::1", 65535},
        {"[::]:7000", "::", 7000},
        {"127.0.0.1", nullptr, 0},
        {"127.0.0.1:", nullptr, 0},
        {"127.0.0.1:65536", nullptr, 0},
        {"127.0.0.1:-1", nullptr, 0},
        {"127.0.0.1:+1", nullptr, 0},
        {"127.0.0.1:7000x", nullptr, 0},
        {"127.0.0.1: 7000", nullptr, 0},
        {":7000", nullptr, 0},
        {"::1:7000", nullptr, 0},
        {"[::1]", nullptr, 0},
        {"[]:7000", nullptr, 0},
        {"", nullptr, 0},
        {"relay.example:7000", nullptr, 0},
    };
    for (const auto &row : rows) {
        CAPTURE(row.text);
        const auto got = parse_endpoint(row.text);
        REQUIRE(got.has_value() == (row.address != nullptr));
        if (row.address) {
            CHECK(got->address == address(row.address));
            CHECK(got->port == row.port);
        }
    }
}

TEST_CASE("ranges hold the addresses that share their bits")
{
    const struct {
        const char *range, *inside, *outside; // null: nothing is
    } rows[] = {
        {"192.0.2.7", "192.0.2.7", "192.0.2.6"},
        {"192.0.2.7/32", "192.0.2.7", "192.0.2.6"},
        {"192.0.2.6/31", "192.0.2.7", "192.0.2.8"},
        {"10.0.0.0/8", "10.255.255.255", "11.0.0.0"},
        {"10.1.2.3/8", "10.0.0.0", "9.255.255.255"}, // bits beyond do not count
        {"172.16.0.0/12", "172.31.255.255", "172.32.0.0"},
        {"128.0.0.0/1", "255.255.255.255", "127.255.255.255"},
        {"0.0.0.0/0", "255.0.0.1", "::1"},
        {"::/0", "2001:db8::1", "10.0.0.1"},
        {"2001:db8::/32", "2001:db8:ffff::", "2001:db9::"},
        {"fc00::/7", "fdff::1", "fe00::"},
        {"::1", "::1", "::2"},
        {"::1/127", "::", "::2"},
        {"::ffff:192.0.2.7", "192.0.2.7", "192.0.2.6"},
    };
    for (const auto &row : rows) {
        CAPTURE(row.range);
        const auto range = parse_range(row.range);
        REQUIRE(range);
        CHECK(contains(*range, address(row.inside)));
        CHECK_FALSE(contains(*range, address(row.outside)));
    }
    for (const char *text : {"", "/8", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/+1",
                             "10.0.0.0/8/8", "10.0.0/8", "::/129", "10.0.0.0/8 ", "any"}) {
        CAPTURE(text);
        CHECK_FALSE(parse_range(text));
    }
}

TEST_CASE("several ranges are one list, and none is nobody")
{
    const auto parsed =
        parse({"--allow-hosts", "10.0.0.0/8", "2001:db8::/32", "--allow-viewers", "192.0.2.1",
               "--allow-hosts", "192.168.0.0/16", "--trust-proxy", "127.0.0.1"});
    REQUIRE(parsed.settings);
    const options &o = *parsed.settings;
    CHECK(o.hosts.size() == 3);
    CHECK(contains(o.hosts, address("2001:db8::5")));
    CHECK(contains(o.hosts, address("192.168.3.4")));
    CHECK_FALSE(contains(o.hosts, address("192.0.2.1")));
    CHECK(contains(o.viewers, address("192.0.2.1")));
    CHECK(contains(o.trusted_proxies, address("127.0.0.1")));
    CHECK_FALSE(contains(std::vector<address_range>{}, address("127.0.0.1")));
}

TEST_CASE("the file of IDs has one a line, with room for remarks")
{
    const text_file file("123456789\r\n  987654321  # Anna\n\n# nobody\nabcdefghijklmnopqrs\n"
                         "last");
    const auto parsed = parse({"--allowed-ids", file.path});
    REQUIRE(parsed.settings);
    REQUIRE(parsed.settings->allowed_ids);
    // Hellos have 18 bytes for a room: a longer ID is cut as they cut it.
    CHECK(*parsed.settings->allowed_ids ==
          std::unordered_set<std::string>{"123456789", "987654321", "abcdefghijklmnopqr",
                                          "last"});
    const text_file nothing("# nobody\n");
    const auto nobody = parse({"--allowed-ids", nothing.path});
    REQUIRE(nobody.settings);
    REQUIRE(nobody.settings->allowed_ids); // and so nobody is let in
    CHECK(nobody.settings->allowed_ids->empty());
}

TEST_CASE("a configuration file has the names of the options, the command line wins")
{
    const text_file file("# the office's relay\n"
                         "listen = \"0.0.0.0:7001\"\n"
                         "metrics = none\n"
                         "allow-hosts = 10.0.0.0/8 192.168.0.0/16\n"
                         "rooms = 50\n"
                         "hello-seconds = 2.5\n"
                         "quiet = true\n");
    auto parsed = parse({"--config", file.path, "--rooms", "60"});
    REQUIRE(parsed.settings);
    const options &o = *parsed.settings;
    REQUIRE(o.listen);
    CHECK(o.listen->port == 7001);
    CHECK_FALSE(o.metrics);
    CHECK(o.hosts.size() == 2);
    CHECK(o.rooms == 60);
    CHECK(o.hello_seconds == 2.5);
    CHECK(o.quiet);
}

TEST_CASE("a configuration file's mistakes are errors as on the command line")
{
    for (const char *text : {"roms = 5\n", "rooms = 0\n", "rooms = many\n",
                             "[section]\nrooms = 5\n", "listen = 7000\n"}) {
        CAPTURE(text);
        const text_file file(text);
        const auto parsed = parse({"--config", file.path});
        CHECK_FALSE(parsed.settings);
        CHECK(parsed.exit_status != 0);
    }
}
