// What every test includes: the test framework, and seeds for random tests.
#ifndef QV_TESTS_TEST_H
#define QV_TESTS_TEST_H

#include <doctest/doctest.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

// A small generator for test data (xorshift64*); never for anything secret.
struct test_random {
    uint64_t state;

    uint64_t next()
    {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        return state * 0x2545F4914F6CDD1Dull;
    }

    // Uniform enough over 0 .. n - 1; n must not be 0.
    uint64_t below(uint64_t n)
    {
        return next() % n;
    }
};

// A new seed each run, printed, so that a failure can be repeated: QV_SEED=n in the
// environment replays it.
inline test_random test_random_seeded(const char *what)
{
    const char *given = getenv("QV_SEED");
    uint64_t seed = given ? strtoull(given, nullptr, 0)
                          : (uint64_t)time(nullptr) * 0x9E3779B97F4A7C15ull >> 8;
    if (seed == 0)
        seed = 1;
    printf("%s: QV_SEED=%llu\n", what, (unsigned long long)seed);
    return test_random{seed};
}

#endif
