// The text layer's state: on or off, and the rectangle that it covers.
//
// While a console is shown as text its pixels are not sent. Only tiles that the rectangle
// covers whole are left out; a tile at its edge also shows what lies beside the console.
// Tiles left out stay dirty and go out when the layer ends.
#include "host/text_layer.h"

#include "protocol/tile.h"

namespace host
{

text_layer_record text_layer;

void text_layer_reset()
{
    text_layer = {};
}

bool text_layer_covers(int32_t tx, int32_t ty)
{
    int64_t x = (int64_t)tx * TILE_SIZE;
    int64_t y = (int64_t)ty * TILE_SIZE;
    return text_layer.text_active && text_layer.left <= x && text_layer.top <= y &&
           text_layer.right > x + (TILE_SIZE - 1) && text_layer.bottom > y + (TILE_SIZE - 1);
}

} // namespace host
