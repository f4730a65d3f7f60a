// The console in front, read in every iteration and sent as text when it changed.
//
// Text that is scaled as pixels reads badly, so the viewer draws it with a font of its own.
// While it does, the pixels under it are not sent. Only tiles that the rectangle covers
// whole are left out; a tile at its edge also shows what lies beside the console. Tiles left
// out stay dirty, and go out in the same frame that takes the layer off.
//
// As long as grid and place stay, only rows that changed are sent: they are compared with
// what was sent last, whole cells, as fast as memory is read. Anything that fails on the way
// to the console's cells just means that there is no layer in this iteration.
//
// The buffers take the largest grid; the system gives them memory where they are touched.
#include "host/text_layer.h"

#include "host/frame_pipeline.h"
#include "host/lz4_block.h"
#include "host/out_buffer.h"
#include "identity/host_identity.h"
#include "protocol/bytes.h"
#include "protocol/messages.h"
#include "protocol/tile.h"

#include <string.h>

namespace host
{

text_layer_record text_layer;

// Host server thread only. Rows follow each other without gaps, cols cells each.
static console_cell text_cells[TEXT_COLS_MAX * TEXT_ROWS_MAX];
static console_cell text_sent_cells[TEXT_COLS_MAX * TEXT_ROWS_MAX]; // as the viewer has them
static uint8_t text_records[TEXT_ROWS_MAX * text_row_bytes(TEXT_COLS_MAX)];

void text_layer_reset()
{
    text_layer = {};
}

bool text_layer_covers(int32_t tx, int32_t ty)
{
    int64_t x = (int64_t)tx * TILE_SIZE;
    int64_t y = (int64_t)ty * TILE_SIZE;
    return text_layer.text_active && text_layer.left <= x && text_layer.top <= y &&
           text_layer.right > x + (TILE_SIZE - 1) && text_layer.bottom > y + (TILE_SIZE - 1);
}

int32_t text_rows_pack(uint8_t *records, const console_cell *cells, const console_cell *sent,
                       int32_t cols, int32_t rows)
{
    int32_t count = 0;
    for (int32_t row = 0; row < rows; row++) {
        const console_cell *now = cells + (size_t)row * (size_t)cols;
        const console_cell *before = sent + (sent ? (size_t)row * (size_t)cols : 0);
        if (sent && memcmp(now, before, (size_t)cols * sizeof *now) == 0)
            continue;
        store_le16(records, (uint16_t)row);
        uint8_t *out = records + 2;
        for (int32_t col = 0; col < cols; col++, out += 3) {
            store_le16(out, now[col].character);
            out[2] = (uint8_t)now[col].attributes;
        }
        records = out;
        count++;
    }
    return count;
}

// Reads the whole grid into text_cells, in bands of rows.
static bool read_cells(const console_view &view)
{
    if (view.cols < 1 || view.cols > TEXT_COLS_MAX || view.rows < 1 ||
        view.rows > TEXT_ROWS_MAX)
        return false;
    const int32_t band = CONSOLE_READ_CELLS / view.cols;
    for (int32_t row = 0; row < view.rows; row += band) {
        int32_t rows = view.rows - row < band ? view.rows - row : band;
        if (!console_read(row, rows, text_cells + (size_t)row * (size_t)view.cols))
            return false;
    }
    return true;
}

static bool read_console(console_view *view)
{
    if ((peer_caps & CAP_TEXT_LAYER) == 0 || host_get_text_layer_enabled() == 0 ||
        !console_attach(view))
        return false;
    bool read = read_cells(*view);
    console_detach();
    return read;
}

static void switch_off()
{
    if (!text_layer.text_active)
        return;
    uint8_t head[TEXT_LAYER_HEAD_BYTES] = {};
    out_append_header(MSG_TEXT_LAYER, sizeof head);
    out_append(head, sizeof head);
    text_layer.text_active = false;
}

// Appends the layer: count row records of text_records.
static void append_layer(const console_view &view, int32_t count)
{
    int32_t raw_size = count * (int32_t)text_row_bytes(view.cols);
    int32_t room = lz4_bound(raw_size);
    uint8_t *message = out_reserve(MESSAGE_HEADER_BYTES + TEXT_LAYER_HEAD_BYTES + (size_t)room);
    if (!message)
        return; // the flush fails, and the session with it
    uint8_t *block = message + MESSAGE_HEADER_BYTES + TEXT_LAYER_HEAD_BYTES;
    uint32_t length = TEXT_LAYER_HEAD_BYTES +
                      (uint32_t)lz4_compress_block(text_records, raw_size, block, room);
    put_header(message, MSG_TEXT_LAYER, length);
    // The window's edges lie within the system's coordinates, but differences wrap rather
    // than overflow.
    put_text_layer_head(message + MESSAGE_HEADER_BYTES,
                        {.x = view.left,
                         .y = view.top,
                         .w = (int32_t)((uint32_t)view.right - (uint32_t)view.left),
                         .h = (int32_t)((uint32_t)view.bottom - (uint32_t)view.top),
                         .cols = (uint16_t)view.cols,
                         .rows = (uint16_t)view.rows,
                         .row_count = (uint16_t)count,
                         .raw_size = raw_size});
    out_commit(MESSAGE_HEADER_BYTES + length);
}

void text_layer_step()
{
    console_view view = {};
    if (!read_console(&view)) {
        switch_off();
        return;
    }
    const text_layer_record now = {true,        view.left, view.top, view.right,
                                   view.bottom, view.cols, view.rows};
    bool same = text_layer.text_active && now.left == text_layer.left &&
                now.top == text_layer.top && now.right == text_layer.right &&
                now.bottom == text_layer.bottom && now.text_cols == text_layer.text_cols &&
                now.text_rows == text_layer.text_rows;
    int32_t count = text_rows_pack(text_records, text_cells, same ? text_sent_cells : nullptr,
                                   view.cols, view.rows);
    if (count == 0)
        return;
    append_layer(view, count);
    memcpy(text_sent_cells, text_cells,
           (size_t)view.cols * (size_t)view.rows * sizeof(console_cell));
    text_layer = now;
}

} // namespace host
