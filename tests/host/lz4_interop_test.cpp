// Native libraries: lz4
//
// Both directions against the reference implementation of the format.
#include "host/lz4_block.h"
#include "tests/host/lz4_samples.h"
#include "tests/test.h"

#include <lz4.h>
#include <lz4hc.h>

#include <vector>

using bytes = std::vector<uint8_t>;

TEST_CASE("the reference decodes what we compress")
{
    test_random random = test_random_seeded("ours to theirs");
    for (int round = 0; round < 3000; round++) {
        bytes s = lz4_sample(random, round % 10 ? 600 : 70000);
        bytes block((size_t)lz4_bound((int32_t)s.size()));
        int32_t n = lz4_compress_block(s.data(), (int32_t)s.size(), block.data(),
                                       (int32_t)block.size());
        REQUIRE(n > 0);
        bytes back(s.size() + 1);
        REQUIRE(LZ4_decompress_safe((const char *)block.data(), (char *)back.data(), n,
                                    (int)s.size()) == (int)s.size());
        back.resize(s.size());
        REQUIRE(back == s);
    }
}

TEST_CASE("we decode what the reference compresses, at every effort")
{
    test_random random = test_random_seeded("theirs to ours");
    for (int round = 0; round < 3000; round++) {
        bytes s = lz4_sample(random, round % 10 ? 600 : 70000);
        bytes block((size_t)LZ4_compressBound((int)s.size()));
        int n = round % 3 ? LZ4_compress_default((const char *)s.data(), (char *)block.data(),
                                                 (int)s.size(), (int)block.size())
                          : LZ4_compress_HC((const char *)s.data(), (char *)block.data(),
                                            (int)s.size(), (int)block.size(), 9);
        REQUIRE(n > 0);
        bytes back(s.size() + 1);
        REQUIRE(lz4_decompress_block(block.data(), n, back.data(), (int32_t)s.size()) ==
                (int32_t)s.size());
        back.resize(s.size());
        REQUIRE(back == s);
    }
}
