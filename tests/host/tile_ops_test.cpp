// The kernels against the plainest definition of what they do, at every pitch and alignment
// that pictures and tests use.
#include "host/tile_ops.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

using namespace host;

// Bytes around a tile that no kernel may take notice of or change.
struct picture {
    std::vector<uint8_t> bytes;
    uint64_t pitch;
    uint64_t first; // of the tile

    uint8_t *tile()
    {
        return bytes.data() + first;
    }

    uint8_t &at(int row, int i)
    {
        return bytes[first + (uint64_t)row * pitch + (uint64_t)i];
    }
};

static picture random_picture(test_random *random, uint64_t pitch, uint64_t first)
{
    picture p = {std::vector<uint8_t>(first + pitch * 64 + 64), pitch, first};
    for (uint8_t &b : p.bytes)
        b = (uint8_t)random->next();
    return p;
}

static const uint64_t PITCHES[] = {256, 512, 1408 * 4, 257};
static const uint64_t FIRSTS[] = {0, 256, 1, 7};

TEST_CASE("one changed bit anywhere makes tiles unequal, and nothing beside them counts")
{
    test_random random = test_random_seeded("tile_equal");
    for (uint64_t pitch : PITCHES)
        for (uint64_t first : FIRSTS) {
            picture a = random_picture(&random, pitch, first);
            picture b = random_picture(&random, pitch, first);
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++)
                    b.at(row, i) = a.at(row, i);
            CHECK(tile_equal(a.tile(), b.tile(), pitch));
            int seen = 0;
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++) {
                    uint8_t bit = (uint8_t)(1 << random.below(8));
                    b.at(row, i) ^= bit;
                    seen += !tile_equal(a.tile(), b.tile(), pitch);
                    b.at(row, i) ^= bit;
                }
            CHECK(seen == 16384);
            CHECK(tile_equal(a.tile(), b.tile(), pitch));
        }
}

TEST_CASE("a tile is zero when all of its bytes are")
{
    test_random random = test_random_seeded("tile_is_zero");
    for (uint64_t pitch : PITCHES)
        for (uint64_t first : FIRSTS) {
            picture a = random_picture(&random, pitch, first);
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++)
                    a.at(row, i) = 0;
            CHECK(tile_is_zero(a.tile(), pitch));
            int seen = 0;
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++) {
                    a.at(row, i) = (uint8_t)(1 << random.below(8));
                    seen += !tile_is_zero(a.tile(), pitch);
                    a.at(row, i) = 0;
                }
            CHECK(seen == 16384);
        }
}

TEST_CASE("copied tiles keep every byte in its place, and nothing beside them changes")
{
    test_random random = test_random_seeded("tile_gather");
    for (uint64_t pitch : PITCHES)
        for (uint64_t first : FIRSTS) {
            picture a = random_picture(&random, pitch, first);
            uint8_t tile[TILE_BYTES];
            tile_gather(tile, a.tile(), pitch);
            int same = 0;
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++)
                    same += tile[row * 256 + i] == a.at(row, i);
            CHECK(same == 16384);

            picture b = random_picture(&random, pitch, first);
            picture expected = b;
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++)
                    expected.at(row, i) = a.at(row, i);
            tile_copy(b.tile(), a.tile(), pitch);
            CHECK(memcmp(b.bytes.data(), expected.bytes.data(), b.bytes.size()) == 0);
        }
}

TEST_CASE("a difference is the XOR of every byte with its base")
{
    test_random random = test_random_seeded("tile_difference");
    for (uint64_t pitch : PITCHES)
        for (uint64_t first : FIRSTS) {
            picture now = random_picture(&random, pitch, first);
            picture base = random_picture(&random, pitch, first);
            uint8_t delta[TILE_BYTES];
            tile_difference(delta, now.tile(), base.tile(), pitch);
            int right = 0;
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++)
                    right += delta[row * 256 + i] == (now.at(row, i) ^ base.at(row, i));
            CHECK(right == 16384);
        }
}

TEST_CASE("a tile that is cleared is zero, and nothing beside it changes")
{
    test_random random = test_random_seeded("tile_clear");
    for (uint64_t pitch : PITCHES)
        for (uint64_t first : FIRSTS) {
            picture a = random_picture(&random, pitch, first);
            picture expected = a;
            for (int row = 0; row < 64; row++)
                for (int i = 0; i < 256; i++)
                    expected.at(row, i) = 0;
            tile_clear(a.tile(), pitch);
            CHECK(a.bytes == expected.bytes);
        }
}
