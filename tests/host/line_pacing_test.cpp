// Pacing by bytes: single numbers by hand, and the whole control law on a simulated line.
//
// The line is one queue of bytes with a rate, a round trip and a size beyond which a router
// would drop, in steps of a millisecond. The host of the simulation has always something to
// send, looks at the screen every 16 ms and keeps every rule of pacing, the in-flight cap and
// the tile budget included.
#include "host/line_pacing.h"
#include "host/flow_control.h"
#include "tests/test.h"

#include <algorithm>
#include <deque>
#include <initializer_list>
#include <string.h>
#include <vector>

using namespace host;

static constexpr uint64_t MS = 1000;
static constexpr uint64_t SECOND = 1000000;
static constexpr uint64_t NOISE_TILE = 8 + 13 + 16384; // a tile that does not compress
static constexpr uint64_t SCREEN_TILES = 510;          // 1920x1080
static constexpr double SOCKET_BUFFER = 1048576;       // of the host; what is more blocks it

// ---------------------------------------------------------------------------------------
// The simulation

namespace
{
struct simulation {
    // The line, which tests change while it runs.
    double rate = 2500000; // bytes a second
    uint64_t trip_us = 40 * MS;
    uint64_t queue_us = 200 * MS; // more than this is dropped
    uint64_t ack_late_us = 0;     // the viewer's answer takes so long
    uint64_t clock_us = 1;        // steps of the host's fine clock
    uint64_t tick_us = MS;        // and of its coarse one
    bool silent = false;          // the viewer does not answer
    int32_t forged_ms = -1;       // the stamp in each answer is that old; -1: honest
    bool paced = true;            // by bytes

    // The host.
    line_pacing line;
    latency_estimator estimator;
    uint32_t seq = 0;
    uint32_t cap_acked = 0;
    uint64_t now = 0;
    uint64_t last_capture = 0;
    uint32_t last_iteration = 1000;
    uint64_t frame_bytes_max = LINE_NO_LIMIT; // what there is to send at a time

    struct answer {
        uint32_t seq;
        uint64_t sent_us, at_us;
    };
    std::deque<answer> answers;
    double backlog = 0; // bytes in the queue

    // What came of it.
    uint64_t dropped = 0;
    uint64_t sent_frames = 0;
    std::vector<uint64_t> queue_samples; // time in the queue, a sample a millisecond
    std::vector<uint64_t> sent_at;
    double carried = 0;

    simulation(double line_rate, uint64_t line_trip_us) : simulation(line_trip_us)
    {
        rate = line_rate;
        trip_us = line_trip_us;
    }

    explicit simulation(uint64_t handshake_us = 40 * MS)
    {
        line_start(&line, seq, handshake_us, handshake_us, seen(0));
        estimator = latency_start();
    }

    uint64_t seen(uint64_t t) const
    {
        return (t + SECOND) / clock_us * clock_us; // never 0, as no counter is
    }

    uint32_t seen_ms(uint64_t t) const
    {
        return (uint32_t)((t + SECOND) / tick_us * tick_us / MS);
    }

    void take_answers()
    {
        while (!answers.empty() && answers.front().at_us <= now) {
            answer a = answers.front();
            answers.pop_front();
            line_acked(&line, a.seq, seen(now));
            cap_acked = a.seq;
            uint32_t stamp =
                forged_ms >= 0 ? seen_ms(now) - (uint32_t)forged_ms : seen_ms(a.sent_us);
            latency_update(&estimator, latency_sample(seen_ms(now), stamp));
        }
    }

    void send()
    {
        uint64_t limit = paced ? line_frame_bytes(&line) : LINE_NO_LIMIT;
        bool in = paced && line.in;
        uint64_t tiles = in ? SCREEN_TILES : (uint64_t)estimator.tile_budget;
        uint64_t bytes = 0;
        for (uint64_t i = 0; i < tiles && i < SCREEN_TILES; i++) {
            if (bytes >= limit || bytes >= frame_bytes_max)
                break;
            bytes += NOISE_TILE;
        }
        line_sent(&line, ++seq, bytes, seen(now));
        backlog += (double)bytes;
        if (backlog > rate * (double)queue_us / SECOND)
            dropped++;
        uint64_t out = (uint64_t)(backlog / rate * SECOND);
        if (!silent)
            answers.push_back({seq, now, now + out + trip_us + ack_late_us});
        sent_frames++;
        sent_at.push_back(now);
    }

    void step()
    {
        take_answers();
        bool flushing = backlog > SOCKET_BUFFER; // and the server thread with it
        if (!flushing && (now - last_capture >= 16 * MS || last_capture == 0)) {
            bool may = !paced || line_wait_us(&line, seen(now)) == 0;
            if (may) {
                pacing_decision cap = pacing_step(seq, cap_acked, estimator.ema_rtt16,
                                                  seen_ms(now), last_iteration);
                if (cap == PACE_STALL)
                    cap_acked = seq;
                if (cap != PACE_WAIT) {
                    last_capture = now;
                    send();
                    last_iteration = seen_ms(now);
                }
            }
        }
        queue_samples.push_back((uint64_t)(backlog / rate * SECOND));
        double out = std::min(backlog, rate * MS / SECOND);
        carried += out;
        backlog -= out;
        now += MS;
    }

    void run(uint64_t us)
    {
        for (uint64_t end = now + us; now < end;)
            step();
    }

    void forget()
    {
        dropped = 0;
        sent_frames = 0;
        carried = 0;
        queue_samples.clear();
        sent_at.clear();
    }

    uint64_t queue_percentile(int percent)
    {
        std::vector<uint64_t> sorted = queue_samples;
        std::sort(sorted.begin(), sorted.end());
        return sorted[(sorted.size() - 1) * (size_t)percent / 100];
    }
};
} // namespace

// Lets a host send for so long, and holds the line to being full and its queue to a median and
// to a time that a twentieth may exceed.
static void check_full_and_short(simulation *s, uint64_t seconds, uint64_t median_us,
                                 uint64_t long_us)
{
    s->forget();
    s->run(seconds * SECOND);
    CHECK(s->dropped == 0);
    CHECK(s->carried >= 0.9 * (double)seconds * s->rate);
    CHECK(s->queue_percentile(50) <= median_us);
    CHECK(s->queue_percentile(95) <= long_us);
}

TEST_CASE("a slow line is kept full, its queue short and nothing is dropped")
{
    struct {
        double rate;
        uint64_t trip_us;
    } lines[] = {{2500000, 40 * MS}, {625000, 100 * MS}};
    struct {
        uint64_t clock_us, tick_us, median_us, long_us;
    } clocks[] = {
        {1, MS, 60 * MS, 100 * MS},
        {1, 16 * MS, 60 * MS, 100 * MS},
        // No system that is known has a fine clock of such steps. Round trips then come out up
        // to a step too short, the rate a tenth too high on the longer line, and the queue with
        // it.
        {16 * MS, 16 * MS, 70 * MS, 115 * MS},
    };
    for (auto &row : lines)
        for (auto &clock : clocks)
            for (uint64_t late : {(uint64_t)0, 20 * MS}) {
                CAPTURE(row.rate);
                CAPTURE(clock.clock_us);
                CAPTURE(clock.tick_us);
                CAPTURE(late);
                simulation s(row.rate, row.trip_us);
                s.clock_us = clock.clock_us;
                s.tick_us = clock.tick_us;
                s.ack_late_us = late;
                s.run(SECOND);
                CHECK(s.dropped == 0);
                check_full_and_short(&s, 20, clock.median_us, clock.long_us);
            }
}

TEST_CASE("without it seconds of pictures lie in the queue")
{
    simulation s;
    s.paced = false;
    s.run(5 * SECOND);
    CHECK(s.queue_percentile(50) > SECOND);
    CHECK(s.dropped > 0);
}

TEST_CASE("a slow line that looked near is noticed, and its queue goes")
{
    simulation s(2 * MS); // the handshake's packets are small
    s.rate = 625000;
    s.trip_us = 2 * MS;
    s.frame_bytes_max = 20000;
    CHECK_FALSE(s.line.in);
    s.run(5 * SECOND);
    CHECK(s.line.in);
    check_full_and_short(&s, 10, 60 * MS, 100 * MS);
}

TEST_CASE("a peer that answers at once never makes the limit apply, whatever it stamps")
{
    for (int32_t forged : {-1, 0, 40, 5000, 1000000}) {
        CAPTURE(forged);
        simulation s(1e9, 0);
        s.forged_ms = forged;
        simulation by_the_letter(1e9, 0);
        by_the_letter.forged_ms = forged;
        by_the_letter.paced = false;
        for (int i = 0; i < 5000; i++) {
            s.step();
            by_the_letter.step();
            REQUIRE_FALSE(s.line.in);
        }
        CHECK(s.sent_at == by_the_letter.sent_at);
        CHECK(s.line.sent_bytes == by_the_letter.line.sent_bytes);
        CHECK(s.sent_frames > 100);
    }
}

TEST_CASE("a peer that does not answer is no evidence, and only the 250 ms rule applies")
{
    simulation s(1 * MS);
    s.rate = 1e9;
    s.silent = true;
    s.run(10 * SECOND);
    CHECK_FALSE(s.line.in);
    // Each full iteration is followed by more than 250 ms of waiting.
    REQUIRE(s.sent_at.size() > 30);
    for (size_t i = 1; i < s.sent_at.size(); i++) {
        CHECK(s.sent_at[i] - s.sent_at[i - 1] > 250 * MS);
        CHECK(s.sent_at[i] - s.sent_at[i - 1] <= 253 * MS);
    }
}

TEST_CASE("when answers stop, a frame goes every two seconds and the next answer ends that")
{
    simulation s;
    s.run(3 * SECOND);
    s.silent = true;
    s.run(SECOND); // what was under way is answered
    s.forget();
    s.run(20 * SECOND);
    REQUIRE(s.sent_frames >= 9);
    CHECK(s.sent_frames <= 10);
    for (size_t i = 1; i < s.sent_at.size(); i++)
        CHECK(s.sent_at[i] - s.sent_at[i - 1] >= 2 * SECOND);
    s.silent = false;
    s.run(3 * SECOND);
    s.forget();
    s.run(5 * SECOND);
    CHECK(s.carried >= 0.8 * 5 * s.rate);
}

// Round trips, each from a frame's sending to its answer, until the limit has come within a
// third of what the line now takes, and stays there for as long again.
static int round_trips_until_settled(simulation *s)
{
    int trips = 0;
    int settled_at = -1;
    uint32_t waits_for = s->seq;
    double right = s->rate * (double)(s->trip_us + LINE_QUEUE_US) / SECOND;
    while (trips < 40) {
        s->step();
        if ((int32_t)(s->line.acked_seq - waits_for) < 0)
            continue;
        trips++;
        waits_for = s->seq + 1;
        double limit = (double)line_limit(&s->line);
        bool good = limit > right / 1.4 && limit < right * 1.4;
        if (!good)
            settled_at = -1;
        else if (settled_at < 0)
            settled_at = trips;
        if (settled_at > 0 && trips >= 2 * settled_at)
            break;
    }
    return settled_at > 0 ? settled_at : 99;
}

TEST_CASE("a fourfold change of the rate is followed within five round trips")
{
    for (uint64_t trip : {40 * MS, 100 * MS})
        for (double factor : {4.0, 0.25}) {
            CAPTURE(trip);
            CAPTURE(factor);
            simulation s(factor > 1 ? 625000 : 2500000, trip);
            s.run(10 * SECOND);
            s.rate *= factor;
            CHECK(round_trips_until_settled(&s) <= 5);
        }
}

TEST_CASE("a round trip that grows by 100 ms costs the rate for less than 30 s")
{
    struct {
        double rate;
        uint64_t trip_us;
    } lines[] = {{2500000, 40 * MS}, {625000, 100 * MS}, {2500000, 5 * MS}};
    for (auto &row : lines) {
        CAPTURE(row.rate);
        CAPTURE(row.trip_us);
        simulation s(row.rate, row.trip_us);
        s.run(20 * SECOND);
        s.trip_us += 100 * MS;
        s.run(25 * SECOND);
        s.forget();
        s.run(5 * SECOND);
        CHECK(s.carried >= 0.8 * 5 * s.rate);
        s.forget();
        s.run(20 * SECOND);
        CHECK(s.carried >= 0.8 * 20 * s.rate);
        CHECK(s.queue_percentile(95) <= 120 * MS);
    }
}

// ---------------------------------------------------------------------------------------
// Single numbers

static line_pacing started(uint64_t trip_us = 0)
{
    line_pacing line;
    line_start(&line, 0, trip_us, trip_us, SECOND);
    return line;
}

// One frame there and back, nothing else under way.
static void there_and_back(line_pacing *line, uint64_t bytes, uint64_t at_us, uint64_t rtt_us)
{
    uint32_t seq = line->sent_seq + 1;
    line_sent(line, seq, bytes, at_us);
    line_acked(line, seq, at_us + rtt_us);
}

TEST_CASE("only when both round trips of the handshake are long the limit applies at once")
{
    struct {
        uint64_t first_us, second_us;
        bool in;
    } rows[] = {{25000, 25000, true},
                {24999, 300000, false},
                {300000, 24999, false},
                {90000, 40000, true}};
    for (auto &row : rows) {
        line_pacing line;
        line_start(&line, 7, row.first_us, row.second_us, SECOND);
        CHECK(line.in == row.in);
        CHECK(line_base_us(&line) ==
              (row.first_us < row.second_us ? row.first_us : row.second_us));
        CHECK(line_limit(&line) == LINE_LIMIT_START);
        CHECK(line_frame_bytes(&line) == (row.in ? LINE_LIMIT_START / 4 : LINE_NO_LIMIT));
    }
}

TEST_CASE("a queue that much was delivered through makes the limit apply")
{
    struct {
        const char *what;
        uint64_t bytes, rtt_us;
        bool in;
    } rows[] = {
        {"60 ms in queues", 65536, 61000, false},
        {"more than that", 65536, 61001, true},
        {"less than 64 KiB", 65535, 200000, false},
        // 25 MB/s for 100 ms: 2,500,000 bytes.
        {"a fast line, or a slow viewer", 2500000, 100000, false},
        {"a little slower", 2499999, 100000, true},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        line_pacing line = started();
        there_and_back(&line, 100, 2 * SECOND, 1000); // base 0 by the handshake, then 1 ms
        line.trip_us = LINE_NO_LIMIT;
        there_and_back(&line, row.bytes, 3 * SECOND, row.rtt_us);
        CHECK(line.in == row.in);
    }
}

TEST_CASE("frames sent before the first acknowledgement are no evidence")
{
    line_pacing line = started();
    line_sent(&line, 1, 1000000, 2 * SECOND);
    line_sent(&line, 2, 1000000, 2 * SECOND + MS);
    line_acked(&line, 1, 3 * SECOND);
    line_acked(&line, 2, 4 * SECOND);
    CHECK_FALSE(line.in);
    CHECK(line.estimate == 0);
    line_sent(&line, 3, 1000000, 5 * SECOND);
    line_acked(&line, 3, 6 * SECOND);
    CHECK(line.in);
    CHECK(line.estimate == 1000000);
}

TEST_CASE("the limit ends when more than 30 MB/s get through")
{
    for (uint64_t bytes : {3000000, 3000001 + 9}) {
        line_pacing line = started(30 * MS);
        REQUIRE(line.in);
        there_and_back(&line, 100, 2 * SECOND, 30 * MS);
        there_and_back(&line, bytes, 3 * SECOND, 100 * MS); // 30 MB/s: 3,000,000 bytes
        CHECK(line.in == (bytes == 3000000));
    }
}

TEST_CASE("rate, limit and the size of a frame")
{
    line_pacing line = started(40 * MS);
    there_and_back(&line, 100, 2 * SECOND, 40 * MS);
    CHECK(line.estimate == 0);
    there_and_back(&line, 16383, 2500 * MS, 40 * MS); // too little to say anything
    CHECK(line.estimate == 0);
    there_and_back(&line, 100000, 3 * SECOND, 80 * MS);
    CHECK(line.estimate == 1250000);         // 100,000 in 80 ms
    CHECK(line_limit(&line) == 112500);      // in 40 + 50 ms
    CHECK(line_frame_bytes(&line) == 28125); // a quarter
    CHECK(line_wait_us(&line, 4 * SECOND) == 0);

    // The second frame's rate counts from the acknowledgement before it: 60,000 bytes under
    // way and its own 60,000 since then.
    line_sent(&line, 4, 60000, 4 * SECOND);
    line_sent(&line, 5, 60000, 4 * SECOND + 10 * MS);
    CHECK(line_wait_us(&line, 4 * SECOND + 10 * MS) == 2 * SECOND);
    CHECK(line_wait_us(&line, 5 * SECOND + 10 * MS) == SECOND);
    CHECK(line_wait_us(&line, 6 * SECOND + 10 * MS) == 0);
    line_acked(&line, 4, 4 * SECOND + 60 * MS);
    CHECK(line_wait_us(&line, 4 * SECOND + 60 * MS) == 0);
    line_acked(&line, 5, 4 * SECOND + 80 * MS);
    // Frame 4 and 5: 60,000 in 60 ms; 120,000 since 3.08 s, when the line was idle by then.
    CHECK(line.estimate == 1250000);
}

// Frames there and back one after the other, and what is believed after each.
struct round_trip {
    uint64_t bytes, at_us, rtt_us, due;
};

static void check_rounds(uint64_t (*believed)(const line_pacing *),
                         std::initializer_list<round_trip> rounds)
{
    line_pacing line = started(40 * MS);
    for (const round_trip &row : rounds) {
        CAPTURE(row.at_us);
        there_and_back(&line, row.bytes, row.at_us, row.rtt_us);
        CHECK(believed(&line) == row.due);
    }
}

static uint64_t believed_rate(const line_pacing *line)
{
    return line->estimate;
}

TEST_CASE("the largest rate counts for 1.5 to 3 s, and then the last one known")
{
    check_rounds(believed_rate, {{100, 1 * SECOND, 40 * MS, 0},
                                 {100000, 2 * SECOND, 50 * MS, 2000000},
                                 {120000, 3400 * MS, 150 * MS, 2000000}, // 800,000
                                 {120000, 4 * SECOND, 150 * MS, 2000000},
                                 {120000, 5600 * MS, 150 * MS, 800000},
                                 {100, 60 * SECOND, 50 * MS, 800000}});
}

// Or the limit itself would keep a line from ever being filled that it does not fill.
TEST_CASE("a low rate counts when something waited, and else the estimate stands")
{
    // The frame is 25 ms long at the estimate, so it takes 65 ms on an empty line.
    for (auto [rtt_us, due] : {std::pair<uint64_t, uint64_t>{65 * MS, 2000000},
                               {105 * MS - 1, 2000000},
                               {105 * MS, 476190}}) // 50,000 in 105 ms
        check_rounds(believed_rate, {{100, 1 * SECOND, 40 * MS, 0},
                                     {100000, 2 * SECOND, 50 * MS, 2000000},
                                     {50000, 5600 * MS, rtt_us, due}});
    // It stands for 1.5 to 3 s more beside what counts.
    check_rounds(believed_rate, {{100, 1 * SECOND, 40 * MS, 0},
                                 {100000, 2 * SECOND, 50 * MS, 2000000},
                                 {50000, 5600 * MS, 65 * MS, 2000000},
                                 {50000, 6 * SECOND, 105 * MS, 2000000},
                                 {50000, 9 * SECOND, 105 * MS, 476190}});
}

TEST_CASE("what is 120 ms late counts by the latest rates alone")
{
    check_rounds(believed_rate,
                 {{100, 1 * SECOND, 40 * MS, 0},
                  {100000, 2000 * MS, 50 * MS, 2000000},
                  {100000, 2200 * MS, 170 * MS, 2000000},  // queued for more than 120 ms
                  {100000, 2400 * MS, 170 * MS, 2000000},  // the first is of the last three
                  {100000, 2600 * MS, 200 * MS, 588235}}); // 100,000 in 170 ms
}

TEST_CASE("the base is the smallest round trip of one to two minutes and of the handshake")
{
    check_rounds(line_base_us, {{100, 2 * SECOND, 30 * MS, 30 * MS},
                                {100, 70 * SECOND, 35 * MS, 30 * MS},
                                {100, 135 * SECOND, 38 * MS, 35 * MS},
                                {100, 400 * SECOND, 90 * MS, 40 * MS}}); // the handshake's
}

TEST_CASE("at the smallest limit three long round trips in a row become the base")
{
    check_rounds(line_base_us,
                 {{100, 1 * SECOND, 40 * MS, 40 * MS},
                  // 133 KB/s: 12,000 bytes in 90 ms, which is less than the smallest limit.
                  {20000, 2 * SECOND, 150 * MS, 40 * MS},
                  {100, 3 * SECOND, 140 * MS, 40 * MS},
                  {100, 4 * SECOND, 80 * MS, 40 * MS}, // not more than 40 ms too long
                  {100, 5 * SECOND, 140 * MS, 40 * MS},
                  {100, 6 * SECOND, 130 * MS, 40 * MS},
                  {100, 7 * SECOND, 150 * MS, 130 * MS},
                  {100, 8 * SECOND, 110 * MS, 110 * MS}});
}

// ---------------------------------------------------------------------------------------
// What a hostile viewer may acknowledge

TEST_CASE("acknowledgements that cannot be true change nothing")
{
    line_pacing line = started(40 * MS);
    there_and_back(&line, 1000, 2 * SECOND, 40 * MS);
    line_sent(&line, 2, 1000, 3 * SECOND);
    line_sent(&line, 3, 1000, 3 * SECOND);
    line_acked(&line, 2, 3 * SECOND + 50 * MS);
    for (uint32_t seq : {0u, 1u, 2u, 4u, 2u + LINE_FRAMES, 3u - LINE_FRAMES, 0x80000002u,
                         0x80000003u, 0xFFFFFFFFu}) {
        CAPTURE(seq);
        line_pacing before = line;
        line_acked(&line, seq, 4 * SECOND);
        CHECK(memcmp(&before, &line, sizeof line) == 0);
    }
    line_acked(&line, 3, 4 * SECOND);
    CHECK(line.acked_bytes == line.sent_bytes);
}

TEST_CASE("before the numbers wrap a frame of number 0 was not sent yet")
{
    line_pacing line; // zeroed: it holds no frame, and each of them has the number 0
    line_start(&line, 0xFFFFFFFDu, 40 * MS, 40 * MS, SECOND);
    line_sent(&line, 0xFFFFFFFEu, 1000, 2 * SECOND);
    line_acked(&line, 0, 3 * SECOND);
    CHECK(line.acked_seq == 0xFFFFFFFDu);
    line_acked(&line, 0xFFFFFFFEu, 4 * SECOND);
    CHECK(line.acked_bytes == 1000);
}

TEST_CASE("an acknowledgement stands for all frames before it")
{
    line_pacing line = started(40 * MS);
    for (uint32_t seq = 1; seq <= 5; seq++)
        line_sent(&line, seq, 50000, 2 * SECOND);
    CHECK(line_wait_us(&line, 2 * SECOND) != 0);
    line_acked(&line, 5, 3 * SECOND);
    CHECK(line.acked_bytes == 250000);
    CHECK(line_wait_us(&line, 3 * SECOND) == 0);
}

TEST_CASE("a frame so old that it is forgotten is not believed, and the next one is")
{
    line_pacing line = started(40 * MS);
    for (uint32_t seq = 1; seq <= LINE_FRAMES + 1; seq++)
        line_sent(&line, seq, 10, 2 * SECOND);
    line_acked(&line, 1, 3 * SECOND);
    CHECK(line.acked_bytes == 0);
    line_acked(&line, 2, 3 * SECOND);
    CHECK(line.acked_bytes == 20);
}

TEST_CASE("frame numbers wrap")
{
    line_pacing line;
    line_start(&line, 0xFFFFFFFEu, 40 * MS, 40 * MS, SECOND);
    there_and_back(&line, 1000, 2 * SECOND, 40 * MS);
    there_and_back(&line, 80000, 3 * SECOND, 40 * MS); // number 0
    CHECK(line.acked_seq == 0);
    CHECK(line.acked_bytes == 81000);
    CHECK(line.estimate == 2000000);
    there_and_back(&line, 1000, 4 * SECOND, 40 * MS);
    CHECK(line.acked_seq == 1);
}

TEST_CASE("a clock that stands still or is a little behind divides by nothing")
{
    line_pacing line = started(40 * MS);
    there_and_back(&line, 100, 2 * SECOND, 0);
    there_and_back(&line, 16777216, 2 * SECOND, 0);
    CHECK_FALSE(line.in);
    line_sent(&line, 3, 100, 3 * SECOND);
    line_acked(&line, 3, 3 * SECOND - 5);
    CHECK(line.acked_bytes == line.sent_bytes);
    CHECK(line_wait_us(&line, 2 * SECOND) == 0);
}

// A viewer that says anything at any time: the limit stays within its bounds and the stream
// never stands still for longer than the rule for that allows.
TEST_CASE("random acknowledgements never stop the stream")
{
    test_random rnd = test_random_seeded("acknowledgements");
    for (int run = 0; run < 200; run++) {
        line_pacing line;
        uint64_t now = SECOND + (uint64_t)rnd.next() % SECOND;
        uint32_t seq = (uint32_t)rnd.next();
        line_start(&line, seq, rnd.next() % (200 * MS), rnd.next() % (200 * MS), now);
        uint64_t last = now; // frame sent or acknowledged
        for (int i = 0; i < 500; i++) {
            now += rnd.next() % (rnd.next() % 8 == 0 ? 700 * MS : 30 * MS);
            uint64_t wait = line_wait_us(&line, now);
            REQUIRE(wait <= 2 * SECOND);
            if (wait == 0) {
                line_sent(&line, ++seq, 1 + rnd.next() % 400000, now);
                last = now;
            }
            REQUIRE(now - last < 2 * SECOND);
            uint32_t said = seq - (uint32_t)(rnd.next() % 6);
            if (rnd.next() % 4 == 0)
                said = (uint32_t)rnd.next();
            if (rnd.next() % 3 != 0)
                line_acked(&line, said, now);
            if (line.last_ack_us == now)
                last = now;
            REQUIRE(line.acked_bytes <= line.sent_bytes);
            REQUIRE(line_limit(&line) >= LINE_LIMIT_MIN);
            REQUIRE(line_frame_bytes(&line) >= LINE_FRAME_MIN);
        }
    }
}
