#include "viewer/key_state.h"

#include "tests/test.h"

using namespace viewer;

TEST_CASE("exactly the keys that are down are taken, each once")
{
    static key_state keys;
    keys = {};
    uint16_t key = 0;
    CHECK_FALSE(key_state_take(&keys, &key));

    key_state_note(&keys, 0x12, true); // Alt
    key_state_note(&keys, 0x09, true); // Tab
    key_state_note(&keys, 0x41, true);
    key_state_note(&keys, 0x41, true);  // the keyboard repeats
    key_state_note(&keys, 0x41, false); // one release ends it
    key_state_note(&keys, 0x42, false); // never pressed here

    REQUIRE(key_state_take(&keys, &key));
    CHECK(key == 0x09);
    REQUIRE(key_state_take(&keys, &key));
    CHECK(key == 0x12);
    CHECK_FALSE(key_state_take(&keys, &key));
}

TEST_CASE("every 16-bit code has a place of its own")
{
    static key_state keys;
    keys = {};
    static const uint16_t codes[] = {0, 1, 63, 64, 127, 128, 255, 256, 0x7FFF, 0xFFFF};
    for (uint16_t code : codes)
        key_state_note(&keys, code, true);
    key_state_note(&keys, 64, false);
    for (uint16_t code : codes) {
        if (code == 64)
            continue;
        uint16_t key = 0;
        REQUIRE(key_state_take(&keys, &key));
        CHECK(key == code);
    }
    uint16_t key = 0;
    CHECK_FALSE(key_state_take(&keys, &key));
}
