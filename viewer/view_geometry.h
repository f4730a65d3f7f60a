// Where the host's picture lies in the viewer window, and back. Pure.
//
// Sizes and positions are pixels. The picture is shrunk to fit and never enlarged, and
// centred; a client side or a scaled side of 0 gives empty results and divides by nothing.
#ifndef QV_VIEWER_VIEW_GEOMETRY_H
#define QV_VIEWER_VIEW_GEOMETRY_H

#include "viewer/frame_decode.h"

#include <stddef.h>
#include <stdint.h>

namespace viewer
{

struct view_geometry {
    double view_scale;               // 0 < scale <= 1.0, or 0 when nothing can be shown
    int32_t view_width, view_height; // the picture's scaled size
    int32_t view_x, view_y;          // its offset in the client area
};

view_geometry view_fit(int32_t client_width, int32_t client_height, int32_t frame_width,
                       int32_t frame_height);

// First client size of the window: the picture, at most nine tenths of the screen each way.
void view_first_size(int32_t screen_width, int32_t screen_height, int32_t frame_width,
                     int32_t frame_height, int32_t *width, int32_t *height);

// One stretch of frame pixels onto client pixels that covers what the client rectangle
// `redraw` shows of the picture, with a margin. All zero when it shows none.
struct view_stretch {
    int32_t src_x, src_y, src_w, src_h;
    int32_t dst_x, dst_y, dst_w, dst_h;
};

view_stretch view_paint_rect(const view_geometry &view, const frame_rect &redraw,
                             int32_t frame_width, int32_t frame_height);

// Whether a bitmap of this many pixels fits the 31-bit sizes by which GDI counts its bytes.
// What does not fit stays unpainted.
bool view_bitmap_fits(int32_t width, int32_t height);

// The client rectangle to repaint for a dirty rectangle of the frame.
frame_rect view_invalid_rect(const view_geometry &view, const frame_rect &dirty);

// The host pixel under a client point, clamped to the screen. False before the first paint
// (nothing is sent then).
bool view_to_host(const view_geometry &view, int32_t px, int32_t py, int32_t frame_width,
                  int32_t frame_height, int32_t *x, int32_t *y);

// Where the text layer's cells lie, in client pixels; the origin may be far outside. The
// layer's position and size are the host's word: any values.
struct text_grid {
    int64_t x, y;           // of the first cell
    int32_t cell_w, cell_h; // at least 1
};

text_grid view_text_grid(const view_geometry &view, int32_t text_x, int32_t text_y,
                         int32_t text_w, int32_t text_h, int32_t cols, int32_t rows);

// Cuts `visible`, in client pixels, down to the layer's own rectangle on the screen: cells
// that are never smaller than a pixel can need more room than that, but a repaint request for
// the layer covers no more. Empty for a layer without width or height.
frame_rect view_text_clip(const view_geometry &view, int32_t text_x, int32_t text_y,
                          int32_t text_w, int32_t text_h, const frame_rect &visible);

// Which of `count` cells in a line, the first at `origin` and each `cell` pixels long, touch
// the pixels low .. high - 1: cells first .. end - 1, none when they are equal.
struct text_span {
    int32_t first, end;
};

text_span view_text_span(int64_t origin, int32_t cell, int32_t count, int32_t low,
                         int32_t high);

// Where a run of `length` cells from (column, row) is drawn: its first character at (x, y),
// which may be far outside but never where GDI cannot count, and nothing outside `clip`.
struct text_place {
    int32_t x, y;
    frame_rect clip;
};

// False when no pixel of the run lies in `visible`; such a run is not drawn.
bool view_text_place(const text_grid &grid, int32_t column, int32_t row, int32_t length,
                     const frame_rect &visible, text_place *place);

// The next run of cells with one attribute in a row of 3-byte cells, from column first and
// at most TEXT_RUN_MAX long. Writes the run's characters (0 as a space) and returns its
// length, 0 at the end of the row.
constexpr int32_t TEXT_RUN_MAX = 512;
int32_t text_run(const uint8_t *row_cells, int32_t cols, int32_t first,
                 uint16_t characters[TEXT_RUN_MAX], uint8_t *attribute);

// Colour of a palette index 0 .. 15 as 0x00BBGGRR.
uint32_t console_colour(uint8_t index);

// The window title once a second.
struct title_counters {
    uint32_t frames, bytes; // at the previous title
};

constexpr size_t TITLE_SIZE = 256;

// Formats the title from totals since connect and the totals at the title before.
void view_title(char title[TITLE_SIZE], const char *host_name, int32_t frame_width,
                int32_t frame_height, uint32_t frames, uint32_t bytes, uint32_t hits,
                uint32_t misses, bool text_active, title_counters *previous);

} // namespace viewer

#endif
