#include "host/tile_base.h"
#include "tests/test.h"

#include <initializer_list>

using namespace host;

static tile_base make_base(base_state state, uint8_t blank, uint32_t ref_seq, uint8_t must_send)
{
    return {.ref_seq = ref_seq,
            .base_state = state,
            .base_blank = blank,
            .must_send = must_send,
            .unused = 0};
}

TEST_CASE("a tile starts known and blank, with nothing to be sent")
{
    tile_base base = make_base(BASE_LOST, 0, 7, 1);
    tile_base_start(&base);
    CHECK(base.base_state == BASE_KNOWN);
    CHECK(base.base_blank == 1);
    CHECK(base.must_send == 0);
}

TEST_CASE("a tile is uncertain when lost, or referenced in a frame not yet confirmed")
{
    static const struct {
        base_state state;
        uint32_t ref_seq, confirmed_seq;
        bool uncertain;
    } rows[] = {
        {BASE_KNOWN, 0, 0, false},
        {BASE_KNOWN, 9, 5, false}, // ref_seq means nothing for a known tile
        {BASE_LOST, 0, 0, true},
        {BASE_LOST, 5, 9, true},
        {BASE_PENDING, 5, 4, true},
        {BASE_PENDING, 5, 5, false},
        {BASE_PENDING, 5, 6, false},
        // Frame numbers wrap: 2 comes after 0xFFFFFFFE.
        {BASE_PENDING, 2, 0xFFFFFFFE, true},
        {BASE_PENDING, 0xFFFFFFFE, 2, false},
        {BASE_PENDING, 0, 0xFFFFFFFF, true},
        {BASE_PENDING, 0xFFFFFFFF, 0xFFFFFFFF, false},
    };
    for (const auto &row : rows) {
        CAPTURE(row.state);
        CAPTURE(row.ref_seq);
        CAPTURE(row.confirmed_seq);
        CHECK(tile_base_uncertain(make_base(row.state, 0, row.ref_seq, 0), row.confirmed_seq) ==
              row.uncertain);
    }
}

TEST_CASE("a tile sent as pixels or as a difference is known and no longer blank")
{
    for (base_state state : {BASE_KNOWN, BASE_PENDING, BASE_LOST}) {
        tile_base base = make_base(state, 1, 3, 1);
        tile_base_sent(&base);
        CHECK(base.base_state == BASE_KNOWN);
        CHECK(base.base_blank == 0);
        CHECK(base.must_send == 0);
    }
}

TEST_CASE("a reference is pending, and only the first one of a blank tile leaves it blank")
{
    static const struct {
        base_state before;
        uint8_t blank_before, blank_after;
    } rows[] = {
        {BASE_KNOWN, 1, 1}, {BASE_KNOWN, 0, 0}, {BASE_PENDING, 1, 0},
        {BASE_LOST, 1, 0},  {BASE_LOST, 0, 0},
    };
    for (const auto &row : rows) {
        CAPTURE(row.before);
        CAPTURE(row.blank_before);
        tile_base base = make_base(row.before, row.blank_before, 3, 1);
        tile_base_referenced(&base, 41);
        CHECK(base.base_state == BASE_PENDING);
        CHECK(base.ref_seq == 41);
        CHECK(base.base_blank == row.blank_after);
        CHECK(base.must_send == 0);
    }
}

TEST_CASE("an intra tile is pending and not blank, whatever was there")
{
    for (base_state state : {BASE_KNOWN, BASE_PENDING, BASE_LOST})
        for (uint8_t blank : {0, 1}) {
            CAPTURE(state);
            CAPTURE(blank);
            tile_base base = make_base(state, blank, 3, 1);
            tile_base_intra(&base, 41);
            CHECK(base.base_state == BASE_PENDING);
            CHECK(base.ref_seq == 41);
            CHECK(base.base_blank == 0);
            CHECK(base.must_send == 0);
            CHECK(tile_base_uncertain(base, 40));
            CHECK_FALSE(tile_base_uncertain(base, 41));
            tile_base_missed(&base, 40);
            CHECK(base.base_state == BASE_LOST);
        }
}

TEST_CASE("a miss leaves a tile known only where the viewer still shows its first zeros")
{
    static const struct {
        base_state before;
        uint8_t blank;
        uint32_t ref_seq, confirmed_seq;
        base_state after;
        uint8_t blank_after;
    } rows[] = {
        {BASE_KNOWN, 1, 0, 0, BASE_KNOWN, 1},  {BASE_PENDING, 1, 5, 4, BASE_KNOWN, 1},
        {BASE_PENDING, 1, 5, 5, BASE_LOST, 1}, // confirmed: the reference may have been drawn
        {BASE_PENDING, 1, 5, 6, BASE_LOST, 1}, {BASE_LOST, 1, 5, 4, BASE_LOST, 1},
        {BASE_KNOWN, 0, 0, 0, BASE_LOST, 0},   {BASE_PENDING, 0, 5, 4, BASE_LOST, 0},
        {BASE_LOST, 0, 0, 0, BASE_LOST, 0},
    };
    for (const auto &row : rows) {
        CAPTURE(row.before);
        CAPTURE(row.blank);
        CAPTURE(row.confirmed_seq);
        for (uint8_t must_send : {0, 1}) {
            tile_base base = make_base(row.before, row.blank, row.ref_seq, must_send);
            tile_base_missed(&base, row.confirmed_seq);
            CHECK(base.base_state == row.after);
            CHECK(base.base_blank == row.blank_after);
            CHECK(base.must_send == must_send);
        }
    }
}
