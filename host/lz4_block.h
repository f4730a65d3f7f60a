// LZ4 blocks: compress and decompress one buffer in one call.
//
// Plain functions of bytes: no state, no allocation, any thread. A block does not carry
// its own sizes; the message around it does.
#ifndef QV_HOST_LZ4_BLOCK_H
#define QV_HOST_LZ4_BLOCK_H

#include <stdint.h>

// Most bytes that compressing n bytes can take. n >= 0 and below 2 GiB less 1/255.
constexpr int32_t lz4_bound(int32_t n)
{
    return n + n / 255 + 16;
}

// Compresses src[0..src_len) into dst and returns the bytes written, or -1, with nothing
// written, when dst_cap is below lz4_bound(src_len). src and dst must not overlap.
[[nodiscard]] int32_t lz4_compress_block(const uint8_t *src, int32_t src_len, uint8_t *dst,
                                         int32_t dst_cap);

// Decompresses one block; returns the bytes produced, 0 for an empty block, -1 for a
// malformed one. src comes from the network or disk and is trusted in nothing: nothing
// outside src[0..src_len) is read, nothing outside dst[0..dst_cap) is written. After -1
// dst holds rubbish. The caller knows the size it wants and must compare.
[[nodiscard]] int32_t lz4_decompress_block(const uint8_t *src, int32_t src_len, uint8_t *dst,
                                           int32_t dst_cap);

#endif
