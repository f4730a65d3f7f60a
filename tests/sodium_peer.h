// The other end of a connection, written with libsodium alone: both sides of the handshake
// and both directions of records, straight from their definition. For native tests with
//
//   // Native libraries: sodium
//
// It shares no code with the product but the sockets, so what it accepts and sends is what
// an independent implementation would.
#ifndef QV_TESTS_SODIUM_PEER_H
#define QV_TESTS_SODIUM_PEER_H

#include "protocol/net.h"

#include <sodium.h>
#include <string.h>
#include <string>
#include <vector>

struct sodium_peer {
    net_socket sock;
    unsigned char secret[32];
    unsigned char viewer_key[32], host_key[32];
    unsigned char session_key[32];
    unsigned char send_key[32], recv_key[32];
    uint64_t send_counter, recv_counter;
};

inline bool sodium_peer_recv(const sodium_peer &p, unsigned char *data, size_t n)
{
    return net_recv_all(p.sock, data, n, {});
}

inline std::vector<unsigned char> sodium_keyed(const sodium_peer &p, const char *label,
                                               size_t size)
{
    std::vector<unsigned char> out(size);
    crypto_generichash(out.data(), size, (const unsigned char *)label, strlen(label),
                       p.session_key, sizeof p.session_key);
    return out;
}

inline bool sodium_make_session_key(sodium_peer *p, const unsigned char *peer_key,
                                    const std::string &password)
{
    unsigned char shared[32];
    if (crypto_scalarmult(shared, p->secret, peer_key) != 0)
        return false;
    std::string text((const char *)shared, 32);
    text.append((const char *)p->viewer_key, 32);
    text.append((const char *)p->host_key, 32);
    text += "qv-v1";
    text += password;
    crypto_generichash(p->session_key, 32, (const unsigned char *)text.data(), text.size(),
                       nullptr, 0);
    return true;
}

inline void sodium_peer_start(sodium_peer *p, net_socket sock, unsigned char public_key[32])
{
    p->sock = sock;
    p->send_counter = p->recv_counter = 0;
    randombytes_buf(p->secret, 32);
    crypto_scalarmult_base(public_key, p->secret);
}

// True when the host's confirmation is right.
inline bool sodium_as_viewer(sodium_peer *p, net_socket sock, const std::string &password)
{
    sodium_peer_start(p, sock, p->viewer_key);
    if (!net_send_all(sock, p->viewer_key, 32) || !sodium_peer_recv(*p, p->host_key, 32))
        return false;
    if (!sodium_make_session_key(p, p->host_key, password))
        return false;
    if (!net_send_all(sock, sodium_keyed(*p, "c-confirm", 16).data(), 16))
        return false;
    unsigned char confirm[16];
    if (!sodium_peer_recv(*p, confirm, 16) ||
        memcmp(confirm, sodium_keyed(*p, "s-confirm", 16).data(), 16) != 0)
        return false;
    memcpy(p->send_key, sodium_keyed(*p, "c2s", 32).data(), 32);
    memcpy(p->recv_key, sodium_keyed(*p, "s2c", 32).data(), 32);
    return true;
}

// True when the viewer's confirmation is right.
inline bool sodium_as_host(sodium_peer *p, net_socket sock, const std::string &password)
{
    sodium_peer_start(p, sock, p->host_key);
    if (!sodium_peer_recv(*p, p->viewer_key, 32) || !net_send_all(sock, p->host_key, 32))
        return false;
    if (!sodium_make_session_key(p, p->viewer_key, password))
        return false;
    unsigned char confirm[16];
    if (!sodium_peer_recv(*p, confirm, 16) ||
        memcmp(confirm, sodium_keyed(*p, "c-confirm", 16).data(), 16) != 0)
        return false;
    if (!net_send_all(sock, sodium_keyed(*p, "s-confirm", 16).data(), 16))
        return false;
    memcpy(p->send_key, sodium_keyed(*p, "s2c", 32).data(), 32);
    memcpy(p->recv_key, sodium_keyed(*p, "c2s", 32).data(), 32);
    return true;
}

// One record as it stands on the wire.
inline std::vector<unsigned char> sodium_record(const unsigned char key[32], uint64_t counter,
                                                const std::vector<unsigned char> &plain)
{
    unsigned char nonce[24] = {};
    for (int i = 0; i < 8; i++)
        nonce[i] = (unsigned char)(counter >> 8 * i);
    std::vector<unsigned char> record(4 + plain.size() + 16);
    for (int i = 0; i < 4; i++)
        record[(size_t)i] = (unsigned char)(plain.size() >> 8 * i);
    crypto_aead_xchacha20poly1305_ietf_encrypt(record.data() + 4, nullptr, plain.data(),
                                               plain.size(), record.data(), 4, nullptr, nonce,
                                               key);
    return record;
}

inline bool sodium_send(sodium_peer *p, const std::vector<unsigned char> &plain)
{
    std::vector<unsigned char> record = sodium_record(p->send_key, p->send_counter++, plain);
    return net_send_all(p->sock, record.data(), record.size());
}

// Receives the next record; false when it does not open. *wire is the record as it came.
inline bool sodium_recv(sodium_peer *p, std::vector<unsigned char> *plain,
                        std::vector<unsigned char> *wire)
{
    wire->resize(4);
    if (!sodium_peer_recv(*p, wire->data(), 4))
        return false;
    size_t len = (size_t)(*wire)[0] | (size_t)(*wire)[1] << 8 | (size_t)(*wire)[2] << 16 |
                 (size_t)(*wire)[3] << 24;
    if (len > 16777216)
        return false;
    wire->resize(4 + len + 16);
    if (!sodium_peer_recv(*p, wire->data() + 4, len + 16))
        return false;
    unsigned char nonce[24] = {};
    for (int i = 0; i < 8; i++)
        nonce[i] = (unsigned char)(p->recv_counter >> 8 * i);
    p->recv_counter++;
    plain->resize(len);
    unsigned char none;
    return crypto_aead_xchacha20poly1305_ietf_decrypt(len ? plain->data() : &none, nullptr,
                                                      nullptr, wire->data() + 4, len + 16,
                                                      wire->data(), 4, nonce, p->recv_key) == 0;
}

#endif
