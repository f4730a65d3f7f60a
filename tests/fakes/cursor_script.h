// A pointer that stands where the test puts it.
#ifndef QV_TESTS_FAKES_CURSOR_SCRIPT_H
#define QV_TESTS_FAKES_CURSOR_SCRIPT_H

#include "host/cursor.h"

extern host::cursor_state cursor_script_now; // host server thread

#endif
