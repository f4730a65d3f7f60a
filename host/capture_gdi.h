// The primary screen's size and its copies by GDI: the edge under capture.cpp.
//
// Server thread only.
#ifndef QV_HOST_CAPTURE_GDI_H
#define QV_HOST_CAPTURE_GDI_H

#include <stdint.h>

namespace host
{

// The primary screen's size in pixels.
void gdi_screen_size(int32_t *width, int32_t *height);

// Makes a bitmap for copies of a screen of this height: rows of padded_width pixels, top
// row first. What an earlier call made is released. False when the system gives none.
[[nodiscard]] bool gdi_open(int32_t padded_width, int32_t height);

// Copies width x height pixels from the screen's top left corner into the bitmap; returns its
// first pixel, or null when nothing is open or the screen cannot be read (the log-on
// desktop, say).
const uint8_t *gdi_copy(int32_t width, int32_t height);

} // namespace host

#endif
