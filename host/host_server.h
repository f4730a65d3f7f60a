// The screen-sharing server: one thread for the life of the process, one viewer at a time.
#ifndef QV_HOST_HOST_SERVER_H
#define QV_HOST_HOST_SERVER_H

#include "protocol/net.h"

#include <atomic>
#include <stdint.h>

namespace host
{

// Set by host_stop and never cleared. A flag of its own, read without a lock.
extern std::atomic<uint32_t> host_stop_requested;

// The server's whole life, on the thread that calls it. 1 when the listening socket cannot
// be had, 0 when the server stopped.
int host_server_run();

// Asks the server to end and ends the present connection. Any thread. A server that waits
// in accept stays there until the next connection arrives.
void host_stop();

} // namespace host

#endif
