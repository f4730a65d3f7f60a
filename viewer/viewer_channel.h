// The viewer's secure channel: one, for the one session.
//
// Two threads send: the receive thread (acknowledgements, misses) and the window thread
// (input). One lock makes each send whole; order: frame lock, then send lock. The receive
// thread is the only receiver.
#ifndef QV_VIEWER_VIEWER_CHANNEL_H
#define QV_VIEWER_VIEWER_CHANNEL_H

#include "protocol/lock.h"
#include "protocol/messages.h"
#include "protocol/secure_channel.h"

#include <stdint.h>

namespace viewer
{

extern secure_channel viewer_channel;

// Makes the send lock usable; again and again harmless.
void viewer_channel_init();

// Sends bytes as one record, whole. Any viewer thread; takes the send lock.
bool viewer_send(const uint8_t *data, uint64_t len);

// Receive thread (before it exists, the connecting thread).
[[nodiscard]] bool viewer_recv(uint8_t *dest, uint64_t n);

// One message of each kind, header and payload in one record. Results are for those who
// care: a dead connection shows at the next receive.
bool viewer_send_frame_ack(const uint8_t payload[FRAME_ACK_BYTES]);
bool viewer_send_cache_miss(const tile_ref &ref);
bool viewer_send_mouse(const mouse_event &mouse);
bool viewer_send_key(uint16_t virtual_key, bool press);

// Tells the host of tiles in the cache, by their hashes as they stand in the message: at most
// CACHE_ADVERT_MAX_HASHES. Header and payload are a record each, so only while one thread
// sends.
bool viewer_send_cache_advert(const uint8_t *hashes, uint32_t count);

} // namespace viewer

#endif
