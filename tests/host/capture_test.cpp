// Fakes: capture_edges clock_script server_log_record
#include "host/capture.h"
#include "host/capture_pace.h"
#include "host/screen.h"
#include "tests/fakes/capture_edges.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"

#include <limits.h>
#include <string.h>

using namespace host;

using lines = std::vector<std::string>;

// No screen and no session; a desktop of this size; nothing captured.
static void start_fresh(int32_t width, int32_t height)
{
    lock_init(&host_lock);
    screen.hello_width = screen.hello_height = 0;
    screen.first_frame_flushed = false;
    (void)screen_resize(0, 0);
    capture_edges_reset(width, height);
    server_log_clear();
    clock_script_now += 60000; // the last test's copy was long ago
}

static void clear_dirty()
{
    for (int32_t i = 0; i < screen.tiles_x * screen.tiles_y; i++)
        screen.dirty_map[i] = 0;
}

// Bit n: tile n is dirty.
static uint64_t dirty_bits()
{
    uint64_t bits = 0;
    for (int32_t i = 0; i < screen.tiles_x * screen.tiles_y; i++)
        bits |= (uint64_t)screen.dirty_map[i] << i;
    return bits;
}

// The screen is captured in duplication mode, its first picture is taken, nothing is dirty.
static void start_captured(int32_t width, int32_t height)
{
    start_fresh(width, height);
    REQUIRE(capture_start() == 1);
    capture_edges.frames.push_back({});
    REQUIRE(capture_step() == CAPTURE_FRAME);
    REQUIRE_FALSE(screen.full_capture_pending);
    clear_dirty();
    server_log_clear();
    (void)capture_edges_calls();
}

static uint32_t frame_pixel(int32_t x, int32_t y)
{
    uint32_t pixel;
    memcpy(&pixel, screen.frame_buffer + ((int64_t)y * screen.padded_width + x) * 4, 4);
    return pixel;
}

static uint32_t desktop_pixel(int32_t x, int32_t y)
{
    return capture_edges.pixels[(size_t)(y * capture_edges.width + x)];
}

// Pixels of the frame buffer that are not as the desktop has them inside one of the boxes
// and as before gives them outside, and padding that is not zero.
static int64_t wrong_pixels(const std::vector<capture_box> &boxes,
                            const std::vector<uint32_t> &before)
{
    int64_t wrong = 0;
    for (int32_t y = 0; y < screen.padded_height; y++) {
        for (int32_t x = 0; x < screen.padded_width; x++) {
            uint32_t expected = before[(size_t)(y * screen.padded_width + x)];
            for (const capture_box &box : boxes) {
                if (x >= box.left && x < box.right && y >= box.top && y < box.bottom)
                    expected = desktop_pixel(x, y);
            }
            wrong += frame_pixel(x, y) != expected;
        }
    }
    return wrong;
}

static std::vector<uint32_t> frame_copy()
{
    std::vector<uint32_t> copy((size_t)screen.padded_width * (size_t)screen.padded_height);
    memcpy(copy.data(), screen.frame_buffer, copy.size() * 4);
    return copy;
}

static std::vector<uint32_t> blank_frame()
{
    return std::vector<uint32_t>((size_t)screen.padded_width * (size_t)screen.padded_height);
}

TEST_CASE("the start takes duplication where it can be had")
{
    start_fresh(150, 70);
    CHECK(capture_start() == 1);
    CHECK(capture_is_duplication());
    CHECK(screen.screen_width == 150);
    CHECK(screen.screen_height == 70);
    CHECK(screen.full_capture_pending);
    CHECK(capture_edges_calls() == "size close open staging");
    CHECK(server_log_lines() == lines{"DXGI duplication 150x70"});
}

TEST_CASE("the start takes GDI where a step of duplication fails")
{
    for (int32_t failing = 0; failing < 2; failing++) {
        CAPTURE(failing);
        start_fresh(150, 70);
        capture_edges.open_fails = failing == 0;
        capture_edges.staging_fails = failing == 1;
        CHECK(capture_start() == 0);
        CHECK_FALSE(capture_is_duplication());
        CHECK(screen.screen_width == 150);
        CHECK(capture_edges_calls() ==
              (failing == 0 ? "size close open size gdi_open 192x128"
                            : "size close open staging close size gdi_open 192x128"));
        CHECK(server_log_lines() == lines{"GDI capture 150x70"});
    }
}

TEST_CASE("a wait without a frame changes nothing")
{
    start_captured(150, 70);
    std::vector<uint32_t> before = frame_copy();
    capture_edges_desktop(150, 70);
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(dirty_bits() == 0);
    CHECK(wrong_pixels({}, before) == 0);
    CHECK(capture_edges_calls() == "acquire");
    CHECK(server_log_lines().empty());
}

TEST_CASE("the first frame is copied whole, even when only the pointer changed")
{
    for (bool presented : {true, false}) {
        CAPTURE(presented);
        start_fresh(150, 70);
        REQUIRE(capture_start() == 1);
        (void)capture_edges_calls();
        scripted_frame frame;
        frame.frame.presented = presented;
        frame.dirty = {{0, 0, 8, 8}};
        capture_edges.frames.push_back(frame);
        screen.move_count = 3;
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(capture_edges_calls() == "acquire picture whole release map unmap");
        CHECK(dirty_bits() == 0b111111);
        CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);
        CHECK(screen.move_count == 0);
        CHECK_FALSE(screen.full_capture_pending);
    }
}

TEST_CASE("later a new pointer alone is no frame")
{
    start_captured(150, 70);
    scripted_frame frame;
    frame.frame.presented = false;
    capture_edges.frames.push_back(frame);
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(capture_edges_calls() == "acquire release");
    CHECK(dirty_bits() == 0);
}

TEST_CASE("moved and dirty rectangles are copied and nothing else")
{
    start_captured(150, 70);
    std::vector<uint32_t> before = frame_copy();
    capture_edges_desktop(150, 70);
    scripted_frame frame;
    frame.moves = {{10, 20, {70, 5, 90, 25}}};
    frame.dirty = {{0, 66, 8, 70}, {149, 0, 150, 1}};
    capture_edges.frames.push_back(frame);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() == "acquire rects picture box 70,5,90,25 box 0,66,8,70 "
                                   "box 149,0,150,1 release map unmap");
    CHECK(dirty_bits() == 0b001110); // tiles (1,0), (2,0), (0,1)
    CHECK(wrong_pixels({{70, 5, 90, 25}, {0, 66, 8, 70}, {149, 0, 150, 1}}, before) == 0);
    REQUIRE(screen.move_count == 1);
    const copy_rect &move = screen.move_list[0];
    CHECK(move.src_x == 10);
    CHECK(move.src_y == 20);
    CHECK(move.dst_x == 70);
    CHECK(move.dst_y == 5);
    CHECK(move.w == 20);
    CHECK(move.h == 20);

    // The next frame's moves come after it until a frame is sent.
    scripted_frame next;
    next.moves = {{1, 2, {3, 4, 5, 6}}};
    capture_edges.frames.push_back(next);
    CHECK(capture_step() == CAPTURE_FRAME);
    REQUIRE(screen.move_count == 2);
    CHECK(screen.move_list[1].dst_x == 3);
    CHECK(screen.move_list[0].dst_x == 70);
}

TEST_CASE("a dirty rectangle past the screen is clipped and an empty one ignored")
{
    start_captured(150, 70);
    std::vector<uint32_t> before = frame_copy();
    capture_edges_desktop(150, 70);
    scripted_frame frame;
    frame.dirty = {
        {140, 60, 400, 100}, {-20, -20, 4, 4},   {30, 10, 30, 20},  {40, 10, 30, 20},
        {30, 20, 40, 10},    {INT_MAX, 0, 3, 3}, {150, 0, 190, 70},
    };
    capture_edges.frames.push_back(frame);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() ==
          "acquire rects picture box 140,60,150,70 box 0,0,4,4 release map unmap");
    CHECK(dirty_bits() == 0b100101);
    CHECK(wrong_pixels({{140, 60, 150, 70}, {0, 0, 4, 4}}, before) == 0);
    CHECK(screen.move_count == 0);
}

TEST_CASE("an invalid move is not passed on, and its destination is copied")
{
    struct {
        const char *what;
        capture_move move;
        capture_box copied; // empty: nothing
    } rows[] = {
        {"source partly off the screen", {-5, 0, {10, 10, 30, 30}}, {10, 10, 30, 30}},
        {"source past the right edge", {140, 0, {10, 10, 30, 30}}, {10, 10, 30, 30}},
        {"source sum beyond 32 bits", {INT_MAX, 0, {10, 10, 30, 30}}, {10, 10, 30, 30}},
        {"destination past the right edge", {0, 0, {140, 10, 160, 30}}, {140, 10, 150, 30}},
        {"destination above the screen", {0, 0, {10, -5, 30, 15}}, {10, 0, 30, 15}},
        {"destination off the screen", {0, 0, {10, 90, 30, 95}}, {}},
        {"empty", {0, 0, {10, 10, 10, 10}}, {}},
        {"inside out", {0, 0, {30, 30, 10, 10}}, {}},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        start_captured(150, 70);
        std::vector<uint32_t> before = frame_copy();
        capture_edges_desktop(150, 70);
        scripted_frame frame;
        frame.moves = {row.move};
        capture_edges.frames.push_back(frame);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(screen.move_count == 0);
        CHECK(wrong_pixels({row.copied}, before) == 0);
        CHECK((dirty_bits() != 0) == (row.copied.right > 0));
    }
}

TEST_CASE("of more than 256 moves the first 256 are passed on and all are copied")
{
    start_captured(640, 64);
    std::vector<uint32_t> before = frame_copy();
    capture_edges_desktop(640, 64);
    scripted_frame frame;
    std::vector<capture_box> boxes;
    for (int32_t i = 0; i < 300; i++) {
        capture_box box = {2 * i, 3, 2 * i + 1, 5};
        frame.moves.push_back({i, 20, box});
        boxes.push_back(box);
    }
    capture_edges.frames.push_back(frame);
    CHECK(capture_step() == CAPTURE_FRAME);
    REQUIRE(screen.move_count == 256);
    for (int32_t i = 0; i < 256; i++) {
        REQUIRE(screen.move_list[i].src_x == i);
        REQUIRE(screen.move_list[i].dst_x == 2 * i);
    }
    CHECK(wrong_pixels(boxes, before) == 0);
    CHECK(dirty_bits() == 0b1111111111);
}

TEST_CASE("a frame whose rectangles do not tell all is copied whole")
{
    scripted_frame accumulated;
    accumulated.frame.accumulated = 2;
    accumulated.moves = {{0, 0, {8, 8, 9, 9}}};
    scripted_frame no_rects;
    scripted_frame unreadable;
    unreadable.rects_fail = true;
    unreadable.dirty = {{0, 0, 8, 8}};
    struct {
        const char *what;
        scripted_frame frame;
        const char *calls;
    } rows[] = {
        {"several images", accumulated, "acquire picture whole release map unmap"},
        {"no rectangles", no_rects, "acquire picture whole release map unmap"},
        {"unreadable rectangles", unreadable, "acquire rects picture whole release map unmap"},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        start_captured(150, 70);
        capture_edges_desktop(150, 70);
        screen.move_count = 5; // of an earlier frame
        capture_edges.frames.push_back(row.frame);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(capture_edges_calls() == row.calls);
        CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);
        CHECK(dirty_bits() == 0b111111);
        CHECK(screen.move_count == 0);
    }
}

TEST_CASE("a picture of another size than the screen is copied as far as both go")
{
    start_captured(150, 70);
    std::vector<uint32_t> before = frame_copy();
    capture_edges_desktop(150, 70);
    scripted_frame smaller;
    smaller.picture_width = 100;
    smaller.picture_height = 60;
    capture_edges.frames.push_back(smaller);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() == "acquire picture box 0,0,100,60 release map unmap");
    CHECK(wrong_pixels({{0, 0, 100, 60}}, before) == 0);

    // A move that leaves the smaller picture cannot be told to the viewer.
    before = frame_copy();
    capture_edges_desktop(150, 70);
    smaller.moves = {{0, 0, {90, 0, 110, 10}}, {0, 0, {80, 0, 100, 10}}};
    smaller.dirty = {{90, 50, 150, 70}};
    capture_edges.frames.push_back(smaller);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(screen.move_count == 1);
    CHECK(wrong_pixels({{80, 0, 100, 10}, {90, 50, 100, 60}}, before) == 0);

    scripted_frame larger;
    larger.picture_width = 300;
    larger.picture_height = 200;
    (void)capture_edges_calls();
    capture_edges.frames.push_back(larger);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() == "acquire picture box 0,0,150,70 release map unmap");
    CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);
}

TEST_CASE("whatever loses a frame starts the duplication anew")
{
    scripted_frame lost;
    lost.code = 0x887A0026;
    scripted_frame no_picture;
    no_picture.picture_code = 0x80004002;
    scripted_frame unmapped;
    unmapped.map_code = 0x887A0005;
    scripted_frame unmapped_rects = unmapped;
    unmapped_rects.moves = {{0, 0, {10, 10, 20, 20}}};
    struct {
        const char *what;
        scripted_frame frame;
        const char *line, *calls;
    } rows[] = {
        {"access lost", lost, "AcquireNextFrame 887a0026", "acquire close open staging"},
        {"no texture", no_picture, "AcquireNextFrame 80004002",
         "acquire picture release close open staging"},
        {"whole picture not mapped", unmapped, "AcquireNextFrame 887a0005",
         "acquire picture whole release map close open staging"},
        {"rectangles not mapped", unmapped_rects, "AcquireNextFrame 887a0005",
         "acquire rects picture box 10,10,20,20 release map close open staging"},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        start_captured(150, 70);
        std::vector<uint32_t> before = frame_copy();
        capture_edges_desktop(150, 70);
        screen_session_start();
        screen.first_frame_flushed = true;
        clear_dirty();
        screen.move_count = 2;
        uint32_t started = clock_script_now;

        capture_edges.frames.push_back(row.frame);
        CHECK(capture_step() == CAPTURE_RESTARTED);
        CHECK(server_log_lines() == lines{row.line, "DXGI duplication 150x70"});
        CHECK(capture_edges_calls() == row.calls);
        CHECK(clock_script_now - started == 200);
        CHECK(capture_is_duplication());
        CHECK(screen.full_capture_pending);
        CHECK(screen.move_count == 0);
        CHECK(wrong_pixels({}, before) == 0);
        CHECK(dirty_bits() == 0b111111);
        lock_enter(&host_lock);
        for (int32_t i = 0; i < 6; i++) {
            CHECK(screen.bases[i].must_send == 1);
            CHECK(screen.bases[i].base_state == BASE_KNOWN);
        }
        lock_leave(&host_lock);
    }
}

TEST_CASE("a duplication that cannot be had again leaves GDI for good")
{
    start_captured(150, 70);
    screen_session_start();
    screen.first_frame_flushed = true;
    clear_dirty();
    capture_edges.open_fails = true;
    scripted_frame lost;
    lost.code = 0x80070005;
    capture_edges.frames.push_back(lost);
    CHECK(capture_step() == CAPTURE_RESTARTED);
    CHECK_FALSE(capture_is_duplication());
    CHECK(server_log_lines() == lines{"AcquireNextFrame 80070005", "GDI capture 150x70"});
    CHECK(capture_edges_calls() == "acquire close open size gdi_open 192x128");
    CHECK(dirty_bits() == 0b111111);
    // What was captured last is shown until a copy succeeds.
    CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);

    capture_edges.open_fails = false;
    capture_edges_desktop(150, 70);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() == "gdi_copy 150x70");
    CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);
}

TEST_CASE("a change of resolution resizes the screen and has every tile sent")
{
    start_captured(150, 70);
    screen_session_start();
    screen.first_frame_flushed = true;
    clear_dirty();
    capture_edges_desktop(100, 200);
    scripted_frame lost;
    lost.code = 0x887A0026;
    capture_edges.frames.push_back(lost);
    CHECK(capture_step() == CAPTURE_RESTARTED);
    CHECK(server_log_lines() == lines{"AcquireNextFrame 887a0026", "DXGI duplication 100x200"});
    CHECK(screen.screen_width == 100);
    CHECK(screen.screen_height == 200);
    CHECK(screen.hello_width == 150);
    CHECK(screen.hello_height == 70);
    CHECK(dirty_bits() == 0b11111111);
    CHECK(screen.outside_map != nullptr);
    lock_enter(&host_lock);
    for (int32_t i = 0; i < 8; i++) {
        CHECK(screen.bases[i].base_state == BASE_LOST);
        CHECK(screen.bases[i].must_send == 1);
    }
    lock_leave(&host_lock);

    capture_edges.frames.push_back({});
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(wrong_pixels({{0, 0, 100, 200}}, blank_frame()) == 0);
}

TEST_CASE("GDI copies everything and marks every tile")
{
    start_fresh(150, 70);
    capture_edges.open_fails = true;
    REQUIRE(capture_start() == 0);
    (void)capture_edges_calls();
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() == "gdi_copy 150x70");
    CHECK(dirty_bits() == 0b111111);
    CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);
}

TEST_CASE("GDI copies into what is compared, until the screen has another size")
{
    start_fresh(150, 70);
    capture_edges.open_fails = true;
    REQUIRE(capture_start() == 0);
    const uint8_t *first = screen.frame_buffer;
    CHECK(screen.frame_buffer_lent);
    CHECK(capture_step() == CAPTURE_FRAME);
    clear_dirty();
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(screen.frame_buffer == first);
    CHECK(dirty_bits() == 0b111111);

    capture_edges_desktop(100, 200);
    REQUIRE(capture_start() == 0); // the pixels lent before went with their bitmap
    CHECK(screen.frame_buffer_lent);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(wrong_pixels({{0, 0, 100, 200}}, blank_frame()) == 0);

    capture_edges.open_fails = false;
    REQUIRE(capture_start() == 1);
    CHECK_FALSE(screen.frame_buffer_lent);
    capture_edges.frames.push_back({});
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(wrong_pixels({{0, 0, 100, 200}}, blank_frame()) == 0);
}

TEST_CASE("a GDI copy that fails brings nothing, and the next one is tried")
{
    start_fresh(150, 70);
    capture_edges.open_fails = true;
    capture_edges.gdi_copy_fails = true;
    REQUIRE(capture_start() == 0);
    (void)capture_edges_calls();
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(dirty_bits() == 0);
    CHECK(wrong_pixels({}, blank_frame()) == 0);
    capture_edges.gdi_copy_fails = false;
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() == "gdi_copy 150x70 pause gdi_copy 150x70");
    CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);
}

TEST_CASE("at least 16 ms lie between the end of a GDI copy and the next, failed ones included")
{
    for (bool fails : {false, true}) {
        CAPTURE(fails);
        start_fresh(150, 70);
        capture_edges.open_fails = true;
        capture_edges.gdi_copy_fails = fails;
        REQUIRE(capture_start() == 0);
        (void)capture_step();
        for (uint32_t later : {0u, 7u, 15u, 16u, 40u}) {
            CAPTURE(later);
            capture_pace_start(); // the screen is not at rest
            uint32_t copied = clock_script_now;
            clock_script_now += later;
            (void)capture_edges_calls();
            (void)capture_step();
            CHECK(clock_script_now - copied == (later < 16 ? 16 : later));
            CHECK(capture_edges_calls() ==
                  (later < 16 ? "pause gdi_copy 150x70" : "gdi_copy 150x70"));
        }
    }
}

TEST_CASE("GDI does not notice a change of resolution")
{
    start_fresh(150, 70);
    capture_edges.open_fails = true;
    REQUIRE(capture_start() == 0);
    capture_edges_desktop(200, 100);
    (void)capture_edges_calls();
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(capture_edges_calls() == "gdi_copy 150x70");
    CHECK(screen.screen_width == 150);
}

TEST_CASE("without a bitmap nothing is captured until there is one")
{
    start_fresh(150, 70);
    capture_edges.open_fails = true;
    capture_edges.gdi_open_fails = true;
    CHECK(capture_start() == 0);
    (void)capture_edges_calls();
    uint32_t started = clock_script_now;
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(clock_script_now - started > 0); // no busy loop
    CHECK(capture_edges_calls() == "size gdi_open 192x128");
    CHECK(server_log_lines().empty());
    capture_edges.gdi_open_fails = false;
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(server_log_lines() == lines{"GDI capture 150x70"});
}

TEST_CASE("a screen that cannot be had captures nothing until it can")
{
    start_fresh(SCREEN_SIDE_MAX + 1, 70);
    CHECK(capture_start() == 0);
    CHECK(screen.screen_width == 0);
    CHECK(capture_edges_calls() == "size close open close size"); // no texture, no bitmap
    CHECK(capture_step() == CAPTURE_NOTHING);
    screen_session_start();
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(screen.frame_buffer == nullptr);

    capture_edges_desktop(150, 70);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(screen.screen_width == 150);
    CHECK(wrong_pixels({{0, 0, 150, 70}}, blank_frame()) == 0);
    CHECK(server_log_lines() == lines{"GDI capture 150x70"});
}

TEST_CASE("a session survives a new resolution without memory for it")
{
    start_captured(150, 70);
    screen_session_start();
    screen.first_frame_flushed = true;
    capture_edges_desktop(SCREEN_SIDE_MAX + 1, 70);
    scripted_frame lost;
    lost.code = 0x887A0026;
    capture_edges.frames.push_back(lost);
    CHECK(capture_step() == CAPTURE_RESTARTED);
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(screen.screen_width == 0);
    capture_edges_desktop(100, 70);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(dirty_bits() == 0b1111);
    lock_enter(&host_lock);
    CHECK(screen.bases[3].base_state == BASE_LOST);
    CHECK(screen.bases[3].must_send == 1);
    lock_leave(&host_lock);
    CHECK(screen.outside_map != nullptr);
}
