// Desktop Duplication's code on real Direct3D, driven by a double of the duplication itself.
//
// It needs a display with a renderer, which is why it is started by capture_test.py and not
// with the unit tests. Each case ends with a look at what was left: every object has the
// references that it had before, and the double has seen nothing that Direct3D forbids.
#include "host/capture.h"
#include "host/capture_dxgi.h"
#include "host/screen.h"
#include "tests/e2e/duplication_double.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"

#include <string.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

using namespace host;

using lines = std::vector<std::string>;
using boxes = std::vector<RECT>;

static std::deque<double_frame> frames; // to come

static bool next_frame(double_frame *frame)
{
    if (frames.empty())
        return false;
    *frame = frames.front();
    frames.pop_front();
    return true;
}

static test_random pixel_random = {0x7654321};

// New random pixels everywhere on a desktop of this size.
static void paint_desktop(UINT width, UINT height)
{
    desktop.pixels.resize((size_t)width * height);
    for (uint32_t &pixel : desktop.pixels)
        pixel = (uint32_t)pixel_random.next() | 1; // never 0, as untouched pixels are
    double_show(width, height);
}

// A fresh server on a desktop of 1366 x 768, and the look back when the case has ended.
struct duplication_case {
    ULONG device, context;

    duplication_case()
    {
        double_open(1366, 768);
        frames.clear();
        desktop.next_frame = next_frame;
        desktop.open_result = desktop.staging_result = desktop.map_result = S_OK;
        desktop.faults.clear();
        lock_init(&host_lock);
        screen.hello_width = screen.hello_height = 0;
        screen.first_frame_flushed = false;
        (void)screen_resize(0, 0);
        double_release_texture();
        device = double_references(desktop.device);
        context = double_references(desktop.context);
        paint_desktop(1366, 768);
        server_log_clear();
    }

    ~duplication_case()
    {
        CHECK(frames.empty());
        CHECK(desktop.held == 0);
        CHECK(desktop.mapped == 0);
        CHECK(desktop.duplications == (capture_is_duplication() ? 1 : 0));
        CHECK(desktop.stagings == desktop.duplications);
        dxgi_close();
        CHECK(desktop.duplications == 0);
        CHECK(desktop.stagings == 0);
        double_release_texture();
        CHECK(double_references(desktop.device) == device);
        CHECK(double_references(desktop.context) == context);
        CHECK(desktop.faults == lines{});
    }
};

// The same with a first frame taken, nothing dirty and an empty log.
struct running_case : duplication_case {
    std::vector<uint32_t> before; // the screen's pixels, padding included

    running_case()
    {
        REQUIRE(capture_start() == 1);
        frames.push_back({});
        REQUIRE(capture_step() == CAPTURE_FRAME);
        settle();
    }

    // What is here now is what the next look is compared with.
    void settle()
    {
        size_t pixels = (size_t)screen.padded_width * (size_t)screen.padded_height;
        before.resize(pixels);
        memcpy(before.data(), screen.frame_buffer, pixels * 4);
        for (int32_t tile = 0; tile < screen.tiles_x * screen.tiles_y; tile++)
            screen.dirty_map[tile] = 0;
        server_log_clear();
    }
};

// Pixels that are not the desktop's inside one of the boxes, or not as before outside.
static int64_t wrong_pixels(const boxes &copied, const std::vector<uint32_t> &before)
{
    const int32_t width = screen.padded_width;
    std::vector<uint32_t> expected = before;
    for (const RECT &box : copied) {
        for (int32_t y = box.top; y < box.bottom; y++)
            memcpy(&expected[(size_t)(y * width + box.left)],
                   &desktop.pixels[(size_t)(y * (int32_t)desktop.width + box.left)],
                   (size_t)(box.right - box.left) * 4);
    }
    const uint32_t *now = (const uint32_t *)screen.frame_buffer;
    int64_t wrong = 0;
    for (size_t at = 0; at < expected.size(); at++)
        wrong += now[at] != expected[at];
    return wrong;
}

// Tiles that a box touches and are not dirty, or the other way round.
static int64_t wrong_tiles(const boxes &copied)
{
    int64_t wrong = 0;
    for (int32_t ty = 0; ty < screen.tiles_y; ty++) {
        for (int32_t tx = 0; tx < screen.tiles_x; tx++) {
            bool touched = std::any_of(copied.begin(), copied.end(), [&](const RECT &box) {
                return box.left < tx * 64 + 64 && box.right > tx * 64 &&
                       box.top < ty * 64 + 64 && box.bottom > ty * 64;
            });
            wrong += (screen.dirty_map[ty * screen.tiles_x + tx] != 0) != touched;
        }
    }
    return wrong;
}

static int64_t dirty_tiles()
{
    int64_t dirty = 0;
    for (int32_t tile = 0; tile < screen.tiles_x * screen.tiles_y; tile++)
        dirty += screen.dirty_map[tile];
    return dirty;
}

static const boxes WHOLE = {{0, 0, 1366, 768}};

static std::vector<uint32_t> blank_screen()
{
    return std::vector<uint32_t>((size_t)screen.padded_width * (size_t)screen.padded_height);
}

static void check_move(int32_t at, const copy_rect &expected)
{
    CAPTURE(at);
    REQUIRE(at < screen.move_count);
    const copy_rect &move = screen.move_list[at];
    CHECK(move.src_x == expected.src_x);
    CHECK(move.src_y == expected.src_y);
    CHECK(move.dst_x == expected.dst_x);
    CHECK(move.dst_y == expected.dst_y);
    CHECK(move.w == expected.w);
    CHECK(move.h == expected.h);
}

TEST_CASE_FIXTURE(duplication_case, "the first frame is copied whole to the pixel")
{
    // Whatever it says of itself: a pointer alone, or rectangles, are no reason to skip it.
    for (int32_t kind = 0; kind < 3; kind++) {
        CAPTURE(kind);
        server_log_clear();
        REQUIRE(capture_start() == 1);
        CHECK(server_log_lines() == lines{"DXGI duplication 1366x768"});
        CHECK(screen.full_capture_pending);
        double_frame frame;
        frame.presented = kind != 1;
        if (kind == 2)
            frame.dirty = {{0, 0, 8, 8}};
        frames.push_back(frame);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels(WHOLE, blank_screen()) == 0);
        CHECK(wrong_tiles(WHOLE) == 0);
        CHECK_FALSE(screen.full_capture_pending);
        CHECK(double_references(desktop.texture) == 1);
        CHECK(desktop.held == 0);
    }
}

TEST_CASE_FIXTURE(duplication_case, "a wait before the first frame leaves it pending")
{
    REQUIRE(capture_start() == 1);
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(screen.full_capture_pending);
    CHECK(wrong_pixels({}, blank_screen()) == 0);
}

TEST_CASE_FIXTURE(running_case, "a wait without a frame changes nothing")
{
    paint_desktop(1366, 768);
    screen.move_list[0] = {1, 2, 3, 4, 5, 6};
    screen.move_count = 1;
    int32_t maps = desktop.maps;
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(wrong_pixels({}, before) == 0);
    CHECK(dirty_tiles() == 0);
    CHECK(desktop.maps == maps);
    CHECK(screen.move_count == 1); // is sent yet
    CHECK(server_log_lines().empty());
}

TEST_CASE_FIXTURE(running_case, "a new pointer alone is released and changes nothing")
{
    paint_desktop(1366, 768);
    double_frame frame;
    frame.presented = false;
    frames = {frame, frame};
    int32_t maps = desktop.maps, copies = desktop.whole_copies;
    for (int32_t i = 0; i < 2; i++) {
        CHECK(capture_step() == CAPTURE_NOTHING);
        CHECK(desktop.held == 0);
        CHECK(double_references(desktop.texture) == 1);
    }
    CHECK(wrong_pixels({}, before) == 0);
    CHECK(dirty_tiles() == 0);
    CHECK(desktop.maps == maps);
    CHECK(desktop.whole_copies == copies);
    CHECK(server_log_lines().empty());
}

TEST_CASE_FIXTURE(running_case, "rectangles are copied to the pixel and nothing else is")
{
    struct row {
        const char *what;
        std::vector<DXGI_OUTDUPL_MOVE_RECT> moves;
        boxes dirty, copied;
        std::vector<copy_rect> listed;
    };
    const row rows[] = {
        {"dirty rectangles",
         {},
         {{0, 600, 8, 768}, {64, 64, 128, 128}, {1365, 767, 1366, 768}},
         {{0, 600, 8, 768}, {64, 64, 128, 128}, {1365, 767, 1366, 768}},
         {}},
        {"dirty rectangles that reach past the screen",
         {},
         {{1360, 700, 1500, 900}, {-20, -10, 5, 6}, {1366, 0, 1400, 768}},
         {{1360, 700, 1366, 768}, {0, 0, 5, 6}},
         {}},
        {"empty ones and ones inside out",
         {},
         {{50, 50, 50, 60}, {50, 50, 60, 50}, {90, 90, 80, 100}, {90, 90, 100, 80}, {}},
         {},
         {}},
        {"moves",
         {{{10, 20}, {700, 5, 900, 255}}, {{0, 0}, {1166, 668, 1366, 768}}},
         {},
         {{700, 5, 900, 255}, {1166, 668, 1366, 768}},
         {{10, 20, 700, 5, 200, 250}, {0, 0, 1166, 668, 200, 100}}},
        {"both",
         {{{1356, 758}, {0, 0, 10, 10}}},
         {{1356, 758, 1366, 768}, {300, 200, 301, 201}},
         {{0, 0, 10, 10}, {1356, 758, 1366, 768}, {300, 200, 301, 201}},
         {{1356, 758, 0, 0, 10, 10}}},
        // Neither may be passed on, but both areas have new pixels.
        {"moves whose source is not on the screen",
         {{{-1, 0}, {0, 300, 20, 310}},
          {{0, -1}, {100, 300, 120, 310}},
          {{1347, 0}, {200, 300, 220, 310}},
          {{0, 759}, {300, 300, 320, 310}}},
         {},
         {{0, 300, 20, 310}, {100, 300, 120, 310}, {200, 300, 220, 310}, {300, 300, 320, 310}},
         {}},
        {"moves whose destination is not on the screen",
         {{{0, 0}, {-5, 10, 20, 20}},
          {{0, 0}, {400, -5, 420, 20}},
          {{0, 0}, {1360, 100, 1370, 110}},
          {{0, 0}, {600, 760, 610, 770}}},
         {},
         {{0, 10, 20, 20}, {400, 0, 420, 20}, {1360, 100, 1366, 110}, {600, 760, 610, 768}},
         {}},
        {"moves of nothing",
         {{{0, 0}, {10, 10, 10, 20}}, {{0, 0}, {30, 20, 40, 20}}, {{0, 0}, {60, 60, 50, 50}}},
         {},
         {},
         {}},
        {"an invalid one between two that count",
         {{{0, 0}, {64, 0, 128, 64}}, {{-1, 0}, {0, 64, 64, 128}}, {{1, 1}, {2, 2, 3, 3}}},
         {},
         {{64, 0, 128, 64}, {0, 64, 64, 128}, {2, 2, 3, 3}},
         {{0, 0, 64, 0, 64, 64}, {1, 1, 2, 2, 1, 1}}},
        {"numbers at the ends of their range",
         {{{0x7FFFFFFF, 0x7FFFFFFF}, {0, 0, 8, 8}},
          {{0, 0}, {-0x7FFFFFFF - 1, 0, 0x7FFFFFFF, 8}}},
         {{0, 700, 0x7FFFFFFF, 0x7FFFFFFF}, {0x7FFFFFFF, 0, -0x7FFFFFFF - 1, 9}},
         {{0, 0, 1366, 8}, {0, 700, 1366, 768}},
         {}},
    };
    for (const row &row : rows) {
        CAPTURE(row.what);
        settle();
        paint_desktop(1366, 768);
        double_frame frame;
        frame.moves = row.moves;
        frame.dirty = row.dirty;
        frames.push_back(frame);
        screen.move_count = 0;
        int32_t whole = desktop.whole_copies, maps = desktop.maps;
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels(row.copied, before) == 0);
        CHECK(wrong_tiles(row.copied) == 0);
        CHECK(desktop.whole_copies == whole);
        CHECK(desktop.maps == maps + 1);
        CHECK(desktop.mapped == 0);
        CHECK(double_references(desktop.texture) == 1);
        REQUIRE(screen.move_count == (int32_t)row.listed.size());
        for (int32_t i = 0; i < screen.move_count; i++)
            check_move(i, row.listed[(size_t)i]);
        CHECK(server_log_lines().empty());
    }
}

TEST_CASE_FIXTURE(running_case, "a frame whose lists are empty is a frame")
{
    paint_desktop(1366, 768);
    double_frame frame;
    frame.metadata_bytes = 1024;
    frames.push_back(frame);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(wrong_pixels({}, before) == 0);
    CHECK(dirty_tiles() == 0);
}

TEST_CASE_FIXTURE(running_case, "longer lists than any before are read whole")
{
    for (int32_t round = 1; round <= 3; round++) {
        settle();
        paint_desktop(1366, 768);
        double_frame frame;
        boxes copied;
        for (int32_t i = 0; i < 300 * round; i++) {
            RECT box = {i, 400 + i % 7, i + 1, 420};
            frame.dirty.push_back(box);
            copied.push_back(box);
        }
        frames.push_back(frame);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels(copied, before) == 0);
    }
}

TEST_CASE_FIXTURE(running_case, "of more than 256 moves the first are listed and all copied")
{
    double_frame first, second;
    boxes copied;
    for (int32_t i = 0; i < 300; i++) {
        RECT box = {i * 4, 100 + i % 5, i * 4 + 3, 110};
        copied.push_back(box);
        // Those that are not valid take no place in the list.
        POINT source = {i % 3 == 0 ? -1 : i, i};
        (i < 120 ? first : second).moves.push_back({source, box});
    }
    for (int32_t i = 0; i < 100; i++) {
        RECT box = {i * 4, 300, i * 4 + 3, 310};
        copied.push_back(box);
        second.moves.push_back({{i, 500}, box});
    }
    paint_desktop(1366, 768);
    frames = {first, second}; // no frame is sent between them
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(screen.move_count == 80);
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(screen.move_count == 256);
    CHECK(wrong_pixels(copied, before) == 0);
    CHECK(wrong_tiles(copied) == 0);
    check_move(0, {1, 1, 4, 101, 3, 9});
    check_move(79, {119, 119, 476, 104, 3, 6});
    check_move(80, {121, 121, 484, 101, 3, 9});
    check_move(199, {299, 299, 1196, 104, 3, 6});
    check_move(200, {0, 500, 0, 300, 3, 10});
    check_move(255, {55, 500, 220, 300, 3, 10});
}

TEST_CASE_FIXTURE(running_case, "a frame that does not tell all is copied whole")
{
    struct row {
        const char *what;
        UINT accumulated;
        int64_t metadata_bytes;
        HRESULT moves_result, dirty_result;
    };
    const row rows[] = {
        {"several images in one", 2, -1, S_OK, S_OK},
        {"no metadata", 1, 0, S_OK, S_OK},
        {"less metadata than moves", 1, 23, S_OK, S_OK},
        {"less metadata than moves and rectangles", 1, 39, S_OK, S_OK},
        {"moves that cannot be read", 1, -1, E_FAIL, S_OK},
        {"rectangles that cannot be read", 1, -1, S_OK, DXGI_ERROR_ACCESS_LOST},
    };
    for (const row &row : rows) {
        CAPTURE(row.what);
        settle();
        paint_desktop(1366, 768);
        double_frame frame;
        frame.accumulated = row.accumulated;
        frame.moves = {{{10, 20}, {30, 40, 50, 60}}};
        frame.dirty = {{0, 0, 8, 8}};
        frame.metadata_bytes = row.metadata_bytes;
        frame.moves_result = row.moves_result;
        frame.dirty_result = row.dirty_result;
        frames.push_back(frame);
        screen.move_list[0] = {1, 2, 3, 4, 5, 6}; // of an earlier frame that was not sent
        screen.move_count = 1;
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels(WHOLE, before) == 0);
        CHECK(wrong_tiles(WHOLE) == 0);
        CHECK(screen.move_count == 0);
        CHECK(double_references(desktop.texture) == 1);
        CHECK(desktop.held == 0);
        CHECK(server_log_lines().empty());
    }
}

TEST_CASE_FIXTURE(running_case, "one image, even none, goes by its rectangles")
{
    for (UINT accumulated : {0, 1}) {
        settle();
        paint_desktop(1366, 768);
        double_frame frame;
        frame.accumulated = accumulated;
        frame.dirty = {{0, 0, 8, 8}};
        frames.push_back(frame);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels({{0, 0, 8, 8}}, before) == 0);
    }
}

TEST_CASE_FIXTURE(running_case, "a texture of another size is copied as far as both go")
{
    struct row {
        UINT width, height;
        bool rects;
        boxes copied;
    };
    const row rows[] = {
        {1300, 800, false, {{0, 0, 1300, 768}}},
        {1400, 700, false, {{0, 0, 1366, 700}}},
        {1400, 800, false, WHOLE},
        {1300, 700, true, {{0, 0, 8, 8}, {1290, 0, 1300, 8}}},
    };
    for (const row &row : rows) {
        CAPTURE(row.width);
        settle();
        paint_desktop(row.width, row.height);
        double_frame frame;
        if (row.rects)
            frame.dirty = {{0, 0, 8, 8}, {1290, 0, 1310, 8}, {0, 700, 9, 710}};
        frames.push_back(frame);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels(row.copied, before) == 0);
        CHECK(wrong_tiles(row.copied) == 0);
    }
}

// Everything that ends a duplication, and the code that the log then tells.
struct loss {
    const char *what;
    double_frame frame;
    HRESULT map_result;
    const char *line;
};

static std::vector<loss> losses(ID3D11Buffer *buffer)
{
    std::vector<loss> all = {
        {"access lost", {}, S_OK, "AcquireNextFrame 887a0026"},
        {"device removed", {}, S_OK, "AcquireNextFrame 887a0005"},
        {"a call out of turn", {}, S_OK, "AcquireNextFrame 887a0001"},
        {"access denied", {}, S_OK, "AcquireNextFrame 80070005"},
        {"no resource", {}, S_OK, "AcquireNextFrame 80004003"},
        {"no texture", {}, S_OK, "AcquireNextFrame 80004002"},
        {"no map of rectangles", {}, DXGI_ERROR_DEVICE_REMOVED, "AcquireNextFrame 887a0005"},
        {"no map of the whole", {}, E_OUTOFMEMORY, "AcquireNextFrame 8007000e"},
    };
    all[0].frame.result = DXGI_ERROR_ACCESS_LOST;
    all[1].frame.result = DXGI_ERROR_DEVICE_REMOVED;
    all[2].frame.result = DXGI_ERROR_INVALID_CALL;
    all[3].frame.result = E_ACCESSDENIED;
    all[4].frame.no_resource = true;
    all[5].frame.resource = buffer;
    for (size_t i : {5, 6}) {
        all[i].frame.moves = {{{10, 20}, {30, 40, 50, 60}}};
        all[i].frame.dirty = {{0, 0, 8, 8}};
    }
    return all;
}

static ID3D11Buffer *make_buffer()
{
    D3D11_BUFFER_DESC description = {};
    description.ByteWidth = 64;
    description.Usage = D3D11_USAGE_DEFAULT;
    description.BindFlags = D3D11_BIND_VERTEX_BUFFER;
    ID3D11Buffer *buffer = nullptr;
    REQUIRE(SUCCEEDED(desktop.device->CreateBuffer(&description, nullptr, &buffer)));
    return buffer;
}

TEST_CASE_FIXTURE(running_case, "a lost duplication is made anew, with the same or a new size")
{
    ID3D11Buffer *buffer = make_buffer();
    const int32_t sizes[][2] = {{342, 200}, {300, 150}, {342, 150}, {400, 200}};
    for (const int32_t *size : sizes) {
        const int32_t width = size[0], height = size[1];
        const bool new_size = width != 342 || height != 200;
        for (const loss &loss : losses(buffer)) {
            CAPTURE(width);
            CAPTURE(height);
            CAPTURE(loss.what);
            // Back to a session on the screen of 342 x 200, its first frame sent.
            desktop.mode_width = 342;
            desktop.mode_height = 200;
            paint_desktop(342, 200);
            REQUIRE(capture_start() == 1);
            screen_session_start();
            screen.first_frame_flushed = true;
            frames.push_back({});
            REQUIRE(capture_step() == CAPTURE_FRAME);
            settle();
            lock_enter(&host_lock);
            memset(screen.prev_frame, 0x5A, 64); // the viewer shows something there
            lock_leave(&host_lock);
            screen.move_list[0] = {1, 2, 3, 4, 5, 6};
            screen.move_count = 1;
            uint32_t started = clock_script_now;

            desktop.map_result = loss.map_result;
            desktop.mode_width = (UINT)width;
            desktop.mode_height = (UINT)height;
            frames.push_back(loss.frame);
            CHECK(capture_step() == CAPTURE_RESTARTED);
            desktop.map_result = S_OK;

            const std::string opened =
                "DXGI duplication " + std::to_string(width) + "x" + std::to_string(height);
            CHECK(server_log_lines() == lines{loss.line, opened});
            CHECK(clock_script_now - started == 200);
            CHECK(capture_is_duplication());
            CHECK(desktop.duplications == 1);
            CHECK(desktop.stagings == 1);
            CHECK(desktop.held == 0);
            CHECK(desktop.mapped == 0);
            CHECK(double_references(desktop.texture) == 1);
            CHECK(screen.full_capture_pending);
            CHECK(screen.move_count == 0);
            CHECK(screen.screen_width == width);
            CHECK(screen.screen_height == height);
            CHECK(screen.hello_width == 342);
            CHECK(screen.hello_height == 200);
            // Every tile goes again; the viewer still shows what it showed, or all is zeroed
            // and in doubt.
            CHECK(dirty_tiles() == screen.tiles_x * screen.tiles_y);
            lock_enter(&host_lock);
            CHECK(screen.prev_frame[0] == (new_size ? 0 : 0x5A));
            for (int32_t tile = 0; tile < screen.tiles_x * screen.tiles_y; tile++)
                REQUIRE(screen.bases[tile].must_send);
            lock_leave(&host_lock);
            CHECK(wrong_pixels({}, new_size ? blank_screen() : before) == 0);

            // The next frame is taken whole, though only a pointer is new.
            paint_desktop((UINT)width, (UINT)height);
            double_frame pointer;
            pointer.presented = false;
            frames.push_back(pointer);
            CHECK(capture_step() == CAPTURE_FRAME);
            RECT all = {0, 0, width, height};
            CHECK(wrong_pixels({all}, new_size ? blank_screen() : before) == 0);
        }
    }
    CHECK(buffer->Release() == 0);
}

TEST_CASE_FIXTURE(running_case, "a frame whose release fails was captured all the same")
{
    paint_desktop(1366, 768);
    double_frame frame, lost;
    frame.dirty = {{0, 0, 8, 8}};
    frame.release_result = DXGI_ERROR_ACCESS_LOST;
    lost.result = DXGI_ERROR_ACCESS_LOST;
    frames = {frame, lost};
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(wrong_pixels({{0, 0, 8, 8}}, before) == 0);
    CHECK(server_log_lines().empty());
    CHECK(capture_step() == CAPTURE_RESTARTED);
    CHECK(server_log_lines() ==
          lines{"AcquireNextFrame 887a0026", "DXGI duplication 1366x768"});
}

static std::string gdi_line()
{
    return "GDI capture " + std::to_string(GetSystemMetrics(SM_CXSCREEN)) + "x" +
           std::to_string(GetSystemMetrics(SM_CYSCREEN));
}

// Each way in which a duplication cannot be had, and what the log tells of it.
struct refusal {
    const char *what;
    HRESULT open_result, staging_result;
    UINT mode_width;
    lines told;
};

static const refusal REFUSALS[] = {
    {"no duplication", DXGI_ERROR_UNSUPPORTED, S_OK, 342, {"DuplicateOutput 887a0004"}},
    {"no staging texture", S_OK, E_OUTOFMEMORY, 342, {}},
    {"larger than any screen", S_OK, S_OK, SCREEN_SIDE_MAX + 1, {}},
};

static void refuse(const refusal &refusal)
{
    desktop.open_result = refusal.open_result;
    desktop.staging_result = refusal.staging_result;
    desktop.mode_width = refusal.mode_width;
}

// GDI is in use, copies the real screen and asks for no further frame of the duplication,
// which left nothing open.
static void check_gdi(ULONG device, ULONG context)
{
    CHECK_FALSE(capture_is_duplication());
    CHECK(desktop.duplications == 0);
    CHECK(desktop.stagings == 0);
    double_release_texture();
    CHECK(double_references(desktop.device) == device);
    CHECK(double_references(desktop.context) == context);
    CHECK(screen.screen_width == GetSystemMetrics(SM_CXSCREEN));
    CHECK(screen.screen_height == GetSystemMetrics(SM_CYSCREEN));
    memset(screen.frame_buffer, 0x77, 64 * 4);
    frames.push_back({});
    clock_script_now += 100; // GDI copies no sooner
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(frames.size() == 1);
    frames.clear();
    CHECK(screen.frame_buffer[0] != 0x77);
    CHECK(dirty_tiles() == screen.tiles_x * screen.tiles_y);
}

TEST_CASE_FIXTURE(duplication_case, "a duplication that cannot be had leaves GDI")
{
    for (const refusal &refusal : REFUSALS) {
        CAPTURE(refusal.what);
        server_log_clear();
        refuse(refusal);
        CHECK(capture_start() == 0);
        lines expected = refusal.told;
        expected.push_back(gdi_line());
        CHECK(server_log_lines() == expected);
        check_gdi(device, context);
    }
}

TEST_CASE_FIXTURE(running_case, "a duplication that cannot be had again leaves GDI for good")
{
    ID3D11Buffer *buffer = make_buffer(); // holds the device as well
    for (const refusal &refusal : REFUSALS) {
        for (const loss &loss : losses(buffer)) {
            CAPTURE(refusal.what);
            CAPTURE(loss.what);
            refuse({"", S_OK, S_OK, 342, {}});
            desktop.mode_height = 200;
            paint_desktop(342, 200);
            REQUIRE(capture_start() == 1);
            frames.push_back({});
            REQUIRE(capture_step() == CAPTURE_FRAME);
            settle();

            refuse(refusal);
            desktop.map_result = loss.map_result;
            frames.push_back(loss.frame);
            CHECK(capture_step() == CAPTURE_RESTARTED);
            desktop.map_result = S_OK;
            lines expected = {loss.line};
            expected.insert(expected.end(), refusal.told.begin(), refusal.told.end());
            expected.push_back(gdi_line());
            CHECK(server_log_lines() == expected);
            CHECK(dirty_tiles() == screen.tiles_x * screen.tiles_y);
            check_gdi(device + 1, context);
        }
    }
    CHECK(buffer->Release() == 0);
}
