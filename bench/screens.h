// What stands on the screens of the benchmarks: windows of an office afternoon.
#ifndef QV_BENCH_SCREENS_H
#define QV_BENCH_SCREENS_H

#include "bench/picture.h"

// A line of made-up prose of about so many characters; the same seed says the same.
std::string made_up_text(uint64_t seed, int32_t length);

// Each fills the area of the picture.
void draw_wallpaper(picture *p, area a);
// A dialog of buttons, fields and lists: few colours, straight edges, little text.
void draw_dialog(picture *p, area a, uint64_t seed);
// Prose, anti-aliased in grey.
void draw_document(picture *p, area a, uint64_t seed);
// Coloured program text, anti-aliased by sub-pixels. Its lines are EDITOR_LINE apart.
void draw_editor(picture *p, area a, uint64_t seed);
constexpr int32_t EDITOR_LINE = 18;
// A table of numbers.
void draw_table(picture *p, area a, uint64_t seed);

// A whole desktop: wallpaper, task bar and one large window, whose kind and text depend on
// the number.
void draw_desktop(picture *p, uint64_t number);

// The video's picture at one frame: a photo that pans, with the grain of compression.
void draw_video(picture *p, area a, int32_t frame);

#endif
