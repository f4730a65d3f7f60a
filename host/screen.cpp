// The host's picture of the screen and of what the viewer shows of it.
//
// Three layers of one size: frame_buffer (what capture saw last), prev_frame (what the
// viewer shows, as far as the host knows) and, a record a tile, how sure the host is of
// prev_frame (tile_base.h). What a tile has been through (tile_worth.h) is noted beside. The
// frame pipeline walks the dirty tiles and sends where the first two differ, so all that this
// module must get right is: a tile that may have changed is dirty, and prev_frame is never
// believed where the viewer may show something else.
//
// A session can outlive a screen size. The viewer is told a size once, in the hello, and
// keeps it; the picture that it gets afterwards is the new one, cut to the hello's grid.
// What it shows beyond the new screen is cleared once, by way of outside_map.
//
// Invariants: either everything is there (sizes positive, all five buffers) or nothing is
// (sizes zero, all five null). No buffer is ever written beyond the screen's own pixels, so
// the padding keeps the zeros of its allocation.
//
// Called by the server thread only. What the control thread reads besides is replaced under
// host_lock.
#include "host/screen.h"

#include <stdlib.h>
#include <string.h>

#include <new>

namespace host
{

screen_record screen;

static int64_t screen_tiles()
{
    return (int64_t)screen.tiles_x * screen.tiles_y;
}

static size_t screen_bytes()
{
    return (size_t)screen_tiles() * TILE_BYTES;
}

static void release_buffers() REQUIRES(host_lock)
{
    if (!screen.frame_buffer_lent)
        free(screen.frame_buffer);
    screen.frame_buffer_lent = false;
    free(screen.prev_frame);
    delete[] screen.dirty_map;
    free(screen.bases);
    free(screen.worths);
    free(screen.outside_map);
    screen.frame_buffer = nullptr;
    screen.prev_frame = nullptr;
    screen.dirty_map = nullptr;
    screen.bases = nullptr;
    screen.worths = nullptr;
    screen.outside_map = nullptr;
}

static void set_geometry(int32_t width, int32_t height) REQUIRES(host_lock)
{
    screen.screen_width = width;
    screen.screen_height = height;
    screen.padded_width = pad_to_tile(width);
    screen.padded_height = pad_to_tile(height);
    screen.tiles_x = tiles_for(width);
    screen.tiles_y = tiles_for(height);
}

// The largest first, so that an absurd size is refused before anything is touched.
static bool allocate_buffers() REQUIRES(host_lock)
{
    size_t tiles = (size_t)screen_tiles();
    screen.frame_buffer = (uint8_t *)calloc(tiles, TILE_BYTES);
    if (!screen.frame_buffer)
        return false;
    screen.prev_frame = (uint8_t *)calloc(tiles, TILE_BYTES);
    if (!screen.prev_frame)
        return false;
    screen.bases = (tile_base *)calloc(tiles, sizeof(tile_base));
    if (!screen.bases)
        return false;
    screen.worths = (tile_worth *)calloc(tiles, sizeof(tile_worth));
    if (!screen.worths)
        return false;
    screen.dirty_map = new (std::nothrow) std::atomic<uint8_t>[tiles]();
    return screen.dirty_map != nullptr;
}

void screen_dirty_all()
{
    int64_t tiles = screen_tiles();
    for (int64_t i = 0; i < tiles; i++)
        screen.dirty_map[i].store(1, std::memory_order_relaxed);
}

// Puts every tile of the hello's grid outside the present screen down to be cleared, those
// too that an earlier change cleared: a screen in between may have covered them.
static bool allocate_outside_map()
{
    int32_t hello_x = tiles_for(screen.hello_width);
    int32_t hello_y = tiles_for(screen.hello_height);
    if (hello_x <= screen.tiles_x && hello_y <= screen.tiles_y)
        return true;
    screen.outside_map = (uint8_t *)calloc((size_t)hello_x, (size_t)hello_y);
    if (!screen.outside_map)
        return false;
    for (int32_t ty = 0; ty < hello_y; ty++) {
        int32_t first = ty < screen.tiles_y ? screen.tiles_x : 0;
        uint8_t *row = screen.outside_map + (int64_t)ty * hello_x;
        if (first < hello_x)
            memset(row + first, 1, (size_t)(hello_x - first));
    }
    return true;
}

// In a session the viewer goes on showing the old screen, of which nothing fits the new one:
// no base is known and no tile may be left out, the black ones included.
static bool begin_resized_session() REQUIRES(host_lock)
{
    if (!allocate_outside_map())
        return false;
    int64_t tiles = screen_tiles();
    for (int64_t i = 0; i < tiles; i++) {
        screen.bases[i].base_state = BASE_LOST;
        screen.bases[i].must_send = 1;
    }
    screen_dirty_all();
    return true;
}

bool screen_resize(int32_t width, int32_t height)
{
    lock_enter(&host_lock);
    release_buffers();
    bool valid =
        width > 0 && height > 0 && width <= SCREEN_SIDE_MAX && height <= SCREEN_SIDE_MAX;
    if (valid)
        set_geometry(width, height);
    bool in_session = screen.hello_width > 0 && screen.hello_height > 0;
    bool done = valid && allocate_buffers() && (!in_session || begin_resized_session());
    if (!done) {
        release_buffers();
        set_geometry(0, 0);
    }
    screen.move_count = 0;
    screen.full_capture_pending = true;
    lock_leave(&host_lock);
    return done;
}

void frame_reset()
{
    screen_dirty_all();
    screen.move_count = 0;
    int64_t tiles = screen_tiles();
    if (screen.first_frame_flushed) {
        for (int64_t i = 0; i < tiles; i++)
            screen.bases[i].must_send = 1;
        return;
    }
    if (tiles > 0) {
        memset(screen.prev_frame, 0, screen_bytes());
        memset(screen.worths, 0, (size_t)tiles * sizeof(tile_worth));
    }
    for (int64_t i = 0; i < tiles; i++)
        tile_base_start(&screen.bases[i]);
}

void screen_session_start()
{
    lock_enter(&host_lock);
    screen.hello_width = screen.screen_width;
    screen.hello_height = screen.screen_height;
    free(screen.outside_map);
    screen.outside_map = nullptr;
    screen.first_frame_flushed = false;
    frame_reset();
    lock_leave(&host_lock);
}

void screen_lend_frame_buffer(uint8_t *pixels)
{
    memcpy(pixels, screen.frame_buffer, screen_bytes());
    if (!screen.frame_buffer_lent)
        free(screen.frame_buffer);
    screen.frame_buffer = pixels;
    screen.frame_buffer_lent = true;
}

void capture_copy_rect(const uint8_t *src, int64_t src_pitch, int32_t left, int32_t top,
                       int32_t right, int32_t bottom)
{
    int32_t width = screen.screen_width, height = screen.screen_height;
    left = left < 0 ? 0 : left;
    top = top < 0 ? 0 : top;
    right = right > width ? width : right;
    bottom = bottom > height ? height : bottom;
    if (right <= left || bottom <= top)
        return;

    int64_t pitch = (int64_t)screen.padded_width * PIXEL_BYTES;
    int64_t x = (int64_t)left * PIXEL_BYTES;
    size_t row_bytes = (size_t)(right - left) * PIXEL_BYTES;
    for (int64_t y = top; y < bottom; y++)
        memcpy(screen.frame_buffer + y * pitch + x, src + y * src_pitch + x, row_bytes);

    for (int32_t ty = top >> 6; ty <= (bottom - 1) >> 6; ty++) {
        std::atomic<uint8_t> *row = screen.dirty_map + (int64_t)ty * screen.tiles_x;
        for (int32_t tx = left >> 6; tx <= (right - 1) >> 6; tx++)
            row[tx].store(1, std::memory_order_relaxed);
    }
}

} // namespace host
