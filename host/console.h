// The console whose window is in front: where it stands and what it shows.
//
// To read the console of another process a process must attach to it, and whoever is
// attached gets what is pressed there (Ctrl+C) and is ended when it closes. So the host
// attaches for the length of one reading only: each console_attach that succeeds is followed
// by console_detach, whatever happens in between.
//
// Host server thread.
#ifndef QV_HOST_CONSOLE_H
#define QV_HOST_CONSOLE_H

#include <stdint.h>

namespace host
{

// As the system lays it out.
struct console_cell {
    uint16_t character;  // UTF-16 code unit
    uint16_t attributes; // low byte: foreground and background colour
};

struct console_view {
    int32_t left, top, right, bottom; // client area of the window, screen pixels
    int32_t cols, rows;               // the part of its buffer that shows; not trusted
};

// Attaches to the console in front. False when what is in front is no console, or one that
// cannot be read; nothing is attached then.
[[nodiscard]] bool console_attach(console_view *view);

// Reads whole rows of the grid that console_attach told: row 0 is the top one that shows.
// cells has room for rows times cols. One call takes no more than CONSOLE_READ_CELLS cells.
[[nodiscard]] bool console_read(int32_t first_row, int32_t rows, console_cell *cells);

void console_detach();

// Older systems pass cells through a heap of 64 KiB that they share with everything else.
constexpr int32_t CONSOLE_READ_CELLS = 8192;

} // namespace host

#endif
