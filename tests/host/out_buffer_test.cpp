// Fakes: allocation_limit
#include "host/out_buffer.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

using namespace host;

TEST_CASE("bytes stand in the order in which they were appended")
{
    out_reset();
    out_append("abc", 3);
    out_append_header(MSG_FRAME_END, 0x01020304);
    out_append("d", 1);
    const uint8_t expected[] = {'a', 'b', 'c', 7, 0, 0, 0, 4, 3, 2, 1, 'd'};
    REQUIRE(out_used() == sizeof expected);
    CHECK(memcmp(out_bytes(), expected, sizeof expected) == 0);
    CHECK(out_intact());
}

TEST_CASE("an empty append changes nothing")
{
    out_reset();
    out_append(nullptr, 0);
    CHECK(out_used() == 0);
    CHECK(out_intact());
}

TEST_CASE("reserved room counts only as far as it is committed")
{
    out_reset();
    out_append("x", 1);
    uint8_t *room = out_reserve(1000);
    REQUIRE(room != nullptr);
    memset(room, 'y', 1000);
    CHECK(out_used() == 1);
    out_commit(2);
    out_append("z", 1);
    REQUIRE(out_used() == 4);
    CHECK(memcmp(out_bytes(), "xyyz", 4) == 0);
}

TEST_CASE("growing keeps what is there")
{
    test_random random = test_random_seeded("out_buffer");
    out_reset();
    std::vector<uint8_t> expected;
    std::vector<uint8_t> piece;
    while (expected.size() < 5000000) {
        piece.resize(random.below(60000));
        for (uint8_t &b : piece)
            b = (uint8_t)random.next();
        out_append(piece.data(), piece.size());
        expected.insert(expected.end(), piece.begin(), piece.end());
    }
    REQUIRE(out_used() == expected.size());
    CHECK(memcmp(out_bytes(), expected.data(), expected.size()) == 0);
}

TEST_CASE("growth makes room for twice the need and 65536 bytes more")
{
    out_reset();
    out_append("x", 1);
    uint8_t *room = out_reserve(29999999); // more than any test before needs
    REQUIRE(room != nullptr);
    CHECK(out_reserve(60065536 - 1) == room); // one byte is used
}

TEST_CASE("an emptied buffer keeps its memory for the next frame")
{
    out_reset();
    REQUIRE(out_reserve(300000) != nullptr);
    const uint8_t *before = out_bytes();
    out_commit(300000);
    out_reset();
    CHECK(out_used() == 0);
    for (int i = 0; i < 300; i++) {
        REQUIRE(out_reserve(1000) == before + (size_t)i * 1000);
        out_commit(1000);
    }
}

TEST_CASE("an append that finds no memory is remembered until the buffer is emptied")
{
    // More than can be counted is refused at once, more than any machine has by the allocator.
    for (size_t length : {SIZE_MAX - 1, SIZE_MAX / 8}) {
        CAPTURE(length);
        out_reset();
        out_append("ab", 2);
        CHECK(out_reserve(length) == nullptr);
        CHECK_FALSE(out_intact());
        CHECK(out_used() == 2);
        out_append("c", 1); // later appends work, but the stream has its hole
        CHECK(out_used() == 3);
        CHECK(memcmp(out_bytes(), "abc", 3) == 0);
        CHECK_FALSE(out_intact());
        out_reset();
        CHECK(out_intact());
        CHECK(out_used() == 0);
    }
}
