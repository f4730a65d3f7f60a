// The rhythm of screen copies on a scripted clock: the test is what happens during a pause.
//
// Fakes: clock_script
#include "host/capture_pace.h"
#include "host/server_wake.h"
#include "tests/fakes/clock_script.h"
#include "tests/test.h"

#include <deque>
#include <functional>
#include <vector>

using namespace host;

// What other threads do, at these times of the clock, each once and in order.
struct happening {
    uint32_t at_ms;
    std::function<void()> what;
};
static std::deque<happening> script;
static bool woken;
static std::vector<uint32_t> pauses; // as asked for, in milliseconds

void host::server_pause(uint64_t us)
{
    REQUIRE(us > 0);
    REQUIRE(us <= COPY_PAUSE_LONG_REST_US);
    uint32_t end = clock_script_now + (uint32_t)((us + 999) / 1000);
    pauses.push_back((uint32_t)(us / 1000));
    while (!woken && !script.empty() && script.front().at_ms < end) {
        clock_script_now = script.front().at_ms;
        auto what = script.front().what;
        script.pop_front();
        what();
    }
    if (!woken)
        clock_script_now = end;
    woken = false;
}

void host::server_wake()
{
    woken = true;
}

// A session that began so long ago, in which nothing happened since.
static void start(uint32_t rest_ms)
{
    script.clear();
    pauses.clear();
    woken = false;
    clock_script_now = 1000000;
    capture_pace_start();
    clock_script_now += rest_ms;
}

// Milliseconds from the end of a copy, which is now, to the next.
static uint32_t next_copy()
{
    uint32_t copied = clock_script_now;
    capture_pace_wait((uint64_t)copied * 1000);
    return clock_script_now - copied;
}

TEST_CASE("the pause depends on the last input and on how long nothing has happened")
{
    struct {
        uint64_t input_us, activity_us, pause_us;
    } rows[] = {
        {INPUT_ANSWERED, 0, 16000},
        {INPUT_ANSWERED, 1999999, 16000},
        {INPUT_ANSWERED, 2000000, 33000},
        {INPUT_ANSWERED, 9999999, 33000},
        {INPUT_ANSWERED, 10000000, 50000},
        {INPUT_ANSWERED, UINT64_MAX, 50000},
        {0, 0, 5000},
        {47999, 47999, 5000},
        {48000, 48000, 16000},
        {10000000, 10000000, 50000},
    };
    for (auto &row : rows) {
        CAPTURE(row.input_us);
        CAPTURE(row.activity_us);
        CHECK(copy_pause_us(row.input_us, row.activity_us) == row.pause_us);
    }
}

TEST_CASE("copies become rarer while nothing happens")
{
    start(0);
    uint32_t began = clock_script_now;
    uint32_t last = 0;
    while (clock_script_now - began < 12000) {
        uint32_t rest = clock_script_now - began;
        CAPTURE(rest);
        uint32_t pause = next_copy();
        CHECK(pause >= last);
        // A pause that began before the limit may end after it, and is then the longer one.
        if (rest < 2000 - 16)
            CHECK(pause == 16);
        else if (rest >= 2000 && rest < 10000 - 33)
            CHECK(pause == 33);
        else if (rest >= 10000)
            CHECK(pause == 50);
        last = pause;
    }
}

TEST_CASE("a copy that is overdue is made at once")
{
    start(0);
    uint64_t copied = (uint64_t)clock_script_now * 1000;
    clock_script_now += 16;
    capture_pace_wait(copied);
    CHECK(pauses.empty());
}

TEST_CASE("what happens wakes a long pause and brings the usual one back")
{
    struct {
        const char *what;
        std::function<void()> happens;
        uint32_t at_ms, copy_ms; // from the end of the last copy
    } rows[] = {
        {"news early in the pause", capture_pace_news, 3, 16},
        {"news later than a usual pause", capture_pace_news, 29, 29},
        {"an input early in the pause", capture_pace_input, 3, 5},
        {"an input later than a usual pause", capture_pace_input, 44, 44},
        {"woken by nobody in particular", server_wake, 20, 50},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        start(20000);
        script = {{clock_script_now + row.at_ms, row.happens}};
        CHECK(next_copy() == row.copy_ms);
        CHECK(script.empty());
    }
}

TEST_CASE("after a frame the usual pause lasts for two seconds")
{
    for (bool picture : {true, false}) {
        CAPTURE(picture);
        start(20000);
        CHECK(next_copy() == 50);
        capture_pace_frame(picture);
        CHECK(next_copy() == 16);
        clock_script_now += 1960;
        CHECK(next_copy() == 16);
        clock_script_now += 10;
        CHECK(next_copy() == 33);
    }
}

TEST_CASE("after an input copies follow at 5 ms for 48 ms at most")
{
    start(0);
    clock_script_now += 100;
    capture_pace_input();
    std::vector<uint32_t> found;
    for (int i = 0; i < 12; i++)
        found.push_back(next_copy());
    // The tenth pause begins 45 ms after the input: the answer is awaited no more when it
    // would end.
    CHECK(found == std::vector<uint32_t>{5, 5, 5, 5, 5, 5, 5, 5, 5, 16, 16, 16});
}

TEST_CASE("a changed picture ends the quick copies, a moved pointer does not")
{
    start(0);
    capture_pace_input();
    CHECK(next_copy() == 5);
    capture_pace_frame(false);
    CHECK(next_copy() == 5);
    capture_pace_frame(true);
    CHECK(next_copy() == 16);
    capture_pace_input(); // the next input begins anew
    CHECK(next_copy() == 5);
}

TEST_CASE("a picture that was copied before the input does not answer it")
{
    start(0);
    capture_pace_input();
    CHECK(next_copy() == 5);
    clock_script_now += 1;
    capture_pace_input(); // while that picture is at work
    capture_pace_frame(true);
    CHECK(next_copy() == 5);
    capture_pace_frame(true);
    CHECK(next_copy() == 16);
}

TEST_CASE("the first input of a session counts, and the one before it no more")
{
    start(0);
    capture_pace_input();
    start(0);
    CHECK(next_copy() == 16);
    capture_pace_input();
    CHECK(next_copy() == 5);
}
