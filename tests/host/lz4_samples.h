// Inputs for codec tests: what tiles and differences look like, and what they do not.
#ifndef QV_TESTS_LZ4_SAMPLES_H
#define QV_TESTS_LZ4_SAMPLES_H

#include "tests/test.h"

#include <vector>

// One random input of at most max bytes: flat, periodic, sparse, text-like, noise or mixed.
inline std::vector<uint8_t> lz4_sample(test_random &random, size_t max)
{
    std::vector<uint8_t> s(random.below(max + 1));
    const uint64_t kind = random.below(6);
    const size_t period = 1 + random.below(40);
    const uint64_t alphabet = 1 + random.below(20);
    for (size_t i = 0; i < s.size(); i++) {
        switch (kind) {
        case 0:
            s[i] = 7;
            break;
        case 1:
            s[i] = (uint8_t)(i < period ? random.next() : s[i - period]);
            break;
        case 2:
            s[i] = (uint8_t)(random.below(50) == 0 ? random.next() : 0);
            break;
        case 3:
            s[i] = (uint8_t)(i > 300 && random.below(20) != 0 ? s[i - 256] : random.next());
            break;
        case 4:
            s[i] = (uint8_t)random.next();
            break;
        default:
            s[i] = (uint8_t)random.below(alphabet);
            break;
        }
    }
    return s;
}

#endif
