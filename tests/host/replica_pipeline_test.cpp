// The frame pipeline and the replica of the viewer's cache: when it refers to a tile, and when
// a tile goes without its hash. The viewer keeps its cache by the rules, or by others.
//
// Fakes: capture_script cursor_script clock_script flush_record input_record server_log_record
// Fakes: console_script host_switches window_list_script
#include "host/cache_mirror.h"
#include "host/cache_replica.h"
#include "host/frame_pipeline.h"
#include "host/tile_hash.h"
#include "tests/fakes/cursor_script.h"
#include "tests/host/pipeline_session.h"
#include "tests/test.h"

#include <array>
#include <map>
#include <vector>

using namespace host;

// ---------------------------------------------------------------------------------------
// Colours whose tiles fall into the same sets of the cache

struct crowd {
    std::array<uint32_t, 6> colours;
    std::array<uint64_t, 6> hashes;
};

static uint64_t hash_of(uint32_t colour)
{
    static uint8_t tile[TILE_BYTES];
    for (size_t i = 0; i < sizeof tile; i += 4)
        store_le32(&tile[i], colour);
    return tile_hash(tile);
}

// Three sets that six tiles each fall into.
static const std::vector<crowd> &crowds()
{
    static std::vector<crowd> found;
    std::map<uint64_t, std::vector<uint32_t>> sets;
    for (uint32_t colour = 1; found.size() < 3; colour++) {
        std::vector<uint32_t> &set = sets[hash_of(colour) % 4096];
        set.push_back(colour);
        if (set.size() != 6)
            continue;
        crowd c = {};
        for (size_t i = 0; i < 6; i++) {
            c.colours[i] = set[i];
            c.hashes[i] = hash_of(set[i]);
        }
        found.push_back(c);
    }
    return found;
}

// Fills a tile with some colour of some crowd.
static void random_tile(int32_t tx, int32_t ty, test_random *random)
{
    const crowd &c = crowds()[random->below(3)];
    fill(tile_rect(tx, ty), c.colours[random->below(6)]);
}

static void random_tiles(test_random *random)
{
    for (uint64_t n = random->below(6); n > 0; n--)
        random_tile((int32_t)random->below(4), (int32_t)random->below(3), random);
}

// ---------------------------------------------------------------------------------------
// References

TEST_CASE("a viewer by the rules misses nothing after its first miss")
{
    test_random random = test_random_seeded("a viewer by the rules");
    for (bool keeps : {false, true}) {
        keeps_replica = keeps;
        start(256, 192);
        viewer.by_rules = true;
        int frames_with_misses = 0, references = 0;
        for (int i = 0; i < 400; i++) {
            random_tiles(&random);
            references += count_type(step(), MSG_TILE_REF);
            frames_with_misses += !viewer.misses.empty();
            clock_script_now += 5;
        }
        step();
        CHECK(picture_right());
        CHECK(references > 100);
        if (keeps)
            CHECK(frames_with_misses == 1);
        else
            CHECK(frames_with_misses > 20); // or this shows nothing
    }
    keeps_replica = true;
}

TEST_CASE("references follow the mirror until the first miss and both from then on")
{
    const crowd &c = crowds()[0];
    start(192, 64);
    for (uint32_t i = 0; i < 6; i++) { // of six the viewer keeps the last two
        fill(tile_rect(i % 2, 0), c.colours[i]);
        CHECK(count_type(step(), MSG_TILE) == 1);
    }
    fill(tile_rect(2, 0), c.colours[0]); // which this viewer has kept all the same
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    report_miss({9, 9, 12345});
    fill(tile_rect(2, 0), c.colours[1]);
    CHECK(count_type(step(), MSG_TILE) == 1);
    fill(tile_rect(1, 0), RED);
    step();
    fill(tile_rect(1, 0), c.colours[5]);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    fill(tile_rect(1, 0), c.colours[1]);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);

    // What was missed goes in full although the replica holds it.
    fill(tile_rect(0, 0), RED);
    step();
    report_miss({1, 0, c.hashes[1]});
    CHECK(count_type(step(), MSG_TILE) == 1);
    CHECK(picture_right());
}

TEST_CASE("a viewer without the cache that it announced gets no more than a few references")
{
    for (bool keeps : {false, true}) {
        keeps_replica = keeps;
        test_random random = {17};
        start(256, 192);
        viewer.cache_limit = 0;
        int references = 0, late_references = 0;
        for (int i = 0; i < 200; i++) {
            random_tiles(&random);
            int n = count_type(step(), MSG_TILE_REF);
            references += n;
            late_references += i >= 50 ? n : 0;
            clock_script_now += 5;
        }
        for (int i = 0; i < 5; i++) // black tiles that were missed are kept; there are none
            step();
        CHECK(picture_right());
        CHECK(references >= 4);
        CHECK((late_references == 0) == keeps);
    }
    keeps_replica = true;
}

TEST_CASE("a viewer that forgets at random ends with the right picture")
{
    test_random random = test_random_seeded("a viewer that forgets");
    start(256, 192);
    viewer.cache_limit = 5;
    viewer.chooses = &random;
    int misses = 0;
    for (int i = 0; i < 300; i++) {
        random_tiles(&random);
        step();
        misses += (int)viewer.misses.size();
        clock_script_now += 5;
    }
    for (int i = 0; i < 5; i++)
        step();
    CHECK(picture_right());
    CHECK(misses >= 4);
}

TEST_CASE("four misses of what the replica held end the references of a session, and only its")
{
    const crowd &c = crowds()[0];
    start(256, 64);
    fill(tile_rect(0, 0), c.colours[0]);
    step();
    viewer.cache.clear();
    for (int32_t tx = 1; tx < 4; tx++)
        fill(tile_rect(tx, 0), c.colours[0]);
    CHECK(count_type(step(), MSG_TILE_REF) == 3); // three misses
    CHECK(count_type(step(), MSG_TILE) + count_type(step(), MSG_TILE_REF) > 0);
    for (int i = 0; i < 3; i++)
        step();
    CHECK(picture_right());
    fill(tile_rect(0, 0), GREEN);
    step();
    fill(tile_rect(1, 0), GREEN);
    CHECK(count_type(step(), MSG_TILE_REF) == 1); // three are not four
    viewer.cache.clear();
    fill(tile_rect(2, 0), GREEN);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
    step();
    fill(tile_rect(3, 0), GREEN);
    CHECK(count_type(step(), MSG_TILE_REF) == 0);
    CHECK(picture_right());

    start(128, 64);
    fill(tile_rect(0, 0), GREEN);
    step();
    fill(tile_rect(1, 0), GREEN);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
}

static bool replica_holds(uint64_t hash) NO_THREAD_SAFETY_ANALYSIS
{
    return cache_replica_holds(hash);
}

TEST_CASE("what was sent ahead of the advertisement lies on top of it")
{
    const crowd &c = crowds()[0];
    for (bool missed : {false, true})
        for (uint32_t sent = 0; sent < 3; sent++) {
            CAPTURE(missed);
            CAPTURE(sent);
            start(128, 64);
            for (uint32_t i = 0; i < sent; i++) { // nothing is answered so far
                fill(tile_rect((int32_t)i, 0), c.colours[i]);
                CHECK(count_type(step_unanswered(), MSG_TILE) == 1);
                session.acked_seq = frame_seq.load();
            }
            advertise({c.hashes[4], c.hashes[5]});
            CHECK_FALSE(replica_holds(c.hashes[5]));
            if (missed) // acts at once, else the next walk does
                report_miss({9, 9, 12345});
            else
                step();
            // Each has taken the place of one that was advertised, in order.
            CHECK(replica_holds(c.hashes[4]) == (sent < 1));
            CHECK(replica_holds(c.hashes[5]) == (sent < 2));
            CHECK(replica_holds(c.hashes[0]) == (sent > 0));
            CHECK(replica_holds(c.hashes[1]) == (sent > 1));
        }
}

// ---------------------------------------------------------------------------------------
// Tiles that are not worth a slot

// A session whose viewer keeps the first two of a crowd, with the third tile still black.
static const crowd &start_crowded(uint16_t caps = CAP_TILE_CACHE)
{
    const crowd &c = crowds()[0];
    start(256, 64, caps);
    fill(tile_rect(0, 0), c.colours[0]);
    fill(tile_rect(1, 0), c.colours[1]);
    CHECK(count_type(step(), MSG_TILE) == 2);
    return c;
}

static void change(int32_t tx, int times, test_random *random)
{
    for (int i = 0; i < times; i++) {
        fill_noise(tile_rect(tx, 0), random);
        REQUIRE(only_tile(step()).hash != 0); // no set of its tiles is full
    }
}

TEST_CASE("a tile that always changes goes without its hash where its set is full")
{
    struct {
        const char *what;
        int changes; // in frames before
        uint32_t age_ms;
        bool keeps;
        uint16_t caps;
        bool kept;
    } rows[] = {
        {"always", 5, 0, true, CAP_TILE_CACHE, false},
        {"for a long time", 30, 0, true, CAP_TILE_CACHE, false},
        {"for a short time", 4, 0, true, CAP_TILE_CACHE, true},
        {"its set just recent enough", 5, 600000 - 1, true, CAP_TILE_CACHE, false},
        {"its set out of use", 5, 600000, true, CAP_TILE_CACHE, true},
        {"without the replica", 5, 0, false, CAP_TILE_CACHE, true},
        {"for a viewer without a cache", 5, 0, true, 0, true},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        keeps_replica = row.keeps;
        test_random random = {5};
        const crowd &c = start_crowded(row.caps);
        change(2, row.changes, &random);
        clock_script_now += row.age_ms;
        fill(tile_rect(2, 0), c.colours[2]);
        tile_head head = only_tile(step());
        CHECK(head.hash == (row.kept ? c.hashes[2] : 0));
        CHECK(mirror_holds(c.hashes[2]) == (row.kept && row.caps != 0));
        CHECK(replica_holds(c.hashes[2]) == (row.kept && row.caps != 0));
        CHECK(picture_right());
    }
    keeps_replica = true;
}

TEST_CASE("a tile that always changes is still sent as a reference where that serves")
{
    test_random random = {6};
    const crowd &c = start_crowded();
    change(2, 8, &random);
    fill(tile_rect(2, 0), c.colours[1]);
    CHECK(count_type(step(), MSG_TILE_REF) == 1);
}

TEST_CASE("frames in which something changed are what a tile's changes are counted in")
{
    // With frames between that have only the pointer; with frames that have another tile.
    for (bool pointer : {true, false}) {
        CAPTURE(pointer);
        test_random random = {7};
        const crowd &c = start_crowded();
        for (int i = 0; i < 5; i++) {
            change(2, 1, &random);
            if (pointer) {
                cursor_script_now.x++;
                CHECK(count_type(step(), MSG_CURSOR) == 1);
            } else {
                change(3, 1, &random);
            }
        }
        fill(tile_rect(2, 0), c.colours[2]);
        CHECK(only_tile(step()).hash == (pointer ? 0 : c.hashes[2]));
    }
}

TEST_CASE("where frames do not take all that changes each tile's turn is counted")
{
    test_random random = {8};
    const crowd &c = crowds()[0];
    start(512, 192); // 24 tiles
    fill(tile_rect(0, 0), c.colours[0]);
    fill(tile_rect(1, 0), c.colours[1]);
    step();
    // Of (0, 0) that was the first change. It comes first in every turn, of three frames.
    for (uint32_t turn = 2; turn <= 6; turn++)
        for (int frame = 0; frame < 3; frame++) {
            CAPTURE(turn);
            fill_noise(whole(), &random);
            if (frame == 0 && turn >= 5)
                fill(tile_rect(0, 0), c.colours[turn - 3]);
            session.estimator.tile_budget = 8;
            session.tile_budget = 8;
            std::vector<tile_ref> tiles = tiles_in(step());
            REQUIRE(tiles.size() == 8);
            CHECK((tiles[0].tile_x == 0 && tiles[0].tile_y == frame));
            if (frame == 0 && turn >= 5)
                CHECK(tiles[0].hash == (turn == 5 ? c.hashes[2] : 0));
        }
}

// ---------------------------------------------------------------------------------------
// What it is good for

static void draw_screen(uint64_t seed)
{
    test_random random = {seed};
    for (int32_t ty = 0; ty < tiles_for(desktop.height); ty++)
        for (int32_t tx = 0; tx < tiles_for(desktop.width); tx++) {
            int32_t bottom = ty * 64 + 64 < desktop.height ? ty * 64 + 64 : desktop.height;
            fill({tx * 64, ty * 64, tx * 64 + 64, bottom}, 0x00F0F0F0);
            for (int i = 0; i < 40; i++) {
                int32_t x = tx * 64 + (int32_t)random.below(48);
                int32_t y = ty * 64 + (int32_t)random.below((uint64_t)(bottom - ty * 64));
                fill({x, y, x + 1 + (int32_t)random.below(16), y + 1}, 0x00202020);
            }
        }
    desktop.dirty.assign(1, whole());
}

// Steps until nothing is left to send; the bytes that it took.
static size_t show()
{
    size_t bytes = 0;
    for (int still = 0; still < 3; still++) {
        if (!step().empty()) {
            still = 0;
            bytes += flush_records[0].size();
        }
        clock_script_now += 33;
    }
    REQUIRE(picture_right());
    return bytes;
}

// Every tile of a window changes in each of so many frames, and is never twice the same.
static void play_video(int frames)
{
    uint32_t n = 0;
    for (int frame = 0; frame < frames; frame++) {
        for (int32_t ty = 4; ty < 12; ty++)
            for (int32_t tx = 8; tx < 23; tx++)
                fill({tx * 64, ty * 64, tx * 64 + 64, ty * 64 + 1}, ++n);
        step();
        clock_script_now += 33;
    }
}

TEST_CASE("four screens are back after 200 frames of video for an eighth of what they cost")
{
    for (bool keeps : {false, true}) {
        keeps_replica = keeps;
        start(1920, 1080);
        viewer.by_rules = true;
        for (uint64_t i = 1; i <= 4; i++) {
            draw_screen(i);
            show();
        }
        std::map<uint64_t, std::vector<uint8_t>> before = viewer.cache;
        report_miss({99, 99, 12345}); // a session that has had its first
        play_video(200);
        size_t stayed = 0;
        for (const auto &[hash, tile] : before)
            stayed += viewer.cache.count(hash);
        if (!keeps) {
            CHECK(stayed * 20 < before.size()); // all but lost: they would be sent as new
            continue;
        }
        size_t bytes_new = 0, bytes_back = 0;
        for (uint64_t i = 1; i <= 4; i++) {
            draw_screen(i);
            bytes_back += show();
        }
        for (uint64_t i = 1; i <= 4; i++) {
            draw_screen(100 + i);
            bytes_new += show();
        }
        CHECK(bytes_back * 8 <= bytes_new);
        MESSAGE(before.size() << " tiles, " << stayed << " stayed; " << bytes_back
                              << " bytes, new " << bytes_new);
    }
    keeps_replica = true;
}
