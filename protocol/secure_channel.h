// The record layer: a byte stream in each direction, cut into sealed records.
//
// A record on the wire:
//
//   offset   size  field
//   0        u32   len, bytes of plain text, 0 to RECORD_MAX; authenticated with the record
//   4        len   ciphertext (XChaCha20-Poly1305)
//   4 + len  16    authentication tag
//
// The nonce is the record's number in its direction, u64 little-endian, and 16 zero bytes:
// a record that is dropped, repeated or reordered does not open, and the session ends.
// Record boundaries mean nothing to callers.
//
// A channel has two halves that share nothing, so one thread may send while another
// receives; two senders, or two receivers, at once would corrupt it. Until the handshake
// has succeeded `encrypted` is 0 and bytes pass as they are.
//
// Any failure of a half is final: it is marked failed, its socket is aborted (which fails
// the other half at its next call), and every later call returns false.
#ifndef QV_PROTOCOL_SECURE_CHANNEL_H
#define QV_PROTOCOL_SECURE_CHANNEL_H

#include "protocol/net.h"

#include <stdint.h>

constexpr uint64_t RECORD_MAX = 16777216; // bytes of plain text in one record
constexpr uint32_t RECORD_HEADER_BYTES = 4;
constexpr uint32_t RECORD_TAG_BYTES = 16;
constexpr uint64_t RECORD_SLACK_BYTES = 4096; // growth beyond what is needed now
constexpr uint32_t CHANNEL_KEY_BYTES = 32;

// Zeroed = nothing open: every call refuses.
struct channel_sender {
    bool open; // set while sock is a live socket and no call has failed
    net_socket sock;
    uint32_t encrypted;
    uint8_t send_key[CHANNEL_KEY_BYTES];
    uint64_t send_counter; // number of the next record
    uint8_t *send_buf;     // header, ciphertext and tag of one record
    uint64_t send_cap;     // bytes of ciphertext and tag that send_buf has room for
};

struct channel_receiver {
    bool open;
    net_socket sock;
    uint32_t encrypted;
    uint8_t recv_key[CHANNEL_KEY_BYTES];
    uint64_t recv_counter;
    uint8_t *recv_buf; // the last record, opened in place
    uint64_t recv_len; // plain bytes in recv_buf; grows only once their tag has verified
    uint64_t recv_pos; // how many of them the caller has taken
    uint64_t recv_cap;
    net_deadline deadline; // for every receive; zeroed = none
};

struct secure_channel {
    channel_sender sender;
    channel_receiver receiver;
};

// Frees the buffers, wiping what was received, wipes the keys and zeroes the record (or the
// half). The socket is the caller's business. Harmless on a zeroed record.
void channel_reset(secure_channel *channel);
void channel_reset_receiver(channel_receiver *receiver);

// Resets the channel and opens it, still plain, on a connected socket.
void channel_open(secure_channel *channel, net_socket sock);

// Seals data[0..len) as one record (an empty one when len is 0) and sends it; plain, sends
// the bytes as they are, in any number. False when a record would exceed RECORD_MAX (nothing
// is sent; the channel stays usable) or on any failure.
[[nodiscard]] bool channel_send(channel_sender *sender, const uint8_t *data, uint64_t len);

// Fills dest[0..n) from the stream, reading and opening as many records as it takes. Bytes
// become visible only after their record has verified; after a failure dest may hold the
// verified ones that came before it.
[[nodiscard]] bool channel_recv(channel_receiver *receiver, uint8_t *dest, uint64_t n);

// Moves the receiving half to another record, whose owner frees it from then on; the
// channel's own receiving half becomes a zeroed one.
void channel_take_receiver(secure_channel *channel, channel_receiver *to);

#endif
