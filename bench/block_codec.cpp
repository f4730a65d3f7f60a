// The block codec against liblz4, on tiles of screens and on differences of two screens.
//
// Both sides take the same 16 KiB blocks, in the same order, into the same buffer; what they
// compress to is decompressed by both. Decompression reads what our compressor wrote, for
// both, since that is what travels.
#include "bench/groups.h"
#include "bench/screens.h"
#include "host/lz4_block.h"
#include "protocol/tile.h"

#include <lz4.h>
#include <memory>
#include <string.h>

static constexpr int32_t WIDTH = 1920, HEIGHT = 1088; // whole tiles
static constexpr size_t TILES = 32;                   // of a kind: half a MiB, as a walk has

using block = std::vector<uint8_t>;

struct block_set {
    std::vector<block> plain;      // TILE_BYTES each
    std::vector<block> compressed; // by our compressor
    block scratch;
};

static block tile_of(const picture &p, int32_t tx, int32_t ty)
{
    block tile(TILE_BYTES);
    for (int32_t row = 0; row < TILE_SIZE; row++)
        memcpy(&tile[(size_t)(row * TILE_ROW_BYTES)],
               &p.pixels[(size_t)(ty * TILE_SIZE + row) * (size_t)p.width +
                         (size_t)(tx * TILE_SIZE)],
               TILE_ROW_BYTES);
    return tile;
}

// Whether there is something on a tile (a difference: whether it changed).
static bool is_plain(const block &tile)
{
    return memcmp(tile.data(), tile.data() + 4, TILE_BYTES - 4) == 0;
}

// Up to TILES tiles with something on them, spread over the picture; with `before`, their
// differences from it.
static std::shared_ptr<block_set> blocks_of(const picture &now, const picture *before)
{
    std::vector<block> all;
    for (int32_t ty = 0; ty < now.height / TILE_SIZE; ty++)
        for (int32_t tx = 0; tx < now.width / TILE_SIZE; tx++) {
            block tile = tile_of(now, tx, ty);
            if (before) {
                block old = tile_of(*before, tx, ty);
                for (size_t i = 0; i < tile.size(); i++)
                    tile[i] ^= old[i];
            }
            if (!is_plain(tile))
                all.push_back(tile);
        }
    auto set = std::make_shared<block_set>();
    for (size_t i = 0; i < TILES && i < all.size(); i++)
        set->plain.push_back(all.size() <= TILES ? all[i] : all[i * all.size() / TILES]);
    set->scratch.resize((size_t)lz4_bound(TILE_BYTES));
    for (const block &tile : set->plain) {
        int32_t length = lz4_compress_block(tile.data(), TILE_BYTES, set->scratch.data(),
                                            (int32_t)set->scratch.size());
        set->compressed.emplace_back(set->scratch.begin(),
                                     set->scratch.begin() + (length > 0 ? length : 0));
    }
    return set;
}

static int their_compress(const block &from, block *to)
{
    return LZ4_compress_default((const char *)from.data(), (char *)to->data(), TILE_BYTES,
                                (int)to->size());
}

static int their_decompress(const block &from, block *to)
{
    return LZ4_decompress_safe((const char *)from.data(), (char *)to->data(), (int)from.size(),
                               TILE_BYTES);
}

// Each decoder gives back what each compressor was given.
static bool both_ways(block_set *set)
{
    block theirs((size_t)LZ4_compressBound(TILE_BYTES)), out(TILE_BYTES);
    for (size_t i = 0; i < set->plain.size(); i++) {
        const block &plain = set->plain[i];
        int length = their_compress(plain, &theirs);
        if (lz4_decompress_block(theirs.data(), length, out.data(), TILE_BYTES) != TILE_BYTES ||
            out != plain)
            return false;
        if (their_decompress(set->compressed[i], &out) != TILE_BYTES || out != plain)
            return false;
        const block &ours = set->compressed[i];
        if (lz4_decompress_block(ours.data(), (int32_t)ours.size(), out.data(), TILE_BYTES) !=
                TILE_BYTES ||
            out != plain)
            return false;
    }
    return !set->plain.empty();
}

static std::string sizes_note(const block_set &set)
{
    size_t ours = 0, theirs = 0;
    block out((size_t)LZ4_compressBound(TILE_BYTES));
    for (size_t i = 0; i < set.plain.size(); i++) {
        ours += set.compressed[i].size();
        theirs += (size_t)their_compress(set.plain[i], &out);
    }
    size_t n = set.plain.empty() ? 1 : set.plain.size();
    return std::to_string(ours / n) + " B, liblz4 " + std::to_string(theirs / n) + " B";
}

static void add_lines(std::vector<bench_line> *lines, const char *kind,
                      std::shared_ptr<block_set> set, double compress_target,
                      double decompress_target)
{
    bench_line line;
    line.group = "block codec";
    line.unit = "tile";
    line.units = (double)set->plain.size();
    line.right = [=] { return both_ways(set.get()); };

    line.name = std::string("compress ") + kind;
    line.target = compress_target;
    line.note = sizes_note(*set);
    line.own = {"lz4_compress_block", [=] {
                    for (const block &tile : set->plain)
                        bench_keep((uint64_t)lz4_compress_block(tile.data(), TILE_BYTES,
                                                                set->scratch.data(),
                                                                lz4_bound(TILE_BYTES)));
                }};
    line.other = {"LZ4_compress_default", [=] {
                      for (const block &tile : set->plain)
                          bench_keep((uint64_t)their_compress(tile, &set->scratch));
                  }};
    lines->push_back(line);

    line.name = std::string("decompress ") + kind;
    line.target = decompress_target;
    line.note = "";
    line.own = {
        "lz4_decompress_block", [=] {
            for (const block &packed : set->compressed)
                bench_keep((uint64_t)lz4_decompress_block(packed.data(), (int32_t)packed.size(),
                                                          set->scratch.data(), TILE_BYTES));
        }};
    line.other = {"LZ4_decompress_safe", [=] {
                      for (const block &packed : set->compressed)
                          bench_keep((uint64_t)their_decompress(packed, &set->scratch));
                  }};
    lines->push_back(line);
}

void block_codec_lines(std::vector<bench_line> *lines)
{
    picture now = picture_make(WIDTH, HEIGHT, 0xFFFFFFFF);
    picture before = now;
    area all = picture_area(now);

    draw_dialog(&now, all, 1);
    add_lines(lines, "flat interface", blocks_of(now, nullptr), 1.1, 2.0);
    draw_document(&now, all, 2);
    add_lines(lines, "anti-aliased text", blocks_of(now, nullptr), 1.0, 1.05);
    draw_editor(&now, all, 3);
    add_lines(lines, "sub-pixel text", blocks_of(now, nullptr), 1.0, 1.05);
    draw_gradient(&now, all, 0xFF1B3A5C, 0xFFD0E8F8);
    add_lines(lines, "gradient", blocks_of(now, nullptr), 0.92, 0.92);
    draw_photo(&now, all, 5, 0, 0, 0, 0);
    add_lines(lines, "photo-like", blocks_of(now, nullptr), 1.0, 0.92);
    draw_photo(&now, all, 5, 0, 0, 5, 9);
    add_lines(lines, "photo with grain", blocks_of(now, nullptr), 1.0, 0.92);
    draw_noise(&now, all, 6);
    add_lines(lines, "noise", blocks_of(now, nullptr), 0, 0);

    // A letter typed into each of many lines: one tile each, hardly two.
    draw_editor(&before, all, 7);
    now = before;
    for (int32_t y = 14 + 2 * EDITOR_LINE; y < HEIGHT; y += 4 * EDITOR_LINE)
        draw_text(&now, all, 400, y, FONT_MONO, 14, 0xFF202020, TEXT_SUBPIXEL, "a|");
    add_lines(lines, "difference, small edit", blocks_of(now, &before), 1.1, 2.0);

    // The document three lines further.
    picture tall = picture_make(WIDTH, HEIGHT + 63, 0xFFFFFFFF);
    draw_document(&tall, picture_area(tall), 8);
    draw_copy(&before, 0, 0, tall, {0, 0, WIDTH, HEIGHT});
    draw_copy(&now, 0, 0, tall, {0, 63, WIDTH, HEIGHT + 63});
    add_lines(lines, "difference, scroll", blocks_of(now, &before), 1.0, 1.05);

    draw_desktop(&before, 4);
    draw_desktop(&now, 5);
    add_lines(lines, "difference, window switch", blocks_of(now, &before), 1.0, 1.05);

    draw_video(&before, all, 10);
    draw_video(&now, all, 11);
    add_lines(lines, "difference, video", blocks_of(now, &before), 0, 0);
}
