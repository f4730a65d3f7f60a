#include "tests/fakes/capture_edges.h"

#include "host/capture_dxgi.h"
#include "host/capture_gdi.h"
#include "host/server_wake.h"
#include "protocol/clock.h"
#include "protocol/tile.h"
#include "tests/test.h"

#include <string.h>

capture_edges_record capture_edges;

// The staging texture and the GDI bitmap. The pitch of a texture is the driver's choice; one
// that is no multiple of anything shows who ignores it.
static struct {
    bool open, held, picture, mapped;
    int32_t width, height;
    std::vector<uint8_t> pixels;
    scripted_frame frame;
} texture;
static constexpr int32_t TEXTURE_PITCH_EXTRA = 36;

static struct {
    int32_t padded_width, height;
    std::vector<uint32_t> pixels;
} bitmap;

static test_random desktop_random = {0x1234567};

static void note(const std::string &call)
{
    capture_edges.calls.push_back(call);
}

// "gdi_copy 150x70"
static void note_size(const char *call, int32_t width, int32_t height)
{
    note(std::string(call) + " " + std::to_string(width) + "x" + std::to_string(height));
}

void capture_edges_desktop(int32_t width, int32_t height)
{
    capture_edges.width = width;
    capture_edges.height = height;
    int64_t count = (int64_t)width * height;
    capture_edges.pixels.assign(count > 0 && count < 1 << 24 ? (size_t)count : 0, 0);
    for (uint32_t &pixel : capture_edges.pixels)
        pixel = (uint32_t)desktop_random.next() | 1; // never 0, as untouched pixels are
}

void capture_edges_reset(int32_t width, int32_t height)
{
    capture_edges = {};
    texture = {};
    bitmap = {};
    capture_edges_desktop(width, height);
}

std::string capture_edges_calls()
{
    std::string text;
    for (const std::string &call : capture_edges.calls)
        text += (text.empty() ? "" : " ") + call;
    capture_edges.calls.clear();
    return text;
}

namespace host
{

static int64_t texture_pitch()
{
    return (int64_t)texture.width * PIXEL_BYTES + TEXTURE_PITCH_EXTRA;
}

static int32_t picture_width()
{
    int32_t given = texture.frame.picture_width;
    return given ? given : capture_edges.width;
}

static int32_t picture_height()
{
    int32_t given = texture.frame.picture_height;
    return given ? given : capture_edges.height;
}

void dxgi_close()
{
    note("close");
    texture = {};
}

bool dxgi_open(int32_t *width, int32_t *height)
{
    note("open");
    CHECK_FALSE(texture.open);
    if (capture_edges.open_fails)
        return false;
    texture.open = true;
    *width = capture_edges.width;
    *height = capture_edges.height;
    return true;
}

bool dxgi_create_staging(int32_t width, int32_t height)
{
    note("staging");
    CHECK(texture.open);
    if (capture_edges.staging_fails)
        return false;
    texture.width = width;
    texture.height = height;
    texture.pixels.assign((size_t)(texture_pitch() * height), 0);
    return true;
}

uint32_t dxgi_acquire(uint32_t timeout_ms, duplication_frame *frame)
{
    note("acquire");
    CHECK(timeout_ms == 2);
    CHECK(texture.open);
    CHECK_FALSE(texture.held);
    if (capture_edges.frames.empty())
        return 0x887A0027;
    texture.frame = capture_edges.frames.front();
    capture_edges.frames.erase(capture_edges.frames.begin());
    if (!capture_succeeded(texture.frame.code))
        return texture.frame.code;
    texture.held = true;
    *frame = texture.frame.frame;
    if (frame->rects_bytes == 0)
        frame->rects_bytes = (uint32_t)(texture.frame.moves.size() * sizeof(capture_move) +
                                        texture.frame.dirty.size() * sizeof(capture_box));
    return texture.frame.code;
}

bool dxgi_read_rects(uint32_t rects_bytes, duplication_rects *rects)
{
    note("rects");
    CHECK(texture.held);
    CHECK(rects_bytes > 0);
    if (texture.frame.rects_fail)
        return false;
    rects->moves = texture.frame.moves.data();
    rects->move_count = (uint32_t)texture.frame.moves.size();
    rects->dirty = texture.frame.dirty.data();
    rects->dirty_count = (uint32_t)texture.frame.dirty.size();
    return true;
}

uint32_t dxgi_open_picture(int32_t *width, int32_t *height)
{
    note("picture");
    CHECK(texture.held);
    if (!capture_succeeded(texture.frame.picture_code))
        return texture.frame.picture_code;
    texture.picture = true;
    *width = picture_width();
    *height = picture_height();
    return texture.frame.picture_code;
}

static void copy_to_staging(const capture_box &box)
{
    for (int32_t y = box.top; y < box.bottom; y++) {
        for (int32_t x = box.left; x < box.right; x++) {
            uint32_t pixel = capture_edges.pixels[(size_t)(y * capture_edges.width + x)];
            memcpy(&texture.pixels[(size_t)(y * texture_pitch() + x * PIXEL_BYTES)], &pixel, 4);
        }
    }
}

void dxgi_copy_picture()
{
    note("whole");
    CHECK(texture.picture);
    REQUIRE(picture_width() == texture.width);
    REQUIRE(picture_height() == texture.height);
    copy_to_staging({0, 0, texture.width, texture.height});
}

void dxgi_copy_box(const capture_box &box)
{
    note("box " + std::to_string(box.left) + "," + std::to_string(box.top) + "," +
         std::to_string(box.right) + "," + std::to_string(box.bottom));
    CHECK(texture.picture);
    // Direct3D copies nothing at all for a box that is empty or leaves a texture.
    REQUIRE(box.left >= 0);
    REQUIRE(box.top >= 0);
    REQUIRE(box.left < box.right);
    REQUIRE(box.top < box.bottom);
    REQUIRE(box.right <= picture_width());
    REQUIRE(box.bottom <= picture_height());
    REQUIRE(box.right <= texture.width);
    REQUIRE(box.bottom <= texture.height);
    copy_to_staging(box);
}

void dxgi_release_frame()
{
    note("release");
    CHECK(texture.held);
    texture.held = false;
    texture.picture = false;
}

uint32_t dxgi_map(const uint8_t **bits, int64_t *pitch)
{
    note("map");
    CHECK_FALSE(texture.held);
    CHECK_FALSE(texture.mapped);
    if (!capture_succeeded(texture.frame.map_code))
        return texture.frame.map_code;
    texture.mapped = true;
    *bits = texture.pixels.data();
    *pitch = texture_pitch();
    return texture.frame.map_code;
}

void dxgi_unmap()
{
    note("unmap");
    CHECK(texture.mapped);
    texture.mapped = false;
}

void gdi_screen_size(int32_t *width, int32_t *height)
{
    note("size");
    *width = capture_edges.width;
    *height = capture_edges.height;
}

uint8_t *gdi_open(int32_t padded_width, int32_t padded_height)
{
    note_size("gdi_open", padded_width, padded_height);
    if (capture_edges.gdi_open_fails)
        return nullptr;
    bitmap.padded_width = padded_width;
    bitmap.height = padded_height;
    bitmap.pixels.assign((size_t)padded_width * (size_t)padded_height, 0);
    return (uint8_t *)bitmap.pixels.data();
}

// The clock is the scripted one: nobody but the test waits for it.
void server_pause(uint64_t us)
{
    note("pause");
    CHECK(us > 0);
    if (capture_edges.on_pause)
        capture_edges.on_pause();
    else
        clock_sleep_ms((uint32_t)((us + 999) / 1000));
}

void server_wake() // other threads, which note nothing
{
}

bool gdi_copy(int32_t width, int32_t height)
{
    note_size("gdi_copy", width, height);
    if (capture_edges.gdi_copy_fails)
        return false;
    REQUIRE(width <= bitmap.padded_width);
    REQUIRE(height <= bitmap.height);
    for (int32_t y = 0; y < height && y < capture_edges.height; y++) {
        for (int32_t x = 0; x < width && x < capture_edges.width; x++)
            bitmap.pixels[(size_t)(y * bitmap.padded_width + x)] =
                capture_edges.pixels[(size_t)(y * capture_edges.width + x)];
    }
    return true;
}

} // namespace host
