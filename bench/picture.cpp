// Drawing for the benchmarks. FreeType makes the glyphs; everything else is plain loops, since
// nothing here is timed.
#include "bench/picture.h"

#include "bench/bench.h"

#include <algorithm>
#include <ft2build.h>
#include FT_FREETYPE_H
#include <map>
#include <math.h>
#include <string.h>

static constexpr const char *FONT_FILES[FONT_FACES] = {
    "LiberationSans-Regular.ttf",
    "LiberationSans-Bold.ttf",
    "LiberationSerif-Regular.ttf",
    "LiberationMono-Regular.ttf",
};
static constexpr const char *FONT_FOLDERS[] = {
    "/usr/share/fonts/truetype/liberation/",
    "/usr/share/fonts/truetype/liberation2/",
};

struct glyph {
    int32_t left, top, width, height, advance; // pixels
    std::vector<uint8_t> cover;                // width * height * 3: red, green, blue
};

static FT_Library library;
static FT_Face faces[FONT_FACES];
static std::map<uint64_t, glyph> *glyphs;

static bool open_face(int32_t face)
{
    for (const char *folder : FONT_FOLDERS)
        if (FT_New_Face(library, (std::string(folder) + FONT_FILES[face]).c_str(), 0,
                        &faces[face]) == 0)
            return true;
    fprintf(stderr, "bench: no %s (Debian package fonts-liberation)\n", FONT_FILES[face]);
    return false;
}

bool fonts_open()
{
    if (FT_Init_FreeType(&library) != 0) {
        fprintf(stderr, "bench: FreeType does not start\n");
        return false;
    }
    for (int32_t face = 0; face < FONT_FACES; face++)
        if (!open_face(face))
            return false;
    glyphs = new std::map<uint64_t, glyph>;
    return true;
}

void fonts_close()
{
    delete glyphs;
    glyphs = nullptr;
    FT_Done_FreeType(library); // the faces with it
    library = nullptr;
}

static const glyph &glyph_of(font_face face, int32_t pixel_size, text_smoothing smoothing,
                             unsigned char character)
{
    uint64_t key = (uint64_t)face << 32 | (uint64_t)pixel_size << 16 |
                   (uint64_t)smoothing << 8 | character;
    auto found = glyphs->find(key);
    if (found != glyphs->end())
        return found->second;
    glyph made = {};
    FT_Set_Pixel_Sizes(faces[face], 0, (FT_UInt)pixel_size);
    bool subpixel = smoothing == TEXT_SUBPIXEL;
    FT_Int32 flags = FT_LOAD_RENDER | (subpixel ? FT_LOAD_TARGET_LCD : FT_LOAD_TARGET_NORMAL);
    if (FT_Load_Char(faces[face], character, flags) == 0) {
        const FT_GlyphSlot slot = faces[face]->glyph;
        int32_t samples = subpixel ? 3 : 1; // of a pixel in a row of the bitmap
        made.left = slot->bitmap_left;
        made.top = slot->bitmap_top;
        made.width = (int32_t)slot->bitmap.width / samples;
        made.height = (int32_t)slot->bitmap.rows;
        made.advance = (int32_t)(slot->advance.x >> 6);
        for (int32_t y = 0; y < made.height; y++)
            for (int32_t x = 0; x < made.width; x++)
                for (int32_t c = 0; c < 3; c++)
                    made.cover.push_back(slot->bitmap.buffer[y * slot->bitmap.pitch +
                                                             x * samples + (subpixel ? c : 0)]);
    }
    return glyphs->emplace(key, made).first->second;
}

static area clip_to(const picture &p, area a)
{
    return {std::max(a.left, 0), std::max(a.top, 0), std::min(a.right, p.width),
            std::min(a.bottom, p.height)};
}

static uint32_t *pixel_at(picture *p, int32_t x, int32_t y)
{
    return &p->pixels[(size_t)y * (size_t)p->width + (size_t)x];
}

picture picture_make(int32_t width, int32_t height, uint32_t colour)
{
    return {width, height, std::vector<uint32_t>((size_t)width * (size_t)height, colour)};
}

area picture_area(const picture &p)
{
    return {0, 0, p.width, p.height};
}

void draw_fill(picture *p, area a, uint32_t colour)
{
    a = clip_to(*p, a);
    for (int32_t y = a.top; y < a.bottom; y++)
        for (int32_t x = a.left; x < a.right; x++)
            *pixel_at(p, x, y) = colour;
}

void draw_frame(picture *p, area a, uint32_t colour)
{
    draw_fill(p, {a.left, a.top, a.right, a.top + 1}, colour);
    draw_fill(p, {a.left, a.bottom - 1, a.right, a.bottom}, colour);
    draw_fill(p, {a.left, a.top, a.left + 1, a.bottom}, colour);
    draw_fill(p, {a.right - 1, a.top, a.right, a.bottom}, colour);
}

static uint32_t mix(uint32_t from, uint32_t to, int32_t part, int32_t whole)
{
    uint32_t out = 0xFF000000;
    for (int32_t shift = 0; shift < 24; shift += 8) {
        int32_t a = from >> shift & 255, b = to >> shift & 255;
        out |= (uint32_t)(a + (b - a) * part / whole) << shift;
    }
    return out;
}

void draw_gradient(picture *p, area a, uint32_t top, uint32_t bottom)
{
    area inside = clip_to(*p, a);
    // Slanted, so that rows differ as well as columns.
    int32_t whole = a.bottom - a.top + (a.right - a.left) / 4;
    for (int32_t y = inside.top; y < inside.bottom; y++)
        for (int32_t x = inside.left; x < inside.right; x++)
            *pixel_at(p, x, y) = mix(top, bottom, y - a.top + (x - a.left) / 4, whole);
}

void draw_noise(picture *p, area a, uint64_t seed)
{
    bench_random random = {seed};
    a = clip_to(*p, a);
    for (int32_t y = a.top; y < a.bottom; y++)
        for (int32_t x = a.left; x < a.right; x++)
            *pixel_at(p, x, y) = 0xFF000000 | (uint32_t)(random.next() >> 40);
}

// A value in 0 .. 1 for a point of a lattice.
static float lattice(uint64_t seed, int32_t x, int32_t y)
{
    uint64_t h = seed ^ ((uint64_t)(uint32_t)x << 32 | (uint32_t)y);
    h = (h ^ h >> 31) * 0x9E3779B97F4A7C15ull;
    h = (h ^ h >> 29) * 0xBF58476D1CE4E5B9ull;
    return (float)(h >> 40) / 16777216.0f;
}

// A row of smooth noise with features of 1 << bits pixels, added to out with a weight.
static void add_noise_row(std::vector<float> *out, uint64_t seed, int32_t at_x, int32_t y,
                          int32_t bits, float weight)
{
    int32_t mask = (1 << bits) - 1;
    float size = (float)(1 << bits);
    auto ease = [](float t) { return t * t * (3 - 2 * t); };
    float v = ease((float)(y & mask) / size);
    auto column = [&](int32_t cell) {
        float a = lattice(seed, cell, y >> bits), b = lattice(seed, cell, (y >> bits) + 1);
        return a + (b - a) * v;
    };
    std::vector<float> eased;
    for (int32_t x = 0; x <= mask; x++)
        eased.push_back(ease((float)x / size));
    int32_t columns = (int32_t)out->size();
    for (int32_t i = 0; i < columns;) {
        int32_t x = at_x + i;
        float left = column(x >> bits), right = column((x >> bits) + 1);
        int32_t end = std::min(columns, i + mask + 1 - (x & mask)); // of the lattice's cell
        for (const float *e = &eased[(size_t)(x & mask)]; i < end; i++)
            (*out)[(size_t)i] += weight * (left + (right - left) * *e++);
    }
}

void draw_photo(picture *p, area a, uint64_t seed, int32_t at_x, int32_t at_y, int32_t grain,
                uint64_t grain_seed)
{
    bench_random random = {grain_seed | 1};
    a = clip_to(*p, a);
    size_t columns = (size_t)std::max(a.right - a.left, 0);
    for (int32_t y = a.top; y < a.bottom; y++) {
        std::vector<float> light(columns), warm(columns), ridge(columns);
        int32_t row = at_y + y - a.top;
        const float weights[] = {0.45f, 0.25f, 0.15f, 0.09f, 0.04f, 0.02f};
        for (int32_t octave = 0; octave < 6; octave++)
            add_noise_row(&light, seed + (uint64_t)octave * 77, at_x, row, 8 - octave,
                          weights[octave]);
        add_noise_row(&warm, seed ^ 0xABCDEF, at_x, row, 8, 1);
        add_noise_row(&ridge, seed ^ 0x123457, at_x, row, 7, 1);
        for (size_t i = 0; i < columns; i++) {
            // Where the third layer passes its middle a shape ends: photos have edges.
            float l = 255 * (ridge[i] > 0.55f ? light[i] : 0.35f + 0.6f * light[i]);
            float w = 80 * (warm[i] - 0.5f);
            uint32_t colour = 0xFF000000;
            const float channels[] = {l - w, l, l + w}; // blue, green, red
            uint64_t noise = grain > 0 ? random.next() : 0;
            for (int32_t c = 0; c < 3; c++, noise >>= 21) {
                int32_t value = (int32_t)channels[c];
                if (grain > 0) // 21 bits of it, as a number below 2 * grain + 1
                    value +=
                        (int32_t)((noise & 0x1FFFFF) * (2 * (uint64_t)grain + 1) >> 21) - grain;
                colour |= (uint32_t)std::clamp(value, 0, 255) << (8 * c);
            }
            *pixel_at(p, a.left + (int32_t)i, y) = colour;
        }
    }
}

void draw_copy(picture *p, int32_t x, int32_t y, const picture &from, area a)
{
    a = clip_to(from, a);
    area to = clip_to(*p, {x, y, x + a.right - a.left, y + a.bottom - a.top});
    if (to.left >= to.right)
        return;
    for (int32_t row = to.top; row < to.bottom; row++)
        memcpy(pixel_at(p, to.left, row),
               &from.pixels[(size_t)(row - y + a.top) * (size_t)from.width +
                            (size_t)(to.left - x + a.left)],
               (size_t)(to.right - to.left) * sizeof(uint32_t));
}

static void draw_glyph(picture *p, area clip, int32_t x, int32_t y, const glyph &g,
                       uint32_t colour)
{
    for (int32_t row = 0; row < g.height; row++)
        for (int32_t column = 0; column < g.width; column++) {
            int32_t px = x + column, py = y + row;
            if (px < clip.left || py < clip.top || px >= clip.right || py >= clip.bottom)
                continue;
            uint32_t *at = pixel_at(p, px, py);
            const uint8_t *cover = &g.cover[(size_t)(row * g.width + column) * 3];
            uint32_t out = 0xFF000000;
            for (int32_t c = 0; c < 3; c++) { // red, green, blue
                int32_t shift = 16 - 8 * c;
                int32_t under = *at >> shift & 255, over = colour >> shift & 255;
                out |= (uint32_t)(under + (over - under) * cover[c] / 255) << shift;
            }
            *at = out;
        }
}

int32_t draw_text(picture *p, area clip, int32_t x, int32_t baseline, font_face face,
                  int32_t pixel_size, uint32_t colour, text_smoothing smoothing,
                  const std::string &text)
{
    clip = clip_to(*p, clip);
    for (unsigned char character : text) {
        const glyph &g = glyph_of(face, pixel_size, smoothing, character);
        draw_glyph(p, clip, x + g.left, baseline - g.top, g, colour);
        x += g.advance;
    }
    return x;
}
