// A small window that asks for one line of text.
#ifndef QV_APP_INPUT_DIALOG_H
#define QV_APP_INPUT_DIALOG_H

#include "app/main_window.h"

#include <stddef.h>

namespace app
{

constexpr size_t INPUT_TEXT_SIZE = 64; // with terminator; what is typed is cut to it

// Shows the text for editing and returns once the user is done: true and the new text after
// "OK" or Enter; false, with the text unchanged, otherwise. The owner can be neither clicked
// nor typed into meanwhile, but its messages go on; it may even be destroyed when the program
// is told to exit. Window thread, one at a time.
[[nodiscard]] bool input_dialog(HWND owner, const char *title, const char *prompt,
                                char text[INPUT_TEXT_SIZE]);

} // namespace app

#endif
