// The console text layer on the host: the console in front, sent as text instead of pixels.
//
// Owner: host server thread; only the frame pipeline calls.
#ifndef QV_HOST_TEXT_LAYER_H
#define QV_HOST_TEXT_LAYER_H

#include "host/console.h"

#include <stddef.h>
#include <stdint.h>

namespace host
{

// The largest grid that is sent; a console that shows more stays pixels.
constexpr int32_t TEXT_COLS_MAX = 512;
constexpr int32_t TEXT_ROWS_MAX = 256;

struct text_layer_record {
    bool text_active;                 // the layer was sent and is on at the viewer
    int32_t left, top, right, bottom; // text_rect: the console's client area, screen pixels
    int32_t text_cols, text_rows;     // the grid last sent
};

extern text_layer_record text_layer;

// Nothing is on at a new viewer.
void text_layer_reset();

// Reads the console in front, if one is and the viewer wants it as text, and appends a
// MSG_TEXT_LAYER when something of it changed: rows, place, size, or that it went.
void text_layer_step();

// True when the active layer covers all of a tile, which is then not sent as pixels.
bool text_layer_covers(int32_t tx, int32_t ty);

// Bytes of the record of one row.
constexpr size_t text_row_bytes(int32_t cols)
{
    return 2 + (size_t)cols * 3;
}

// Writes the records of those rows that differ from the ones sent (null: of all rows), from
// top to bottom, and returns how many. records has room for all rows.
int32_t text_rows_pack(uint8_t *records, const console_cell *cells, const console_cell *sent,
                       int32_t cols, int32_t rows);

} // namespace host

#endif
