// The windows that show, as the test puts them.
#ifndef QV_TESTS_FAKES_WINDOW_LIST_SCRIPT_H
#define QV_TESTS_FAKES_WINDOW_LIST_SCRIPT_H

#include "host/window_list.h"

#include <stdint.h>
#include <string>
#include <vector>

struct scripted_window {
    window_head head;
    std::string title;
};
extern std::vector<scripted_window> windows_now; // host server thread; topmost first
extern int32_t windows_asked;                    // how many were offered to the list in all
extern int32_t windows_listings;                 // how often they were listed

#endif
