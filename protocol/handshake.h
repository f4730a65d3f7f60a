// The handshake: 96 bytes that authenticate both ends by the host's password and agree on
// the two direction keys.
//
//   step  direction       bytes  content
//   1     viewer to host  32     viewer's X25519 public key
//   2     host to viewer  32     host's X25519 public key
//   3     viewer to host  16     client confirmation
//   4     host to viewer  16     server confirmation
//
//   session_key = BLAKE2b-256(shared secret, viewer key, host key, "qv-v1", password)
//   confirmations and direction keys = keyed BLAKE2b(session_key, label), labels
//   "c-confirm", "s-confirm" (16 bytes), "c2s", "s2c" (32 bytes)
//
// No framing, no version. A host answers a wrong confirmation with nothing but a closed
// connection. Secrets live in local storage and are wiped on every path out.
#ifndef QV_PROTOCOL_HANDSHAKE_H
#define QV_PROTOCOL_HANDSHAKE_H

#include "protocol/net.h"
#include "protocol/secure_channel.h"

constexpr uint32_t PASSWORD_MAX = 32; // bytes of a host's password, without terminator

// Opens the channel on the socket and runs one side. False for every failure alike: random
// generator, connection, deadline, a peer key that gives an all-zero secret, a confirmation
// that does not match. The caller closes the socket then. On success the channel is
// encrypted and both counters are 0.
//
// The host's password is asked for when the viewer's key has arrived, at the moment it is
// used: read_password copies the current one, terminated, into its argument. `deadline`
// bounds every receive and stays in force in the channel's receiver. *round_trip_us, if asked
// for, is the time from our key to the viewer's confirmation.
[[nodiscard]] bool handshake_as_host(secure_channel *channel, net_socket sock,
                                     void (*read_password)(char password[PASSWORD_MAX + 1]),
                                     const net_deadline &deadline,
                                     uint64_t *round_trip_us = nullptr);

// password is NUL-terminated text of any length.
[[nodiscard]] bool handshake_as_viewer(secure_channel *channel, net_socket sock,
                                       const char *password);

#endif
