#include "viewer/tile_place.h"

#include "tests/test.h"

#include <vector>

// A picture of 3 x 3 tiles of noise, and a tile that belongs in its middle.
struct place_case {
    uint64_t stride = 3 * TILE_ROW_BYTES;
    std::vector<uint8_t> picture, tile;
    place_case()
    {
        test_random random = test_random_seeded("pictures");
        for (int32_t i = 0; i < 9 * TILE_BYTES; i++)
            picture.push_back((uint8_t)(random.next() >> 32));
        for (int32_t i = 0; i < TILE_BYTES; i++)
            tile.push_back((uint8_t)(random.next() >> 32));
    }
    uint8_t *middle()
    {
        return &picture[TILE_SIZE * stride + TILE_ROW_BYTES];
    }
    // The tile's byte that belongs on a byte of the picture; -1 outside the middle.
    int32_t tile_byte(size_t at) const
    {
        size_t row = at / stride, column = at % stride;
        if (row < TILE_SIZE || row >= 2 * TILE_SIZE || column < TILE_ROW_BYTES ||
            column >= 2 * TILE_ROW_BYTES)
            return -1;
        return tile[(row - TILE_SIZE) * TILE_ROW_BYTES + column - TILE_ROW_BYTES];
    }
};

TEST_CASE("a tile is placed on its 64 rows and nowhere else")
{
    place_case c;
    std::vector<uint8_t> before = c.picture;
    viewer::tile_place(c.middle(), c.stride, c.tile.data());
    int wrong = 0;
    for (size_t i = 0; i < before.size(); i++)
        wrong += c.picture[i] != (c.tile_byte(i) < 0 ? before[i] : c.tile_byte(i));
    CHECK(wrong == 0);
}

TEST_CASE("a difference is XORed into its 64 rows and nowhere else")
{
    place_case c;
    std::vector<uint8_t> before = c.picture;
    viewer::tile_xor_into(c.middle(), c.stride, c.tile.data());
    int wrong = 0;
    for (size_t i = 0; i < before.size(); i++)
        wrong += c.picture[i] != (before[i] ^ (c.tile_byte(i) < 0 ? 0 : c.tile_byte(i)));
    CHECK(wrong == 0);
}
