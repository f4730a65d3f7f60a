// Labels: threaded
#include "protocol/thread.h"

#include "protocol/clock.h"
#include "protocol/computer_name.h"
#include "protocol/lock.h"
#include "protocol/random.h"
#include "tests/test.h"

#include <atomic>
#include <string.h>

static void store_42(void *parameter)
{
    *(int *)parameter = 42;
}

TEST_CASE("what a thread wrote is visible after the join")
{
    int value = 0;
    thread *t = thread_start(store_42, &value);
    REQUIRE(t);
    CHECK(thread_join(t, THREAD_WAIT_FOREVER));
    CHECK(value == 42);
}

namespace
{
struct gate {
    std::atomic<bool> open;
    std::atomic<bool> passed;
};
} // namespace

static void pass_gate(void *parameter)
{
    gate *g = (gate *)parameter;
    while (!g->open)
        clock_sleep_ms(1);
    g->passed = true;
}

static bool wait_passed(gate *g)
{
    for (int i = 0; i < 5000 && !g->passed; i++)
        clock_sleep_ms(1);
    return g->passed;
}

TEST_CASE("a join gives up at its limit and the thread runs on")
{
    static gate g;
    thread *t = thread_start(pass_gate, &g);
    REQUIRE(t);
    uint32_t start = clock_ms();
    CHECK_FALSE(thread_join(t, 100));
    CHECK(clock_ms() - start >= 80); // less one step of the coarsest clock
    CHECK_FALSE(g.passed);
    g.open = true;
    CHECK(wait_passed(&g));
}

TEST_CASE("a join with a limit ends as soon as the thread does")
{
    int value = 0;
    thread *t = thread_start(store_42, &value);
    REQUIRE(t);
    CHECK(thread_join(t, 60000));
    CHECK(value == 42);
}

TEST_CASE("a detached thread runs to its end, whether or not it has ended already")
{
    static gate late, early;
    late.open = false;
    thread *t = thread_start(pass_gate, &late);
    REQUIRE(t);
    thread_detach(t);
    late.open = true;
    CHECK(wait_passed(&late));

    early.open = true;
    t = thread_start(pass_gate, &early);
    REQUIRE(t);
    CHECK(wait_passed(&early));
    clock_sleep_ms(20);
    thread_detach(t);
}

static struct {
    lock guard;
    int count GUARDED_BY(guard);
} shared;

static void count_up(void *)
{
    lock_init(&shared.guard);
    for (int i = 0; i < 10000; i++) {
        lock_enter(&shared.guard);
        shared.count++;
        lock_leave(&shared.guard);
    }
}

TEST_CASE("threads that make and take one lock at the same time never lose an update")
{
    thread *threads[4];
    for (thread *&t : threads) {
        t = thread_start(count_up, nullptr);
        REQUIRE(t);
    }
    for (thread *t : threads)
        REQUIRE(thread_join(t, 60000));
    lock_enter(&shared.guard);
    CHECK(shared.count == 40000);
    lock_leave(&shared.guard);
}

static lock again;
static std::atomic<bool> got_in;

static void enter_once(void *)
{
    lock_enter(&again);
    got_in = true;
    lock_leave(&again);
}

// The analysis does not know recursive locks.
static void check_recursion() NO_THREAD_SAFETY_ANALYSIS
{
    lock_init(&again);
    lock_enter(&again);
    lock_enter(&again);
    lock_init(&again); // does nothing to a lock in use
    lock_leave(&again);
    thread *t = thread_start(enter_once, nullptr);
    REQUIRE(t);
    clock_sleep_ms(50);
    CHECK_FALSE(got_in); // one level is still held
    lock_leave(&again);
    REQUIRE(thread_join(t, 5000));
    CHECK(got_in);
}

TEST_CASE("a lock is entered again by its holder and left as often")
{
    check_recursion();
}

TEST_CASE("the clock goes on while a thread sleeps")
{
    uint32_t start = clock_ms();
    clock_sleep_ms(100);
    uint32_t elapsed = clock_ms() - start;
    CHECK(elapsed >= 80);
    CHECK(elapsed < 10000);
}

TEST_CASE("random bytes fill exactly what was asked for and differ each time")
{
    uint8_t a[34], b[34];
    memset(a, 0xA5, sizeof a);
    memset(b, 0xA5, sizeof b);
    REQUIRE(random_bytes(a + 1, 32));
    REQUIRE(random_bytes(b + 1, 32));
    CHECK(memcmp(a + 1, b + 1, 32) != 0);
    CHECK(a[0] == 0xA5);
    CHECK(a[33] == 0xA5);
}

TEST_CASE("the computer has a name, terminated and padded with NUL")
{
    char name[NAME_BYTES];
    memset(name, 'x', sizeof name);
    computer_name_get(name);
    size_t length = strnlen(name, sizeof name);
    CHECK(length > 0);
    REQUIRE(length < sizeof name);
    for (size_t i = length; i < sizeof name; i++)
        CHECK(name[i] == 0);
}
