// The host's one channel, and the flush that turns a frame's messages into a record.
//
// The record is process-wide: opened by each handshake, closed by each session's end. Its
// receiving half moves to the session as soon as the hellos are exchanged, so the server
// thread and the control thread never touch the same field.
#include "host/host_channel.h"
#include "host/out_buffer.h"

namespace host
{

secure_channel host_channel;

bool channel_flush()
{
    // A frame with a hole in it would show as garbage: it is not sent at all.
    bool sent = out_intact() && channel_send(&host_channel.sender, out_bytes(), out_used());
    out_reset();
    return sent;
}

} // namespace host
