// The outgoing message buffer: every message of one frame, in sending order.
//
// The frame pipeline appends while it walks the tiles and flushes once, so a frame costs one
// sealed record however many tiles it holds. The buffer keeps its size between frames: after
// the first full picture a session allocates nothing here.
//
// Owner: host server thread. No lock: the control thread never sends.
#ifndef QV_HOST_OUT_BUFFER_H
#define QV_HOST_OUT_BUFFER_H

#include "protocol/messages.h"

#include <stddef.h>
#include <stdint.h>

namespace host
{

// Appends bytes. When memory is short nothing is appended and the next flush fails.
void out_append(const void *bytes, size_t length);

// Appends a message header.
void out_append_header(message_type type, uint32_t length);

// Room for up to length bytes at the end of the buffer, to be written in place and then
// counted with out_commit; null when memory is short (the next flush fails then).
uint8_t *out_reserve(size_t length);
void out_commit(size_t length);

// Bytes appended since the last flush.
size_t out_used();

// Empties the buffer and forgets a failed append; what session start does.
void out_reset();

// The messages, and whether every append since the last reset or flush succeeded. For
// channel_flush.
const uint8_t *out_bytes();
bool out_intact();

} // namespace host

#endif
