// Work on whole frames and on tiles inside them, against copying the same bytes.
//
// Cold: every cache line of both buffers is evicted before each run, as another program's
// work between two frames may do. Warm: nothing is, so whatever fits a cache is in it.
#include "bench/groups.h"
#include "host/screen.h"
#include "host/tile_ops.h"
#include "protocol/tile.h"

#if __has_include("viewer/tile_place.h") // older trees have it in frame_decode.cpp
#include "viewer/tile_place.h"
#define HAS_TILE_PLACE
#endif

#include <emmintrin.h>
#include <memory>
#include <stdlib.h>
#include <string.h>

struct frames {
    int32_t width, height; // padded
    uint8_t *now, *before, *copy, *out;
    frames(int32_t w, int32_t h) : width(pad_to_tile(w)), height(pad_to_tile(h))
    {
        bench_random random = {5};
        for (uint8_t **buffer : {&now, &before, &copy, &out}) {
            *buffer = (uint8_t *)aligned_alloc(4096, bytes());
            memset(*buffer, 0, bytes());
        }
        for (size_t i = 0; i < bytes(); i += 8) {
            uint64_t word = random.next();
            memcpy(now + i, &word, 8);
        }
        memcpy(before, now, bytes());
    }
    ~frames()
    {
        for (uint8_t *buffer : {now, before, copy, out})
            free(buffer);
    }
    frames(const frames &) = delete;
    size_t pitch() const
    {
        return (size_t)width * PIXEL_BYTES;
    }
    size_t bytes() const // a multiple of 4096: whole tiles
    {
        return pitch() * (size_t)height;
    }
    size_t tiles() const
    {
        return bytes() / TILE_BYTES;
    }
};

// How the frame pipeline makes a difference of two tiles. Older trees put one into one piece
// first.
template <class byte>
static void difference(byte *delta, const byte *a, const byte *b, uint64_t pitch)
{
    using namespace host;
    if constexpr (requires { tile_difference(delta, a, b, pitch); }) {
        tile_difference(delta, a, b, pitch);
    } else {
        static byte tile[TILE_BYTES];
        tile_gather(tile, a, pitch);
        tile_xor(delta, tile, b, pitch);
    }
}

// Calls f with the offset of each tile.
template <class function> static void each_tile(const frames &f, function apply)
{
    for (int32_t ty = 0; ty < f.height / TILE_SIZE; ty++)
        for (int32_t tx = 0; tx < f.width / TILE_SIZE; tx++)
            apply(host::tile_offset(f.width, tx, ty));
}

static bool frames_equal(const frames &f)
{
    bool equal = true;
    each_tile(f, [&](uint64_t at) {
        if (!host::tile_equal(f.now + at, f.before + at, f.pitch()))
            equal = false;
    });
    return equal;
}

static void evict(const uint8_t *from, size_t bytes)
{
    for (size_t i = 0; i < bytes; i += 64)
        _mm_clflush(from + i);
    _mm_mfence();
}

static void add_compare(std::vector<bench_line> *lines, const char *size,
                        std::shared_ptr<frames> f, bool cold, double target)
{
    bench_line line;
    line.group = "whole frames";
    line.name = std::string("compare ") + size + (cold ? ", cold" : ", warm");
    line.unit = "frame";
    line.sense = BENCH_TIME;
    line.target = target;
    line.own = {"tile_equal, every tile", [=] { bench_keep(frames_equal(*f)); }};
    line.other = {"memcpy of one frame", [=] {
                      memcpy(f->copy, f->now, f->bytes());
                      bench_keep(f->copy[0]);
                  }};
    if (cold)
        line.before = [=] {
            for (uint8_t *buffer : {f->now, f->before, f->copy})
                evict(buffer, f->bytes());
        };
    line.right = [=] {
        // Equal as it is; not when one byte of any row of any tile differs.
        bool right = frames_equal(*f);
        bench_random random = {3};
        for (int32_t i = 0; i < 20; i++) {
            size_t at = random.below((uint32_t)f->bytes());
            f->now[at] ^= 0x40;
            right = right && !frames_equal(*f);
            f->now[at] ^= 0x40;
        }
        return right;
    };
    lines->push_back(line);
}

// The tiles of one 1080p frame, one after the other, between a tile in one piece and a place
// in the frame.
static void add_tile_work(std::vector<bench_line> *lines, std::shared_ptr<frames> f)
{
    bench_line line;
    line.group = "whole frames";
    line.unit = "tile";
    line.units = (double)f->tiles();
    line.sense = BENCH_TIME;
    bench_side gather = {"copying it out of the frame", [=] {
                             uint8_t *tile = f->copy;
                             each_tile(*f, [&](uint64_t at) {
                                 host::tile_gather(tile, f->now + at, f->pitch());
                             });
                             bench_keep(tile[0]);
                         }};

    // Of each tile with the first one, which stays in the first cache: one tile is brought
    // from the frame, as by the copy.
    line.name = "host: XOR a tile with the frame";
    line.target = 1.15;
    line.own = {"tile_difference", [=] {
                    each_tile(*f, [&](uint64_t at) {
                        difference(f->out, f->before, f->now + at, f->pitch());
                    });
                    bench_keep(f->out[0]);
                }};
    line.other = gather;
    line.right = [=] {
        bool right = true;
        each_tile(*f, [&](uint64_t at) {
            difference(f->out, f->before, f->now + at, f->pitch());
            for (size_t row = 0; row < TILE_SIZE; row++)
                for (size_t i = 0; i < (size_t)TILE_ROW_BYTES; i++)
                    right = right && f->out[row * TILE_ROW_BYTES + i] ==
                                         (f->before[row * f->pitch() + i] ^
                                          f->now[at + row * f->pitch() + i]);
        });
        return right;
    };
    lines->push_back(line);

#ifdef HAS_TILE_PLACE
    line.name = "viewer: XOR a tile into the frame";
    line.own = {"tile_xor_into", [=] {
                    each_tile(*f, [&](uint64_t at) {
                        viewer::tile_xor_into(f->out + at, f->pitch(), f->copy);
                    });
                    bench_keep(f->out[0]);
                }};
    line.right = [=] {
        memset(f->copy, 0x5A, TILE_BYTES);
        memcpy(f->out, f->now, f->bytes());
        each_tile(
            *f, [&](uint64_t at) { viewer::tile_xor_into(f->out + at, f->pitch(), f->copy); });
        for (size_t i = 0; i < f->bytes(); i++)
            if (f->out[i] != (f->now[i] ^ 0x5A))
                return false;
        return true;
    };
    lines->push_back(line);

    line.name = "copy a tile into the frame";
    line.target = 0;
    line.own = {"tile_place", [=] {
                    each_tile(*f, [&](uint64_t at) {
                        viewer::tile_place(f->out + at, f->pitch(), f->copy);
                    });
                    bench_keep(f->out[0]);
                }};
    line.right = [=] {
        each_tile(*f, [&](uint64_t at) {
            host::tile_gather(f->copy, f->now + at, f->pitch());
            viewer::tile_place(f->out + at, f->pitch(), f->copy);
        });
        return memcmp(f->out, f->now, f->bytes()) == 0;
    };
    lines->push_back(line);
#endif

    line.name = "copy a tile out of the frame";
    line.own = gather;
    line.other = {"memcpy of 16 KiB", [=] {
                      for (size_t i = 0; i < f->tiles(); i++)
                          memcpy(f->copy, f->now + i * TILE_BYTES, TILE_BYTES);
                      bench_keep(f->copy[0]);
                  }};
    lines->push_back(line);
}

void frame_compare_lines(std::vector<bench_line> *lines)
{
    auto small = std::make_shared<frames>(1920, 1080);
    add_compare(lines, "1920x1080", small, false, 1.05);
    add_compare(lines, "1920x1080", small, true, 1.1);
    if (!bench.quick) {
        auto large = std::make_shared<frames>(3840, 2160);
        add_compare(lines, "3840x2160", large, false, 0);
        add_compare(lines, "3840x2160", large, true, 0);
    }
    add_tile_work(lines, small);
}
