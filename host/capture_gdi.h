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

// Makes a bitmap for copies of the screen, padded_width x padded_height pixels that are zero,
// top row first, and returns the first of them; null when the system gives none. The bitmap
// owns them until the next call, which releases it first.
[[nodiscard]] uint8_t *gdi_open(int32_t padded_width, int32_t padded_height);

// Copies width x height pixels from the screen's top left corner into the bitmap's; the others
// stay zero. False when nothing is open or the screen cannot be read (the log-on desktop, say).
[[nodiscard]] bool gdi_copy(int32_t width, int32_t height);

} // namespace host

#endif
