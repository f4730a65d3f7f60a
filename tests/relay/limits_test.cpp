#include "relay/limits.h"

#include "tests/test.h"

using namespace relay;

TEST_CASE("a bucket gives what is in it and fills at its rate up to its size")
{
    token_bucket bucket(2, 10, 100);
    for (int i = 0; i < 10; i++)
        CHECK(bucket.try_take(1, 100));
    CHECK_FALSE(bucket.try_take(1, 100));
    CHECK_FALSE(bucket.try_take(1, 100.25)); // half a token
    CHECK(bucket.try_take(1, 100.5));
    CHECK_FALSE(bucket.try_take(1, 100.5));
    CHECK_FALSE(bucket.is_full(105));
    CHECK(bucket.is_full(105.5));
    for (int i = 0; i < 10; i++) // an hour gives no more than its size
        CHECK(bucket.try_take(1, 4000));
    CHECK_FALSE(bucket.try_take(1, 4000));
}

TEST_CASE("a taker in debt waits until it is paid")
{
    token_bucket bucket(100, 50, 0);
    CHECK(bucket.take(50, 0) == 0);
    CHECK(bucket.take(100, 0) == doctest::Approx(1.0));
    CHECK(bucket.take(100, 1.0) == doctest::Approx(1.0)); // as fast as its rate
    CHECK(bucket.take(0, 2.0) == 0);
    CHECK_FALSE(bucket.try_take(1, 2.0));
}

TEST_CASE("each key has a bucket of its own")
{
    keyed_buckets buckets(1, 2);
    CHECK(buckets.try_take("a", 0));
    CHECK(buckets.try_take("a", 0));
    CHECK_FALSE(buckets.try_take("a", 0));
    CHECK(buckets.try_take("b", 0));
    CHECK(buckets.try_take("a", 1));
}

TEST_CASE("buckets that are full again are forgotten, others never")
{
    keyed_buckets buckets(1, 2);
    CHECK(buckets.try_take("spent", 1000));
    CHECK(buckets.try_take("spent", 1000));
    double now = 0;
    for (int i = 0; i < 100000; i++) {
        now = 1000 + 0.000001 * i; // within a second: "spent" earns nothing yet
        if (!buckets.try_take("key" + std::to_string(i % 5000), now) && i < 5000)
            FAIL("a new key was refused");
    }
    CHECK(buckets.size() == 5001);
    CHECK_FALSE(buckets.try_take("spent", now));
    for (int i = 0; i < 100000; i++) { // strangers, one each 10 ms: 200 are not full at a time
        now += 0.01;
        REQUIRE(buckets.try_take("stranger" + std::to_string(i), now));
        REQUIRE(buckets.size() <= 12000);
    }
    CHECK(buckets.size() < 1500);
}

TEST_CASE("so many failed log-ins a minute are free, the next closes")
{
    login_guard guard(10);
    for (int i = 0; i < 10; i++) {
        CHECK(guard.failed("room", 50) == 0);
        CHECK_FALSE(guard.is_closed("room", 50));
    }
    CHECK(guard.failed("room", 50) == 5);
    CHECK(guard.is_closed("room", 50));
    CHECK(guard.is_closed("room", 54.9));
    CHECK_FALSE(guard.is_closed("room", 55));
    CHECK_FALSE(guard.is_closed("another", 50));
}

TEST_CASE("a key that goes on failing is closed for twice as long each time, to a limit")
{
    login_guard guard(1);
    double now = 0;
    CHECK(guard.failed("room", now) == 0);
    for (const double expected : {5, 10, 20, 40, 80, 160, 300, 300}) {
        CHECK(guard.failed("room", now) == expected);
        now += 0.001; // at once: nothing is earned back
    }
    CHECK(guard.is_closed("room", now + 299));
    CHECK_FALSE(guard.is_closed("room", now + 301));
}

TEST_CASE("a quiet minute earns everything back")
{
    login_guard guard(2);
    CHECK(guard.failed("room", 0) == 0);
    CHECK(guard.failed("room", 0) == 0);
    CHECK(guard.failed("room", 0) == 5);
    CHECK(guard.failed("room", 0) == 10);
    // Half a minute earns one of the two, and the time still doubles.
    CHECK(guard.failed("room", 30) == 0);
    CHECK(guard.failed("room", 30) == 20);
    CHECK(guard.failed("room", 90) == 0);
    CHECK(guard.failed("room", 90) == 0);
    CHECK(guard.failed("room", 90) == 5);
}

TEST_CASE("keys that have earned everything back are forgotten, closed ones never")
{
    login_guard guard(1);
    guard.failed("closed", 0);
    for (int i = 0; i < 7; i++)
        guard.failed("closed", 0); // until 300
    double now = 0;
    for (int i = 0; i < 20000; i++) {
        now = 0.01 * i;
        guard.failed("key" + std::to_string(i), now);
    }
    CHECK(now < 300);
    CHECK(guard.is_closed("closed", now));
    CHECK(guard.size() < 15000); // a minute has 6000 of them
}
