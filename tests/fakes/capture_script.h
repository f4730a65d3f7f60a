// Capture that does what the test says, in place of both back ends.
#ifndef QV_TESTS_FAKES_CAPTURE_SCRIPT_H
#define QV_TESTS_FAKES_CAPTURE_SCRIPT_H

#include "host/capture.h"

#include <functional>

// Runs at every capture_step and is its result; empty = nothing new. Like a back end it
// draws with capture_copy_rect and fills screen.move_list. Host server thread.
extern std::function<host::capture_result()> capture_script_step;

// What capture_start does besides reporting GDI: set the first screen size, say.
extern std::function<void()> capture_script_start;

// What capture_is_duplication says.
extern bool capture_script_duplicates;

#endif
