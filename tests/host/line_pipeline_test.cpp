// The frame pipeline on a simulated line: what a person at its other end waits for.
//
// Fakes: capture_script cursor_script flush_record input_record server_log_record
// Fakes: console_script host_switches window_list_script
#include "tests/host/line_session.h"

static uint64_t percentile(std::vector<uint64_t> values, size_t percent)
{
    REQUIRE_FALSE(values.empty());
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) * percent / 100];
}

// ---------------------------------------------------------------------------------------
// Figures

struct line_row {
    uint64_t rate, trip_us;
};
static const line_row LINES[] = {{2500000, 40 * MS}, {625000, 100 * MS}};

TEST_CASE("endless noise fills a slow line and queues little")
{
    for (const line_row &row : LINES)
        for (uint64_t tick : {MS, 16 * MS})
            for (uint64_t late : {(uint64_t)0, 20 * MS}) {
                CAPTURE(row.rate);
                CAPTURE(tick);
                CAPTURE(late);
                start(640, 384, row.rate, row.trip_us, 0);
                tick_us = tick;
                line.ack_late_us = late;
                play_video({0, 0, 640, 384}, NEVER);
                run_for(SECOND);
                uint64_t carried = line.bytes - (line.free_us - now_us) * row.rate / SECOND;
                line.queue.clear();
                run_for(8 * SECOND);
                carried = line.bytes - (line.free_us - now_us) * row.rate / SECOND - carried;
                CHECK(line.dropped == 0);
                CHECK(carried >= row.rate * 8 * 9 / 10);
                CHECK(percentile(line.queue, 50) <= 60 * MS);
                CHECK(percentile(line.queue, 95) <= 100 * MS);
            }
}

// Delays from a key at the viewer to the character in its picture, beside a video.
static std::vector<uint64_t> typing_delays(const line_row &row, bool paced)
{
    start(640, 384, row.rate, row.trip_us);
    paces_bytes = paced;
    draw_page({0, 0, 640, 384}, 0x203040);
    run_for(4 * SECOND);
    play_video({256, 64, 576, 256}, NEVER);
    run_for(2 * SECOND);
    std::vector<uint64_t> delays;
    static uint64_t pressed;
    static int32_t x;
    static bool waits;
    waits = false;
    on_shown = [&] {
        int32_t cell = x;
        if (waits && memcmp(&model.pixels[320 * model.pitch + (size_t)cell * 4],
                            desktop_at(cell, 320), 4) == 0) {
            delays.push_back(now_us - pressed);
            waits = false;
        }
    };
    for (x = 0; x < 240; x += 8) {
        // At any time of the host's, which run_for does not end at.
        pressed = now_us + random_pixels.below(100 * MS);
        at(pressed, press_key);
        // The program draws the character a little later.
        at(pressed + row.trip_us / 2 + 3 * MS, [] {
            fill({x, 316, x + 7, 326}, 0xFF000000 | (uint32_t)random_pixels.below(0xFFFFFF));
            waits = true;
        });
        run_until(pressed + 200 * MS);
        while (now_us - pressed < 4 * SECOND && delays.size() * 8 < (size_t)x + 8)
            run_for(20 * MS);
    }
    return delays;
}

TEST_CASE("typing beside a video shows within the round trip and 110 ms")
{
    for (const line_row &row : LINES) {
        CAPTURE(row.rate);
        std::vector<uint64_t> delays = typing_delays(row, true);
        CHECK(delays.size() == 30);
        MESSAGE(row.rate << " bytes/s: median " << percentile(delays, 50) / MS << " ms, 95th "
                         << percentile(delays, 95) / MS << " ms");
        CHECK(percentile(delays, 50) <= row.trip_us + 110 * MS);
    }
}

TEST_CASE("a screen that the viewer has cached is back within the round trip and 150 ms")
{
    for (const line_row &row : LINES) {
        CAPTURE(row.rate);
        start(1280, 768, row.rate, row.trip_us);
        draw_page({0, 0, 1280, 768}, 0x203040);
        run_for(6 * SECOND);
        REQUIRE(picture_right());
        draw_page({0, 0, 1280, 768}, 0x804020);
        run_for(6 * SECOND);
        REQUIRE(picture_right());
        uint64_t left = now_us;
        uint64_t back = 0;
        on_shown = [&] {
            if (back == 0 && picture_right())
                back = now_us;
        };
        draw_page({0, 0, 1280, 768}, 0x203040);
        run_for(3 * SECOND);
        REQUIRE(back != 0);
        MESSAGE(row.rate << " bytes/s: " << (back - left) / MS << " ms");
        CHECK(back - left <= row.trip_us + 150 * MS);
    }
}

// A window dragged over a page, as a capture that reports moves sees it: 30 places a second.
// Its corner has a colour of its own in each place.
TEST_CASE("a dragged window follows within the round trip and 60 ms, thirty times a second")
{
    for (const line_row &row : LINES) {
        CAPTURE(row.rate);
        start(1280, 768, row.rate, row.trip_us);
        draw_page({0, 0, 1280, 768}, 0x203040);
        std::vector<uint8_t> page = desktop.pixels;
        run_for(6 * SECOND);
        REQUIRE(picture_right());
        static constexpr int32_t W = 300, H = 200, TOP = 150, STEP = 9;
        int32_t x = 100;
        draw_page({x, TOP, x + W, TOP + H}, 0x804020);
        run_for(2 * SECOND);

        static constexpr int PLACES = 60;
        std::vector<uint64_t> drawn, shown;
        on_shown = [&] {
            for (size_t i = shown.size(); i < drawn.size(); i++)
                if (load_le32(&model.pixels[TOP * model.pitch +
                                            (size_t)(100 + STEP * ((int)i + 1)) * 4]) ==
                    0xFF000001 + i)
                    shown.resize(i + 1, now_us); // those that were passed over, too
        };
        for (int i = 0; i < PLACES; i++)
            at(now_us + (uint64_t)i * 33 * MS + MS, [&] {
                move_block({x, TOP, x + STEP, TOP, W, H});
                for (int32_t y = TOP; y < TOP + H; y++)
                    memcpy(desktop_at(x, y), &page[((size_t)y * 1280 + (size_t)x) * 4],
                           STEP * 4);
                desktop.dirty.push_back({x, TOP, x + STEP, TOP + H});
                x += STEP;
                fill({x, TOP, x + 1, TOP + 1}, 0xFF000001 + (uint32_t)drawn.size());
                drawn.push_back(now_us);
            });
        size_t before = line.queue.size();
        run_for(PLACES * 33 * MS);
        size_t frames = line.queue.size() - before;
        run_for(SECOND);
        REQUIRE(shown.size() == PLACES);
        CHECK(picture_right());
        std::vector<uint64_t> delays;
        for (size_t i = 0; i < PLACES; i++)
            delays.push_back(shown[i] - drawn[i]);
        MESSAGE(row.rate << " bytes/s: median " << percentile(delays, 50) / MS << " ms, 95th "
                         << percentile(delays, 95) / MS << " ms, " << frames << " frames");
        CHECK(percentile(delays, 50) <= row.trip_us + 60 * MS);
        CHECK(frames >= PLACES * 9 / 10);
    }
}

// ---------------------------------------------------------------------------------------
// Rules

// The frames that the viewer has got, each its tiles in order.
struct got_tile {
    int32_t tx, ty;
    bool reference;
};
static std::vector<std::vector<got_tile>> frames_got;
static std::vector<size_t> sizes_got;

static void note_frames()
{
    frames_got.clear();
    sizes_got.clear();
    auto send = flush_hook;
    flush_hook = [send] {
        std::vector<got_tile> tiles;
        for (const model_message &m : model_split({out_bytes(), out_bytes() + out_used()})) {
            if (m.type == MSG_TILE) {
                tile_head head = get_tile_head(m.payload.data());
                tiles.push_back({head.tile_x, head.tile_y, false});
            } else if (m.type == MSG_TILE_REF) {
                tile_ref ref = get_tile_ref(m.payload.data());
                tiles.push_back({ref.tile_x, ref.tile_y, true});
            }
        }
        frames_got.push_back(tiles);
        sizes_got.push_back(out_used());
        send();
    };
}

// A session at rest on the slower line, in which a white screen of 10 x 6 tiles was shown.
static void start_at_rest(uint16_t caps = CAP_TILE_CACHE)
{
    start(640, 384, 625000, 100 * MS, caps);
    fill({0, 0, 640, 384}, 0xFFFFFFFF);
    run_for(3 * SECOND);
    REQUIRE(picture_right());
    note_frames();
}

TEST_CASE("a frame takes references first, then tiles with little change, then the rest")
{
    start_at_rest();
    draw_noise(tile_rect(3, 3)); // to be referred to
    run_for(SECOND);
    std::vector<uint8_t> known = model.tile(3, 3);
    frames_got.clear();

    draw_noise(tile_rect(0, 0));
    draw_noise(tile_rect(1, 0));
    fill({5 * 64, 2 * 64, 5 * 64 + 16, 2 * 64 + 16}, RED);
    fill({6 * 64, 2 * 64, 6 * 64 + 32, 2 * 64 + 32}, RED); // 4 cells
    fill({7 * 64, 2 * 64, 7 * 64 + 33, 2 * 64 + 16}, RED); // 3 cells
    fill({8 * 64, 2 * 64, 8 * 64 + 33, 2 * 64 + 32}, RED); // 6 cells: not small
    for (int32_t y = 0; y < 64; y++)
        memcpy(desktop_at(9 * 64, 5 * 64 + y), &known[(size_t)y * 256], 256);
    desktop.dirty.push_back(tile_rect(9, 5));
    run_for(SECOND);
    CHECK(picture_right());
    std::vector<got_tile> order;
    for (auto &frame : frames_got)
        order.insert(order.end(), frame.begin(), frame.end());
    REQUIRE(order.size() == 7);
    CHECK(order[0].reference);
    CHECK(order[0].tx == 9);
    const int32_t rest[][2] = {{5, 2}, {6, 2}, {7, 2}, {0, 0}, {1, 0}, {8, 2}};
    for (size_t i = 0; i < 6; i++) {
        CAPTURE(i);
        CHECK_FALSE(order[i + 1].reference);
        CHECK(order[i + 1].tx == rest[i][0]);
        CHECK(order[i + 1].ty == rest[i][1]);
    }
}

TEST_CASE("after an input small tiles near the pointer come first")
{
    for (bool input : {true, false}) {
        CAPTURE(input);
        start_at_rest();
        cursor_script_now = {8 * 64 + 5, 4 * 64 + 5, 1};
        run_for(SECOND);
        frames_got.clear();
        if (input)
            press_key();
        run_for(200 * MS);
        for (int32_t tx : {0, 6, 9})
            draw_noise({tx * 64, 4 * 64, tx * 64 + 16, 4 * 64 + 16});
        draw_noise({8 * 64, 64, 8 * 64 + 16, 64 + 16}); // three tiles above the pointer
        frames_got.clear();
        run_for(SECOND);
        REQUIRE_FALSE(frames_got.empty());
        REQUIRE(frames_got[0].size() == 4);
        std::vector<int32_t> columns;
        for (const got_tile &tile : frames_got[0])
            columns.push_back(tile.tx);
        CHECK(columns ==
              (input ? std::vector<int32_t>{6, 9, 8, 0} : std::vector<int32_t>{8, 0, 6, 9}));
    }
}

TEST_CASE("small tiles take half of a frame, in turn, and the rest has its turn as well")
{
    start_at_rest(0);
    // Small changes everywhere in four rows, more of them than half a frame takes, and two
    // tiles of noise, for ever.
    std::function<void()> draw = [&] {
        for (int32_t ty = 0; ty < 4; ty++)
            for (int32_t tx = 0; tx < 10; tx++)
                draw_noise({tx * 64, ty * 64, tx * 64 + 32, ty * 64 + 32});
        draw_noise(tile_rect(4, 5));
        draw_noise(tile_rect(5, 5));
        at(now_us + 16 * MS, draw);
    };
    draw();
    run_for(3 * SECOND);
    frames_got.clear();
    sizes_got.clear();
    run_for(10 * SECOND);
    int32_t sent[60] = {};
    for (size_t i = 0; i + 1 < frames_got.size(); i++) {
        size_t small = 0, large = 0;
        for (const got_tile &tile : frames_got[i]) {
            sent[tile.ty * 10 + tile.tx]++;
            (tile.ty == 5 ? large : small)++;
        }
        CHECK(large + small > 0);
    }
    int32_t least = 1000, most = 0;
    for (int32_t tile = 0; tile < 40; tile++) {
        least = std::min(least, sent[tile]);
        most = std::max(most, sent[tile]);
    }
    CHECK(least >= 10);
    CHECK(most <= 3 * least); // some go with the rest, too
    CHECK(sent[54] >= 5);
    CHECK(sent[55] >= 5);
    CHECK(line.dropped == 0);
}

TEST_CASE("the rest has its turn, however many references there are")
{
    // 40 x 40 tiles on a line whose frames take 8 KiB, the least there is. All but one have
    // another colour at their top whenever they are looked at, and the viewer knows each of
    // these five tiles: references of 20 bytes, 410 in a frame, or up to half as many more once
    // the host takes the line for a longer one. So the walk is round after three or four.
    start(2560, 2560, 100000, 100 * MS);
    uint32_t looks = 0;
    capture_script_step = [&] {
        looks++;
        for (int32_t y = 0; y < 2560; y += 64)
            fill({0, y, 2560, y + 1}, 0xFF000001 + looks % 5);
        draw_noise({39 * 64, 39 * 64, 39 * 64 + 32, 39 * 64 + 32});
        return capture();
    };
    run_for(4 * SECOND);
    note_frames();
    run_for(4 * SECOND);
    REQUIRE(frames_got.size() >= 20);
    size_t turns = 0;
    for (const std::vector<got_tile> &frame : frames_got) {
        CHECK(frame.size() >= 400);
        CHECK(frame.size() < 800);
        for (const got_tile &tile : frame)
            turns += tile.tx == 39 && tile.ty == 39;
    }
    CHECK(turns * 5 >= frames_got.size());
}

TEST_CASE("without room nothing is captured, and an acknowledgement wakes the host")
{
    start_at_rest(0);
    play_video({0, 0, 640, 384}, NEVER);
    run_for(2 * SECOND);
    line.silent = true;
    run_for(SECOND); // what was under way is answered
    int captures = line.captures;
    frames_got.clear();
    run_for(1900 * MS);
    CHECK(line.captures - captures <= 1);
    CHECK(frames_got.size() <= 1);
    captures = line.captures;
    frames_got.clear();
    run_for(20 * SECOND); // one goes every two seconds
    CHECK(frames_got.size() >= 9);
    CHECK(frames_got.size() <= 10);
    CHECK(line.captures - captures <= 10);

    // The next answer is acted on within the pause that it cuts short.
    line.silent = false;
    uint64_t answered = 0;
    size_t before = 0;
    on_shown = [&] {
        if (answered == 0) {
            answered = now_us + line.trip_us / 2;
            before = frames_got.size();
        }
    };
    while (answered == 0 || now_us < answered)
        REQUIRE(frame_pipeline_step(&session));
    while (now_us < answered + 20 * MS && frames_got.size() == before)
        REQUIRE(frame_pipeline_step(&session));
    CHECK(frames_got.size() > before);
    on_shown = nullptr;
}

TEST_CASE("a wait ends at once when the session does")
{
    start_at_rest(0);
    play_video({0, 0, 640, 384}, NEVER);
    run_for(2 * SECOND);
    line.silent = true;
    run_for(SECOND);
    uint64_t asked = now_us + 100 * MS;
    at(asked, [] {
        session.session_ended = 1;
        capture_pace_news(); // as the control thread does
    });
    REQUIRE(frame_pipeline_step(&session));
    while (session.session_ended == 0)
        REQUIRE(frame_pipeline_step(&session));
    CHECK(now_us == asked);
}

TEST_CASE("paced by bytes a queue is short that is long otherwise")
{
    for (bool paced : {true, false}) {
        CAPTURE(paced);
        start(1280, 768, 625000, 100 * MS, 0);
        paces_bytes = paced;
        play_video({0, 0, 1280, 768}, NEVER);
        run_for(5 * SECOND);
        CHECK((line.free_us > now_us + 500 * MS) == !paced);
        CHECK((line.dropped > 0) == !paced);
    }
}

TEST_CASE("a peer that answers at once sees the same frames with and without")
{
    std::vector<std::vector<uint64_t>> seen[2];
    for (bool paced : {false, true}) {
        start(640, 384, 1000000000, 0);
        session.key_trip_us = session.hello_trip_us = 200; // at once
        paces_bytes = paced;
        random_pixels = {99};
        note_frames();
        play_video({0, 0, 640, 384}, NEVER);
        run_for(3 * SECOND);
        REQUIRE(frames_got.size() > 30);
        for (size_t i = 0; i < frames_got.size(); i++) {
            std::vector<uint64_t> frame = {sizes_got[i]};
            for (const got_tile &tile : frames_got[i])
                frame.push_back((uint64_t)tile.ty * 100 + (uint64_t)tile.tx);
            seen[paced].push_back(frame);
        }
    }
    CHECK(seen[0] == seen[1]);
}

// ---------------------------------------------------------------------------------------
// Teaching the viewer's cache what came by a move

// A screen of 15 x 10 tiles of noise is there and has been acknowledged.
static void start_with_noise(uint64_t rate, uint64_t trip_us, uint16_t caps = CAP_TILE_CACHE,
                             bool paced = true)
{
    start(960, 640, rate, trip_us, caps);
    paces_bytes = paced;
    draw_noise(whole());
    run_for(6 * SECOND);
    REQUIRE(picture_right());
    note_frames();
}

// Scrolls, so that 135 tiles are moved and the last 15 are sent.
static void scroll()
{
    move_unreported({0, 5, 0, 0, 960, 635});
    draw_noise({0, 635, 960, 640});
}

// How often tiles of the rows that are moved whole were sent.
static size_t moved_tiles_sent()
{
    size_t n = 0;
    for (const auto &frame : frames_got)
        for (const got_tile &tile : frame)
            n += tile.ty < 9;
    return n;
}

static size_t tiles_cached()
{
    size_t n = 0;
    for (int ty = 0; ty < 10; ty++)
        for (int tx = 0; tx < 15; tx++)
            n += model.cache.count(tile_hash(model.tile(tx, ty).data()));
    return n;
}

TEST_CASE("the viewer is taught what was moved once it has settled and the line rests")
{
    start_with_noise(625000, 100 * MS);
    uint64_t scrolled = now_us;
    scroll();
    run_until(scrolled + 300 * MS);
    CHECK(picture_right());
    CHECK(moved_tiles_sent() == 0);
    CHECK(tiles_cached() == 15);
    size_t frames = frames_got.size();
    run_until(scrolled + 2 * SECOND);
    CHECK(moved_tiles_sent() == 135); // once each
    CHECK(tiles_cached() == 150);
    CHECK(picture_right());
    REQUIRE(frames_got.size() == frames + 2); // the second when the first had arrived
    // A difference of nothing: a token, the zero, an offset, 16384 / 255 bytes of length, the
    // last literals; heads of 8 and 13 bytes; frame ends of 16.
    CHECK(sizes_got[frames] >= 8 * 1024);
    CHECK(sizes_got[frames] <= 8 * 1024 + 200);
    CHECK(sizes_got[frames] + sizes_got[frames + 1] <= 135 * (8 + 13 + 96) + 2 * 16);
    run_for(SECOND);
    CHECK(frames_got.size() == frames + 2); // and that is that

    // What it is good for: the same screen comes back.
    std::vector<uint8_t> pixels = desktop.pixels;
    fill(whole(), RED);
    run_for(SECOND);
    frames_got.clear();
    desktop.pixels = pixels;
    desktop.dirty.assign(1, whole());
    run_for(SECOND);
    CHECK(picture_right());
    size_t references = 0;
    for (const auto &frame : frames_got)
        for (const got_tile &tile : frame)
            references += tile.reference;
    CHECK(references == 150);
}

TEST_CASE("a viewer is not taught in vain")
{
    struct {
        const char *what;
        uint64_t rate, trip_us;
        bool paced, keeps;
        uint16_t caps;
        bool taught;
    } rows[] = {
        {"a slow line", 625000, 100 * MS, true, true, CAP_TILE_CACHE, true},
        {"a fast line", 100000000, 0, true, true, CAP_TILE_CACHE, false},
        {"no limit in bytes", 625000, 100 * MS, false, true, CAP_TILE_CACHE, false},
        {"no replica", 625000, 100 * MS, true, false, CAP_TILE_CACHE, false},
        {"a viewer without a cache", 625000, 100 * MS, true, true, 0, false},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        keeps_replica = row.keeps;
        start_with_noise(row.rate, row.trip_us, row.caps, row.paced);
        scroll();
        run_for(2 * SECOND);
        CHECK(picture_right());
        CHECK(moved_tiles_sent() == (row.taught ? 135 : 0));
    }
    keeps_replica = true;
}

TEST_CASE("what a move brings back is not taught again")
{
    start_with_noise(625000, 100 * MS);
    std::vector<uint8_t> pixels = desktop.pixels;
    scroll();
    run_for(2 * SECOND);
    frames_got.clear();
    desktop.pixels = pixels;
    desktop.dirty.assign(1, whole());
    run_for(2 * SECOND);
    CHECK(picture_right());
    CHECK(moved_tiles_sent() == 15); // the first row, where no move leads
}

TEST_CASE("what goes on moving is not taught")
{
    start_with_noise(625000, 100 * MS);
    for (int i = 0; i < 10; i++) {
        scroll();
        run_for(250 * MS);
    }
    CHECK(moved_tiles_sent() == 0);
    run_for(2 * SECOND);
    CHECK(moved_tiles_sent() == 135);
    CHECK(picture_right());
}

TEST_CASE("nothing is taught while the line carries something else")
{
    start_with_noise(625000, 100 * MS);
    scroll();
    play_video({0, 576, 64, 640}, now_us + 3 * SECOND); // in a tile of the last row
    run_for(2900 * MS);
    CHECK(moved_tiles_sent() == 0);
    run_for(2 * SECOND);
    CHECK(moved_tiles_sent() == 135);
    CHECK(picture_right());
}

TEST_CASE("a viewer that keeps its cache by other rules is not taught")
{
    start_with_noise(625000, 100 * MS);
    for (int32_t tx = 0; tx < 4; tx++) {
        std::vector<uint8_t> known = model.tile(14, 0);
        model.cache.clear();
        for (int32_t y = 0; y < 64; y++)
            memcpy(desktop_at(tx * 64, y), &known[(size_t)y * 256], 256);
        desktop.dirty.push_back(tile_rect(tx, 0));
        run_for(SECOND); // a reference, a miss
    }
    frames_got.clear();
    scroll();
    run_for(2 * SECOND);
    CHECK(moved_tiles_sent() == 0);
    CHECK(picture_right());
}
