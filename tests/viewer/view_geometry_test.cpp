#include "viewer/view_geometry.h"

#include "tests/test.h"

#include <string.h>

using namespace viewer;

constexpr int32_t FRAME_MAX = 0x7FFFFFC0; // the largest side that a host can announce

static bool is_zero(const view_geometry &view)
{
    return view.view_scale == 0 && view.view_width == 0 && view.view_height == 0 &&
           view.view_x == 0 && view.view_y == 0;
}

TEST_CASE("the picture is shrunk to fit, never enlarged, and centred")
{
    static const struct {
        int32_t client_w, client_h, frame_w, frame_h;
        double scale;
        int32_t w, h, x, y;
    } rows[] = {
        // Room to spare: scale 1.0 and bars of (1920-1366)/2 and (1080-768)/2.
        {1920, 1080, 1366, 768, 1.0, 1366, 768, 277, 156},
        {1366, 768, 1366, 768, 1.0, 1366, 768, 0, 0},
        // min(640/1280, 480/720): the width decides, 720 * 0.5 = 360, (480-360)/2 = 60.
        {640, 480, 1280, 720, 0.5, 640, 360, 0, 60},
        // min(2000/1280, 540/720): the height decides, 1280 * 0.75 = 960, (2000-960)/2 = 520.
        {2000, 540, 1280, 720, 0.75, 960, 540, 520, 0},
        // Wider than the frame but lower: min(3, 0.25).
        {300, 25, 100, 100, 0.25, 25, 25, 137, 0},
        // 721 * 0.5 = 360.5, cut to 360.
        {640, 1000, 1280, 721, 0.5, 640, 360, 0, 320},
        // Odd rests: 1/2 = 0 and 3/2 = 1.
        {1001, 1003, 1000, 1000, 1.0, 1000, 1000, 0, 1},
        {1, 1, 1, 1, 1.0, 1, 1, 0, 0},
        {INT32_MAX, INT32_MAX, 64, 64, 1.0, 64, 64, 1073741791, 1073741791},
    };
    for (const auto &row : rows) {
        CAPTURE(row.client_w);
        CAPTURE(row.client_h);
        view_geometry view = view_fit(row.client_w, row.client_h, row.frame_w, row.frame_h);
        CHECK(view.view_scale == row.scale);
        CHECK(view.view_width == row.w);
        CHECK(view.view_height == row.h);
        CHECK(view.view_x == row.x);
        CHECK(view.view_y == row.y);
    }
}

TEST_CASE("a side of zero shows nothing")
{
    CHECK(is_zero(view_fit(0, 0, 1366, 768)));
    CHECK(is_zero(view_fit(0, 600, 1366, 768)));
    CHECK(is_zero(view_fit(800, 0, 1366, 768)));
    CHECK(is_zero(view_fit(-1, 600, 1366, 768)));
    CHECK(is_zero(view_fit(800, 600, 0, 768)));
    CHECK(is_zero(view_fit(800, 600, 1366, 0)));
    // Scaled by 100/10000 the height is 0.01, no pixel.
    CHECK(is_zero(view_fit(100, 100, 10000, 1)));
    CHECK(is_zero(view_fit(100, 100, FRAME_MAX, 64)));

    view_geometry nothing = {};
    frame_rect all = {INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX};
    view_stretch s = view_paint_rect(nothing, all, 1366, 768);
    CHECK(s.src_w == 0);
    CHECK(s.src_h == 0);
    CHECK(s.dst_w == 0);
    CHECK(s.dst_h == 0);
    int32_t x = 7, y = 8;
    CHECK_FALSE(view_to_host(nothing, 5, 5, 1366, 768, &x, &y));
    text_grid grid = view_text_grid(nothing, 100, 100, 640, 384, 80, 24);
    CHECK(grid.x == 0);
    CHECK(grid.y == 0);
    CHECK(grid.cell_w == 1);
    CHECK(grid.cell_h == 1);
}

TEST_CASE("the first client size is the picture, at most nine tenths of the screen")
{
    static const struct {
        int32_t screen_w, screen_h, frame_w, frame_h, w, h;
    } rows[] = {
        {1920, 1080, 1366, 768, 1366, 768}, // nine tenths are 1728 x 972
        {1280, 720, 1366, 768, 1152, 648},
        {1366, 768, 1280, 720, 1229, 691},                   // 1229.4, 691.2
        {1920, 1080, 100, 2000, 100, 972},                   // each side for itself
        {INT32_MAX, INT32_MAX, FRAME_MAX, 1, 1932735282, 1}, // 2147483647 * 0.9 = ..82.3
    };
    for (const auto &row : rows) {
        int32_t w = 0, h = 0;
        view_first_size(row.screen_w, row.screen_h, row.frame_w, row.frame_h, &w, &h);
        CHECK(w == row.w);
        CHECK(h == row.h);
    }
}

TEST_CASE("painting stretches the redrawn rectangle with a margin of source pixels")
{
    static const struct {
        int32_t client_w, client_h, frame_w, frame_h;
        frame_rect redraw;
        view_stretch s;
    } rows[] = {
        // Scale 1.0 at (277, 156): the whole, then (300-277)-2 .. (310-277)+3 and so on.
        {1920, 1080, 1366, 768, {0, 0, 1920, 1080}, {0, 0, 1366, 768, 277, 156, 1366, 768}},
        {1920, 1080, 1366, 768, {300, 200, 310, 205}, {21, 42, 15, 10, 298, 198, 15, 10}},
        // The first and the last pixel: margins end at the picture's edge.
        {1920, 1080, 1366, 768, {277, 156, 278, 157}, {0, 0, 4, 4, 277, 156, 4, 4}},
        {1920, 1080, 1366, 768, {1642, 923, 1643, 924}, {1363, 765, 3, 3, 1640, 921, 3, 3}},
        // Scale 0.5 at (0, 60): x 10/.5-2 = 18 to 21/.5+3 = 45, shown from 9 to 22.5+.999.
        {640, 480, 1280, 720, {10, 70, 21, 81}, {18, 18, 27, 27, 9, 69, 14, 14}},
        // Scale 0.75 at (520, 0): x 3/.75-2 = 2 to 12/.75+3 = 19, shown from 1 (1.5) to
        // 14.25+.999, which a rounded end would lose.
        {2000, 540, 1280, 720, {523, 3, 532, 12}, {2, 2, 17, 17, 521, 1, 14, 14}},
        // A bar's last rows: trunc(-1/.5) + 3 = 1 source row.
        {640, 480, 1280, 720, {0, 0, 640, 59}, {0, 0, 1280, 1, 0, 60, 640, 1}},
        // 721 rows at 0.5 in 1000: offset 320, and half a pixel at the end, which is shown.
        {640, 1000, 1280, 721, {0, 0, 640, 1000}, {0, 0, 1280, 721, 0, 320, 640, 361}},
        // Inside the bars, above and below.
        {640, 480, 1280, 720, {0, 0, 640, 50}, {}},
        {640, 480, 1280, 720, {0, 430, 640, 480}, {}},
        // Rectangles from nowhere.
        {640,
         480,
         1280,
         720,
         {INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX},
         {0, 0, 1280, 720, 0, 60, 640, 360}},
        {640, 480, 1280, 720, {INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN}, {}},
        {640, 480, 1280, 720, {INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX}, {}},
        {640, 480, 1280, 720, {INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN}, {}},
    };
    for (const auto &row : rows) {
        CAPTURE(row.redraw.left);
        CAPTURE(row.redraw.top);
        view_geometry view = view_fit(row.client_w, row.client_h, row.frame_w, row.frame_h);
        view_stretch s = view_paint_rect(view, row.redraw, row.frame_w, row.frame_h);
        CHECK(s.src_x == row.s.src_x);
        CHECK(s.src_y == row.s.src_y);
        CHECK(s.src_w == row.s.src_w);
        CHECK(s.src_h == row.s.src_h);
        CHECK(s.dst_x == row.s.dst_x);
        CHECK(s.dst_y == row.s.dst_y);
        CHECK(s.dst_w == row.s.dst_w);
        CHECK(s.dst_h == row.s.dst_h);
    }
}

TEST_CASE("what is painted covers the redrawn part and stays in frame and window")
{
    test_random random = test_random_seeded("view_paint_rect");
    for (int round = 0; round < 20000; round++) {
        // Sides of every magnitude.
        int32_t cw = 1 + (int32_t)random.below((uint64_t)1 << random.below(16));
        int32_t ch = 1 + (int32_t)random.below((uint64_t)1 << random.below(16));
        int32_t fw = 1 + (int32_t)random.below((uint64_t)1 << random.below(31));
        int32_t fh = 1 + (int32_t)random.below((uint64_t)1 << random.below(31));
        view_geometry view = view_fit(cw, ch, fw, fh);
        if (view.view_scale == 0)
            continue;
        frame_rect r;
        r.left = (int32_t)random.below((uint64_t)cw);
        r.top = (int32_t)random.below((uint64_t)ch);
        r.right = r.left + 1 + (int32_t)random.below((uint64_t)(cw - r.left));
        r.bottom = r.top + 1 + (int32_t)random.below((uint64_t)(ch - r.top));
        view_stretch s = view_paint_rect(view, r, fw, fh);
        CAPTURE(cw);
        CAPTURE(ch);
        CAPTURE(fw);
        CAPTURE(fh);
        REQUIRE(s.src_x >= 0);
        REQUIRE(s.src_y >= 0);
        REQUIRE((int64_t)s.src_x + s.src_w <= fw);
        REQUIRE((int64_t)s.src_y + s.src_h <= fh);

        // The part of the picture that the rectangle shows.
        int32_t left = r.left > view.view_x ? r.left : view.view_x;
        int32_t top = r.top > view.view_y ? r.top : view.view_y;
        int32_t right = view.view_x + view.view_width;
        int32_t bottom = view.view_y + view.view_height;
        right = r.right < right ? r.right : right;
        bottom = r.bottom < bottom ? r.bottom : bottom;
        if (left >= right || top >= bottom)
            continue;
        REQUIRE(s.dst_x <= left);
        REQUIRE(s.dst_y <= top);
        REQUIRE(s.dst_x + s.dst_w >= right);
        REQUIRE(s.dst_y + s.dst_h >= bottom);
        REQUIRE(s.dst_x >= view.view_x);
        REQUIRE(s.dst_y >= view.view_y);
        // At most the one pixel that the last source pixel shares.
        REQUIRE(s.dst_x + s.dst_w <= view.view_x + view.view_width + 1);
        REQUIRE(s.dst_y + s.dst_h <= view.view_y + view.view_height + 1);
    }
}

TEST_CASE("a bitmap whose bytes GDI cannot count is not painted")
{
    CHECK(view_bitmap_fits(1, 1));
    CHECK(view_bitmap_fits(1408, 768));
    // 67108800 pixels are 268435200 bytes and 2147481600 bits; 8 such rows are as many bytes.
    CHECK(view_bitmap_fits(67108800, 8));
    CHECK_FALSE(view_bitmap_fits(67108800, 9));
    CHECK_FALSE(view_bitmap_fits(67108864, 1)); // 2^31 bits
    CHECK_FALSE(view_bitmap_fits(FRAME_MAX, 1));
    CHECK(view_bitmap_fits(64, 8388607)); // 256 bytes a row, 2^31 - 256
    CHECK_FALSE(view_bitmap_fits(64, 8388608));
    CHECK_FALSE(view_bitmap_fits(64, FRAME_MAX));
    CHECK_FALSE(view_bitmap_fits(0, 1));
    CHECK_FALSE(view_bitmap_fits(64, 0));
}

TEST_CASE("a dirty rectangle is invalidated with a margin")
{
    static const struct {
        int32_t client_w, client_h;
        frame_rect dirty, invalid;
    } rows[] = {
        // A frame of 1280 x 720 at scale 1.0, offset (320, 180).
        {1920, 1080, {0, 0, 64, 64}, {319, 179, 386, 246}},
        {1920, 1080, {1216, 704, 1280, 720}, {1535, 883, 1602, 902}},
        // At 0.5, offset (0, 60): 10/2-1, 60+11/2-1 = 60+5-1, 21/2+2 = 10+2, 60+31/2+2.
        {640, 480, {10, 11, 21, 31}, {4, 64, 12, 77}},
        {640, 480, {0, 0, 1280, 720}, {-1, 59, 642, 422}},
        // Nothing was painted yet, or nothing can be shown.
        {0, 0, {10, 11, 21, 31}, {-1, -1, 2, 2}},
        {1920,
         1080,
         {INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX},
         // 320 - 2^31 - 1, and 2^31 - 1 + 320 + 2, which is clamped
         {-2147483329, -2147483469, INT32_MAX, INT32_MAX}},
    };
    for (const auto &row : rows) {
        view_geometry view = view_fit(row.client_w, row.client_h, 1280, 720);
        frame_rect r = view_invalid_rect(view, row.dirty);
        CHECK(r.left == row.invalid.left);
        CHECK(r.top == row.invalid.top);
        CHECK(r.right == row.invalid.right);
        CHECK(r.bottom == row.invalid.bottom);
    }
}

TEST_CASE("client points become host pixels and never leave the screen")
{
    static const struct {
        int32_t client_w, client_h, px, py, x, y;
    } rows[] = {
        // A frame of 1280 x 720 at 0.5 in 840 x 360: offset (100, 0), 640 x 360.
        {840, 360, 100, 0, 0, 0},
        {840, 360, 101, 1, 2, 2},
        {840, 360, 420, 180, 640, 360},
        {840, 360, 739, 359, 1278, 718},
        {840, 360, 740, 360, 1279, 719}, // the far edge: 640 * 2 = 1280
        {840, 360, 839, 359, 1279, 718}, // the bar on the right
        {840, 360, 50, 100, 0, 200},     // the bar on the left: -50 * 2
        {840, 360, -32768, -32768, 0, 0},
        {840, 360, 32767, 32767, 1279, 719},
        {840, 360, INT32_MIN, INT32_MAX, 0, 719},
        {840, 360, INT32_MAX, INT32_MIN, 1279, 0},
        // Scale 1.0 at (320, 180).
        {1920, 1080, 320, 180, 0, 0},
        {1920, 1080, 319, 179, 0, 0},
        {1920, 1080, 1599, 899, 1279, 719},
        {1920, 1080, 1600, 900, 1279, 719},
    };
    for (const auto &row : rows) {
        CAPTURE(row.px);
        CAPTURE(row.py);
        view_geometry view = view_fit(row.client_w, row.client_h, 1280, 720);
        int32_t x = -1, y = -1;
        CHECK(view_to_host(view, row.px, row.py, 1280, 720, &x, &y));
        CHECK(x == row.x);
        CHECK(y == row.y);
    }

    view_geometry vast = {0.5, INT32_MAX, INT32_MAX, 0x3FFFFFFF, 0x3FFFFFFF};
    int32_t x = -1, y = -1;
    CHECK(view_to_host(vast, INT32_MIN, INT32_MAX, FRAME_MAX, FRAME_MAX, &x, &y));
    CHECK(x == 0);
    CHECK(y == 1073741792); // (2^30) * 0x7FFFFFC0 / 0x7FFFFFFF = 2^30 - 32.0000..
}

TEST_CASE("the text grid follows the picture's scale")
{
    static const struct {
        int32_t client_w, client_h;
        int32_t x, y, w, h, cols, rows;
        text_grid grid;
    } rows[] = {
        // A frame of 1280 x 720: scale 1.0 at (320, 180), then 0.5 at (0, 60).
        {1920, 1080, 100, 50, 640, 384, 80, 24, {420, 230, 8, 16}},
        {640, 480, 100, 50, 640, 384, 80, 24, {50, 85, 4, 8}},
        {640, 480, 101, 51, 1000, 500, 120, 30, {50, 85, 4, 8}},  // 4.17, 8.33
        {640, 480, -101, -51, 640, 384, 80, 24, {-50, 35, 4, 8}}, // toward zero
        // Cells are never smaller than a pixel.
        {640, 480, 0, 0, 79, 23, 80, 24, {0, 60, 1, 1}},
        {640, 480, 0, 0, 0, -500, 80, 24, {0, 60, 1, 1}},
        {1920, 1080, 0, 0, INT32_MIN, INT32_MAX, 1, 1, {320, 180, 1, INT32_MAX}},
        {1920,
         1080,
         INT32_MIN,
         INT32_MAX,
         INT32_MAX,
         INT32_MIN,
         65535,
         65535,
         // 320 - 2^31; 180 + 2^31 - 1; 2147483647 / 65535 = 32768.5
         {-2147483328, 2147483827, 32768, 1}},
        {1920, 1080, 0, 0, 640, 384, 0, 0, {320, 180, 1, 1}},
    };
    for (const auto &row : rows) {
        CAPTURE(row.x);
        CAPTURE(row.w);
        view_geometry view = view_fit(row.client_w, row.client_h, 1280, 720);
        text_grid grid = view_text_grid(view, row.x, row.y, row.w, row.h, row.cols, row.rows);
        CHECK(grid.x == row.grid.x);
        CHECK(grid.y == row.grid.y);
        CHECK(grid.cell_w == row.grid.cell_w);
        CHECK(grid.cell_h == row.grid.cell_h);
    }
}

TEST_CASE("text is cut to the layer's own rectangle, one pixel of rounding apart")
{
    const frame_rect all = {0, 60, 640, 420}; // a frame of 1280 x 720 in 640 x 480: at 0.5
    static const struct {
        int32_t x, y, w, h;
        int32_t right, bottom;
    } rows[] = {
        {100, 50, 640, 384, 371, 278},    // 0 + 740 / 2 + 1, 60 + 434 / 2 + 1
        {-101, -51, 640, 384, 270, 227},  // 539 / 2 = 269, 60 + 333 / 2 = 226
        {-101, -51, 50, 40, -24, 56},     // -51 / 2 = -25, 60 - 11 / 2 = 55
        {100, 50, 5000, 5000, 640, 420},  // beyond what is visible
        {100, 50, INT32_MAX, 1, 640, 86}, // 60 + 51 / 2 = 85
        {INT32_MAX, 0, INT32_MAX, 1, 640, 61},
        {INT32_MIN, 0, 1, 1, -1073741822, 61}, // (-2^31 + 1) / 2 = -1073741823
    };
    view_geometry view = view_fit(640, 480, 1280, 720);
    for (const auto &row : rows) {
        CAPTURE(row.x);
        CAPTURE(row.w);
        frame_rect cut = view_text_clip(view, row.x, row.y, row.w, row.h, all);
        CHECK(cut.left == all.left);
        CHECK(cut.top == all.top);
        CHECK(cut.right == row.right);
        CHECK(cut.bottom == row.bottom);
    }
    for (int32_t none : {0, -1, INT32_MIN}) {
        frame_rect cut = view_text_clip(view, 5, 5, none, 9, all);
        CHECK(cut.left == cut.right);
        cut = view_text_clip(view, 5, 5, 9, none, all);
        CHECK(cut.top == cut.bottom);
    }
    CHECK(view_text_clip({}, 5, 5, INT32_MAX, INT32_MAX, all).right == 1);
}

TEST_CASE("a span holds exactly the cells that touch the pixels")
{
    test_random random = test_random_seeded("view_text_span");
    for (int round = 0; round < 20000; round++) {
        int64_t origin = (int64_t)random.below(400) - 200;
        int32_t cell = 1 + (int32_t)random.below(20);
        int32_t count = (int32_t)random.below(30);
        int32_t low = (int32_t)random.below(200) - 100;
        int32_t high = low + (int32_t)random.below(100) - 10;
        text_span span = view_text_span(origin, cell, count, low, high);
        CAPTURE(origin);
        CAPTURE(cell);
        CAPTURE(count);
        CAPTURE(low);
        CAPTURE(high);
        REQUIRE(span.first >= 0);
        REQUIRE(span.first <= span.end);
        REQUIRE(span.end <= count);
        for (int32_t i = 0; i < count; i++) {
            bool touches = false;
            for (int64_t p = origin + i * cell; p < origin + (i + 1) * cell; p++)
                touches = touches || (p >= low && p < high);
            REQUIRE(touches == (i >= span.first && i < span.end));
        }
    }
    // A layer from nowhere: cell 1 begins at 2147483647 - 3000000000 = -852516353, so pixel
    // 0 lies in it and cell 2 begins at 1294967294.
    text_span far = view_text_span(-3000000000, INT32_MAX, 65535, 0, 1080);
    CHECK(far.first == 1);
    CHECK(far.end == 2);
    text_span beyond = view_text_span(5000000000, INT32_MAX, 65535, 0, 1080);
    CHECK(beyond.first == beyond.end);
    text_span before = view_text_span(-9000000000, 1, 65535, 0, 1080);
    CHECK(before.first == before.end);
}

TEST_CASE("a run of text is placed by its cells and clipped to what is redrawn")
{
    text_grid grid = {420, 230, 8, 16};
    frame_rect all = {320, 180, 1600, 900};
    text_place place;
    // Columns 10 to 29 of row 2: x 420+80 .. 420+240, y 230+32 .. 230+48.
    REQUIRE(view_text_place(grid, 10, 2, 20, all, &place));
    CHECK(place.x == 500);
    CHECK(place.y == 262);
    CHECK(place.clip.left == 500);
    CHECK(place.clip.top == 262);
    CHECK(place.clip.right == 660);
    CHECK(place.clip.bottom == 278);

    // Partly redrawn: the characters stay where they are, the rest is cut.
    REQUIRE(view_text_place(grid, 10, 2, 20, {550, 270, 600, 400}, &place));
    CHECK(place.x == 500);
    CHECK(place.y == 262);
    CHECK(place.clip.left == 550);
    CHECK(place.clip.top == 270);
    CHECK(place.clip.right == 600);
    CHECK(place.clip.bottom == 278);

    // Beside, above, below, left and right by one pixel.
    CHECK_FALSE(view_text_place(grid, 10, 2, 20, {320, 180, 500, 900}, &place));
    CHECK_FALSE(view_text_place(grid, 10, 2, 20, {660, 180, 1600, 900}, &place));
    CHECK_FALSE(view_text_place(grid, 10, 2, 20, {320, 180, 1600, 262}, &place));
    CHECK_FALSE(view_text_place(grid, 10, 2, 20, {320, 278, 1600, 900}, &place));
    CHECK_FALSE(view_text_place(grid, 10, 2, 20, {}, &place));

    // From nowhere: -3000000000 to 2 * 2147483647 - 3000000000, which covers the window.
    text_grid vast = {-3000000000, -3000000000, INT32_MAX, INT32_MAX};
    REQUIRE(view_text_place(vast, 0, 1, 2, all, &place));
    CHECK(place.x == -0x7FFFFFF);
    CHECK(place.y == -0x7FFFFFF);
    CHECK(place.clip.left == 320);
    CHECK(place.clip.right == 1600);
    CHECK_FALSE(view_text_place(vast, 65534, 65534, 512, all, &place));
}

static void fill_cells(uint8_t *cells, int32_t count, uint16_t character, uint8_t attribute)
{
    for (int32_t i = 0; i < count; i++) {
        store_le16(cells + i * 3, character);
        cells[i * 3 + 2] = attribute;
    }
}

TEST_CASE("like cells of a row are one run, at most 512 long")
{
    static uint8_t cells[600 * 3];
    uint16_t characters[TEXT_RUN_MAX];
    uint8_t attribute = 0;

    fill_cells(cells, 600, 'x', 0x17);
    CHECK(text_run(cells, 120, 0, characters, &attribute) == 120);
    CHECK(attribute == 0x17);
    CHECK(characters[0] == 'x');
    CHECK(characters[119] == 'x');
    CHECK(text_run(cells, 120, 120, characters, &attribute) == 0);

    CHECK(text_run(cells, 600, 0, characters, &attribute) == 512);
    CHECK(text_run(cells, 600, 512, characters, &attribute) == 88);
    CHECK(text_run(cells, 600, 600, characters, &attribute) == 0);
}

TEST_CASE("a run ends where the attribute changes; character 0 is a space")
{
    uint8_t cells[6 * 3];
    uint16_t characters[TEXT_RUN_MAX];
    uint8_t attribute = 0;
    fill_cells(cells, 2, 0x2500, 0x07);
    fill_cells(cells + 2 * 3, 3, 0, 0x70);
    fill_cells(cells + 5 * 3, 1, 'z', 0x07);

    CHECK(text_run(cells, 6, 0, characters, &attribute) == 2);
    CHECK(attribute == 0x07);
    CHECK(characters[1] == 0x2500);
    CHECK(text_run(cells, 6, 2, characters, &attribute) == 3);
    CHECK(attribute == 0x70);
    CHECK(characters[0] == ' ');
    CHECK(characters[2] == ' ');
    CHECK(text_run(cells, 6, 5, characters, &attribute) == 1);
    CHECK(attribute == 0x07);
    CHECK(characters[0] == 'z');
}

TEST_CASE("the console palette")
{
    static const uint8_t rgb[16][3] = {
        {12, 12, 12},    {0, 55, 218},   {19, 161, 14},   {58, 150, 221},
        {197, 15, 31},   {136, 23, 152}, {193, 156, 0},   {204, 204, 204},
        {118, 118, 118}, {59, 120, 255}, {22, 198, 12},   {97, 214, 214},
        {231, 72, 86},   {180, 0, 158},  {249, 241, 165}, {242, 242, 242},
    };
    for (uint8_t i = 0; i < 16; i++) {
        CAPTURE(i);
        uint32_t c = console_colour(i);
        CHECK((c & 255) == rgb[i][0]);
        CHECK((c >> 8 & 255) == rgb[i][1]);
        CHECK((c >> 16) == rgb[i][2]);
    }
}

TEST_CASE("the title counts from one update to the next")
{
    char title[TITLE_SIZE];
    title_counters previous = {};
    view_title(title, "OFFICE", 1366, 768, 30, 2097152, 12, 3, false, &previous);
    CHECK(strcmp(title, "qv - OFFICE  1366x768  30 fps  2048 KB/s  cache hits 12  misses 3") ==
          0);
    view_title(title, "OFFICE", 1366, 768, 35, 2097152 + 1023, 13, 3, true, &previous);
    CHECK(strcmp(title, "qv - OFFICE  1366x768  5 fps  0 KB/s  cache hits 13  misses 3"
                        "  [text layer]") == 0);
    CHECK(previous.frames == 35);
    CHECK(previous.bytes == 2098175);
}

TEST_CASE("the title survives wrapped counters and the longest texts")
{
    char title[TITLE_SIZE];
    // 0xFFFFFFF0 to 0x10 are 32 frames; 0xFFFFF000 to 0x1000 are 8192 bytes.
    title_counters previous = {0xFFFFFFF0u, 0xFFFFF000u};
    view_title(title, "H", 1, 1, 0x10, 0x1000, 0, 0, false, &previous);
    CHECK(strcmp(title, "qv - H  1x1  32 fps  8 KB/s  cache hits 0  misses 0") == 0);

    previous = {};
    view_title(title, "ABCDEFGHIJKLMNOPQRSTUVWXYZ%s%d%n", FRAME_MAX, FRAME_MAX, UINT32_MAX,
               UINT32_MAX, UINT32_MAX, UINT32_MAX, true, &previous);
    CHECK(strcmp(title, "qv - ABCDEFGHIJKLMNOPQRSTUVWXYZ%s%d%n  2147483584x2147483584"
                        "  4294967295 fps  4194303 KB/s  cache hits 4294967295"
                        "  misses 4294967295  [text layer]") == 0);
}
