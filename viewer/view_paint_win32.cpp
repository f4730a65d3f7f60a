// Painting through a back buffer, so that the window never flickers: the picture is
// stretched into it, the text layer drawn over it, and the caller copies the redrawn part to
// the window.
//
// The frame lock is held while picture and text are drawn, so that neither changes half way,
// and not while the window is brought up to date. Failing graphics calls are not checked,
// except where a failure would leave nothing to draw into. Where everything is drawn is
// view_geometry's decision.
#include "viewer/view_paint.h"

#include "protocol/win32.h"

namespace viewer
{

// Glyphs beyond this size in pixels would take memory without measure; the cells of a layer
// that asks for larger ones are filled and clipped as they should be.
constexpr int32_t FONT_SIDE_MAX = 2048;

// Owner: the window thread of the running session.
static struct {
    HDC dc;            // made by the first paint
    HGDIOBJ no_bitmap; // what dc held when it was new; selected while bitmap is replaced
    HBITMAP bitmap;    // null when it could not be made
    int32_t width, height;
} back_buffer;

// Owner: the same.
static struct {
    HFONT font;
    int32_t cell_w, cell_h;
} text_font;

// Gives the back buffer the client area's size. False when there is none; *is_new when its
// contents are undefined.
static bool back_buffer_fit(HDC window_dc, int32_t width, int32_t height, bool *is_new)
{
    *is_new = false;
    if (width <= 0 || height <= 0)
        return false;
    if (back_buffer.bitmap && back_buffer.width == width && back_buffer.height == height)
        return true;

    if (back_buffer.bitmap) {
        SelectObject(back_buffer.dc, back_buffer.no_bitmap);
        DeleteObject(back_buffer.bitmap);
        back_buffer.bitmap = nullptr;
    }
    // Made for a device context and not for the calling thread, so that it outlives that.
    if (!back_buffer.dc)
        back_buffer.dc = CreateCompatibleDC(window_dc);
    if (!back_buffer.dc)
        return false;
    HBITMAP bitmap = CreateCompatibleBitmap(window_dc, width, height);
    if (!bitmap)
        return false;
    back_buffer.no_bitmap = SelectObject(back_buffer.dc, bitmap);
    if (!back_buffer.no_bitmap) {
        DeleteObject(bitmap);
        return false;
    }
    back_buffer.bitmap = bitmap;
    back_buffer.width = width;
    back_buffer.height = height;
    *is_new = true;
    return true;
}

static void draw_picture(HDC dc, const view_geometry &view, const view_stretch &s)
    REQUIRES(frame_lock)
{
    if (s.src_h == 0 || !view_bitmap_fits(frame.frame_stride, s.src_h))
        return;

    // The bitmap is described as just the rows that are needed: then it is the same to count
    // them from the top or from the bottom, and systems differ in that for top-down bitmaps.
    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof info.bmiHeader;
    info.bmiHeader.biWidth = frame.frame_stride;
    info.bmiHeader.biHeight = -s.src_h; // top row first
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    info.bmiHeader.biCompression = BI_RGB;
    const uint8_t *rows =
        frame.frame_pixels + (uint64_t)s.src_y * (uint64_t)frame.frame_stride * PIXEL_BYTES;

    if (view.view_scale < 1.0) {
        SetStretchBltMode(dc, HALFTONE);
        SetBrushOrgEx(dc, 0, 0, nullptr); // HALFTONE wants its brush aligned anew
    } else {
        SetStretchBltMode(dc, COLORONCOLOR);
    }
    StretchDIBits(dc, s.dst_x, s.dst_y, s.dst_w, s.dst_h, s.src_x, 0, s.src_w, s.src_h, rows,
                  &info, DIB_RGB_COLORS, SRCCOPY);
}

// The font whose characters fill a cell. It is never selected outside draw_text.
static HFONT text_font_fit(int32_t cell_w, int32_t cell_h)
{
    if (cell_w > FONT_SIDE_MAX)
        cell_w = FONT_SIDE_MAX;
    if (cell_h > FONT_SIDE_MAX)
        cell_h = FONT_SIDE_MAX;
    if (text_font.font && text_font.cell_w == cell_w && text_font.cell_h == cell_h)
        return text_font.font;

    if (text_font.font)
        DeleteObject(text_font.font);
    text_font.font = CreateFontA(-cell_h, cell_w, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE,
                                 DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS,
                                 CLEARTYPE_QUALITY, FIXED_PITCH, "Consolas");
    text_font.cell_w = cell_w;
    text_font.cell_h = cell_h;
    return text_font.font;
}

static void draw_text_row(HDC dc, const text_grid &grid, int32_t row, int32_t column_end,
                          const frame_rect &visible) REQUIRES(frame_lock)
{
    static_assert(sizeof(WCHAR) == sizeof(uint16_t));
    const uint8_t *cells = frame.text_cells + (uint64_t)row * (uint64_t)frame.text_cols * 3;
    uint16_t characters[TEXT_RUN_MAX];
    uint8_t attribute = 0;
    int32_t column = 0;
    while (column < column_end) {
        int32_t length = text_run(cells, frame.text_cols, column, characters, &attribute);
        text_place place;
        if (view_text_place(grid, column, row, length, visible, &place)) {
            RECT clip = {place.clip.left, place.clip.top, place.clip.right, place.clip.bottom};
            SetTextColor(dc, console_colour(attribute & 15));
            SetBkColor(dc, console_colour(attribute >> 4));
            ExtTextOutW(dc, place.x, place.y, ETO_CLIPPED | ETO_OPAQUE, &clip,
                        (const WCHAR *)characters, (UINT)length, nullptr);
        }
        column += length;
    }
}

// Draws the layer over what was just stretched, margin included, so that the back buffer is
// right everywhere. Nothing outside the picture: the part of a console that is off the
// host's screen would stay in the black bars, which no later repaint covers. Nor anything
// outside the layer's own rectangle: it would stay there when the layer goes.
static void draw_text(HDC dc, const view_geometry &view, const view_stretch &s)
    REQUIRES(frame_lock)
{
    if (!frame.text_active || frame.text_cols <= 0 || frame.text_rows <= 0)
        return;
    frame_rect drawn = {s.dst_x, s.dst_y, s.dst_x + s.dst_w, s.dst_y + s.dst_h};
    frame_rect visible =
        view_text_clip(view, frame.text_x, frame.text_y, frame.text_w, frame.text_h, drawn);
    text_grid grid = view_text_grid(view, frame.text_x, frame.text_y, frame.text_w,
                                    frame.text_h, frame.text_cols, frame.text_rows);
    text_span rows =
        view_text_span(grid.y, grid.cell_h, frame.text_rows, visible.top, visible.bottom);
    text_span columns =
        view_text_span(grid.x, grid.cell_w, frame.text_cols, visible.left, visible.right);
    if (rows.first == rows.end || columns.first == columns.end)
        return;

    HGDIOBJ font_before = SelectObject(dc, text_font_fit(grid.cell_w, grid.cell_h));
    SetBkMode(dc, OPAQUE);
    // Runs begin at the first column whatever is redrawn: the same runs, the same glyphs.
    for (int32_t row = rows.first; row < rows.end; row++)
        draw_text_row(dc, grid, row, columns.end, visible);
    SelectObject(dc, font_before);
}

void *view_paint(void *window_dc, int32_t client_width, int32_t client_height,
                 view_geometry *view, frame_rect *redraw)
{
    bool is_new = false;
    bool usable = back_buffer_fit((HDC)window_dc, client_width, client_height, &is_new);
    HDC dc = back_buffer.dc;

    frame_lock_for_window();
    view_geometry now =
        view_fit(client_width, client_height, frame.frame_width, frame.frame_height);
    // Where nothing of the picture is visible, all is black, whatever the buffer held.
    bool whole = is_new || now.view_width == 0 || now.view_width != view->view_width ||
                 now.view_height != view->view_height;
    *view = now;
    if (usable) {
        if (whole) {
            *redraw = {0, 0, client_width, client_height};
            RECT all = {0, 0, client_width, client_height};
            FillRect(dc, &all, (HBRUSH)GetStockObject(BLACK_BRUSH));
        }
        view_stretch stretch =
            view_paint_rect(now, *redraw, frame.frame_width, frame.frame_height);
        draw_picture(dc, now, stretch);
        draw_text(dc, now, stretch);
    }
    lock_leave(&frame_lock);
    return usable ? dc : nullptr;
}

} // namespace viewer
