// The viewer's end of the secure channel, and the messages that the viewer sends.
//
// The record layer has one sealing buffer and one nonce counter for each direction, so two
// sends must never interleave. Here two threads send: the receive thread answers frames and
// references while it holds the frame lock, the window thread sends input under no lock at
// all. send_lock is taken around the whole of each send and nothing is taken inside it, so
// the order is always frame lock, then send lock.
//
// Each message leaves as one record, header and payload together, except advertisements, which
// are sent before there is a second thread.
#include "viewer/viewer_channel.h"

#include <string.h>

namespace viewer
{

secure_channel viewer_channel;

static lock send_lock; // guards viewer_channel.sender once the receive thread runs

void viewer_channel_init()
{
    lock_init(&send_lock);
}

bool viewer_send(const uint8_t *data, uint64_t len)
{
    lock_enter(&send_lock);
    bool sent = channel_send(&viewer_channel.sender, data, len);
    lock_leave(&send_lock);
    return sent;
}

bool viewer_recv(uint8_t *dest, uint64_t n)
{
    return channel_recv(&viewer_channel.receiver, dest, n);
}

bool viewer_send_frame_ack(const uint8_t payload[FRAME_ACK_BYTES])
{
    uint8_t message[MESSAGE_HEADER_BYTES + FRAME_ACK_BYTES];
    put_header(message, MSG_FRAME_ACK, FRAME_ACK_BYTES);
    memcpy(message + MESSAGE_HEADER_BYTES, payload, FRAME_ACK_BYTES);
    return viewer_send(message, sizeof message);
}

bool viewer_send_cache_miss(const tile_ref &ref)
{
    uint8_t message[MESSAGE_HEADER_BYTES + CACHE_MISS_BYTES];
    put_header(message, MSG_CACHE_MISS, CACHE_MISS_BYTES);
    put_tile_ref(message + MESSAGE_HEADER_BYTES, ref);
    return viewer_send(message, sizeof message);
}

bool viewer_send_mouse(const mouse_event &mouse)
{
    uint8_t message[MESSAGE_HEADER_BYTES + MOUSE_BYTES];
    put_header(message, MSG_MOUSE, MOUSE_BYTES);
    put_mouse(message + MESSAGE_HEADER_BYTES, mouse);
    return viewer_send(message, sizeof message);
}

bool viewer_send_key(uint16_t virtual_key, bool press)
{
    uint8_t message[MESSAGE_HEADER_BYTES + KEY_BYTES];
    put_header(message, MSG_KEY, KEY_BYTES);
    store_le32(message + MESSAGE_HEADER_BYTES, virtual_key | (press ? KEY_PRESS : 0));
    return viewer_send(message, sizeof message);
}

bool viewer_send_cache_advert(const uint8_t *hashes, uint32_t count)
{
    uint8_t header[MESSAGE_HEADER_BYTES];
    put_header(header, MSG_CACHE_ADVERT, count * 8);
    return viewer_send(header, sizeof header) && viewer_send(hashes, (uint64_t)count * 8);
}

} // namespace viewer
