#include "protocol/bytes.h"
#include "protocol/tile.h"
#include "tests/test.h"

TEST_CASE("integers are little-endian at any alignment")
{
    uint8_t b[9] = {};
    store_le64(b + 1, 0x0123456789ABCDEFull);
    const uint8_t expected[9] = {0, 0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01};
    CHECK(memcmp(b, expected, sizeof b) == 0);
    CHECK(load_le64(b + 1) == 0x0123456789ABCDEFull);
    CHECK(load_le32(b + 1) == 0x89ABCDEFu);
    CHECK(load_le16(b + 1) == 0xCDEFu);
}

TEST_CASE("padded text is cut without a terminator and filled with NUL")
{
    uint8_t b[4];
    copy_padded(b, sizeof b, "ab");
    CHECK(memcmp(b, "ab\0\0", 4) == 0);
    copy_padded(b, sizeof b, "abcdef");
    CHECK(memcmp(b, "abcd", 4) == 0);
}

TEST_CASE("copied text is always terminated")
{
    char b[4];
    copy_text(b, sizeof b, "abcdef");
    CHECK(strcmp(b, "abc") == 0);
    copy_text(b, sizeof b, "");
    CHECK(strcmp(b, "") == 0);
}

TEST_CASE("a screen of 1366x768 is 22 by 12 tiles")
{
    CHECK(tiles_for(1366) == 22);
    CHECK(tiles_for(768) == 12);
    CHECK(pad_to_tile(1366) == 1408);
    CHECK(pad_to_tile(768) == 768);
    CHECK(pad_to_tile(0x7FFFFFC0) == 0x7FFFFFC0);
}
