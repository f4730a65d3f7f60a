// How much of a tile changed.
#ifndef QV_HOST_TILE_CELLS_H
#define QV_HOST_TILE_CELLS_H

#include <stdint.h>

namespace host
{

constexpr int32_t CELL_SIZE = 16; // pixels each way; 16 cells make a tile

// Cells in which two tiles differ, 0 to 16. Each tile lies in a picture whose rows lie `pitch`
// bytes apart. Pure; any thread.
int32_t tile_changed_cells(const uint8_t *a, const uint8_t *b, uint64_t pitch);

} // namespace host

#endif
