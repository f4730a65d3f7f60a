// The system's input queue as a list in memory, which can also get stuck, as the real one
// does in somebody's input hook.
#ifndef QV_TESTS_FAKES_INPUT_RECORD_H
#define QV_TESTS_FAKES_INPUT_RECORD_H

#include "host/input_map.h"

#include <vector>

// One input_send each: the events that it injected together. Any thread.
std::vector<std::vector<host::input_event>> input_record_calls();

// Forgets them. Nothing may be stuck.
void input_record_clear();

// The next input_send, and no later one, blocks before it injects anything...
void input_record_block_next();
// ...whether a thread is stuck in it...
bool input_record_blocked();
// ...and lets it go on.
void input_record_unblock();

#endif
