// The other end of a handshake for its fuzz targets, and what the product must make of it.
//
// The peer knows how to be honest (it is written with libsodium) and departs from that where
// the input says so: damaged or raw bytes, keys of low order, another password, an early end.
// Whatever it sent, an independent computation from the product's secret key and the bytes
// that arrived says what must come of it.
#ifndef QV_FUZZ_HANDSHAKE_SIDE_H
#define QV_FUZZ_HANDSHAKE_SIDE_H

#include "fuzz/fuzz.h"
#include "protocol/handshake.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/net_memory.h"
#include "tests/fakes/random_script.h"
#include "tests/sodium_peer.h"

// Public keys that give a shared secret of zeros, whatever the secret key; little-endian.
// 0, 1, p - 1, p, p + 1, and the two points of order 8.
inline const char *const low_order_keys[] = {
    "\x00",
    "\x01",
    "\xec\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"
    "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x7f",
    "\xed\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"
    "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x7f",
    "\xee\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"
    "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x7f",
    "\xe0\xeb\x7a\x7c\x3b\x41\xb8\xae\x16\x56\xe3\xfa\xf1\x9f\xc4\x6a"
    "\xda\x09\x8d\xeb\x9c\x32\xb1\xfd\x86\x62\x05\x16\x5f\x49\xb8\x00",
    "\x5f\x9c\x95\xbc\xa3\x50\x8c\x24\xb1\xd0\xb1\x55\x9c\x83\xef\x5b"
    "\x04\x44\x5c\xc4\x58\x1c\x8e\x86\xd8\x22\x4e\xdd\xd0\x9f\x11\x57",
};

struct handshake_side {
    bool product_is_host;
    fuzz_input *in;
    sodium_peer peer;
    unsigned char peer_public[32];
    std::string peer_password;
    int step;       // messages of the peer so far
    bool low_order; // its key makes the shared secret zero, and it knows
};
inline handshake_side side;

inline void peer_sends(std::vector<uint8_t> message)
{
    switch (take_below(side.in, 8)) {
    case 0:
        take_damage(side.in, &message);
        break;
    case 1:
        message = take_bytes(side.in, take_u8(side.in));
        break;
    case 2:
        if (message.size() == 32) {
            const char *key = low_order_keys[take_below(side.in, 7)];
            std::fill(message.begin(), message.end(), (uint8_t)0);
            memcpy(message.data(), key, key[0] == 0 || key[0] == 1 ? 1 : 32);
            message[31] |= take_u8(side.in) & 0x80; // a bit that the function ignores
            side.low_order = true;
        }
        break;
    default: // honest
        break;
    }
    net_memory.incoming.insert(net_memory.incoming.end(), message.begin(), message.end());
}

// The session key of a shared secret of zeros.
inline void make_zero_session_key(sodium_peer *p, const std::string &password)
{
    std::string text(32, '\0');
    text.append((const char *)p->viewer_key, 32);
    text.append((const char *)p->host_key, 32);
    text += "qv-v1" + password;
    crypto_generichash(p->session_key, 32, (const unsigned char *)text.data(), text.size(),
                       nullptr, 0);
}

// The peer's next message, when the product waits for it.
inline void peer_step()
{
    sodium_peer *p = &side.peer;
    unsigned char *own = side.product_is_host ? p->viewer_key : p->host_key;
    unsigned char *products = side.product_is_host ? p->host_key : p->viewer_key;
    if (side.step == 0) {
        memcpy(own, side.peer_public, 32);
        peer_sends(std::vector<uint8_t>(own, own + 32));
        // A peer may stand by what became of its key on the way.
        if ((take_u8(side.in) % 4 == 0 || side.low_order) && net_memory.incoming.size() >= 32)
            memcpy(own, net_memory.incoming.data(), 32);
    } else if (side.step == 1 && net_memory.sent.size() >= 32) {
        memcpy(products, net_memory.sent.data(), 32);
        if (side.low_order)
            make_zero_session_key(p, side.peer_password);
        if (side.low_order || sodium_make_session_key(p, products, side.peer_password))
            peer_sends(sodium_keyed(*p, side.product_is_host ? "c-confirm" : "s-confirm", 16));
    } else {
        return;
    }
    side.step++;
}

// Starts from the input: passwords, secret keys, the generator's health. Returns the
// product's password.
inline std::string side_start(fuzz_input *in, bool product_is_host, size_t password_max)
{
    net_memory_reset();
    clock_script_now = 0xFFFFFFF0;
    random_script = {};
    side = {};
    side.product_is_host = product_is_host;
    side.in = in;
    uint8_t kind = take_u8(in);
    std::vector<uint8_t> text = take_text(in, password_max);
    std::string password(text.begin(), text.end());
    side.peer_password = password;
    if (kind % 8 == 0) {
        text = take_text(in, 64);
        side.peer_password.assign(text.begin(), text.end());
    }
    random_script.fails = kind / 8 % 8 == 7;
    uint32_t seed = take_u8(in);
    fill_noise(random_script.bytes, RANDOM_SCRIPT_SIZE, 2 * seed);
    fill_noise(side.peer.secret, 32, 2 * seed + 1);
    crypto_scalarmult_base(side.peer_public, side.peer.secret);
    net_memory.refill = peer_step;
    return password;
}

// What an independent implementation of the product's side makes of the bytes that arrived:
// what it sends, and whether it succeeds (it then has the keys).
inline bool side_expected(sodium_peer *p, const std::string &password, bool in_time,
                          std::vector<uint8_t> *sends)
{
    sends->clear();
    *p = {};
    if (random_script.fails)
        return false;
    memcpy(p->secret, random_script.bytes, 32);
    unsigned char *own = side.product_is_host ? p->host_key : p->viewer_key;
    unsigned char *peers = side.product_is_host ? p->viewer_key : p->host_key;
    crypto_scalarmult_base(own, p->secret);
    auto append = [sends](const std::vector<uint8_t> &message) {
        sends->insert(sends->end(), message.begin(), message.end());
    };
    const std::vector<uint8_t> &stream = net_memory.incoming;
    std::vector<uint8_t> own_key(own, own + 32);
    if (!side.product_is_host)
        append(own_key);
    if (!in_time || stream.size() < 32)
        return false;
    memcpy(peers, stream.data(), 32);
    if (side.product_is_host)
        append(own_key);
    if (!sodium_make_session_key(p, peers, password))
        return false;
    if (!side.product_is_host)
        append(sodium_keyed(*p, "c-confirm", 16));
    if (stream.size() < 48 ||
        memcmp(stream.data() + 32,
               sodium_keyed(*p, side.product_is_host ? "c-confirm" : "s-confirm", 16).data(),
               16) != 0)
        return false;
    if (side.product_is_host)
        append(sodium_keyed(*p, "s-confirm", 16));
    const char *send_label = side.product_is_host ? "s2c" : "c2s";
    const char *recv_label = side.product_is_host ? "c2s" : "s2c";
    memcpy(p->send_key, sodium_keyed(*p, send_label, 32).data(), 32);
    memcpy(p->recv_key, sodium_keyed(*p, recv_label, 32).data(), 32);
    return true;
}

// Compares what the product did with what it should have done, and closes the channel.
inline void side_check(secure_channel *channel, bool succeeded, const std::string &password,
                       bool in_time)
{
    sodium_peer expected;
    std::vector<uint8_t> sends;
    bool should = side_expected(&expected, password, in_time, &sends);
    FUZZ_CHECK(succeeded == should);
    FUZZ_CHECK(net_memory.sent == sends);
    static const secure_channel closed = {};
    if (!succeeded) {
        FUZZ_CHECK(memcmp(channel, &closed, sizeof closed) == 0);
        return;
    }
    // From here on only records: one each way.
    FUZZ_CHECK(channel->sender.encrypted && channel->receiver.encrypted);
    FUZZ_CHECK(memcmp(channel->sender.send_key, expected.send_key, 32) == 0);
    FUZZ_CHECK(memcmp(channel->receiver.recv_key, expected.recv_key, 32) == 0);
    net_memory.refill = nullptr;
    net_memory.incoming.resize(net_memory.taken);
    std::vector<uint8_t> record = sodium_record(expected.recv_key, 0, {1, 2, 3});
    net_memory.incoming.insert(net_memory.incoming.end(), record.begin(), record.end());
    uint8_t plain[3] = {};
    channel->receiver.deadline = {};
    FUZZ_CHECK(channel_recv(&channel->receiver, plain, 3));
    FUZZ_CHECK(plain[0] == 1 && plain[1] == 2 && plain[2] == 3);
    net_memory.sent.clear();
    FUZZ_CHECK(channel_send(&channel->sender, plain, 3));
    FUZZ_CHECK(net_memory.sent == sodium_record(expected.send_key, 0, {1, 2, 3}));
    channel_reset(channel);
    FUZZ_CHECK(memcmp(channel, &closed, sizeof closed) == 0);
}

#endif
