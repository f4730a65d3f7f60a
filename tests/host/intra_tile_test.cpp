#include "host/intra_tile.h"
#include "protocol/bytes.h"
#include "protocol/tile.h"
#include "tests/test.h"
#include "tests/vectors/tile_hash.h"

#include <functional>
#include <vector>

using namespace host;

static constexpr uint64_t PITCH = 3 * TILE_ROW_BYTES; // a picture of three tiles side by side

// The middle tile of such a picture.
static std::vector<uint8_t> draw(const std::function<uint32_t(int32_t x, int32_t y)> &pixel)
{
    std::vector<uint8_t> picture(PITCH * TILE_SIZE, 0xEE);
    for (int32_t y = 0; y < TILE_SIZE; y++)
        for (int32_t x = 0; x < TILE_SIZE; x++)
            store_le32(&picture[(size_t)y * PITCH + TILE_ROW_BYTES + (size_t)x * 4],
                       pixel(x, y));
    return picture;
}

static intra_repeats count(const std::function<uint32_t(int32_t x, int32_t y)> &now,
                           const std::function<uint32_t(int32_t x, int32_t y)> &before)
{
    return intra_count(&draw(now)[TILE_ROW_BYTES], &draw(before)[TILE_ROW_BYTES], PITCH);
}

// Pixels that are all different, and none black: nothing repeats.
static uint32_t all_different(int32_t x, int32_t y)
{
    return (uint32_t)(y * 64 + x + 1);
}

TEST_CASE("repeats are counted in every fourth row, of the tile and of its difference")
{
    auto black = [](int32_t, int32_t) { return 0u; };
    auto white = [](int32_t, int32_t) { return 0xFFFFFFFFu; };
    // Black counts as seen from the start; of another colour the first pixel is new. 16 rows
    // of 64 pixels are looked at.
    intra_repeats repeats = count(black, black);
    CHECK(repeats.own == 1024);
    CHECK(repeats.difference == 1024);
    repeats = count(white, black);
    CHECK(repeats.own == 1023);
    CHECK(repeats.difference == 1023);
    repeats = count(white, white);
    CHECK(repeats.own == 1023);
    CHECK(repeats.difference == 1024);
    repeats = count(all_different, black);
    CHECK(repeats.own == 0);
    CHECK(repeats.difference == 0);
    // White over what is all different leaves its complement, which is all different too.
    repeats = count(white, all_different);
    CHECK(repeats.own == 1023);
    CHECK(repeats.difference == 0);
    repeats = count(all_different, all_different);
    CHECK(repeats.own == 0);
    CHECK(repeats.difference == 1024);

    // White in one row that is looked at: 64 pixels, the first of them new. In the others it
    // does not count.
    for (int32_t white_y = 0; white_y < TILE_SIZE; white_y++) {
        CAPTURE(white_y);
        repeats =
            count([=](int32_t x,
                      int32_t y) { return y == white_y ? 0xFFFFFFFF : all_different(x, y); },
                  black);
        CHECK(repeats.own == (white_y % 4 == 0 ? 63 : 0));
    }
}

TEST_CASE("a pixel repeats one of another row, and the fourth byte counts")
{
    auto black = [](int32_t, int32_t) { return 0u; };
    // The same in every row: 64 values, which take different places of the table; each is new
    // once. Multiples of 2^22 up to 63 of them, multiplied by an odd number, differ in their
    // upper ten bits, which are the place.
    auto columns = [](int32_t x, int32_t) { return (uint32_t)(x + 1) << 22; };
    CHECK(count(columns, black).own == 1024 - 64);
    // In a row pixels differ in their fourth byte alone.
    auto fourth = [](int32_t x, int32_t y) {
        return (uint32_t)(x + 1) << 24 | (uint32_t)y << 16;
    };
    CHECK(count(fourth, black).own == 0);
}

TEST_CASE("a tile pays as an intra tile when it repeats itself clearly more")
{
    static const struct {
        intra_repeats repeats;
        bool pays;
    } rows[] = {
        {{0, 0}, false},       {{4, 0}, false},    {{5, 0}, true},    {{1024, 1019}, true},
        {{1024, 1020}, false}, {{0, 1024}, false}, {{1024, 0}, true}, {{500, 500}, false},
        {{504, 500}, false},   {{505, 500}, true},
    };
    for (const auto &row : rows) {
        CAPTURE(row.repeats.own);
        CAPTURE(row.repeats.difference);
        CHECK(intra_pays(row.repeats) == row.pays);
    }
}

// ---------------------------------------------------------------------------------------

static const tile_base KNOWN = {0, BASE_KNOWN, 0, 0, 0};
static const tile_base BLANK = {0, BASE_KNOWN, 1, 0, 0};
static const tile_base LOST = {0, BASE_LOST, 0, 0, 0};

TEST_CASE("the tile of zeros has the hash of zeros")
{
    CHECK(intra_zero_hash() == TILE_HASH_ZEROS);
}

TEST_CASE("intra tiles need a viewer that has proved itself and holds the tile of zeros")
{
    lock_init(&host_lock);
    lock_enter(&host_lock);
    intra_start();
    for (bool proven : {false, true})
        for (bool held : {false, true})
            CHECK(intra_ready(proven, held, 7) == (proven && held));
    lock_leave(&host_lock);
}

TEST_CASE("they begin when the frame that taught the tile of zeros is acknowledged")
{
    static const struct {
        uint32_t taught, confirmed;
        bool ready;
    } rows[] = {
        {10, 9, false},         {10, 10, true},        {10, 11, true},
        {0, 0xFFFFFFFF, false}, {0xFFFFFFFF, 0, true},
    };
    lock_init(&host_lock);
    lock_enter(&host_lock);
    for (const auto &row : rows) {
        CAPTURE(row.taught);
        CAPTURE(row.confirmed);
        intra_start();
        intra_taught(row.taught);
        CHECK(intra_ready(true, true, row.confirmed) == row.ready);
    }
    // Taught again.
    intra_start();
    intra_taught(10);
    intra_taught(20);
    CHECK_FALSE(intra_ready(true, true, 15));
    CHECK(intra_ready(true, true, 20));
    // Not of this session.
    intra_start();
    CHECK(intra_ready(true, true, 0));
    lock_leave(&host_lock);
}

TEST_CASE("the tile of zeros is taught by a tile whose base is known, when it is missing")
{
    static const struct {
        tile_base base;
        bool proven, held, teaches;
    } rows[] = {
        {KNOWN, true, false, true},
        {KNOWN, false, false, false},
        {KNOWN, true, true, false},
        {BLANK, false, false, true},
        {BLANK, true, false, true},
        {BLANK, false, true, false},
        {LOST, true, false, false},
        {{6, BASE_PENDING, 0, 0, 0}, true, false, false},
        {{6, BASE_PENDING, 1, 0, 0}, true, false, false},
        {{5, BASE_PENDING, 0, 0, 0}, true, false, true},
    };
    lock_init(&host_lock);
    lock_enter(&host_lock);
    intra_start();
    for (size_t i = 0; i < sizeof rows / sizeof *rows; i++) {
        CAPTURE(i);
        CHECK(intra_teaches(rows[i].base, rows[i].proven, rows[i].held, 5) == rows[i].teaches);
    }
    // Not again while it is under way, though the viewer is not known to hold it.
    intra_taught(6);
    CHECK_FALSE(intra_teaches(KNOWN, true, false, 5));
    CHECK_FALSE(intra_teaches(BLANK, true, false, 5));
    CHECK(intra_teaches(KNOWN, true, false, 6)); // it had to let go of it
    lock_leave(&host_lock);
}

TEST_CASE("a viewer that misses the tile of zeros when it was needed gets no intra tile again")
{
    uint64_t zero = intra_zero_hash();
    lock_init(&host_lock);
    lock_enter(&host_lock);
    intra_start();
    // Nothing was built on it yet: it may be taught, again.
    CHECK_FALSE(intra_missed(zero));
    CHECK(intra_ready(true, true, 7));
    CHECK(intra_teaches(KNOWN, true, false, 7));
    intra_sent();
    CHECK_FALSE(intra_missed(zero + 1)); // another tile
    CHECK(intra_ready(true, true, 7));
    CHECK(intra_missed(zero));
    CHECK_FALSE(intra_ready(true, true, 7));
    CHECK_FALSE(intra_teaches(KNOWN, true, false, 7));
    CHECK_FALSE(intra_teaches(BLANK, true, false, 7));
    CHECK(intra_missed(zero)); // of the same frame: that tile shows rubbish as well
    intra_start();
    CHECK(intra_ready(true, true, 7));
    lock_leave(&host_lock);
}
