// Windows only
// Fakes: viewer_channel_memory window_posts
#include "viewer/view_paint.h"

#include "protocol/bytes.h"
#include "protocol/win32.h"
#include "tests/test.h"

#include <vector>

using namespace viewer;

constexpr uint32_t BLACK = 0;

// A client area of its own, 32 bits a pixel; the painter only takes its format from it.
struct canvas {
    HDC dc;
    HBITMAP bitmap;
    HGDIOBJ before;

    canvas()
    {
        BITMAPINFO info = {};
        info.bmiHeader = {sizeof info.bmiHeader, 1, 1, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
        dc = CreateCompatibleDC(nullptr);
        void *bits;
        bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
        before = SelectObject(dc, bitmap);
        REQUIRE(before);
    }

    ~canvas()
    {
        SelectObject(dc, before);
        DeleteObject(bitmap);
        DeleteDC(dc);
    }
};

// The first width x height pixels of a device context as 0x00RRGGBB.
static std::vector<uint32_t> read_pixels(HDC dc, int32_t width, int32_t height)
{
    BITMAPINFO info = {};
    info.bmiHeader = {sizeof info.bmiHeader, width, -height, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    void *bits = nullptr;
    HBITMAP bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    REQUIRE(bitmap);
    HDC copy = CreateCompatibleDC(nullptr);
    HGDIOBJ before = SelectObject(copy, bitmap);
    REQUIRE(BitBlt(copy, 0, 0, width, height, dc, 0, 0, SRCCOPY));
    GdiFlush();
    const uint32_t *from = (const uint32_t *)bits;
    std::vector<uint32_t> pixels(from, from + (size_t)width * (size_t)height);
    for (uint32_t &pixel : pixels)
        pixel &= 0xFFFFFF;
    SelectObject(copy, before);
    DeleteDC(copy);
    DeleteObject(bitmap);
    return pixels;
}

// A colour of its own for each pixel of a picture below 256 x 256.
static uint32_t pattern(int32_t x, int32_t y)
{
    return (uint32_t)x << 16 | (uint32_t)y << 8 | (uint32_t)((x * 7 + y * 13) & 255);
}

static void set_pixel(int32_t x, int32_t y, uint32_t colour)
{
    lock_enter(&frame_lock);
    store_le32(frame.frame_pixels +
                   ((size_t)y * (size_t)frame.frame_stride + (size_t)x) * PIXEL_BYTES,
               colour | 0xEE000000u); // the fourth byte carries nothing
    lock_leave(&frame_lock);
}

// Opens a picture filled with the pattern in blocks of block x block pixels, and with
// magenta in the padding, which must never show.
static void open_picture(int32_t width, int32_t height, int32_t block)
{
    REQUIRE(frame_open(width, height));
    for (int32_t y = 0; y < pad_to_tile(height); y++)
        for (int32_t x = 0; x < pad_to_tile(width); x++)
            set_pixel(x, y, x < width && y < height ? pattern(x / block, y / block) : 0xFF00FF);
}

// A grid of cells with spaces on background 0; the caller changes some.
static uint8_t *open_text(int32_t x, int32_t y, int32_t w, int32_t h, int32_t cols,
                          int32_t rows)
{
    lock_enter(&frame_lock);
    free(frame.text_cells);
    frame.text_cells = (uint8_t *)calloc((size_t)cols * (size_t)rows, 3);
    REQUIRE(frame.text_cells);
    frame.text_active = true;
    frame.text_x = x;
    frame.text_y = y;
    frame.text_w = w;
    frame.text_h = h;
    frame.text_cols = cols;
    frame.text_rows = rows;
    uint8_t *cells = frame.text_cells;
    lock_leave(&frame_lock);
    return cells;
}

static void set_cell(uint8_t *cells, int32_t index, uint16_t character, uint8_t attribute)
{
    store_le16(cells + index * 3, character);
    cells[index * 3 + 2] = attribute;
}

// A palette colour as 0x00RRGGBB.
static uint32_t palette(uint8_t index)
{
    uint32_t c = console_colour(index);
    return (c & 255) << 16 | (c & 0xFF00) | c >> 16;
}

// A whole first paint.
static HDC paint(const canvas &c, int32_t width, int32_t height, view_geometry *view)
{
    frame_rect redraw = {0, 0, width, height};
    *view = {};
    HDC dc = (HDC)view_paint(c.dc, width, height, view, &redraw);
    REQUIRE(dc);
    return dc;
}

TEST_CASE("at scale 1.0 every pixel is the host's, with black bars around")
{
    canvas c;
    open_picture(100, 70, 1);
    view_geometry view = {};
    frame_rect redraw = {0, 0, 5, 5}; // a first paint draws everything, whatever was invalid
    HDC dc = (HDC)view_paint(c.dc, 141, 101, &view, &redraw);
    REQUIRE(dc);
    CHECK(redraw.left == 0);
    CHECK(redraw.top == 0);
    CHECK(redraw.right == 141);
    CHECK(redraw.bottom == 101);
    CHECK(view.view_x == 20); // (141 - 100) / 2
    CHECK(view.view_y == 15); // (101 - 70) / 2
    CHECK(GetStretchBltMode(dc) == COLORONCOLOR);

    std::vector<uint32_t> pixels = read_pixels(dc, 141, 101);
    int wrong = 0;
    for (int32_t y = 0; y < 101; y++)
        for (int32_t x = 0; x < 141; x++) {
            bool inside = x >= 20 && x < 120 && y >= 15 && y < 85;
            wrong +=
                pixels[(size_t)(y * 141 + x)] != (inside ? pattern(x - 20, y - 15) : BLACK);
        }
    CHECK(wrong == 0);
    frame_close();
}

TEST_CASE("a later paint draws the invalid rectangle and its margin alone")
{
    canvas c;
    open_picture(100, 70, 1);
    view_geometry view;
    paint(c, 141, 101, &view);

    // Client (50, 35) is picture (30, 20); the margin is 2 pixels before and 3 after.
    for (int32_t y = 0; y < 70; y++)
        for (int32_t x = 0; x < 100; x++)
            set_pixel(x, y, pattern(x, y) ^ 0xFFFFFF);
    frame_rect redraw = {50, 35, 60, 40};
    HDC dc = (HDC)view_paint(c.dc, 141, 101, &view, &redraw);
    REQUIRE(dc);
    CHECK(redraw.left == 50);
    CHECK(redraw.top == 35);
    CHECK(redraw.right == 60);
    CHECK(redraw.bottom == 40);
    std::vector<uint32_t> pixels = read_pixels(dc, 141, 101);
    int wrong = 0;
    for (int32_t y = 0; y < 70; y++)
        for (int32_t x = 0; x < 100; x++) {
            bool drawn = x >= 28 && x < 43 && y >= 18 && y < 28;
            wrong += pixels[(size_t)((y + 15) * 141 + x + 20)] !=
                     (pattern(x, y) ^ (drawn ? 0xFFFFFFu : 0));
        }
    CHECK(wrong == 0);
    frame_close();
}

TEST_CASE("another client size redraws everything and leaves nothing behind")
{
    canvas c;
    open_picture(100, 70, 1);
    view_geometry view;
    paint(c, 100, 70, &view);
    frame_rect redraw = {0, 0, 1, 1};
    HDC dc = (HDC)view_paint(c.dc, 110, 90, &view, &redraw);
    REQUIRE(dc);
    CHECK(redraw.right == 110);
    CHECK(redraw.bottom == 90);
    std::vector<uint32_t> pixels = read_pixels(dc, 110, 90);
    CHECK(pixels[0] == BLACK);
    CHECK(pixels[9 * 110 + 5] == BLACK);
    CHECK(pixels[10 * 110 + 5] == pattern(0, 0));
    CHECK(pixels[79 * 110 + 104] == pattern(99, 69));
    CHECK(pixels[80 * 110 + 104] == BLACK);
    CHECK(pixels[79 * 110 + 105] == BLACK);

    // The same client size with another picture.
    frame_close();
    open_picture(50, 40, 1);
    redraw = {0, 0, 1, 1};
    dc = (HDC)view_paint(c.dc, 110, 90, &view, &redraw);
    REQUIRE(dc);
    CHECK(redraw.right == 110);
    pixels = read_pixels(dc, 110, 90);
    CHECK(pixels[10 * 110 + 5] == BLACK);
    CHECK(pixels[25 * 110 + 30] == pattern(0, 0));
    frame_close();
}

TEST_CASE("a picture larger than the window is shrunk to fit")
{
    // Blocks of 2 x 2 like pixels halve to one pixel, averaged or not.
    canvas c;
    open_picture(128, 90, 2);
    view_geometry view;
    HDC dc = paint(c, 64, 65, &view);
    CHECK(view.view_scale == 0.5);
    CHECK(GetStretchBltMode(dc) == HALFTONE);
    std::vector<uint32_t> pixels = read_pixels(dc, 64, 65);
    int wrong = 0;
    for (int32_t y = 0; y < 65; y++)
        for (int32_t x = 0; x < 64; x++)
            wrong += pixels[(size_t)(y * 64 + x)] !=
                     (y >= 10 && y < 55 ? pattern(x, y - 10) : BLACK);
    CHECK(wrong == 0);

    frame_close();
}

TEST_CASE("a part of a shrunk picture shows the rows and columns that belong there")
{
    // Blocks of 16 x 16 become 8 x 8. The edges of a part are rounded to whole pixels, so
    // a block's own edges may move by a pixel; its middle may not.
    canvas c;
    open_picture(256, 180, 16);
    view_geometry view;
    paint(c, 128, 110, &view);
    CHECK(view.view_scale == 0.5);
    CHECK(view.view_y == 10);
    for (int32_t y = 0; y < 180; y++)
        for (int32_t x = 0; x < 256; x++)
            set_pixel(x, y, pattern(x / 16, y / 16) ^ 0xFFFFFF);
    static const frame_rect parts[] = {
        {0, 10, 128, 31}, {3, 42, 64, 46},   {77, 40, 128, 47},
        {0, 69, 128, 70}, {9, 81, 120, 100},
    };
    for (frame_rect part : parts) {
        CAPTURE(part.top);
        HDC dc = (HDC)view_paint(c.dc, 128, 110, &view, &part);
        REQUIRE(dc);
        std::vector<uint32_t> pixels = read_pixels(dc, 128, 110);
        int wrong = 0, looked_at = 0;
        for (int32_t y = part.top; y < part.bottom; y++)
            for (int32_t x = part.left; x < part.right; x++) {
                int32_t in_x = x % 8, in_y = (y - 10) % 8;
                if (in_x < 2 || in_x > 5 || in_y < 2 || in_y > 5)
                    continue;
                looked_at++;
                wrong +=
                    pixels[(size_t)(y * 128 + x)] != (pattern(x / 8, (y - 10) / 8) ^ 0xFFFFFF);
            }
        CHECK(wrong == 0);
        CHECK(looked_at > 0);
    }
    frame_close();
}

TEST_CASE("an empty client area and one beyond memory paint nothing and do no harm")
{
    canvas c;
    open_picture(100, 70, 1);
    view_geometry view;
    paint(c, 120, 80, &view);
    frame_rect redraw = {0, 0, 0, 0};
    CHECK(view_paint(c.dc, 0, 0, &view, &redraw) == nullptr);
    CHECK(view.view_width == 0);
    CHECK(view_paint(c.dc, 120, 0, &view, &redraw) == nullptr);
    redraw = {0, 0, INT32_MAX, INT32_MAX};
    CHECK(view_paint(c.dc, INT32_MAX, INT32_MAX, &view, &redraw) == nullptr);

    // Back to a size: everything again.
    redraw = {0, 0, 1, 1};
    HDC dc = (HDC)view_paint(c.dc, 120, 80, &view, &redraw);
    REQUIRE(dc);
    CHECK(redraw.right == 120);
    CHECK(read_pixels(dc, 120, 80)[6 * 120 + 11] == pattern(1, 1));
    frame_close();

    // No picture at all is black.
    redraw = {0, 0, 1, 1};
    dc = (HDC)view_paint(c.dc, 120, 80, &view, &redraw);
    REQUIRE(dc);
    CHECK(redraw.right == 120);
    CHECK(read_pixels(dc, 120, 80)[6 * 120 + 11] == BLACK);
}

TEST_CASE("a picture too flat to be seen is black, not what another session left")
{
    canvas c;
    open_picture(100, 70, 1);
    view_geometry view;
    HDC dc = paint(c, 120, 80, &view);
    CHECK(read_pixels(dc, 120, 80)[6 * 120 + 11] == pattern(1, 1));
    frame_close();

    REQUIRE(frame_open(10000, 1)); // 0.012 times as high as a pixel
    view = {};                     // the next session's first paint
    frame_rect redraw = {0, 0, 1, 1};
    dc = (HDC)view_paint(c.dc, 120, 80, &view, &redraw);
    REQUIRE(dc);
    CHECK(redraw.right == 120);
    CHECK(redraw.bottom == 80);
    for (uint32_t pixel : read_pixels(dc, 120, 80))
        REQUIRE(pixel == BLACK);
    frame_close();
}

TEST_CASE("the text layer covers the picture with coloured cells and characters")
{
    canvas c;
    open_picture(100, 70, 1);
    // 4 x 2 cells of 12 x 20 at picture (10, 5), client (30, 20).
    uint8_t *cells = open_text(10, 5, 48, 40, 4, 2);
    set_cell(cells, 0, ' ', 0x1F);
    set_cell(cells, 1, ' ', 0x1F);
    set_cell(cells, 2, 0, 0x4A);
    set_cell(cells, 3, 'M', 0xF0);
    set_cell(cells, 4, ' ', 0xA0);
    set_cell(cells, 5, ' ', 0x20);
    set_cell(cells, 6, ' ', 0x20);
    set_cell(cells, 7, ' ', 0x70);
    static const uint8_t background[8] = {1, 1, 4, 15, 10, 2, 2, 7};
    view_geometry view;
    HDC dc = paint(c, 141, 101, &view);

    std::vector<uint32_t> pixels = read_pixels(dc, 141, 101);
    int wrong = 0, foreground = 0, ink = 0;
    for (int32_t y = 0; y < 101; y++)
        for (int32_t x = 0; x < 141; x++) {
            uint32_t pixel = pixels[(size_t)(y * 141 + x)];
            if (x >= 30 && x < 78 && y >= 20 && y < 60) {
                int cell = (y - 20) / 20 * 4 + (x - 30) / 12;
                if (cell != 3) {
                    wrong += pixel != palette(background[cell]);
                } else {
                    ink += pixel != palette(15);
                    foreground += pixel == palette(0);
                }
            } else {
                bool inside = x >= 20 && x < 120 && y >= 15 && y < 85;
                wrong += pixel != (inside ? pattern(x - 20, y - 15) : BLACK);
            }
        }
    CHECK(wrong == 0);
    // The letter: some of the 240 pixels are ink, some of them in the full colour.
    CHECK(ink > 20);
    CHECK(ink < 200);
    CHECK(foreground > 0);

    // Switched off, the picture is back.
    lock_enter(&frame_lock);
    frame.text_active = false;
    lock_leave(&frame_lock);
    frame_rect redraw = {30, 20, 78, 60};
    REQUIRE(view_paint(c.dc, 141, 101, &view, &redraw));
    pixels = read_pixels(dc, 141, 101);
    CHECK(pixels[20 * 141 + 30] == pattern(10, 5));
    CHECK(pixels[59 * 141 + 77] == pattern(57, 44));
    frame_close();
}

TEST_CASE("a part that is redrawn keeps the text around it")
{
    canvas c;
    open_picture(100, 70, 1);
    uint8_t *cells = open_text(0, 0, 100, 70, 10, 7);
    for (int i = 0; i < 70; i++)
        set_cell(cells, i, 'x', 0x1F);
    view_geometry view;
    HDC dc = paint(c, 100, 70, &view);
    std::vector<uint32_t> whole = read_pixels(dc, 100, 70);
    static const frame_rect parts[] = {{13, 17, 14, 18}, {40, 30, 71, 49}, {95, 60, 100, 70}};
    for (frame_rect part : parts)
        REQUIRE(view_paint(c.dc, 100, 70, &view, &part));
    CHECK(read_pixels(dc, 100, 70) == whole);
    frame_close();
}

TEST_CASE("characters stand in their cells, also in a long run")
{
    canvas c;
    open_picture(200, 40, 1);
    // 20 cells of 8 x 16 with one attribute: letters in columns 3 and 19.
    uint8_t *cells = open_text(0, 0, 160, 16, 20, 1);
    for (int i = 0; i < 20; i++)
        set_cell(cells, i, i == 3 || i == 19 ? 'M' : ' ', 0x1F);
    view_geometry view;
    HDC dc = paint(c, 200, 40, &view);
    std::vector<uint32_t> pixels = read_pixels(dc, 200, 40);
    for (int i = 0; i < 20; i++) {
        int ink = 0;
        for (int32_t y = 0; y < 16; y++)
            for (int32_t x = i * 8; x < i * 8 + 8; x++)
                ink += pixels[(size_t)(y * 200 + x)] != palette(1);
        CAPTURE(i);
        if (i == 3 || i == 19)
            CHECK(ink > 10);
        else
            CHECK(ink <= 2); // a letter's smoothed edge may touch its neighbour
    }
    frame_close();
}

TEST_CASE("the part of a console beyond the host's screen is not shown")
{
    canvas c;
    open_picture(100, 70, 1);
    // Cells of 10 x 10 from picture (-30, -10) to (130, 80), in bars of 20 and 15.
    uint8_t *cells = open_text(-30, -10, 160, 90, 16, 9);
    for (int i = 0; i < 16 * 9; i++)
        set_cell(cells, i, ' ', 0x70);
    view_geometry view;
    HDC dc = paint(c, 141, 101, &view);
    std::vector<uint32_t> pixels = read_pixels(dc, 141, 101);
    int wrong = 0;
    for (int32_t y = 0; y < 101; y++)
        for (int32_t x = 0; x < 141; x++) {
            bool inside = x >= 20 && x < 120 && y >= 15 && y < 85;
            wrong += pixels[(size_t)(y * 141 + x)] != (inside ? palette(7) : BLACK);
        }
    CHECK(wrong == 0);
    frame_close();
}

TEST_CASE("cells that need more room than their console has do not leave it")
{
    canvas c;
    open_picture(100, 70, 1);
    // 90 x 60 cells of one pixel in a console of 20 x 10 at (5, 7), one pixel to spare.
    uint8_t *cells = open_text(5, 7, 20, 10, 90, 60);
    for (int i = 0; i < 90 * 60; i++)
        set_cell(cells, i, ' ', 0x70);
    view_geometry view;
    HDC dc = paint(c, 100, 70, &view);
    std::vector<uint32_t> pixels = read_pixels(dc, 100, 70);
    int wrong = 0;
    for (int32_t y = 0; y < 70; y++)
        for (int32_t x = 0; x < 100; x++) {
            bool inside = x >= 5 && x < 26 && y >= 7 && y < 18;
            wrong += pixels[(size_t)(y * 100 + x)] != (inside ? palette(7) : pattern(x, y));
        }
    CHECK(wrong == 0);
    frame_close();
}

TEST_CASE("text rectangles from nowhere fill the picture or nothing")
{
    static const struct {
        int32_t x, y, w, h;
        bool fills;
    } rows[] = {
        {0, 0, INT32_MAX, INT32_MAX, true},
        // 500 cells of 4294967 pixels from -2^31: the end is near 0, -148 to be exact.
        {INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX, false},
        {INT32_MIN / 2, INT32_MIN / 2, INT32_MAX, INT32_MAX, true},
        {INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, false},
        {INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN, false},
        {0, 0, INT32_MIN, 0, false},
        {0, 0, 0, 0, false},
        {0, 0, 100, 70, true}, // cells of one pixel
        {-1000, -1000, 1, 1, false},
    };
    canvas c;
    for (const auto &row : rows) {
        CAPTURE(row.x);
        CAPTURE(row.w);
        open_picture(100, 70, 1);
        uint8_t *cells = open_text(row.x, row.y, row.w, row.h, 500, 500);
        for (int i = 0; i < 500 * 500; i++)
            set_cell(cells, i, 'M', 0x55); // letters as dark as their ground
        view_geometry view;
        HDC dc = paint(c, 141, 101, &view);
        std::vector<uint32_t> pixels = read_pixels(dc, 141, 101);
        int wrong = 0;
        for (int32_t y = 0; y < 101; y++)
            for (int32_t x = 0; x < 141; x++) {
                bool inside = x >= 20 && x < 120 && y >= 15 && y < 85;
                uint32_t expected = row.fills ? palette(5) : pattern(x - 20, y - 15);
                wrong += pixels[(size_t)(y * 141 + x)] != (inside ? expected : BLACK);
            }
        CHECK(wrong == 0);
        frame_close();
    }
}

TEST_CASE("painting again and again keeps no graphics objects")
{
    // Every paint needs another bitmap and another font, and a graphics object has a 16-bit
    // number: more than 65536 of them there cannot be.
    canvas c;
    open_picture(32, 32, 1);
    uint8_t *cells = open_text(0, 0, 8, 8, 1, 1);
    set_cell(cells, 0, ' ', 0x70);
    view_geometry view = {};
    for (int32_t i = 0; i < 66000; i++) {
        lock_enter(&frame_lock);
        frame.text_w = frame.text_h = 8 + i % 2;
        lock_leave(&frame_lock);
        int32_t side = 40 + i % 2;
        frame_rect redraw = {0, 0, side, side};
        REQUIRE(view_paint(c.dc, side, side, &view, &redraw));
    }
    HBRUSH brushes[1000];
    for (HBRUSH &brush : brushes) {
        brush = CreateSolidBrush(1);
        REQUIRE(brush);
    }
    for (HBRUSH brush : brushes)
        DeleteObject(brush);
    frame_close();
}
