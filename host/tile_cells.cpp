// How much of a tile changed, in cells of 16 x 16 pixels.
//
// Called for tiles that are known to have changed, on lines where what to send first matters
// more than a second look at them.
#include "host/tile_cells.h"

#include "protocol/tile.h"

#include <string.h>

namespace host
{

static constexpr int32_t CELLS = TILE_SIZE / CELL_SIZE; // each way
static constexpr int32_t CELL_ROW_BYTES = CELL_SIZE * PIXEL_BYTES;

int32_t tile_changed_cells(const uint8_t *a, const uint8_t *b, uint64_t pitch)
{
    int32_t count = 0;
    for (int32_t row = 0; row < CELLS; row++) {
        bool changed[CELLS] = {};
        for (int32_t y = 0; y < CELL_SIZE; y++) {
            for (int32_t i = 0; i < CELLS; i++)
                changed[i] |=
                    memcmp(a + i * CELL_ROW_BYTES, b + i * CELL_ROW_BYTES, CELL_ROW_BYTES) != 0;
            a += pitch;
            b += pitch;
        }
        for (int32_t i = 0; i < CELLS; i++)
            count += changed[i];
    }
    return count;
}

} // namespace host
