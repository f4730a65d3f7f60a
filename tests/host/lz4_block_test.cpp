#include "host/lz4_block.h"
#include "tests/host/lz4_plain.h"
#include "tests/host/lz4_samples.h"
#include "tests/test.h"

#include <string.h>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

// Compresses into exactly the bound.
static bytes compress(const bytes &s)
{
    bytes out((size_t)lz4_bound((int32_t)s.size()));
    int32_t n =
        lz4_compress_block(s.data(), (int32_t)s.size(), out.data(), (int32_t)out.size());
    REQUIRE(n > 0);
    out.resize((size_t)n);
    return out;
}

// Decompresses with heap buffers of exactly the sizes given, so that ASan sees each byte
// read or written outside.
static int32_t decompress(const bytes &block, size_t cap, bytes *result)
{
    uint8_t *src = (uint8_t *)malloc(block.size() + 1);
    uint8_t *exact_src = src + 1; // unaligned, and its end is the allocation's end
    if (!block.empty())
        memcpy(exact_src, block.data(), block.size());
    uint8_t *dst = (uint8_t *)malloc(cap ? cap : 1);
    int32_t n = lz4_decompress_block(exact_src, (int32_t)block.size(), dst, (int32_t)cap);
    if (result && n > 0)
        result->assign(dst, dst + n);
    free(src);
    free(dst);
    return n;
}

TEST_CASE("twelve bytes become one token and the bytes")
{
    bytes block = compress({1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4});
    CHECK(block == bytes{0xC0, 1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4});
}

TEST_CASE("an empty input becomes one empty token")
{
    CHECK(compress({}) == bytes{0});
    uint8_t out[16];
    CHECK(lz4_compress_block(nullptr, 0, out, 16) == 1);
}

TEST_CASE("a tile of one value is one literal and one match")
{
    // Position 1 matches position 0; the backward step stops at once because ref is the
    // start. The match runs to 5 before the end: 16384 - 1 - 5 = 16378 bytes. Its extension:
    // 16378 - 19 = 16359 = 64 * 255 + 39. Then the last 5 literals.
    bytes block = compress(bytes(16384, 9));
    bytes expected = {0x1F, 9, 1, 0};
    expected.insert(expected.end(), 64, 255);
    expected.push_back(39);
    expected.push_back(0x50);
    expected.insert(expected.end(), 5, 9);
    CHECK(block == expected);
    bytes back;
    CHECK(decompress(block, 16384, &back) == 16384);
    CHECK(back == bytes(16384, 9));
}

TEST_CASE("runs of literals carry their extension bytes")
{
    // No four bytes of these inputs repeat: no match is found.
    for (size_t n : {14u, 15u, 16u, 269u, 270u}) {
        bytes s(n);
        for (size_t i = 0; i < n; i++)
            s[i] = (uint8_t)(i % 2 ? 200 + i % 7 : i / 2); // even bytes number themselves
        bytes block = compress(s);
        bytes expected;
        if (n < 15)
            expected = {(uint8_t)(n << 4)};
        else if (n - 15 < 255)
            expected = {0xF0, (uint8_t)(n - 15)};
        else
            expected = {0xF0, 255, (uint8_t)(n - 15 - 255)};
        expected.insert(expected.end(), s.begin(), s.end());
        CHECK(block == expected);
    }
}

TEST_CASE("an output one byte below the bound is refused untouched")
{
    bytes s(1000, 3);
    bytes out((size_t)lz4_bound(1000), 0xEE);
    CHECK(lz4_bound(1000) == 1019);
    CHECK(lz4_compress_block(s.data(), 1000, out.data(), 1018) == -1);
    CHECK(out == bytes(1019, 0xEE));
    CHECK(lz4_compress_block(s.data(), 1000, out.data(), 1019) > 0);
    CHECK(lz4_compress_block(s.data(), -1, out.data(), 1019) == -1);
    CHECK(lz4_bound(16384) == 16464);
}

TEST_CASE("compressed bytes equal the plain algorithm's and decompress to the input")
{
    test_random random = test_random_seeded("compress");
    for (int round = 0; round < 3000; round++) {
        bytes s = lz4_sample(random, round % 10 ? 600 : round % 100 ? 17000 : 140000);
        bytes block = compress(s);
        REQUIRE(block == lz4_compress_plain(s));
        REQUIRE((int64_t)block.size() <= lz4_bound((int32_t)s.size()));
        bytes back;
        REQUIRE(decompress(block, s.size(), &back) == (int32_t)s.size());
        REQUIRE(back == s);
    }
}

TEST_CASE("hand-made blocks decompress as defined or are refused")
{
    struct row {
        const char *what;
        bytes block;
        size_t cap;
        int32_t result;
        std::string text;
    };
    const row rows[] = {
        {"empty", {}, 8, 0, ""},
        {"one empty token", {0x00}, 8, 0, ""},
        {"one empty token into nothing", {0x00}, 0, 0, ""},
        {"literals only", {0x30, 'a', 'b', 'c'}, 3, 3, "abc"},
        {"literals one past the output", {0x30, 'a', 'b', 'c'}, 2, -1, ""},
        {"literals past the input", {0x40, 'a', 'b', 'c'}, 8, -1, ""},
        {"overlapping match", {0x10, 'a', 1, 0, 0x10, 'z'}, 6, 6, "aaaaaz"},
        {"period of three", {0x34, 'a', 'b', 'c', 3, 0, 0x00}, 11, 11, "abcabcabcab"},
        {"offset equal to what was produced", {0x20, 'a', 'b', 2, 0, 0x00}, 6, 6, "ababab"},
        {"offset before the start", {0x10, 'a', 2, 0}, 64, -1, ""},
        {"match before anything", {0x00, 1, 0}, 64, -1, ""},
        {"offset zero", {0x10, 'a', 0, 0}, 64, -1, ""},
        {"offset cut", {0x10, 'a', 1}, 64, -1, ""},
        {"ends right after a match", {0x10, 'a', 1, 0}, 64, 5, "aaaaa"},
        {"match one past the output", {0x10, 'a', 1, 0}, 4, -1, ""},
        {"literal extension cut", {0xF0}, 64, -1, ""},
        {"literal extension cut after 255", {0xF0, 255}, 1000, -1, ""},
        {"match extension cut", {0x1F, 'a', 1, 0}, 64, -1, ""},
        {"match extension cut after 255", {0x1F, 'a', 1, 0, 255}, 1000, -1, ""},
        {"match extension of zero", {0x1F, 'a', 1, 0, 0, 0x00}, 20, 20, std::string(20, 'a')},
    };
    for (const row &r : rows) {
        CAPTURE(r.what);
        bytes out;
        CHECK(decompress(r.block, r.cap, &out) == r.result);
        if (r.result > 0)
            CHECK(std::string(out.begin(), out.end()) == r.text);
    }
    uint8_t dst[1];
    CHECK(lz4_decompress_block(dst, -5, dst, 1) == 0);
}

TEST_CASE("extensions that add up past 32 bits are refused")
{
    // 16843009 * 255 = 2^32 - 1: with the bytes around it a 32-bit sum would wrap to a small,
    // acceptable length.
    bytes block = {0xF0};
    block.insert(block.end(), 16843009, 255);
    block.push_back(17);
    CHECK(decompress(block, 4096, nullptr) == -1);
    block[0] = 0x1F;
    block.insert(block.begin() + 1, {'a', 1, 0});
    CHECK(decompress(block, 4096, nullptr) == -1);
}

TEST_CASE("every match length and period gives what forward copying gives")
{
    for (size_t period = 1; period <= 40; period++) {
        for (size_t length : {4u, 5u, 7u, 8u, 9u, 15u, 16u, 17u, 31u, 33u, 100u}) {
            for (size_t slack : {0u, 1u, 15u, 16u, 40u}) {
                bytes block, expected;
                if (period < 15) {
                    block.push_back((uint8_t)(period << 4));
                } else {
                    block.push_back(0xF0);
                    block.push_back((uint8_t)(period - 15));
                }
                for (size_t i = 0; i < period; i++) {
                    block.push_back((uint8_t)(i + 1));
                    expected.push_back((uint8_t)(i + 1));
                }
                block.push_back((uint8_t)period);
                block.push_back(0);
                block[0] |= (uint8_t)(length - 4 < 15 ? length - 4 : 15);
                if (length - 4 >= 15)
                    block.push_back((uint8_t)(length - 19));
                for (size_t i = 0; i < length; i++)
                    expected.push_back(expected[expected.size() - period]);
                bytes out;
                REQUIRE(decompress(block, expected.size() + slack, &out) ==
                        (int32_t)expected.size());
                REQUIRE(out == expected);
            }
        }
    }
}

TEST_CASE("cut and damaged blocks never reach outside their buffers")
{
    test_random random = test_random_seeded("damage");
    int refused = 0;
    for (int round = 0; round < 4000; round++) {
        bytes s = lz4_sample(random, 800);
        bytes block = compress(s);
        for (uint64_t flips = random.below(4); flips > 0; flips--)
            block[random.below(block.size())] ^= (uint8_t)(1 << random.below(8));
        block.resize(random.below(block.size() + 1));
        int32_t n = decompress(block, random.below(1000), nullptr); // ASan watches
        refused += n < 0;
        REQUIRE(n >= -1);
        REQUIRE(n <= 1000);
    }
    CHECK(refused > 100);
}
