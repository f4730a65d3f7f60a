// The first bytes of a connection: a relay hello, or a proxy's header before it.
//
// Pure: bytes in, values out. What is read comes from anybody and is trusted in nothing.
#ifndef QV_RELAY_HELLO_H
#define QV_RELAY_HELLO_H

#include "protocol/relay_hello.h"

#include <asio/ip/address.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace relay
{

struct hello {
    bool is_host;
    std::string room; // 1 to 18 bytes, of any value but NUL
    std::string name; // 0 to 32 bytes, likewise
};

// Reads the 56 bytes of a hello (layout: protocol/relay_hello.h). Nothing, and the reason for
// the log in *reason, when they are none.
std::optional<hello> parse_hello(std::span<const std::uint8_t, RELAY_HELLO_BYTES> bytes,
                                 const char **reason);

// The header that a proxy in front writes before the hello, so that its client's address is
// known here (version 2 of the PROXY protocol):
//
//   offset size  field
//   0      12    0D 0A 0D 0A 00 0D 0A 51 55 49 54 0A
//   12     1     version << 4 | command: 0x20 the proxy itself (a health check), 0x21 a client
//   13     1     family << 4 | transport: 0x11 TCP over IPv4, 0x21 TCP over IPv6
//   14     2     bytes that follow, big-endian
//   16     4/16  source address, then destination address, source and destination port
constexpr std::size_t PROXY_HEADER_BYTES = 16;
constexpr std::size_t PROXY_BODY_MAX = 2048; // addresses and what proxies like to add

struct proxy_header {
    std::size_t body_bytes; // at most PROXY_BODY_MAX
    bool has_client;        // false: the proxy speaks for itself
    std::uint8_t family;    // as on the wire
};

std::optional<proxy_header>
parse_proxy_header(std::span<const std::uint8_t, PROXY_HEADER_BYTES> bytes);

// The client's address out of the body; nothing when the family has none or it is cut short.
std::optional<asio::ip::address> parse_proxy_source(const proxy_header &header,
                                                    std::span<const std::uint8_t> body);

// An IPv4 address that arrived on an IPv6 socket, as IPv4; others as they are. All addresses
// are compared in this form.
asio::ip::address plain_address(const asio::ip::address &address);

// Under what an address is counted for limits: an IPv6 address as its network of 64 bits, since
// whoever has one has them all.
std::string limit_key(const asio::ip::address &address);

// Text from a peer, fit for one line of a log: what is not printable ASCII becomes '?'.
std::string printable(const std::string &text);

} // namespace relay

#endif
