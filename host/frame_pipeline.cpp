// The frame pipeline: one iteration captures the screen, and when the viewer has room for
// another frame sends what changed, as one record.
//
//   line_holds()        on a line that queues: until there is room for another frame
//   capture_step()      frame_buffer is the newest picture, dirty_map says where to look
//   awaits_advert()     at a session's start: until the viewer told which tiles it has
//   pacing_step()       too many frames unacknowledged: the iteration ends, all of it waits
//   -- host_lock ----
//   apply_moves()       both pictures, prev_frame and the viewer's, take the screen's moves
//   find_moves()        the same with moves found in the pictures, where none are reported
//   text_layer_step()   the console in front goes as text; its tiles wait until it goes
//   window_list_step()  the visible windows, if the host is to tell them and they changed
//   walk_tiles()        each dirty tile that differs from prev_frame: a reference, a
//                       compressed difference or its pixels
//   walk_line()         the same in an order of its own, where frames are limited in bytes
//   teach_tiles()       on such a line when it rests: hashes of tiles that came by moves
//   -----------------
//   the log line, the pointer, the frame's end, channel_flush()
//
// prev_frame is the host's idea of what the viewer shows. The invariant that keeps the
// viewer's picture right: wherever a tile's base is certain (tile_base.h), prev_frame and
// the viewer agree in every byte. Whatever changes one changes the other in the same order:
// moves on certain pixels, sent tiles. Differences are made only where the base is certain.
//
// Runs on the host server thread. host_lock is held from the moves to the end of the walk
// and never while anything is sent. An iteration allocates nothing once the outgoing buffer
// has its size, and copies a tile only when it changed.
#include "host/frame_pipeline.h"
#include "host/cache_mirror.h"
#include "host/cache_replica.h"
#include "host/capture.h"
#include "host/capture_pace.h"
#include "host/cursor.h"
#include "host/host_channel.h"
#include "host/host_lock.h"
#include "host/host_server.h"
#include "host/intra_tile.h"
#include "host/line_pacing.h"
#include "host/lz4_block.h"
#include "host/move_search.h"
#include "host/out_buffer.h"
#include "host/screen.h"
#include "host/server_wake.h"
#include "host/text_layer.h"
#include "host/tile_cells.h"
#include "host/tile_hash.h"
#include "host/tile_ops.h"
#include "host/tile_worth.h"
#include "host/window_list.h"
#include "identity/server_log.h"
#include "protocol/clock.h"
#include "protocol/messages.h"

#include <stdlib.h>
#include <string.h>

namespace host
{

std::atomic<uint32_t> frame_seq;
uint16_t peer_caps;
bool paces_bytes = true;
bool finds_moves = true;
bool keeps_replica = true;
bool sends_intra = true;

// Host server thread only.
static struct {
    uint32_t last_iteration_tick; // end of the last full iteration
    uint32_t walk_ms;             // time of the walk
    uint32_t turn;                // of the tiles that change (tile_worth.h)
    int64_t turn_tiles;           // tiles of the grid that had theirs
    bool unnamed;                 // there may be tiles that the viewer has without a hash
    bool awaits_advert;           // nothing was walked yet, and the viewer keeps a cache
    int32_t walk_tx, walk_ty;     // tile of the hello's grid at which the next walk begins
    uint64_t tiles_sent_total;    // of this session, references included
    uint64_t cache_refs_total;
    cursor_state cursor_sent; // kept across sessions
    bool line_started;        // of this session
    bool line_was_in;         // its frames were limited in bytes at some time
    line_pacing line;
    int32_t small_place;   // of the hello's grid, at which the next small tiles begin
    uint64_t moved_pixels; // by this frame's moves
    uint64_t moved_us;     // when the screen was last in motion (line_in_motion); 0: never
} pipeline;

// A tile that is to go out on a line whose frames are limited.
struct line_tile {
    uint16_t tx, ty;
    bool reference, small, near; // near the pointer, after an input
    bool done;                   // sent, or left for a later walk
    uint64_t hash;               // of a tile on the screen
};

// More than any screen has that is served at a speed worth this. Of a larger one the rest
// stays dirty and has its turn later. Host server thread only.
constexpr int32_t LINE_TILES_MAX = 16384;
static line_tile line_tiles[LINE_TILES_MAX];

// The difference of one tile; static because 16 KiB are much for a stack. Host server thread
// only.
alignas(64) static uint8_t tile_delta[TILE_BYTES];

// The search for moves; host server thread, under host_lock.
static move_search moves;
static move_tile move_tiles[MOVE_TILES_MAX];

constexpr uint64_t TILE_MESSAGE_HEAD = MESSAGE_HEADER_BYTES + TILE_HEAD_BYTES;
constexpr uint64_t TILE_REF_MESSAGE = MESSAGE_HEADER_BYTES + TILE_REF_BYTES;
constexpr uint64_t CURSOR_MESSAGE = MESSAGE_HEADER_BYTES + CURSOR_BYTES;
constexpr uint64_t FRAME_END_MESSAGE = MESSAGE_HEADER_BYTES + FRAME_END_BYTES;

// ---------------------------------------------------------------------------------------
// Moves

struct tile_span {
    int32_t left, top, right, bottom; // tiles, all inclusive
};

static tile_span tiles_of(int32_t x, int32_t y, int32_t w, int32_t h)
{
    return {x / TILE_SIZE, y / TILE_SIZE, (x + w - 1) / TILE_SIZE, (y + h - 1) / TILE_SIZE};
}

static tile_base *base_at(int32_t tx, int32_t ty) REQUIRES(host_lock)
{
    return &screen.bases[(int64_t)ty * screen.tiles_x + tx];
}

static tile_worth *worth_at(int32_t tx, int32_t ty) REQUIRES(host_lock)
{
    return &screen.worths[(int64_t)ty * screen.tiles_x + tx];
}

// The viewer has got a tile's content without its hash: if it stays, it will be told.
static void note_unnamed(int32_t tx, int32_t ty) REQUIRES(host_lock)
{
    tile_worth_unnamed(worth_at(tx, ty), pipeline.walk_ms);
    pipeline.unnamed = true;
}

static bool move_source_certain(const copy_rect &move, uint32_t confirmed_seq)
    REQUIRES(host_lock)
{
    tile_span span = tiles_of(move.src_x, move.src_y, move.w, move.h);
    for (int32_t ty = span.top; ty <= span.bottom; ty++)
        for (int32_t tx = span.left; tx <= span.right; tx++)
            if (tile_base_uncertain(*base_at(tx, ty), confirmed_seq))
                return false;
    return true;
}

// Appends a move to a message and notes that the viewer shows something where it went.
static void record_move(const copy_rect &move, uint8_t *message, uint32_t *length)
    REQUIRES(host_lock)
{
    pipeline.moved_pixels += (uint64_t)move.w * (uint64_t)move.h;
    tile_span span = tiles_of(move.dst_x, move.dst_y, move.w, move.h);
    for (int32_t ty = span.top; ty <= span.bottom; ty++)
        for (int32_t tx = span.left; tx <= span.right; tx++)
            base_at(tx, ty)->base_blank = 0;
    put_copy_rect(message + MESSAGE_HEADER_BYTES + *length, move);
    *length += COPY_RECT_BYTES;
}

// The viewer's picture has the size that it was told. On a screen of another size its pixels
// and ours do not lie in the same places.
static bool viewer_has_size()
{
    return screen.screen_width == screen.hello_width &&
           screen.screen_height == screen.hello_height;
}

// Applies the captured moves to prev_frame, in order, and appends those that it applied.
//
// A move from a tile whose base is uncertain is left out on both sides: the viewer would
// copy pixels that the host does not know. Leaving one out keeps prev_frame and the viewer
// equal at its destination, since neither changes there. So a later move may start where
// an omitted one would have ended: it copies equal pixels to equal pixels, though not those
// on the screen. What the screen shows at either destination is in frame_buffer, and the
// tiles there are dirty: the walk puts right what the moves did not.
static void apply_moves(uint32_t confirmed_seq) REQUIRES(host_lock)
{
    int32_t count = screen.move_count;
    screen.move_count = 0;
    if (count == 0 || !viewer_has_size())
        return;

    uint8_t *message = out_reserve(MESSAGE_HEADER_BYTES + (size_t)count * COPY_RECT_BYTES);
    if (!message)
        return; // the flush fails, and the session with it
    uint32_t length = 0;
    for (int32_t i = 0; i < count; i++) {
        const copy_rect &move = screen.move_list[i];
        if (!move_source_certain(move, confirmed_seq))
            continue;
        move_pixels(screen.prev_frame, (uint64_t)screen.padded_width * PIXEL_BYTES, move);
        record_move(move, message, &length);
    }
    if (length == 0)
        return;
    put_header(message, MSG_COPY_RECTS, length);
    out_commit(MESSAGE_HEADER_BYTES + length);
}

static std::atomic<uint8_t> *dirty_at(int32_t tx, int32_t ty)
{
    return &screen.dirty_map[(int64_t)ty * screen.tiles_x + tx];
}

// Compares the dirty tiles for the search and returns how many changed. Those that did not are
// done with.
static int32_t compare_tiles(uint32_t confirmed_seq) REQUIRES(host_lock)
{
    uint64_t pitch = (uint64_t)screen.padded_width * PIXEL_BYTES;
    int32_t changed = 0;
    move_tile *tile = move_tiles;
    for (int32_t ty = 0; ty < screen.tiles_y; ty++)
        for (int32_t tx = 0; tx < screen.tiles_x; tx++, tile++) {
            const tile_base &base = *base_at(tx, ty);
            *tile = {};
            tile->uncertain = tile_base_uncertain(base, confirmed_seq);
            tile->apart = tile->uncertain || base.must_send || text_layer_covers(tx, ty);
            if (tile->apart || *dirty_at(tx, ty) == 0)
                continue;
            uint64_t at = tile_offset(screen.padded_width, tx, ty);
            tile->changed =
                !tile_equal(screen.frame_buffer + at, screen.prev_frame + at, pitch);
            if (tile->changed)
                changed++;
            else
                *dirty_at(tx, ty) = 0;
        }
    return changed;
}

// Looks for what moved since the last frame, where the capture does not say.
//
// The search wants to know which dirty tiles changed. So the walk finds those only that did,
// and those under a move, to look at again.
static void find_moves(uint32_t confirmed_seq) REQUIRES(host_lock)
{
    if (!finds_moves || capture_is_duplication() || !viewer_has_size() ||
        (int64_t)screen.tiles_x * screen.tiles_y > MOVE_TILES_MAX)
        return;
    if (compare_tiles(confirmed_seq) < MOVE_TILES_MIN)
        return;
    uint8_t *message = out_reserve(MESSAGE_HEADER_BYTES + MOVES_FOUND_MAX * COPY_RECT_BYTES);
    if (!message)
        return; // the flush fails, and the session with it
    move_pictures pictures = {screen.frame_buffer, screen.prev_frame, screen.screen_width,
                              screen.screen_height, screen.padded_width};
    copy_rect found[MOVES_FOUND_MAX];
    int32_t count = move_search_frame(&moves, pictures, move_tiles, found);
    if (count == 0)
        return;
    uint32_t length = 0;
    for (int32_t i = 0; i < count; i++) {
        record_move(found[i], message, &length);
        tile_span span = tiles_of(found[i].dst_x, found[i].dst_y, found[i].w, found[i].h);
        for (int32_t ty = span.top; ty <= span.bottom; ty++)
            for (int32_t tx = span.left; tx <= span.right; tx++) {
                *dirty_at(tx, ty) = 1;
                note_unnamed(tx, ty);
            }
    }
    put_header(message, MSG_COPY_RECTS, length);
    out_commit(MESSAGE_HEADER_BYTES + length);
}

// ---------------------------------------------------------------------------------------
// Tiles

// The most that a tile takes, as pixels; and one of the pair of messages of an intra tile,
// which compresses.
constexpr uint64_t TILE_MOST = TILE_MESSAGE_HEAD + TILE_BYTES;
constexpr uint64_t INTRA_MOST = TILE_REF_MESSAGE + TILE_MESSAGE_HEAD + TILE_BYTES - 1;
static_assert(INTRA_MOST == 16424);

// Whether the frame can take so many bytes of tiles, and what follows the tiles, and still fit
// a record.
static bool frame_takes(uint64_t bytes)
{
    return out_used() + bytes + CURSOR_MESSAGE + FRAME_END_MESSAGE <= RECORD_MAX;
}

// Whether it can take the tiles that wait and one more, however badly they compress.
static bool frame_has_room(int32_t waiting)
{
    return frame_takes(((uint64_t)waiting + 1) * TILE_MOST);
}

// Appends a tile as MSG_TILE: as its difference from base when there is one and it
// compresses, else as its pixels. Pixels and base are pitched.
static void append_tile(tile_head head, const uint8_t *pixels, const uint8_t *base,
                        uint64_t pitch)
{
    constexpr int32_t ROOM = lz4_bound(TILE_BYTES);
    uint8_t *message = out_reserve(TILE_MESSAGE_HEAD + ROOM);
    if (!message)
        return; // the flush fails, and the session with it
    uint8_t *data = message + TILE_MESSAGE_HEAD;
    int32_t length = 0;
    if (base) {
        tile_difference(tile_delta, pixels, base, pitch);
        length = lz4_compress_block(tile_delta, TILE_BYTES, data, ROOM);
    }
    head.raw = length <= 0 || length >= TILE_BYTES;
    if (head.raw) {
        tile_gather(data, pixels, pitch);
        length = TILE_BYTES;
    }
    put_header(message, MSG_TILE, TILE_HEAD_BYTES + (uint32_t)length);
    put_tile_head(message + MESSAGE_HEADER_BYTES, head);
    out_commit(TILE_MESSAGE_HEAD + (uint64_t)length);
}

// Appends an intra tile (intra_tile.h). False, and nothing was appended, when it does not
// compress.
static bool append_intra(uint16_t tx, uint16_t ty, const uint8_t *pixels, uint64_t pitch)
{
    constexpr int32_t ROOM = lz4_bound(TILE_BYTES);
    uint8_t *message = out_reserve(TILE_REF_MESSAGE + TILE_MESSAGE_HEAD + ROOM);
    if (!message)
        return false; // the flush fails, and the session with it
    uint8_t *tile = message + TILE_REF_MESSAGE;
    tile_gather(tile_delta, pixels, pitch);
    int32_t length = lz4_compress_block(tile_delta, TILE_BYTES, tile + TILE_MESSAGE_HEAD, ROOM);
    if (length <= 0 || length >= TILE_BYTES)
        return false;
    put_header(message, MSG_TILE_REF, TILE_REF_BYTES);
    put_tile_ref(message + MESSAGE_HEADER_BYTES, {tx, ty, intra_zero_hash()});
    put_header(tile, MSG_TILE, TILE_HEAD_BYTES + (uint32_t)length);
    put_tile_head(tile + MESSAGE_HEADER_BYTES,
                  {.tile_x = tx, .tile_y = ty, .raw = 0, .hash = 0});
    out_commit(TILE_REF_MESSAGE + TILE_MESSAGE_HEAD + (uint64_t)length);
    return true;
}

static const uint8_t zeros[TILE_BYTES] = {};

// Tiles that are hashed together.
constexpr int32_t BATCH_TILES = 4;

struct frame_tiles {
    int32_t handled; // references included, and those that wait
    int32_t refs;

    // Tiles that have to go out and wait for enough others to be hashed with them. They leave
    // in the order in which the walk came by, ahead of everything that comes later.
    int32_t waiting;
    struct {
        int32_t tx, ty;
    } wait[BATCH_TILES];
};

static bool tile_on_screen(int32_t tx, int32_t ty)
{
    return tx < screen.tiles_x && ty < screen.tiles_y;
}

// Whether a tile of the hello's grid, columns wide, is to be examined. Under the text layer
// nothing is, and what is dirty stays so for the layer's end.
static bool tile_is_due(int32_t tx, int32_t ty, int32_t columns)
{
    if (tile_on_screen(tx, ty))
        return *dirty_at(tx, ty) != 0 && !text_layer_covers(tx, ty);
    return screen.outside_map && screen.outside_map[(int64_t)ty * columns + tx] != 0;
}

// Whether a tile has to go out, judged in place. Most dirty tiles turn out unchanged, and
// one pass over both pictures is all that they cost.
static bool tile_changed(const tile_base &base, const uint8_t *now, const uint8_t *before,
                         uint64_t pitch) REQUIRES(host_lock)
{
    if (base.must_send || !tile_equal(now, before, pitch))
        return true;
    // After a miss prev_frame is zero, so a black tile equals it and is not sent again,
    // although the viewer may show something else there. Kept on purpose: the tile stays
    // LOST, and is sent with its next change.
    return base.base_state == BASE_LOST && !tile_is_zero(now, pitch);
}

// Whether the viewer is believed to hold a hash.
static bool may_refer(uint64_t hash) REQUIRES(host_lock)
{
    return (peer_caps & CAP_TILE_CACHE) != 0 && cache_mirror_find(hash) &&
           (!keeps_replica || cache_replica_may_refer(hash));
}

// Whether a tile that changes all the time would drive out of the viewer's cache what may be
// wanted again. It then goes without its hash, and is not kept.
static bool not_worth_a_slot(const tile_worth &worth, uint64_t hash) REQUIRES(host_lock)
{
    return keeps_replica && tile_worth_restless(worth) &&
           cache_replica_crowded(hash, pipeline.walk_ms);
}

// Has the viewer store the tile of zeros, by drawing it where `before` is known to stand.
static void teach_zeros(uint16_t tx, uint16_t ty, uint8_t *before, uint64_t pitch)
    REQUIRES(host_lock)
{
    alignas(64) static uint8_t shown[TILE_BYTES]; // server thread only
    uint64_t hash = intra_zero_hash();
    tile_gather(shown, before, pitch);
    append_tile({.tile_x = tx, .tile_y = ty, .raw = 0, .hash = hash}, zeros, shown,
                TILE_ROW_BYTES);
    tile_clear(before, pitch);
    cache_mirror_insert(hash);
    cache_replica_tile(hash, pipeline.walk_ms);
    intra_taught(frame_seq + 1);
}

// Whether the viewer must hold the tile of zeros, on which intra tiles are built.
static bool zeros_held() REQUIRES(host_lock)
{
    return cache_mirror_find(intra_zero_hash()) && cache_replica_holds(intra_zero_hash());
}

// Whether a changed tile is to go as an intra tile. The first that has a use for it, and a
// base that is known, makes the viewer ready for others instead, and goes as ever.
static bool goes_intra(int32_t tx, int32_t ty, uint32_t confirmed_seq) REQUIRES(host_lock)
{
    bool held = zeros_held();
    bool proven = cache_replica_proven(confirmed_seq);
    const tile_base &base = *base_at(tx, ty);
    bool teaches = intra_teaches(base, proven, held, confirmed_seq);
    if (!teaches && !intra_ready(proven, held, confirmed_seq))
        return false;
    uint64_t pitch = (uint64_t)screen.padded_width * PIXEL_BYTES;
    uint64_t offset = tile_offset(screen.padded_width, tx, ty);
    uint8_t *before = screen.prev_frame + offset;
    // A tile in doubt has no base that would have to be better. Over the zeros of a session's
    // start both ways are the same, and teaching costs nothing.
    bool in_doubt = tile_base_uncertain(base, confirmed_seq);
    if (!in_doubt && !(teaches && base.base_blank) &&
        !intra_pays(intra_count(screen.frame_buffer + offset, before, pitch)))
        return false;
    if (!teaches)
        return true;
    if (frame_takes(2 * TILE_MOST))
        teach_zeros((uint16_t)tx, (uint16_t)ty, before, pitch);
    return false;
}

// Sends a changed tile; may_be_intra: perhaps as an intra tile.
static void send_tile(int32_t tx, int32_t ty, uint64_t hash, bool may_be_intra,
                      uint32_t confirmed_seq, frame_tiles *sent) REQUIRES(host_lock)
{
    tile_base *base = base_at(tx, ty);
    uint64_t pitch = (uint64_t)screen.padded_width * PIXEL_BYTES;
    uint64_t offset = tile_offset(screen.padded_width, tx, ty);
    const uint8_t *now = screen.frame_buffer + offset;
    uint8_t *before = screen.prev_frame + offset;
    tile_head head = {.tile_x = (uint16_t)tx, .tile_y = (uint16_t)ty, .raw = 0, .hash = hash};
    tile_worth_changed(worth_at(tx, ty), pipeline.turn);
    if (may_refer(head.hash)) {
        uint8_t ref[TILE_REF_BYTES];
        put_tile_ref(ref, {head.tile_x, head.tile_y, head.hash});
        out_append_header(MSG_TILE_REF, sizeof ref);
        out_append(ref, sizeof ref);
        tile_base_referenced(base, frame_seq + 1);
        cache_replica_reference(head.hash, frame_seq + 1, pipeline.walk_ms);
        sent->refs++;
        tile_copy(before, now, pitch);
        return;
    }
    bool cached = (peer_caps & CAP_TILE_CACHE) != 0;
    bool intra = cached && may_be_intra && goes_intra(tx, ty, confirmed_seq);
    if (intra && append_intra(head.tile_x, head.tile_y, now, pitch)) {
        tile_base_intra(base, frame_seq + 1);
        cache_replica_reference(intra_zero_hash(), frame_seq + 1, pipeline.walk_ms);
        intra_sent();
        note_unnamed(tx, ty);
    } else {
        if (cached && not_worth_a_slot(*worth_at(tx, ty), hash))
            head.hash = 0;
        // What does not compress by itself is not tried again as a difference.
        bool raw = intra || tile_base_uncertain(*base, confirmed_seq);
        append_tile(head, now, raw ? nullptr : before, pitch);
        tile_base_sent(base);
        if (cached) { // the viewer stores every tile that has a hash
            cache_mirror_insert(head.hash);
            cache_replica_tile(head.hash, pipeline.walk_ms);
        }
    }
    tile_copy(before, now, pitch);
}

// Sends the tiles that wait.
static void send_waiting(uint32_t confirmed_seq, frame_tiles *sent) REQUIRES(host_lock)
{
    const uint8_t *pixels[BATCH_TILES];
    uint64_t hashes[BATCH_TILES];
    for (int32_t i = 0; i < sent->waiting; i++)
        pixels[i] = screen.frame_buffer +
                    tile_offset(screen.padded_width, sent->wait[i].tx, sent->wait[i].ty);
    tile_hash_batch(pixels, sent->waiting, (uint64_t)screen.padded_width * PIXEL_BYTES, hashes);
    for (int32_t i = 0; i < sent->waiting; i++)
        send_tile(sent->wait[i].tx, sent->wait[i].ty, hashes[i], false, confirmed_seq, sent);
    sent->waiting = 0;
}

// Examines one dirty tile of the screen. If it has to go out it waits, and goes with others.
static void examine_tile(int32_t tx, int32_t ty, uint32_t confirmed_seq, frame_tiles *sent)
    REQUIRES(host_lock)
{
    *dirty_at(tx, ty) = 0;
    tile_base *base = base_at(tx, ty);
    uint64_t pitch = (uint64_t)screen.padded_width * PIXEL_BYTES;
    uint64_t offset = tile_offset(screen.padded_width, tx, ty);
    const uint8_t *now = screen.frame_buffer + offset;
    const uint8_t *before = screen.prev_frame + offset;
    if (!tile_changed(*base, now, before, pitch))
        return;
    sent->wait[sent->waiting++] = {tx, ty};
    sent->handled++;
    if (sent->waiting == BATCH_TILES)
        send_waiting(confirmed_seq, sent);
}

// Blanks a tile of the viewer's picture that a smaller screen has left behind. Hash 0: it
// is not worth a place in the cache.
static void send_outside_tile(int32_t tx, int32_t ty, int32_t columns, frame_tiles *sent)
{
    screen.outside_map[(int64_t)ty * columns + tx] = 0;
    tile_head head = {.tile_x = (uint16_t)tx, .tile_y = (uint16_t)ty, .raw = 1, .hash = 0};
    append_tile(head, zeros, nullptr, TILE_ROW_BYTES);
    sent->handled++;
}

// A walk that sent something went through so many of the grid's tiles. A turn of the tiles is
// over when it left none of them over, or when those that did add up to the grid.
static void count_turn(int64_t passed, int64_t tiles)
{
    pipeline.turn_tiles += passed;
    if (pipeline.turn_tiles < tiles)
        return;
    pipeline.turn++;
    pipeline.turn_tiles = passed < tiles ? pipeline.turn_tiles - tiles : 0;
}

// Walks the grid that the viewer was told, from where the last walk ran out of budget, and
// sends what is dirty. Tiles of a larger screen beyond that grid are not walked: no viewer
// would draw them.
//
// Once one tile does not fit the budget or the record, none after it does, so the walk ends
// there and the next begins with that tile. Thus no part of a busy screen starves the rest.
//
// confirmed_seq is from before the walk. A newer value could only make more bases certain:
// misses come ahead of the acknowledgement that proves a reference, and wait for host_lock.
static frame_tiles walk_tiles(int32_t budget, uint32_t confirmed_seq) REQUIRES(host_lock)
{
    frame_tiles sent = {};
    int32_t columns = tiles_for(screen.hello_width);
    int32_t rows = tiles_for(screen.hello_height);
    int32_t tx = pipeline.walk_tx;
    int32_t ty = pipeline.walk_ty;
    pipeline.walk_tx = 0;
    pipeline.walk_ty = 0;
    int64_t left = (int64_t)columns * rows;
    for (; left > 0; left--) {
        if (tile_is_due(tx, ty, columns)) {
            // How much room those that wait leave shows when they are out.
            if (!frame_has_room(sent.waiting) || !tile_on_screen(tx, ty))
                send_waiting(confirmed_seq, &sent);
            if (sent.handled >= budget || !frame_has_room(0)) {
                pipeline.walk_tx = tx;
                pipeline.walk_ty = ty;
                break;
            }
            if (tile_on_screen(tx, ty))
                examine_tile(tx, ty, confirmed_seq, &sent);
            else
                send_outside_tile(tx, ty, columns, &sent);
        }
        if (++tx == columns) {
            tx = 0;
            if (++ty == rows)
                ty = 0;
        }
    }
    send_waiting(confirmed_seq, &sent);
    if (sent.handled > 0)
        count_turn((int64_t)columns * rows - left, (int64_t)columns * rows);
    return sent;
}

// ---------------------------------------------------------------------------------------
// Tiles on a line that queues
//
// A frame there takes a fraction of what changed, so what it takes matters: first what costs
// next to nothing and repairs most, references; then tiles with little change in them, which
// are what people type and point at; then the rest in turn. So a video in a window takes what
// the text beside it leaves, and not the other way round.

constexpr uint64_t INPUT_NEAR_US = 300000; // so long after an input the pointer's place counts
constexpr int32_t NEAR_TILES = 2;
constexpr int32_t SMALL_CELLS = 4;
constexpr uint64_t LINE_PAUSE_MAX_US = 250000;
// So long after the screen was in motion no tile goes intra: while one is in doubt no move can
// start from it, and what moves goes on to move as a rule.
constexpr uint64_t MOTION_US = 500000;
// It is in motion when moves take a part of what they leave to be sent. Pictures that replace
// each other have bits in common too, here and there.
constexpr uint64_t MOTION_PART = 4;
// So long without an acknowledgement nothing waits for one any more.
constexpr uint64_t PENDING_WAIT_US = 500000;

static bool line_in()
{
    return paces_bytes && pipeline.line.in;
}

// Notes what is to be known of some tiles of the list, so few that they are hashed together.
static void judge_line_tiles(line_tile *tiles, int32_t count, uint32_t confirmed_seq)
    REQUIRES(host_lock)
{
    uint64_t pitch = (uint64_t)screen.padded_width * PIXEL_BYTES;
    line_tile *judged[BATCH_TILES] = {};
    const uint8_t *pixels[BATCH_TILES] = {};
    uint64_t hashes[BATCH_TILES] = {};
    int32_t on_screen = 0;
    for (int32_t i = 0; i < count; i++) {
        if (!tile_on_screen(tiles[i].tx, tiles[i].ty))
            continue; // goes as zeros
        judged[on_screen] = &tiles[i];
        pixels[on_screen++] =
            screen.frame_buffer + tile_offset(screen.padded_width, tiles[i].tx, tiles[i].ty);
    }
    tile_hash_batch(pixels, on_screen, pitch, hashes);
    for (int32_t i = 0; i < on_screen; i++) {
        line_tile *tile = judged[i];
        tile->hash = hashes[i];
        tile->reference = may_refer(tile->hash);
        const uint8_t *before =
            screen.prev_frame + tile_offset(screen.padded_width, tile->tx, tile->ty);
        // One whose base is in doubt goes whole.
        tile->small = !tile_base_uncertain(*base_at(tile->tx, tile->ty), confirmed_seq) &&
                      tile_changed_cells(pixels[i], before, pitch) <= SMALL_CELLS;
    }
}

// Whether a due tile has to go out. One that turns out unchanged is done with.
static bool line_tile_changed(int32_t tx, int32_t ty) REQUIRES(host_lock)
{
    if (!tile_on_screen(tx, ty))
        return true;
    uint64_t offset = tile_offset(screen.padded_width, tx, ty);
    if (tile_changed(*base_at(tx, ty), screen.frame_buffer + offset, screen.prev_frame + offset,
                     (uint64_t)screen.padded_width * PIXEL_BYTES))
        return true;
    *dirty_at(tx, ty) = 0;
    return false;
}

// Lists the tiles that have to go out, from where the last walk left the first one over.
static int32_t list_line_tiles(int32_t columns, int32_t rows, uint32_t confirmed_seq)
    REQUIRES(host_lock)
{
    bool input = capture_pace_input_within(INPUT_NEAR_US);
    cursor_state pointer = cursor_read();
    int32_t tiles = columns * rows;
    int32_t first = pipeline.walk_ty * columns + pipeline.walk_tx;
    int32_t count = 0;
    for (int32_t n = 0; n < tiles && count < LINE_TILES_MAX; n++) {
        int32_t place = first < tiles - n ? first + n : first - (tiles - n);
        int32_t tx = place % columns;
        int32_t ty = place / columns;
        if (!tile_is_due(tx, ty, columns) || !line_tile_changed(tx, ty))
            continue;
        line_tiles[count++] = {.tx = (uint16_t)tx,
                               .ty = (uint16_t)ty,
                               .reference = false,
                               .small = false,
                               .near = input && abs(tx - pointer.x / TILE_SIZE) <= NEAR_TILES &&
                                       abs(ty - pointer.y / TILE_SIZE) <= NEAR_TILES,
                               .done = false,
                               .hash = 0};
    }
    for (int32_t i = 0; i < count; i += BATCH_TILES)
        judge_line_tiles(&line_tiles[i], count - i < BATCH_TILES ? count - i : BATCH_TILES,
                         confirmed_seq);
    return count;
}

// What a frame takes of the list: no more than so many bytes from its start, and then the tile
// that reaches them.
struct line_frame_room {
    size_t start;
    uint64_t bytes;
    bool intra; // tiles may go as intra tiles
};

static bool line_frame_full(const line_frame_room &room)
{
    return !frame_takes(INTRA_MOST) || out_used() - room.start >= room.bytes;
}

static void send_line_tile(line_tile *tile, int32_t columns, const line_frame_room &room,
                           uint32_t confirmed_seq, frame_tiles *sent) REQUIRES(host_lock)
{
    if (tile_on_screen(tile->tx, tile->ty)) {
        *dirty_at(tile->tx, tile->ty) = 0;
        send_tile(tile->tx, tile->ty, tile->hash, room.intra, confirmed_seq, sent);
        sent->handled++;
    } else {
        send_outside_tile(tile->tx, tile->ty, columns, sent);
    }
    tile->done = true;
}

// Sends small tiles from where the last frame left the first one over, those near the pointer
// ahead of all, as long as half of the frame is not reached.
static void send_small_tiles(int32_t count, int32_t columns, int32_t rows,
                             const line_frame_room &room, uint32_t confirmed_seq,
                             frame_tiles *sent) REQUIRES(host_lock)
{
    line_frame_room half = {room.start, room.bytes / 2, false};
    for (int32_t i = 0; i < count && !line_frame_full(half); i++)
        if (line_tiles[i].small && line_tiles[i].near && !line_tiles[i].done)
            send_line_tile(&line_tiles[i], columns, room, confirmed_seq, sent);

    // The list begins at the walk's place and goes once round the grid.
    int32_t tiles = columns * rows;
    auto behind_walk = [=](int32_t tx, int32_t ty) {
        int32_t place = ty * columns + tx - (pipeline.walk_ty * columns + pipeline.walk_tx);
        return place < 0 ? place + tiles : place;
    };
    int32_t from = behind_walk(pipeline.small_place % columns, pipeline.small_place / columns);
    int32_t first = 0;
    while (first < count && behind_walk(line_tiles[first].tx, line_tiles[first].ty) < from)
        first++;
    for (int32_t n = 0; n < count; n++) {
        line_tile *tile = &line_tiles[(first + n) % count];
        if (!tile->small || tile->done)
            continue;
        if (line_frame_full(half)) {
            pipeline.small_place = tile->ty * columns + tile->tx;
            return;
        }
        send_line_tile(tile, columns, room, confirmed_seq, sent);
    }
}

// Whether what moves now, or did a moment ago, makes up for much of so many tiles that are
// left.
static bool line_in_motion(int32_t tiles)
{
    uint64_t now = clock_us();
    constexpr uint64_t TILE_PIXELS = TILE_SIZE * TILE_SIZE;
    if (pipeline.moved_pixels > 0 &&
        pipeline.moved_pixels * MOTION_PART >= (uint64_t)tiles * TILE_PIXELS)
        pipeline.moved_us = now;
    return pipeline.moved_us != 0 && now - pipeline.moved_us <= MOTION_US;
}

// Lets tiles in doubt wait of which little has changed. Each time that such a tile goes whole
// it is in doubt for another round trip; with one change after the other it would go whole for
// ever. When its frame is acknowledged a short difference does. Not when acknowledgements fail
// to come.
static void let_pending_wait(int32_t count, uint32_t confirmed_seq) REQUIRES(host_lock)
{
    if (!intra_ready(cache_replica_proven(confirmed_seq), zeros_held(), confirmed_seq) ||
        clock_us() - pipeline.line.last_ack_us > PENDING_WAIT_US)
        return;
    uint64_t pitch = (uint64_t)screen.padded_width * PIXEL_BYTES;
    for (int32_t i = 0; i < count; i++) {
        line_tile *tile = &line_tiles[i];
        if (tile->reference || !tile_on_screen(tile->tx, tile->ty))
            continue;
        const tile_base &base = *base_at(tile->tx, tile->ty);
        if (base.base_state != BASE_PENDING || !tile_base_uncertain(base, confirmed_seq))
            continue;
        uint64_t offset = tile_offset(screen.padded_width, tile->tx, tile->ty);
        tile->done = !intra_pays(
            intra_count(screen.frame_buffer + offset, screen.prev_frame + offset, pitch));
    }
}

// What walk_tiles does, with a limit in bytes in place of the budget of tiles, counted from
// the frame's start.
static frame_tiles walk_line(size_t frame_start, uint32_t confirmed_seq) REQUIRES(host_lock)
{
    frame_tiles sent = {};
    int32_t columns = tiles_for(screen.hello_width);
    int32_t rows = tiles_for(screen.hello_height);
    int32_t count = list_line_tiles(columns, rows, confirmed_seq);
    line_frame_room room = {frame_start, line_frame_bytes(&pipeline.line),
                            sends_intra && !line_in_motion(count)};
    if (room.intra)
        let_pending_wait(count, confirmed_seq);
    for (int32_t i = 0; i < count && !line_frame_full(room); i++)
        if (line_tiles[i].reference)
            send_line_tile(&line_tiles[i], columns, room, confirmed_seq, &sent);
    if (count > 0)
        send_small_tiles(count, columns, rows, room, confirmed_seq, &sent);
    int64_t tiles = (int64_t)columns * rows;
    int64_t first = (int64_t)pipeline.walk_ty * columns + pipeline.walk_tx;
    int64_t passed = tiles;
    pipeline.walk_tx = 0;
    pipeline.walk_ty = 0;
    // The first of these goes however full the frame is, or those above could starve it.
    bool any = false;
    for (int32_t i = 0; i < count; i++) {
        if (line_tiles[i].done)
            continue;
        if (any ? line_frame_full(room) : !frame_takes(INTRA_MOST)) {
            pipeline.walk_tx = line_tiles[i].tx;
            pipeline.walk_ty = line_tiles[i].ty;
            passed = (int64_t)pipeline.walk_ty * columns + pipeline.walk_tx - first;
            if (passed < 0)
                passed += tiles;
            break;
        }
        send_line_tile(&line_tiles[i], columns, room, confirmed_seq, &sent);
        any = true;
    }
    if (sent.handled > 0)
        count_turn(passed, tiles);
    return sent;
}

// ---------------------------------------------------------------------------------------
// Teaching
//
// What a move has brought is in the viewer's picture and not in its cache. On a line where
// that matters, when it has nothing else to carry, the viewer is sent a difference of nothing
// under the hash of what it shows, and keeps that.

constexpr uint64_t TEACH_BYTES = LINE_FRAME_MIN; // some 75 tiles; of one frame

// Whether the viewer's cache is worth to be taught, and the line has nothing under way.
static bool may_teach(uint32_t confirmed_seq) REQUIRES(host_lock)
{
    return pipeline.unnamed && pipeline.line_was_in && keeps_replica &&
           (peer_caps & CAP_TILE_CACHE) != 0 && cache_replica_in_use() &&
           frame_seq == confirmed_seq;
}

// Teaches the viewer one tile, unless it has it.
static void teach_tile(int32_t tx, int32_t ty, frame_tiles *sent) REQUIRES(host_lock)
{
    uint64_t pitch = (uint64_t)screen.padded_width * PIXEL_BYTES;
    const uint8_t *shown = screen.prev_frame + tile_offset(screen.padded_width, tx, ty);
    uint64_t hash = 0;
    tile_hash_batch(&shown, 1, pitch, &hash);
    if (cache_replica_holds(hash))
        return;
    append_tile({.tile_x = (uint16_t)tx, .tile_y = (uint16_t)ty, .raw = 0, .hash = hash}, shown,
                shown, pitch);
    cache_mirror_insert(hash);
    cache_replica_tile(hash, pipeline.walk_ms);
    sent->handled++;
}

// For a frame that has nothing else.
static void teach_tiles(uint32_t confirmed_seq, frame_tiles *sent) REQUIRES(host_lock)
{
    if (!may_teach(confirmed_seq))
        return;
    pipeline.unnamed = false;
    size_t start = out_used();
    for (int32_t ty = 0; ty < screen.tiles_y && ty < tiles_for(screen.hello_height); ty++)
        for (int32_t tx = 0; tx < screen.tiles_x && tx < tiles_for(screen.hello_width); tx++) {
            tile_worth *worth = worth_at(tx, ty);
            if (worth->unnamed == 0)
                continue;
            if (*dirty_at(tx, ty) != 0 || out_used() - start >= TEACH_BYTES ||
                !tile_worth_settled(*worth, pipeline.walk_ms)) {
                pipeline.unnamed = true;
                continue;
            }
            worth->unnamed = 0;
            // One that is in doubt will be sent, and has its hash then.
            if (!tile_base_uncertain(*base_at(tx, ty), confirmed_seq))
                teach_tile(tx, ty, sent);
        }
}

// ---------------------------------------------------------------------------------------
// One iteration

static void append_cursor()
{
    cursor_state now = cursor_read();
    if (now.x == pipeline.cursor_sent.x && now.y == pipeline.cursor_sent.y &&
        now.visible == pipeline.cursor_sent.visible)
        return;
    uint8_t message[CURSOR_MESSAGE];
    put_header(message, MSG_CURSOR, CURSOR_BYTES);
    put_cursor(message + MESSAGE_HEADER_BYTES, now.x, now.y, now.visible);
    out_append(message, sizeof message);
    pipeline.cursor_sent = now;
}

// Numbers and closes the frame and sends it. The number is public before the frame is: its
// acknowledgement may arrive before the flush returns.
static bool end_frame()
{
    uint32_t seq = frame_seq + 1;
    frame_seq = seq;
    uint8_t message[FRAME_END_MESSAGE];
    put_header(message, MSG_FRAME_END, FRAME_END_BYTES);
    put_frame_stamp(message + MESSAGE_HEADER_BYTES, {seq, clock_ms()});
    out_append(message, sizeof message);
    line_sent(&pipeline.line, seq, out_used(), clock_us());
    if (!channel_flush())
        return false;
    screen.first_frame_flushed = true;
    return true;
}

// Whether the session's first walk is still to wait for the viewer to tell which tiles it has
// from earlier sessions. A whole screen that went out before would be sent for nothing.
static bool awaits_advert(const host_session *session)
{
    if (pipeline.awaits_advert &&
        (session->advert_over.load() != 0 ||
         clock_ms() - session->hello_sent_ms >= session->advert_wait_ms))
        pipeline.awaits_advert = false;
    return pipeline.awaits_advert;
}

// Takes in what the viewer has acknowledged.
static void follow_line(host_session *session)
{
    if (!pipeline.line_started) {
        line_start(&pipeline.line, frame_seq, session->key_trip_us, session->hello_trip_us,
                   clock_us());
        pipeline.line_started = true;
    }
    session_ack ack;
    while (session_take_ack(session, &ack))
        line_acked(&pipeline.line, ack.seq, ack.at_us);
    pipeline.line_was_in = pipeline.line_was_in || line_in();
}

// How long the in-flight cap keeps the next frame back, if no acknowledgement comes.
static uint64_t cap_wait_us(const host_session *session)
{
    uint32_t now = clock_ms();
    if (pacing_step(frame_seq, session->acked_seq, session->ema_rtt16, now,
                    pipeline.last_iteration_tick) != PACE_WAIT)
        return 0;
    uint32_t gone = now - pipeline.last_iteration_tick;
    return (uint64_t)(STALL_MS + 1 - gone) * 1000;
}

// On a line that queues nothing is captured either until there is room for a frame, so that
// what is sent then is fresh. True when there was none: the iteration ends, after a pause that
// an acknowledgement cuts short, or whatever else the viewer may say.
static bool line_holds(host_session *session)
{
    follow_line(session);
    if (!line_in())
        return false;
    // Said before looking, so that no acknowledgement after that goes unheard.
    session->waits_for_ack = 1;
    follow_line(session);
    uint64_t wait = line_wait_us(&pipeline.line, clock_us());
    if (wait == 0)
        wait = cap_wait_us(session);
    if (wait == 0)
        return false;
    // Not longer at a time than anybody would want to wait for the session's end, whose wake
    // could be stuck in an input hook.
    server_pause(wait < LINE_PAUSE_MAX_US ? wait : LINE_PAUSE_MAX_US);
    return true;
}

bool frame_pipeline_step(host_session *session)
{
    if (line_holds(session))
        return true;
    if (capture_step() == CAPTURE_RESTARTED)
        return true;
    if (awaits_advert(session))
        return true;

    pipeline.walk_ms = clock_ms();
    switch (pacing_step(frame_seq, session->acked_seq, session->ema_rtt16, pipeline.walk_ms,
                        pipeline.last_iteration_tick)) {
    case PACE_WAIT:
        session->waits_for_ack = 1;
        return true;
    case PACE_STALL:
        // Lost acknowledgements must not stall the stream. confirmed_seq stays: nothing is
        // known about the frames that this passes over.
        session->acked_seq = frame_seq.load();
        break;
    case PACE_SEND:
        break;
    }

    size_t frame_start = out_used();
    int32_t budget = session->tile_budget;
    lock_enter(&host_lock);
    uint32_t confirmed_seq = session->confirmed_seq;
    if (session->advert_over.load() != 0)
        cache_replica_advert_over();
    pipeline.moved_pixels = 0;
    if (screen.move_count > 0)
        apply_moves(confirmed_seq);
    else
        find_moves(confirmed_seq);
    text_layer_step();
    window_list_step();
    frame_tiles sent =
        line_in() ? walk_line(frame_start, confirmed_seq) : walk_tiles(budget, confirmed_seq);
    bool picture = out_used() != frame_start;
    if (!picture)
        teach_tiles(confirmed_seq, &sent);
    lock_leave(&host_lock);
    pipeline.tiles_sent_total += (uint64_t)sent.handled;
    pipeline.cache_refs_total += (uint64_t)sent.refs;

    // The test looks at the number of the frame before, and at every iteration: while
    // nothing changes and that number is one of these the line repeats. Kept on purpose.
    uint32_t last = frame_seq;
    if (last <= 2 || last % 200 == 0)
        server_log("frame %u: %d tiles (%d as refs), %u bytes", last + 1, sent.handled,
                   sent.refs, (uint32_t)(out_used() - frame_start));

    append_cursor();
    if (out_used() != frame_start || !out_intact()) {
        capture_pace_frame(picture);
        if (!end_frame())
            return false;
    }
    pipeline.last_iteration_tick = clock_ms();
    return true;
}

void frame_pipeline_start(uint16_t caps)
{
    uint32_t now = clock_ms();
    lock_enter(&host_lock);
    screen_session_start();
    cache_mirror_reset();
    cache_replica_reset(frame_seq, now);
    intra_start();
    move_search_reset(&moves);
    lock_leave(&host_lock);
    peer_caps = caps;
    pipeline.walk_tx = 0;
    pipeline.walk_ty = 0;
    pipeline.tiles_sent_total = 0;
    pipeline.cache_refs_total = 0;
    pipeline.awaits_advert = (caps & CAP_TILE_CACHE) != 0;
    pipeline.line_started = false;
    pipeline.line_was_in = false;
    pipeline.turn = 0;
    pipeline.turn_tiles = 0;
    pipeline.unnamed = false;
    pipeline.small_place = 0;
    pipeline.moved_us = 0;
    capture_pace_start();
    out_reset();
    text_layer_reset();
    window_list_reset();
    pipeline.last_iteration_tick = now;
}

void frame_pipeline_run(host_session *session)
{
    while (!host_stop_requested && !session->session_ended)
        if (!frame_pipeline_step(session))
            break;

    uint64_t tiles = pipeline.tiles_sent_total;
    uint64_t refs = pipeline.cache_refs_total;
    server_log("session stats: %llu tiles sent, %llu as cache refs (%.0f%%)",
               (unsigned long long)tiles, (unsigned long long)refs,
               tiles ? 100.0 * (double)refs / (double)tiles : 0.0);
    server_log("client disconnected");
}

} // namespace host
