// Native libraries: lz4
// Options: -max_len=4096
//
// The compressor: its blocks are those of the plain algorithm, fit the bound, and give the
// input back, from liblz4 too. Input: kind, capacity's difference from the bound, where to
// cut the block, and the source, as it is or as a list of runs.
#include "fuzz/fuzz.h"
#include "host/lz4_block.h"
#include "tests/host/lz4_plain.h"

#include <lz4.h>

// Beyond the largest offset, so that matches can be too far away.
static constexpr size_t SOURCE_MAX = 80000;

// Runs: bytes as they are, noise, or a repetition of what came before.
static std::vector<uint8_t> expand(fuzz_input *in)
{
    std::vector<uint8_t> s;
    while (in->left > 0 && s.size() < SOURCE_MAX) {
        uint8_t kind = take_u8(in);
        size_t length = kind < 128 ? 1 + take_u8(in) : 1 + take_u16(in);
        if (length > SOURCE_MAX - s.size())
            length = SOURCE_MAX - s.size();
        if (kind % 3 == 0 || s.empty()) {
            std::vector<uint8_t> own = take_bytes(in, length);
            s.insert(s.end(), own.begin(), own.end());
        } else if (kind % 3 == 1) {
            s.resize(s.size() + length);
            fill_noise(&s[s.size() - length], length, take_u8(in));
        } else {
            size_t distance = 1 + take_u16(in) % s.size();
            for (size_t i = 0; i < length; i++)
                s.push_back(s[s.size() - distance]);
        }
    }
    return s;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    uint8_t kind = take_u8(&in);
    int32_t difference = (int8_t)take_u8(&in);
    uint32_t cut = take_u16(&in);
    const std::vector<uint8_t> source = kind % 2 ? expand(&in) : take_bytes(&in, in.left);
    exact_bytes src(source);
    int32_t n = (int32_t)source.size();

    // Any capacity below the bound is refused with nothing written.
    int32_t bound = n + n / 255 + 16;
    FUZZ_CHECK(bound == lz4_bound(n));
    int32_t capacity = bound + difference < 0 ? 0 : bound + difference;
    exact_bytes block((size_t)capacity);
    memset(block.block, 0xA5, block.size ? block.size : 1);
    int32_t length = lz4_compress_block(src.data, n, block.data, capacity);
    if (capacity < bound) {
        FUZZ_CHECK(length == -1);
        for (size_t i = 0; i < block.size; i++)
            FUZZ_CHECK(block.data[i] == 0xA5);
        return 0;
    }
    FUZZ_CHECK(length >= 1 && length <= bound);

    std::vector<uint8_t> plain = lz4_compress_plain(source);
    FUZZ_CHECK((size_t)length == plain.size());
    FUZZ_CHECK(memcmp(block.data, plain.data(), plain.size()) == 0);

    exact_bytes packed(plain);
    exact_bytes back((size_t)n);
    FUZZ_CHECK(lz4_decompress_block(packed.data, length, back.data, n) == n);
    FUZZ_CHECK(n == 0 || memcmp(back.data, source.data(), (size_t)n) == 0);
    memset(back.block, 0, (size_t)n + !n);
    FUZZ_CHECK(LZ4_decompress_safe((const char *)packed.data, (char *)back.data, length, n) ==
               n);
    FUZZ_CHECK(n == 0 || memcmp(back.data, source.data(), (size_t)n) == 0);

    // One byte too little room, or a block that was cut, never gives the whole.
    if (n > 0) {
        exact_bytes less((size_t)n - 1);
        FUZZ_CHECK(lz4_decompress_block(packed.data, length, less.data, n - 1) == -1);
        int32_t part = (int32_t)(cut % (uint32_t)length);
        exact_bytes cut_block(
            std::vector<uint8_t>(plain.begin(), plain.begin() + (ptrdiff_t)part));
        FUZZ_CHECK(lz4_decompress_block(cut_block.data, part, back.data, n) != n);
    }
    return 0;
}
