// Painting the viewer window: its back buffer, the picture and the text layer.
//
// The back buffer and the text font last from their first use to the end of the process;
// one session after another uses them, each from its own window thread.
#ifndef QV_VIEWER_VIEW_PAINT_H
#define QV_VIEWER_VIEW_PAINT_H

#include "viewer/frame_decode.h"
#include "viewer/view_geometry.h"

#include <stdint.h>

namespace viewer
{

// Brings the client rectangle `redraw` of a back buffer for a client area of that size up to
// date and returns the device context (HDC) to copy it from; null when there is none (memory
// is short, the area is empty). Window thread.
//
// view is the geometry of the paint before and becomes this one's. When it or the back
// buffer changed, everything is drawn and redraw becomes the whole client area. window_dc,
// an HDC, decides the back buffer's format.
void *view_paint(void *window_dc, int32_t client_width, int32_t client_height,
                 view_geometry *view, frame_rect *redraw) EXCLUDES(frame_lock);

} // namespace viewer

#endif
