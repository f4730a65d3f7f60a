// Moves found in two pictures: the right ones to the pixel where it can be said which they are,
// and whatever the pictures show, only moves that a viewer can make.
#include "host/move_search.h"
#include "tests/test.h"

#include <memory>
#include <string.h>
#include <vector>

using namespace host;

// ---------------------------------------------------------------------------------------
// Two pictures

struct rect {
    int32_t left, top, right, bottom;
};

static bool operator==(const rect &a, const rect &b)
{
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

struct image {
    int32_t width, height, padded_width, padded_height;
    std::vector<uint32_t> pixels; // rows of padded_width; the padding stays 0

    image(int32_t w, int32_t h, int32_t more_columns = 0)
        : width(w), height(h), padded_width(pad_to_tile(w) + more_columns * TILE_SIZE),
          padded_height(pad_to_tile(h)), pixels((size_t)padded_width * (size_t)padded_height, 0)
    {
    }
    uint32_t &at(int32_t x, int32_t y)
    {
        return pixels[(size_t)y * (size_t)padded_width + (size_t)x];
    }
    uint32_t at(int32_t x, int32_t y) const
    {
        return pixels[(size_t)y * (size_t)padded_width + (size_t)x];
    }
};

static rect whole(const image &p)
{
    return {0, 0, p.width, p.height};
}

static void fill(image *p, rect r, uint32_t colour)
{
    for (int32_t y = r.top; y < r.bottom; y++)
        for (int32_t x = r.left; x < r.right; x++)
            p->at(x, y) = colour;
}

static void noise(image *p, rect r, uint64_t seed)
{
    test_random random = {seed * 2 + 1};
    for (int32_t y = r.top; y < r.bottom; y++)
        for (int32_t x = r.left; x < r.right; x++)
            p->at(x, y) = (uint32_t)random.next();
}

// A point of an endless page: lines of words, dark on white, two colours only.
static uint32_t page_pixel(int32_t x, int32_t y, uint32_t which)
{
    int32_t line = y >= 0 ? y / 20 : (y - 19) / 20, row = y - line * 20;
    uint32_t word =
        ((uint32_t)line * 7919u + (uint32_t)(x / 9) * 104729u + which) * 2654435761u;
    if (row < 4 || row > 15 || word >> 29 == 0)
        return 0xFFFFFFFF;
    uint32_t dot =
        (word ^ (uint32_t)(x % 9 / 2) * 40503u ^ (uint32_t)(row / 2) * 30011u) * 2246822519u;
    return dot >> 30 == 0 ? 0xFF202020 : 0xFFFFFFFF;
}

// The page in a rectangle, of which the left upper corner shows (at_x, at_y).
static void page(image *p, rect r, int32_t at_x, int32_t at_y, uint32_t which)
{
    for (int32_t y = r.top; y < r.bottom; y++)
        for (int32_t x = r.left; x < r.right; x++)
            p->at(x, y) = page_pixel(at_x + x - r.left, at_y + y - r.top, which);
}

static void copy(image *to, const image &from, rect r, int32_t dx, int32_t dy)
{
    for (int32_t y = r.top; y < r.bottom; y++)
        for (int32_t x = r.left; x < r.right; x++)
            to->at(x + dx, y + dy) = from.at(x, y);
}

// ---------------------------------------------------------------------------------------
// One search

struct result {
    std::vector<copy_rect> moves;
    image before; // as the search left it
};

static std::unique_ptr<move_search> new_search()
{
    return std::make_unique<move_search>();
}

static bool tile_differs(const image &a, const image &b, int32_t tx, int32_t ty)
{
    for (int32_t y = ty * TILE_SIZE; y < (ty + 1) * TILE_SIZE; y++)
        for (int32_t x = tx * TILE_SIZE; x < (tx + 1) * TILE_SIZE; x++)
            if (a.at(x, y) != b.at(x, y))
                return true;
    return false;
}

static std::vector<move_tile> tiles_of(const image &before, const image &now)
{
    std::vector<move_tile> tiles;
    for (int32_t ty = 0; ty < tiles_for(now.height); ty++)
        for (int32_t tx = 0; tx < tiles_for(now.width); tx++) {
            move_tile tile = {};
            tile.changed = tile_differs(before, now, tx, ty);
            tiles.push_back(tile);
        }
    return tiles;
}

static result search_tiles(move_search *search, const image &before, const image &now,
                           std::vector<move_tile> tiles)
{
    result found = {{}, before};
    copy_rect moves[MOVES_FOUND_MAX];
    move_pictures pictures = {(const uint8_t *)now.pixels.data(),
                              (uint8_t *)found.before.pixels.data(), now.width, now.height,
                              now.padded_width};
    int32_t count = move_search_frame(search, pictures, tiles.data(), moves);
    REQUIRE(count >= 0);
    REQUIRE(count <= MOVES_FOUND_MAX);
    found.moves.assign(moves, moves + count);
    return found;
}

static result search_in(move_search *search, const image &before, const image &now)
{
    return search_tiles(search, before, now, tiles_of(before, now));
}

static result search_once(const image &before, const image &now)
{
    return search_in(new_search().get(), before, now);
}

static rect destination(const copy_rect &m)
{
    return {m.dst_x, m.dst_y, m.dst_x + m.w, m.dst_y + m.h};
}

static bool moves_by(const copy_rect &m, int32_t dx, int32_t dy)
{
    return m.dst_x - m.src_x == dx && m.dst_y - m.src_y == dy;
}

// What a viewer that follows the moves shows: each source read whole before anything is
// written.
static void apply(image *p, const copy_rect &m)
{
    std::vector<uint32_t> kept;
    for (int32_t y = 0; y < m.h; y++)
        for (int32_t x = 0; x < m.w; x++)
            kept.push_back(p->at(m.src_x + x, m.src_y + y));
    for (int32_t y = 0; y < m.h; y++)
        for (int32_t x = 0; x < m.w; x++)
            p->at(m.dst_x + x, m.dst_y + y) = kept[(size_t)(y * m.w + x)];
}

static bool on_screen(const copy_rect &m, const image &p)
{
    return m.w > 0 && m.h > 0 && m.src_x >= 0 && m.src_y >= 0 && m.dst_x >= 0 && m.dst_y >= 0 &&
           m.src_x + m.w <= p.width && m.dst_x + m.w <= p.width && m.src_y + m.h <= p.height &&
           m.dst_y + m.h <= p.height;
}

// What must hold of any two pictures: only moves that a viewer can make, `before` is what they
// make of it, and the new picture comes out when the tiles that changed and those under a
// move, but no others, are sent where they differ.
static void check_result(const image &before, const image &now, const result &found)
{
    image followed = before;
    std::vector<move_tile> tiles = tiles_of(before, now);
    int32_t columns = tiles_for(now.width);
    for (const copy_rect &move : found.moves) {
        REQUIRE(on_screen(move, now));
        CHECK_FALSE(moves_by(move, 0, 0));
        apply(&followed, move);
        for (int32_t ty = move.dst_y / 64; ty <= (move.dst_y + move.h - 1) / 64; ty++)
            for (int32_t tx = move.dst_x / 64; tx <= (move.dst_x + move.w - 1) / 64; tx++)
                tiles[(size_t)(ty * columns + tx)].changed = 1;
    }
    CHECK(followed.pixels == found.before.pixels);
    for (int32_t ty = 0; ty < tiles_for(now.height); ty++)
        for (int32_t tx = 0; tx < columns; tx++)
            if (!tiles[(size_t)(ty * columns + tx)].changed)
                CHECK_FALSE(tile_differs(followed, now, tx, ty));
}

// ---------------------------------------------------------------------------------------
// What is found

TEST_CASE("a moved window is found to the pixel")
{
    struct {
        rect window;
        int32_t dx, dy;
    } rows[] = {
        {{100, 100, 400, 300}, 11, 7},  {{100, 100, 400, 300}, -11, -7},
        {{101, 99, 399, 303}, -1, 40},  {{64, 64, 256, 256}, 64, 64},
        {{0, 0, 200, 200}, 3, 0},       {{3, 5, 203, 215}, -3, -5},
        {{300, 200, 633, 381}, 7, 6},   {{200, 100, 420, 260}, 0, 1},
        {{17, 33, 133, 149}, 417, 200}, {{80, 80, 301, 302}, -80, -80},
        {{500, 20, 640, 387}, -313, 0},
    };
    for (const auto &row : rows) {
        CAPTURE(row.window.left);
        CAPTURE(row.dx);
        image ground(640, 387);
        noise(&ground, whole(ground), 1);
        image front(640, 387);
        noise(&front, row.window, 2);
        image before = ground, now = ground;
        copy(&before, front, row.window, 0, 0);
        copy(&now, front, row.window, row.dx, row.dy);
        result found = search_once(before, now);
        check_result(before, now, found);
        REQUIRE(found.moves.size() == 1);
        CHECK(moves_by(found.moves[0], row.dx, row.dy));
        CHECK(destination(found.moves[0]) ==
              rect{row.window.left + row.dx, row.window.top + row.dy, row.window.right + row.dx,
                   row.window.bottom + row.dy});
    }
}

TEST_CASE("a page between bars that stay is found without them")
{
    for (int32_t by : {1, 3, 21, 37, 150, -1, -13, -64}) {
        CAPTURE(by);
        image before(800, 600), now(800, 600);
        for (image *p : {&before, &now}) {
            noise(p, {0, 0, 800, 51}, 5);
            noise(p, {0, 570, 800, 600}, 6);
        }
        image paper(800, 1200); // noise, so that what moved can be said to the pixel
        noise(&paper, whole(paper), 7);
        copy(&before, paper, {0, 300, 800, 819}, 0, 51 - 300);
        copy(&now, paper, {0, 300 + by, 800, 819 + by}, 0, 51 - 300 - by);
        result found = search_once(before, now);
        check_result(before, now, found);
        REQUIRE(found.moves.size() == 1);
        CHECK(moves_by(found.moves[0], 0, -by));
        CHECK(destination(found.moves[0]) ==
              (by > 0 ? rect{0, 51, 800, 570 - by} : rect{0, 51 - by, 800, 570}));
    }
}

TEST_CASE("text in two colours scrolls like everything else")
{
    struct {
        int32_t dx, dy;
    } rows[] = {{0, -20}, {0, -60}, {0, 100}, {0, 7}, {0, -33}, {-18, 0}, {41, 0}, {-17, 11}};
    for (const auto &row : rows) {
        CAPTURE(row.dx);
        CAPTURE(row.dy);
        image before(900, 700), now(900, 700);
        page(&before, whole(before), 200, 400, 1);
        page(&now, whole(now), 200 - row.dx, 400 - row.dy, 1);
        result found = search_once(before, now);
        check_result(before, now, found);
        REQUIRE(found.moves.size() == 1);
        CHECK(moves_by(found.moves[0], row.dx, row.dy));
        // Nothing but the strip that came in is left to send.
        int32_t strip_x = abs(row.dx), strip_y = abs(row.dy), left = 0;
        for (int32_t y = 0; y < 700; y++)
            for (int32_t x = 0; x < 900; x++)
                left += found.before.at(x, y) != now.at(x, y);
        CHECK(left <= strip_x * 700 + strip_y * 900);
    }
}

TEST_CASE("two panes move by different amounts")
{
    image before(1024, 600), now(1024, 600);
    page(&before, {0, 0, 512, 600}, 0, 1000, 3);
    page(&now, {0, 0, 512, 600}, 0, 1054, 3);
    page(&before, {512, 0, 1024, 600}, 0, 5000, 4);
    page(&now, {512, 0, 1024, 600}, 0, 4979, 4);
    result found = search_once(before, now);
    check_result(before, now, found);
    REQUIRE(found.moves.size() >= 2);
    int32_t left = 0;
    for (int32_t y = 0; y < 600; y++)
        for (int32_t x = 0; x < 1024; x++)
            left += found.before.at(x, y) != now.at(x, y);
    // All strips that came in, and as much again.
    CHECK(left <= 2 * 512 * (54 + 21));
}

TEST_CASE("a pane does not take its neighbour along")
{
    image before(768, 512), now(768, 512), paper(768, 700);
    noise(&paper, whole(paper), 8);
    copy(&before, paper, {0, 0, 300, 512}, 0, 0);
    copy(&now, paper, {0, 30, 300, 542}, 0, -30);
    noise(&before, {300, 0, 768, 512}, 9); // shows something else altogether now
    noise(&now, {300, 0, 768, 512}, 10);
    result found = search_once(before, now);
    check_result(before, now, found);
    REQUIRE(found.moves.size() == 1);
    CHECK(destination(found.moves[0]) == rect{0, 0, 300, 482});
}

TEST_CASE("panes that move alike leave alone what stays between them")
{
    // Wider than either: one move of all, and one back, would be worth less.
    image before(768, 512), now(768, 512), paper(768, 700);
    noise(&paper, whole(paper), 11);
    for (int32_t left : {0, 568}) {
        copy(&before, paper, {left, 0, left + 200, 512}, 0, 0);
        copy(&now, paper, {left, 30, left + 200, 542}, 0, -30);
    }
    for (image *p : {&before, &now})
        noise(p, {200, 0, 568, 512}, 12);
    result found = search_once(before, now);
    check_result(before, now, found);
    REQUIRE(found.moves.size() == 2);
    bool swapped = destination(found.moves[0]).left != 0;
    CHECK(destination(found.moves[swapped]) == rect{0, 0, 200, 482});
    CHECK(destination(found.moves[!swapped]) == rect{568, 0, 768, 482});
}

TEST_CASE("what only changed did not move")
{
    image before(640, 480), now(640, 480);
    for (uint64_t seed = 1; seed < 6; seed++) {
        noise(&before, whole(before), seed);
        noise(&now, whole(now), seed + 100);
        CHECK(search_once(before, now).moves.empty());
    }
    // Brighter by one everywhere: a fade.
    page(&before, whole(before), 0, 0, 1);
    now = before;
    for (uint32_t &pixel : now.pixels)
        pixel -= pixel != 0 ? 0x010101 : 0;
    CHECK(search_once(before, now).moves.empty());
}

// ---------------------------------------------------------------------------------------
// When nothing is looked for

// 4 by 4 tiles of noise of which all scrolls by one row. The rest of a larger picture stays.
static void scrolled_square(image *before, image *now, int32_t left, int32_t top)
{
    image paper(256, 257);
    noise(&paper, whole(paper), 11);
    copy(before, paper, {0, 0, 256, 256}, left, top);
    copy(now, paper, {0, 1, 256, 257}, left, top - 1);
}

TEST_CASE("fewer than four changed tiles are not searched")
{
    image ground(640, 256);
    noise(&ground, whole(ground), 12);
    for (int32_t tiles : {1, 2, 3, 4}) {
        CAPTURE(tiles);
        image before = ground, now = ground, front(192, 64);
        rect window = {0, 0, tiles * 64 - 3, 61}; // moves by 3 inside of so many tiles
        noise(&front, {0, 0, 192, 61}, 13);
        if (tiles == 4)
            noise(&front, {0, 0, 192, 64}, 13), window = {0, 0, 125, 125},
                                                front = image(128, 128),
                                                noise(&front, whole(front), 13);
        copy(&before, front, window, 0, 0);
        copy(&now, front, window, 3, 3);
        CHECK(search_once(before, now).moves.size() == (tiles == 4 ? 1 : 0));
    }
}

TEST_CASE("tiles apart are no reason for a search")
{
    image before(256, 256), now(256, 256);
    scrolled_square(&before, &now, 0, 0);
    std::vector<move_tile> tiles = tiles_of(before, now);
    REQUIRE(search_tiles(new_search().get(), before, now, tiles).moves.size() == 1);
    for (size_t i = 3; i < tiles.size(); i++)
        tiles[i].apart = 1;
    CHECK(search_tiles(new_search().get(), before, now, tiles).moves.empty());
    tiles[3].apart = 0; // four are left: a row
    CHECK(search_tiles(new_search().get(), before, now, tiles).moves.size() == 1);
}

TEST_CASE("nothing moves out of a tile that nobody knows")
{
    image before(256, 256), now(256, 256);
    scrolled_square(&before, &now, 0, 0);
    for (size_t unknown : {0, 5, 10, 15}) {
        std::vector<move_tile> tiles = tiles_of(before, now);
        tiles[unknown].uncertain = 1;
        tiles[unknown].apart = 1;
        result found = search_tiles(new_search().get(), before, now, tiles);
        for (const copy_rect &m : found.moves) {
            int32_t x = (int32_t)unknown % 4 * 64, y = (int32_t)unknown / 4 * 64;
            bool touches =
                m.src_x < x + 64 && m.src_x + m.w > x && m.src_y < y + 64 && m.src_y + m.h > y;
            CHECK_FALSE(touches);
        }
        check_result(before, now, found);
    }
    // One tile of which nothing comes does not matter.
    image wide_before(640, 256), wide_now(640, 256);
    scrolled_square(&wide_before, &wide_now, 0, 0);
    std::vector<move_tile> tiles = tiles_of(wide_before, wide_now);
    tiles[7].uncertain = 1;
    CHECK(search_tiles(new_search().get(), wide_before, wide_now, tiles).moves.size() == 1);
}

TEST_CASE("what found nothing three times is left alone for a while")
{
    // Frames are numbered from 1. The third failure costs one frame, the next searches two,
    // four and eight, and then eight each: searched are 1, 2, 3, 5, 8, 13, 22 and 31.
    image before(320, 320), now(320, 320), moved(320, 320), elsewhere(640, 640);
    noise(&before, {0, 0, 256, 256}, 14);
    now = moved = before;
    noise(&now, {0, 0, 256, 256}, 15);
    image old = before;
    scrolled_square(&old, &moved, 0, 0);
    for (int32_t frame = 1; frame <= 32; frame++) {
        CAPTURE(frame);
        bool searched = false;
        for (int32_t n : {1, 2, 3, 5, 8, 13, 22, 31})
            searched = searched || frame == n;
        auto search = new_search();
        for (int32_t i = 1; i < frame; i++)
            CHECK(search_in(search.get(), before, now).moves.empty());
        CHECK(search_in(search.get(), old, moved).moves.size() == (searched ? 1 : 0));
    }
}

TEST_CASE("another place is searched at once")
{
    image before(1024, 640), now(1024, 640), old(1024, 640), moved(1024, 640);
    noise(&before, {0, 0, 256, 256}, 14);
    noise(&now, {0, 0, 256, 256}, 15);
    struct {
        int32_t left, top;
        bool searched;
    } rows[] = {{0, 0, false},  {128, 0, false}, {0, 128, false},
                {192, 0, true}, {0, 192, true},  {640, 320, true}};
    for (const auto &row : rows) {
        CAPTURE(row.left);
        CAPTURE(row.top);
        auto search = new_search();
        for (int32_t i = 0; i < 3; i++)
            search_in(search.get(), before, now);
        scrolled_square(&old, &moved, row.left, row.top);
        result found = search_in(search.get(), old, moved);
        CHECK(found.moves.size() == (row.searched ? 1 : 0));
        fill(&old, whole(old), 0);
        fill(&moved, whole(moved), 0);
    }
}

TEST_CASE("a success ends the failures")
{
    image before(256, 256), now(256, 256), old(256, 256), moved(256, 256);
    noise(&before, whole(before), 14);
    noise(&now, whole(now), 15);
    scrolled_square(&old, &moved, 0, 0);
    auto search = new_search();
    for (int32_t i = 0; i < 5; i++) {
        search_in(search.get(), before, now);
        search_in(search.get(), before, now);
        CHECK(search_in(search.get(), old, moved).moves.size() == 1);
    }
}

TEST_CASE("the last frame's vectors are tried without a vote")
{
    // Too narrow for a key, so nothing votes.
    image before(31, 600), now(31, 600), paper(31, 640);
    noise(&paper, whole(paper), 16);
    copy(&before, paper, {0, 0, 31, 600}, 0, 0);
    copy(&now, paper, {0, 9, 31, 609}, 0, -9);
    CHECK(search_once(before, now).moves.empty());
    auto search = new_search();
    search->last[0] = {5, 5};
    search->last[1] = {0, -9};
    search->last_count = 2;
    result found = search_in(search.get(), before, now);
    check_result(before, now, found);
    REQUIRE(found.moves.size() == 1);
    CHECK(destination(found.moves[0]) == rect{0, 0, 31, 591});
    CHECK(search->last_count == 1);
    CHECK(search->last[0].dy == -9);
}

TEST_CASE("screens beyond the tables are not searched")
{
    struct {
        int32_t width, height;
        size_t moves;
    } rows[] = {{8192, 128, 1}, {8193, 128, 0}, {128, 8192, 1}, {128, 8193, 0}};
    for (const auto &row : rows) {
        image before(row.width, row.height), now(row.width, row.height);
        image paper(row.width, row.height + 5);
        noise(&paper, whole(paper), 17);
        copy(&before, paper, {0, 0, row.width, row.height}, 0, 0);
        copy(&now, paper, {0, 5, row.width, row.height + 5}, 0, -5);
        result found = search_once(before, now);
        CHECK(found.moves.size() == row.moves);
        check_result(before, now, found);
    }
}

// ---------------------------------------------------------------------------------------
// Anything at all

TEST_CASE("pixels move like a viewer moves them")
{
    test_random random = test_random_seeded("move_pixels");
    for (int32_t i = 0; i < 300; i++) {
        int32_t width = 1 + (int32_t)random.below(150), height = 1 + (int32_t)random.below(150);
        image p(width, height, (int32_t)random.below(3));
        noise(&p, whole(p), random.next() >> 2);
        copy_rect m;
        m.w = 1 + (int32_t)random.below((uint64_t)width);
        m.h = 1 + (int32_t)random.below((uint64_t)height);
        m.src_x = (int32_t)random.below((uint64_t)(width - m.w + 1));
        m.dst_x = (int32_t)random.below((uint64_t)(width - m.w + 1));
        m.src_y = (int32_t)random.below((uint64_t)(height - m.h + 1));
        m.dst_y = (int32_t)random.below((uint64_t)(height - m.h + 1));
        image expected = p;
        apply(&expected, m);
        move_pixels((uint8_t *)p.pixels.data(), (uint64_t)p.padded_width * 4, m);
        CHECK(p.pixels == expected.pixels);
    }
}

// Something of everything: pages, noise, patterns that repeat, flat colour.
static void draw_something(image *p, rect r, test_random *random)
{
    uint32_t a = (uint32_t)random->next(), b = (uint32_t)random->next();
    int32_t period = 1 + (int32_t)random->below(40);
    switch (random->below(6)) {
    case 0:
        noise(p, r, random->next() >> 2);
        break;
    case 1:
        page(p, r, (int32_t)random->below(5000), (int32_t)random->below(5000), a);
        break;
    case 2:
        fill(p, r, a);
        break;
    default:
        int32_t kind = (int32_t)random->below(3);
        for (int32_t y = r.top; y < r.bottom; y++)
            for (int32_t x = r.left; x < r.right; x++) {
                int32_t at = kind == 0 ? x : kind == 1 ? y : x % period + y;
                p->at(x, y) = at % period < period / 2 + 1 ? a : b + (uint32_t)(at % period);
            }
    }
}

static rect some_rect(const image &p, test_random *random)
{
    int32_t left = (int32_t)random->below((uint64_t)p.width);
    int32_t top = (int32_t)random->below((uint64_t)p.height);
    return {left, top, left + 1 + (int32_t)random->below((uint64_t)(p.width - left)),
            top + 1 + (int32_t)random->below((uint64_t)(p.height - top))};
}

static void change_something(image *p, test_random *random)
{
    rect r = some_rect(*p, random);
    if (random->below(4) == 0) {
        draw_something(p, r, random);
        return;
    }
    image old = *p;
    int32_t room_x = p->width - (r.right - r.left), room_y = p->height - (r.bottom - r.top);
    int32_t dx = (int32_t)random->below((uint64_t)(room_x + 1)) - r.left;
    int32_t dy = (int32_t)random->below((uint64_t)(room_y + 1)) - r.top;
    if (random->below(2) == 0)
        dx /= 16, dy /= 16;
    copy(p, old, r, dx, dy);
}

TEST_CASE("whatever moved, sending what differs gives the new picture")
{
    test_random random = test_random_seeded("moves");
    static const int32_t small[][2] = {{1, 1},   {2, 600}, {700, 3},   {16, 16},
                                       {63, 65}, {64, 64}, {130, 129}, {1023, 80}};
    static const int32_t large[][2] = {{320, 250}, {641, 359}, {500, 400}, {193, 512}};
    size_t with_moves = 0;
    for (int32_t i = 0; i < 200; i++) {
        const auto &side = i % 4 == 0 ? small[random.below(8)] : large[random.below(4)];
        image before(side[0], side[1], (int32_t)random.below(3));
        draw_something(&before, whole(before), &random);
        for (uint64_t n = random.below(4); n > 0; n--)
            draw_something(&before, some_rect(before, &random), &random);
        auto search = new_search();
        image now = before;
        for (int32_t frame = 0; frame < 3; frame++) {
            for (uint64_t n = 1 + random.below(3); n > 0; n--)
                change_something(&now, &random);
            auto again = std::make_unique<move_search>(*search);
            result found = search_in(search.get(), before, now);
            check_result(before, now, found);
            with_moves += !found.moves.empty();
            // The same once more, in tables full of something else.
            memset(again->old_points, 0xAA, sizeof again->old_points);
            memset(again->new_points, 0x55, sizeof again->new_points);
            memset(again->key_slots, 0xFF, sizeof again->key_slots);
            memset(again->votes, 0x33, sizeof again->votes);
            memset(again->scores, 0x77, sizeof again->scores);
            memset(again->sums, 0x11, sizeof again->sums);
            memset(again->gains, 0x22, sizeof again->gains);
            result same = search_in(again.get(), before, now);
            CHECK(same.before.pixels == found.before.pixels);
            CHECK(same.moves.size() == found.moves.size());
            before = now;
        }
    }
    CHECK(with_moves > 60); // of 600
}

TEST_CASE("pictures that repeat and pictures that fill every table")
{
    struct {
        int32_t width, height;
    } sizes[] = {{4000, 2300}, {640, 480}, {8192, 200}, {100, 8000}};
    for (const auto &size : sizes)
        for (int32_t kind = 0; kind < 6; kind++) {
            if (size.width == 4000 && kind % 2 == 1)
                continue; // the larger ones take long under the sanitizers
            CAPTURE(kind);
            image before(size.width, size.height), now(size.width, size.height);
            test_random random = {(uint64_t)kind * 77 + 5};
            uint32_t tile[32][32];
            for (auto &row : tile)
                for (uint32_t &pixel : row)
                    pixel = (uint32_t)random.next();
            for (int32_t y = 0; y < size.height; y++)
                for (int32_t x = 0; x < size.width; x++) {
                    uint32_t *b = &before.at(x, y), *n = &now.at(x, y);
                    switch (kind) {
                    case 0: // noise that repeats, one step further
                        *b = tile[y % 32][x % 32];
                        *n = tile[(y + 1) % 32][(x + 1) % 32];
                        break;
                    case 1: // the same with each copy a little different
                        *b = tile[y % 32][x % 32] + (uint32_t)(x / 100 + y / 70);
                        *n = tile[(y + 5) % 32][x % 32] + (uint32_t)(x / 100 + y / 70);
                        break;
                    case 2: // points everywhere, none common to both
                        *b = (uint32_t)random.next();
                        *n = (uint32_t)random.next();
                        break;
                    case 3: // every row of its own, all columns the same
                        *b = (uint32_t)y * 2654435761u;
                        *n = (uint32_t)(y + 7) * 2654435761u;
                        break;
                    case 4: // each strip by another amount: more vectors than slots
                        *b = (uint32_t)(x * 7919 + y) * 2654435761u;
                        *n = (uint32_t)((x + y / 20) * 7919 + y) * 2654435761u;
                        break;
                    default: // two colours in turn
                        *b = (x + y) % 2 ? 0xFFFFFFFF : 0;
                        *n = (x + y) % 2 ? 0 : 0xFFFFFFFF;
                        break;
                    }
                }
            check_result(before, now, search_once(before, now));
        }
}
