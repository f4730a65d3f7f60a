// The outgoing message buffer. It grows to a little more than twice what is needed and is
// never shrunk: the first full picture of a process sizes it, and frames after that
// allocate nothing.
//
// A failed growth leaves buffer and sizes as they were and is remembered until the buffer is
// emptied: what was appended then is a stream with a hole, which must not be sent.
#include "host/out_buffer.h"

#include <assert.h>
#include <monocypher.h>
#include <stdlib.h>
#include <string.h>

namespace host
{

constexpr size_t OUT_SLACK_BYTES = 65536; // growth beyond twice what is needed now

static struct {
    uint8_t *out_buffer;
    size_t out_used; // <= out_capacity
    size_t out_capacity;
    bool append_failed; // since the buffer was last emptied
} out;

uint8_t *out_reserve(size_t length)
{
    if (!out.out_buffer || length > out.out_capacity - out.out_used) {
        if (length > SIZE_MAX / 2 - OUT_SLACK_BYTES - out.out_used) {
            out.append_failed = true;
            return nullptr;
        }
        size_t capacity = (out.out_used + length) * 2 + OUT_SLACK_BYTES;
        uint8_t *grown = (uint8_t *)malloc(capacity);
        if (!grown) {
            out.append_failed = true;
            return nullptr;
        }
        if (out.out_buffer) {
            memcpy(grown, out.out_buffer, out.out_used);
            crypto_wipe(out.out_buffer, out.out_capacity); // the screen, not yet sealed
            free(out.out_buffer);
        }
        out.out_buffer = grown;
        out.out_capacity = capacity;
    }
    return out.out_buffer + out.out_used;
}

void out_commit(size_t length)
{
    assert(length <= out.out_capacity - out.out_used);
    out.out_used += length;
}

void out_append(const void *bytes, size_t length)
{
    uint8_t *room = out_reserve(length);
    if (!room)
        return;
    if (length != 0)
        memcpy(room, bytes, length);
    out_commit(length);
}

void out_append_header(message_type type, uint32_t length)
{
    uint8_t header[MESSAGE_HEADER_BYTES];
    put_header(header, type, length);
    out_append(header, sizeof header);
}

size_t out_used()
{
    return out.out_used;
}

void out_reset()
{
    out.out_used = 0;
    out.append_failed = false;
}

const uint8_t *out_bytes()
{
    return out.out_buffer;
}

bool out_intact()
{
    return !out.append_failed;
}

} // namespace host
