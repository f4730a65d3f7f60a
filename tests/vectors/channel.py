#!/usr/bin/env python3
"""Makes channel.h: expected bytes of handshake and records, computed by libsodium.

    python3 tests/vectors/channel.py > tests/vectors/channel.h

Needs the shared library (Debian: libsodium23). Nothing here comes from our own program.
"""
import ctypes
import ctypes.util

sodium = ctypes.CDLL(ctypes.util.find_library("sodium"))
assert sodium.sodium_init() >= 0
ull = ctypes.c_ulonglong


def public_key(secret):
    out = ctypes.create_string_buffer(32)
    assert sodium.crypto_scalarmult_base(out, secret) == 0
    return out.raw


def shared_secret(secret, peer):
    """None where the result is all zero."""
    out = ctypes.create_string_buffer(32)
    return out.raw if sodium.crypto_scalarmult(out, secret, peer) == 0 else None


def blake2b(size, message, key=b""):
    out = ctypes.create_string_buffer(size)
    assert sodium.crypto_generichash(out, ctypes.c_size_t(size), message, ull(len(message)),
                                     key or None, ctypes.c_size_t(len(key))) == 0
    return out.raw


def record(key, counter, plain):
    header = len(plain).to_bytes(4, "little")
    nonce = counter.to_bytes(8, "little") + bytes(16)
    out = ctypes.create_string_buffer(len(plain) + 16)
    size = ull()
    assert sodium.crypto_aead_xchacha20poly1305_ietf_encrypt(
        out, ctypes.byref(size), plain, ull(len(plain)), header, ull(4), None, nonce, key) == 0
    assert size.value == len(plain) + 16
    return header + out.raw


def session_key(shared, viewer_key, host_key, password):
    return blake2b(32, shared + viewer_key + host_key + b"qv-v1" + password)


def pattern(n):
    return bytes((7 * i + 1) & 255 for i in range(n))


def array(data):
    if not data:
        return "{}"
    rows = [data[i:i + 12] for i in range(0, len(data), 12)]
    return "{" + ",\n     ".join(", ".join("0x%02X" % b for b in row) for row in rows) + "}"


def table(kind, name, rows):
    print(f"constexpr {kind} {name}[] = {{")
    for row in rows:
        print("    {" + ",\n     ".join(row) + "},")
    print("};\n")


VIEWER_SECRET = blake2b(32, b"viewer secret")
HOST_SECRET = blake2b(32, b"host secret")

print("""// Handshakes and records, by tests/vectors/channel.py with libsodium.
// clang-format off

struct handshake_vector {
    const char *password;
    uint8_t viewer_secret[32], viewer_key[32];
    uint8_t host_secret[32], host_key[32];
    uint8_t shared_secret[32], session_key[32];
    uint8_t client_confirm[16], server_confirm[16];
    uint8_t c2s[32], s2c[32];
    uint8_t host_first[20 + 10];   // the host's first record, plain text "from  host"
    uint8_t host_second[20];       // its second, empty
    uint8_t viewer_first[20 + 12]; // the viewer's first, plain text "from  viewer"
};

// A public key that makes every shared secret zero, and the confirmations of a peer that
// sends it and computes with that secret. Password "secret", our secret key that of
// HANDSHAKES[0].
struct low_order_vector {
    uint8_t key[32];
    uint8_t client_confirm[16]; // the key sent by the viewer
    uint8_t server_confirm[16]; // the key sent by the host
};

// Plain text: byte i is (7 * i + 1) & 255. Key: RECORD_KEY.
struct record_vector {
    uint64_t counter;
    uint32_t len;
    uint8_t record[20 + 300];
};
""")

rows = []
for password in [b"", b"abc12345", b"0123456789abcdef0123456789ABCDEF"]:
    v, h = public_key(VIEWER_SECRET), public_key(HOST_SECRET)
    shared = shared_secret(HOST_SECRET, v)
    assert shared and shared == shared_secret(VIEWER_SECRET, h)
    key = session_key(shared, v, h, password)
    c2s, s2c = blake2b(32, b"c2s", key), blake2b(32, b"s2c", key)
    rows.append(['"%s"' % password.decode()] + [array(x) for x in (
        VIEWER_SECRET, v, HOST_SECRET, h, shared, key,
        blake2b(16, b"c-confirm", key), blake2b(16, b"s-confirm", key), c2s, s2c,
        record(s2c, 0, b"from  host"), record(s2c, 1, b""), record(c2s, 0, b"from  viewer"))])
table("handshake_vector", "HANDSHAKES", rows)

# The points of small order, and 0, p - 1, p and p + 1 with them; the library refuses each.
P = 2**255 - 19
rows = []
for number in [0, 1, P - 1, P, P + 1,
               325606250916557431795983626356110631294008115727848805560023387167927233504,
               39382357235489614581723060781553021112529911719440698176882885853963445705823]:
    bad = number.to_bytes(32, "little")
    assert shared_secret(HOST_SECRET, bad) is None
    as_viewer = session_key(bytes(32), bad, public_key(HOST_SECRET), b"secret")
    as_host = session_key(bytes(32), public_key(VIEWER_SECRET), bad, b"secret")
    rows.append([array(bad), array(blake2b(16, b"c-confirm", as_viewer)),
                 array(blake2b(16, b"s-confirm", as_host))])
table("low_order_vector", "LOW_ORDER_KEYS", rows)

RECORD_KEY = blake2b(32, b"record key")
print(f"constexpr uint8_t RECORD_KEY[32] = {array(RECORD_KEY)};\n")
rows = []
for counter, size in [(0, 0), (0, 1), (0, 63), (1, 64), (2, 300), (0x0102030405060708, 65)]:
    rows.append(["0x%016Xull" % counter, str(size),
                 array(record(RECORD_KEY, counter, pattern(size)))])
table("record_vector", "RECORDS", rows)
