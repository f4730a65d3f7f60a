#include "host/text_layer.h"
#include "tests/test.h"

using namespace host;

TEST_CASE("a tile is covered when the active layer's rectangle holds all of it")
{
    // Tile (1, 2) is the pixels 64..127 across and 128..191 down.
    static const struct {
        text_layer_record layer;
        bool covered;
    } rows[] = {
        {{true, 64, 128, 128, 192}, true},
        {{true, 0, 0, 1000, 1000}, true},
        {{false, 0, 0, 1000, 1000}, false},
        {{true, 65, 128, 128, 192}, false},
        {{true, 64, 129, 128, 192}, false},
        {{true, 64, 128, 127, 192}, false},
        {{true, 64, 128, 128, 191}, false},
        {{true, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}, true},
        {{true, INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN}, false},
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
    text_layer = {true, 0, 0, 1000, 1000};
    text_layer_reset();
    CHECK_FALSE(text_layer.text_active);
    CHECK_FALSE(text_layer_covers(0, 0));
}
