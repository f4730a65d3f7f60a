#include "app/connect_target.h"

#include "tests/test.h"

#include <string>

using namespace app;

// A request, freed at the end of the test.
struct request_of {
    connect_request *request;

    explicit request_of(const std::string &target, const std::string &password = "pw",
                        const std::string &relay = "relay.example.com")
        : request(connect_request_new(target.c_str(), password.c_str(), relay.c_str()))
    {
        REQUIRE(request);
    }
    ~request_of()
    {
        connect_request_free(request);
    }
    request_of(const request_of &) = delete;
    request_of &operator=(const request_of &) = delete;
    connect_request *operator->() const
    {
        return request;
    }
};

TEST_CASE("digits alone are an ID, to be reached through the relay")
{
    const std::string longest(127, '7');
    for (const std::string &target : {std::string("123456789"), std::string("0"),
                                      std::string("12345678901234567890"), longest}) {
        CAPTURE(target);
        request_of request(target);
        CHECK(request->use_relay == 1);
        CHECK(std::string(request->host) == "relay.example.com");
        CHECK(std::string(request->port) == "7000");
        CHECK(std::string(request->target) == target.substr(0, 63));
    }
}

TEST_CASE("anything else is a host, with a port or without")
{
    static const struct {
        const char *target, *host, *port;
    } rows[] = {
        {"192.0.2.7", "192.0.2.7", "7777"},
        {"192.0.2.7:5900", "192.0.2.7", "5900"},
        {"desk", "desk", "7777"},
        {"desk:7778", "desk", "7778"},
        // Grouped as the label shows an ID: no ID.
        {"123 456 789", "123 456 789", "7777"},
        {" 123456789", " 123456789", "7777"},
        {"123456789 ", "123456789 ", "7777"},
        {"-1", "-1", "7777"},
        {"12a", "12a", "7777"},
        {"1.5", "1.5", "7777"},
        {"\xb2\xb3", "\xb2\xb3", "7777"}, // superscript two and three
        // What stands behind the colon is the session's to judge.
        {"desk:", "desk", ""},
        {"desk:http", "desk", "http"},
        {":7777", "", "7777"},
        {":", "", ""},
        {"123456789:7777", "123456789", "7777"},
        // The last colon counts.
        {"fe80::1", "fe80:", "1"},
        {"::1", ":", "1"},
        {"a:b:c", "a:b", "c"},
    };
    for (const auto &row : rows) {
        CAPTURE(row.target);
        request_of request(row.target);
        CHECK(request->use_relay == 0);
        CHECK(std::string(request->host) == row.host);
        CHECK(std::string(request->port) == row.port);
        CHECK(std::string(request->target) == row.target);
    }
}

TEST_CASE("every text is cut to its field")
{
    const std::string host(200, 'h'), port(40, '9'), password(100, 'p'), relay(200, 'r');
    request_of direct(host + ":" + port, password);
    CHECK(std::string(direct->host) == host.substr(0, 127)); // the colon is cut off, too
    CHECK(std::string(direct->port) == "7777");
    CHECK(std::string(direct->target) == host.substr(0, 63));
    CHECK(std::string(direct->password) == password.substr(0, 63));

    request_of with_port("desk:" + port);
    CHECK(std::string(with_port->port) == port.substr(0, 15));

    request_of by_relay("1", "", relay);
    CHECK(std::string(by_relay->host) == relay.substr(0, 127));
    CHECK(std::string(by_relay->password).empty());
}
