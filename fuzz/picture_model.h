// The viewer in the plainest form, for both session targets: the host's messages in, picture,
// cache, text layer and answers out. It follows the messages' definition, with a decoder and
// a cache of its own, and shares no code with the product's viewer.
#ifndef QV_FUZZ_PICTURE_MODEL_H
#define QV_FUZZ_PICTURE_MODEL_H

#include "fuzz/fuzz.h"
#include "tests/host/lz4_reference.h"
#include "protocol/messages.h"
#include "protocol/tile.h"

#include <algorithm>
#include <map>

using bytes = std::vector<uint8_t>;

// Takes the complete messages of a growing stream one by one.
struct message_reader {
    size_t at; // the next message's header

    // The next message, if all of it is there; payload points into the stream.
    bool next(const bytes &stream, message_header *header, const uint8_t **payload)
    {
        if (stream.size() - at < MESSAGE_HEADER_BYTES)
            return false;
        *header = get_header(stream.data() + at);
        if (stream.size() - at - MESSAGE_HEADER_BYTES < header->length)
            return false;
        *payload = stream.data() + at + MESSAGE_HEADER_BYTES;
        at += MESSAGE_HEADER_BYTES + (size_t)header->length;
        return true;
    }
};

struct picture_model {
    int32_t width, height, columns, rows; // pixels and tiles; 0: no picture
    bytes pixels;                         // padded to whole tiles, tile by tile
    bool dirty_valid;
    int64_t dirty[4];

    // Sets of two, the one used last at the end. No sets: there is no cache.
    struct entry {
        uint64_t hash;
        bytes tile;
    };
    std::vector<std::vector<entry>> cache;

    // The answers as they should be. -1 stands for any byte.
    std::vector<int16_t> answers;
    uint32_t frames, hits, misses;

    bool missed; // the last message was a reference to what is not held

    void open(int32_t w, int32_t h)
    {
        *this = {};
        width = w;
        height = h;
        columns = (w + 63) / 64;
        rows = (h + 63) / 64;
        pixels.assign((size_t)columns * (size_t)rows * TILE_BYTES, 0);
    }

    bool holds(int32_t tx, int32_t ty) const
    {
        return tx < columns && ty < rows;
    }
    uint8_t *tile(int32_t tx, int32_t ty)
    {
        return &pixels[((size_t)ty * (size_t)columns + (size_t)tx) * TILE_BYTES];
    }
    uint8_t *pixel(int32_t x, int32_t y)
    {
        return tile(x / 64, y / 64) + ((size_t)(y % 64) * 64 + (size_t)(x % 64)) * 4;
    }

    void touch(int64_t x, int64_t y, int64_t w, int64_t h)
    {
        int64_t r[4] = {std::max<int64_t>(x, 0), std::max<int64_t>(y, 0),
                        std::min<int64_t>(x + w, width), std::min<int64_t>(y + h, height)};
        if (r[0] >= r[2] || r[1] >= r[3])
            return;
        for (int i = 0; i < 4; i++)
            if (!dirty_valid || (i < 2 ? r[i] < dirty[i] : r[i] > dirty[i]))
                dirty[i] = r[i];
        dirty_valid = true;
    }

    const bytes *find(uint64_t hash)
    {
        if (cache.empty() || hash == 0)
            return nullptr;
        auto &set = cache[hash % cache.size()];
        for (size_t i = 0; i < set.size(); i++)
            if (set[i].hash == hash) {
                std::rotate(set.begin() + (ptrdiff_t)i, set.begin() + (ptrdiff_t)i + 1,
                            set.end());
                return &set.back().tile;
            }
        return nullptr;
    }
    void insert(uint64_t hash, const uint8_t *pixels_of_tile)
    {
        if (cache.empty() || hash == 0)
            return;
        bytes copy(pixels_of_tile, pixels_of_tile + TILE_BYTES);
        auto &set = cache[hash % cache.size()];
        if (find(hash)) {
            set.back().tile = copy;
            return;
        }
        if (set.size() == 2)
            set.erase(set.begin());
        set.push_back({hash, copy});
    }

    // What a tile message would make of its tile; false when it is dropped.
    bool tile_pixels(const uint8_t *payload, uint32_t length, bytes *result)
    {
        if (length < 13)
            return false;
        tile_head head = get_tile_head(payload);
        if (!holds(head.tile_x, head.tile_y))
            return false;
        const uint8_t *data = payload + 13;
        if (head.raw) {
            if (length - 13 < TILE_BYTES)
                return false;
            result->assign(data, data + TILE_BYTES);
            return true;
        }
        lz4_reference block = lz4_reference_decode(data, length - 13, TILE_BYTES);
        if (block.result != TILE_BYTES)
            return false;
        *result = block.out;
        const uint8_t *before = tile(head.tile_x, head.tile_y);
        for (size_t i = 0; i < TILE_BYTES; i++)
            (*result)[i] ^= before[i];
        return true;
    }

    void place(int32_t tx, int32_t ty, const bytes &content)
    {
        memcpy(tile(tx, ty), content.data(), TILE_BYTES);
        touch(tx * 64, ty * 64, 64, 64);
    }

    bool move_fits(const copy_rect &r) const
    {
        return r.w > 0 && r.h > 0 && r.src_x >= 0 && r.src_y >= 0 && r.dst_x >= 0 &&
               r.dst_y >= 0 && (int64_t)r.src_x + r.w <= width &&
               (int64_t)r.dst_x + r.w <= width && (int64_t)r.src_y + r.h <= height &&
               (int64_t)r.dst_y + r.h <= height;
    }
    void move(const copy_rect &r)
    {
        if (!move_fits(r))
            return;
        bytes copy((size_t)r.w * (size_t)r.h * 4); // all of it first: overlap cannot matter
        for (int32_t y = 0; y < r.h; y++)
            for (int32_t x = 0; x < r.w; x++)
                memcpy(&copy[((size_t)y * (size_t)r.w + (size_t)x) * 4],
                       pixel(r.src_x + x, r.src_y + y), 4);
        for (int32_t y = 0; y < r.h; y++)
            for (int32_t x = 0; x < r.w; x++)
                memcpy(pixel(r.dst_x + x, r.dst_y + y),
                       &copy[((size_t)y * (size_t)r.w + (size_t)x) * 4], 4);
        touch(r.dst_x, r.dst_y, r.w, r.h);
    }

    void answer(message_type type, const uint8_t *payload, uint32_t known, uint32_t length)
    {
        uint8_t head[MESSAGE_HEADER_BYTES];
        put_header(head, type, length);
        answers.insert(answers.end(), head, head + sizeof head);
        for (uint32_t i = 0; i < length; i++)
            answers.push_back(i < known ? payload[i] : (int16_t)-1);
    }

    // All but the text layer.
    void apply(uint8_t type, const uint8_t *payload, uint32_t length)
    {
        missed = false;
        bytes content;
        switch (type) {
        case MSG_COPY_RECTS:
            for (uint32_t at = 0; length - at >= 24; at += 24)
                move(get_copy_rect(payload + at));
            break;
        case MSG_TILE:
            if (tile_pixels(payload, length, &content)) {
                tile_head head = get_tile_head(payload);
                place(head.tile_x, head.tile_y, content);
                insert(head.hash, content.data());
            }
            break;
        case MSG_TILE_REF:
            if (length >= 12 && holds(load_le16(payload), load_le16(payload + 2))) {
                tile_ref ref = get_tile_ref(payload);
                const bytes *known = find(ref.hash);
                if (known) {
                    place(ref.tile_x, ref.tile_y, *known);
                    hits++;
                } else {
                    answer(MSG_CACHE_MISS, payload, 12, 12);
                    missed = true;
                    misses++;
                }
            }
            break;
        case MSG_FRAME_END:
            answer(MSG_FRAME_ACK, payload, std::min<uint32_t>(length, 8), 8);
            frames++;
            break;
        default:
            break;
        }
    }
};

// What a text message makes of the layer. Cells are known but where a row record ran past its
// block, which copies what happened to lie behind it.
struct text_model {
    bool active;
    int32_t x, y, w, h, columns, rows;
    std::map<int32_t, bytes> cells; // rows that a message carried; empty = not known
    bool any_row_unknown;           // a record went to a row that nobody knows

    // `touch` is told the rectangles to repaint.
    template <typename touch_fn>
    void apply(const uint8_t *payload, uint32_t length, touch_fn touch)
    {
        if (length < 26)
            return;
        text_layer_head head = get_text_layer_head(payload);
        if (active)
            touch(x, y, w, h);
        if (head.rows == 0 || head.cols == 0) {
            active = false;
            return;
        }
        if (!active || head.cols != columns || head.rows != rows) {
            cells.clear();
            any_row_unknown = false;
            if ((uint64_t)head.cols * head.rows * 3 > FUZZ_ALLOCATION_MAX) {
                active = false;
                columns = rows = 0;
                return;
            }
        }
        active = true;
        x = head.x;
        y = head.y;
        w = head.w;
        h = head.h;
        columns = head.cols;
        rows = head.rows;
        touch(x, y, w, h);
        if (head.raw_size < 0 || (uint64_t)head.raw_size + 196607 > FUZZ_ALLOCATION_MAX)
            return;
        // More than fits is malformed. A block of exactly raw_size bytes fits any scratch.
        lz4_reference block =
            lz4_reference_decode(payload + 26, length - 26, (uint64_t)head.raw_size);
        if (block.result != head.raw_size)
            return;
        size_t record = 2 + (size_t)columns * 3;
        size_t at = 0;
        for (uint32_t i = 0; i < head.row_count; i++) {
            bool whole = block.out.size() - at >= record;
            if (block.out.size() - at >= 2) {
                int32_t row = load_le16(&block.out[at]);
                if (row < rows)
                    cells[row] =
                        whole ? bytes(&block.out[at + 2], &block.out[at] + record) : bytes();
            } else {
                any_row_unknown = true; // the row number too was whatever lay there
            }
            if (!whole)
                break;
            at += record;
        }
    }
};

#endif
