// Intra tiles in the frame pipeline, on a simulated line, with the product's own decoder and
// tile cache behind it.
//
// Fakes: capture_script cursor_script flush_record input_record server_log_record
// Fakes: console_script host_switches window_list_script
// Fakes: viewer_channel_memory window_posts cache_disk_memory
#include "host/cache_mirror.h"
#include "host/intra_tile.h"
#include "host/tile_hash.h"
#include "tests/fakes/viewer_channel_memory.h"
#include "tests/host/line_session.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"

#include <string>

using viewer::tile_cache;

// ---------------------------------------------------------------------------------------
// The viewer

constexpr uint64_t ROUND_TRIP = 100 * MS;

// What the viewer was sent, a letter a message: z the tile of zeros taught, i an intra tile
// (both messages), r another reference, d a difference, p pixels, h a difference with hash 0
// that follows no reference, m moves. Frame by frame.
static std::vector<std::string> frames_sent;
static std::vector<tile_head> tiles_sent; // of those that are tiles, in order

static std::string letters_of(const std::vector<model_message> &messages)
{
    std::string letters;
    bool zeros_below = false; // the last message put them there
    tile_ref last = {};
    for (const model_message &m : messages) {
        bool zeros = false;
        if (m.type == MSG_TILE_REF) {
            last = get_tile_ref(m.payload.data());
            zeros = last.hash == intra_zero_hash();
            letters += 'r';
        } else if (m.type == MSG_TILE) {
            tile_head head = get_tile_head(m.payload.data());
            tiles_sent.push_back(head);
            bool on_top =
                zeros_below && head.tile_x == last.tile_x && head.tile_y == last.tile_y;
            if (head.hash == 0 && on_top) {
                REQUIRE(head.raw == 0);
                letters.back() = 'i';
            } else {
                letters += head.hash == intra_zero_hash() ? 'z'
                           : head.raw != 0                ? 'p'
                           : head.hash == 0               ? 'h'
                                                          : 'd';
            }
        } else if (m.type == MSG_COPY_RECTS) {
            letters += 'm';
        }
        zeros_below = zeros;
    }
    return letters;
}

static line_answer viewer_draws(const std::vector<uint8_t> &record)
{
    memory_reset();
    std::vector<model_message> messages = model_split(record);
    frames_sent.push_back(letters_of(messages));
    for (model_message &m : messages) {
        uint32_t length = (uint32_t)m.payload.size();
        if (m.payload.size() < 8)
            m.payload.resize(8);
        lock_enter(&viewer::frame_lock);
        viewer::frame_apply(m.type, m.payload.data(), length);
        lock_leave(&viewer::frame_lock);
    }
    line_answer said = {};
    for (const std::vector<uint8_t> &answer : memory_sent) {
        if (get_header(answer.data()).type == MSG_CACHE_MISS)
            said.misses.push_back(get_tile_ref(answer.data() + MESSAGE_HEADER_BYTES));
        else
            said.stamp = get_frame_stamp(answer.data() + MESSAGE_HEADER_BYTES);
    }
    return said;
}

// The viewer's cache and picture: one thread, which needs no lock.
static viewer::tile_cache_record &cache() NO_THREAD_SAFETY_ANALYSIS
{
    return tile_cache;
}

static bool viewer_right() NO_THREAD_SAFETY_ANALYSIS
{
    const viewer::frame_record &frame = viewer::frame;
    return desktop_shown(frame.frame_pixels, (size_t)frame.frame_stride * 4,
                         frame.frame_stride / 64, frame.frame_rows / 64);
}

// Whether each key in the viewer's cache is the hash of its tile.
static bool cache_right()
{
    for (size_t slot = 0; slot < cache().cache_capacity && cache().cache_enabled; slot++)
        if (cache().cache_keys[slot] != 0 &&
            tile_hash(cache().cache_tiles + slot * TILE_BYTES) != cache().cache_keys[slot])
            return false;
    return true;
}

static bool cache_holds(uint64_t hash)
{
    size_t set = hash % (viewer::CACHE_CAPACITY / 2);
    return cache().cache_keys[2 * set] == hash || cache().cache_keys[2 * set + 1] == hash;
}

// The viewer drops a tile without having to.
static void cache_drop(uint64_t hash)
{
    REQUIRE(cache_holds(hash));
    size_t set = hash % (viewer::CACHE_CAPACITY / 2);
    cache().cache_keys[2 * set + (cache().cache_keys[2 * set] != hash)] = 0;
}

static bool mirror_holds(uint64_t hash)
{
    lock_enter(&host_lock);
    bool holds = cache_mirror_find(hash);
    lock_leave(&host_lock);
    return holds;
}

static tile_base base_of(int32_t tx, int32_t ty) NO_THREAD_SAFETY_ANALYSIS
{
    return screen.bases[(size_t)ty * (size_t)screen.tiles_x + (size_t)tx];
}

// ---------------------------------------------------------------------------------------
// The screen

// What is all different, so that nothing is a worse base for anything else.
static void draw_grain(int32_t tx, int32_t ty)
{
    draw_noise(tile_rect(tx, ty));
}

// Stripes of colours that no other tile has: this repeats itself, and its difference from
// grain does not.
static void draw_stripes(int32_t tx, int32_t ty)
{
    static uint32_t number;
    number += 0x010205;
    rect r = tile_rect(tx, ty);
    for (int32_t y = r.top; y < r.bottom; y++)
        fill({r.left, y, r.right, y + 1}, 0xFF000000 | (number + (uint32_t)(y % 5) * 0x2F1D));
}

static uint64_t hash_at(int32_t tx, int32_t ty)
{
    std::vector<uint8_t> tile;
    for (int32_t y = ty * 64; y < ty * 64 + 64; y++)
        tile.insert(tile.end(), desktop_at(tx * 64, y), desktop_at(tx * 64, y) + 256);
    return tile_hash(tile.data());
}

constexpr int32_t WIDTH = 640, HEIGHT = 384;

// A session on a slow line, whose screen is black.
static void open_session(uint16_t caps = CAP_TILE_CACHE)
{
    lock_init(&viewer::frame_lock);
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache_close();
    lock_leave(&viewer::frame_lock);
    start(WIDTH, HEIGHT, 625000, ROUND_TRIP, caps);
    sends_intra = true;
    keeps_replica = false; // nothing is taught to the viewer's cache while the line rests
    REQUIRE(viewer::frame_open(WIDTH, HEIGHT));
    if ((caps & CAP_TILE_CACHE) != 0)
        viewer::tile_cache_open();
    viewer_takes = viewer_draws;
    frames_sent.clear();
    tiles_sent.clear();
}

// The same at rest and white, which took references, with grain in some tiles.
static void open_proven()
{
    open_session();
    fill(whole(), 0xFFFFFFFF);
    run_for(2 * SECOND);
    for (int32_t tx = 0; tx < 5; tx++)
        draw_grain(tx, 2);
    run_for(2 * SECOND);
    REQUIRE(viewer_right());
    frames_sent.clear();
    tiles_sent.clear();
}

// Runs until the next frames are at the viewer and answered; returns what they were.
static std::string run_and_tell()
{
    frames_sent.clear();
    run_for(SECOND);
    CHECK(viewer_right());
    CHECK(cache_right());
    std::string all;
    for (const std::string &frame : frames_sent)
        all += frame;
    return all;
}

// Until the next frame is under way.
static void run_until_sent()
{
    uint32_t before = frame_seq;
    while (frame_seq == before)
        REQUIRE(frame_pipeline_step(&session));
}

// ---------------------------------------------------------------------------------------

TEST_CASE("a session teaches the tile of zeros once, where the viewer still shows zeros")
{
    open_session();
    fill(whole(), 0xFFFFFFFF);
    std::string sent = run_and_tell();
    CHECK(sent == "zd" + std::string(59, 'r'));
    CHECK(tiles_sent[0].tile_x == tiles_sent[1].tile_x);
    CHECK(tiles_sent[0].raw == 0);
    CHECK(mirror_holds(intra_zero_hash()));
    CHECK(cache_holds(intra_zero_hash()));
    fill(whole(), 0xFF123456);
    CHECK(run_and_tell() == "d" + std::string(59, 'r'));
}

TEST_CASE("what repeats itself and its difference does not goes as an intra tile")
{
    open_proven();
    draw_stripes(2, 2);
    uint64_t hash = hash_at(2, 2);
    run_until_sent();
    tile_base base = base_of(2, 2);
    CHECK(base.base_state == BASE_PENDING);
    CHECK(base.ref_seq == frame_seq);
    CHECK(base.base_blank == 0);
    CHECK(base.must_send == 0);
    CHECK(tile_base_uncertain(base, session.confirmed_seq));
    CHECK(run_and_tell() == "i");
    CHECK(tiles_sent.size() == 1);
    CHECK_FALSE(tile_base_uncertain(base_of(2, 2), session.confirmed_seq));
    // Nobody keeps it.
    CHECK_FALSE(mirror_holds(hash));
    CHECK_FALSE(cache_holds(hash));

    // Acknowledged, it is a base like any other.
    fill({150, 150, 160, 160}, RED);
    CHECK(run_and_tell() == "d");
}

TEST_CASE("when the line rests the viewer's cache is taught what came as an intra tile")
{
    open_proven();
    keeps_replica = true;
    draw_stripes(2, 2);
    CHECK(run_and_tell() == "id");
    CHECK(tiles_sent[1].tile_x == 2);
    CHECK(tiles_sent[1].tile_y == 2);
    CHECK(tiles_sent[1].hash == hash_at(2, 2));
    CHECK(cache_holds(hash_at(2, 2)));
    CHECK(mirror_holds(hash_at(2, 2)));
}

TEST_CASE("what does not repeat itself more than its difference goes as a difference")
{
    open_proven();
    draw_grain(7, 3); // grain over white
    CHECK(run_and_tell() == "p");
    draw_stripes(8, 4); // over white: both repeat themselves
    CHECK(run_and_tell() == "d");
    // Grain with a little of something else in more than four of its sixteen cells: not small,
    // and most of the difference is black.
    fill({2 * 64, 2 * 64 + 30, 3 * 64, 2 * 64 + 34}, RED);
    CHECK(run_and_tell() == "d");
}

// Each without one of the conditions.
TEST_CASE("no tile is sent intra otherwise")
{
    for (const char *without : {"switch", "line", "cache", "proof", "place", "change"}) {
        CAPTURE(without);
        auto is = [&](const char *what) { return std::string(without) == what; };
        open_session(is("cache") ? 0 : CAP_TILE_CACHE);
        sends_intra = !is("switch");
        paces_bytes = !is("line");
        // Without two tiles that are the same there is no reference that could prove anything.
        if (is("proof"))
            for (int32_t tile = 0; tile < 60; tile++)
                draw_stripes(tile % 10, tile / 10);
        else
            fill(whole(), 0xFFFFFFFF);
        run_for(4 * SECOND);
        draw_grain(2, 2);
        run_for(SECOND);
        if (is("place")) { // the viewer is thought to have let go of the zeros
            lock_enter(&host_lock);
            cache_mirror_remove(intra_zero_hash());
            lock_leave(&host_lock);
        }
        if (is("change"))
            fill({128, 128, 160, 160}, RED);
        else
            draw_stripes(2, 2);
        // The zeros are taught where intra tiles may follow.
        std::string all;
        for (const std::string &frame : frames_sent)
            all += frame;
        bool may_follow = !is("switch") && !is("line") && !is("cache");
        CHECK((all.find('z') != std::string::npos) == may_follow);
        std::string sent = run_and_tell();
        CHECK(sent.find('i') == std::string::npos);
        // What it is instead: the zeros are taught again where they are missing.
        CHECK(sent == (is("place") ? "zd" : is("change") ? "d" : "p"));
    }
    sends_intra = true;
}

TEST_CASE("zeros that were taught late are used when their frame is acknowledged")
{
    open_proven();
    lock_enter(&host_lock);
    cache_mirror_remove(intra_zero_hash());
    lock_leave(&host_lock);
    frames_sent.clear();
    draw_stripes(0, 2);
    run_until_sent();
    uint32_t taught = frame_seq;
    draw_stripes(1, 2);
    run_until_sent();
    CHECK(session.confirmed_seq != taught);
    run_for(SECOND);
    draw_stripes(2, 2);
    run_for(SECOND);
    CHECK(viewer_right());
    CHECK(frames_sent == std::vector<std::string>{"zd", "p", "i"});
}

// Puts a tile of grain on the screen and into the cache that shares the set of the zeros.
static void crowd_zeros(int32_t tx, int32_t ty)
{
    draw_grain(tx, ty);
    uint32_t pixel = 0;
    while (hash_at(tx, ty) % 4096 != intra_zero_hash() % 4096)
        store_le32(desktop_at(tx * 64, ty * 64), ++pixel);
    run_for(SECOND);
}

TEST_CASE("zeros that the viewer had to let go of are taught again, and used again")
{
    open_proven();
    crowd_zeros(5, 4);
    CHECK(cache_holds(intra_zero_hash()));
    crowd_zeros(6, 4); // a set holds two
    CHECK_FALSE(cache_holds(intra_zero_hash()));
    CHECK(mirror_holds(intra_zero_hash()));
    draw_stripes(0, 2);
    CHECK(run_and_tell() == "zd");
    CHECK(cache_holds(intra_zero_hash()));
    draw_stripes(1, 2);
    CHECK(run_and_tell() == "i");
}

TEST_CASE("zeros that were used stay longer in the viewer's cache")
{
    open_proven();
    crowd_zeros(5, 4); // the zeros would be next to go
    draw_stripes(0, 2);
    CHECK(run_and_tell() == "i"); // now the other is
    crowd_zeros(6, 4);
    CHECK(cache_holds(intra_zero_hash()));
    draw_stripes(1, 2);
    CHECK(run_and_tell() == "i");
}

TEST_CASE("while the screen is in motion no tile goes intra, nor for half a second after")
{
    static const struct {
        int32_t moved;   // pixels wide, 64 high
        uint64_t after;  // until the stripes are there
        int32_t stripes; // tiles of them
        const char *sent;
    } rows[] = {
        {128, 0, 4, "mpppp"},    {64, 0, 4, "mpppp"}, // a quarter of what is left
        {63, 0, 4, "miiii"},     {128, 300 * MS, 4, "pppp"},
        {128, 490 * MS, 1, "p"}, {128, 600 * MS, 4, "iiii"},
    };
    for (const auto &row : rows) {
        CAPTURE(row.moved);
        CAPTURE(row.after);
        open_proven();
        // White to white, so that nothing is left of it.
        move_block({0, 0, 64, 0, row.moved, 64});
        if (row.after != 0) {
            run_for(row.after);
            frames_sent.clear();
        }
        for (int32_t tx = 0; tx < row.stripes; tx++)
            draw_stripes(tx, 2);
        CHECK(run_and_tell() == row.sent);
    }
}

// ---------------------------------------------------------------------------------------
// Tiles in doubt

TEST_CASE("a tile in doubt goes intra in place of its pixels, if it compresses")
{
    open_proven();
    // A reference is under way: white.
    draw_grain(2, 3);
    run_for(SECOND);
    frames_sent.clear();
    fill(tile_rect(2, 3), 0xFFFFFFFF);
    run_until_sent();
    REQUIRE(base_of(2, 3).base_state == BASE_PENDING);
    draw_stripes(2, 3);
    run_until_sent();
    uint32_t seq = frame_seq;
    CHECK(base_of(2, 3).ref_seq == seq);
    // The intra tile is under way: others.
    draw_stripes(2, 3);
    run_until_sent();
    CHECK(base_of(2, 3).ref_seq == seq + 1);
    draw_grain(2, 3);
    run_until_sent();
    CHECK(base_of(2, 3).base_state == BASE_KNOWN);
    run_for(SECOND);
    CHECK(frames_sent == std::vector<std::string>{"r", "i", "i", "p"});
    CHECK(viewer_right());
    CHECK(mirror_holds(hash_at(2, 3))); // what went as pixels is kept

    // Lost: the viewer claims to have missed what nobody referred to, and to lack it.
    for (bool compresses : {true, false}) {
        compresses ? draw_stripes(3, 2) : draw_grain(3, 2);
        run_for(SECOND);
        uint8_t miss[CACHE_MISS_BYTES];
        put_tile_ref(miss, {3, 2, hash_at(3, 2)});
        control_message(&session, MSG_CACHE_MISS, miss, sizeof miss);
        REQUIRE(base_of(3, 2).base_state == BASE_LOST);
        CHECK(run_and_tell() == (compresses ? "i" : "p"));
    }
}

TEST_CASE("a tile in doubt that hardly changed waits for its acknowledgement")
{
    for (bool silent : {false, true}) {
        CAPTURE(silent);
        open_proven();
        // Something else goes on, so that there are acknowledgements.
        bool goes_on = true;
        std::function<void()> blink = [&] {
            if (!goes_on)
                return;
            fill(tile_rect(9, 0), 0xFF000000 | (uint32_t)random_pixels.below(0xFFFFFF));
            at(now_us + 20 * MS, blink);
        };
        blink();
        run_for(SECOND);
        draw_stripes(2, 2);
        uint32_t seq = frame_seq;
        while (base_of(2, 2).base_state != BASE_PENDING)
            run_until_sent();
        uint32_t pending = base_of(2, 2).ref_seq;
        CHECK(pending > seq);
        line.silent = silent;
        uint64_t then = now_us;
        fill({140, 140, 150, 150}, RED);
        while (screen.dirty_map[2 * 10 + 2] != 0 || base_of(2, 2).ref_seq == pending) {
            if (base_of(2, 2).base_state == BASE_KNOWN)
                break;
            REQUIRE(frame_pipeline_step(&session));
        }
        // A round trip later as a difference, or when it took too long as another intra tile.
        CHECK(now_us - then >= (silent ? 500 * MS : 90 * MS));
        CHECK(now_us - then < (silent ? 3 * SECOND : 250 * MS));
        CHECK(base_of(2, 2).base_state == (silent ? BASE_PENDING : BASE_KNOWN));
        line.silent = false;
        goes_on = false;
        run_for(3 * SECOND);
        CHECK(viewer_right());
    }
}

TEST_CASE("a tile in doubt that shows something new does not wait")
{
    open_proven();
    std::function<void()> blink = [&] {
        fill(tile_rect(9, 0), 0xFF000000 | (uint32_t)random_pixels.below(0xFFFFFF));
        at(now_us + 20 * MS, blink);
    };
    // Grain, white and the same grain again, which is now a reference.
    std::vector<uint8_t> grain;
    for (int32_t y = 128; y < 192; y++)
        grain.insert(grain.end(), desktop_at(128, y), desktop_at(128, y) + 256);
    fill(tile_rect(2, 2), 0xFFFFFFFF);
    blink();
    run_for(SECOND);
    for (int32_t y = 0; y < 64; y++)
        memcpy(desktop_at(128, 128 + y), &grain[(size_t)y * 256], 256);
    desktop.dirty.push_back(tile_rect(2, 2));
    while (base_of(2, 2).base_state != BASE_PENDING ||
           !tile_base_uncertain(base_of(2, 2), session.confirmed_seq))
        run_until_sent();
    uint32_t pending = base_of(2, 2).ref_seq;
    draw_stripes(2, 2);
    uint64_t then = now_us;
    while (base_of(2, 2).base_state == BASE_PENDING && base_of(2, 2).ref_seq == pending)
        REQUIRE(frame_pipeline_step(&session));
    CHECK(now_us - then < 80 * MS); // less than the round trip
    CHECK(base_of(2, 2).base_state == BASE_PENDING);
    blink = [] {};
    run_for(SECOND);
    CHECK(viewer_right());
}

TEST_CASE("an intra tile is all that a tile needs that has to be sent")
{
    open_proven();
    draw_stripes(2, 2);
    run_for(SECOND);
    desktop.restarted = true;
    std::string sent = run_and_tell();
    for (int32_t ty = 0; ty < 6; ty++)
        for (int32_t tx = 0; tx < 10; tx++)
            CHECK(base_of(tx, ty).must_send == 0);
    // All of the screen, most of it known to the viewer; of the stripes the difference, which
    // is black, is shorter.
    CHECK(std::count(sent.begin(), sent.end(), 'r') == 59);
    CHECK(std::count(sent.begin(), sent.end(), 'd') == 1);
    // In doubt besides.
    desktop.restarted = true;
    fill(tile_rect(8, 4), 0xFFFFFFFF);
    run_until_sent();
    REQUIRE(base_of(8, 4).base_state == BASE_PENDING);
    draw_stripes(8, 4);
    desktop.restarted = true;
    sent = run_and_tell();
    CHECK(std::count(sent.begin(), sent.end(), 'i') >= 1);
    CHECK(base_of(8, 4).must_send == 0);
}

// A cartoon: a new scene every second, in which something small moves in each tile, 30 pictures
// a second. Were tiles in doubt sent whole with each of these, they would never be out of it.
TEST_CASE("what changes a little all the time does not go whole because it is in doubt")
{
    uint64_t bytes[2];
    for (bool intra : {false, true}) {
        open_proven();
        sends_intra = intra;
        uint64_t before = line.bytes;
        int32_t picture = 0;
        std::function<void()> play = [&] {
            for (int32_t ty = 0; ty < 3; ty++)
                for (int32_t tx = 0; tx < 3; tx++) {
                    if (picture % 60 == 0)
                        draw_grain(tx, ty);
                    if (picture % 60 == 30)
                        draw_stripes(tx, ty);
                    int32_t x = tx * 64 + picture % 30, y = ty * 64 + 20;
                    fill({x, y, x + 24, y + 24}, 0xFF000000 | (uint32_t)picture << 9);
                }
            if (++picture < 300)
                at(now_us + 33 * MS, play);
        };
        play();
        run_for(12 * SECOND);
        CHECK(picture == 300);
        CHECK(viewer_right());
        CHECK(cache_right());
        bytes[intra] = line.bytes - before;
        std::string all;
        for (const std::string &frame : frames_sent)
            all += frame;
        CHECK((all.find('i') != std::string::npos) == intra);
    }
    sends_intra = true;
    MESSAGE(bytes[true] << " bytes, without intra tiles " << bytes[false]);
    CHECK(bytes[true] <= bytes[false]);
}

// ---------------------------------------------------------------------------------------
// Viewers that do not hold what they should

// Whether anything that now would go intra does.
static bool goes_intra_still()
{
    draw_grain(9, 5);
    run_for(SECOND);
    draw_stripes(9, 5);
    return run_and_tell().find('i') != std::string::npos;
}

TEST_CASE("a viewer that lets go of the zeros is sent pixels, and no intra tile any more")
{
    open_proven();
    draw_stripes(2, 2);
    CHECK(run_and_tell() == "i");
    cache_drop(intra_zero_hash());
    draw_stripes(3, 2);
    draw_stripes(1, 2);
    std::string sent = run_and_tell(); // which finds picture and cache right
    CHECK(sent == "iipp");
    CHECK_FALSE(mirror_holds(intra_zero_hash()));
    CHECK_FALSE(goes_intra_still());
    // A black tile puts the zeros back.
    fill(tile_rect(9, 5), 0);
    run_for(SECOND);
    CHECK(mirror_holds(intra_zero_hash()));
    CHECK_FALSE(goes_intra_still());
    // Another session is another viewer.
    open_proven();
    CHECK(goes_intra_still());
}

TEST_CASE("what was sent on top of a miss is put right, whatever the tile shows by then")
{
    enum { STRIPES, GRAIN, BLACK, WHITE, NOTHING };
    for (int then : {STRIPES, GRAIN, BLACK, WHITE, NOTHING})
        for (bool blank : {false, true}) {
            CAPTURE(then);
            CAPTURE(blank);
            open_session();
            fill({0, 0, 640, 128}, 0xFFFFFFFF); // the rest stays blank
            run_for(2 * SECOND);
            int32_t ty = blank ? 3 : 1;
            if (!blank) {
                draw_grain(2, ty);
                run_for(SECOND);
            }
            cache_drop(intra_zero_hash());
            frames_sent.clear();
            if (blank) { // in doubt, or stripes over zeros would go as a difference
                fill(tile_rect(2, ty), 0xFFFFFFFF);
                run_until_sent();
                REQUIRE(base_of(2, ty).base_state == BASE_PENDING);
                REQUIRE(base_of(2, ty).base_blank == 1);
            }
            draw_stripes(2, ty);
            run_until_sent();
            CHECK(base_of(2, ty).base_blank == 0);
            switch (then) {
            case STRIPES:
                draw_stripes(2, ty);
                break;
            case GRAIN:
                draw_grain(2, ty);
                break;
            case BLACK:
                fill(tile_rect(2, ty), 0);
                break;
            case WHITE:
                fill(tile_rect(2, ty), 0xFFFFFFFF);
                break;
            default:
                break;
            }
            run_for(3 * SECOND);
            CHECK(viewer_right());
            CHECK(cache_right());
            CHECK(std::count(frames_sent[blank].begin(), frames_sent[blank].end(), 'i') == 1);
        }
}

TEST_CASE("a viewer without a cache that asked for one gets no intra tile")
{
    open_session();
    keeps_replica = true; // which soon refers to nothing any more
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache_close();
    lock_leave(&viewer::frame_lock);
    fill(whole(), 0xFFFFFFFF);
    run_for(4 * SECOND);
    CHECK(viewer_right());
    draw_grain(2, 2);
    run_for(SECOND);
    for (int32_t n = 0; n < 10; n++)
        CHECK_FALSE(goes_intra_still());
}

// ---------------------------------------------------------------------------------------
// Limits

TEST_CASE("an intra tile counts as one tile, and as no reference")
{
    open_proven();
    while (frame_seq % 200 != 0) {
        fill({0, 0, 8, 8}, 0xFF000000 | frame_seq);
        run_for(50 * MS);
    }
    run_for(SECOND);
    REQUIRE(frame_seq % 200 == 0);
    server_log_clear();
    draw_stripes(2, 2);
    run_until_sent();
    std::string expected = "frame " + std::to_string(frame_seq) + ": 1 tiles (0 as refs), ";
    bool found = false;
    for (const std::string &logged : server_log_lines())
        found = found || logged.compare(0, expected.size(), expected) == 0;
    CHECK(found);
    CHECK(run_and_tell() == "i");
}

// 16,424 bytes for the pair, 17 for the pointer, 16 for the frame's end.
TEST_CASE("a frame takes an intra tile only if the longest would fit")
{
    for (uint64_t room : {16424u + 17 + 16, 16424u + 17 + 16 - 1}) {
        CAPTURE(room);
        open_proven();
        std::vector<uint8_t> message(16777216 - (size_t)room);
        put_header(message.data(), MSG_WINDOW_LIST, (uint32_t)message.size() - 8);
        out_append(message.data(), message.size());
        draw_stripes(2, 2);
        uint32_t before = frame_seq;
        for (uint64_t end = now_us + SECOND; now_us < end && frame_seq == before;)
            REQUIRE(frame_pipeline_step(&session));
        bool fits = room == 16424 + 17 + 16;
        CHECK((frame_seq != before) == fits);
        CHECK((screen.dirty_map[2 * 10 + 2] == 0) == fits);
        out_reset();
    }
}
