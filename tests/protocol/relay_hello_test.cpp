#include "protocol/relay_hello.h"

#include "tests/test.h"

TEST_CASE("a hello has its fixed bytes, a cut room and a padded name")
{
    const struct {
        const char *room;
        char role;
        const char *name; // padded with NUL to 32 below
        const char expected[RELAY_HELLO_BYTES + 1];
    } rows[] = {
        {"123456789", 'H', "OFFICE-PC",
         "QVRL\x02\x48"
         "123456789\0\0\0\0\0\0\0\0\0"
         "OFFICE-PC\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"},
        {"123456789", 'V', "A",
         "QVRL\x02\x56"
         "123456789\0\0\0\0\0\0\0\0\0"
         "A\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"},
        {"qv-demo", 'H', "",
         "QVRL\x02\x48"
         "qv-demo\0\0\0\0\0\0\0\0\0\0\0"
         "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"},
        // 18 characters fill the room without a terminator ...
        {"abcdefghijklmnopqr", 'V', "exactly32bytesexactly32bytes1234",
         "QVRL\x02\x56"
         "abcdefghijklmnopqr"
         "exactly32bytesexactly32bytes1234"},
        // ... and the nineteenth is cut.
        {"abcdefghijklmnopqrs", 'V', "B",
         "QVRL\x02\x56"
         "abcdefghijklmnopqr"
         "B\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"},
        {"", 'V', "C",
         "QVRL\x02\x56"
         "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
         "C\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"},
    };
    for (const auto &row : rows) {
        CAPTURE(row.room);
        char name[NAME_BYTES];
        copy_padded((uint8_t *)name, sizeof name, row.name);
        uint8_t hello[RELAY_HELLO_BYTES + 1];
        memset(hello, 0xEE, sizeof hello);
        relay_hello_build(hello, row.role, row.room, name);
        CHECK(memcmp(hello, row.expected, RELAY_HELLO_BYTES) == 0);
        CHECK(hello[RELAY_HELLO_BYTES] == 0xEE); // nothing beyond
    }
}

TEST_CASE("the roles and the default room are the letters and the text of the protocol")
{
    CHECK(RELAY_ROLE_HOST == 0x48);
    CHECK(RELAY_ROLE_VIEWER == 0x56);
    CHECK(strcmp(RELAY_DEFAULT_ROOM, "qv-demo") == 0);
}
