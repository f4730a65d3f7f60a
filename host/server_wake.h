// A pause of the server thread that another thread can cut short.
#ifndef QV_HOST_SERVER_WAKE_H
#define QV_HOST_SERVER_WAKE_H

#include <stdint.h>

namespace host
{

// Waits for about this many microseconds (the system may round up to its next millisecond)
// or until server_wake is called, whichever comes first. Server thread.
void server_pause(uint64_t us);

// Ends the present pause or, when none is under way, the next one as it begins. Any thread;
// never blocks.
void server_wake();

} // namespace host

#endif
