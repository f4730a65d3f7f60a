#include "tests/fakes/random_desktop.h"

#include "host/capture_dxgi.h"
#include "host/capture_gdi.h"
#include "host/server_wake.h"
#include "host/tile_hash.h"
#include "protocol/clock.h"
#include "protocol/tile.h"

#include <string.h>

test_random rnd;
random_desktop desktop;

using host::capture_box;
using host::capture_move;

constexpr uint32_t CACHE_SETS = 4096; // of the viewer's cache
constexpr int32_t MATES = PATTERNS - MATE;

// One-coloured tiles that fall into the same set as the black one: of each three, two fit.
static uint32_t mates[MATES];

static uint32_t pattern_pixel(int32_t pattern, int32_t x, int32_t y)
{
    if (pattern == BLACK)
        return 0;
    if (pattern < GRADIENT)
        return (uint32_t)pattern * 0x01010101;
    if (pattern < MATE)
        return (uint32_t)(pattern * (x % TILE_SIZE + y % TILE_SIZE));
    return mates[pattern - MATE];
}

static uint64_t pattern_hash(int32_t pattern)
{
    static uint8_t tile[TILE_BYTES];
    for (int32_t i = 0; i < TILE_SIZE * TILE_SIZE; i++) {
        uint32_t pixel = pattern_pixel(pattern, i % TILE_SIZE, i / TILE_SIZE);
        memcpy(tile + i * PIXEL_BYTES, &pixel, PIXEL_BYTES);
    }
    return tile_hash(tile);
}

const std::vector<uint64_t> &pattern_hashes()
{
    static std::vector<uint64_t> hashes;
    if (!hashes.empty())
        return hashes;
    uint64_t set = pattern_hash(BLACK) % CACHE_SETS;
    uint32_t colour = 0xFF000000;
    for (uint32_t &mate : mates) {
        do
            mate = ++colour;
        while (pattern_hash(MATE + (int32_t)(&mate - mates)) % CACHE_SETS != set);
    }
    for (int32_t pattern = 0; pattern < PATTERNS; pattern++)
        hashes.push_back(pattern_hash(pattern));
    return hashes;
}

static uint32_t *pixel_at(int32_t x, int32_t y)
{
    return &desktop.pixels[(size_t)y * (size_t)desktop.width + (size_t)x];
}

void desktop_open(int32_t width, int32_t height)
{
    pattern_hashes(); // finds the mates
    desktop = {};
    desktop.width = width;
    desktop.height = height;
    desktop.pixels.assign((size_t)width * (size_t)height, 0);
    desktop.whole = true;
}

void desktop_draw(const capture_box &box, int32_t pattern)
{
    uint64_t noise = rnd.next() | 1;
    for (int32_t y = box.top; y < box.bottom; y++) {
        uint32_t *pixel = pixel_at(box.left, y);
        for (int32_t x = box.left; x < box.right; x++, pixel++) {
            if (pattern < PATTERNS) {
                *pixel = pattern_pixel(pattern, x, y);
                continue;
            }
            noise = noise * 6364136223846793005u + 1442695040888963407u;
            uint32_t some = (uint32_t)(noise >> 32);
            *pixel = pattern == NOISE   ? some
                     : pattern == GRAIN ? some >> 26
                                        : *pixel ^ (some & 0x01000000);
        }
    }
    desktop.dirty.push_back(box);
    desktop.changes++;
}

void desktop_draw_all(int32_t pattern)
{
    desktop_draw({0, 0, desktop.width, desktop.height}, pattern);
}

// From anywhere to anywhere; half of them made of whole tiles, some of a pixel.
capture_box desktop_box()
{
    bool tiles = one_in(2);
    int32_t most = one_in(4) ? 400 : one_in(4) ? 1 : 100;
    int32_t x = below(desktop.width), y = below(desktop.height);
    int32_t w = 1 + below(most), h = 1 + below(most);
    if (tiles) {
        x &= ~(TILE_SIZE - 1);
        y &= ~(TILE_SIZE - 1);
        w = pad_to_tile(w);
        h = pad_to_tile(h);
    }
    w = w > desktop.width - x ? desktop.width - x : w;
    h = h > desktop.height - y ? desktop.height - y : h;
    return {x, y, x + w, y + h};
}

static void move_block(const capture_move &move)
{
    size_t w = (size_t)(move.dst.right - move.dst.left);
    size_t h = (size_t)(move.dst.bottom - move.dst.top);
    std::vector<uint32_t> block(w * h);
    for (size_t y = 0; y < h; y++)
        memcpy(&block[y * w], pixel_at(move.src_x, move.src_y + (int32_t)y), w * 4);
    for (size_t y = 0; y < h; y++)
        memcpy(pixel_at(move.dst.left, move.dst.top + (int32_t)y), &block[y * w], w * 4);
    desktop.moves.push_back(move);
    desktop.changes++;
}

// Moves a block the way a scroll does. Often it is the block that moved last, often only by
// a little, so that it overlaps where it was.
static void move_something()
{
    capture_box from = desktop_box();
    if (!desktop.moves.empty() && one_in(2))
        from = desktop.moves.back().dst;
    if (from.left < 0 || from.top < 0 || from.right > desktop.width ||
        from.bottom > desktop.height)
        from = desktop_box(); // that one reached off the screen
    int32_t w = from.right - from.left, h = from.bottom - from.top;
    int32_t x = below(desktop.width - w + 1), y = below(desktop.height - h + 1);
    if (one_in(2)) {
        x = from.left + below(17) - 8;
        y = from.top + below(17) - 8;
        x = x < 0 ? 0 : x > desktop.width - w ? desktop.width - w : x;
        y = y < 0 ? 0 : y > desktop.height - h ? desktop.height - h : y;
    }
    move_block({from.left, from.top, {x, y, x + w, y + h}});
}

// A block moves onto black: where a missed tile was made zero, the rest of it looks unchanged.
static void move_onto_black()
{
    capture_box tile = desktop_box();
    if (one_in(2)) {
        tile.left = desktop.spot_x;
        tile.top = desktop.spot_y;
    }
    tile.left &= ~(TILE_SIZE - 1);
    tile.top &= ~(TILE_SIZE - 1);
    tile.right = tile.left + TILE_SIZE;
    tile.bottom = tile.top + TILE_SIZE;
    if (tile.right > desktop.width || tile.bottom > desktop.height)
        return;
    desktop_draw(tile, BLACK);
    int32_t w = 1 + below(TILE_SIZE - 1), h = 1 + below(TILE_SIZE - 1);
    int32_t x = tile.left + below(TILE_SIZE - w + 1), y = tile.top + below(TILE_SIZE - h + 1);
    int32_t src_x = below(desktop.width - w + 1), src_y = below(desktop.height - h + 1);
    move_block({src_x, src_y, {x, y, x + w, y + h}});
    if (one_in(2))
        desktop_draw(tile, below(PATTERNS)); // what moved there is seen by the viewer alone
}

// A window of noise opens, or its content moves a little: what a host has to find by itself
// where no duplication reports it.
static void scroll_window()
{
    capture_box *window = &desktop.window;
    if (window->right == 0 || one_in(8)) {
        int32_t w = 100 + below(300), h = 100 + below(200);
        w = w > desktop.width ? desktop.width : w;
        h = h > desktop.height ? desktop.height : h;
        int32_t x = below(desktop.width - w + 1), y = below(desktop.height - h + 1);
        *window = {x, y, x + w, y + h};
        desktop_draw(*window, NOISE);
        return;
    }
    int32_t dx = one_in(2) ? 0 : below(31) - 15, dy = below(61) - 30;
    capture_box to = *window; // where what stays in the window comes to lie
    (dx > 0 ? to.left : to.right) += dx;
    (dy > 0 ? to.top : to.bottom) += dy;
    if (to.left < to.right && to.top < to.bottom)
        move_block({to.left - dx, to.top - dy, to});
}

// A move that reaches off the screen, as drivers report them; nothing really moves.
static void report_nonsense()
{
    capture_box box = desktop_box();
    int32_t x = below(3 * desktop.width) - desktop.width;
    int32_t y = below(3 * desktop.height) - desktop.height;
    if (one_in(2)) {
        desktop.moves.push_back({x, y, box});
    } else {
        int32_t w = box.right - box.left, h = box.bottom - box.top;
        desktop.moves.push_back({box.left, box.top, {x, y, x + w, y + h}});
        // Where that is on the screen after all, it claims what did not happen; the tiles are
        // dirty all the same.
    }
    if (one_in(8))
        desktop.moves.push_back({INT32_MAX, INT32_MIN, {INT32_MIN, 0, INT32_MAX, INT32_MAX}});
    desktop.changes++;
}

void desktop_change()
{
    if (!desktop.duplicates && one_in(2))
        scroll_window();
    else if (one_in(4))
        desktop_draw(desktop_box(), below(PATTERN_END));
    else if (one_in(3))
        desktop_draw(desktop_box(), below(GRADIENT));
    else if (one_in(3))
        desktop_draw(desktop_box(), MATE + below(MATES));
    else if (one_in(12))
        desktop_draw_all(one_in(2) ? below(PATTERNS) : NOISE + below(2));
    else if (one_in(12))
        report_nonsense();
    else if (one_in(2))
        move_onto_black();
    else
        for (int32_t moves = one_in(200) ? 300 : 1 + below(4); moves > 0; moves--)
            move_something();
}

void desktop_resize(int32_t width, int32_t height)
{
    desktop.width = width;
    desktop.height = height;
    desktop.pixels.assign((size_t)width * (size_t)height, 0);
    desktop.window = {};
    desktop.moves.clear();
    desktop.dirty.clear();
    desktop.changes = 1;
    desktop.lost = true;
    desktop_draw_all(below(PATTERN_END));
}

// ---------------------------------------------------------------------------------------
// Desktop Duplication

// The staging texture and the frame that is held. The pitch of a texture is the driver's
// choice.
static struct {
    int32_t width, height;
    std::vector<uint8_t> pixels;
    std::vector<capture_move> moves;
    std::vector<capture_box> dirty;
} texture;
constexpr int32_t PITCH_EXTRA = 36;

static bool fails(int32_t times)
{
    return !desktop.calm && one_in(times);
}

static void shown()
{
    desktop.whole = false;
    desktop.changes = 0;
    desktop.moves.clear();
    desktop.dirty.clear();
}

namespace host
{

constexpr uint32_t TIMED_OUT = 0x887A0027, ACCESS_LOST = 0x887A0026, ANY_FAILURE = 0x80004005;

static int64_t texture_pitch()
{
    return (int64_t)texture.width * PIXEL_BYTES + PITCH_EXTRA;
}

void dxgi_close()
{
    texture.pixels.clear();
}

bool dxgi_open(int32_t *width, int32_t *height)
{
    desktop.openings++;
    if (!desktop.duplicates || fails(60))
        return false;
    *width = desktop.away ? 0 : desktop.width;
    *height = desktop.away ? 0 : desktop.height;
    desktop.lost = false;
    desktop.whole = true;
    return true;
}

bool dxgi_create_staging(int32_t width, int32_t height)
{
    if (fails(120))
        return false;
    texture.width = width;
    texture.height = height;
    texture.pixels.assign((size_t)(texture_pitch() * height), 0xA5);
    return true;
}

uint32_t dxgi_acquire(uint32_t timeout_ms, duplication_frame *frame)
{
    clock_sleep_ms((uint32_t)below((int32_t)timeout_ms + 1));
    if (desktop.lost || desktop.away) {
        desktop.lost = false;
        return ACCESS_LOST;
    }
    bool news = desktop.whole || desktop.changes > 0;
    if (!news && !one_in(4))
        return TIMED_OUT;
    frame->presented = news;
    frame->accumulated = news ? 1 : 0;
    if (desktop.changes > 1 && one_in(8))
        frame->accumulated = 2;
    size_t rects = desktop.moves.size() * sizeof(capture_move) +
                   desktop.dirty.size() * sizeof(capture_box);
    frame->rects_bytes = fails(20) ? 0 : (uint32_t)rects;
    if (news) {
        texture.moves = desktop.moves;
        texture.dirty = desktop.dirty;
        shown();
    }
    return 0;
}

bool dxgi_read_rects(uint32_t, duplication_rects *rects)
{
    rects->moves = texture.moves.data();
    rects->move_count = (uint32_t)texture.moves.size();
    rects->dirty = texture.dirty.data();
    rects->dirty_count = (uint32_t)texture.dirty.size();
    return !fails(20);
}

uint32_t dxgi_open_picture(int32_t *width, int32_t *height)
{
    *width = desktop.width;
    *height = desktop.height;
    return fails(60) ? ANY_FAILURE : 0;
}

void dxgi_copy_box(const capture_box &box)
{
    size_t bytes = (size_t)(box.right - box.left) * PIXEL_BYTES;
    for (int32_t y = box.top; y < box.bottom; y++)
        memcpy(&texture.pixels[(size_t)(y * texture_pitch() + box.left * PIXEL_BYTES)],
               pixel_at(box.left, y), bytes);
}

void dxgi_copy_picture()
{
    dxgi_copy_box({0, 0, desktop.width, desktop.height});
}

void dxgi_release_frame()
{
}

uint32_t dxgi_map(const uint8_t **bits, int64_t *pitch)
{
    *bits = texture.pixels.data();
    *pitch = texture_pitch();
    return fails(60) ? ANY_FAILURE : 0;
}

void dxgi_unmap()
{
}

// ---------------------------------------------------------------------------------------
// GDI

static std::vector<uint32_t> bitmap;
static int32_t bitmap_width;

void gdi_screen_size(int32_t *width, int32_t *height)
{
    *width = desktop.away ? 0 : desktop.width;
    *height = desktop.away ? 0 : desktop.height;
}

uint8_t *gdi_open(int32_t padded_width, int32_t padded_height)
{
    if (fails(8))
        return nullptr;
    bitmap_width = padded_width;
    bitmap.assign((size_t)padded_width * (size_t)padded_height, 0);
    return (uint8_t *)bitmap.data();
}

// Woken at some time, by whoever is meant to or by nobody.
void server_pause(uint64_t us)
{
    clock_sleep_ms((uint32_t)below((int32_t)(us / 1000) + 2));
}

void server_wake()
{
}

// Keeps the size that it started with, whatever becomes of the desktop's.
bool gdi_copy(int32_t width, int32_t height)
{
    if (desktop.away || fails(20))
        return false;
    bitmap.assign(bitmap.size(), 0);
    size_t bytes = (size_t)(width < desktop.width ? width : desktop.width) * PIXEL_BYTES;
    for (int32_t y = 0; y < height && y < desktop.height; y++)
        memcpy(&bitmap[(size_t)y * (size_t)bitmap_width], pixel_at(0, y), bytes);
    shown();
    return true;
}

} // namespace host
