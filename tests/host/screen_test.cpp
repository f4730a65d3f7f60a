// Fakes: allocation_limit
// Labels: threaded
#include "host/screen.h"
#include "protocol/thread.h"
#include "tests/test.h"

#include <limits.h>
#include <string.h>

#include <vector>

using namespace host;

// No screen and no session, whatever ran before.
static void start_fresh()
{
    lock_init(&host_lock);
    screen.hello_width = screen.hello_height = 0;
    screen.first_frame_flushed = false;
    CHECK_FALSE(screen_resize(0, 0));
}

static tile_base base_of(int32_t tile)
{
    lock_enter(&host_lock);
    tile_base base = screen.bases[tile];
    lock_leave(&host_lock);
    return base;
}

// base is {ref_seq, base_state, base_blank, must_send, 0}.
static void set_base(int32_t tile, const tile_base &base)
{
    lock_enter(&host_lock);
    screen.bases[tile] = base;
    lock_leave(&host_lock);
}

static void reset_frame()
{
    lock_enter(&host_lock);
    frame_reset();
    lock_leave(&host_lock);
}

static void fill_prev_frame(uint8_t value)
{
    lock_enter(&host_lock);
    memset(screen.prev_frame, value,
           (size_t)screen.padded_width * (size_t)screen.padded_height * PIXEL_BYTES);
    lock_leave(&host_lock);
}

// How many of prev_frame's bytes differ from value.
static int64_t prev_frame_unlike(uint8_t value)
{
    int64_t bytes = (int64_t)screen.padded_width * screen.padded_height * PIXEL_BYTES;
    int64_t unlike = 0;
    lock_enter(&host_lock);
    for (int64_t i = 0; i < bytes; i++)
        unlike += screen.prev_frame[i] != value;
    lock_leave(&host_lock);
    return unlike;
}

static void clear_dirty()
{
    for (int32_t i = 0; i < screen.tiles_x * screen.tiles_y; i++)
        screen.dirty_map[i] = 0;
}

static int32_t dirty_count()
{
    int32_t count = 0;
    for (int32_t i = 0; i < screen.tiles_x * screen.tiles_y; i++)
        count += screen.dirty_map[i];
    return count;
}

static void check_nothing_there() NO_THREAD_SAFETY_ANALYSIS
{
    CHECK(screen.screen_width == 0);
    CHECK(screen.screen_height == 0);
    CHECK(screen.padded_width == 0);
    CHECK(screen.padded_height == 0);
    CHECK(screen.tiles_x == 0);
    CHECK(screen.tiles_y == 0);
    CHECK(screen.frame_buffer == nullptr);
    CHECK(screen.dirty_map == nullptr);
    CHECK(screen.outside_map == nullptr);
    CHECK(screen.prev_frame == nullptr);
    CHECK(screen.bases == nullptr);
}

TEST_CASE("a screen of 1366x768 is padded to whole tiles")
{
    start_fresh();
    screen.full_capture_pending = false;
    screen.move_count = 7;
    REQUIRE(screen_resize(1366, 768));
    CHECK(screen.screen_width == 1366);
    CHECK(screen.screen_height == 768);
    CHECK(screen.padded_width == 1408);
    CHECK(screen.padded_height == 768);
    CHECK(screen.tiles_x == 22);
    CHECK(screen.tiles_y == 12);
    CHECK(screen.full_capture_pending);
    CHECK(screen.move_count == 0);
    CHECK(dirty_count() == 0);
    CHECK(prev_frame_unlike(0) == 0);
    int64_t nonzero = 0;
    for (int64_t i = 0; i < (int64_t)1408 * 768 * 4; i++)
        nonzero += screen.frame_buffer[i] != 0;
    CHECK(nonzero == 0);
}

TEST_CASE("a size that cannot be had leaves no screen, and the next one works")
{
    struct {
        int32_t width, height;
    } rows[] = {
        {0, 768},
        {1366, 0},
        {-1, 768},
        {1366, -64},
        {INT_MAX, 768},
        {1366, INT_MAX},
        {SCREEN_SIDE_MAX + 1, 1},
        {1, SCREEN_SIDE_MAX + 1},
        {SCREEN_SIDE_MAX, SCREEN_SIDE_MAX}, // 16 TiB a buffer
    };
    for (auto &row : rows) {
        CAPTURE(row.width);
        CAPTURE(row.height);
        start_fresh();
        REQUIRE(screen_resize(100, 100));
        CHECK_FALSE(screen_resize(row.width, row.height));
        check_nothing_there();
        CHECK(screen.full_capture_pending);

        // Nothing of this may touch a buffer.
        const uint8_t pixel[4] = {1, 2, 3, 4};
        capture_copy_rect(pixel, 4, 0, 0, 1, 1);
        reset_frame();
        screen_session_start();
        check_nothing_there();

        REQUIRE(screen_resize(100, 100));
        CHECK(screen.tiles_x == 2);
        CHECK(screen.frame_buffer != nullptr);
    }
}

TEST_CASE("a rectangle is clipped, copied row by row and marked")
{
    // Screen 150 x 70: 3 x 2 tiles, the last of them 22 pixels wide and 6 high.
    constexpr int32_t W = 150, H = 70;
    constexpr int64_t PITCH = 160 * 4;
    std::vector<uint8_t> source((size_t)PITCH * H);
    for (size_t i = 0; i < source.size(); i++)
        source[i] = (uint8_t)(i * 7 % 255 + 1); // never 0
    struct {
        const char *what;
        int32_t left, top, right, bottom; // asked for
        int32_t l, t, r, b;               // expected: pixels
        uint32_t dirty;                   // expected: bit ty * 3 + tx
    } rows[] = {
        {"one pixel", 5, 6, 6, 7, 5, 6, 6, 7, 0b000001},
        {"one whole tile", 64, 0, 128, 64, 64, 0, 128, 64, 0b000010},
        {"one pixel more each way", 63, 0, 129, 65, 63, 0, 129, 65, 0b111111},
        {"last pixel of the screen", 149, 69, 150, 70, 149, 69, 150, 70, 0b100000},
        {"all", 0, 0, 150, 70, 0, 0, 150, 70, 0b111111},
        {"past the right edge", 140, 10, 400, 20, 140, 10, 150, 20, 0b000100},
        {"past the bottom", 10, 60, 20, 900, 10, 60, 20, 70, 0b001001},
        {"before the left edge", -30, 0, 3, 2, 0, 0, 3, 2, 0b000001},
        {"above the top", 130, -9, 131, 1, 130, 0, 131, 1, 0b000100},
        {"far beyond on all sides", INT_MIN, INT_MIN, INT_MAX, INT_MAX, 0, 0, 150, 70,
         0b111111},
        {"right equals left", 20, 10, 20, 30, 0, 0, 0, 0, 0},
        {"right before left", 20, 10, 12, 30, 0, 0, 0, 0, 0},
        {"bottom equals top", 20, 10, 30, 10, 0, 0, 0, 0, 0},
        {"bottom above top", 20, 10, 30, 1, 0, 0, 0, 0, 0},
        {"inside out", INT_MAX, INT_MAX, INT_MIN, INT_MIN, 0, 0, 0, 0, 0},
        {"right of the screen", 150, 0, 170, 70, 0, 0, 0, 0, 0},
        {"in the padding only", 152, 0, 160, 70, 0, 0, 0, 0, 0},
        {"below the screen", 0, 70, 150, 80, 0, 0, 0, 0, 0},
        {"left of the screen", -20, 0, 0, 70, 0, 0, 0, 0, 0},
        {"above the screen", 0, -20, 150, 0, 0, 0, 0, 0, 0},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        start_fresh();
        REQUIRE(screen_resize(W, H));
        capture_copy_rect(source.data(), PITCH, row.left, row.top, row.right, row.bottom);

        int64_t wrong = 0;
        for (int32_t y = 0; y < screen.padded_height; y++) {
            for (int32_t x = 0; x < screen.padded_width; x++) {
                bool inside = x >= row.l && x < row.r && y >= row.t && y < row.b;
                for (int32_t c = 0; c < 4; c++) {
                    uint8_t expected = inside ? source[(size_t)(y * PITCH + x * 4 + c)] : 0;
                    wrong +=
                        screen.frame_buffer[(y * screen.padded_width + x) * 4 + c] != expected;
                }
            }
        }
        CHECK(wrong == 0);
        uint32_t dirty = 0;
        for (uint32_t i = 0; i < 6; i++)
            dirty |= (uint32_t)screen.dirty_map[i] << i;
        CHECK(dirty == row.dirty);
    }
}

TEST_CASE("the padding stays zero whatever is captured")
{
    start_fresh();
    REQUIRE(screen_resize(70, 65));
    std::vector<uint8_t> white((size_t)128 * 4 * 128, 0xFF);
    capture_copy_rect(white.data(), 128 * 4, 0, 0, 70, 65);
    capture_copy_rect(white.data(), 128 * 4, 0, 0, 128, 128);
    int64_t wrong = 0;
    for (int32_t y = 0; y < 128; y++) {
        for (int32_t x = 0; x < 128 * 4; x++) {
            uint8_t expected = x < 70 * 4 && y < 65 ? 0xFF : 0;
            wrong += screen.frame_buffer[y * 128 * 4 + x] != expected;
        }
    }
    CHECK(wrong == 0);
}

TEST_CASE("a session starts with every tile dirty, known and blank")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    fill_prev_frame(0x55);
    for (int32_t i = 0; i < 6; i++)
        set_base(i, {9, BASE_LOST, 0, 1, 0});
    screen.move_count = 3;
    screen.first_frame_flushed = true;

    screen_session_start();
    CHECK(screen.hello_width == 150);
    CHECK(screen.hello_height == 70);
    CHECK(screen.outside_map == nullptr);
    CHECK_FALSE(screen.first_frame_flushed);
    CHECK(screen.move_count == 0);
    CHECK(dirty_count() == 6);
    CHECK(prev_frame_unlike(0) == 0);
    for (int32_t i = 0; i < 6; i++) {
        CHECK(base_of(i).base_state == BASE_KNOWN);
        CHECK(base_of(i).base_blank == 1);
        CHECK(base_of(i).must_send == 0);
    }
}

TEST_CASE("a reset before the first frame was flushed begins anew")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    screen_session_start();
    fill_prev_frame(0x55);
    clear_dirty();
    screen.move_count = 1;
    set_base(2, {4, BASE_PENDING, 1, 0, 0});
    set_base(3, {4, BASE_LOST, 0, 1, 0});

    reset_frame();
    CHECK(dirty_count() == 6);
    CHECK(screen.move_count == 0);
    CHECK(prev_frame_unlike(0) == 0);
    for (int32_t i = 0; i < 6; i++) {
        CHECK(base_of(i).base_state == BASE_KNOWN);
        CHECK(base_of(i).base_blank == 1);
        CHECK(base_of(i).must_send == 0);
    }
}

TEST_CASE("a later reset keeps what the viewer shows and has everything sent")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    screen_session_start();
    screen.first_frame_flushed = true;
    fill_prev_frame(0x55);
    clear_dirty();
    screen.move_count = 2;
    set_base(0, {0, BASE_KNOWN, 0, 0, 0});
    set_base(1, {0, BASE_KNOWN, 1, 0, 0});
    set_base(2, {4, BASE_PENDING, 1, 0, 0});
    set_base(3, {4, BASE_LOST, 0, 0, 0});

    reset_frame();
    CHECK(dirty_count() == 6);
    CHECK(screen.move_count == 0);
    CHECK(prev_frame_unlike(0x55) == 0);
    for (int32_t i = 0; i < 6; i++)
        CHECK(base_of(i).must_send == 1);
    CHECK(base_of(0).base_state == BASE_KNOWN);
    CHECK(base_of(0).base_blank == 0);
    CHECK(base_of(1).base_state == BASE_KNOWN);
    CHECK(base_of(1).base_blank == 1);
    CHECK(base_of(2).base_state == BASE_PENDING);
    CHECK(base_of(2).ref_seq == 4);
    CHECK(base_of(3).base_state == BASE_LOST);
}

TEST_CASE("a new size in a session loses every base and has everything sent")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    screen_session_start();
    screen.first_frame_flushed = true;
    fill_prev_frame(0x55);
    clear_dirty();
    screen.move_count = 2;
    screen.full_capture_pending = false;

    REQUIRE(screen_resize(200, 130)); // 4 x 3 tiles
    CHECK(screen.hello_width == 150);
    CHECK(screen.hello_height == 70);
    CHECK(screen.full_capture_pending);
    CHECK(screen.move_count == 0);
    CHECK(dirty_count() == 12);
    CHECK(prev_frame_unlike(0) == 0);
    for (int32_t i = 0; i < 12; i++) {
        CHECK(base_of(i).base_state == BASE_LOST);
        CHECK(base_of(i).base_blank == 0);
        CHECK(base_of(i).must_send == 1);
    }
    CHECK(screen.outside_map == nullptr);

    // The reset that follows a re-created capture changes nothing of this.
    reset_frame();
    CHECK(dirty_count() == 12);
    CHECK(base_of(11).base_state == BASE_LOST);
    CHECK(base_of(11).must_send == 1);
}

TEST_CASE("a new size before the session's first frame still begins with a blank viewer")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    screen_session_start();
    REQUIRE(screen_resize(200, 130));
    reset_frame();
    CHECK(base_of(0).base_state == BASE_KNOWN);
    CHECK(base_of(0).base_blank == 1);
    CHECK(base_of(0).must_send == 0);
    CHECK(dirty_count() == 12);
}

TEST_CASE("a new size outside a session loses nothing")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    REQUIRE(screen_resize(200, 130));
    CHECK(dirty_count() == 0);
    for (int32_t i = 0; i < 12; i++) {
        CHECK(base_of(i).base_state == BASE_KNOWN);
        CHECK(base_of(i).must_send == 0);
    }
    CHECK(screen.outside_map == nullptr);
}

// outside_map as text, rows separated by blanks.
static std::vector<char> outside_text()
{
    std::vector<char> text;
    int32_t hello_x = tiles_for(screen.hello_width), hello_y = tiles_for(screen.hello_height);
    for (int32_t ty = 0; ty < hello_y; ty++) {
        for (int32_t tx = 0; tx < hello_x; tx++)
            text.push_back((char)('0' + screen.outside_map[ty * hello_x + tx]));
        text.push_back(ty + 1 < hello_y ? ' ' : 0);
    }
    return text;
}

TEST_CASE("tiles of the hello outside a new screen are put down once a change")
{
    struct {
        int32_t width, height;
        const char *outside; // null: no map
    } rows[] = {
        {100, 200, "0011 0011 0011"}, // 2 x 4 tiles: narrower, higher
        {256, 64, "0000 1111 1111"},  // 4 x 1: lower
        {70, 60, "0011 1111 1111"},   // 2 x 1: both
        {193, 129, nullptr},          // 4 x 3, though some pixels smaller
        {800, 600, nullptr},          // larger
        {64, 64, "0111 1111 1111"},   // 1 x 1
    };
    for (auto &row : rows) {
        CAPTURE(row.width);
        CAPTURE(row.height);
        start_fresh();
        REQUIRE(screen_resize(200, 130)); // 4 x 3 tiles
        screen_session_start();
        screen.first_frame_flushed = true;
        REQUIRE(screen_resize(row.width, row.height));
        if (!row.outside) {
            CHECK(screen.outside_map == nullptr);
            continue;
        }
        REQUIRE(screen.outside_map != nullptr);
        CHECK(strcmp(outside_text().data(), row.outside) == 0);

        // Sent, and the next change puts them down again.
        memset(screen.outside_map, 0, 12);
        REQUIRE(screen_resize(row.width, row.height));
        REQUIRE(screen.outside_map != nullptr);
        CHECK(strcmp(outside_text().data(), row.outside) == 0);

        // The next session is told the present size: nothing lies outside.
        screen_session_start();
        CHECK(screen.outside_map == nullptr);
        CHECK(screen.hello_width == row.width);
    }
}

TEST_CASE("a session survives a screen that could not be had")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    screen_session_start();
    screen.first_frame_flushed = true;
    CHECK_FALSE(screen_resize(-1, 70));
    check_nothing_there();
    CHECK(screen.hello_width == 150);
    reset_frame();

    REQUIRE(screen_resize(60, 70));
    CHECK(dirty_count() == 2);
    CHECK(base_of(0).base_state == BASE_LOST);
    CHECK(base_of(1).must_send == 1);
    REQUIRE(screen.outside_map != nullptr);
    CHECK(strcmp(outside_text().data(), "011 011") == 0);
}

static std::atomic<bool> misses_stop;
static std::atomic<uint32_t> misses_done;

// What the control thread does for a miss, again and again.
static void report_misses(void *)
{
    test_random random = {12345};
    while (!misses_stop) {
        lock_enter(&host_lock);
        int32_t tx = (int32_t)random.below(6), ty = (int32_t)random.below(6);
        if (tx < screen.tiles_x && ty < screen.tiles_y) {
            uint8_t *tile = screen.prev_frame + tile_offset(screen.padded_width, tx, ty);
            int64_t pitch = (int64_t)screen.padded_width * PIXEL_BYTES;
            for (int32_t y = 0; y < TILE_SIZE; y++)
                memset(tile + y * pitch, 0, TILE_ROW_BYTES);
            int32_t index = ty * screen.tiles_x + tx;
            tile_base_missed(&screen.bases[index], 0);
            screen.dirty_map[index].store(1, std::memory_order_relaxed);
        }
        lock_leave(&host_lock);
        misses_done++;
    }
}

TEST_CASE("misses may come while the screen is resized, reset and captured")
{
    start_fresh();
    REQUIRE(screen_resize(150, 70));
    screen_session_start();
    screen.first_frame_flushed = true;
    misses_stop = false;
    misses_done = 0;
    thread *control = thread_start(report_misses, nullptr);
    REQUIRE(control != nullptr);

    std::vector<uint8_t> source((size_t)400 * 4 * 400, 0x77);
    uint32_t round = 0;
    for (; round < 400 || misses_done < 400; round++) {
        if (round % 5 == 0)
            CHECK_FALSE(screen_resize(-1, 0));
        REQUIRE(
            screen_resize(40 + (int32_t)(round * 37 % 350), 40 + (int32_t)(round * 91 % 350)));
        for (int32_t i = 0; i < 4; i++)
            capture_copy_rect(source.data(), 400 * 4, 0, 0, 400, 400);
        reset_frame();
    }
    misses_stop = true;
    CHECK(thread_join(control, 10000));
    CHECK(misses_done >= 400);
    CHECK(dirty_count() == screen.tiles_x * screen.tiles_y);
}
