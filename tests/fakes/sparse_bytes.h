// The bytes of a file most of which are zero: what was never written takes no memory. The tile
// cache's file has 128 MiB, of which a test looks at some kilobytes; written out, it costs
// seconds under ThreadSanitizer.
#ifndef QV_TESTS_FAKES_SPARSE_BYTES_H
#define QV_TESTS_FAKES_SPARSE_BYTES_H

#include <map>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <vector>

struct sparse_bytes {
    static constexpr uint64_t PIECE = 4096;

    uint64_t length = 0;
    std::map<uint64_t, std::vector<uint8_t>> pieces; // by number; a missing one is zeros

    uint64_t size() const
    {
        return length;
    }

    // What is cut off reads as zeros when the file grows again.
    void resize(uint64_t n)
    {
        if (n < length) {
            pieces.erase(pieces.lower_bound((n + PIECE - 1) / PIECE), pieces.end());
            auto last = pieces.find(n / PIECE);
            if (last != pieces.end())
                memset(&last->second[n % PIECE], 0, PIECE - n % PIECE);
        }
        length = n;
    }

    // Makes the file longer where that is needed.
    void write(uint64_t at, const void *data, size_t n)
    {
        const uint8_t *from = (const uint8_t *)data;
        length = length < at + n ? at + n : length;
        while (n > 0) {
            std::vector<uint8_t> &piece = pieces[at / PIECE];
            piece.resize(PIECE);
            size_t part = PIECE - at % PIECE < n ? PIECE - at % PIECE : n;
            memcpy(&piece[at % PIECE], from, part);
            from += part;
            at += part;
            n -= part;
        }
    }

    // Zeros beyond the end.
    void read(uint64_t at, void *data, size_t n) const
    {
        uint8_t *to = (uint8_t *)data;
        while (n > 0) {
            size_t part = PIECE - at % PIECE < n ? PIECE - at % PIECE : n;
            auto piece = pieces.find(at / PIECE);
            if (piece == pieces.end())
                memset(to, 0, part);
            else
                memcpy(to, &piece->second[at % PIECE], part);
            to += part;
            at += part;
            n -= part;
        }
    }

    std::vector<uint8_t> part(uint64_t at, size_t n) const
    {
        std::vector<uint8_t> bytes(n);
        read(at, bytes.data(), n);
        return bytes;
    }

    // A piece of zeros equals a missing one.
    bool covers(const sparse_bytes &other) const
    {
        uint8_t mine[PIECE];
        for (const auto &[number, piece] : other.pieces) {
            read(number * PIECE, mine, PIECE);
            if (memcmp(mine, piece.data(), PIECE) != 0)
                return false;
        }
        return true;
    }
    bool operator==(const sparse_bytes &other) const
    {
        return length == other.length && covers(other) && other.covers(*this);
    }
};

#endif
