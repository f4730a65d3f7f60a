// The frame pipeline with a scripted screen, clock and pointer; what it flushes goes to a
// plain viewer. Misses and acknowledgements come back through the control thread's own
// message handler.
//
// Fakes: capture_script cursor_script clock_script flush_record input_record server_log_record
// Fakes: console_script host_switches window_list_script
#include "host/frame_pipeline.h"
#include "host/cache_mirror.h"
#include "host/capture_pace.h"
#include "host/control_thread.h"
#include "host/host_channel.h"
#include "host/host_server.h"
#include "host/out_buffer.h"
#include "host/screen.h"
#include "host/server_wake.h"
#include "host/text_layer.h"
#include "host/tile_hash.h"
#include "protocol/thread.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/console_script.h"
#include "tests/fakes/cursor_script.h"
#include "tests/fakes/flush_record.h"
#include "tests/fakes/host_switches.h"
#include "tests/fakes/server_log_record.h"
#include "tests/fakes/window_list_script.h"
#include "tests/host/lz4_plain.h"
#include "tests/host/pipeline_session.h"
#include "tests/host/test_desktop.h"
#include "tests/host/viewer_model.h"
#include "tests/test.h"

#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

using namespace host;

// ---------------------------------------------------------------------------------------
// The first walk waits for the viewer's advertisement

// A session whose viewer may take so long to advertise, counted from now.
static void start_waiting(uint32_t wait_ms, uint16_t caps = CAP_TILE_CACHE)
{
    clock_script_now = 0xFFFFFFB0; // it wraps on the way
    start(128, 64, caps);
    fill(tile_rect(0, 0), RED);
    fill(tile_rect(1, 0), GREEN);
    session.hello_sent_ms = clock_script_now;
    session.advert_wait_ms = wait_ms;
}

// The hashes of RED and GREEN tiles.
static std::vector<uint64_t> hashes_of_desktop()
{
    std::vector<uint64_t> hashes;
    for (uint32_t colour : {RED, GREEN}) {
        std::vector<uint8_t> tile(TILE_BYTES);
        for (size_t i = 0; i < tile.size(); i += 4)
            store_le32(&tile[i], colour);
        hashes.push_back(tile_hash(tile.data()));
    }
    return hashes;
}

TEST_CASE("the first walk waits for an advertisement as long as it may, and no longer")
{
    for (uint32_t wait_ms : {100u, 200u, 1000u}) { // round trips of 0, 100 and 900 ms and more
        CAPTURE(wait_ms);
        start_waiting(wait_ms);
        for (uint32_t waited = 0; waited < wait_ms; waited += 20) {
            int captures = 0;
            capture_script_step = [&] {
                captures++;
                return desktop_capture();
            };
            CHECK(step().empty());
            CHECK(captures == 1); // it goes on looking at the screen
            capture_script_step = desktop_capture;
            clock_script_now = clock_script_now + 20;
        }
        clock_script_now = session.hello_sent_ms + wait_ms - 1;
        CHECK(step().empty());
        clock_script_now = clock_script_now + 1;
        CHECK(count_type(step(), MSG_TILE) == 2);
        CHECK(picture_right());

        // It was the first walk only.
        fill(tile_rect(0, 0), BLUE);
        clock_script_now = session.hello_sent_ms; // as if no time had passed
        CHECK(count_type(step(), MSG_TILE) == 1);
    }
}

TEST_CASE("an advertisement that comes in time saves the first screen")
{
    const std::vector<uint64_t> hashes = hashes_of_desktop();
    for (uint32_t arrives : {0u, 99u, 199u}) { // the last at a round trip of 100 ms
        CAPTURE(arrives);
        start_waiting(arrives < 100 ? 100 : 200);
        CHECK(step().empty());
        clock_script_now = clock_script_now + arrives;
        advertise(hashes);
        std::vector<model_message> frame = step_unanswered();
        CHECK(count_type(frame, MSG_TILE) == 0);
        CHECK(count_type(frame, MSG_TILE_REF) == 2);
    }
}

TEST_CASE(
    "after a full advertisement the walk waits for the rest, after anything else it begins")
{
    std::vector<uint64_t> full(4096);
    for (size_t i = 0; i < full.size(); i++)
        full[i] = 0x100000 + i;

    start_waiting(100);
    advertise(full);
    CHECK(step().empty());
    advertise(full); // both messages can be full: then the time decides
    CHECK(step().empty());
    advertise(hashes_of_desktop());
    CHECK(count_type(step_unanswered(), MSG_TILE_REF) == 2);

    start_waiting(100);
    advertise(full);
    clock_script_now = clock_script_now + 100;
    CHECK(count_type(step(), MSG_TILE) == 2);

    full.pop_back(); // 4095
    start_waiting(100);
    advertise(full);
    CHECK(count_type(step(), MSG_TILE) == 2);

    full.resize(4097);
    start_waiting(100);
    advertise(full);
    CHECK(count_type(step(), MSG_TILE) == 2);

    start_waiting(100);
    advertise({});
    CHECK(count_type(step(), MSG_TILE) == 2);

    start_waiting(100);
    acknowledge(frame_seq);
    CHECK(count_type(step(), MSG_TILE) == 2);

    const uint8_t bytes[MOUSE_BYTES] = {};
    for (uint8_t type : {MSG_MOUSE, MSG_KEY, MSG_CACHE_MISS, MSG_TILE}) { // the last unknown
        for (uint32_t length : {0u, (uint32_t)MOUSE_BYTES}) {
            CAPTURE((int)type);
            CAPTURE(length);
            start_waiting(100);
            CHECK(step().empty());
            control_message(&session, type, bytes, length);
            CHECK(count_type(step(), MSG_TILE) == 2);
        }
    }
}

TEST_CASE("an advertisement that comes late serves what is sent after it")
{
    start_waiting(100);
    clock_script_now = clock_script_now + 100;
    CHECK(count_type(step(), MSG_TILE) == 2);
    uint64_t blue_hash;
    {
        std::vector<uint8_t> tile(TILE_BYTES);
        for (size_t i = 0; i < tile.size(); i += 4)
            store_le32(&tile[i], BLUE);
        blue_hash = tile_hash(tile.data());
    }
    advertise({blue_hash});
    fill(tile_rect(0, 0), BLUE);
    CHECK(count_type(step_unanswered(), MSG_TILE_REF) == 1);
}

TEST_CASE("a viewer without a cache is sent its first frame at once")
{
    for (uint16_t caps : {(uint16_t)0, CAP_TEXT_LAYER}) {
        start_waiting(1000, caps);
        CHECK(count_type(step(), MSG_TILE) == 2);
    }
}

TEST_CASE("a stop and the session's end are seen while the first walk waits")
{
    for (bool stop : {true, false}) {
        start_waiting(1000); // the clock stands still: the wait would never end
        int captures = 0;
        capture_script_step = [&] {
            if (++captures == 3) {
                if (stop)
                    host_stop_requested = 1;
                else
                    session.session_ended = 1;
            }
            return desktop_capture();
        };
        frame_pipeline_run(&session);
        capture_script_step = desktop_capture;
        CHECK(captures == 3);
        CHECK(flush_records.empty());
    }
}

// ---------------------------------------------------------------------------------------
// What a frame is

TEST_CASE("a still screen is sent once and then costs nothing, but for the moving pointer")
{
    start(200, 130); // 4 by 3 tiles, with padding on both sides
    test_random random = test_random_seeded("still");
    fill_noise(whole(), &random);
    uint32_t first = frame_seq + 1;
    clock_script_now = 0x01020304;
    std::vector<model_message> frame = step();
    CHECK(tiles_in(frame).size() == 12);
    CHECK(picture_right());
    CHECK(frame_seq == first);
    CHECK(viewer.last_end.frame_seq == first);
    CHECK(viewer.last_end.sent_ms == 0x01020304);

    desktop.whole_screen = true; // GDI: everything is examined, nothing has changed
    for (int i = 0; i < 5; i++)
        CHECK(step().empty());
    CHECK(frame_seq == first);
    CHECK(dirty_tiles() == 0);

    cursor_script_now = {-5, 0x102, 1};
    frame_seq = 0x0A0B0C0D;
    acknowledge(frame_seq);
    clock_script_now = 0x01020305;
    CHECK(step().size() == 2);
    const uint8_t expected[] = {5,    0,    0,    0,    9,    0,    0,    0, // MSG_CURSOR
                                0xFB, 0xFF, 0xFF, 0xFF, 0x02, 0x01, 0,    0,   1,
                                7,    0,    0,    0,    8,    0,    0,    0, // MSG_FRAME_END
                                0x0E, 0x0C, 0x0B, 0x0A, 0x05, 0x03, 0x02, 0x01};
    REQUIRE(flush_records.size() == 1);
    REQUIRE(flush_records[0].size() == sizeof expected);
    CHECK(memcmp(flush_records[0].data(), expected, sizeof expected) == 0);
    CHECK(step().empty());
    frame_seq = 0;
}

TEST_CASE("each change of the pointer alone is a message, and nothing else of it is")
{
    start(64, 64);
    cursor_script_now = {7, 8, 1};
    step();
    const cursor_state rows[] = {{9, 8, 1}, {9, 10, 1}, {9, 10, 0}, {9, 10, 1}, {-9, -10, 1}};
    for (const cursor_state &now : rows) {
        CAPTURE(now.x);
        CAPTURE(now.y);
        CAPTURE(now.visible);
        cursor_script_now = now;
        std::vector<model_message> frame = step();
        REQUIRE(frame.size() == 2);
        CHECK(frame[0].type == MSG_CURSOR);
        CHECK((int32_t)load_le32(&frame[0].payload[0]) == now.x);
        CHECK((int32_t)load_le32(&frame[0].payload[4]) == now.y);
        CHECK(frame[0].payload[8] == now.visible);
        CHECK(step().empty());
    }
}

TEST_CASE("the pointer last sent is remembered across sessions")
{
    start(64, 64);
    cursor_script_now = {7, 8, 1};
    CHECK(count_type(step(), MSG_CURSOR) == 1);
    start_session();
    CHECK(step().empty()); // a black screen and the same pointer: nothing to say
    cursor_script_now.visible = 0;
    CHECK(count_type(step(), MSG_CURSOR) == 1);
}

TEST_CASE("a tile that equals one elsewhere goes as a reference of 12 bytes")
{
    start(256, 64);
    test_random random = test_random_seeded("reference");
    fill_noise(tile_rect(0, 0), &random);
    for (int32_t y = 0; y < 64; y++)
        memcpy(desktop_at(192, y), desktop_at(0, y), 256);
    std::vector<model_message> frame = step();
    // The two tiles between are black, as the viewer shows them already.
    REQUIRE(frame.size() == 3);
    CHECK(frame[0].type == MSG_TILE);
    CHECK(frame[1].type == MSG_TILE_REF);
    CHECK(frame[1].payload.size() == 12);
    CHECK(get_tile_ref(frame[1].payload.data()).tile_x == 3);
    CHECK(viewer.hits == 1);
    CHECK(picture_right());
}

TEST_CASE("without the cache capability every tile goes in full")
{
    start(256, 64, CAP_TEXT_LAYER);
    fill(whole(), RED);
    std::vector<model_message> frame = step();
    CHECK(count_type(frame, MSG_TILE) == 4);
    CHECK(count_type(frame, MSG_TILE_REF) == 0);
    CHECK(mirrored() == 0);
    CHECK(picture_right());
}

TEST_CASE("an advertised tile goes as a reference at once")
{
    start(64, 64);
    test_random random = test_random_seeded("advertised");
    fill_noise(whole(), &random);
    step();
    uint64_t hash = viewer.cache.begin()->first;
    auto kept = viewer.cache;

    start_session();
    viewer.cache = kept; // the viewer loaded it from its last session
    uint8_t advert[8];
    store_le64(advert, hash);
    control_message(&session, MSG_CACHE_ADVERT, advert, sizeof advert);
    std::vector<model_message> frame = step();
    CHECK(count_type(frame, MSG_TILE) == 0);
    CHECK(count_type(frame, MSG_TILE_REF) == 1);
    CHECK(picture_right());
}

TEST_CASE("noise goes raw and what compresses goes as the difference from what was there")
{
    start(64, 64, 0);
    test_random random = test_random_seeded("noise");
    fill_noise(whole(), &random);
    std::vector<model_message> frame = step();
    REQUIRE(frame.size() == 2);
    CHECK(frame[0].payload.size() == 16397);
    CHECK(frame[0].payload[4] == 1);
    CHECK(picture_right());

    // One pixel of all that noise: as a tile it would not compress, as a difference it does.
    fill({10, 10, 11, 11}, RED);
    frame = step();
    REQUIRE(frame.size() == 2);
    CHECK(frame[0].payload[4] == 0);
    CHECK(frame[0].payload.size() < 200);
    CHECK(picture_right());
}

TEST_CASE("a difference that compresses to 16383 bytes is sent, one of 16384 is not")
{
    for (size_t size : {16383, 16384}) {
        CAPTURE(size);
        start(64, 64, 0);
        test_random random = test_random_seeded("barely");
        fill_noise(whole(), &random);
        // Noise in which one piece is repeated; the longer it is, the shorter the block, byte
        // for byte, since what follows the piece is made to differ. The viewer still shows
        // zeros, so the difference is the picture itself.
        const std::vector<uint8_t> noise = desktop.pixels;
        size_t repeated = 4;
        do {
            REQUIRE(repeated < 1000);
            desktop.pixels = noise;
            memcpy(&desktop.pixels[8000], &noise[4000], repeated);
            desktop.pixels[8000 + repeated] = (uint8_t)~noise[4000 + repeated];
            repeated++;
        } while (lz4_compress_plain(desktop.pixels).size() != size);
        std::vector<model_message> frame = step();
        REQUIRE(frame.size() == 2);
        CHECK(frame[0].payload[4] == (size == 16384));
        CHECK(frame[0].payload.size() == 13 + size);
        CHECK(picture_right());
    }
}

TEST_CASE("a change of the fourth byte of one pixel is a change")
{
    start(64, 64, 0);
    fill(whole(), GREEN);
    step();
    *desktop_at(63, 63) = (uint8_t)(GREEN & 0xFF);
    desktop_at(63, 63)[3] = 0x5A;
    desktop.dirty.push_back({63, 63, 64, 64});
    CHECK(tiles_in(step()).size() == 1);
    CHECK(picture_right());
}

// ---------------------------------------------------------------------------------------
// Budget, walk and record size

TEST_CASE("a full change of 240 tiles with a budget of 8 takes 30 frames from the top")
{
    start(1024, 960, 0); // 16 by 15 tiles
    fill(whole(), BLUE);
    int frames = 0;
    std::vector<int> order;
    for (; frames < 100; frames++) {
        session.tile_budget = 8;
        std::vector<model_message> frame = step();
        if (frame.empty())
            break;
        CHECK(tiles_in(frame).size() == 8);
        for (const tile_ref &t : tiles_in(frame))
            order.push_back(t.tile_y * 16 + t.tile_x);
    }
    CHECK(frames == 30);
    REQUIRE(order.size() == 240);
    for (int i = 0; i < 240; i++)
        CHECK(order[(size_t)i] == i);
    CHECK(picture_right());
}

TEST_CASE("references count towards the budget like other tiles")
{
    start(640, 64);
    fill(tile_rect(0, 0), RED);
    CHECK(count_type(step(), MSG_TILE) == 1);
    fill(whole(), RED); // nine references: (0, 0) shows it already
    session.tile_budget = 5;
    CHECK(count_type(step(), MSG_TILE_REF) == 5);
    session.tile_budget = 5;
    CHECK(count_type(step(), MSG_TILE_REF) == 4);
    CHECK(picture_right());
}

TEST_CASE("a screen that changes everywhere all the time starves none of its tiles")
{
    start(1024, 960, 0);
    test_random random = test_random_seeded("starvation");
    std::vector<int> sent(240);
    for (int frame = 0; frame < 60; frame++) {
        fill_noise(whole(), &random);
        session.tile_budget = 8;
        for (const tile_ref &t : tiles_in(step()))
            sent[(size_t)(t.tile_y * 16 + t.tile_x)]++;
    }
    for (int n : sent)
        CHECK(n == 2);
}

TEST_CASE("after a walk that left nothing the next one begins at the first tile")
{
    start(512, 64, 0);
    step();
    test_random random = test_random_seeded("walk start");
    fill_noise(whole(), &random);
    session.tile_budget = 5;
    CHECK(tiles_in(step()).size() == 5);
    fill_noise(whole(), &random);
    session.tile_budget = 8;
    std::vector<tile_ref> wrapped = tiles_in(step());
    REQUIRE(wrapped.size() == 8);
    CHECK(wrapped[0].tile_x == 5); // where the budget ran out
    CHECK(wrapped[3].tile_x == 0);
    fill_noise(whole(), &random);
    session.tile_budget = 8;
    CHECK(tiles_in(step())[0].tile_x == 0);

    // A session, too, begins there.
    fill_noise(whole(), &random);
    session.tile_budget = 5;
    step();
    start_session(0);
    CHECK(tiles_in(step())[0].tile_x == 0);
}

TEST_CASE("a 3840x2160 screen of noise arrives in two frames that fit a record")
{
    start(3840, 2160, 0); // 60 by 34 = 2040 tiles
    test_random random = test_random_seeded("4k");
    fill_noise(whole(), &random);
    // A raw tile takes 8 + 16397 bytes; a pointer and the frame's end 17 + 16. A tile is
    // begun while used + 16405 + 33 <= 16777216, so up to 1021 tiles may precede it.
    cursor_script_now.x++;
    std::vector<model_message> frame = step();
    CHECK(count_type(frame, MSG_TILE) == 1022);
    CHECK(count_type(frame, MSG_CURSOR) == 1);
    CHECK(flush_records[0].size() == 1022 * 16405 + 33);
    std::vector<tile_ref> rest = tiles_in(step());
    REQUIRE(rest.size() == 1018);
    CHECK(rest[0].tile_y * 60 + rest[0].tile_x == 1022);
    CHECK(picture_right());
    CHECK(step().empty());
}

TEST_CASE("a frame takes one more tile exactly as long as the record can hold what follows")
{
    // What may follow the bytes already there: a raw tile of 8 + 16397 bytes, a pointer of
    // 8 + 9 and the frame's end of 8 + 8.
    const size_t needed = 16405 + 17 + 16;
    for (size_t excess : {0, 1}) {
        CAPTURE(excess);
        start(64, 64, 0);
        test_random random = test_random_seeded("full record");
        fill_noise(whole(), &random);
        cursor_script_now.x++;
        // A message that viewers skip.
        std::vector<uint8_t> filler(16777216 - needed + excess - MESSAGE_HEADER_BYTES);
        out_append_header(MSG_WINDOW_LIST, (uint32_t)filler.size());
        out_append(filler.data(), filler.size());
        REQUIRE(frame_pipeline_step(&session)); // a frame of the pointer, if no tile fits
        REQUIRE(flush_records.size() == 1);
        if (excess == 0)
            CHECK(flush_records[0].size() == 16777216);
        CHECK(count_type(model_split(flush_records[0]), MSG_TILE) == (excess == 0 ? 1 : 0));
        CHECK(dirty_tiles() == (int)excess);
    }
}

TEST_CASE("a tile that the record had no room for comes first in the next frame")
{
    start(192, 64, 0);
    test_random random = test_random_seeded("no room");
    fill_noise(whole(), &random);
    // A message that viewers skip, and room for one tile: see above.
    std::vector<uint8_t> filler(16777216 - 16405 - 17 - 16 - MESSAGE_HEADER_BYTES);
    out_append_header(MSG_WINDOW_LIST, (uint32_t)filler.size());
    out_append(filler.data(), filler.size());
    auto frame_tiles = [] {
        flush_records.clear();
        REQUIRE(frame_pipeline_step(&session));
        REQUIRE(flush_records.size() == 1);
        acknowledge(frame_seq);
        return tiles_in(model_split(flush_records[0]));
    };
    CHECK(frame_tiles().size() == 1);
    fill_noise(whole(), &random);
    std::vector<tile_ref> rest = frame_tiles();
    REQUIRE(rest.size() == 3);
    CHECK(rest[0].tile_x == 1);
    CHECK(rest[1].tile_x == 2);
    CHECK(rest[2].tile_x == 0);
}

// ---------------------------------------------------------------------------------------
// Pacing and the log

TEST_CASE("a frame waits for the acknowledgement and keeps what was captured meanwhile")
{
    start(128, 64);
    fill(tile_rect(0, 0), RED);
    CHECK(!step_unanswered().empty());
    CHECK(session.waits_for_ack == 0);
    fill(tile_rect(1, 0), GREEN);
    CHECK(step_unanswered().empty());
    CHECK(session.waits_for_ack == 1);
    fill(tile_rect(0, 0), BLUE);
    CHECK(step_unanswered().empty());
    acknowledge(frame_seq);
    CHECK(session.waits_for_ack == 0);
    CHECK(tiles_in(step_unanswered()).size() == 2);
    CHECK(picture_right());
}

// From the end of a copy to the start of the next, by the test's clock.
static uint32_t copy_pause_ms()
{
    uint32_t copied = clock_script_now;
    capture_pace_wait((uint64_t)copied * 1000);
    return clock_script_now - copied;
}

TEST_CASE("frames keep the screen's copies at their usual pace and end the wait for an answer")
{
    start(64, 64);
    clock_script_now += 20000;
    (void)step(); // the pointer, if this is the program's first frame
    clock_script_now += 20000;
    CHECK(copy_pause_ms() == 50);
    cursor_script_now.x++; // which is no answer
    capture_pace_input();
    CHECK(copy_pause_ms() == 5);
    CHECK(step().size() == 2);
    CHECK(copy_pause_ms() == 5);
    fill(whole(), RED);
    CHECK(tiles_in(step()).size() == 1);
    CHECK(copy_pause_ms() == 16);
    clock_script_now += 20000;
    CHECK(step().empty());
    CHECK(copy_pause_ms() == 50);
    start_session(); // in which something has just happened
    CHECK(copy_pause_ms() == 16);
}

TEST_CASE("more than 250 ms without an acknowledgement the stream goes on")
{
    start(64, 64);
    fill(whole(), RED);
    clock_script_now = 0xFFFFFF80; // the clock may wrap meanwhile
    CHECK(!step_unanswered().empty());
    uint32_t sent = frame_seq;
    uint32_t confirmed = session.confirmed_seq;
    fill(whole(), GREEN);
    clock_script_now += 250;
    CHECK(step_unanswered().empty());
    CHECK(session.acked_seq == sent - 1);
    clock_script_now += 1;
    CHECK(!step_unanswered().empty());
    CHECK(session.acked_seq == sent);          // passed over
    CHECK(session.confirmed_seq == confirmed); // but not acknowledged
    // That iteration was a full one, so the next wait is as long again.
    fill(whole(), BLUE);
    clock_script_now += 250;
    CHECK(step_unanswered().empty());
    clock_script_now += 1;
    CHECK(!step_unanswered().empty());
    CHECK(picture_right());
}

TEST_CASE("a reference that a stall passed over is still uncertain")
{
    start(128, 64);
    fill(tile_rect(0, 0), RED);
    step();
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step_unanswered(), MSG_TILE_REF) == 1);
    clock_script_now += 251;
    fill(tile_rect(1, 0), GREEN);
    CHECK(only_tile(step_unanswered()).raw == 1);
    CHECK(picture_right());
}

static std::vector<std::string> frame_lines()
{
    std::vector<std::string> lines;
    for (const std::string &line : server_log_lines())
        if (line.compare(0, 6, "frame ") == 0)
            lines.push_back(line);
    return lines;
}

TEST_CASE("a fresh process logs frames 1, 2, 3, 201 and 401")
{
    frame_seq = 0;
    start(128, 128);
    server_log_clear();
    std::vector<std::string> expected;
    for (uint32_t n = 1; n <= 405; n++) {
        fill(tile_rect(0, 0), 0x01000000 + n);
        fill(tile_rect(1, 1), 0x01000000 + n);
        cursor_script_now.x = (int32_t)n;
        std::vector<model_message> frame = step();
        REQUIRE(frame_seq == n);
        REQUIRE(frame.size() == 4); // tile, reference, pointer, end
        if (n == 1 || n == 2 || n == 3 || n == 201 || n == 401)
            expected.push_back("frame " + std::to_string(n) + ": 2 tiles (1 as refs), " +
                               std::to_string(flush_records[0].size() - 33) + " bytes");
    }
    CHECK(frame_lines() == expected);
}

TEST_CASE("while the frame number rests on a logged value the line repeats")
{
    start(64, 64);
    frame_seq = 399;
    acknowledge(frame_seq);
    fill(whole(), RED);
    step();
    server_log_clear();
    for (int i = 0; i < 3; i++)
        CHECK(step().empty());
    const std::string line = "frame 401: 0 tiles (0 as refs), 0 bytes";
    CHECK(frame_lines() == std::vector<std::string>{line, line, line});
    frame_seq = 401;
    acknowledge(frame_seq);
    CHECK(step().empty());
    CHECK(frame_lines().size() == 3);
}

TEST_CASE("frame numbers wrap")
{
    start(128, 64);
    frame_seq = 0xFFFFFFFE;
    session.acked_seq = session.confirmed_seq = 0xFFFFFFFE;
    fill(tile_rect(0, 0), RED);
    step();
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step_unanswered(), MSG_TILE_REF) == 1);
    CHECK(frame_seq == 0);
    CHECK(base_of(1, 0).ref_seq == 0);
    session.acked_seq = 0; // pacing alone; not confirmed
    fill(tile_rect(1, 0), GREEN);
    CHECK(only_tile(step_unanswered()).raw == 1);
    acknowledge(frame_seq);
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    fill(tile_rect(1, 0), BLUE);
    CHECK(only_tile(step()).raw == 0);
    CHECK(picture_right());
}

// ---------------------------------------------------------------------------------------
// What the viewer shows, and what the host may assume of it

// Makes the viewer forget the tiles that it holds, while the mirror still believes in them.
static void viewer_forgets(uint64_t hash)
{
    REQUIRE(mirror_holds(hash));
    REQUIRE(viewer.cache.erase(hash) == 1);
}

// Puts a tile of one colour in the mirror and returns its hash. (0, 0) shows it now.
static uint64_t teach(uint32_t colour)
{
    fill(tile_rect(0, 0), colour);
    std::vector<tile_ref> tiles = tiles_in(step());
    REQUIRE(tiles.size() == 1);
    return tiles[0].hash;
}

TEST_CASE("a miss on a tile that still shows zeros is resent as a difference")
{
    start(128, 64);
    viewer_forgets(teach(RED));
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    REQUIRE(viewer.misses.size() == 1);
    CHECK(base_of(1, 0).base_state == BASE_KNOWN);
    CHECK(only_tile(step()).raw == 0);
    CHECK(picture_right());
    CHECK(step().empty());
}

TEST_CASE("a miss on a tile that shows something else is resent raw, once")
{
    start(128, 64);
    fill(tile_rect(1, 0), GREEN);
    step();
    viewer_forgets(teach(RED));
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    CHECK(base_of(1, 0).base_state == BASE_LOST);
    std::vector<model_message> frame = step();
    CHECK(only_tile(frame).raw == 1);
    CHECK(frame[0].payload.size() == 16397);
    CHECK(picture_right());
    CHECK(step().empty());
    // The viewer's tile is known again, and it learned the tile that it had missed.
    fill({70, 10, 80, 20}, BLUE);
    CHECK(only_tile(step()).raw == 0);
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    CHECK(viewer.misses.empty());
    CHECK(picture_right());
}

TEST_CASE("until its reference is confirmed a tile goes raw, afterwards as a difference")
{
    start(128, 64);
    teach(RED);
    fill(tile_rect(1, 0), RED);
    step_unanswered();
    CHECK(base_of(1, 0).base_state == BASE_PENDING);
    CHECK(base_of(1, 0).ref_seq == frame_seq);
    session.acked_seq = frame_seq.load(); // the pacing goes on, nothing is confirmed
    fill({70, 10, 80, 20}, BLUE);
    CHECK(only_tile(step_unanswered()).raw == 1);
    CHECK(picture_right());

    acknowledge(frame_seq);
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    fill({70, 10, 80, 20}, GREEN);
    CHECK(only_tile(step()).raw == 0);
    CHECK(picture_right());
}

TEST_CASE("the miss of an older frame makes a tile that was sent since lost, not wrong")
{
    start(128, 64);
    fill(tile_rect(1, 0), GREEN);
    step();
    viewer_forgets(teach(RED));
    fill(tile_rect(1, 0), RED);
    step_unanswered();
    REQUIRE(viewer.misses.size() == 1);
    tile_ref late = viewer.misses[0];
    session.acked_seq = frame_seq.load();
    fill(tile_rect(1, 0), BLUE);
    CHECK(only_tile(step_unanswered()).raw == 1);
    CHECK(picture_right());
    report_miss(late);
    acknowledge(frame_seq);
    // Sent again: the viewer cached it, so as a reference.
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    CHECK(picture_right());
}

TEST_CASE("a black tile that was missed is not sent again until it changes")
{
    start(128, 64);
    teach(RED);
    uint64_t black = teach(0);
    fill(tile_rect(1, 0), GREEN);
    step();
    viewer_forgets(black);
    fill(tile_rect(1, 0), 0);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    CHECK(step().empty()); // it equals the zeroed prev_frame
    CHECK_FALSE(tile_shown(1, 0));
    CHECK(base_of(1, 0).base_state == BASE_LOST);
    desktop.whole_screen = true;
    CHECK(step().empty());
    CHECK(base_of(1, 0).base_state == BASE_LOST);
    fill({70, 10, 80, 20}, BLUE);
    CHECK(only_tile(step()).raw == 1); // what the viewer shows there is not known
    CHECK(picture_right());
}

TEST_CASE("a lost tile goes out even when prev_frame happens to equal it")
{
    start(192, 64);
    test_random random = test_random_seeded("lost but equal");
    fill_noise(tile_rect(2, 0), &random);
    fill(tile_rect(1, 0), GREEN);
    step();
    viewer_forgets(teach(RED));
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    CHECK(base_of(1, 0).base_state == BASE_LOST);
    // A move covers the lost tile with known pixels: prev_frame now equals the screen.
    move_block({128, 0, 64, 0, 64, 64});
    std::vector<model_message> frame = step();
    CHECK(count_type(frame, MSG_COPY_RECTS) == 1);
    CHECK(tiles_in(frame).size() == 1);
    CHECK(picture_right());
}

TEST_CASE("a tile forgotten by the mirror goes in full")
{
    start(128, 64);
    uint64_t red = teach(RED);
    mirror_forget(red);
    fill(tile_rect(1, 0), RED);
    CHECK(only_tile(step()).hash == red);
    CHECK(mirror_holds(red));
}

// ---------------------------------------------------------------------------------------
// The capture is re-created, the screen changes its size

TEST_CASE("an iteration in which the capture was re-created ends there")
{
    start(64, 64);
    fill(whole(), RED);
    step();
    fill(whole(), GREEN);
    cursor_script_now.x++;
    desktop.restarted = true;
    CHECK(step().empty());
    CHECK(count_type(step(), MSG_CURSOR) == 1);
    CHECK(picture_right());
}

TEST_CASE("a capture re-created before the first frame leaves every tile known and blank")
{
    start(128, 64);
    fill(tile_rect(0, 0), RED);
    desktop.restarted = true;
    CHECK(step().empty());
    CHECK(base_of(0, 0).base_state == BASE_KNOWN);
    CHECK(base_of(0, 0).base_blank == 1);
    CHECK(base_of(0, 0).must_send == 0);
    CHECK(only_tile(step()).raw == 0); // the black tile is not sent
    CHECK(picture_right());
    CHECK(screen.first_frame_flushed);
}

TEST_CASE("a capture re-created later sends every tile again, against what the viewer shows")
{
    start(128, 64, 0);
    test_random random = test_random_seeded("restart");
    fill_noise(tile_rect(0, 0), &random);
    step();
    desktop.restarted = true;
    CHECK(step().empty());
    std::vector<model_message> frame = step();
    REQUIRE(frame.size() == 3); // noise and black alike, both as empty differences
    for (int i = 0; i < 2; i++) {
        CHECK(frame[(size_t)i].payload[4] == 0);
        CHECK(frame[(size_t)i].payload.size() < 200);
    }
    CHECK(picture_right());
    CHECK(step().empty());
}

TEST_CASE("a lost black tile is sent after the capture was re-created")
{
    start(128, 64);
    teach(RED);
    uint64_t black = teach(0);
    fill(tile_rect(1, 0), GREEN);
    step();
    viewer_forgets(black);
    fill(tile_rect(1, 0), 0);
    step();
    CHECK_FALSE(tile_shown(1, 0));
    desktop.restarted = true;
    step();
    step();
    CHECK(picture_right());
}

TEST_CASE("a smaller screen is shown whole and what lies outside is blanked once")
{
    start(256, 192, CAP_TILE_CACHE); // 4 by 3 tiles
    test_random random = test_random_seeded("smaller");
    fill_noise(whole(), &random);
    step();
    REQUIRE(picture_right());

    for (int change = 0; change < 2; change++) {
        resize_desktop(130, 100); // 3 by 2 tiles, of which the first stays black
        fill_noise({64, 0, 130, 100}, &random);
        CHECK(step().empty());
        std::vector<model_message> frame = step();
        REQUIRE(frame.size() == 13);
        int outside = 0, last = -1;
        for (const model_message &m : frame) {
            if (m.type != MSG_TILE)
                continue;
            tile_head head = get_tile_head(m.payload.data());
            CHECK(head.raw == 1);                        // no base is known
            CHECK(head.tile_y * 4 + head.tile_x > last); // row by row, inside or outside
            last = head.tile_y * 4 + head.tile_x;
            if (head.tile_x < 3 && head.tile_y < 2) {
                CHECK(head.hash != 0);
                continue;
            }
            outside++;
            CHECK(head.hash == 0);
        }
        CHECK(outside == 6);
        CHECK(picture_right());
        for (int i = 0; i < 3; i++)
            CHECK(step().empty());
        fill_noise(tile_rect(0, 0), &random);
        CHECK(tiles_in(step()).size() == 1);
        CHECK(picture_right());
    }
}

TEST_CASE("tiles outside a smaller screen count towards the budget")
{
    start(256, 192);
    fill(whole(), RED);
    step();
    resize_desktop(100, 100); // 2 by 2 of 4 by 3 tiles remain
    fill(whole(), GREEN);
    CHECK(step().empty());
    session.tile_budget = 8;
    CHECK(tiles_in(step()).size() == 8);
    CHECK_FALSE(picture_right());
    session.tile_budget = 8;
    CHECK(tiles_in(step()).size() == 4);
    CHECK(picture_right());
}

TEST_CASE("tiles outside a much smaller screen are sent in frames that fit a record")
{
    start(3840, 2160, 0); // 60 by 34 = 2040 tiles
    fill(whole(), RED);
    step();
    resize_desktop(64, 64);
    fill(whole(), GREEN);
    CHECK(step().empty());
    // 1023 raw tiles leave no room for a pointer and the frame's end: 1023 * 16405 + 33 is
    // more than 16777216.
    CHECK(tiles_in(step()).size() == 1022);
    CHECK(tiles_in(step()).size() == 1018);
    CHECK(picture_right());
    CHECK(step().empty());
}

TEST_CASE("a larger screen is shown as far as the viewer's grid goes")
{
    start(128, 100);
    fill(whole(), RED);
    step();
    resize_desktop(300, 300);
    fill(whole(), GREEN);
    CHECK(step().empty());
    CHECK(tiles_in(step()).size() == 4);
    CHECK(picture_right());
    fill({128, 0, 300, 300}, BLUE); // beside the grid: no viewer would draw it
    CHECK(step().empty());
    fill({0, 0, 300, 300}, RED);
    CHECK(tiles_in(step()).size() == 4);
    CHECK(picture_right());
}

// ---------------------------------------------------------------------------------------
// Moves

TEST_CASE("moves alone bring the viewer's picture up to date, whichever way they overlap")
{
    static const std::vector<copy_rect> rows[] = {
        {{0, 0, 0, 5, 320, 195}},                              // down, overlapping
        {{0, 5, 0, 0, 320, 195}},                              // up
        {{0, 0, 7, 0, 313, 200}},                              // right, in the same rows
        {{7, 0, 0, 0, 313, 200}},                              // left
        {{3, 9, 40, 30, 200, 100}},                            // down and right
        {{40, 30, 3, 9, 200, 100}},                            // up and left
        {{0, 0, 100, 100, 50, 50}},                            // apart
        {{10, 10, 90, 10, 60, 60}, {90, 10, 200, 90, 60, 60}}, // a chain
        {{0, 20, 0, 0, 320, 180}, {0, 20, 0, 0, 320, 180}},    // the same scroll twice
        {{5, 5, 5, 5, 10, 10}},                                // nowhere
        {{319, 199, 0, 0, 1, 1}},
    };
    test_random random = test_random_seeded("moves");
    for (const std::vector<copy_rect> &moves : rows) {
        CAPTURE(moves[0].src_x);
        CAPTURE(moves[0].src_y);
        CAPTURE(moves[0].dst_x);
        CAPTURE(moves[0].dst_y);
        start(320, 200, 0);
        fill_noise(whole(), &random);
        step();
        for (const copy_rect &m : moves)
            move_block(m);
        std::vector<model_message> frame = step();
        REQUIRE(frame.size() == 2); // no tile: prev_frame moved exactly as the screen did
        CHECK(frame[0].type == MSG_COPY_RECTS);
        REQUIRE(frame[0].payload.size() == moves.size() * 24);
        for (size_t i = 0; i < moves.size(); i++) {
            copy_rect sent = get_copy_rect(&frame[0].payload[i * 24]);
            CHECK(memcmp(&sent, &moves[i], sizeof sent) == 0);
        }
        CHECK(picture_right());
        CHECK(step().empty());
    }
}

TEST_CASE("moves stand ahead of the frame's tiles, of which only the new ones are sent")
{
    start(256, 256, 0);
    test_random random = test_random_seeded("scroll");
    fill_noise(whole(), &random);
    step();
    move_block({0, 64, 0, 0, 256, 192});
    fill_noise({0, 192, 256, 256}, &random);
    std::vector<model_message> frame = step();
    REQUIRE(frame.size() == 6);
    CHECK(frame[0].type == MSG_COPY_RECTS);
    for (const tile_ref &t : tiles_in(frame))
        CHECK(t.tile_y == 3);
    CHECK(picture_right());
}

TEST_CASE("256 moves go in one message")
{
    start(320, 200, 0);
    test_random random = test_random_seeded("256 moves");
    fill_noise(whole(), &random);
    step();
    for (int i = 0; i < 256; i++) {
        int32_t w = 1 + (int32_t)random.below(100), h = 1 + (int32_t)random.below(100);
        move_block({(int32_t)random.below((uint64_t)(321 - w)),
                    (int32_t)random.below((uint64_t)(201 - h)),
                    (int32_t)random.below((uint64_t)(321 - w)),
                    (int32_t)random.below((uint64_t)(201 - h)), w, h});
    }
    std::vector<model_message> frame = step();
    REQUIRE(frame.size() == 2);
    CHECK(frame[0].payload.size() == 256 * 24);
    CHECK(picture_right());
}

TEST_CASE("a move from an uncertain tile is left out, and what follows stays right")
{
    start(320, 64);
    test_random random = test_random_seeded("uncertain moves");
    fill_noise({192, 0, 320, 64}, &random);
    step();
    viewer_forgets(teach(RED));
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step_unanswered(), MSG_TILE_REF) == 1);
    REQUIRE(viewer.misses.size() == 1);
    tile_ref miss = viewer.misses[0];
    session.acked_seq = frame_seq.load(); // not confirmed: the viewer's tile is uncertain

    move_block({120, 0, 200, 10, 20, 20}); // its first 8 columns lie in the uncertain tile
    move_block({192, 0, 260, 30, 30, 30}); // begins where the one left out would have ended
    std::vector<model_message> frame = step_unanswered();
    REQUIRE(count_type(frame, MSG_COPY_RECTS) == 1);
    CHECK(frame[0].payload.size() == 24);
    CHECK(get_copy_rect(frame[0].payload.data()).src_x == 192);
    CHECK(screen.move_count == 0);

    report_miss(miss);
    acknowledge(frame_seq);
    for (int frames = 0; !step().empty(); frames++)
        REQUIRE(frames < 10);
    CHECK(picture_right());
}

TEST_CASE("a frame whose moves are all left out has no message for them")
{
    start(192, 64);
    teach(RED);
    fill(tile_rect(1, 0), RED);
    step_unanswered();
    session.acked_seq = frame_seq.load();
    move_block({64, 0, 128, 0, 64, 64});
    std::vector<model_message> frame = step_unanswered();
    CHECK(count_type(frame, MSG_COPY_RECTS) == 0);
    CHECK(tiles_in(frame).size() == 1);
    CHECK(picture_right());
}

TEST_CASE("a tile that a move has drawn on is no longer blank")
{
    start(192, 64);
    test_random random = test_random_seeded("blank");
    fill_noise(tile_rect(2, 0), &random);
    step();
    viewer_forgets(teach(RED));
    CHECK(base_of(1, 0).base_blank == 1);
    move_block({130, 5, 70, 20, 30, 30}); // onto the black tile between
    CHECK(count_type(step(), MSG_COPY_RECTS) == 1);
    CHECK(base_of(1, 0).base_blank == 0);
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    CHECK(base_of(1, 0).base_state == BASE_LOST);
    CHECK(only_tile(step()).raw == 1);
    CHECK(picture_right());
}

TEST_CASE("a move is left out whichever tile of its source is uncertain")
{
    // The source, 2 by 2 pixels, touches the tiles 1 and 2 of the rows 1 and 2.
    const copy_rect move = {127, 127, 10, 10, 2, 2};
    for (int32_t ty = 0; ty < 4; ty++)
        for (int32_t tx = 0; tx < 4; tx++) {
            CAPTURE(tx);
            CAPTURE(ty);
            bool touched = (tx == 1 || tx == 2) && (ty == 1 || ty == 2);
            start(320, 256);
            teach(RED);
            fill(tile_rect(tx, ty), GREEN);
            step();
            fill(tile_rect(tx, ty), RED);
            CHECK(count_type(step_unanswered(), MSG_TILE_REF) == 1);
            session.acked_seq = frame_seq.load(); // not confirmed
            move_block(move);
            CHECK(count_type(step_unanswered(), MSG_COPY_RECTS) == (touched ? 0 : 1));
            CHECK(picture_right());
        }
}

TEST_CASE("every tile that a move draws on is no longer blank, and no other")
{
    start(320, 256);
    test_random random = test_random_seeded("blank tiles");
    fill_noise(tile_rect(4, 3), &random);
    step();
    move_block({257, 193, 127, 127, 2, 2}); // onto the tiles 1 and 2 of the rows 1 and 2
    std::vector<model_message> frame = step();
    REQUIRE(frame.size() == 2); // the move and the frame's end: no tile was sent
    CHECK(frame[0].type == MSG_COPY_RECTS);
    for (int32_t ty = 0; ty < 4; ty++)
        for (int32_t tx = 0; tx < 4; tx++) {
            CAPTURE(tx);
            CAPTURE(ty);
            bool drawn = (tx == 1 || tx == 2) && (ty == 1 || ty == 2);
            CHECK(base_of(tx, ty).base_blank == (drawn ? 0 : 1));
        }
    CHECK(picture_right());
}

TEST_CASE("no moves are sent while the screen differs in size from the viewer's picture")
{
    start(320, 200, 0);
    test_random random = test_random_seeded("moves and sizes");
    fill_noise(whole(), &random);
    step();
    const struct {
        int32_t width, height;
    } sizes[] = {{300, 200}, {319, 200}, {340, 200}, {320, 199}, {320, 260}, {320, 200}};
    for (auto &size : sizes) {
        CAPTURE(size.width);
        CAPTURE(size.height);
        resize_desktop(size.width, size.height);
        fill_noise(whole(), &random);
        CHECK(step().empty());
        step();
        CHECK(picture_right());
        move_block({0, 40, 0, 0, 300, size.height - 40});
        std::vector<model_message> frame = step();
        CHECK(count_type(frame, MSG_COPY_RECTS) == (size.width == 320 && size.height == 200));
        CHECK(screen.move_count == 0);
        CHECK(picture_right());
    }
}

// ---------------------------------------------------------------------------------------
// Moves that nobody reported

static std::vector<copy_rect> moves_in(const std::vector<model_message> &messages)
{
    std::vector<copy_rect> moves;
    for (const model_message &m : messages)
        if (m.type == MSG_COPY_RECTS)
            for (size_t at = 0; at < m.payload.size(); at += COPY_RECT_BYTES)
                moves.push_back(get_copy_rect(&m.payload[at]));
    return moves;
}

TEST_CASE("a scroll that is not reported is found, and only the new rows are sent")
{
    test_random random = test_random_seeded("found scroll");
    for (bool search : {true, false}) {
        start(320, 256, 0);
        finds_moves = search;
        fill_noise(whole(), &random);
        step();
        move_unreported({0, 5, 0, 0, 320, 251});
        fill_noise({0, 251, 320, 256}, &random);
        desktop.dirty.assign(1, whole());
        std::vector<model_message> frame = step();
        CHECK(tiles_in(frame).size() == (search ? 5 : 20));
        CHECK(count_type(frame, MSG_COPY_RECTS) == (search ? 1 : 0));
        if (search) {
            copy_rect due = {0, 5, 0, 0, 320, 251};
            CHECK(frame[0].type == MSG_COPY_RECTS);
            REQUIRE(moves_in(frame).size() == 1);
            CHECK(memcmp(&moves_in(frame)[0], &due, sizeof due) == 0);
            for (const tile_ref &t : tiles_in(frame))
                CHECK(t.tile_y == 3);
        }
        CHECK(picture_right());
        CHECK(step().empty());
    }
    finds_moves = true;
}

TEST_CASE("a capture that reports moves is believed when it reports none")
{
    test_random random = test_random_seeded("duplication");
    for (bool duplicates : {true, false}) {
        capture_script_duplicates = duplicates;
        start(320, 256, 0);
        fill_noise(whole(), &random);
        step();
        move_unreported({0, 5, 0, 0, 320, 251});
        CHECK(count_type(step(), MSG_COPY_RECTS) == (duplicates ? 0 : 1));
        CHECK(picture_right());
    }
}

TEST_CASE("in a frame the text layer follows the moves that were found")
{
    start(256, 256, CAP_TILE_CACHE | CAP_TEXT_LAYER);
    test_random random = test_random_seeded("found order");
    fill_noise(whole(), &random);
    step();
    console_script_show({0, 0, 60, 60, 8, 4});
    move_unreported({0, 0, 64, 0, 190, 200});
    std::vector<model_message> frame = step();
    REQUIRE(frame.size() > 2);
    CHECK(frame[0].type == MSG_COPY_RECTS);
    CHECK(frame[1].type == MSG_TEXT_LAYER);
    CHECK(picture_right());
}

TEST_CASE("tiles under the text layer are no reason to look for moves")
{
    test_random random = test_random_seeded("found under text");
    for (int32_t shown : {3, 4}) {
        start(256, 256, CAP_TILE_CACHE | CAP_TEXT_LAYER);
        fill_noise(whole(), &random);
        console_script_show({0, 0, 256, 192, 8, 4}); // the upper twelve tiles
        step();
        move_unreported({0, 1, 0, 0, shown * 64, 255});
        CHECK(moves_in(step()).size() == (shown == 4 ? 1 : 0));
        console_script_reset();
        step();
        CHECK(picture_right());
    }
}

TEST_CASE("no moves are looked for while the screen differs in size from the viewer's picture")
{
    start(320, 200, 0);
    test_random random = test_random_seeded("found sizes");
    const struct {
        int32_t width, height;
    } sizes[] = {{300, 200}, {319, 200}, {340, 200}, {320, 199}, {320, 260}, {320, 200}};
    for (auto &size : sizes) {
        CAPTURE(size.width);
        CAPTURE(size.height);
        resize_desktop(size.width, size.height);
        fill_noise(whole(), &random);
        CHECK(step().empty());
        step();
        CHECK(picture_right());
        move_unreported({0, 9, 0, 0, size.width, size.height - 9});
        CHECK(moves_in(step()).size() == (size.width == 320 && size.height == 200 ? 1 : 0));
        CHECK(picture_right());
    }
}

TEST_CASE("nothing is moved from a tile of which the reference is not confirmed")
{
    test_random random = test_random_seeded("found uncertain");
    for (bool confirmed : {true, false}) {
        start(320, 320);
        fill_noise(tile_rect(1, 1), &random);
        step(); // what is referenced below
        std::vector<uint8_t> kept;
        for (int32_t y = 64; y < 128; y++)
            kept.insert(kept.end(), desktop_at(64, y), desktop_at(64, y) + 256);
        fill_noise(whole(), &random);
        step();
        for (int32_t y = 0; y < 64; y++)
            memcpy(desktop_at(128, 128 + y), &kept[(size_t)y * 256], 256);
        desktop.dirty.push_back(tile_rect(2, 2));
        CHECK(count_type(step_unanswered(), MSG_TILE_REF) == 1);
        if (confirmed)
            acknowledge(viewer.last_end.frame_seq);
        else
            session.acked_seq = frame_seq.load();
        move_unreported({0, 0, 11, 7, 309, 313});
        std::vector<model_message> frame = step_unanswered();
        for (const copy_rect &m : moves_in(frame)) {
            bool touches =
                m.src_x < 192 && m.src_x + m.w > 128 && m.src_y < 192 && m.src_y + m.h > 128;
            CHECK(touches == confirmed);
        }
        CHECK(moves_in(frame).size() == (confirmed ? 1 : 0));
        CHECK(picture_right());
    }
}

TEST_CASE("a lost tile that equals prev_frame is not done with by the search")
{
    start(192, 64);
    test_random random = test_random_seeded("lost and searched");
    fill_noise(tile_rect(2, 0), &random);
    fill(tile_rect(1, 0), GREEN);
    step();
    viewer_forgets(teach(RED));
    fill(tile_rect(1, 0), RED);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    CHECK(base_of(1, 0).base_state == BASE_LOST); // it shows green, and prev_frame is zero
    // Its right half is black now, and a move covers the left one: prev_frame equals the
    // screen, the viewer does not. The frame's one tile is another.
    session.tile_budget = 1;
    fill_noise(tile_rect(0, 0), &random);
    fill({96, 0, 128, 64}, 0);
    move_block({128, 0, 64, 0, 32, 64});
    std::vector<model_message> frame = step();
    CHECK(count_type(frame, MSG_COPY_RECTS) == 1);
    REQUIRE(tiles_in(frame).size() == 1);
    CHECK(tiles_in(frame)[0].tile_x == 0);
    CHECK_FALSE(tile_shown(1, 0));
    // Without reported moves the next frame looks for some.
    tile_head sent = only_tile(step());
    CHECK(sent.tile_x == 1);
    CHECK(sent.raw == 1);
    CHECK(picture_right());
}

TEST_CASE("a found move takes the blank off the tiles that it draws on")
{
    start(512, 256);
    test_random random = test_random_seeded("found blank");
    fill_noise({0, 0, 192, 192}, &random);
    step();
    viewer_forgets(teach(RED)); // in tile 0, 0
    fill_noise({0, 0, 192, 192}, &random);
    step();
    CHECK(base_of(4, 1).base_blank == 1);
    std::vector<uint8_t> black((size_t)desktop.width * (size_t)desktop.height * 4);
    move_block({0, 0, 200, 30, 192, 192});
    fill({0, 0, 192, 192}, 0);
    desktop.moves.clear();
    std::vector<model_message> frame = step();
    REQUIRE(moves_in(frame).size() == 1);
    CHECK(base_of(4, 1).base_blank == 0);
    CHECK(base_of(7, 3).base_blank == 1);
    CHECK(picture_right());
}

TEST_CASE("what a found move spoils is sent in the same frame")
{
    start(640, 512, 0);
    test_random random = test_random_seeded("found spoils");
    fill_noise(whole(), &random);
    step();
    std::vector<uint8_t> kept;
    for (int32_t y = 128; y < 192; y++)
        kept.insert(kept.end(), desktop_at(256, y), desktop_at(256, y) + 256);
    move_block({0, 9, 0, 0, 640, 503});
    for (int32_t y = 0; y < 64; y++) // one tile stays where it was
        memcpy(desktop_at(256, 128 + y), &kept[(size_t)y * 256], 256);
    desktop.moves.clear();
    desktop.dirty.assign(1, whole());
    std::vector<model_message> frame = step();
    REQUIRE(moves_in(frame).size() >= 1);
    bool sent = false;
    for (const tile_ref &t : tiles_in(frame))
        sent = sent || (t.tile_x == 4 && t.tile_y == 2);
    CHECK(sent);
    CHECK(picture_right());
}

TEST_CASE("a session knows nothing of the searches of the one before")
{
    start(320, 256, 0);
    test_random random = test_random_seeded("found anew");
    for (int i = 0; i < 5; i++) { // searched in vain four times; the next two are left out
        fill_noise(whole(), &random);
        step();
    }
    start_session(0);
    desktop.dirty.assign(1, whole());
    step(); // in vain
    CHECK(picture_right());
    move_unreported({0, 5, 0, 0, 320, 251});
    CHECK(moves_in(step()).size() == 1);
    CHECK(picture_right());
}

// ---------------------------------------------------------------------------------------
// The text layer

constexpr uint16_t CAPS = CAP_TILE_CACHE | CAP_TEXT_LAYER;

TEST_CASE("tiles under the text layer stay dirty, uncounted, until it ends")
{
    start(384, 64, CAPS);
    test_random random = test_random_seeded("text layer");
    console_script_show({60, 0, 250, 64, 20, 4}); // the tiles 1 and 2, a part of 0 and 3
    fill_noise(whole(), &random);
    session.tile_budget = 3;
    std::vector<model_message> frame = step();
    CHECK(frame[0].type == MSG_TEXT_LAYER);
    std::vector<tile_ref> sent = tiles_in(frame);
    REQUIRE(sent.size() == 3);
    CHECK(sent[0].tile_x == 0);
    CHECK(sent[1].tile_x == 3);
    CHECK(sent[2].tile_x == 4);

    session.tile_budget = 3;
    CHECK(tiles_in(step()).size() == 1); // the last one; covered tiles are not "left"
    fill_noise(tile_rect(0, 0), &random);
    fill_noise(tile_rect(4, 0), &random);
    sent = tiles_in(step());
    REQUIRE(sent.size() == 2);
    CHECK(sent[0].tile_x == 0); // so the next walk began at the first tile
    CHECK(step().empty());

    console_now.in_front = false;
    frame = step();
    REQUIRE(frame.size() == 4); // all in one frame
    CHECK(frame[0].type == MSG_TEXT_LAYER);
    CHECK(frame[0].payload == std::vector<uint8_t>(26));
    CHECK(tiles_in(frame).size() == 2);
    CHECK(frame[3].type == MSG_FRAME_END);
    CHECK(picture_right());
}

TEST_CASE("a console that moves uncovers tiles in the frame that tells its new place")
{
    start(384, 64, CAPS);
    test_random random = test_random_seeded("moving console");
    console_script_show({0, 0, 128, 64, 16, 4});
    fill_noise(whole(), &random);
    CHECK(tiles_in(step()).size() == 4);
    console_now.view.left = 64;
    console_now.view.right = 192;
    std::vector<model_message> frame = step();
    CHECK(frame[0].type == MSG_TEXT_LAYER);
    std::vector<tile_ref> sent = tiles_in(frame);
    REQUIRE(sent.size() == 1);
    CHECK(sent[0].tile_x == 0);
    CHECK(tile_shown(0, 0));
    CHECK_FALSE(tile_shown(1, 0)); // never sent
    CHECK(tile_shown(2, 0));       // was sent before the console came
}

TEST_CASE("in a frame the text layer follows the moves and precedes the tiles")
{
    start(192, 64, CAPS);
    test_random random = test_random_seeded("order");
    fill_noise(whole(), &random);
    step();
    console_script_show({0, 0, 60, 60, 8, 4});
    move_block({0, 0, 64, 0, 64, 64});
    fill_noise(tile_rect(2, 0), &random);
    cursor_script_now.x++;
    std::vector<model_message> frame = step();
    REQUIRE(frame.size() == 5);
    CHECK(frame[0].type == MSG_COPY_RECTS);
    CHECK(frame[1].type == MSG_TEXT_LAYER);
    CHECK(frame[2].type == MSG_TILE);
    CHECK(frame[3].type == MSG_CURSOR);
    CHECK(frame[4].type == MSG_FRAME_END);
    CHECK(picture_right());
}

TEST_CASE("a viewer that did not ask for text gets pixels")
{
    start(128, 64, CAP_TILE_CACHE);
    console_script_show({0, 0, 128, 64, 16, 4});
    fill(whole(), RED);
    CHECK(count_type(step(), MSG_TEXT_LAYER) == 0);
    CHECK(picture_right());
    CHECK(console_now.attaches == 0);
}

// ---------------------------------------------------------------------------------------
// The window list

TEST_CASE("each session's first frame has a list of windows, even of none, where it is on")
{
    host_switch_window_list = 1;
    windows_now.clear();
    start(128, 64, CAPS);
    console_script_show({0, 0, 60, 60, 8, 4});
    fill(whole(), RED);
    for (int i = 0; i < 2; i++) {
        std::vector<model_message> frame = step();
        REQUIRE(frame.size() >= 4);
        CHECK(frame[0].type == MSG_TEXT_LAYER);
        CHECK(frame[1].type == MSG_WINDOW_LIST);
        CHECK(frame[1].payload == std::vector<uint8_t>(2));
        CHECK(tiles_in(frame).size() == 2);
        CHECK(step().empty());
        start_session(CAPS);
        console_script_show({0, 0, 60, 60, 8, 4});
    }
    windows_now = {{{1, 2, 3, 4, 5, 0}, "a window"}};
    step();
    windows_now[0].head.x++;
    CHECK(step().size() == 2); // the list alone, and the frame's end
    host_switch_window_list = 0;
    windows_now.clear();
    CHECK(step().empty());
}

// ---------------------------------------------------------------------------------------
// Sessions

TEST_CASE("a session starts with nothing of the one before")
{
    start(128, 64);
    uint64_t red = teach(RED);
    fill(tile_rect(1, 0), GREEN);
    step();
    text_layer = {true, 0, 0, 128, 64, 16, 4};
    out_append("left over", 9);
    uint32_t seq = frame_seq;
    start_session();
    CHECK_FALSE(text_layer.text_active);
    CHECK(out_used() == 0);
    CHECK_FALSE(mirror_holds(red));
    CHECK(base_of(0, 0).base_blank == 1);
    CHECK(tiles_in(step()).size() == 2);
    CHECK(frame_seq == seq + 1); // but frames are numbered on
    CHECK(picture_right());
}

TEST_CASE("the wait for an acknowledgement counts from the session's start")
{
    start(64, 64);
    clock_script_now += 10000;
    start_session();
    session.acked_seq = frame_seq - 1;
    fill(whole(), RED);
    CHECK(step_unanswered().empty());
    clock_script_now += 251;
    CHECK(!step_unanswered().empty());
}

TEST_CASE("a session ends with its statistics when the server stops or the viewer is gone")
{
    for (bool stop : {true, false}) {
        start(192, 64);
        fill(whole(), RED); // one tile and two references
        int steps = 0;
        capture_script_step = [&] {
            REQUIRE(steps < 10);
            if (++steps == 3) {
                host_stop_requested = stop;
                session.session_ended = !stop;
            }
            session.acked_seq = frame_seq.load();
            return desktop_capture();
        };
        server_log_clear();
        frame_pipeline_run(&session);
        CHECK(steps == 3);
        std::vector<std::string> lines = server_log_lines();
        REQUIRE(lines.size() >= 2);
        CHECK(lines[lines.size() - 2] == "session stats: 3 tiles sent, 2 as cache refs (67%)");
        CHECK(lines[lines.size() - 1] == "client disconnected");
    }
}

TEST_CASE("a failed flush ends the session at once")
{
    start(64, 64);
    fill(whole(), RED);
    int steps = 0;
    capture_script_step = [&] {
        steps++;
        return desktop_capture();
    };
    flush_fails = true;
    server_log_clear();
    frame_pipeline_run(&session);
    CHECK(steps == 1);
    CHECK_FALSE(screen.first_frame_flushed);
    CHECK(server_log_lines().back() == "client disconnected");
}

TEST_CASE("the statistics of a session without tiles are 0 percent")
{
    start(64, 64);
    host_stop_requested = 1;
    server_log_clear();
    frame_pipeline_run(&session);
    CHECK(server_log_lines() ==
          std::vector<std::string>{"session stats: 0 tiles sent, 0 as cache refs (0%)",
                                   "client disconnected"});
}

TEST_CASE("an append that finds no memory fails the frame, even one with nothing else in it")
{
    start(64, 64);
    capture_script_step = [] {
        CHECK(out_reserve(SIZE_MAX - 1) == nullptr);
        return CAPTURE_NOTHING;
    };
    CHECK_FALSE(frame_pipeline_step(&session));
    CHECK(flush_records.empty());
}

static void take_and_leave_host_lock(void *taken)
{
    lock_enter(&host_lock);
    *(std::atomic<int> *)taken = 1;
    lock_leave(&host_lock);
}

TEST_CASE("the lock is free while a frame is sent")
{
    static std::atomic<int> taken;
    start(64, 64);
    fill(whole(), RED);
    flush_hook = [] {
        thread *other = thread_start(take_and_leave_host_lock, &taken);
        REQUIRE(other != nullptr);
        CHECK(thread_join(other, 5000));
    };
    step();
    flush_hook = nullptr;
    CHECK(taken == 1);
}

// ---------------------------------------------------------------------------------------
// Everything at once

// A viewer with a tiny cache whose answers come late and in order, a screen that draws,
// scrolls, is re-created and changes its size. In the end everybody is left in peace, and
// the viewer must show the screen.
static void run_random_session(test_random *random)
{
    clock_script_now = 0u - (uint32_t)random->below(24000); // it wraps meanwhile, or does not
    start(64 * 3 + (int32_t)random->below(130), 64 * 2 + (int32_t)random->below(130));
    viewer.cache_limit = 1 + random->below(6);
    std::deque<std::vector<uint8_t>> answers; // type byte, then payload
    auto answer_one = [&] {
        std::vector<uint8_t> a = answers.front();
        answers.pop_front();
        control_message(&session, a[0], a.data() + 1, (uint32_t)a.size() - 1);
    };
    auto iterate = [&] {
        if (step_unanswered().empty())
            return false;
        for (const tile_ref &ref : viewer.misses) {
            std::vector<uint8_t> a(1 + CACHE_MISS_BYTES, MSG_CACHE_MISS);
            put_tile_ref(&a[1], ref);
            answers.push_back(a);
        }
        std::vector<uint8_t> a(1 + FRAME_ACK_BYTES, MSG_FRAME_ACK);
        put_frame_stamp(&a[1], viewer.last_end);
        answers.push_back(a);
        return true;
    };
    // No tile of this screen is ever all black: a missed black tile may stay wrong.
    fill(whole(), BLUE);
    for (int round = 0; round < 120; round++) {
        for (uint64_t n = random->below(4); n > 0; n--)
            desktop_random_change(random);
        if (random->below(40) == 0)
            desktop.restarted = true;
        if (random->below(60) == 0) {
            bool back = random->below(2) == 0;
            int32_t width = back ? viewer.width : 64 + (int32_t)random->below(400);
            int32_t height = back ? viewer.height : 64 + (int32_t)random->below(300);
            resize_desktop(width, height);
            fill(whole(), RED);
        }
        session.tile_budget = 8 + (int32_t)random->below(20);
        clock_script_now += (uint32_t)random->below(200);
        iterate();
        for (uint64_t n = random->below(5); n > 0 && !answers.empty(); n--)
            answer_one();
    }
    for (int quiet = 0, rounds = 0; quiet < 3; rounds++) {
        REQUIRE(rounds < 1000);
        while (!answers.empty())
            answer_one();
        clock_script_now += 300;
        quiet = iterate() ? 0 : quiet + 1;
    }
    CHECK(picture_right());
}

TEST_CASE("whatever happens, at rest the viewer shows the screen")
{
    test_random random = test_random_seeded("random sessions");
    for (int i = 0; i < 60; i++)
        run_random_session(&random);
}
