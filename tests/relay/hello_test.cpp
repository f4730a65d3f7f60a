#include "relay/hello.h"

#include "tests/test.h"

#include <array>
#include <cstring>

using namespace relay;

// A text with NULs inside, as bytes.
template <std::size_t N> static std::array<std::uint8_t, N - 1> bytes_of(const char (&text)[N])
{
    std::array<std::uint8_t, N - 1> out;
    std::memcpy(out.data(), text, N - 1);
    return out;
}

static std::array<std::uint8_t, RELAY_HELLO_BYTES> sound_hello()
{
    return bytes_of("QVRL\x02V"
                    "123456789\0\0\0\0\0\0\0\0\0"
                    "OFFICE\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0");
}

TEST_CASE("a hello is read field by field")
{
    auto bytes = sound_hello();
    const char *reason = nullptr;
    auto h = parse_hello(bytes, &reason);
    REQUIRE(h);
    CHECK_FALSE(h->is_host);
    CHECK(h->room == "123456789");
    CHECK(h->name == "OFFICE");
    bytes[5] = 'H';
    h = parse_hello(bytes, &reason);
    REQUIRE(h);
    CHECK(h->is_host);
    CHECK(reason == nullptr);
}

TEST_CASE("full fields have no terminator, and an empty name is a name")
{
    const auto full = bytes_of("QVRL\x02H"
                               "abcdefghijklmnopqr"
                               "0123456789abcdef0123456789ABCDEF");
    const char *reason = nullptr;
    auto h = parse_hello(full, &reason);
    REQUIRE(h);
    CHECK(h->room == "abcdefghijklmnopqr");
    CHECK(h->name == "0123456789abcdef0123456789ABCDEF");

    auto bytes = sound_hello();
    std::memset(&bytes[24], 0, 32);
    h = parse_hello(bytes, &reason);
    REQUIRE(h);
    CHECK(h->name.empty());
}

TEST_CASE("what follows a terminator does not count")
{
    auto bytes = sound_hello();
    bytes[6 + 9 + 1] = 'x';
    bytes[24 + 6 + 1] = 'y';
    const char *reason = nullptr;
    const auto h = parse_hello(bytes, &reason);
    REQUIRE(h);
    CHECK(h->room == "123456789");
    CHECK(h->name == "OFFICE");
}

TEST_CASE("every value of every byte that has to be one is tried")
{
    for (std::size_t at = 0; at < 6; at++) {
        for (unsigned value = 0; value < 256; value++) {
            auto bytes = sound_hello();
            bytes[at] = (std::uint8_t)value;
            const bool is_sound = value == (unsigned)sound_hello()[at] ||
                                  (at == 5 && (value == 'H' || value == 'V'));
            const char *reason = nullptr;
            CAPTURE(at);
            CAPTURE(value);
            CHECK(parse_hello(bytes, &reason).has_value() == is_sound);
            if (!is_sound)
                CHECK(std::string(reason) == (at < 4    ? "no relay hello"
                                              : at == 4 ? "unknown version"
                                                        : "unknown role"));
        }
    }
}

TEST_CASE("a hello without a room is none")
{
    auto bytes = sound_hello();
    bytes[6] = 0;
    const char *reason = nullptr;
    CHECK_FALSE(parse_hello(bytes, &reason));
    CHECK(std::string(reason) == "no room");
}

static std::array<std::uint8_t, PROXY_HEADER_BYTES> proxy_bytes(unsigned command,
                                                                unsigned family, unsigned body)
{
    auto bytes = bytes_of("\r\n\r\n\0\r\nQUIT\n\0\0\0\0");
    bytes[12] = (std::uint8_t)command;
    bytes[13] = (std::uint8_t)family;
    bytes[14] = (std::uint8_t)(body >> 8);
    bytes[15] = (std::uint8_t)body;
    return bytes;
}

TEST_CASE("a proxy header says whether there is a client and how much follows")
{
    auto header = parse_proxy_header(proxy_bytes(0x21, 0x11, 12));
    REQUIRE(header);
    CHECK(header->has_client);
    CHECK(header->family == 0x11);
    CHECK(header->body_bytes == 12);
    header = parse_proxy_header(proxy_bytes(0x20, 0, 0));
    REQUIRE(header);
    CHECK_FALSE(header->has_client);
    CHECK(header->body_bytes == 0);
}

TEST_CASE("a proxy header of another version, command, size or signature is none")
{
    for (unsigned command = 0; command < 256; command++) {
        CAPTURE(command);
        CHECK(parse_proxy_header(proxy_bytes(command, 0x11, 12)).has_value() ==
              (command == 0x20 || command == 0x21));
    }
    CHECK(parse_proxy_header(proxy_bytes(0x21, 0x11, 2048)));
    CHECK_FALSE(parse_proxy_header(proxy_bytes(0x21, 0x11, 2049)));
    CHECK_FALSE(parse_proxy_header(proxy_bytes(0x21, 0x11, 65535)));
    for (std::size_t at = 0; at < 12; at++) {
        CAPTURE(at);
        auto bytes = proxy_bytes(0x21, 0x11, 12);
        bytes[at] ^= 1;
        CHECK_FALSE(parse_proxy_header(bytes));
    }
}

TEST_CASE("the client's address stands first in the body")
{
    std::vector<std::uint8_t> body = {192, 0, 2, 7, 10, 0, 0, 1, 0xC0, 0x01, 0x1B, 0x58};
    const proxy_header v4 = {.body_bytes = 12, .has_client = true, .family = 0x11};
    auto source = parse_proxy_source(v4, body);
    REQUIRE(source);
    CHECK(source->to_string() == "192.0.2.7");
    body.push_back(0x04); // what proxies add
    CHECK(parse_proxy_source(v4, body).has_value());
    body.resize(11);
    CHECK_FALSE(parse_proxy_source(v4, body));

    body.assign(36, 0);
    body[0] = 0x20, body[1] = 0x01, body[2] = 0x0D, body[3] = 0xB8, body[15] = 9;
    const proxy_header v6 = {.body_bytes = 36, .has_client = true, .family = 0x21};
    source = parse_proxy_source(v6, body);
    REQUIRE(source);
    CHECK(source->to_string() == "2001:db8::9");
    body.resize(35);
    CHECK_FALSE(parse_proxy_source(v6, body));
}

TEST_CASE("an IPv4 client in the form of IPv6 is an IPv4 client")
{
    std::vector<std::uint8_t> body(36, 0);
    body[10] = body[11] = 0xFF;
    body[12] = 192, body[14] = 2, body[15] = 7;
    const proxy_header v6 = {.body_bytes = 36, .has_client = true, .family = 0x21};
    const auto source = parse_proxy_source(v6, body);
    REQUIRE(source);
    CHECK(source->is_v4());
    CHECK(source->to_string() == "192.0.2.7");
}

TEST_CASE("families without an address of the internet have no client's address")
{
    const std::vector<std::uint8_t> body(216, 1);
    for (unsigned family = 0; family < 256; family++) {
        CAPTURE(family);
        const proxy_header header = {
            .body_bytes = body.size(), .has_client = true, .family = (std::uint8_t)family};
        CHECK(parse_proxy_source(header, body).has_value() ==
              (family == 0x11 || family == 0x21));
    }
}

TEST_CASE("limits count an IPv6 address as its network of 64 bits")
{
    const auto key = [](const char *text) { return limit_key(asio::ip::make_address(text)); };
    CHECK(key("192.0.2.7") == "192.0.2.7");
    CHECK(key("2001:db8:1:2:3:4:5:6") == "2001:db8:1:2::/64");
    CHECK(key("2001:db8:1:2::9") == key("2001:db8:1:2:ffff::"));
    CHECK(key("2001:db8:1:3::9") != key("2001:db8:1:2::9"));
    CHECK(key("fe80::1%1") == key("fe80::2"));
}

TEST_CASE("only printable ASCII gets into a line of the log")
{
    CHECK(printable("123 ~x") == "123 ~x");
    CHECK(printable("a\nb\x1b[1m'\x7f\xc3\xa4") == "a?b?[1m????");
    CHECK(printable("").empty());
}
