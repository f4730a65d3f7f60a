// The host's secure channel: one, for the one session.
//
// Owner: host server thread, the only sender. Once the hellos are exchanged the receiving
// half belongs to the session's control thread (host_session.h).
#ifndef QV_HOST_HOST_CHANNEL_H
#define QV_HOST_HOST_CHANNEL_H

#include "protocol/secure_channel.h"

namespace host
{

extern secure_channel host_channel;

// Seals everything in the outgoing message buffer as one record and sends it; the buffer is
// empty afterwards whatever came of it. False on any failure, a failed append included.
[[nodiscard]] bool channel_flush();

} // namespace host

#endif
