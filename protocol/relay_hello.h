// The relay hello: the first 56 bytes that either side sends to a relay.
//
//   offset size  field
//   0      4     "QVRL"
//   4      1     version, 2
//   5      1     role, 'H' host or 'V' viewer
//   6      18    room: the host's ID, NUL-padded, cut and unterminated from 18 characters on
//   24     32    name: the sender's computer name, NUL-padded
//
// The relay answers nothing: what either side reads next are its peer's handshake bytes.
#ifndef QV_PROTOCOL_RELAY_HELLO_H
#define QV_PROTOCOL_RELAY_HELLO_H

#include "protocol/messages.h"

#include <stdint.h>

constexpr uint32_t RELAY_HELLO_BYTES = 56;
constexpr uint32_t RELAY_ROOM_BYTES = 18;
constexpr char RELAY_ROLE_HOST = 'H';
constexpr char RELAY_ROLE_VIEWER = 'V';
constexpr char RELAY_DEFAULT_ROOM[] = "qv-demo"; // of a relay host that has no ID

// Builds the hello. room is a text; name has 32 bytes, NUL-padded, terminated or not.
void relay_hello_build(uint8_t hello[RELAY_HELLO_BYTES], char role, const char *room,
                       const char name[NAME_BYTES]);

#endif
