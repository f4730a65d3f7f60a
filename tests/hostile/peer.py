"""The other end of a connection, written for misuse: both sides of the handshake, records
and messages, through libsodium and liblz4 alone. It shares no code with the product.

Whoever uses it may take every step by itself, with bytes of its own choosing. What it
receives it checks: a record that does not open is a failure of the product.
"""

import contextlib
import ctypes
import os
import socket
import struct
import threading

import numpy

sodium = ctypes.CDLL("libsodium.so.23")
lz4 = ctypes.CDLL("liblz4.so.1")
if sodium.sodium_init() < 0:
    raise OSError("libsodium does not start")

RECORD_MAX = 16777216
TAG = 16
HANDSHAKE_SECONDS = 90  # an outer limit: nothing here takes a second by itself

(SERVER_HELLO, COPY_RECTS, TILE, TEXT_LAYER, CURSOR, WINDOW_LIST, FRAME_END,
 TILE_REF) = range(1, 9)
(CLIENT_HELLO, FRAME_ACK, MOUSE, KEY, CHAR, CACHE_ADVERT, CACHE_MISS) = range(0x80, 0x87)

# Points of small order on the curve and its twist: every one gives a shared secret of zeros.
LOW_ORDER = [bytes.fromhex(text) for text in (
    "00" * 32,
    "01" + "00" * 31,
    "e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b800",
    "5f9c95bca3508c24b1d0b1559c83ef5b04445cc4581c8e86d8224eddd09f1157",
    "ec" + "ff" * 30 + "7f",
    "ed" + "ff" * 30 + "7f",
    "ee" + "ff" * 30 + "7f",
    "00" * 31 + "80",
    "01" + "00" * 30 + "80",
)]


def flipped(data, bit):
    """The bytes with one bit changed."""
    out = bytearray(data)
    out[bit // 8] ^= 1 << bit % 8
    return bytes(out)


def message(kind, payload=b"", length=None, reserved=b"\0\0\0"):
    """A message; its header may lie about the length."""
    return (bytes([kind]) + reserved +
            struct.pack("<I", len(payload) if length is None else length) + payload)


def compress(data):
    out = ctypes.create_string_buffer(len(data) + len(data) // 255 + 16)
    size = lz4.LZ4_compress_default(bytes(data), out, len(data), len(out))
    assert size > 0
    return out.raw[:size]


def decompress(block, size):
    """The block's bytes, or None unless they are this many."""
    out = ctypes.create_string_buffer(size)
    got = lz4.LZ4_decompress_safe(bytes(block), out, len(block), size)
    return out.raw if got == size else None


def _hash(data, size, key=b""):
    out = ctypes.create_string_buffer(size)
    sodium.crypto_generichash(out, ctypes.c_size_t(size), data, ctypes.c_ulonglong(len(data)),
                              key or None, ctypes.c_size_t(len(key)))
    return out.raw


class Closed(Exception):
    """The other side closed the connection, or aborted it."""


class Peer:
    """One connection. Handshake steps, then records, then messages."""

    def __init__(self, sock):
        self.sock = sock
        sock.settimeout(HANDSHAKE_SECONDS)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.secret = os.urandom(32)
        public = ctypes.create_string_buffer(32)
        sodium.crypto_scalarmult_base(public, self.secret)
        self.public = public.raw
        self.other = b""  # the other side's public key
        self.session_key = self.send_key = self.recv_key = b""
        self.send_counter = self.recv_counter = 0
        self.plain = b""  # received and not yet taken
        self.send_lock = threading.Lock()  # records leave in the order of their numbers

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    # -- bytes

    def send_raw(self, data):
        """True unless the other side has gone."""
        try:
            self.sock.sendall(data)
            return True
        except (ConnectionError, BrokenPipeError):
            return False

    def recv_raw(self, count):
        out = b""
        while len(out) < count:
            try:
                part = self.sock.recv(count - len(out))
            except ConnectionError as error:
                raise Closed(f"{len(out)} of {count} bytes, then {error}") from None
            if not part:
                raise Closed(f"{len(out)} of {count} bytes")
            out += part
        return out

    def rest(self):
        """Every byte that still comes until the other side closes."""
        out = b""
        with contextlib.suppress(ConnectionError):
            while True:
                part = self.sock.recv(65536)
                if not part:
                    break
                out += part
        return out

    def end_of_sending(self):
        with contextlib.suppress(OSError):
            self.sock.shutdown(socket.SHUT_WR)

    def close(self, abort=False):
        """Closes; with abort, by a reset."""
        if abort:
            with contextlib.suppress(OSError):
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                     struct.pack("ii", 1, 0))
        self.sock.close()

    # -- handshake

    def derive_session(self, password, viewer_key, host_key):
        shared = ctypes.create_string_buffer(32)
        sodium.crypto_scalarmult(shared, self.secret, self.other)
        text = shared.raw + viewer_key + host_key + b"qv-v1" + password.encode()
        self.session_key = _hash(text, 32)

    def keyed(self, label, size):
        return _hash(label, size, self.session_key)

    def start_records(self, send_label, recv_label):
        self.send_key = self.keyed(send_label, 32)
        self.recv_key = self.keyed(recv_label, 32)

    def viewer_handshake(self, password):
        """As the viewer. Raises Closed when the host closes instead."""
        self.send_raw(self.public)
        self.other = self.recv_raw(32)
        self.derive_session(password, self.public, self.other)
        self.send_raw(self.keyed(b"c-confirm", 16))
        assert self.recv_raw(16) == self.keyed(b"s-confirm", 16), "wrong confirmation"
        self.start_records(b"c2s", b"s2c")

    def host_handshake(self, password):
        """As the host. Raises Closed when the viewer closes instead."""
        self.host_keys(password)
        self.send_raw(self.keyed(b"s-confirm", 16))
        self.start_records(b"s2c", b"c2s")

    def host_keys(self, password):
        """The host's side up to the viewer's confirmation."""
        self.other = self.recv_raw(32)
        self.send_raw(self.public)
        self.derive_session(password, self.other, self.public)
        assert self.recv_raw(16) == self.keyed(b"c-confirm", 16), "wrong confirmation"

    # -- records

    def seal(self, plain, counter=None):
        """The record as it goes on the wire; by itself the next in order."""
        if counter is None:
            counter = self.send_counter
            self.send_counter += 1
        head = struct.pack("<I", len(plain))
        nonce = struct.pack("<Q", counter) + bytes(16)
        out = ctypes.create_string_buffer(len(plain) + TAG)
        sodium.crypto_aead_xchacha20poly1305_ietf_encrypt(
            out, None, bytes(plain), ctypes.c_ulonglong(len(plain)), head,
            ctypes.c_ulonglong(4), None, nonce, self.send_key)
        return head + out.raw

    def send(self, plain):
        """Sends a record. Any thread."""
        with self.send_lock:
            return self.send_raw(self.seal(plain))

    def send_each(self, plains):
        """Sends each as a record of its own, all at once. Any thread."""
        with self.send_lock:
            return self.send_raw(b"".join(self.seal(plain) for plain in plains))

    def recv_record(self):
        head = self.recv_raw(4)
        size = struct.unpack("<I", head)[0]
        assert size <= RECORD_MAX, f"a record of {size} bytes"
        body = self.recv_raw(size + TAG)
        nonce = struct.pack("<Q", self.recv_counter) + bytes(16)
        self.recv_counter += 1
        out = ctypes.create_string_buffer(size + 1)
        failed = sodium.crypto_aead_xchacha20poly1305_ietf_decrypt(
            out, None, None, body, ctypes.c_ulonglong(len(body)), head, ctypes.c_ulonglong(4),
            nonce, self.recv_key)
        assert failed == 0, "a record does not open"
        return out.raw[:size]

    # -- messages

    def recv_message(self):
        """(type, payload) of the next message."""
        while len(self.plain) < 8:
            self.plain += self.recv_record()
        kind, size = self.plain[0], struct.unpack("<I", self.plain[4:8])[0]
        while len(self.plain) < 8 + size:
            self.plain += self.recv_record()
        payload, self.plain = self.plain[8:8 + size], self.plain[8 + size:]
        return kind, payload

    def client_hello(self, caps=3, name=b"hostile"):
        return message(CLIENT_HELLO, struct.pack("<H32s", caps, name))

    def server_hello(self, width=300, height=200, caps=3, name=b"hostile", tile=64):
        return message(SERVER_HELLO,
                       struct.pack("<iiHH32s", width, height, tile, caps, name))


class Picture:
    """A viewer's picture by the rules of the messages, and its cache without a limit."""

    def __init__(self, width, height):
        self.width, self.height = width, height
        self.columns, self.rows = (width + 63) // 64, (height + 63) // 64
        self.pixels = numpy.zeros((self.rows * 64, self.columns * 64 * 4), numpy.uint8)
        self.cache = {}

    def tile(self, x, y):
        return self.pixels[y * 64:y * 64 + 64, x * 256:x * 256 + 256]

    def apply(self, kind, payload):
        """Applies a message of an honest host. Returns a miss to send, or None."""
        if kind == TILE:
            x, y, raw, key = struct.unpack("<HHBQ", payload[:13])
            tile = self.tile(x, y)
            data = payload[13:] if raw else decompress(payload[13:], 16384)
            assert data is not None and len(data) == 16384, "a tile of another size"
            data = numpy.frombuffer(data, numpy.uint8).reshape(64, 256)
            if raw:
                tile[:] = data
            else:
                tile ^= data
            if key:
                self.cache[key] = tile.copy()
        elif kind == TILE_REF:
            x, y, key = struct.unpack("<HHQ", payload)
            if key not in self.cache:
                return message(CACHE_MISS, payload)
            self.tile(x, y)[:] = self.cache[key]
        elif kind == COPY_RECTS:
            for at in range(0, len(payload) - 23, 24):
                self.move(*struct.unpack("<6i", payload[at:at + 24]))
        return None

    def move(self, sx, sy, dx, dy, w, h):
        if (min(sx, sy, dx, dy) < 0 or w <= 0 or h <= 0 or max(sx, dx) + w > self.width or
                max(sy, dy) + h > self.height):
            return
        part = self.pixels[sy:sy + h, sx * 4:(sx + w) * 4].copy()
        self.pixels[dy:dy + h, dx * 4:(dx + w) * 4] = part

    def visible(self):
        """rows x columns x (red, green, blue)."""
        shown = self.pixels.reshape(self.rows * 64, self.columns * 64, 4)
        return shown[:self.height, :self.width, 2::-1]
