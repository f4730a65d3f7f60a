// Wraps: free
// What becomes of the outgoing buffer's memory when it grows: seen when it is given back.
#include "host/out_buffer.h"

#include "tests/freed_block.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

using namespace host;

TEST_CASE("a frame that is not yet sealed is wiped where it was, and goes on where it is")
{
    out_reset();
    out_append("pixels", 6);
    const uint8_t *before = out_bytes();
    watch_block(before, 6);
    std::vector<uint8_t> more(1 << 20, 'p');
    out_append(more.data(), more.size());
    REQUIRE(out_intact());
    CHECK(watched_block_was_wiped());
    CHECK(out_bytes() != before);
    CHECK(memcmp(out_bytes(), "pixelsppp", 9) == 0);
    CHECK(out_used() == 6 + more.size());
}
