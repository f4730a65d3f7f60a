// The control thread: reads and acts on every message of the viewer.
#ifndef QV_HOST_CONTROL_THREAD_H
#define QV_HOST_CONTROL_THREAD_H

#include "host/host_session.h"

namespace host
{

// The thread's routine; argument is the host_session, of which it is one owner. Ends when a
// receive fails or a message is too large; it then shuts the connection down, reports the
// end in session_ended, releases the input left pressed and leaves the session.
void control_thread(void *session);

// Acts on one message: the type byte of its header and length bytes of payload, at most
// HOST_PAYLOAD_MAX. Bytes come from the viewer and are trusted in nothing.
void control_message(host_session *session, uint8_t type, const uint8_t *payload,
                     uint32_t length);

} // namespace host

#endif
