#include "host/tile_cells.h"
#include "protocol/tile.h"
#include "tests/test.h"

#include <vector>

using namespace host;

TEST_CASE("each cell of 16 x 16 pixels counts once, whatever changed in it")
{
    // A tile inside a picture of 100 pixels a row, at (7, 3).
    constexpr uint64_t PITCH = 100 * 4;
    constexpr size_t AT = 3 * PITCH + 7 * 4;
    std::vector<uint8_t> a(PITCH * 70, 9), b = a;
    CHECK(tile_changed_cells(&a[AT], &b[AT], PITCH) == 0);
    b[AT - 1] ^= 1; // around the tile
    b[AT + 256] ^= 1;
    b[AT - PITCH] ^= 1;
    b[AT + 64 * PITCH] ^= 1;
    CHECK(tile_changed_cells(&a[AT], &b[AT], PITCH) == 0);

    int32_t cells = 0;
    for (size_t row = 0; row < 4; row++)
        for (size_t column = 0; column < 4; column++) {
            CAPTURE(row);
            CAPTURE(column);
            size_t cell = AT + row * 16 * PITCH + column * 64;
            std::vector<uint8_t> only = a;
            only[cell] ^= 1; // its first byte
            CHECK(tile_changed_cells(&a[AT], &only[AT], PITCH) == 1);
            only[cell + 15 * PITCH + 63] ^= 1; // and its last
            CHECK(tile_changed_cells(&a[AT], &only[AT], PITCH) == 1);
            b[cell + 7 * PITCH + 30] ^= 1;
            CHECK(tile_changed_cells(&a[AT], &b[AT], PITCH) == ++cells);
        }
}
