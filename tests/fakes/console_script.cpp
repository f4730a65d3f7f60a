#include "tests/fakes/console_script.h"

#include <assert.h>
#include <string.h>

console_script console_now;

void console_script_reset()
{
    console_now = console_script();
}

void console_script_show(const host::console_view &view)
{
    console_now.in_front = true;
    console_now.view = view;
    console_now.cells.assign((size_t)view.cols * (size_t)view.rows, {' ', 0x07});
}

void console_script_write(int32_t row, int32_t col, const char *text, uint16_t attributes)
{
    for (int32_t i = 0; text[i] != 0; i++)
        console_now.cells.at((size_t)(row * console_now.view.cols + col + i)) = {
            (uint8_t)text[i], attributes};
}

namespace host
{

bool console_attach(console_view *view)
{
    assert(console_now.attached == 0);
    if (!console_now.in_front)
        return false;
    *view = console_now.view;
    console_now.attached++;
    console_now.attaches++;
    return true;
}

bool console_read(int32_t first_row, int32_t rows, console_cell *cells)
{
    assert(console_now.attached == 1);
    const int32_t cols = console_now.view.cols;
    console_now.reads++;
    if (rows * cols > console_now.most_cells)
        console_now.most_cells = rows * cols;
    if (console_now.reads_until_failure == 0)
        return false;
    if (console_now.reads_until_failure > 0)
        console_now.reads_until_failure--;
    assert(first_row >= 0 && rows > 0 && first_row + rows <= console_now.view.rows);
    memcpy(cells, &console_now.cells.at((size_t)(first_row * cols)),
           (size_t)(rows * cols) * sizeof *cells);
    return true;
}

void console_detach()
{
    assert(console_now.attached == 1);
    console_now.attached--;
}

} // namespace host
