// Labels: threaded
#include "host/server_wake.h"
#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/test.h"

#include <initializer_list>

using namespace host;

// Longer than any machine is busy; a pause that is not cut short shows by its length.
static constexpr uint64_t LONG_US = 60000000;

static void wake_once(void *)
{
    server_wake();
}

TEST_CASE("a pause that nobody ends takes its time")
{
    for (uint64_t us : {1ull, 900ull, 5000ull, 16000ull}) {
        CAPTURE(us);
        uint64_t start = clock_us();
        server_pause(us);
        // The system's timer may run by another counter, a little ahead.
        CHECK(clock_us() - start + 1000 >= us);
    }
}

TEST_CASE("a wake ends the pause under way or the next one, and only one")
{
    uint64_t start = clock_us();
    server_wake();
    server_wake();
    server_pause(LONG_US);
    CHECK(clock_us() - start < LONG_US / 2);

    uint64_t next = clock_us();
    server_pause(20000);
    CHECK(clock_us() - next + 1000 >= 20000);

    // Once it waits already, as a rule.
    start = clock_us();
    thread *waker = thread_start(wake_once, nullptr);
    REQUIRE(waker != nullptr);
    server_pause(LONG_US);
    CHECK(clock_us() - start < LONG_US / 2);
    CHECK(thread_join(waker, THREAD_WAIT_FOREVER));
}

TEST_CASE("the fine clock keeps step with the coarse one")
{
    uint32_t ms = clock_ms();
    uint64_t us = clock_us();
    uint64_t last = us;
    while (clock_ms() - ms < 200) {
        uint64_t now = clock_us();
        REQUIRE(now >= last);
        last = now;
    }
    // The coarse one may advance in steps of 17 ms, and the thread may lose its processor.
    CHECK(last - us >= 150000);
    CHECK(last - us < LONG_US);
}
