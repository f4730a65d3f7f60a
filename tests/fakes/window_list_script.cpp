#include "tests/fakes/window_list_script.h"

std::vector<scripted_window> windows_now;
int32_t windows_asked, windows_listings;

void host::window_list_enumerate()
{
    windows_listings++;
    for (const scripted_window &window : windows_now) {
        windows_asked++;
        if (!window_list_append(window.head, window.title.c_str()))
            return;
    }
}
