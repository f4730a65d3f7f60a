#include "tests/fakes/viewer_channel_memory.h"

#include "viewer/viewer_channel.h"

#include <string.h>

std::vector<uint8_t> memory_incoming;
std::vector<std::vector<uint8_t>> memory_sent;
bool memory_send_fails;
static size_t taken;

void memory_reset()
{
    memory_incoming.clear();
    memory_sent.clear();
    memory_send_fails = false;
    taken = 0;
}

namespace viewer
{

secure_channel viewer_channel;

void viewer_channel_init()
{
}

bool viewer_send(const uint8_t *data, uint64_t len)
{
    memory_sent.emplace_back(data, data + len);
    return !memory_send_fails;
}

bool viewer_recv(uint8_t *dest, uint64_t n)
{
    uint64_t left = memory_incoming.size() - taken;
    uint64_t some = n < left ? n : left;
    if (some != 0)
        memcpy(dest, memory_incoming.data() + taken, some);
    taken += some;
    return some == n;
}

bool viewer_send_frame_ack(const uint8_t payload[FRAME_ACK_BYTES])
{
    std::vector<uint8_t> message(MESSAGE_HEADER_BYTES + FRAME_ACK_BYTES);
    put_header(message.data(), MSG_FRAME_ACK, FRAME_ACK_BYTES);
    memcpy(message.data() + MESSAGE_HEADER_BYTES, payload, FRAME_ACK_BYTES);
    memory_sent.push_back(message);
    return !memory_send_fails;
}

bool viewer_send_cache_miss(const tile_ref &ref)
{
    std::vector<uint8_t> message(MESSAGE_HEADER_BYTES + CACHE_MISS_BYTES);
    put_header(message.data(), MSG_CACHE_MISS, CACHE_MISS_BYTES);
    put_tile_ref(message.data() + MESSAGE_HEADER_BYTES, ref);
    memory_sent.push_back(message);
    return !memory_send_fails;
}

bool viewer_send_mouse(const mouse_event &mouse)
{
    std::vector<uint8_t> message(MESSAGE_HEADER_BYTES + MOUSE_BYTES);
    put_header(message.data(), MSG_MOUSE, MOUSE_BYTES);
    put_mouse(message.data() + MESSAGE_HEADER_BYTES, mouse);
    memory_sent.push_back(message);
    return !memory_send_fails;
}

bool viewer_send_key(uint16_t virtual_key, bool press)
{
    std::vector<uint8_t> message(MESSAGE_HEADER_BYTES + KEY_BYTES);
    put_header(message.data(), MSG_KEY, KEY_BYTES);
    store_le32(message.data() + MESSAGE_HEADER_BYTES, virtual_key | (press ? KEY_PRESS : 0));
    memory_sent.push_back(message);
    return !memory_send_fails;
}

bool viewer_send_cache_advert(const uint8_t *hashes, uint32_t count)
{
    uint8_t header[MESSAGE_HEADER_BYTES];
    put_header(header, MSG_CACHE_ADVERT, count * 8);
    return viewer_send(header, sizeof header) && viewer_send(hashes, (uint64_t)count * 8);
}

} // namespace viewer
