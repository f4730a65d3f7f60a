#include "relay/hello.h"

#include <asio/ip/address_v4.hpp>
#include <asio/ip/address_v6.hpp>

#include <algorithm>
#include <cstring>

namespace relay
{

static std::string padded_text(std::span<const std::uint8_t> bytes)
{
    const auto end = std::find(bytes.begin(), bytes.end(), 0);
    return {bytes.begin(), end};
}

std::optional<hello> parse_hello(std::span<const std::uint8_t, RELAY_HELLO_BYTES> bytes,
                                 const char **reason)
{
    if (std::memcmp(bytes.data(), "QVRL", 4) != 0) {
        *reason = "no relay hello";
        return {};
    }
    if (bytes[4] != 2) {
        *reason = "unknown version";
        return {};
    }
    if (bytes[5] != RELAY_ROLE_HOST && bytes[5] != RELAY_ROLE_VIEWER) {
        *reason = "unknown role";
        return {};
    }
    hello h = {.is_host = bytes[5] == RELAY_ROLE_HOST,
               .room = padded_text(bytes.subspan<6, RELAY_ROOM_BYTES>()),
               .name = padded_text(bytes.subspan<24, NAME_BYTES>())};
    if (h.room.empty()) {
        *reason = "no room";
        return {};
    }
    return h;
}

std::optional<proxy_header>
parse_proxy_header(std::span<const std::uint8_t, PROXY_HEADER_BYTES> bytes)
{
    static constexpr char SIGNATURE[] = "\r\n\r\n\0\r\nQUIT\n";
    if (std::memcmp(bytes.data(), SIGNATURE, 12) != 0)
        return {};
    if (bytes[12] != 0x20 && bytes[12] != 0x21)
        return {};
    const std::size_t body = (std::size_t)bytes[14] << 8 | bytes[15];
    if (body > PROXY_BODY_MAX)
        return {};
    return proxy_header{
        .body_bytes = body, .has_client = bytes[12] == 0x21, .family = bytes[13]};
}

std::optional<asio::ip::address> parse_proxy_source(const proxy_header &header,
                                                    std::span<const std::uint8_t> body)
{
    if (header.family == 0x11 && body.size() >= 12) {
        asio::ip::address_v4::bytes_type v4;
        std::copy_n(body.begin(), v4.size(), v4.begin());
        return asio::ip::address_v4(v4);
    }
    if (header.family == 0x21 && body.size() >= 36) {
        asio::ip::address_v6::bytes_type v6;
        std::copy_n(body.begin(), v6.size(), v6.begin());
        return plain_address(asio::ip::address_v6(v6));
    }
    return {};
}

asio::ip::address plain_address(const asio::ip::address &address)
{
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
    return address;
}

std::string limit_key(const asio::ip::address &address)
{
    if (address.is_v4())
        return address.to_string();
    asio::ip::address_v6::bytes_type network = address.to_v6().to_bytes();
    std::fill(network.begin() + 8, network.end(), 0);
    return asio::ip::address_v6(network).to_string() + "/64";
}

std::string printable(const std::string &text)
{
    std::string out = text;
    for (char &c : out)
        if (c < ' ' || c > '~' || c == '\'')
            c = '?';
    return out;
}

} // namespace relay
