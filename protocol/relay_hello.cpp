// The relay hello. See relay_hello.h for its layout.
#include "protocol/relay_hello.h"

static constexpr uint8_t RELAY_VERSION = 2;

void relay_hello_build(uint8_t hello[RELAY_HELLO_BYTES], char role, const char *room,
                       const char name[NAME_BYTES])
{
    memcpy(hello, "QVRL", 4);
    hello[4] = RELAY_VERSION;
    hello[5] = (uint8_t)role;
    copy_padded(hello + 6, RELAY_ROOM_BYTES, room);
    copy_padded(hello + 24, NAME_BYTES, name);
}
