// A whole session over a connected pair of sockets: host threads as the product runs them, and
// the viewer's end of the handshake. What the host captures is set in capture_script_step,
// both pictures' sizes are set before.
#ifndef QV_BENCH_SESSION_H
#define QV_BENCH_SESSION_H

#include "bench/picture.h"
#include "protocol/net.h"

#include <stdint.h>

// Serves one session, to its end, and closes the socket. Waits so long at most for the viewer
// to tell which tiles it has.
void bench_serve(net_socket sock, uint32_t advert_wait_ms);

// The viewer's handshake with such a host.
bool bench_join(net_socket sock);

// Touches the memory of the viewer's cache, which is open, as a thread does while a session
// begins.
void bench_touch_cache();

// Whether the viewer shows the picture in every byte.
bool bench_shows(const picture &screen);

#endif
