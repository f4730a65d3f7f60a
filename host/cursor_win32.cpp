// The host's pointer, from the system.
#include "host/cursor.h"

#include "protocol/win32.h"

namespace host
{

// Owner: host server thread. On a desktop that this process may not see (log-on, consent)
// the calls fail, and the pointer stays where it was last.
static cursor_state last;

cursor_state cursor_read()
{
    POINT point;
    if (GetCursorPos(&point)) {
        last.x = (int32_t)point.x;
        last.y = (int32_t)point.y;
    }
    CURSORINFO info = {};
    info.cbSize = sizeof info;
    if (GetCursorInfo(&info))
        last.visible = (info.flags & CURSOR_SHOWING) != 0;
    return last;
}

} // namespace host
