// What the fuzz targets share: reading decisions from the input, buffers that end where they
// should, and checks that hold in every build.
//
// A target is one file <name>_fuzz.cpp with LLVMFuzzerTestOneInput. Its input is either what
// the product reads, as it is, or a list of small decisions from which the target builds
// such bytes: honest ones with the product's own encoders, damaged ones, and raw ones.
#ifndef QV_FUZZ_FUZZ_H
#define QV_FUZZ_FUZZ_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vector>

// Ends the run with a report, as a sanitizer does.
#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);            \
            abort();                                                                           \
        }                                                                                      \
    } while (0)

// Allocations above this fail in every target that has no options of its own, as they do where
// memory is short (fuzz.cpp).
constexpr uint64_t FUZZ_ALLOCATION_MAX = 64u << 20;

// Options of the AddressSanitizer, read before anything else runs.
const char *fuzz_sanitizer_options();

// The rest of the input. Reading past its end gives zeros.
struct fuzz_input {
    const uint8_t *at;
    size_t left;
};

inline uint8_t take_u8(fuzz_input *in)
{
    if (in->left == 0)
        return 0;
    in->left--;
    return *in->at++;
}

inline uint16_t take_u16(fuzz_input *in)
{
    uint16_t low = take_u8(in);
    return (uint16_t)(low | take_u8(in) << 8);
}

inline uint32_t take_u32(fuzz_input *in)
{
    uint32_t low = take_u16(in);
    return low | (uint32_t)take_u16(in) << 16;
}

// 0 .. n - 1, for n from 1 to 65536.
inline uint32_t take_below(fuzz_input *in, uint32_t n)
{
    return (n <= 256 ? take_u8(in) : take_u16(in)) % n;
}

// A number of the kind that limits are made of: small, around a power of two, or any.
inline uint32_t take_edge(fuzz_input *in)
{
    uint8_t kind = take_u8(in);
    if (kind < 128)
        return kind;
    if (kind < 224) // 2^0 - 1 .. 2^31 + 1
        return (1u << (kind - 128) / 3) + (uint32_t)((kind - 128) % 3) - 1;
    if (kind < 240)
        return 0u - (uint32_t)(kind - 223); // -1 .. -16
    return take_u32(in);
}

// At most n bytes of the input.
inline std::vector<uint8_t> take_bytes(fuzz_input *in, size_t n)
{
    if (n > in->left)
        n = in->left;
    std::vector<uint8_t> bytes(in->at, in->at + n);
    in->at += n;
    in->left -= n;
    return bytes;
}

// A text of at most n characters, without the terminator that ends it in the input.
inline std::vector<uint8_t> take_text(fuzz_input *in, size_t n)
{
    std::vector<uint8_t> text;
    while (text.size() < n && in->left > 0) {
        uint8_t c = take_u8(in);
        if (c == 0)
            break;
        text.push_back(c);
    }
    return text;
}

// A buffer of exactly so many bytes on the heap: one byte beyond either end is a report,
// also when it has none.
struct exact_bytes {
    uint8_t *block;
    uint8_t *data;
    size_t size;

    explicit exact_bytes(size_t n) : block((uint8_t *)malloc(n ? n : 1)), size(n)
    {
        FUZZ_CHECK(block);
        data = n ? block : block + 1;
    }
    explicit exact_bytes(const std::vector<uint8_t> &bytes) : exact_bytes(bytes.size())
    {
        if (size != 0)
            memcpy(data, bytes.data(), size);
    }
    exact_bytes(const exact_bytes &) = delete;
    exact_bytes &operator=(const exact_bytes &) = delete;
    ~exact_bytes()
    {
        free(block);
    }
};

// Bytes that follow from a seed, for contents that need not be in the input.
inline void fill_noise(uint8_t *data, size_t n, uint32_t seed)
{
    uint64_t state = (seed + 1ull) * 0x9E3779B97F4A7C15ull;
    for (size_t i = 0; i < n; i++) {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        data[i] = (uint8_t)(state * 0x2545F4914F6CDD1Dull >> 56);
    }
}

// Damages bytes: flips, cuts, grows or repeats a few, as the input says.
inline void take_damage(fuzz_input *in, std::vector<uint8_t> *bytes)
{
    for (uint32_t times = 1 + take_below(in, 4); times > 0; times--) {
        size_t at = bytes->empty() ? 0 : take_u16(in) % bytes->size();
        switch (take_below(in, 4)) {
        case 0:
            if (!bytes->empty())
                (*bytes)[at] ^= take_u8(in);
            break;
        case 1:
            bytes->resize(at);
            break;
        case 2: {
            std::vector<uint8_t> more = take_bytes(in, 1 + take_below(in, 16));
            bytes->insert(bytes->begin() + (ptrdiff_t)at, more.begin(), more.end());
            break;
        }
        default:
            if (!bytes->empty())
                (*bytes)[at] = take_u8(in);
            break;
        }
    }
}

#endif
