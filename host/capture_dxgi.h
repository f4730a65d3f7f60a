// Desktop Duplication, call by call: the edge under capture.cpp, which decides.
//
// One duplication a process, server thread only. Result codes are HRESULTs. The frame that
// dxgi_acquire hands out is held until dxgi_release_frame.
#ifndef QV_HOST_CAPTURE_DXGI_H
#define QV_HOST_CAPTURE_DXGI_H

#include "host/capture_plan.h"

#include <stdint.h>

namespace host
{

// Releases everything. Harmless when nothing, or half of it, is open.
void dxgi_close();

// Opens device and duplication and tells the size of what is duplicated. False: nothing is
// open, and a failure of D3D11CreateDevice or DuplicateOutput was logged.
[[nodiscard]] bool dxgi_open(int32_t *width, int32_t *height);

// Creates the texture of this size from which pixels are read. dxgi_open came before.
[[nodiscard]] bool dxgi_create_staging(int32_t width, int32_t height);

// Waits for the next frame. On success it is held, and frame describes it.
uint32_t dxgi_acquire(uint32_t timeout_ms, duplication_frame *frame);

// The rectangles of the held frame, in memory of this module that stays until the next call.
struct duplication_rects {
    const capture_move *moves;
    uint32_t move_count;
    const capture_box *dirty;
    uint32_t dirty_count;
};

// Reads them; rects_bytes is the frame's. False when a call or the memory for them fails.
[[nodiscard]] bool dxgi_read_rects(uint32_t rects_bytes, duplication_rects *rects);

// Takes hold of the held frame's picture and tells its size.
uint32_t dxgi_open_picture(int32_t *width, int32_t *height);

// Copies the picture, or a box of it to the same place, into the staging texture. The whole
// needs equal sizes; a box must lie on both.
void dxgi_copy_picture();
void dxgi_copy_box(const capture_box &box);

// Gives the picture and the frame back.
void dxgi_release_frame();

// Makes the staging texture's pixels readable until dxgi_unmap: bits addresses pixel (0, 0).
uint32_t dxgi_map(const uint8_t **bits, int64_t *pitch);
void dxgi_unmap();

} // namespace host

#endif
