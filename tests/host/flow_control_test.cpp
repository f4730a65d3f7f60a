#include "host/flow_control.h"
#include "tests/test.h"

using namespace host;

TEST_CASE("a session starts without a sample and with the largest budget")
{
    latency_estimator e = latency_start();
    CHECK(e.ema_rtt16 == 0);
    CHECK(e.rtt_floor == 100000);
    CHECK(e.last_rtt == 0);
    CHECK(e.tile_budget == 4096);
    CHECK(e.ack_count == 0);
    CHECK(inflight_cap(e.ema_rtt16) == 1);
}

TEST_CASE("a round trip is the signed age of the stamp between 0 and 5000 ms")
{
    struct {
        uint32_t now, sent;
        int32_t rtt;
    } rows[] = {
        {1000, 960, 40},        {1000, 1000, 0},     {1000, 1001, 0}, // a stamp from the future
        {1000, 0x80000000u, 0},                                       // far in the future
        {5, 0xFFFFFFFBu, 10},                        // across the wrap of the clock
        {0xFFFFFFFBu, 5, 0},                         // before the wrap, stamp after it
        {10000, 5000, 5000},    {10000, 4999, 5000}, // older than 5 s
        {0x7FFFFFFFu, 0, 5000},                      // as old as a signed difference gets
        {0x80000000u, 0, 0},                         // one more is the future
    };
    for (auto &row : rows) {
        CAPTURE(row.now);
        CAPTURE(row.sent);
        CHECK(latency_sample(row.now, row.sent) == row.rtt);
    }
}

TEST_CASE("the first acknowledgement of 40 ms sets average and floor and allows 5 frames")
{
    latency_estimator e = latency_start();
    latency_update(&e, 40);
    CHECK(e.ema_rtt16 == 640);
    CHECK(e.rtt_floor == 40);
    CHECK(e.last_rtt == 40);
    CHECK(e.tile_budget == 4096);
    CHECK(e.ack_count == 1);
    CHECK(inflight_cap(e.ema_rtt16) == 5);
}

TEST_CASE("a later sample weighs an eighth")
{
    latency_estimator e = latency_start();
    latency_update(&e, 40);
    latency_update(&e, 80); // 640 - 80 + 160
    CHECK(e.ema_rtt16 == 720);
    CHECK(e.rtt_floor == 40);
    CHECK(e.last_rtt == 80);
    latency_update(&e, 3); // 720 - 90 + 6
    CHECK(e.ema_rtt16 == 636);
    CHECK(e.rtt_floor == 3);
    e.ema_rtt16 = 15; // 15 >> 3 is 1: 15 - 1 + 0
    latency_update(&e, 0);
    CHECK(e.ema_rtt16 == 14);
    CHECK(e.ack_count == 4);
}

TEST_CASE("an average of 0 is replaced whole")
{
    latency_estimator e = latency_start();
    latency_update(&e, 0);
    CHECK(e.ema_rtt16 == 0);
    latency_update(&e, 100);
    CHECK(e.ema_rtt16 == 1600);
}

TEST_CASE("a floor of 0 is replaced by the next sample of any size")
{
    latency_estimator e = latency_start();
    latency_update(&e, 0);
    CHECK(e.rtt_floor == 0);
    latency_update(&e, 700);
    CHECK(e.rtt_floor == 700);
    latency_update(&e, 800);
    CHECK(e.rtt_floor == 700);
}

TEST_CASE("the budget follows the time spent in queues")
{
    // The estimator is prepared so that the sample leaves the average where it is: an
    // average of 16 * n stays with a sample of n when 16 * n is a multiple of 8.
    struct {
        int32_t excess, before, after;
    } rows[] =
        {
            {0, 100, 132},   {7, 100, 132},    {8, 100, 100},   {25, 100, 100},
            {26, 100, 75},   {26, 4096, 3072}, {26, 101, 75},   {4000, 100, 75},
            {26, 9, 8}, // 9 * 3 / 4 is 6, below the least
            {26, 8, 8},      {26, 12, 9},      {7, 4095, 4096}, {7, 4096, 4096},
            {7, 4070, 4096}, {7, 4064, 4096},  {7, 4063, 4095}, {0, 8, 40},
            {8, 8, 8},       {25, 4096, 4096}, {-3, 8, 40},
        };
    for (auto &row : rows) {
        CAPTURE(row.excess);
        CAPTURE(row.before);
        latency_estimator e = latency_start();
        e.rtt_floor = 10;
        int32_t average = 10 + row.excess; // ms
        e.ema_rtt16 = average * 16;
        e.tile_budget = row.before;
        // A sample equal to the average would lower the floor when it is below 10; then the
        // excess is 0, which is in the same band.
        latency_update(&e, average);
        REQUIRE(e.ema_rtt16 == average * 16);
        CHECK(e.tile_budget == row.after);
    }
}

TEST_CASE("the average below the floor counts as short queues")
{
    latency_estimator e = latency_start();
    e.ema_rtt16 = 16; // 1 ms
    e.rtt_floor = 0;  // none
    e.tile_budget = 8;
    latency_update(&e, 5000); // 16 - 2 + 10000: 625 ms, floor 5000
    CHECK(e.ema_rtt16 == 10014);
    CHECK(e.rtt_floor == 5000);
    CHECK(e.tile_budget == 40);
}

TEST_CASE("whatever the samples, average and budget stay in their ranges")
{
    test_random random = test_random_seeded("latency");
    latency_estimator e = latency_start();
    for (int i = 0; i < 200000; i++) {
        int32_t rtt = (int32_t)random.below(random.below(3) == 0 ? 5001 : 60);
        latency_update(&e, rtt);
        REQUIRE(e.ema_rtt16 >= 0);
        REQUIRE(e.ema_rtt16 <= 5000 * 16 + 16);
        REQUIRE(e.tile_budget >= TILE_BUDGET_MIN);
        REQUIRE(e.tile_budget <= TILE_BUDGET_MAX);
        REQUIRE(inflight_cap(e.ema_rtt16) >= 1);
        REQUIRE(inflight_cap(e.ema_rtt16) <= 6);
    }
    CHECK(e.ack_count == 200000);
}

TEST_CASE("one frame for every 8 ms of smoothed round trip, 1 to 6")
{
    struct {
        int32_t ema_rtt16, cap;
    } rows[] = {
        {0, 1},    {1, 1},     {127, 1}, {128, 1}, // 7.9 ms, 8 ms
        {255, 1},  {256, 2},   {383, 2}, {384, 3}, // 16 ms, 24 ms
        {511, 3},  {512, 4},   {639, 4}, {640, 5}, // 32 ms, 40 ms
        {767, 5},  {768, 6},   {895, 6}, {896, 6}, // 48 ms, 55.9 ms, 56 ms
        {1024, 6}, {80000, 6},
    };
    for (auto &row : rows) {
        CAPTURE(row.ema_rtt16);
        CHECK(inflight_cap(row.ema_rtt16) == row.cap);
    }
}

TEST_CASE("an iteration waits for acknowledgements, but never longer than 250 ms")
{
    struct {
        uint32_t frame, acked;
        int32_t ema_rtt16;
        uint32_t now, last;
        pacing_decision decision;
    } rows[] = {
        {7, 7, 0, 1000, 1000, PACE_SEND},
        {8, 7, 0, 1000, 1000, PACE_WAIT},   // one under way, one allowed
        {8, 7, 256, 1000, 1000, PACE_SEND}, // two allowed
        {9, 7, 256, 1000, 1000, PACE_WAIT},
        {12, 7, 896, 1000, 1000, PACE_SEND}, // six allowed
        {13, 7, 896, 1000, 1000, PACE_WAIT},
        {8, 7, 0, 1250, 1000, PACE_WAIT}, // 250 ms is not yet too long
        {8, 7, 0, 1251, 1000, PACE_STALL},
        {7, 7, 0, 1250, 1000, PACE_SEND},
        {7, 7, 0, 1251, 1000, PACE_STALL},       // in either case
        {8, 7, 0, 4, 0xFFFFFFFEu, PACE_WAIT},    // across the wrap of the clock
        {8, 7, 0, 249, 0xFFFFFFFEu, PACE_STALL}, // 251 ms
        {2, 0xFFFFFFFFu, 512, 0, 0, PACE_SEND},  // across the wrap of the numbers: 3 of 4
        {2, 0xFFFFFFFEu, 512, 0, 0, PACE_WAIT},  // 4 of 4
        {7, 8, 896, 0, 0, PACE_WAIT},            // an acknowledgement of what was never sent
    };
    for (auto &row : rows) {
        CAPTURE(row.frame);
        CAPTURE(row.acked);
        CAPTURE(row.now);
        CHECK(pacing_step(row.frame, row.acked, row.ema_rtt16, row.now, row.last) ==
              row.decision);
    }
}

TEST_CASE("the first frame waits for the shorter round trip and 100 ms, at most 1000 ms")
{
    struct {
        uint32_t one, other, wait;
    } rows[] = {
        {0, 0, 100},           {0, 500, 100},
        {500, 0, 100},         {100, 103, 200},
        {103, 100, 200},       {899, 950, 999},
        {900, 901, 1000},      {901, 901, 1000},
        {15000, 2000, 1000},   {0xFFFFFFFFu, 0xFFFFFFFFu, 1000},
        {0xFFFFFFFFu, 1, 101},
    };
    for (auto &row : rows) {
        CAPTURE(row.one);
        CAPTURE(row.other);
        CHECK(advert_wait(row.one, row.other) == row.wait);
    }
}
