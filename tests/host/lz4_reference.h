// The block decoder as its rules say it, byte by byte: what the fast one is held against.
#ifndef QV_TESTS_LZ4_REFERENCE_H
#define QV_TESTS_LZ4_REFERENCE_H

#include <stddef.h>
#include <stdint.h>
#include <vector>

struct lz4_reference {
    int64_t result;           // bytes produced, or -1 for a malformed block
    std::vector<uint8_t> out; // after -1 what came before the fault
    bool zero_offset;         // the fault is an offset of 0
    bool ends_in_literals;    // no match behind the last literals
    size_t last_literals;
    size_t last_match_start; // where in the output the last match begins; 0 without one
};

inline bool lz4_reference_length(const uint8_t *src, size_t n, size_t *at, uint64_t *length)
{
    for (uint8_t byte = 255; byte == 255;) {
        if (*at == n)
            return false;
        byte = src[(*at)++];
        *length += byte;
    }
    return true;
}

inline lz4_reference lz4_reference_decode(const uint8_t *src, size_t n, uint64_t capacity)
{
    lz4_reference r = {};
    r.result = -1;
    size_t at = 0;
    while (at < n) {
        uint8_t token = src[at++];
        uint64_t literals = token >> 4;
        if (literals == 15 && !lz4_reference_length(src, n, &at, &literals))
            return r;
        if (literals > n - at || literals > capacity - r.out.size())
            return r;
        r.out.insert(r.out.end(), src + at, src + at + literals);
        at += literals;
        r.last_literals = literals;
        r.ends_in_literals = at == n;
        if (r.ends_in_literals)
            break;
        if (n - at < 2)
            return r;
        size_t offset = (size_t)(src[at] | src[at + 1] << 8);
        at += 2;
        r.zero_offset = offset == 0;
        if (offset == 0 || offset > r.out.size())
            return r;
        uint64_t length = (token & 15) + 4u;
        if ((token & 15) == 15 && !lz4_reference_length(src, n, &at, &length))
            return r;
        if (length > capacity - r.out.size())
            return r;
        r.last_match_start = r.out.size();
        r.out.resize(r.out.size() + length);
        for (size_t to = r.last_match_start; to < r.out.size(); to++)
            r.out[to] = r.out[to - offset];
    }
    r.result = (int64_t)r.out.size();
    return r;
}

#endif
