// What moved between two pictures, found by their pixels alone.
//
//   points      pixels that their own neighbourhood selects, so that both pictures choose the
//               same ones without knowing where anything went; a point's key is a hash of
//               pixels around it
//   votes       a key in both pictures speaks for the vector between its points
//   score       the best vectors are tried on every cell of what changed: which would a shift
//               put right, which would it spoil? The rectangle with the largest sum moves.
//               This rule alone finds panes and windows, and leaves out headers and bars that
//               stay where they are
//   edges       the rectangle's edges, so far those of cells, move to the best pixel
//
// then the move is applied to the old picture, and the rest of the vectors is tried on what is
// left.
//
// The order of everything is fixed, so the same pictures give the same moves. Hashes are kept
// from nobody: pictures drawn to make keys collide find no moves, in the same time.
//
// Called by the frame pipeline on the host server thread, under host_lock.
#include "host/move_search.h"

#include <emmintrin.h>
#include <string.h>

namespace host
{

// Points: a selector's lowest bits are zero. As few bits as the tables take points for.
static constexpr int32_t POINTS_A_TILE = 32, POINTS_MIN = 512;
static constexpr int32_t SELECTOR_BITS_MIN = 2, SELECTOR_BITS_MAX = 14;
// The pixels of a key: 8 left of its point to 23 right of it, in three rows that span more than
// a line of text, or the same words in other lines would have the same keys.
static constexpr int32_t KEY_LEFT = 8, KEY_PIXELS = 32, KEY_ROWS[] = {0, 6, 13},
                         KEY_LOWEST = 13;
static constexpr int32_t KEY_PLACES_MAX = 4; // more of them and a key tells nothing

static constexpr int32_t VOTE = 12; // divisible by every number of places
static constexpr int32_t VOTE_PROBES = 16;
static constexpr int32_t KEY_PROBES = 32;
static constexpr int32_t CANDIDATES = 5, CANDIDATE_WEIGHT = 36, CANDIDATE_SHARE = 6;
static constexpr int32_t CANDIDATES_MAX = CANDIDATES + MOVE_LAST_VECTORS;

static constexpr int32_t SCORE_REPAIRED = 4;      // changed, and right after the shift
static constexpr int32_t SCORE_REPAIRED_FLAT = 1; // one colour is right after many a shift
static constexpr int32_t SCORE_USELESS = -2; // changed, and not right: a neighbour's, perhaps
static constexpr int32_t SCORE_SPOILED = -4; // unchanged, and wrong after the shift
static constexpr int32_t REPAIRED_CELLS_MIN = 6, SCORE_MIN = 24;

static constexpr int32_t EDGE_REACH = 32, EDGE_REACH_AGAIN = 8;
static constexpr int32_t ROUNDS = 2;      // of votes in one frame
static constexpr int32_t CELLS_LEFT = 10; // percent of those that changed; then it is enough

static constexpr int32_t FETCH_ROWS = 8;
static constexpr int32_t FAILURES_MAX = 3, SKIP_MAX = 8, BOX_NEAR = 2;

static_assert(MOVE_SIDE_MAX / MOVE_BLOCK_ROWS < MOVE_REACH_MAX); // blocks are powers of two
static_assert(MOVE_POINTS < UINT16_MAX && MOVE_SIDE_MAX <= UINT16_MAX);

static uint64_t pitch_of(const move_pictures &p)
{
    return (uint64_t)p.padded_width * PIXEL_BYTES;
}

static const uint8_t *pixel_at(const uint8_t *picture, uint64_t pitch, int32_t x, int32_t y)
{
    return picture + (uint64_t)y * pitch + (uint64_t)x * PIXEL_BYTES;
}

static int32_t at_least(int32_t value, int32_t low)
{
    return value < low ? low : value;
}

static int32_t at_most(int32_t value, int32_t high)
{
    return value > high ? high : value;
}

static __m128i load(const uint8_t *at)
{
    return _mm_loadu_si128((const __m128i *)(const void *)at);
}

// ---------------------------------------------------------------------------------------
// Comparing and moving

// Bit x of the result: the 64 bytes of cell column x differ.
static uint32_t row_compare(const uint8_t *a, const uint8_t *b)
{
    uint32_t cells = 0;
    for (int32_t cell = 0; cell < 4; cell++, a += 64, b += 64) {
        __m128i equal =
            _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi8(load(a), load(b)),
                                        _mm_cmpeq_epi8(load(a + 16), load(b + 16))),
                          _mm_and_si128(_mm_cmpeq_epi8(load(a + 32), load(b + 32)),
                                        _mm_cmpeq_epi8(load(a + 48), load(b + 48))));
        cells |= (uint32_t)(_mm_movemask_epi8(equal) != 0xFFFF) << cell;
    }
    return cells;
}

// Rows lie far apart, and the processor does not see them coming by itself.
static void fetch_row(const uint8_t *row)
{
    for (int32_t i = 0; i < TILE_ROW_BYTES; i += 64)
        __builtin_prefetch(row + i);
}

// Where a tile differs between two pictures.
static void compare_tile(const uint8_t *a, const uint8_t *b, uint64_t pitch, move_tile *tile)
{
    uint64_t rows = 0;
    uint32_t cells = 0;
    for (int32_t y = 0; y < TILE_SIZE; y++, a += pitch, b += pitch) {
        uint64_t ahead = y < TILE_SIZE - FETCH_ROWS ? FETCH_ROWS * pitch : 0;
        fetch_row(a + ahead);
        fetch_row(b + ahead);
        uint32_t row = row_compare(a, b);
        rows |= (uint64_t)(row != 0) << y;
        cells |= row << (y / MOVE_CELL * 4);
    }
    tile->rows = rows;
    tile->cells = (uint16_t)cells;
}

// Rows from the bottom up when the picture moves down, so that a row is read before it is
// overwritten.
void move_pixels(uint8_t *picture, uint64_t pitch, const copy_rect &move)
{
    size_t bytes = (size_t)move.w * PIXEL_BYTES;
    const uint8_t *src = pixel_at(picture, pitch, move.src_x, move.src_y);
    uint8_t *dst = picture + (uint64_t)move.dst_y * pitch + (uint64_t)move.dst_x * PIXEL_BYTES;
    for (int32_t i = 0; i < move.h; i++) {
        uint64_t row = (uint64_t)(move.dst_y > move.src_y ? move.h - 1 - i : i);
        memmove(dst + row * pitch, src + row * pitch, bytes);
    }
}

// ---------------------------------------------------------------------------------------
// What changed

// The tiles that changed, those apart left out.
struct changed_tiles {
    int32_t count;
    move_box box; // in tiles
};

static bool counts(const move_tile &tile)
{
    return tile.changed && !tile.apart;
}

static changed_tiles find_changed(const move_pictures &p, const move_tile *tiles)
{
    int32_t tiles_x = tiles_for(p.width), tiles_y = tiles_for(p.height);
    changed_tiles changed = {0, {tiles_x, tiles_y, 0, 0}};
    for (int32_t ty = 0; ty < tiles_y; ty++)
        for (int32_t tx = 0; tx < tiles_x; tx++) {
            if (!counts(tiles[(int64_t)ty * tiles_x + tx]))
                continue;
            changed.count++;
            move_box *box = &changed.box;
            box->left = tx < box->left ? tx : box->left;
            box->top = ty < box->top ? ty : box->top;
            box->right = tx + 1 > box->right ? tx + 1 : box->right;
            box->bottom = ty + 1 > box->bottom ? ty + 1 : box->bottom;
        }
    return changed;
}

static int32_t changed_cells(const move_pictures &p, const move_tile *tiles)
{
    int32_t count = 0;
    int32_t all = tiles_for(p.width) * tiles_for(p.height);
    for (int32_t i = 0; i < all; i++)
        if (counts(tiles[i]))
            count += __builtin_popcount(tiles[i].cells);
    return count;
}

// ---------------------------------------------------------------------------------------
// Points

// Which rows of the old and the new picture are looked at. Where much changed, fewer; bands of
// the one against steps of the other that have no divisor in common, so that whatever the
// shift some rows meet.
struct row_choice {
    int32_t old_period, old_band, new_period;
};

static row_choice choose_rows(int32_t tiles)
{
    if (tiles < 16)
        return {1, 1, 1};
    if (tiles < 200)
        return {4, 2, 3};
    return {9, 3, 4};
}

// A number for each of four pixels that depends on the pixel, its first and sixth right
// neighbour and the pixel four rows below, and on nothing else.
static __m128i selectors(const uint8_t *at, uint64_t pitch)
{
    __m128i a = load(at), b = load(at + 4), c = load(at + 24), d = load(at + 4 * pitch);
    b = _mm_or_si128(_mm_slli_epi32(b, 13), _mm_srli_epi32(b, 19));
    d = _mm_or_si128(_mm_slli_epi32(d, 7), _mm_srli_epi32(d, 25));
    __m128i left = _mm_madd_epi16(_mm_xor_si128(a, b), _mm_set1_epi32(0x6F4F2A35));
    __m128i right = _mm_madd_epi16(_mm_add_epi32(c, d), _mm_set1_epi32(0x3D4D51CB));
    __m128i sum = _mm_xor_si128(left, _mm_slli_epi32(right, 3));
    sum = _mm_add_epi32(sum, _mm_srli_epi32(right, 16));
    return _mm_xor_si128(_mm_srli_epi32(sum, 9), _mm_srli_epi32(sum, 21));
}

// Keeps the points whose selector ends in so many zero bits.
static int32_t thin_points(move_point *points, int32_t count, int32_t bits)
{
    uint32_t mask = (1u << bits) - 1;
    int32_t kept = 0;
    for (int32_t i = 0; i < count; i++)
        if ((points[i].selector & mask) == 0)
            points[kept++] = points[i];
    return kept;
}

struct point_list {
    move_point *points;
    int32_t count, most, bits;
};

// Adds the points of one row of a tile: 64 pixels from x on, as far as their keys lie on the
// screen. A pixel that equals its right neighbour is none, nor are four pixels that are the
// same in both pictures.
static void add_row_points(point_list *list, const uint8_t *row, const uint8_t *other,
                           uint64_t pitch, int32_t x, int32_t x_end, int32_t y)
{
    for (; x < x_end; x += 4) {
        const uint8_t *at = row + (uint64_t)x * PIXEL_BYTES;
        __m128i here = load(at);
        __m128i same = _mm_cmpeq_epi32(here, load(other + (uint64_t)x * PIXEL_BYTES));
        __m128i flat = _mm_cmpeq_epi32(here, load(at + 4));
        if (_mm_movemask_epi8(same) == 0xFFFF || _mm_movemask_epi8(flat) == 0xFFFF)
            continue;
        __m128i selector = selectors(at, pitch);
        __m128i mask = _mm_set1_epi32((int32_t)((1u << list->bits) - 1));
        __m128i hit = _mm_cmpeq_epi32(_mm_and_si128(selector, mask), _mm_setzero_si128());
        uint32_t hits =
            (uint32_t)_mm_movemask_ps(_mm_castsi128_ps(_mm_andnot_si128(flat, hit)));
        if (hits == 0)
            continue;
        alignas(16) uint32_t values[4];
        _mm_store_si128((__m128i *)values, selector);
        for (int32_t i = 0; i < 4 && x + i < x_end; i++) {
            if (!(hits >> i & 1) || (values[i] & ((1u << list->bits) - 1)) != 0)
                continue;
            while (list->count == list->most && list->bits < SELECTOR_BITS_MAX)
                list->count = thin_points(list->points, list->count, ++list->bits);
            if (list->count == list->most)
                return;
            if ((values[i] & ((1u << list->bits) - 1)) == 0)
                list->points[list->count++] = {.key = 0,
                                               .selector = values[i],
                                               .x = (uint16_t)(x + i),
                                               .y = (uint16_t)y,
                                               .next = 0,
                                               .places = 0};
        }
    }
}

// The points of one picture in the changed rows of a tile, of which rows with y mod period <
// band are looked at.
static void add_tile_points(point_list *list, const move_pictures &p, const uint8_t *picture,
                            const uint8_t *other, uint64_t rows, int32_t tx, int32_t ty,
                            int32_t period, int32_t band)
{
    uint64_t pitch = pitch_of(p);
    int32_t x = at_least(tx * TILE_SIZE, KEY_LEFT);
    int32_t x_end = at_most((tx + 1) * TILE_SIZE, p.width - (KEY_PIXELS - KEY_LEFT));
    int32_t y_end = at_most((ty + 1) * TILE_SIZE, p.height - KEY_LOWEST);
    for (int32_t y = ty * TILE_SIZE; y < y_end; y++, rows >>= 1)
        if ((rows & 1) && y % period < band)
            add_row_points(list, picture + (uint64_t)y * pitch, other + (uint64_t)y * pitch,
                           pitch, x, x_end, y);
}

// Compares the changed tiles, and takes their points while the processor still has them at
// hand: what this costs is the way to memory. Both lists end with the same selector bits.
static void collect_points(const move_pictures &p, move_tile *tiles,
                           const changed_tiles &changed, point_list *before, point_list *now)
{
    row_choice rows = choose_rows(changed.count);
    uint64_t pitch = pitch_of(p);
    int32_t tiles_x = tiles_for(p.width);
    for (int32_t ty = changed.box.top; ty < changed.box.bottom; ty++)
        for (int32_t tx = changed.box.left; tx < changed.box.right; tx++) {
            move_tile *tile = &tiles[(int64_t)ty * tiles_x + tx];
            if (!counts(*tile))
                continue;
            uint64_t at = (uint64_t)ty * TILE_SIZE * pitch + (uint64_t)tx * TILE_ROW_BYTES;
            compare_tile(p.now + at, p.before + at, pitch, tile);
            add_tile_points(before, p, p.before, p.now, tile->rows, tx, ty, rows.old_period,
                            rows.old_band);
            add_tile_points(now, p, p.now, p.before, tile->rows, tx, ty, rows.new_period, 1);
        }
    int32_t bits = before->bits > now->bits ? before->bits : now->bits;
    before->count = thin_points(before->points, before->count, bits);
    now->count = thin_points(now->points, now->count, bits);
}

// A hash of the pixels around a point: sums of products, which wait for nothing.
static uint64_t point_key(const uint8_t *picture, uint64_t pitch, const move_point &point)
{
    __m128i sum = _mm_setzero_si128();
    __m128i salt = _mm_set_epi32(0x2545F491, 0x4F6CDD1D, 0x1B873593, (int32_t)0x9E3779B1);
    const __m128i step = _mm_set_epi32(0x632BE5AB, 0x6A09E667, 0x3C6EF372, 0x510E527F);
    for (int32_t lower : KEY_ROWS) {
        const uint8_t *at = pixel_at(picture, pitch, point.x - KEY_LEFT, point.y + lower);
        for (int32_t i = 0; i < KEY_PIXELS; i += 4, at += 16) {
            __m128i word = _mm_add_epi32(load(at), salt);
            sum = _mm_add_epi64(sum, _mm_mul_epu32(word, _mm_srli_epi64(word, 32)));
            salt = _mm_add_epi32(salt, step);
        }
    }
    alignas(16) uint64_t halves[2];
    _mm_store_si128((__m128i *)halves, sum);
    uint64_t key = (halves[0] ^ (halves[1] << 27 | halves[1] >> 37)) * 0x9E3779B97F4A7C15ull;
    return key ^ key >> 32;
}

// ---------------------------------------------------------------------------------------
// Votes

// The slot of a key, or of the free place where it would go; -1 when too many others are there.
static int32_t key_slot(const move_search *s, uint64_t key)
{
    uint32_t slot = (uint32_t)key % MOVE_KEY_SLOTS;
    for (int32_t probe = 0; probe < KEY_PROBES; probe++) {
        uint16_t first = s->key_slots[slot];
        if (first == 0 || s->old_points[first - 1].key == key)
            return (int32_t)slot;
        slot = (slot + 1) % MOVE_KEY_SLOTS;
    }
    return -1;
}

static void enter_old_points(move_search *s, const move_pictures &p, int32_t count)
{
    memset(s->key_slots, 0, sizeof s->key_slots);
    for (int32_t i = 0; i < count; i++) {
        move_point *point = &s->old_points[i];
        point->key = point_key(p.before, pitch_of(p), *point);
        int32_t slot = key_slot(s, point->key);
        if (slot < 0)
            continue;
        uint16_t *first = &s->key_slots[slot];
        if (*first == 0) {
            *first = (uint16_t)(i + 1);
            point->places = 1;
            continue;
        }
        move_point *head = &s->old_points[*first - 1];
        if (head->places > KEY_PLACES_MAX)
            continue;
        head->places++;
        point->next = head->next;
        head->next = (uint16_t)(i + 1);
    }
}

// A vector without a slot takes that of the lightest near its own, at the price of what that
// one weighs: many vectors of little weight cannot keep out one that comes up again and again.
static void vote_for(move_search *s, move_vector vector, int32_t weight)
{
    uint32_t slot =
        ((uint32_t)vector.dx * 0x9E3779B1u ^ (uint32_t)vector.dy * 0x85EBCA6Bu) >> 16;
    move_vote *lightest = nullptr;
    for (int32_t probe = 0; probe < VOTE_PROBES; probe++, slot++) {
        move_vote *vote = &s->votes[slot % MOVE_VOTE_SLOTS];
        if (vote->weight == 0) {
            *vote = {vector, weight};
            return;
        }
        if (vote->vector.dx == vector.dx && vote->vector.dy == vector.dy) {
            vote->weight += weight;
            return;
        }
        if (!lightest || vote->weight < lightest->weight)
            lightest = vote;
    }
    if (lightest->weight > weight)
        lightest->weight -= weight;
    else
        *lightest = {vector, weight};
}

static void count_votes(move_search *s, const move_pictures &p, int32_t count)
{
    memset(s->votes, 0, sizeof s->votes);
    for (int32_t i = 0; i < count; i++) {
        const move_point &point = s->new_points[i];
        int32_t slot = key_slot(s, point_key(p.now, pitch_of(p), point));
        if (slot < 0 || s->key_slots[slot] == 0)
            continue;
        const move_point *old = &s->old_points[s->key_slots[slot] - 1];
        int32_t places = old->places;
        if (places > KEY_PLACES_MAX)
            continue;
        for (int32_t place = 0; place < places; place++) {
            if (old->x != point.x || old->y != point.y)
                vote_for(s, {point.x - old->x, point.y - old->y}, VOTE / places);
            if (old->next != 0)
                old = &s->old_points[old->next - 1];
        }
    }
}

static bool same_vector(move_vector a, move_vector b)
{
    return a.dx == b.dx && a.dy == b.dy;
}

// The heaviest first; between equals the one nearer the top of the table.
static int32_t choose_candidates(const move_search *s, move_vector candidates[CANDIDATES_MAX])
{
    move_vote best[CANDIDATES];
    int32_t count = 0;
    for (const move_vote &vote : s->votes) {
        if (vote.weight < CANDIDATE_WEIGHT)
            continue;
        int32_t place = count < CANDIDATES ? count++ : CANDIDATES;
        for (; place > 0 && best[place - 1].weight < vote.weight; place--)
            if (place < CANDIDATES)
                best[place] = best[place - 1];
        if (place < CANDIDATES)
            best[place] = vote;
    }
    int32_t chosen = 0;
    for (int32_t i = 0; i < count; i++)
        if (best[i].weight * CANDIDATE_SHARE >= best[0].weight)
            candidates[chosen++] = best[i].vector;
    int32_t voted = chosen;
    for (int32_t i = 0; i < s->last_count; i++) {
        bool known = false;
        for (int32_t j = 0; j < voted; j++)
            known = known || same_vector(candidates[j], s->last[i]);
        if (!known)
            candidates[chosen++] = s->last[i];
    }
    return chosen;
}

static int32_t find_candidates(move_search *s, const move_pictures &p, move_tile *tiles,
                               const changed_tiles &changed,
                               move_vector candidates[CANDIDATES_MAX])
{
    int32_t most = at_most(at_least(changed.count * POINTS_A_TILE, POINTS_MIN), MOVE_POINTS);
    point_list before = {s->old_points, 0, most, SELECTOR_BITS_MIN};
    point_list now = {s->new_points, 0, most, SELECTOR_BITS_MIN};
    collect_points(p, tiles, changed, &before, &now);
    enter_old_points(s, p, before.count);
    count_votes(s, p, now.count);
    return choose_candidates(s, candidates);
}

// ---------------------------------------------------------------------------------------
// Score

static bool cell_equal(const uint8_t *a, const uint8_t *b, uint64_t pitch)
{
    for (int32_t y = 0; y < MOVE_CELL; y++, a += pitch, b += pitch) {
        __m128i equal =
            _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi8(load(a), load(b)),
                                        _mm_cmpeq_epi8(load(a + 16), load(b + 16))),
                          _mm_and_si128(_mm_cmpeq_epi8(load(a + 32), load(b + 32)),
                                        _mm_cmpeq_epi8(load(a + 48), load(b + 48))));
        if (_mm_movemask_epi8(equal) != 0xFFFF)
            return false;
    }
    return true;
}

static bool cell_flat(const uint8_t *a, uint64_t pitch)
{
    int32_t value;
    memcpy(&value, a, sizeof value);
    const __m128i first = _mm_set1_epi32(value);
    for (int32_t y = 0; y < MOVE_CELL; y++, a += pitch) {
        __m128i equal = _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi32(load(a), first),
                                                    _mm_cmpeq_epi32(load(a + 16), first)),
                                      _mm_and_si128(_mm_cmpeq_epi32(load(a + 32), first),
                                                    _mm_cmpeq_epi32(load(a + 48), first)));
        if (_mm_movemask_epi8(equal) != 0xFFFF)
            return false;
    }
    return true;
}

// Scores the whole cells of the box (in cells) under a shift; the result is how many it
// repairs, those of one colour left out.
static int32_t score_cells(move_search *s, const move_pictures &p, const move_tile *tiles,
                           const move_box &box, move_vector shift)
{
    uint64_t pitch = pitch_of(p);
    int32_t tiles_x = tiles_for(p.width);
    int32_t repaired = 0;
    int8_t *score = s->scores;
    for (int32_t cy = box.top; cy < box.bottom; cy++)
        for (int32_t cx = box.left; cx < box.right; cx++, score++) {
            *score = 0;
            const move_tile &detail = tiles[(int64_t)(cy / 4) * tiles_x + cx / 4];
            int32_t x = cx * MOVE_CELL, y = cy * MOVE_CELL;
            if (detail.apart || x + MOVE_CELL > p.width || y + MOVE_CELL > p.height)
                continue;
            bool differs = detail.cells >> (cy % 4 * 4 + cx % 4) & 1;
            int32_t from_x = x - shift.dx, from_y = y - shift.dy;
            const uint8_t *now = pixel_at(p.now, pitch, x, y);
            bool right = from_x >= 0 && from_y >= 0 && from_x + MOVE_CELL <= p.width &&
                         from_y + MOVE_CELL <= p.height &&
                         cell_equal(now, pixel_at(p.before, pitch, from_x, from_y), pitch);
            bool flat = differs && right && cell_flat(now, pitch);
            if (differs)
                *score = (int8_t)(flat    ? SCORE_REPAIRED_FLAT
                                  : right ? SCORE_REPAIRED
                                          : SCORE_USELESS);
            else if (!right)
                *score = SCORE_SPOILED;
            repaired += differs && right && !flat;
        }
    return repaired;
}

// The rectangle of the largest sum of scores, in pixels, and its sum. Sums of square blocks of
// cells are taken, so large that the box has at most MOVE_BLOCK_ROWS rows of them; *block is
// their side in pixels.
static int32_t best_rectangle(move_search *s, const move_box &box, move_box *best,
                              int32_t *block)
{
    int32_t width = box.right - box.left, height = box.bottom - box.top;
    int32_t size = 1; // of a block in cells
    while ((height + size - 1) / size > MOVE_BLOCK_ROWS)
        size *= 2;
    int32_t rows = (height + size - 1) / size, columns = (width + size - 1) / size;
    memset(s->sums, 0, sizeof s->sums);
    for (int32_t y = 0; y < height; y++)
        for (int32_t x = 0; x < width; x++)
            s->sums[y / size][x / size] += s->scores[y * width + x];

    int32_t largest = 0;
    for (int32_t top = 0; top < rows; top++) {
        int32_t down[MOVE_BLOCK_COLUMNS] = {}; // sums from top to bottom
        for (int32_t bottom = top; bottom < rows; bottom++) {
            int32_t run = 0, start = 0;
            for (int32_t x = 0; x < columns; x++) {
                down[x] += s->sums[bottom][x];
                if (run <= 0) {
                    run = 0;
                    start = x;
                }
                run += down[x];
                if (run > largest) {
                    largest = run;
                    *best = {start, top, x + 1, bottom + 1};
                }
            }
        }
    }
    if (largest == 0)
        return 0;
    int32_t step = size * MOVE_CELL;
    *block = step;
    int32_t left = box.left * MOVE_CELL, upper = box.top * MOVE_CELL;
    int32_t right = box.right * MOVE_CELL, lower = box.bottom * MOVE_CELL;
    *best = {left + best->left * step, upper + best->top * step, left + best->right * step,
             upper + best->bottom * step};
    best->right = best->right > right ? right : best->right;
    best->bottom = best->bottom > lower ? lower : best->bottom;
    return largest;
}

// ---------------------------------------------------------------------------------------
// Edges

// For four pixels: +1 where the shift repairs one, -1 where it spoils one.
static __m128i four_gains(const uint8_t *now, const uint8_t *before, const uint8_t *shifted)
{
    __m128i pixels = load(now);
    __m128i unchanged = _mm_cmpeq_epi32(pixels, load(before));
    __m128i right = _mm_cmpeq_epi32(pixels, load(shifted));
    return _mm_sub_epi32(unchanged, right); // each -1 where it holds
}

static int32_t pixel_gain(const uint8_t *now, const uint8_t *before, const uint8_t *shifted)
{
    return (int32_t)(memcmp(now, shifted, PIXEL_BYTES) == 0) -
           (int32_t)(memcmp(now, before, PIXEL_BYTES) == 0);
}

// Adds up what the shift gains in each row (gains[0] is row box.top) or column of a box whose
// source lies on the screen.
static void add_gains(move_search *s, const move_pictures &p, const move_box &box,
                      move_vector shift, bool rows)
{
    uint64_t pitch = pitch_of(p);
    int32_t width = box.right - box.left;
    memset(s->gains, 0, sizeof s->gains);
    for (int32_t y = box.top; y < box.bottom; y++) {
        const uint8_t *now = pixel_at(p.now, pitch, box.left, y);
        const uint8_t *before = pixel_at(p.before, pitch, box.left, y);
        const uint8_t *shifted = pixel_at(p.before, pitch, box.left - shift.dx, y - shift.dy);
        __m128i sum = _mm_setzero_si128();
        int32_t x = 0;
        for (; x + 4 <= width; x += 4) {
            __m128i four = four_gains(now + x * 4, before + x * 4, shifted + x * 4);
            if (rows) {
                sum = _mm_add_epi32(sum, four);
            } else {
                __m128i *at = (__m128i *)(void *)&s->gains[x];
                _mm_storeu_si128(at, _mm_add_epi32(_mm_loadu_si128(at), four));
            }
        }
        if (rows) {
            alignas(16) int32_t parts[4];
            _mm_store_si128((__m128i *)parts, sum);
            s->gains[y - box.top] = parts[0] + parts[1] + parts[2] + parts[3];
        }
        for (; x < width; x++)
            s->gains[rows ? y - box.top : x] +=
                pixel_gain(now + x * 4, before + x * 4, shifted + x * 4);
    }
}

// Where an edge between `low` and `high`, now at `now`, belongs, so that the lines inside gain
// most. Lines that gain nothing are left outside. gains[0] is line low; the inside is the
// lines before the edge, or those from it on.
static int32_t best_edge(const int32_t *gains, int32_t low, int32_t high, int32_t now,
                         bool inside_before)
{
    int32_t outward = inside_before ? 1 : -1;
    int32_t best = now, most = 0, sum = 0;
    for (int32_t edge = now; edge != (inside_before ? high : low);) {
        sum += gains[(inside_before ? edge : edge - 1) - low];
        edge += outward;
        if (sum > most) {
            most = sum;
            best = edge;
        }
    }
    sum = 0;
    for (int32_t edge = now; edge != (inside_before ? low : high);) {
        sum -= gains[(inside_before ? edge - 1 : edge) - low];
        edge -= outward;
        if (sum >= most) {
            most = sum;
            best = edge;
        }
    }
    return best;
}

// Moves each edge of the rectangle by up to `reach` lines to where it gains most. `limits` is
// where both the rectangle and its source lie on the screen.
static void refine_edges(move_search *s, const move_pictures &p, const move_box &limits,
                         move_vector shift, int32_t reach, move_box *box)
{
    for (int32_t side = 0; side < 4; side++) {
        bool rows = side < 2, far = side % 2 == 1; // top, bottom, left, right
        int32_t *edge =
            rows ? (far ? &box->bottom : &box->top) : (far ? &box->right : &box->left);
        int32_t least = rows ? (far ? box->top : limits.top) : (far ? box->left : limits.left);
        int32_t most =
            rows ? (far ? limits.bottom : box->bottom) : (far ? limits.right : box->right);
        int32_t low = at_least(*edge - reach, least), high = at_most(*edge + reach, most);
        move_box lines = *box;
        (rows ? lines.top : lines.left) = low;
        (rows ? lines.bottom : lines.right) = high;
        add_gains(s, p, lines, shift, rows);
        *edge = best_edge(s->gains, low, high, *edge, far);
    }
}

// ---------------------------------------------------------------------------------------
// One move

static bool source_certain(const move_tile *tiles, int32_t tiles_x, const copy_rect &move)
{
    for (int32_t ty = move.src_y / TILE_SIZE; ty <= (move.src_y + move.h - 1) / TILE_SIZE; ty++)
        for (int32_t tx = move.src_x / TILE_SIZE; tx <= (move.src_x + move.w - 1) / TILE_SIZE;
             tx++)
            if (tiles[(int64_t)ty * tiles_x + tx].uncertain)
                return false;
    return true;
}

// The best move by a vector, if there is one worth its message.
static bool find_move(move_search *s, const move_pictures &p, const move_tile *tiles,
                      const move_box &changed, move_vector shift, copy_rect *move)
{
    move_box cells = {changed.left * 4, changed.top * 4, changed.right * 4, changed.bottom * 4};
    if (score_cells(s, p, tiles, cells, shift) < REPAIRED_CELLS_MIN)
        return false;
    move_box box;
    int32_t block;
    if (best_rectangle(s, cells, &box, &block) < SCORE_MIN)
        return false;

    move_box limits = {at_least(shift.dx, 0), at_least(shift.dy, 0),
                       p.width + at_most(shift.dx, 0), p.height + at_most(shift.dy, 0)};
    box = {at_least(box.left, limits.left), at_least(box.top, limits.top),
           at_most(box.right, limits.right), at_most(box.bottom, limits.bottom)};
    if (box.left >= box.right || box.top >= box.bottom)
        return false;
    refine_edges(s, p, limits, shift, at_least(EDGE_REACH, block), &box);
    refine_edges(s, p, limits, shift, EDGE_REACH_AGAIN, &box);
    if (box.left >= box.right || box.top >= box.bottom)
        return false;
    *move = {box.left - shift.dx,  box.top - shift.dy,  box.left, box.top,
             box.right - box.left, box.bottom - box.top};
    return source_certain(tiles, tiles_for(p.width), *move);
}

// Applies a move. Which cells under it are right now is known from their scores, and has to be
// looked at where the edges cut one.
static void apply_move(const move_search *s, const move_pictures &p, move_tile *tiles,
                       const move_box &changed, const copy_rect &move)
{
    uint64_t pitch = pitch_of(p);
    move_pixels(p.before, pitch, move);
    int32_t tiles_x = tiles_for(p.width);
    const int8_t *score = s->scores;
    for (int32_t cy = changed.top * 4; cy < changed.bottom * 4; cy++)
        for (int32_t cx = changed.left * 4; cx < changed.right * 4; cx++, score++) {
            int32_t x = cx * MOVE_CELL, y = cy * MOVE_CELL;
            int32_t in_x = x - move.dst_x, in_y = y - move.dst_y;
            if (in_x <= -MOVE_CELL || in_y <= -MOVE_CELL || in_x >= move.w || in_y >= move.h)
                continue;
            bool whole = in_x >= 0 && in_y >= 0 && in_x + MOVE_CELL <= move.w &&
                         in_y + MOVE_CELL <= move.h;
            bool right = whole ? *score >= 0
                               : cell_equal(pixel_at(p.now, pitch, x, y),
                                            pixel_at(p.before, pitch, x, y), pitch);
            move_tile *tile = &tiles[(int64_t)(cy / 4) * tiles_x + cx / 4];
            uint16_t bit = (uint16_t)(1u << (cy % 4 * 4 + cx % 4));
            if (right) {
                tile->cells &= (uint16_t)~bit;
            } else {
                tile->cells |= bit;
                tile->changed = 1;
            }
        }
}

// ---------------------------------------------------------------------------------------
// One frame

static int32_t distance(int32_t a, int32_t b)
{
    return a > b ? a - b : b - a;
}

// Whether the frame is left out: what changes there found no move so often that looking for
// one in every frame is not worth the time.
static bool backs_off(move_search *s, const move_box &box)
{
    bool near = s->failures > 0 && distance(box.left, s->failed.left) <= BOX_NEAR &&
                distance(box.top, s->failed.top) <= BOX_NEAR &&
                distance(box.right, s->failed.right) <= BOX_NEAR &&
                distance(box.bottom, s->failed.bottom) <= BOX_NEAR;
    if (!near) {
        s->failures = 0;
        s->frames_to_skip = 0;
    }
    if (s->frames_to_skip == 0)
        return false;
    s->frames_to_skip--;
    return true;
}

static void note_outcome(move_search *s, const move_box &box, const copy_rect *found,
                         int32_t count)
{
    s->last_count = 0;
    for (int32_t i = 0; i < count && s->last_count < MOVE_LAST_VECTORS; i++) {
        move_vector vector = {found[i].dst_x - found[i].src_x, found[i].dst_y - found[i].src_y};
        if (s->last_count == 0 || !same_vector(s->last[0], vector))
            s->last[s->last_count++] = vector;
    }
    if (count > 0) {
        s->failures = 0;
        return;
    }
    s->failed = box;
    s->failures++;
    if (s->failures < FAILURES_MAX)
        return;
    s->frames_to_skip =
        s->failures - FAILURES_MAX < 3 ? 1 << (s->failures - FAILURES_MAX) : SKIP_MAX;
    s->failures = at_most(s->failures, FAILURES_MAX + 3);
}

void move_search_reset(move_search *s)
{
    s->last_count = 0;
    s->failures = 0;
    s->frames_to_skip = 0;
}

int32_t move_search_frame(move_search *s, const move_pictures &p, move_tile *tiles,
                          copy_rect found[MOVES_FOUND_MAX])
{
    if (p.width > MOVE_SIDE_MAX || p.height > MOVE_SIDE_MAX ||
        tiles_for(p.width) * tiles_for(p.height) > MOVE_TILES_MAX)
        return 0;
    changed_tiles changed = find_changed(p, tiles);
    if (changed.count < MOVE_TILES_MIN || backs_off(s, changed.box))
        return 0;

    move_box box = changed.box;
    int32_t count = 0, enough = 0;
    bool done = false;
    for (int32_t round = 0; round < ROUNDS && !done; round++) {
        int32_t count_before = count;
        move_vector candidates[CANDIDATES_MAX];
        int32_t candidate_count = find_candidates(s, p, tiles, changed, candidates);
        if (round == 0)
            enough = changed_cells(p, tiles) * CELLS_LEFT / 100;
        for (int32_t i = 0; i < candidate_count; i++)
            while (!done && find_move(s, p, tiles, box, candidates[i], &found[count])) {
                apply_move(s, p, tiles, box, found[count++]);
                done = count == MOVES_FOUND_MAX || changed_cells(p, tiles) <= enough;
            }
        if (count == count_before)
            break;
    }
    note_outcome(s, box, found, count);
    return count;
}

} // namespace host
