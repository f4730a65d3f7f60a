// The text layer with a scripted console. What it appends is read by a decoder of the test's
// own, and at length by the viewer's.
//
// Fakes: console_script host_switches viewer_channel_memory window_posts
#include "host/text_layer.h"
#include "host/frame_pipeline.h"
#include "host/out_buffer.h"
#include "protocol/bytes.h"
#include "tests/fakes/console_script.h"
#include "tests/fakes/host_switches.h"
#include "tests/host/viewer_model.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"

#include <string.h>
#include <vector>

using namespace host;

// The pipeline's, which has no part here.
uint16_t host::peer_caps;

// A new session with a viewer that draws consoles, and none in front.
static void start()
{
    console_script_reset();
    host_switch_text_layer = 1;
    peer_caps = CAP_TEXT_LAYER;
    out_reset();
    text_layer_reset();
}

// One iteration; the messages that it appended.
static std::vector<model_message> step()
{
    out_reset();
    text_layer_step();
    CHECK(console_now.attached == 0); // whatever came of it
    REQUIRE(out_intact());
    if (out_used() == 0)
        return {};
    return model_split(std::vector<uint8_t>(out_bytes(), out_bytes() + out_used()));
}

// One iteration that appends one layer message, taken apart.
struct sent_layer {
    text_layer_head head;
    std::vector<uint8_t> records;
};

static sent_layer step_to_layer()
{
    std::vector<model_message> messages = step();
    REQUIRE(messages.size() == 1);
    REQUIRE(messages[0].type == MSG_TEXT_LAYER);
    const std::vector<uint8_t> &payload = messages[0].payload;
    REQUIRE(payload.size() > 26);
    sent_layer sent = {get_text_layer_head(payload.data()),
                       model_lz4_decode(payload.data() + 26, payload.size() - 26)};
    CHECK(sent.records.size() == (size_t)sent.head.raw_size);
    CHECK(sent.records.size() == sent.head.row_count * (2 + 3 * (size_t)sent.head.cols));
    return sent;
}

static void step_to_off()
{
    std::vector<model_message> messages = step();
    REQUIRE(messages.size() == 1);
    CHECK(messages[0].type == MSG_TEXT_LAYER);
    CHECK(messages[0].payload == std::vector<uint8_t>(26));
    CHECK_FALSE(text_layer.text_active);
}

// The row indices of the records, in order.
static std::vector<int> rows_of(const sent_layer &sent)
{
    std::vector<int> rows;
    for (size_t at = 0; at < sent.records.size(); at += 2 + 3 * (size_t)sent.head.cols)
        rows.push_back(sent.records[at] | sent.records[at + 1] << 8);
    return rows;
}

constexpr console_view SMALL = {100, 50, 340, 114, 4, 3};

TEST_CASE("a tile is covered when the active layer's rectangle holds all of it")
{
    // Tile (1, 2) is the pixels 64..127 across and 128..191 down.
    static const struct {
        text_layer_record layer;
        bool covered;
    } rows[] = {
        {{true, 64, 128, 128, 192, 0, 0}, true},
        {{true, 0, 0, 1000, 1000, 0, 0}, true},
        {{false, 0, 0, 1000, 1000, 0, 0}, false},
        {{true, 65, 128, 128, 192, 0, 0}, false},
        {{true, 64, 129, 128, 192, 0, 0}, false},
        {{true, 64, 128, 127, 192, 0, 0}, false},
        {{true, 64, 128, 128, 191, 0, 0}, false},
        {{true, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX, 0, 0}, true},
        {{true, INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN, 0, 0}, false},
    };
    for (const auto &row : rows) {
        CAPTURE(row.layer.left);
        CAPTURE(row.layer.top);
        CAPTURE(row.layer.right);
        CAPTURE(row.layer.bottom);
        text_layer = row.layer;
        CHECK(text_layer_covers(1, 2) == row.covered);
    }
    text_layer_reset();
}

TEST_CASE("a new session has no layer on")
{
    text_layer = {true, 0, 0, 1000, 1000, 10, 10};
    text_layer_reset();
    CHECK_FALSE(text_layer.text_active);
    CHECK_FALSE(text_layer_covers(0, 0));
}

TEST_CASE("a console in front goes out whole: head, then each row with its index")
{
    start();
    console_script_show({-8, 50, 232, 114, 3, 2}); // its left edge is off the screen
    console_script_write(0, 0, "ab", 0x1F);
    console_now.cells[5] = {0x263A, 0xFF9E}; // of the attributes the low byte counts
    std::vector<model_message> messages = step();
    REQUIRE(messages.size() == 1);
    CHECK(messages[0].type == 4);
    const uint8_t expected_head[26] = {
        0xF8, 0xFF, 0xFF, 0xFF, 50, 0, 0,  0, 240, 0, 0, 0, 64, 0, 0, 0, // x, y, w, h
        3,    0,    2,    0,    2,  0, 22, 0, 0,   0}; // grid, records, 2 * (2 + 3 * 3) bytes
    const std::vector<uint8_t> expected = {0, 0, 'a', 0, 0x1F, 'b', 0, 0x1F, ' ',  0,    0x07,
                                           1, 0, ' ', 0, 0x07, ' ', 0, 0x07, 0x3A, 0x26, 0x9E};
    const std::vector<uint8_t> &payload = messages[0].payload;
    REQUIRE(payload.size() > 26);
    CHECK(memcmp(payload.data(), expected_head, 26) == 0);
    CHECK(model_lz4_decode(payload.data() + 26, payload.size() - 26) == expected);
    CHECK(text_layer.text_active);
    CHECK(step().empty()); // nothing has changed
}

TEST_CASE("a console is looked at when the viewer wants it and the switch is on, not else")
{
    static const struct {
        uint16_t caps;
        int32_t enabled;
        bool in_front, sent;
        int32_t attaches;
    } rows[] = {
        {CAP_TEXT_LAYER, 1, true, true, 1},
        {CAP_TEXT_LAYER | CAP_TILE_CACHE, 1, true, true, 1},
        {CAP_TILE_CACHE, 1, true, false, 0},
        {0, 1, true, false, 0},
        {CAP_TEXT_LAYER, 0, true, false, 0},
        {CAP_TEXT_LAYER, 1, false, false, 0},
    };
    for (const auto &row : rows) {
        CAPTURE(row.caps);
        CAPTURE(row.enabled);
        CAPTURE(row.in_front);
        start();
        peer_caps = row.caps;
        host_switch_text_layer = row.enabled;
        console_script_show(SMALL);
        console_now.in_front = row.in_front;
        CHECK(step().empty() == !row.sent);
        CHECK(text_layer.text_active == row.sent);
        CHECK(console_now.attaches == row.attaches);
    }
}

TEST_CASE("one changed line of a console of 120x30 is one record of 362 bytes")
{
    start();
    console_script_show({0, 0, 960, 480, 120, 30});
    sent_layer all = step_to_layer();
    CHECK(all.head.row_count == 30);
    CHECK(all.head.raw_size == 30 * 362);
    console_script_write(17, 119, "x", 0x07);
    sent_layer one = step_to_layer();
    CHECK(one.head.row_count == 1);
    CHECK(one.head.cols == 120);
    CHECK(one.head.rows == 30);
    CHECK(one.head.raw_size == 362); // 2 and 360
    CHECK(rows_of(one) == std::vector<int>{17});
    CHECK(one.records[2 + 119 * 3] == 'x');
    CHECK(step().empty());
}

TEST_CASE("rows that changed go from top to bottom, also when only a colour did")
{
    start();
    console_script_show({0, 0, 80, 80, 10, 5});
    step_to_layer();
    console_now.cells[4 * 10] = {' ', 0x70};
    console_now.cells[10 + 9] = {'z', 0x07};
    CHECK(rows_of(step_to_layer()) == std::vector<int>{1, 4});
    console_now.cells[4 * 10] = {' ', 0x07};
    CHECK(rows_of(step_to_layer()) == std::vector<int>{4});
}

TEST_CASE("a console that moved or changed its size is sent whole with its new rectangle")
{
    static const console_view rows[] = {
        {101, 50, 340, 114, 4, 3}, {100, 51, 340, 114, 4, 3}, {100, 50, 341, 114, 4, 3},
        {100, 50, 340, 115, 4, 3}, {100, 50, 340, 114, 3, 4}, {100, 50, 340, 114, 4, 2},
        {100, 50, 340, 114, 5, 3}, {-9, -8, 231, 56, 4, 3},
    };
    for (const console_view &view : rows) {
        CAPTURE(view.left);
        CAPTURE(view.top);
        CAPTURE(view.cols);
        start();
        console_script_show(SMALL);
        step_to_layer();
        console_script_show(view);
        sent_layer sent = step_to_layer();
        CHECK(sent.head.row_count == view.rows);
        CHECK(sent.head.x == view.left);
        CHECK(sent.head.y == view.top);
        CHECK(sent.head.w == view.right - view.left);
        CHECK(sent.head.h == view.bottom - view.top);
        CHECK(sent.head.cols == view.cols);
        CHECK(sent.head.rows == view.rows);
        CHECK(text_layer.left == view.left);
        CHECK(text_layer.top == view.top);
        CHECK(text_layer.right == view.right);
        CHECK(text_layer.bottom == view.bottom);
        CHECK(step().empty());
    }
}

TEST_CASE("a console of more than 512 columns or 256 rows stays pixels")
{
    static const struct {
        int32_t cols, rows;
        bool sent;
    } rows[] = {{512, 256, true}, {513, 1, false},  {1, 257, false}, {1, 1, true},
                {0, 5, false},    {5, 0, false},    {-1, 10, false}, {512, 1, true},
                {1, 256, true},   {32767, 1, false}};
    for (const auto &row : rows) {
        CAPTURE(row.cols);
        CAPTURE(row.rows);
        start();
        console_script_show(SMALL);
        step_to_layer();
        console_now.view.cols = row.cols;
        console_now.view.rows = row.rows;
        console_now.reads = 0;
        if (row.sent) {
            console_now.cells.assign((size_t)(row.cols * row.rows), {'m', 0x07});
            CHECK(step_to_layer().head.row_count == row.rows);
        } else {
            step_to_off();
            CHECK(console_now.reads == 0);
        }
    }
}

TEST_CASE("a large console is read in bands of rows, and all of it arrives in any content")
{
    start();
    console_script_show({0, 0, 4096, 4096, 512, 256});
    test_random random = test_random_seeded("bands");
    for (console_cell &cell : console_now.cells)
        cell = {(uint16_t)random.below(65536), (uint16_t)random.below(65536)};
    sent_layer sent = step_to_layer();
    CHECK(console_now.reads == 16); // of 16 rows each
    CHECK(console_now.most_cells == CONSOLE_READ_CELLS);
    CHECK(sent.head.raw_size == 256 * (2 + 512 * 3));
    bool right = true;
    for (size_t row = 0; row < 256; row++) {
        const uint8_t *record = &sent.records[row * 1538];
        right = right && record[0] == row && record[1] == 0;
        for (size_t col = 0; col < 512; col++) {
            const console_cell &cell = console_now.cells[row * 512 + col];
            const uint8_t *p = record + 2 + col * 3;
            right = right && load_le16(p) == cell.character && p[2] == cell.attributes % 256;
        }
    }
    CHECK(right);
}

TEST_CASE("the last band is what is left")
{
    start();
    console_script_show({0, 0, 800, 800, 100, 200}); // 81 rows at a time: 81, 81, 38
    console_script_write(199, 99, "!", 0x07);
    sent_layer sent = step_to_layer();
    CHECK(console_now.reads == 3);
    CHECK(sent.records[199 * 302 + 2 + 99 * 3] == '!');
}

TEST_CASE("when no console is in front any more the layer goes, once")
{
    start();
    CHECK(step().empty()); // none was on
    console_script_show(SMALL);
    step_to_layer();
    console_now.in_front = false;
    step_to_off();
    CHECK(step().empty());
    console_now.in_front = true;
    CHECK(step_to_layer().head.row_count == 3); // whole again
}

TEST_CASE("any read that fails takes the layer off and leaves nothing attached")
{
    for (int32_t failing = 0; failing < 16; failing++) {
        CAPTURE(failing);
        start();
        console_script_show({0, 0, 512, 512, 512, 256});
        step_to_layer();
        console_now.reads_until_failure = failing;
        step_to_off();
        CHECK(step().empty());
        console_now.reads_until_failure = -1;
        CHECK(step_to_layer().head.row_count == 256);
    }
}

TEST_CASE("the layer goes when it is switched off")
{
    start();
    console_script_show(SMALL);
    step_to_layer();
    host_switch_text_layer = 0;
    step_to_off();
    CHECK(step().empty());
}

TEST_CASE("a new viewer gets the whole console, though nothing of it changed")
{
    start();
    console_script_show(SMALL);
    step_to_layer();
    text_layer_reset();
    CHECK(step_to_layer().head.row_count == 3);
}

TEST_CASE("whatever a console does, the viewer shows its cells")
{
    start();
    REQUIRE(viewer::frame_open(640, 480));
    test_random random = test_random_seeded("layers");
    int shown = 0, hidden = 0;
    for (int i = 0; i < 3000; i++) {
        auto below = [&](int32_t n) { return (int32_t)random.below((uint64_t)n); };
        int32_t dice = below(40);
        console_view view = console_now.view;
        if (below(4) == 0)
            console_now.reads_until_failure = -1; // or it would fail most of the time
        if (dice == 1 || view.cols == 0) {
            view.cols = 1 + below(below(20) == 0 ? 520 : 60);
            view.rows = 1 + below(below(20) == 0 ? 260 : 30);
            console_script_show(view);
        } else if (dice == 0) {
            console_now.in_front = !console_now.in_front;
        } else if (dice < 4) {
            view.left = below(640);
            view.top = below(480);
            view.right = view.left + below(600);
            view.bottom = view.top + below(400);
            console_now.view = view;
        } else if (dice == 4) {
            console_now.reads_until_failure = below(3) - 1;
        } else if (dice < 8) { // a line scrolls in
            auto cells = console_now.cells.begin();
            console_now.cells.erase(cells, cells + view.cols);
            console_now.cells.resize((size_t)(view.cols * view.rows), {'s', 0x0A});
        }
        for (int32_t n = below(4); n > 0; n--)
            console_now.cells[random.below(console_now.cells.size())] = {
                (uint16_t)random.below(65536), (uint16_t)random.below(256)};

        view = console_now.view;
        int32_t failing = console_now.reads_until_failure;
        bool on = console_now.in_front && view.cols <= 512 && view.rows <= 256;
        if (on && failing >= 0)
            on = failing * (8192 / view.cols) >= view.rows;
        for (const model_message &m : step()) {
            std::vector<uint8_t> payload = m.payload;
            lock_enter(&viewer::frame_lock);
            viewer::frame_apply(m.type, payload.data(), (uint32_t)payload.size());
            lock_leave(&viewer::frame_lock);
        }
        lock_enter(&viewer::frame_lock);
        const viewer::frame_record &f = viewer::frame;
        REQUIRE(f.text_active == on);
        if (on) {
            REQUIRE(f.text_x == view.left);
            REQUIRE(f.text_y == view.top);
            REQUIRE(f.text_w == view.right - view.left);
            REQUIRE(f.text_h == view.bottom - view.top);
            REQUIRE(f.text_cols == view.cols);
            REQUIRE(f.text_rows == view.rows);
            bool right = true;
            for (size_t c = 0; c < console_now.cells.size(); c++) {
                const console_cell &cell = console_now.cells[c];
                right = right && load_le16(f.text_cells + c * 3) == cell.character &&
                        f.text_cells[c * 3 + 2] == cell.attributes;
            }
            REQUIRE(right);
        }
        lock_leave(&viewer::frame_lock);
        (on ? shown : hidden)++;
    }
    viewer::frame_close();
    CHECK(shown > 500);
    CHECK(hidden > 500);
}
