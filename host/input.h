// Puts events into the system's input queue.
#ifndef QV_HOST_INPUT_H
#define QV_HOST_INPUT_H

#include "host/input_map.h"

namespace host
{

// Injects the events in one call. Failures (a window of higher integrity in front, say) are
// ignored. May block for as long as the system's input hooks do.
void input_send(const input_event *events, int32_t count);

} // namespace host

#endif
