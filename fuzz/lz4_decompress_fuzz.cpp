// Native libraries: lz4
// Options: -max_len=4096
//
// The block decoder against its rules, and against liblz4 on what both define. Input: kind
// of capacity, capacity, block.
//
// liblz4 asks for more than we do: a block ends in at least 5 literals and no match starts in
// the last 12 bytes. It takes an offset of 0, which we refuse.
#include "fuzz/fuzz.h"
#include "tests/host/lz4_reference.h"
#include "host/lz4_block.h"

#include <lz4.h>

// liblz4 with a destination of exactly that size.
static void check_liblz4(const exact_bytes &src, int capacity, const lz4_reference &expected,
                         bool must_accept)
{
    exact_bytes dst((size_t)capacity);
    int got =
        LZ4_decompress_safe((const char *)src.data, (char *)dst.data, (int)src.size, capacity);
    if (must_accept)
        FUZZ_CHECK(got == expected.result);
    if (got < 0 || expected.zero_offset)
        return;
    FUZZ_CHECK(got == expected.result);
    FUZZ_CHECK(got == 0 || memcmp(dst.data, expected.out.data(), (size_t)got) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    uint8_t kind = take_u8(&in);
    uint32_t capacity = take_u16(&in);
    exact_bytes src(take_bytes(&in, in.left));

    switch (kind % 8) {
    case 0:
        capacity = 16384; // a tile's
        break;
    case 1: // exactly what it holds, or one byte less
    case 2: {
        lz4_reference whole = lz4_reference_decode(src.data, src.size, capacity);
        capacity = (uint32_t)whole.out.size();
        if (kind % 8 == 2 && capacity > 0)
            capacity--;
        break;
    }
    case 3: // lengths and capacities that are none
        FUZZ_CHECK(lz4_decompress_block(src.data, -(int32_t)capacity, nullptr, 0) == 0);
        FUZZ_CHECK(lz4_decompress_block(src.data, INT32_MIN, nullptr, 0) == 0);
        {
            lz4_reference none = lz4_reference_decode(src.data, src.size, 0);
            exact_bytes dst(0);
            FUZZ_CHECK(lz4_decompress_block(src.data, (int32_t)src.size, dst.data,
                                            -(int32_t)capacity) == none.result ||
                       src.size == 0);
        }
        break;
    default:
        break;
    }

    lz4_reference expected = lz4_reference_decode(src.data, src.size, capacity);
    exact_bytes dst(capacity);
    int32_t got =
        lz4_decompress_block(src.data, (int32_t)src.size, dst.data, (int32_t)capacity);
    FUZZ_CHECK(got == expected.result);
    FUZZ_CHECK(got <= 0 || memcmp(dst.data, expected.out.data(), (size_t)got) == 0);

    if (src.size == 0) // nothing to liblz4, an empty block to us
        return 0;
    check_liblz4(src, (int)capacity, expected, false);
    size_t produced = expected.out.size();
    if (expected.result > 0 && expected.ends_in_literals &&
        (expected.last_match_start == 0 ||
         (expected.last_literals >= 5 && expected.last_match_start + 12 <= produced)))
        check_liblz4(src, (int)produced, expected, true);
    return 0;
}
