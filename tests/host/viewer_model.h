// A viewer in the plainest form: it applies the host's messages to a picture, with an LZ4
// decoder and a tile cache of its own. The oracle for what the host sends; it shares no code
// with the product's viewer and checks with REQUIRE that every message is well-formed.
#ifndef QV_TESTS_HOST_VIEWER_MODEL_H
#define QV_TESTS_HOST_VIEWER_MODEL_H

#include "host/tile_hash.h"
#include "protocol/messages.h"
#include "protocol/tile.h"
#include "tests/test.h"

#include <iterator>
#include <map>
#include <string.h>
#include <utility>
#include <vector>

// One LZ4 block, byte by byte; empty when it is malformed.
inline std::vector<uint8_t> model_lz4_decode(const uint8_t *src, size_t length)
{
    std::vector<uint8_t> out;
    out.reserve(16384);
    size_t at = 0;
    auto more = [&](size_t base) {
        size_t n = base;
        uint8_t b = 255;
        while (base == 15 && b == 255 && at < length) {
            b = src[at++];
            n += b;
        }
        return n;
    };
    while (at < length) {
        uint8_t token = src[at++];
        size_t literals = more(token >> 4);
        if (literals > length - at)
            return {};
        out.insert(out.end(), src + at, src + at + literals);
        at += literals;
        if (at == length)
            return out; // the last sequence is literals alone
        if (length - at < 2)
            return {};
        size_t offset = (size_t)(src[at] | src[at + 1] << 8);
        at += 2;
        size_t match = more(token & 15) + 4;
        if (offset == 0 || offset > out.size())
            return {};
        size_t to = out.size();
        out.resize(to + match);
        uint8_t *bytes = out.data();
        for (size_t end = to + match; to < end; to++)
            bytes[to] = bytes[to - offset];
    }
    return {};
}

struct model_message {
    uint8_t type;
    std::vector<uint8_t> payload;
};

inline std::vector<model_message> model_split(const std::vector<uint8_t> &record)
{
    std::vector<model_message> messages;
    size_t at = 0;
    while (at < record.size()) {
        REQUIRE(record.size() - at >= 8);
        REQUIRE((record[at + 1] | record[at + 2] | record[at + 3]) == 0);
        size_t length = record[at + 4] | record[at + 5] << 8 | record[at + 6] << 16 |
                        (size_t)record[at + 7] << 24;
        REQUIRE(record.size() - at - 8 >= length);
        auto payload = record.begin() + (ptrdiff_t)(at + 8);
        messages.push_back(
            {record[at], std::vector<uint8_t>(payload, payload + (ptrdiff_t)length)});
        at += 8 + length;
    }
    return messages;
}

struct viewer_model {
    int32_t width = 0, height = 0;
    size_t pitch = 0;
    std::vector<uint8_t> pixels; // padded to whole tiles
    std::map<uint64_t, std::vector<uint8_t>> cache;
    size_t cache_limit = SIZE_MAX;  // tiles; a full cache forgets one that it chooses,
    test_random *chooses = nullptr; // at random
    bool by_rules = false;          // sets of two, of which the one used last stays
    std::map<uint64_t, std::vector<uint64_t>> sets; // by the rules; the one used last is last
    std::vector<tile_ref> misses;                   // of the last record
    frame_stamp last_end = {};
    int64_t hits = 0;

    void open(int32_t new_width, int32_t new_height)
    {
        *this = viewer_model();
        width = new_width;
        height = new_height;
        pitch = (size_t)(width + 63) / 64 * 256;
        pixels.assign(pitch * ((size_t)(height + 63) / 64 * 64), 0);
    }

    void remember(uint64_t hash, const std::vector<uint8_t> &tile)
    {
        if (hash == 0 || cache_limit == 0)
            return;
        REQUIRE(hash == tile_hash(tile.data())); // the new pixels', not the difference's
        if (by_rules && !use(hash)) {
            std::vector<uint64_t> &set = sets[hash % 4096];
            if (set.size() == 2) {
                cache.erase(set[0]);
                set.erase(set.begin());
            }
            set.push_back(hash);
        } else if (!by_rules && cache.size() >= cache_limit) {
            auto goes = cache.begin();
            std::advance(goes, chooses ? (ptrdiff_t)chooses->below(cache.size()) : 0);
            cache.erase(goes);
        }
        cache[hash] = tile;
    }

    // By the rules: the hash is the one used last of its set, if it is there.
    bool use(uint64_t hash)
    {
        std::vector<uint64_t> &set = sets[hash % 4096];
        if (set.empty() || (set[0] != hash && set.back() != hash))
            return false;
        if (set.size() == 2 && set[0] == hash)
            std::swap(set[0], set[1]);
        return true;
    }

    // The tile at (tx, ty) of the picture, read or replaced.
    std::vector<uint8_t> tile(int tx, int ty) const
    {
        std::vector<uint8_t> t(16384);
        for (size_t row = 0; row < 64; row++)
            memcpy(&t[row * 256], &pixels[((size_t)ty * 64 + row) * pitch + (size_t)tx * 256],
                   256);
        return t;
    }

    void place(int tx, int ty, const std::vector<uint8_t> &t)
    {
        for (size_t row = 0; row < 64; row++)
            memcpy(&pixels[((size_t)ty * 64 + row) * pitch + (size_t)tx * 256], &t[row * 256],
                   256);
    }

    bool holds(int tx, int ty) const
    {
        return tx < (width + 63) / 64 && ty < (height + 63) / 64;
    }

    void apply_move(const uint8_t *p)
    {
        int32_t v[6];
        for (int i = 0; i < 6; i++)
            v[i] = (int32_t)(p[i * 4] | p[i * 4 + 1] << 8 | p[i * 4 + 2] << 16 |
                             (uint32_t)p[i * 4 + 3] << 24);
        const int32_t w = v[4], h = v[5];
        for (int side = 0; side < 2; side++) {
            REQUIRE((v[side * 2] >= 0 && v[side * 2] + w <= width));
            REQUIRE((v[side * 2 + 1] >= 0 && v[side * 2 + 1] + h <= height));
        }
        std::vector<uint8_t> copy; // the whole source first: overlap cannot matter
        for (int32_t y = 0; y < h; y++) {
            auto row =
                pixels.begin() + (ptrdiff_t)((size_t)(v[1] + y) * pitch + (size_t)v[0] * 4);
            copy.insert(copy.end(), row, row + w * 4);
        }
        for (int32_t y = 0; y < h; y++)
            memcpy(&pixels[(size_t)(v[3] + y) * pitch + (size_t)v[2] * 4],
                   &copy[(size_t)y * (size_t)w * 4], (size_t)w * 4);
    }

    void apply(const model_message &m)
    {
        const uint8_t *p = m.payload.data();
        switch (m.type) {
        case 2:
            REQUIRE(!m.payload.empty());
            REQUIRE(m.payload.size() % 24 == 0);
            for (size_t i = 0; i < m.payload.size(); i += 24)
                apply_move(p + i);
            break;
        case 3: {
            REQUIRE(m.payload.size() > 13);
            tile_head head = get_tile_head(p);
            REQUIRE(holds(head.tile_x, head.tile_y)); // a viewer would drop it
            std::vector<uint8_t> t;
            if (head.raw == 1) {
                REQUIRE(m.payload.size() == 16397);
                t.assign(p + 13, p + 16397);
            } else {
                REQUIRE(head.raw == 0);
                REQUIRE(m.payload.size() < 13 + 16384);
                t = model_lz4_decode(p + 13, m.payload.size() - 13);
                REQUIRE(t.size() == 16384);
                std::vector<uint8_t> base = tile(head.tile_x, head.tile_y);
                for (size_t i = 0; i < 16384; i++)
                    t[i] ^= base[i];
            }
            place(head.tile_x, head.tile_y, t);
            remember(head.hash, t);
            break;
        }
        case 8: {
            REQUIRE(m.payload.size() == 12);
            tile_ref ref = get_tile_ref(p);
            REQUIRE(holds(ref.tile_x, ref.tile_y));
            auto found = cache.find(ref.hash);
            if (found == cache.end()) {
                misses.push_back(ref);
            } else {
                place(ref.tile_x, ref.tile_y, found->second);
                use(ref.hash);
                hits++;
            }
            break;
        }
        case 4: // drawn over the picture, which stays as it is
            REQUIRE(m.payload.size() >= 26);
            break;
        case 6:
            REQUIRE(m.payload.size() >= 2);
            break;
        case 5:
            REQUIRE(m.payload.size() == 9);
            break;
        case 7:
            REQUIRE(m.payload.size() == 8);
            last_end = get_frame_stamp(p);
            break;
        default:
            FAIL("no such message in a frame: " << (int)m.type);
        }
    }

    void apply_record(const std::vector<uint8_t> &record)
    {
        misses.clear();
        for (const model_message &m : model_split(record))
            apply(m);
    }
};

#endif
