// One connection of the viewer to a host, from name resolution to the closed window.
//
// At most one session at a time; its state is process-wide. The calling thread becomes the
// window thread; the receive thread is the only other one.
#ifndef QV_VIEWER_VIEWER_SESSION_H
#define QV_VIEWER_VIEWER_SESSION_H

#include <stdint.h>

namespace viewer
{

// Called with the host's name and the ID after a good hello, on the session's thread; null
// when nobody asked. Set before the first session and not changed afterwards.
extern void (*on_connected)(const char *host_name, const char *host_id);

// Runs one session. host and port are texts; with via_relay they are the relay's and
// host_id names the room. host_id and password may be null. Returns 0 after a session that
// got as far as its window, 1 when it failed before; the message goes to error_text
// (error_size bytes, may be null), and to standard output in any case.
int viewer_session_run(const char *host, const char *port, bool via_relay, const char *host_id,
                       const char *password, char *error_text, int32_t error_size);

// Ends the connection of the running session without closing anything; for the window when
// it is destroyed, so that closing never waits for a stalled host.
void viewer_session_abort();

} // namespace viewer

#endif
