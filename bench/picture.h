// Pictures that the benchmarks draw: flat surfaces, text with real fonts, and what photos
// and videos look like to a codec. All of it deterministic.
#ifndef QV_BENCH_PICTURE_H
#define QV_BENCH_PICTURE_H

#include <stdint.h>
#include <string>
#include <vector>

struct area {
    int32_t left, top, right, bottom; // right and bottom exclusive
};

struct picture {
    int32_t width, height;
    std::vector<uint32_t> pixels; // rows of width; 0xFFRRGGBB, as a screen has them
};

enum font_face { FONT_SANS, FONT_BOLD, FONT_SERIF, FONT_MONO, FONT_FACES };
enum text_smoothing { TEXT_GREY, TEXT_SUBPIXEL };

// Loads the fonts; false, with a message, when there are none. fonts_close frees them.
bool fonts_open();
void fonts_close();

picture picture_make(int32_t width, int32_t height, uint32_t colour);
area picture_area(const picture &p);

// All of these draw inside the area (or clip) and the picture only.
void draw_fill(picture *p, area a, uint32_t colour);
void draw_frame(picture *p, area a, uint32_t colour); // its outermost pixels
void draw_gradient(picture *p, area a, uint32_t top, uint32_t bottom);
void draw_noise(picture *p, area a, uint64_t seed);
// Smooth shapes of many sizes with some hard edges. at_x, at_y: where in an endless photo
// the area lies, so that a video can pan. grain: the largest deviation of a channel.
void draw_photo(picture *p, area a, uint64_t seed, int32_t at_x, int32_t at_y, int32_t grain,
                uint64_t grain_seed);
void draw_copy(picture *p, int32_t x, int32_t y, const picture &from, area a);

// One line of text; returns where the next character would go.
int32_t draw_text(picture *p, area clip, int32_t x, int32_t baseline, font_face face,
                  int32_t pixel_size, uint32_t colour, text_smoothing smoothing,
                  const std::string &text);

#endif
