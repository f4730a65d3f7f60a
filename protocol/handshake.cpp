// The handshake. See handshake.h for the bytes on the wire and what is hashed from what.
//
// The password enters the transcript hash beside the fresh shared secret, so that a viewer
// which does not know it ends up with another session key and fails at its confirmation,
// before it has got anything that depends on the password. The host therefore sends its own
// confirmation only after the viewer's has matched.
//
// Each secret is wiped as soon as nothing needs it any more; all of them lie in one record
// on the stack, which is wiped once more on the one way out, whatever happened before.
//
// Called by the thread that made the connection, before any other thread uses the channel.
#include "protocol/handshake.h"

#include "protocol/clock.h"
#include "protocol/random.h"

#include <monocypher.h>
#include <string.h>

static constexpr size_t KEY_BYTES = 32; // X25519 keys, shared secret and session key
static constexpr size_t CONFIRM_BYTES = 16;

static const char PROTOCOL_LABEL[] = "qv-v1";
static const char CLIENT_CONFIRM_LABEL[] = "c-confirm";
static const char SERVER_CONFIRM_LABEL[] = "s-confirm";
static const char CLIENT_TO_SERVER_LABEL[] = "c2s";
static const char SERVER_TO_CLIENT_LABEL[] = "s2c";

static_assert(KEY_BYTES == CHANNEL_KEY_BYTES);

namespace
{
struct handshake_state {
    uint8_t secret_key[KEY_BYTES];
    uint8_t viewer_key[KEY_BYTES]; // the two public keys
    uint8_t host_key[KEY_BYTES];
    uint8_t shared_secret[KEY_BYTES];
    uint8_t session_key[KEY_BYTES];
    uint8_t confirmation[CONFIRM_BYTES]; // ours or the expected one; secret until sent
    char password[PASSWORD_MAX + 1];     // the host's
};
} // namespace

// Draws our secret key and computes its public key.
static bool make_keys(handshake_state *s, uint8_t public_key[KEY_BYTES])
{
    if (!random_bytes(s->secret_key, KEY_BYTES))
        return false;
    crypto_x25519_public_key(public_key, s->secret_key);
    return true;
}

// Computes the shared secret and wipes our secret key. False for a shared secret of all
// zeros: the peer sent one of the few keys that give it with any secret key, which would
// leave the password as the only unknown in the session key.
static bool agree(handshake_state *s, const uint8_t peer_key[KEY_BYTES])
{
    crypto_x25519(s->shared_secret, s->secret_key, peer_key);
    crypto_wipe(s->secret_key, KEY_BYTES);
    uint8_t any = 0;
    for (uint8_t byte : s->shared_secret)
        any |= byte;
    return any != 0;
}

// Hashes the transcript into the session key and wipes the shared secret.
static void make_session_key(handshake_state *s, const char *password, size_t password_len)
{
    crypto_blake2b_ctx hash;
    crypto_blake2b_init(&hash, KEY_BYTES);
    crypto_blake2b_update(&hash, s->shared_secret, KEY_BYTES);
    crypto_blake2b_update(&hash, s->viewer_key, KEY_BYTES);
    crypto_blake2b_update(&hash, s->host_key, KEY_BYTES);
    crypto_blake2b_update(&hash, (const uint8_t *)PROTOCOL_LABEL, sizeof PROTOCOL_LABEL - 1);
    crypto_blake2b_update(&hash, (const uint8_t *)password, password_len);
    crypto_blake2b_final(&hash, s->session_key); // wipes its own state
    crypto_wipe(s->shared_secret, KEY_BYTES);
}

// Derives `size` bytes from the session key.
static void derive(const handshake_state *s, const char *label, uint8_t *out, size_t size)
{
    crypto_blake2b_keyed(out, size, s->session_key, KEY_BYTES, (const uint8_t *)label,
                         strlen(label));
}

static bool send_confirmation(handshake_state *s, secure_channel *channel, const char *label)
{
    derive(s, label, s->confirmation, CONFIRM_BYTES);
    return channel_send(&channel->sender, s->confirmation, CONFIRM_BYTES);
}

// Receives the peer's confirmation; false when it is not the one expected.
static bool check_confirmation(handshake_state *s, secure_channel *channel, const char *label)
{
    derive(s, label, s->confirmation, CONFIRM_BYTES);
    uint8_t received[CONFIRM_BYTES];
    return channel_recv(&channel->receiver, received, CONFIRM_BYTES) &&
           crypto_verify16(received, s->confirmation) == 0;
}

// Switches the channel to sealed records under the two direction keys.
static void start_records(handshake_state *s, secure_channel *channel, const char *send_label,
                          const char *recv_label)
{
    derive(s, send_label, channel->sender.send_key, CHANNEL_KEY_BYTES);
    derive(s, recv_label, channel->receiver.recv_key, CHANNEL_KEY_BYTES);
    crypto_wipe(s->session_key, KEY_BYTES);
    channel->sender.encrypted = 1;
    channel->receiver.encrypted = 1;
}

static bool run_as_host(handshake_state *s, secure_channel *channel,
                        void (*read_password)(char password[PASSWORD_MAX + 1]),
                        uint64_t *round_trip_us)
{
    if (!make_keys(s, s->host_key))
        return false;
    if (!channel_recv(&channel->receiver, s->viewer_key, KEY_BYTES))
        return false;
    if (!channel_send(&channel->sender, s->host_key, KEY_BYTES))
        return false;
    uint64_t sent = clock_us();
    if (!agree(s, s->viewer_key))
        return false;
    read_password(s->password);
    make_session_key(s, s->password, strnlen(s->password, PASSWORD_MAX));
    crypto_wipe(s->password, sizeof s->password);
    if (!check_confirmation(s, channel, CLIENT_CONFIRM_LABEL))
        return false;
    if (round_trip_us)
        *round_trip_us = clock_us() - sent;
    if (!send_confirmation(s, channel, SERVER_CONFIRM_LABEL))
        return false;
    start_records(s, channel, SERVER_TO_CLIENT_LABEL, CLIENT_TO_SERVER_LABEL);
    return true;
}

static bool run_as_viewer(handshake_state *s, secure_channel *channel, const char *password)
{
    if (!make_keys(s, s->viewer_key))
        return false;
    if (!channel_send(&channel->sender, s->viewer_key, KEY_BYTES))
        return false;
    if (!channel_recv(&channel->receiver, s->host_key, KEY_BYTES))
        return false;
    if (!agree(s, s->host_key))
        return false;
    make_session_key(s, password, strlen(password));
    if (!send_confirmation(s, channel, CLIENT_CONFIRM_LABEL))
        return false;
    if (!check_confirmation(s, channel, SERVER_CONFIRM_LABEL))
        return false;
    start_records(s, channel, CLIENT_TO_SERVER_LABEL, SERVER_TO_CLIENT_LABEL);
    return true;
}

// The way out of both sides: no secret stays on the stack, and no channel stays open
// without keys.
static bool finish(handshake_state *s, secure_channel *channel, bool ok)
{
    crypto_wipe(s, sizeof *s);
    if (!ok)
        channel_reset(channel);
    return ok;
}

bool handshake_as_host(secure_channel *channel, net_socket sock,
                       void (*read_password)(char password[PASSWORD_MAX + 1]),
                       const net_deadline &deadline, uint64_t *round_trip_us)
{
    handshake_state s = {};
    channel_open(channel, sock);
    channel->receiver.deadline = deadline;
    return finish(&s, channel, run_as_host(&s, channel, read_password, round_trip_us));
}

bool handshake_as_viewer(secure_channel *channel, net_socket sock, const char *password)
{
    handshake_state s = {};
    channel_open(channel, sock);
    return finish(&s, channel, run_as_viewer(&s, channel, password));
}
