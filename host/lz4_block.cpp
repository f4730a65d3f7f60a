// The LZ4 block codec: tiles and console text are made small with it, many times a frame.
//
// A block is a series of sequences: token (high nibble literal length, low nibble match
// length - 4), length extensions (after a nibble of 15: bytes that add up, the first below
// 255 ends), literals, a 2-byte offset, match length extensions. The last sequence ends
// after its literals.
//
// The compressor is greedy with one candidate a position and no skipping: a tile is 16 KiB
// and mostly zeros (differences), so finding the next match early beats finding a better
// one. What it emits is fixed to the byte by the plain algorithm that the tests keep as
// their oracle; the wide copies and compares here only change how fast.
//
// The decoder is the first thing that bytes from the network meet after their seal, and the
// first that bytes of the cache file meet: it checks every length against both buffers
// before it copies, in 64 bits, since extensions can add up past 32.
//
// The gains named below are of whole calls on 16 KiB tiles (bench/block_codec.cpp, GCC 12 -O2).

#include "host/lz4_block.h"
#include "protocol/bytes.h"

#include <emmintrin.h>
#include <string.h>

namespace
{

constexpr int32_t MIN_MATCH = 4;
constexpr int32_t LAST_LITERALS = 5;      // a block ends in at least this many
constexpr int32_t MATCH_START_LIMIT = 12; // no match starts in this many last bytes
constexpr uint32_t MAX_OFFSET = 65535;
constexpr uint32_t TABLE_SLOTS = 4096;

uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

uint64_t load64(const uint8_t *p)
{
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

// Positions are hashed by their 4 bytes as a little-endian number; so are the loads on
// every machine that this is built for.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

uint32_t hash_slot(uint32_t four_bytes)
{
    return (four_bytes * 0x9E3779B1u) >> 20;
}

__m128i load128(const uint8_t *p)
{
    __m128i v;
    memcpy(&v, p, sizeof v);
    return v;
}

// A bit for each byte in which a[0..16) and b[0..16) differ.
uint32_t differing_bytes(const uint8_t *a, const uint8_t *b)
{
    return 0xFFFFu ^ (uint32_t)_mm_movemask_epi8(_mm_cmpeq_epi8(load128(a), load128(b)));
}

// Where a[..] and b[..] first differ, at most at limit; a > b. The last loop says it; those
// before it take 8 bytes twice, since most matches end there, and then 64 and 16. Flat tiles,
// which are a few long matches, are compressed 30 % faster than with 8 bytes at a time, text 5
// %.
const uint8_t *match_end(const uint8_t *a, const uint8_t *b, const uint8_t *limit)
{
    if (limit - a >= 8) {
        uint64_t differing = load64(a) ^ load64(b);
        if (differing != 0)
            return a + (__builtin_ctzll(differing) >> 3);
        a += 8;
        b += 8;
    }
    if (limit - a >= 8) {
        uint64_t differing = load64(a) ^ load64(b);
        if (differing != 0)
            return a + (__builtin_ctzll(differing) >> 3);
        a += 8;
        b += 8;
    }
    while (limit - a >= 64) {
        __m128i same = _mm_cmpeq_epi8(load128(a), load128(b));
        same = _mm_and_si128(same, _mm_cmpeq_epi8(load128(a + 16), load128(b + 16)));
        same = _mm_and_si128(same, _mm_cmpeq_epi8(load128(a + 32), load128(b + 32)));
        same = _mm_and_si128(same, _mm_cmpeq_epi8(load128(a + 48), load128(b + 48)));
        if (_mm_movemask_epi8(same) != 0xFFFF) {
            uint64_t differing = differing_bytes(a, b) |
                                 (uint64_t)differing_bytes(a + 16, b + 16) << 16 |
                                 (uint64_t)differing_bytes(a + 32, b + 32) << 32 |
                                 (uint64_t)differing_bytes(a + 48, b + 48) << 48;
            return a + __builtin_ctzll(differing);
        }
        a += 64;
        b += 64;
    }
    while (limit - a >= 16) {
        uint32_t differing = differing_bytes(a, b);
        if (differing != 0)
            return a + __builtin_ctz(differing);
        a += 16;
        b += 16;
    }
    while (a < limit && *a == *b) {
        a++;
        b++;
    }
    return a;
}

// Writes the extension of a length nibble of 15: rest = length - 15 or match length - 19.
// Nearly all are one byte.
uint8_t *put_extension(uint8_t *out, uint64_t rest)
{
    if (rest >= 255) [[unlikely]] {
        uint64_t full = rest / 255;
        memset(out, 255, (size_t)full);
        out += full;
        rest -= full * 255;
    }
    *out++ = (uint8_t)rest;
    return out;
}

// Copies n bytes in steps of 8: reads and writes up to 7 bytes past their ends.
void copy_by_eight(uint8_t *dst, const uint8_t *src, uint64_t n)
{
    for (uint64_t i = 0; i < n; i += 8)
        memcpy(dst + i, src + i, 8);
}

} // namespace

int32_t lz4_compress_block(const uint8_t *src, int32_t src_len, uint8_t *dst, int32_t dst_cap)
{
    if (src_len < 0 || dst_cap < (int64_t)src_len + src_len / 255 + 16)
        return -1;

    uint8_t *out = dst;
    const uint8_t *anchor = src; // start of the literals that wait
    const uint8_t *end = src + src_len;

    if (src_len > MATCH_START_LIMIT + 1) {
        // Position 0 is never tested as a match start, but it is every slot's first
        // candidate.
        uint32_t table[TABLE_SLOTS];
        memset(table, 0, sizeof table);
        const uint8_t *match_start_limit = end - MATCH_START_LIMIT;
        const uint8_t *match_limit = end - LAST_LITERALS;
        const uint8_t *in = src + 1;

        while (in < match_start_limit) {
            uint32_t four_bytes = load32(in);
            uint32_t slot = hash_slot(four_bytes);
            const uint8_t *ref = src + table[slot];
            table[slot] = (uint32_t)(in - src);
            // ref < in always: the table holds positions that were passed.
            if (load32(ref) != four_bytes || in - ref > (int64_t)MAX_OFFSET) {
                in++;
                continue;
            }

            const uint8_t *stop = match_end(in + MIN_MATCH, ref + MIN_MATCH, match_limit);
            while (in > anchor && ref > src && in[-1] == ref[-1]) {
                in--;
                ref--;
            }

            uint64_t literals = (uint64_t)(in - anchor);
            uint64_t rest = (uint64_t)(stop - in - MIN_MATCH);
            uint8_t *token = out++;
            *token = (uint8_t)((literals < 15 ? literals : 15) << 4 | (rest < 15 ? rest : 15));
            if (literals >= 15)
                out = put_extension(out, literals - 15);
            // Up to 7 bytes too many: in the source they are there, since a match starts at
            // least 13 bytes before its end; in dst the bound leaves more than that, since
            // until here the output is at most 1/255 longer than its input.
            copy_by_eight(out, anchor, literals);
            out += literals;
            store_le16(out, (uint16_t)(in - ref));
            out += 2;
            if (rest >= 15)
                out = put_extension(out, rest - 15);

            anchor = stop;
            in = stop;
            if (anchor < match_start_limit)
                table[hash_slot(load32(anchor - 2))] = (uint32_t)(anchor - 2 - src);
        }
    }

    uint64_t literals = (uint64_t)(end - anchor);
    *out++ = (uint8_t)((literals < 15 ? literals : 15) << 4);
    if (literals >= 15)
        out = put_extension(out, literals - 15);
    if (literals > 0)
        memcpy(out, anchor, (size_t)literals);
    out += literals;
    return (int32_t)(out - dst);
}

namespace
{

// Adds extension bytes to *length. False when the input ends inside the extension.
bool take_extension(const uint8_t **in, const uint8_t *in_end, uint64_t *length)
{
    uint8_t byte;
    do {
        if (*in == in_end)
            return false;
        byte = *(*in)++;
        *length += byte;
    } while (byte == 255);
    return true;
}

// Copies a match of length bytes from offset bytes back to out, forwards, so that a period
// shorter than the match repeats. room >= length is what may be written at out.
void copy_match(uint8_t *out, uint64_t offset, uint64_t length, uint64_t room)
{
    const uint8_t *from = out - offset;
    if (offset >= 16 && room >= length + 15) {
        for (uint64_t i = 0; i < length; i += 16)
            memcpy(out + i, from + i, 16);
        return;
    }
    if (offset == 1) {
        memset(out, *from, (size_t)length);
        return;
    }
    // What lies behind `out` doubles with each copy, and every multiple of the period is a
    // period, so no copy overlaps itself.
    uint64_t period = offset;
    while (length > period) {
        memcpy(out, out - period, (size_t)period);
        out += period;
        length -= period;
        period *= 2;
    }
    memcpy(out, out - period, (size_t)length);
}

} // namespace

int32_t lz4_decompress_block(const uint8_t *src, int32_t src_len, uint8_t *dst, int32_t dst_cap)
{
    if (src_len <= 0)
        return 0;
    if (dst_cap < 0)
        dst_cap = 0;
    const uint8_t *in = src;
    const uint8_t *in_end = src + src_len;
    uint8_t *out = dst;
    uint8_t *out_end = dst + dst_cap;

    while (in < in_end) {
        uint8_t token = *in++;

        uint64_t literals = token >> 4;
        if (literals == 15 && !take_extension(&in, in_end, &literals))
            return -1;
        if (literals > (uint64_t)(in_end - in) || literals > (uint64_t)(out_end - out))
            return -1;
        if (literals <= 16 && in_end - in >= 16 && out_end - out >= 16)
            memcpy(out, in, 16);
        else if (literals > 0)
            memcpy(out, in, (size_t)literals);
        in += literals;
        out += literals;
        if (in == in_end)
            break; // the last sequence has no match

        if (in_end - in < 2)
            return -1;
        uint64_t offset = load_le16(in);
        in += 2;
        if (offset == 0 || offset > (uint64_t)(out - dst))
            return -1;

        uint64_t length = (uint64_t)(token & 15) + MIN_MATCH;
        if ((token & 15) == 15 && !take_extension(&in, in_end, &length))
            return -1;
        if (length > (uint64_t)(out_end - out))
            return -1;
        copy_match(out, offset, length, (uint64_t)(out_end - out));
        out += length;
    }
    return (int32_t)(out - dst);
}
