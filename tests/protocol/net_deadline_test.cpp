// Fakes: clock_script
//
// Deadlines of receives, to the millisecond, wherever the tick count stands: it wraps every
// 49.7 days.
#include "protocol/net.h"

#include "tests/fakes/clock_script.h"
#include "tests/socket_pair.h"
#include "tests/test.h"

#include <chrono>

static constexpr uint32_t ALLOWED_MS = 15000;

// Where the clock stands when 15 s are allowed.
static const uint32_t starts[] = {
    1000,                     // far from everything
    0u - ALLOWED_MS - 1,      // the deadline is the last tick before the wrap
    0u - ALLOWED_MS,          // 0 itself
    0u - ALLOWED_MS + 1,      // the first after it
    0u - 7500,                // the wrap comes half way
    0u - 1,                   // and right at the start
    0,                        // has just been
    0x80000000u - ALLOWED_MS, // the deadline is where signed numbers end,
    0x80000000u - 7500,       // or behind it
    0x7FFFFFFFu,
    0x80000000u,
};

TEST_CASE("what has arrived is received up to the last millisecond and not after it")
{
    static const struct {
        uint32_t elapsed;
        bool received;
    } rows[] = {
        {0, true},
        {1, true},
        {7499, true},
        {7500, true},
        {14999, true},
        {15000, false},
        {15001, false},
        {3600000, false},              // an hour
        {15000u + 0x7FFFFFFFu, false}, // 24.8 days
    };
    socket_pair p = socket_pair_open();
    for (uint32_t start : starts) {
        for (const auto &row : rows) {
            CAPTURE(start);
            CAPTURE(row.elapsed);
            clock_script_now = start;
            net_deadline deadline = {true, start + ALLOWED_MS};
            clock_script_now += row.elapsed;
            uint8_t sent = 7, got = 0;
            REQUIRE(net_send_all(p.viewer, &sent, 1));
            CHECK(net_recv_all(p.host, &got, 1, deadline) == row.received);
            CHECK(got == (row.received ? 7 : 0));
            if (!row.received) // it is still there
                CHECK(net_recv_all(p.host, &got, 1, {}));
        }
    }
    socket_pair_close(&p);
}

TEST_CASE("a wait lasts as long as the deadline leaves")
{
    socket_pair p = socket_pair_open();
    for (uint32_t start : starts) {
        CAPTURE(start);
        clock_script_now = start + ALLOWED_MS - 60;
        uint8_t byte;
        auto before = std::chrono::steady_clock::now();
        CHECK_FALSE(net_recv_all(p.host, &byte, 1, {true, start + ALLOWED_MS}));
        auto waited = std::chrono::steady_clock::now() - before;
        CHECK(waited >= std::chrono::milliseconds(40)); // less the steps of the system's clock
        CHECK(waited < std::chrono::milliseconds(ALLOWED_MS - 1000)); // nor the whole time
    }
    socket_pair_close(&p);
}
