// Fakes: server_log_record
//
// The sockets are replaced in this file: what a relay does to a host can then happen on
// demand. host_server_test registers over real ones.
#include "host/relay_register.h"
#include "protocol/relay_hello.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"

#include <string.h>
#include <string>
#include <vector>

static constexpr net_socket SOCK = 77;

static struct {
    net_connect_result result;
    bool send_works;

    std::string host, port;
    bool every_address;
    std::vector<std::string> calls; // on the socket, in order
    std::vector<uint8_t> sent;
} net;

net_connect_result net_connect(const char *host, const char *port, bool every_address,
                               net_socket *sock)
{
    net.host = host;
    net.port = port;
    net.every_address = every_address;
    *sock = net.result == NET_CONNECTED ? SOCK : NET_INVALID;
    return net.result;
}

int net_last_error()
{
    return 10061;
}

void net_set_keepalive(net_socket sock, uint32_t idle_s, uint32_t interval_s)
{
    CHECK(sock == SOCK);
    CHECK(idle_s == 60);
    CHECK(interval_s == 10);
    net.calls.push_back("keep-alive");
}

bool net_send_once(net_socket sock, const uint8_t *data, size_t n)
{
    CHECK(sock == SOCK);
    net.calls.push_back("send");
    net.sent.assign(data, data + n);
    return net.send_works;
}

void net_close(net_socket sock)
{
    CHECK(sock == SOCK);
    net.calls.push_back("close");
}

static net_socket try_register(net_connect_result result, bool send_works,
                               const char *room = "123456789", const char *name = "host-box")
{
    net = {};
    net.result = result;
    net.send_works = send_works;
    server_log_clear();
    return host::relay_register("relay.example", room, name);
}

TEST_CASE("a registration connects to any address of port 7000 and sends one hello")
{
    CHECK(try_register(NET_CONNECTED, true) == SOCK);
    CHECK(net.host == "relay.example");
    CHECK(net.port == "7000");
    CHECK(net.every_address);
    CHECK(net.calls == std::vector<std::string>{"keep-alive", "send"});

    uint8_t expected[56] = {'Q', 'V', 'R', 'L', 2, 'H'};
    memcpy(expected + 6, "123456789", 9); // and 9 zeros
    memcpy(expected + 24, "host-box", 8);
    REQUIRE(net.sent.size() == 56);
    CHECK(memcmp(net.sent.data(), expected, 56) == 0);

    auto lines = server_log_lines();
    REQUIRE(lines.size() == 1);
    CHECK(lines[0] ==
          "relay: connected to relay.example:7000, room '123456789', waiting for a viewer");
}

TEST_CASE("room and name fill their fields to the last byte")
{
    const struct {
        const char *room, *name;
        const char *room_field, *name_field; // without their padding
    } rows[] = {
        {"123456789012345678", "n", "123456789012345678", "n"}, // 18: no terminator
        {"1234567890123456789", "n", "123456789012345678", "n"},
        {"", "", "", ""},
        {"qv-demo", "12345678901234567890123456789012", "qv-demo",
         "12345678901234567890123456789012"}, // 32: no terminator
        {"r", "123456789012345678901234567890123", "r", "12345678901234567890123456789012"},
    };
    for (auto &row : rows) {
        CAPTURE(row.room);
        CAPTURE(row.name);
        CHECK(try_register(NET_CONNECTED, true, row.room, row.name) == SOCK);
        uint8_t expected[56] = {'Q', 'V', 'R', 'L', 2, 'H'};
        memcpy(expected + 6, row.room_field, strlen(row.room_field));
        memcpy(expected + 24, row.name_field, strlen(row.name_field));
        REQUIRE(net.sent.size() == 56);
        CHECK(memcmp(net.sent.data(), expected, 56) == 0);
    }
}

TEST_CASE("a relay that has no address is logged")
{
    CHECK(try_register(NET_UNRESOLVED, true) == NET_INVALID);
    CHECK(net.calls.empty());
    auto lines = server_log_lines();
    REQUIRE(lines.size() == 1);
    CHECK(lines[0] == "relay: cannot resolve relay.example");
}

TEST_CASE("a relay that takes no connection is logged with the error")
{
    CHECK(try_register(NET_REFUSED, true) == NET_INVALID);
    CHECK(net.calls.empty());
    auto lines = server_log_lines();
    REQUIRE(lines.size() == 1);
    CHECK(lines[0] == "relay: connect relay.example:7000 failed (10061)");
}

TEST_CASE("a hello that is not taken whole closes the socket without a word")
{
    CHECK(try_register(NET_CONNECTED, false) == NET_INVALID);
    CHECK(net.calls == std::vector<std::string>{"keep-alive", "send", "close"});
    CHECK(server_log_lines().empty());
}
