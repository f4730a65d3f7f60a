// The compressor as it is defined: plain loops, nothing clever. The oracle for the fast one.
#ifndef QV_TESTS_LZ4_PLAIN_H
#define QV_TESTS_LZ4_PLAIN_H

#include <stddef.h>
#include <stdint.h>
#include <vector>

inline uint32_t plain_read32(const std::vector<uint8_t> &s, size_t at)
{
    return s[at] | s[at + 1] << 8 | s[at + 2] << 16 | (uint32_t)s[at + 3] << 24;
}

inline void plain_length(std::vector<uint8_t> &out, size_t rest)
{
    while (rest >= 255) {
        out.push_back(255);
        rest -= 255;
    }
    out.push_back((uint8_t)rest);
}

inline std::vector<uint8_t> lz4_compress_plain(const std::vector<uint8_t> &s)
{
    std::vector<uint8_t> out;
    const size_t n = s.size();
    size_t anchor = 0;
    if (n > 13) {
        std::vector<uint32_t> table(4096, 0);
        const size_t mflimit = n - 12, matchlimit = n - 5;
        size_t ip = 1;
        while (ip < mflimit) {
            const uint32_t v = plain_read32(s, ip);
            const uint32_t h = (uint32_t)(v * 0x9E3779B1u) >> 20;
            size_t ref = table[h];
            table[h] = (uint32_t)ip;
            if (ref >= ip || ip - ref > 65535 || plain_read32(s, ref) != v) {
                ip++;
                continue;
            }
            while (ip > anchor && ref > 0 && s[ip - 1] == s[ref - 1]) {
                ip--;
                ref--;
            }
            size_t e = ip + 4;
            while (e < matchlimit && s[e] == s[ref + (e - ip)])
                e++;
            const size_t literals = ip - anchor, match = e - ip;
            out.push_back((uint8_t)((literals < 15 ? literals : 15) << 4 |
                                    (match - 4 < 15 ? match - 4 : 15)));
            if (literals >= 15)
                plain_length(out, literals - 15);
            for (size_t i = anchor; i < ip; i++)
                out.push_back(s[i]);
            out.push_back((uint8_t)(ip - ref));
            out.push_back((uint8_t)((ip - ref) >> 8));
            if (match - 4 >= 15)
                plain_length(out, match - 19);
            anchor = ip + match;
            ip = anchor;
            if (anchor >= mflimit)
                break;
            table[(uint32_t)(plain_read32(s, anchor - 2) * 0x9E3779B1u) >> 20] =
                (uint32_t)(anchor - 2);
        }
    }
    const size_t literals = n - anchor;
    out.push_back((uint8_t)((literals < 15 ? literals : 15) << 4));
    if (literals >= 15)
        plain_length(out, literals - 15);
    for (size_t i = anchor; i < n; i++)
        out.push_back(s[i]);
    return out;
}

#endif
