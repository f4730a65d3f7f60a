// Where the picture lies in the window: all the arithmetic of painting and input.
//
// Pure, and called by the window thread alone. Sizes of the picture and the place of the
// text layer come from the host, so every sum is made in 64 bits or in double and only
// results are narrowed, clamped to what they must fit. Rounding is part of the contract:
// positions are truncated toward zero, and the margins below cover what that loses.
#include "viewer/view_geometry.h"

#include "protocol/bytes.h"

#include <stdio.h>

namespace viewer
{

// A repaint takes this many source pixels more than the rectangle needs, so that its edges
// are stretched from the same neighbours as in a repaint of the whole.
constexpr int64_t MARGIN_BEFORE = 2;
constexpr int64_t MARGIN_AFTER = 3;

// GDI counts device positions in 28 bits, sign included.
constexpr int64_t GDI_POSITION_MAX = 0x7FFFFFF;

static int64_t at_least(int64_t value, int64_t low)
{
    return value < low ? low : value;
}

static int64_t at_most(int64_t value, int64_t high)
{
    return value > high ? high : value;
}

static int32_t clamp(int64_t value, int64_t low, int64_t high)
{
    return (int32_t)at_most(at_least(value, low), high);
}

// Truncates toward zero. Values beyond +-2^62 become that, which leaves room for sums.
static int64_t trunc_64(double value)
{
    constexpr double LIMIT = 4611686018427387904.0;
    if (value >= LIMIT)
        return (int64_t)LIMIT;
    if (value <= -LIMIT)
        return -(int64_t)LIMIT;
    return (int64_t)value;
}

view_geometry view_fit(int32_t client_width, int32_t client_height, int32_t frame_width,
                       int32_t frame_height)
{
    view_geometry view = {};
    if (client_width <= 0 || client_height <= 0 || frame_width <= 0 || frame_height <= 0)
        return view;

    double scale = (double)client_width / frame_width;
    double vertical = (double)client_height / frame_height;
    if (vertical < scale)
        scale = vertical;
    if (scale > 1.0)
        scale = 1.0;

    int32_t width = (int32_t)trunc_64(frame_width * scale);
    int32_t height = (int32_t)trunc_64(frame_height * scale);
    if (width == 0 || height == 0)
        return view; // a picture a thousand times as wide as high, say, in a small window
    view.view_scale = scale;
    view.view_width = width;
    view.view_height = height;
    view.view_x = (client_width - width) / 2;
    view.view_y = (client_height - height) / 2;
    return view;
}

void view_first_size(int32_t screen_width, int32_t screen_height, int32_t frame_width,
                     int32_t frame_height, int32_t *width, int32_t *height)
{
    *width = (int32_t)at_most((int64_t)screen_width * 9 / 10, frame_width);
    *height = (int32_t)at_most((int64_t)screen_height * 9 / 10, frame_height);
}

// One axis of view_paint_rect: client pixels low .. high - 1 to frame pixels and back.
static void stretch_axis(double scale, int32_t offset, int32_t low, int32_t high, int32_t size,
                         int32_t *src, int32_t *src_size, int32_t *dst, int32_t *dst_size)
{
    int64_t first = trunc_64((double)((int64_t)low - offset) / scale) - MARGIN_BEFORE;
    int64_t end = trunc_64((double)((int64_t)high - offset) / scale) + MARGIN_AFTER;
    first = at_least(first, 0);
    end = at_most(end, size);
    if (first >= end) {
        *src_size = 0;
        return;
    }
    *src = (int32_t)first;
    *src_size = (int32_t)(end - first);
    int64_t dst_first = trunc_64((double)first * scale);
    *dst = (int32_t)(offset + dst_first);
    *dst_size = (int32_t)(trunc_64((double)end * scale + 0.999) - dst_first);
}

view_stretch view_paint_rect(const view_geometry &view, const frame_rect &redraw,
                             int32_t frame_width, int32_t frame_height)
{
    if (!(view.view_scale > 0))
        return {};
    view_stretch s = {};
    stretch_axis(view.view_scale, view.view_x, redraw.left, redraw.right, frame_width, &s.src_x,
                 &s.src_w, &s.dst_x, &s.dst_w);
    stretch_axis(view.view_scale, view.view_y, redraw.top, redraw.bottom, frame_height,
                 &s.src_y, &s.src_h, &s.dst_y, &s.dst_h);
    if (s.src_w == 0 || s.src_h == 0 || s.dst_w == 0 || s.dst_h == 0)
        return {};
    return s;
}

bool view_bitmap_fits(int32_t width, int32_t height)
{
    // GDI counts a row in bits first.
    int64_t row_bits = (int64_t)width * PIXEL_BYTES * 8;
    return width > 0 && height > 0 && row_bits <= INT32_MAX &&
           row_bits / 8 * height <= INT32_MAX;
}

// A client position of a frame coordinate, moved by a margin.
static int32_t client_position(double scale, int32_t offset, int32_t coordinate, int32_t margin)
{
    return clamp(offset + trunc_64(coordinate * scale) + margin, INT32_MIN, INT32_MAX);
}

frame_rect view_invalid_rect(const view_geometry &view, const frame_rect &dirty)
{
    return {client_position(view.view_scale, view.view_x, dirty.left, -1),
            client_position(view.view_scale, view.view_y, dirty.top, -1),
            client_position(view.view_scale, view.view_x, dirty.right, 2),
            client_position(view.view_scale, view.view_y, dirty.bottom, 2)};
}

bool view_to_host(const view_geometry &view, int32_t px, int32_t py, int32_t frame_width,
                  int32_t frame_height, int32_t *x, int32_t *y)
{
    if (view.view_width <= 0 || view.view_height <= 0)
        return false;
    int64_t across = ((int64_t)px - view.view_x) * frame_width / view.view_width;
    int64_t down = ((int64_t)py - view.view_y) * frame_height / view.view_height;
    *x = clamp(across, 0, (int64_t)frame_width - 1);
    *y = clamp(down, 0, (int64_t)frame_height - 1);
    return true;
}

// Length of a cell: the grid's length in pixels over its cells.
static int32_t cell_length(int32_t length, double scale, int32_t cells)
{
    return cells <= 0 ? 1 : clamp(trunc_64(length * scale / cells), 1, INT32_MAX);
}

text_grid view_text_grid(const view_geometry &view, int32_t text_x, int32_t text_y,
                         int32_t text_w, int32_t text_h, int32_t cols, int32_t rows)
{
    text_grid grid;
    grid.x = view.view_x + trunc_64(text_x * view.view_scale);
    grid.y = view.view_y + trunc_64(text_y * view.view_scale);
    grid.cell_w = cell_length(text_w, view.view_scale, cols);
    grid.cell_h = cell_length(text_h, view.view_scale, rows);
    return grid;
}

// One axis of view_text_clip: where the layer ends, at most at `end`. Origin and length are
// truncated each by itself, so the last cell may end a pixel later than the rectangle does;
// view_invalid_rect has that much to spare.
static int32_t text_end(double scale, int32_t offset, int32_t origin, int32_t length,
                        int32_t end)
{
    int64_t last = offset + trunc_64((double)((int64_t)origin + length) * scale) + 1;
    return clamp(at_most(last, end), INT32_MIN, INT32_MAX);
}

frame_rect view_text_clip(const view_geometry &view, int32_t text_x, int32_t text_y,
                          int32_t text_w, int32_t text_h, const frame_rect &visible)
{
    if (text_w <= 0 || text_h <= 0)
        return {};
    frame_rect cut = visible;
    cut.right = text_end(view.view_scale, view.view_x, text_x, text_w, visible.right);
    cut.bottom = text_end(view.view_scale, view.view_y, text_y, text_h, visible.bottom);
    return cut;
}

text_span view_text_span(int64_t origin, int32_t cell, int32_t count, int32_t low, int32_t high)
{
    // Both quotients are of numbers that are not negative once the cells left of, or above,
    // the pixels are set aside, so they round down.
    int64_t first = low <= origin ? 0 : (low - origin) / cell;
    int64_t end = high <= origin ? 0 : (high - 1 - origin) / cell + 1;
    text_span span;
    span.first = clamp(first, 0, count);
    span.end = clamp(end, span.first, count);
    if (low >= high)
        span.end = span.first;
    return span;
}

bool view_text_place(const text_grid &grid, int32_t column, int32_t row, int32_t length,
                     const frame_rect &visible, text_place *place)
{
    int64_t x = grid.x + (int64_t)column * grid.cell_w;
    int64_t y = grid.y + (int64_t)row * grid.cell_h;
    int64_t left = at_least(x, visible.left);
    int64_t top = at_least(y, visible.top);
    int64_t right = at_most(x + (int64_t)length * grid.cell_w, visible.right);
    int64_t bottom = at_most(y + grid.cell_h, visible.bottom);
    if (left >= right || top >= bottom)
        return false;
    place->x = clamp(x, -GDI_POSITION_MAX, GDI_POSITION_MAX);
    place->y = clamp(y, -GDI_POSITION_MAX, GDI_POSITION_MAX);
    place->clip = {(int32_t)left, (int32_t)top, (int32_t)right, (int32_t)bottom};
    return true;
}

// A cell of the text layer: offset 0 u16 UTF-16 code unit, 2 u8 attribute.
constexpr size_t CELL_BYTES = 3;

int32_t text_run(const uint8_t *row_cells, int32_t cols, int32_t first,
                 uint16_t characters[TEXT_RUN_MAX], uint8_t *attribute)
{
    if (first >= cols)
        return 0;
    const uint8_t *cell = row_cells + (size_t)first * CELL_BYTES;
    *attribute = cell[2];
    int32_t length = 0;
    while (length < TEXT_RUN_MAX && first + length < cols && cell[2] == *attribute) {
        uint16_t character = load_le16(cell);
        characters[length] = character ? character : ' ';
        length++;
        cell += CELL_BYTES;
    }
    return length;
}

static constexpr uint32_t colour(uint32_t red, uint32_t green, uint32_t blue)
{
    return red | green << 8 | blue << 16;
}

uint32_t console_colour(uint8_t index)
{
    static constexpr uint32_t PALETTE[16] = {
        colour(12, 12, 12),    colour(0, 55, 218),    colour(19, 161, 14),
        colour(58, 150, 221),  colour(197, 15, 31),   colour(136, 23, 152),
        colour(193, 156, 0),   colour(204, 204, 204), colour(118, 118, 118),
        colour(59, 120, 255),  colour(22, 198, 12),   colour(97, 214, 214),
        colour(231, 72, 86),   colour(180, 0, 158),   colour(249, 241, 165),
        colour(242, 242, 242),
    };
    return PALETTE[index & 15];
}

void view_title(char title[TITLE_SIZE], const char *host_name, int32_t frame_width,
                int32_t frame_height, uint32_t frames, uint32_t bytes, uint32_t hits,
                uint32_t misses, bool text_active, title_counters *previous)
{
    // The counters wrap; their differences do not mind.
    snprintf(title, TITLE_SIZE, "qv - %s  %dx%d  %u fps  %u KB/s  cache hits %u  misses %u%s",
             host_name, (int)frame_width, (int)frame_height,
             (unsigned)(frames - previous->frames),
             (unsigned)((bytes - previous->bytes) / 1024), (unsigned)hits, (unsigned)misses,
             text_active ? "  [text layer]" : "");
    previous->frames = frames;
    previous->bytes = bytes;
}

} // namespace viewer
