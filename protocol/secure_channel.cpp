// The record layer. See secure_channel.h for the layout of a record and for who may call.
//
// Each half keeps one buffer for one record and works in place: a record is sealed behind
// its own header, so that it leaves in one go without a small packet for the header alone,
// and it is opened where it was received. The buffers only grow, so that a session which
// has seen its largest record allocates nothing more. What the sender's buffer holds went over
// the wire; the receiver's holds what was opened, keys that were typed for one, and is wiped
// before its memory is given back.
//
// Invariants: a half is used only while it is open; it is closed for good by its first
// failure, since after a partial record the peer could make no sense of what follows.
// recv_pos <= recv_len <= recv_cap, and recv_buf[0..recv_len) has been verified.
#include "protocol/secure_channel.h"

#include "protocol/bytes.h"

#include <monocypher.h>
#include <stdlib.h>

static constexpr size_t NONCE_BYTES = 24;

static void reset_sender(channel_sender *sender)
{
    free(sender->send_buf);
    crypto_wipe(sender, sizeof *sender);
}

void channel_reset_receiver(channel_receiver *receiver)
{
    if (receiver->recv_buf)
        crypto_wipe(receiver->recv_buf, (size_t)receiver->recv_cap);
    free(receiver->recv_buf);
    crypto_wipe(receiver, sizeof *receiver);
}

void channel_reset(secure_channel *channel)
{
    reset_sender(&channel->sender);
    channel_reset_receiver(&channel->receiver);
}

void channel_open(secure_channel *channel, net_socket sock)
{
    channel_reset(channel);
    channel->sender.sock = sock;
    channel->receiver.sock = sock;
    channel->sender.open = sock != NET_INVALID;
    channel->receiver.open = sock != NET_INVALID;
}

// The nonce of the record with this number: 8 bytes of it and 16 zeros.
static void make_nonce(uint8_t nonce[NONCE_BYTES], uint64_t counter)
{
    memset(nonce, 0, NONCE_BYTES);
    store_le64(nonce, counter);
}

// Makes room for the ciphertext and tag of len bytes, and for `extra` bytes that do not
// count towards *cap; what was there is wiped. False leaves buffer and capacity as they were.
static bool make_room(uint8_t **buf, uint64_t *cap, uint64_t len, uint64_t extra)
{
    if (*cap >= len + RECORD_TAG_BYTES)
        return true;
    uint64_t wanted = len + RECORD_TAG_BYTES + RECORD_SLACK_BYTES;
    uint8_t *grown = (uint8_t *)malloc((size_t)(extra + wanted));
    if (!grown)
        return false;
    if (*buf)
        crypto_wipe(*buf, (size_t)(extra + *cap));
    free(*buf);
    *buf = grown;
    *cap = wanted;
    return true;
}

// Seals data[0..len) as one record and sends it. len is at most RECORD_MAX.
static bool send_record(channel_sender *sender, const uint8_t *data, uint64_t len)
{
    if (!make_room(&sender->send_buf, &sender->send_cap, len, RECORD_HEADER_BYTES))
        return false;
    uint8_t *header = sender->send_buf;
    uint8_t *text = header + RECORD_HEADER_BYTES;
    store_le32(header, (uint32_t)len);
    uint8_t nonce[NONCE_BYTES];
    make_nonce(nonce, sender->send_counter++);
    if (len == 0)
        data = text; // never dereferenced, but not null either
    crypto_aead_lock(text, text + len, sender->send_key, nonce, header, RECORD_HEADER_BYTES,
                     data, (size_t)len);
    return net_send_all(sender->sock, header,
                        (size_t)(RECORD_HEADER_BYTES + len + RECORD_TAG_BYTES));
}

bool channel_send(channel_sender *sender, const uint8_t *data, uint64_t len)
{
    if (!sender->open)
        return false;
    if (sender->encrypted && len > RECORD_MAX)
        return false; // the caller's mistake: the stream itself is unharmed
    bool sent = sender->encrypted ? send_record(sender, data, len)
                                  : net_send_all(sender->sock, data, (size_t)len);
    if (!sent) {
        sender->open = false;
        net_abort(sender->sock);
    }
    return sent;
}

// Receives and opens the next record. What the peer sent is trusted in nothing until its
// tag has verified.
static bool fetch_record(channel_receiver *receiver)
{
    receiver->recv_len = 0;
    receiver->recv_pos = 0;
    uint8_t header[RECORD_HEADER_BYTES];
    if (!net_recv_all(receiver->sock, header, sizeof header, receiver->deadline))
        return false;
    uint64_t len = load_le32(header);
    if (len > RECORD_MAX)
        return false;
    if (!make_room(&receiver->recv_buf, &receiver->recv_cap, len, 0))
        return false;
    uint8_t *text = receiver->recv_buf;
    if (!net_recv_all(receiver->sock, text, (size_t)(len + RECORD_TAG_BYTES),
                      receiver->deadline))
        return false;
    uint8_t nonce[NONCE_BYTES];
    make_nonce(nonce, receiver->recv_counter++);
    if (crypto_aead_unlock(text, text + len, receiver->recv_key, nonce, header, sizeof header,
                           text, (size_t)len) != 0)
        return false;
    receiver->recv_len = len;
    return true;
}

// Fills dest[0..n) from the records.
static bool recv_from_records(channel_receiver *receiver, uint8_t *dest, uint64_t n)
{
    while (n > 0) {
        uint64_t left = receiver->recv_len - receiver->recv_pos;
        if (left == 0) {
            if (!fetch_record(receiver)) // may bring an empty one
                return false;
            continue;
        }
        uint64_t part = left < n ? left : n;
        memcpy(dest, receiver->recv_buf + receiver->recv_pos, (size_t)part);
        receiver->recv_pos += part;
        dest += part;
        n -= part;
    }
    return true;
}

bool channel_recv(channel_receiver *receiver, uint8_t *dest, uint64_t n)
{
    if (!receiver->open)
        return false;
    bool received = receiver->encrypted
                        ? recv_from_records(receiver, dest, n)
                        : net_recv_all(receiver->sock, dest, (size_t)n, receiver->deadline);
    if (!received) {
        receiver->open = false;
        net_abort(receiver->sock);
    }
    return received;
}

void channel_take_receiver(secure_channel *channel, channel_receiver *to)
{
    *to = channel->receiver;
    crypto_wipe(&channel->receiver, sizeof channel->receiver);
}
