// A console that the test writes, in place of the one in front.
#ifndef QV_TESTS_FAKES_CONSOLE_SCRIPT_H
#define QV_TESTS_FAKES_CONSOLE_SCRIPT_H

#include "host/console.h"

#include <stdint.h>
#include <vector>

struct console_script {
    bool in_front = false;                 // and can be attached to
    host::console_view view = {};          // as console_attach tells
    std::vector<host::console_cell> cells; // view.rows rows of view.cols
    int32_t reads_until_failure = -1;      // -1: none fails
    int32_t attached = 0;                  // times attached less times detached
    int32_t attaches = 0, reads = 0;       // so far
    int32_t most_cells = 0;                // of one read
};
extern console_script console_now; // host server thread

// No console in front.
void console_script_reset();

// A console in front at this place and of this size, full of blanks.
void console_script_show(const host::console_view &view);

// Writes text, each byte a character, from a cell on.
void console_script_write(int32_t row, int32_t col, const char *text, uint16_t attributes);

#endif
