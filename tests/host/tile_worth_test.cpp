#include "host/tile_worth.h"
#include "tests/test.h"

#include <vector>

using namespace host;

TEST_CASE("a tile is restless when it changed in six of the last eight turns")
{
    struct {
        const char *what;
        std::vector<uint32_t> turns; // in which it changed
        bool restless;
    } rows[] = {
        {"never", {}, false},
        {"five turns", {1, 2, 3, 4, 5}, false},
        {"six turns", {1, 2, 3, 4, 5, 6}, true},
        {"six of eight", {1, 2, 4, 5, 7, 8}, true},
        {"six of nine", {1, 2, 4, 5, 7, 9}, false},
        {"six of ten, five of the last eight", {1, 3, 4, 5, 6, 10}, false},
        {"many, then a rest of seven turns", {1, 2, 3, 4, 5, 6, 7, 8, 16}, false},
        {"many, then a long rest", {1, 2, 3, 4, 5, 6, 7, 8, 1000}, false},
        {"many, then a rest of a turn", {1, 2, 3, 4, 5, 6, 7, 8, 10}, true},
        {"over and over in one turn", {5, 5, 5, 5, 5, 5, 5, 5, 5}, false},
        {"twice in each of five turns", {1, 1, 2, 2, 3, 3, 4, 4, 5, 5}, false},
        {"where the number wraps", {0xFFFFFFFD, 0xFFFFFFFE, 0xFFFFFFFF, 0, 1, 2}, true},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        tile_worth worth = {};
        for (uint32_t turn : row.turns)
            tile_worth_changed(&worth, turn);
        CHECK(tile_worth_restless(worth) == row.restless);
    }
}

TEST_CASE("a tile without a hash has settled 300 ms after its content came")
{
    tile_worth worth = {};
    CHECK_FALSE(tile_worth_settled(worth, 1000));
    tile_worth_unnamed(&worth, 0xFFFFFFF0); // the clock wraps
    CHECK_FALSE(tile_worth_settled(worth, 0xFFFFFFF0));
    CHECK_FALSE(tile_worth_settled(worth, 0xFFFFFFF0 + 299));
    CHECK(tile_worth_settled(worth, 0xFFFFFFF0 + 300));
    tile_worth_unnamed(&worth, 200); // again
    CHECK_FALSE(tile_worth_settled(worth, 499));
    CHECK(tile_worth_settled(worth, 500));
    tile_worth_changed(&worth, 7); // and went out under its hash
    CHECK_FALSE(tile_worth_settled(worth, 10000));
}
