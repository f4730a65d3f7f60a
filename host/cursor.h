// The host's pointer.
#ifndef QV_HOST_CURSOR_H
#define QV_HOST_CURSOR_H

#include <stdint.h>

namespace host
{

struct cursor_state {
    int32_t x, y; // screen pixels
    uint8_t visible;
};

// The pointer as it is now. Host server thread, once an iteration.
cursor_state cursor_read();

} // namespace host

#endif
