// Fakes: net_memory clock_script thread_inline computer_name_script
// Options: -max_len=2048 -len_control=0
// Seeds: 100 1500
//
// A whole session of the viewer with a host that says anything: hello, tiles, references,
// moves, text, and what is none of these. The connection is plain (records and handshake have
// targets of their own), the receive thread runs inside thread_start, and the window paints
// between two messages whenever the input says so.
//
// After each message picture, dirty rectangle, cache, text cells and answers are what a plain
// model makes of the same bytes; as long as the host told no lie about hashes, every cached
// tile hashes to its key.
#include "fuzz/fuzz.h"
#include "fuzz/picture_model.h"
#include "host/lz4_block.h"
#include "host/tile_hash.h"
#include "protocol/handshake.h"
#include "protocol/relay_hello.h"
#include "tests/fakes/net_memory.h"
#include "tests/fakes/thread_inline.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/view_geometry.h"
#include "viewer/viewer_channel.h"
#include "viewer/viewer_session.h"
#include "viewer/viewer_window.h"

#include <math.h>
#include <string>

using namespace viewer;

// Larger pictures than this have no model; they only must not do harm.
static constexpr int64_t MODEL_PIXELS_MAX = 512 * 512;

static struct {
    fuzz_input *in;
    picture_model model;
    text_model text;
    message_reader reader; // of net_memory.incoming; what is before it is applied
    size_t answers_from;   // in net_memory.sent, behind the hellos
    server_hello hello;
    bool hello_good, modelled, window_open, handshake_fails, window_fails;
    bool lied;                    // a tile came under a hash that is not its own
    bool ended;                   // a payload too large for the memory there is
    std::vector<uint64_t> hashes; // that tiles were sent under
    uint32_t repaints, closes;
    view_geometry view;
} run;

// ---------------------------------------------------------------------------------------
// What stands in for handshake and window

bool handshake_as_viewer(secure_channel *channel, net_socket sock, const char *)
{
    channel_open(channel, sock);
    if (run.handshake_fails)
        channel_reset(channel);
    return !run.handshake_fails;
}

namespace viewer
{

// A cache of a few slots in place of the real one, for which there is no memory here.
static void small_cache(uint32_t capacity) NO_THREAD_SAFETY_ANALYSIS
{
    FUZZ_CHECK(!tile_cache.cache_enabled);
    tile_cache.cache_enabled = true;
    tile_cache.cache_capacity = capacity;
    tile_cache.cache_keys = (uint64_t *)calloc(capacity, sizeof(uint64_t));
    tile_cache.cache_tiles = (uint8_t *)calloc(capacity, TILE_BYTES);
    tile_cache.cache_victim = (uint8_t *)calloc(capacity / 2 + 1, 1);
    run.model.cache.assign(capacity / 2, {});
}

bool viewer_window_open(const char *host_name)
{
    FUZZ_CHECK(run.hello_good);
    FUZZ_CHECK(strcmp(host_name, run.hello.name) == 0);
    if ((run.hello.caps & CAP_TILE_CACHE) != 0)
        small_cache(2 * (1 + take_below(run.in, 4)));
    run.window_open = !run.window_fails;
    return run.window_open;
}

void viewer_window_run()
{
    viewer_session_abort();
    lock_enter(&frame_lock);
    tile_cache_close();
    lock_leave(&frame_lock);
}

void viewer_window_post_repaint()
{
    run.repaints++;
}

void viewer_window_post_close()
{
    run.closes++;
}

} // namespace viewer

// ---------------------------------------------------------------------------------------
// What must hold between two messages

static void check_cache() NO_THREAD_SAFETY_ANALYSIS
{
    for (size_t set = 0; set < run.model.cache.size(); set++) {
        const auto &entries = run.model.cache[set];
        size_t held = 0;
        for (size_t slot = 2 * set; slot < 2 * set + 2; slot++) {
            uint64_t key = tile_cache.cache_keys[slot];
            if (key == 0)
                continue;
            held++;
            const uint8_t *tile = tile_cache.cache_tiles + slot * TILE_BYTES;
            bool found = false;
            for (const auto &entry : entries)
                found = found ||
                        (entry.hash == key && memcmp(entry.tile.data(), tile, TILE_BYTES) == 0);
            FUZZ_CHECK(found);
            FUZZ_CHECK(run.lied || tile_hash(tile) == key);
        }
        FUZZ_CHECK(held == entries.size());
    }
}

static void check_text() NO_THREAD_SAFETY_ANALYSIS
{
    const text_model &t = run.text;
    FUZZ_CHECK(frame.text_active == t.active);
    if (!t.active)
        return;
    FUZZ_CHECK(frame.text_cols == t.columns && frame.text_rows == t.rows);
    FUZZ_CHECK(frame.text_x == t.x && frame.text_y == t.y);
    FUZZ_CHECK(frame.text_w == t.w && frame.text_h == t.h);
    if (t.any_row_unknown)
        return;
    size_t row_bytes = (size_t)t.columns * 3;
    for (const auto &[row, cells] : t.cells)
        FUZZ_CHECK(cells.empty() || memcmp(frame.text_cells + (size_t)row * row_bytes,
                                           cells.data(), row_bytes) == 0);
    for (int32_t row = 0; row < t.rows && row < 64; row++) // the others are blank
        if (t.cells.count(row) == 0)
            for (size_t i = 0; i < row_bytes; i++)
                FUZZ_CHECK(frame.text_cells[(size_t)row * row_bytes + i] == 0);
}

static void check_answers()
{
    const auto &expected = run.model.answers;
    FUZZ_CHECK(net_memory.sent.size() - run.answers_from == expected.size());
    for (size_t i = 0; i < expected.size(); i++)
        FUZZ_CHECK(expected[i] < 0 ||
                   net_memory.sent[run.answers_from + i] == (uint8_t)expected[i]);
    FUZZ_CHECK(statistics.stat_frames == run.model.frames);
    FUZZ_CHECK(statistics.stat_hits == run.model.hits);
    FUZZ_CHECK(statistics.stat_misses == run.model.misses);
    FUZZ_CHECK(run.repaints == run.model.frames);
}

static void check_picture() NO_THREAD_SAFETY_ANALYSIS
{
    picture_model &m = run.model;
    FUZZ_CHECK(frame.frame_width == m.width && frame.frame_height == m.height);
    FUZZ_CHECK(frame.dirty_valid == m.dirty_valid);
    if (m.dirty_valid) {
        const frame_rect &d = frame.dirty_rect;
        FUZZ_CHECK(d.left == m.dirty[0] && d.top == m.dirty[1]);
        FUZZ_CHECK(d.right == m.dirty[2] && d.bottom == m.dirty[3]);
    }
    size_t stride = (size_t)frame.frame_stride * 4;
    for (int32_t ty = 0; ty < m.rows; ty++)
        for (int32_t tx = 0; tx < m.columns; tx++) {
            const uint8_t *shown = frame.frame_pixels + (size_t)ty * 64 * stride + tx * 256;
            const uint8_t *expected = m.tile(tx, ty);
            for (size_t row = 0; row < 64; row++)
                FUZZ_CHECK(memcmp(shown + row * stride, expected + row * 256, 256) == 0);
        }
}

// Takes the messages that the product has had into the model, and compares.
static void catch_up()
{
    message_header header;
    const uint8_t *payload;
    bool any = false;
    while (run.reader.next(net_memory.incoming, &header, &payload)) {
        any = true;
        bytes content;
        if (header.type == MSG_TILE && run.modelled &&
            run.model.tile_pixels(payload, header.length, &content)) {
            uint64_t hash = get_tile_head(payload).hash;
            run.lied = run.lied || (hash != 0 && hash != tile_hash(content.data()));
        }
        if (run.modelled)
            run.model.apply(header.type, payload, header.length);
        if (header.type == MSG_TEXT_LAYER)
            run.text.apply(payload, header.length,
                           [](int64_t x, int64_t y, int64_t w, int64_t h) {
                               run.model.touch(x, y, w, h);
                           });
    }
    if (any && run.modelled) {
        check_picture();
        check_cache();
        check_text();
        check_answers();
    }
    // What cannot be received ends the session, and nothing is read after it.
    FUZZ_CHECK(!run.ended);
    size_t left = net_memory.incoming.size() - run.reader.at;
    if (left >= MESSAGE_HEADER_BYTES) {
        uint64_t length = get_header(&net_memory.incoming[run.reader.at]).length;
        run.ended = length + 4096 > FUZZ_ALLOCATION_MAX;
    }
}

// ---------------------------------------------------------------------------------------
// The window

static void inside(const frame_rect &inner, const frame_rect &outer)
{
    FUZZ_CHECK(inner.left >= outer.left && inner.right <= outer.right);
    FUZZ_CHECK(inner.top >= outer.top && inner.bottom <= outer.bottom);
}

// The text layer's runs in `visible`, as painting walks them.
static void paint_text(const frame_rect &visible) NO_THREAD_SAFETY_ANALYSIS
{
    text_grid grid = view_text_grid(run.view, frame.text_x, frame.text_y, frame.text_w,
                                    frame.text_h, frame.text_cols, frame.text_rows);
    FUZZ_CHECK(grid.cell_w >= 1 && grid.cell_h >= 1);
    text_span rows =
        view_text_span(grid.y, grid.cell_h, frame.text_rows, visible.top, visible.bottom);
    text_span columns =
        view_text_span(grid.x, grid.cell_w, frame.text_cols, visible.left, visible.right);
    FUZZ_CHECK(rows.first >= 0 && rows.first <= rows.end && rows.end <= frame.text_rows);
    FUZZ_CHECK(columns.first >= 0 && columns.first <= columns.end &&
               columns.end <= frame.text_cols);
    static uint16_t characters[TEXT_RUN_MAX];
    for (int32_t row = rows.first; row < rows.end && row < rows.first + 20; row++) {
        const uint8_t *cells = frame.text_cells + (size_t)row * (size_t)frame.text_cols * 3;
        for (int32_t column = columns.first; column < columns.end;) {
            uint8_t attribute;
            int32_t length = text_run(cells, frame.text_cols, column, characters, &attribute);
            FUZZ_CHECK(length >= 1 && length <= TEXT_RUN_MAX &&
                       column + length <= frame.text_cols);
            text_place place;
            if (view_text_place(grid, column, row, length, visible, &place))
                inside(place.clip, visible);
            column += length;
        }
    }
}

static void paint()
{
    int32_t client_width = (int32_t)take_edge(run.in);
    int32_t client_height = (int32_t)take_edge(run.in);
    lock_enter(&frame_lock);
    run.view = view_fit(client_width, client_height, frame.frame_width, frame.frame_height);
    const view_geometry &view = run.view;
    if (view.view_scale > 0) {
        FUZZ_CHECK(view.view_scale <= 1);
        FUZZ_CHECK(view.view_x >= 0 && view.view_x + view.view_width <= client_width);
        FUZZ_CHECK(view.view_y >= 0 && view.view_y + view.view_height <= client_height);
    }
    frame_rect redraw = {(int32_t)take_u8(run.in), (int32_t)take_u8(run.in), client_width,
                         client_height};
    if (frame.dirty_valid) {
        frame_rect dirty = view_invalid_rect(view, frame.dirty_rect);
        FUZZ_CHECK(view.view_scale == 0 ||
                   dirty.right >=
                       view.view_x + ceil(frame.dirty_rect.right * view.view_scale) - 0.001);
        frame.dirty_valid = false;
        run.model.dirty_valid = false;
    }
    view_stretch s = view_paint_rect(view, redraw, frame.frame_width, frame.frame_height);
    if (s.src_w != 0) {
        FUZZ_CHECK(s.src_x >= 0 && s.src_w > 0 && s.src_w <= frame.frame_width - s.src_x);
        FUZZ_CHECK(s.src_y >= 0 && s.src_h > 0 && s.src_h <= frame.frame_height - s.src_y);
        FUZZ_CHECK(s.dst_w > 0 && s.dst_h > 0);
    }
    if (frame.text_active && redraw.left < redraw.right && redraw.top < redraw.bottom)
        paint_text(redraw);
    int32_t x, y;
    if (view_to_host(view, (int32_t)take_edge(run.in), (int32_t)take_edge(run.in),
                     frame.frame_width, frame.frame_height, &x, &y)) {
        FUZZ_CHECK(x >= 0 && x < frame.frame_width);
        FUZZ_CHECK(y >= 0 && y < frame.frame_height);
    }
    lock_leave(&frame_lock);
}

// ---------------------------------------------------------------------------------------
// The host

static void arrive(const bytes &b)
{
    net_memory.incoming.insert(net_memory.incoming.end(), b.begin(), b.end());
}

static void say(uint8_t type, const bytes &payload)
{
    bytes message(MESSAGE_HEADER_BYTES);
    put_header(message.data(), (message_type)type, (uint32_t)payload.size());
    message.insert(message.end(), payload.begin(), payload.end());
    arrive(message);
}

// One colour, noise, or a few other pixels than now.
static bytes take_tile(int32_t tx, int32_t ty)
{
    bytes tile(TILE_BYTES);
    uint8_t kind = take_u8(run.in);
    if (kind % 4 == 0) {
        fill_noise(tile.data(), tile.size(), kind);
    } else if (kind % 4 == 1) {
        memset(tile.data(), kind / 4 % 8, tile.size());
    } else {
        if (run.modelled && run.model.holds(tx, ty))
            memcpy(tile.data(), run.model.tile(tx, ty), TILE_BYTES);
        for (uint32_t n = take_below(run.in, 8); n > 0; n--)
            tile[take_u16(run.in) % TILE_BYTES] ^= take_u8(run.in);
    }
    return tile;
}

static void say_tile()
{
    uint8_t kind = take_u8(run.in);
    int32_t columns = std::max(run.model.columns, 1), rows = std::max(run.model.rows, 1);
    tile_head head = {};
    head.tile_x = (uint16_t)take_below(run.in, (uint32_t)columns);
    head.tile_y = (uint16_t)take_below(run.in, (uint32_t)rows);
    if (kind % 16 == 0) { // beside the grid, or somewhere
        head.tile_x = (uint16_t)take_edge(run.in);
        head.tile_y = (uint16_t)take_edge(run.in);
    }
    bytes tile = take_tile(head.tile_x, head.tile_y);
    head.hash = tile_hash(tile.data());
    if (kind % 8 == 1)
        head.hash = take_edge(run.in);
    run.hashes.push_back(head.hash);
    head.raw = kind & 0x80 ? (kind & 0x10) + 1 : 0;
    bytes payload(TILE_HEAD_BYTES);
    put_tile_head(payload.data(), head);
    if (head.raw) {
        if (kind % 8 == 2)
            tile.resize(TILE_BYTES - 1 + take_below(run.in, 3));
        payload.insert(payload.end(), tile.begin(), tile.end());
    } else if (kind % 8 == 3) { // whatever the input says
        bytes block = take_bytes(run.in, take_u8(run.in));
        payload.insert(payload.end(), block.begin(), block.end());
    } else {
        if (run.modelled && run.model.holds(head.tile_x, head.tile_y))
            for (size_t i = 0; i < TILE_BYTES; i++)
                tile[i] ^= run.model.tile(head.tile_x, head.tile_y)[i];
        bytes block((size_t)lz4_bound(TILE_BYTES));
        block.resize((size_t)lz4_compress_block(tile.data(), TILE_BYTES, block.data(),
                                                (int32_t)block.size()));
        if (kind % 8 == 4)
            take_damage(run.in, &block);
        payload.insert(payload.end(), block.begin(), block.end());
    }
    if (kind % 16 == 5)
        payload.resize(take_below(run.in, TILE_HEAD_BYTES + 2));
    say(MSG_TILE, payload);
}

static void say_ref()
{
    tile_ref ref = {take_u8(run.in), take_u8(run.in), 0};
    uint8_t which = take_u8(run.in);
    if (which < 224 && !run.hashes.empty()) {
        ref.hash = run.hashes[which % run.hashes.size()];
        if (run.model.columns > 0) {
            ref.tile_x = (uint16_t)(ref.tile_x % run.model.columns);
            ref.tile_y = (uint16_t)(ref.tile_y % run.model.rows);
        }
    } else {
        ref.hash = (uint64_t)take_edge(run.in) << (which % 33);
    }
    bytes payload(TILE_REF_BYTES);
    put_tile_ref(payload.data(), ref);
    if (which % 16 == 15)
        payload.resize(take_below(run.in, 16));
    say(MSG_TILE_REF, payload);
}

static int32_t take_side(int32_t size)
{
    uint8_t kind = take_u8(run.in);
    if (kind % 8 == 0)
        return (int32_t)take_edge(run.in);
    return size > 0 ? (int32_t)((uint32_t)kind * 3 % (uint32_t)(size + 2)) : kind;
}

static void say_moves()
{
    bytes payload;
    for (uint32_t n = take_below(run.in, 5); n > 0; n--) {
        int32_t w = run.model.width, h = run.model.height;
        copy_rect r = {take_side(w), take_side(h), take_side(w),
                       take_side(h), take_side(w), take_side(h)};
        if (n % 2 == 0) { // one that fits
            r.src_x = w ? r.src_x % w : 0;
            r.dst_x = w ? r.dst_x % w : 0;
            r.src_y = h ? r.src_y % h : 0;
            r.dst_y = h ? r.dst_y % h : 0;
            r.w = std::min({r.w, w - r.src_x, w - r.dst_x});
            r.h = std::min({r.h, h - r.src_y, h - r.dst_y});
        }
        payload.resize(payload.size() + COPY_RECT_BYTES);
        put_copy_rect(&payload[payload.size() - COPY_RECT_BYTES], r);
    }
    bytes tail = take_bytes(run.in, take_below(run.in, 32));
    payload.insert(payload.end(), tail.begin(), tail.end());
    say(MSG_COPY_RECTS, payload);
}

static void say_text()
{
    uint8_t kind = take_u8(run.in);
    text_layer_head head = {};
    head.x = (int32_t)take_edge(run.in);
    head.y = (int32_t)take_edge(run.in);
    head.w = (int32_t)take_edge(run.in);
    head.h = (int32_t)take_edge(run.in);
    head.cols = (uint16_t)(kind & 1 ? take_edge(run.in) : 1 + take_below(run.in, 8));
    head.rows = (uint16_t)(kind & 1 ? take_edge(run.in) : 1 + take_below(run.in, 8));
    if (kind % 32 == 13) { // more cells than there is memory for
        head.cols = (uint16_t)(0xFFFF - take_u8(run.in));
        head.rows = (uint16_t)(0xFFFF - take_u8(run.in));
    }
    head.row_count = (uint16_t)take_below(run.in, 10);

    bytes records;
    if (head.cols <= 200)
        for (uint32_t i = 0; i < head.row_count; i++) {
            uint8_t row = take_u8(run.in);
            records.push_back(row);
            records.push_back(row == 255);
            size_t at = records.size();
            records.resize(at + head.cols * 3u, row);
            if (row & 1)
                fill_noise(&records[at], head.cols * 3u, row);
        }
    if (kind % 8 == 2)
        take_damage(run.in, &records);
    if (kind % 16 == 4) // one more or fewer than there are
        head.row_count = (uint16_t)(head.row_count + take_edge(run.in));
    head.raw_size = (int32_t)records.size();
    if (kind % 16 == 6)
        head.raw_size = (int32_t)take_edge(run.in);

    bytes payload(TEXT_LAYER_HEAD_BYTES);
    put_text_layer_head(payload.data(), head);
    bytes block((size_t)lz4_bound((int32_t)records.size()));
    block.resize((size_t)lz4_compress_block(records.data(), (int32_t)records.size(),
                                            block.data(), (int32_t)block.size()));
    if (kind % 8 == 5)
        take_damage(run.in, &block);
    if (kind % 16 == 9)
        block = take_bytes(run.in, take_u8(run.in));
    payload.insert(payload.end(), block.begin(), block.end());
    if (kind % 16 == 11)
        payload.resize(take_below(run.in, 30));
    say(MSG_TEXT_LAYER, payload);
}

// Any type with any length, and as much of the payload as the input has.
static void say_anything()
{
    uint8_t kind = take_u8(run.in);
    uint8_t head[MESSAGE_HEADER_BYTES];
    put_header(head, (message_type)take_u8(run.in), take_edge(run.in));
    if (kind % 4 == 0)
        store_le32(head, take_u32(run.in)); // the three bytes that nobody reads
    arrive(bytes(head, head + sizeof head));
    uint32_t length = get_header(head).length;
    bytes payload = take_bytes(run.in, kind % 8 == 1 ? take_u8(run.in) : length);
    if (kind % 8 == 2 && length < 1u << 20)
        payload.resize(length);
    arrive(payload);
}

static void say_hello()
{
    uint8_t kind = take_u8(run.in);
    bytes message(MESSAGE_HEADER_BYTES + SERVER_HELLO_BYTES);
    int32_t width = 1 + take_u8(run.in), height = 1 + take_u8(run.in);
    if (kind % 16 == 0) {
        width = (int32_t)take_edge(run.in);
        height = (int32_t)take_edge(run.in);
    }
    bytes name = take_text(run.in, NAME_BYTES);
    name.push_back(0);
    put_header(message.data(), MSG_SERVER_HELLO, SERVER_HELLO_BYTES);
    put_server_hello(message.data() + MESSAGE_HEADER_BYTES, width, height,
                     kind & 0x80 ? CAP_TILE_CACHE : 0, (const char *)name.data());
    if (kind % 16 == 1)
        take_damage(run.in, &message);
    arrive(message);

    if (message.size() < MESSAGE_HEADER_BYTES + SERVER_HELLO_BYTES)
        return;
    message_header header = get_header(message.data());
    run.hello = get_server_hello(message.data() + MESSAGE_HEADER_BYTES);
    run.hello_good =
        header.type == MSG_SERVER_HELLO && header.length == SERVER_HELLO_BYTES &&
        run.hello.width > 0 && run.hello.height > 0 && run.hello.width <= 0x7FFFFFC0 &&
        run.hello.height <= 0x7FFFFFC0 &&
        (uint64_t)pad_to_tile(run.hello.width) * (uint64_t)pad_to_tile(run.hello.height) <=
            FUZZ_ALLOCATION_MAX / 4;
    run.modelled =
        run.hello_good && (int64_t)run.hello.width * run.hello.height <= MODEL_PIXELS_MAX;
    if (run.modelled)
        run.model.open(run.hello.width, run.hello.height);
    run.reader.at = MESSAGE_HEADER_BYTES + SERVER_HELLO_BYTES;
}

// The viewer waits for bytes: everything before them has been dealt with.
static void refill()
{
    if (net_memory.incoming.empty()) {
        run.answers_from = net_memory.sent.size();
        say_hello();
        return;
    }
    if (!run.window_open)
        return; // a hello that was cut
    catch_up();
    size_t before = net_memory.incoming.size();
    while (net_memory.incoming.size() == before && run.in->left > 0 &&
           net_memory.incoming.size() < 1u << 20) {
        switch (take_below(run.in, 10)) {
        case 0:
        case 1:
            say_tile();
            break;
        case 2:
            say_ref();
            break;
        case 3:
            say_moves();
            break;
        case 4:
            say_text();
            break;
        case 5: {
            bytes stamp = take_bytes(run.in, 8);
            stamp.resize(take_u8(run.in) % 8 == 0 ? take_below(run.in, 12) : 8);
            say(MSG_FRAME_END, stamp);
            break;
        }
        case 6:
            say(take_u8(run.in), take_bytes(run.in, take_u8(run.in)));
            break;
        case 7:
            say_anything();
            break;
        case 8:
            arrive(take_bytes(run.in, take_u8(run.in)));
            break;
        default:
            paint();
            break;
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    net_memory_reset();
    run = {};
    run.in = &in;
    net_memory.refill = refill;
    uint8_t kind = take_u8(&in);
    run.handshake_fails = kind % 32 == 1;
    run.window_fails = kind % 32 == 2;
    net_memory.connections = kind % 32 != 3;
    thread_inline_refuse_next = kind % 32 == 4;
    bool via_relay = (kind & 0x80) != 0;

    bytes id = take_text(&in, 24);
    id.push_back(0);
    exact_bytes id_text(id);
    exact_bytes error(take_below(&in, 80));
    memset(error.block, 0xA5, error.size ? error.size : 1);
    int result = viewer_session_run("host", "7777", via_relay, (const char *)id_text.data,
                                    "password", (char *)error.data, (int32_t)error.size);

    FUZZ_CHECK(result == (run.window_open ? 0 : 1));
    const char *text = "";
    if (kind % 32 == 3)
        text = "connection failed";
    else if (run.handshake_fails)
        text = "authentication failed (wrong password, or host not online)";
    else if (!run.hello_good)
        text = "bad hello from host";
    if (*text && error.size > 0)
        FUZZ_CHECK(std::string(text).substr(0, error.size - 1) == (const char *)error.data);
    else
        for (size_t i = 0; i < error.size; i++)
            FUZZ_CHECK(error.data[i] == 0xA5);
    if (net_memory.sent.size() >= 4)
        FUZZ_CHECK((memcmp(net_memory.sent.data(), "QVRL", 4) == 0) == via_relay);
    thread_inline_refuse_next = false;

    // Nothing stays behind.
    static const secure_channel closed = {};
    FUZZ_CHECK(memcmp(&viewer_channel, &closed, sizeof closed) == 0);
    FUZZ_CHECK(net_memory.closed == (kind % 32 == 3 ? 0u : 1u));
    FUZZ_CHECK(run.closes == (run.window_open ? 1u : 0u));
    lock_enter(&frame_lock);
    FUZZ_CHECK(!frame.frame_pixels && !frame.text_cells && !frame.text_scratch);
    FUZZ_CHECK(!tile_cache.cache_enabled && !tile_cache.cache_keys);
    lock_leave(&frame_lock);
    return 0;
}
