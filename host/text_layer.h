// The console text layer on the host: whether it is on and which tiles it covers.
//
// Owner: host server thread; only the frame pipeline looks.
#ifndef QV_HOST_TEXT_LAYER_H
#define QV_HOST_TEXT_LAYER_H

#include <stdint.h>

namespace host
{

struct text_layer_record {
    bool text_active;                 // the layer was sent and is on at the viewer
    int32_t left, top, right, bottom; // text_rect: the console's client area, screen pixels
};

extern text_layer_record text_layer;

// Nothing is on at a new viewer.
void text_layer_reset();

// True when the active layer covers all of a tile, which is then not sent as pixels.
bool text_layer_covers(int32_t tx, int32_t ty);

} // namespace host

#endif
