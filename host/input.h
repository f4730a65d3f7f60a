// Puts events into the system's input queue.
#ifndef QV_HOST_INPUT_H
#define QV_HOST_INPUT_H

#include "host/input_map.h"

namespace host
{

// Injects the events, at most INPUT_CALL_MAX of them, in one call. Failures (a window of
// higher integrity in front, say) are ignored. May block for as long as the system's input
// hooks do.
constexpr int32_t INPUT_CALL_MAX = 2; // a character's press and release
void input_send(const input_event *events, int32_t count);

} // namespace host

#endif
