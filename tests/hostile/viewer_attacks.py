"""Hosts that mean harm: everything that somebody can do to a viewer that connects to them,
whether or not they know the password that its user typed.

Each attack is a function of the viewer that it is aimed at (a ViewerTarget), which connects
as often as the attack wants, and says what the viewer has to print and to end with. ATTACKS
lists them; run() plays them, and after each an honest host must be shown rightly.
"""

import contextlib
import re
import socket
import struct
import time

from attack import (SECONDS, SEED, WAIT_SECONDS, Failure, check, check_holds, chosen, rnd,
                    sample, wait_for)
from peer import (CACHE_ADVERT, CACHE_MISS, CLIENT_HELLO, COPY_RECTS, CURSOR, FRAME_ACK, FRAME_END,
                  LOW_ORDER, MOUSE, RECORD_MAX, SERVER_HELLO, TEXT_LAYER, TILE, TILE_REF, WINDOW_LIST,
                  Closed, Peer, Picture, compress, flipped, message)

PASSWORD = "correct-horse"
AUTH_FAILED = "authentication failed (wrong password, or host not online)"
BAD_HELLO = "bad hello from host"


class Session:
    """One run of the viewer's program, or of its session. Derived classes say how."""

    def printed(self):
        """The lines so far."""
        raise NotImplementedError

    def status(self):
        """Waits for the end. Returns the exit status."""
        raise NotImplementedError

    def close_window(self):
        raise NotImplementedError

    def shows(self, picture):
        """Whether the viewer has exactly this picture (a Picture)."""
        raise NotImplementedError


class ViewerTarget:
    thorough = False  # a session costs little
    scripted = False  # the whole picture can be asked for

    def start(self, port):
        """Starts a Session with 127.0.0.1 on this port and PASSWORD."""
        raise NotImplementedError

    def holds(self):
        """As HostTarget.holds; between sessions."""
        return {}

    @contextlib.contextmanager
    def visit(self, receive_buffer=None):
        """The viewer connects: (its Session, a Peer at the beginning of the handshake)."""
        with socket.socket() as listener:
            if receive_buffer:
                listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
            listener.bind(("127.0.0.1", 0))
            listener.listen()
            listener.settimeout(WAIT_SECONDS)
            running = self.start(listener.getsockname()[1])
            sock, _ = listener.accept()
        with Peer(sock) as peer:
            yield running, peer

    @contextlib.contextmanager
    def authenticated(self, **options):
        with self.visit(**options) as (running, peer):
            peer.host_handshake(PASSWORD)
            kind, hello = peer.recv_message()
            check(kind == CLIENT_HELLO and len(hello) == 34 and hello[:2] == b"\3\0",
                  f"client hello {kind} {hello!r}")
            yield running, peer

    @contextlib.contextmanager
    def session(self, width=300, height=200, name=b"hostile", caps=3, **options):
        """A session that has got to its window. At the end the connection is closed, and the
        viewer has to end as after any session."""
        with self.authenticated(**options) as (running, peer):
            peer.send(peer.server_hello(width, height, caps, name))
            peer.frame = 0
            yield running, peer
            peer.end_of_sending()
            with contextlib.suppress(Closed):
                while True:
                    peer.recv_message()
        ends(running, 0, f"connected to {text_of(name)} ({width}x{height})")


CACHE_LINE = re.compile(r"tile cache: \d+ tiles resident from earlier sessions")
# What comes unasked: windows come up under the pointer, and the cache is advertised.
UNASKED = (MOUSE, CACHE_ADVERT)


def text_of(name):
    return name[:32].split(b"\0")[0].decode("latin-1")


def ends(running, status, line):
    got = running.status()
    check(got == status, f"the viewer ended with {got}, not {status}")
    # How many tiles its file had, where the host granted the cache, depends on what was before.
    printed = [text for text in running.printed() if not CACHE_LINE.fullmatch(text)]
    check(printed == [line], f"the viewer printed {running.printed()}, not {line!r}")


def answers(peer):
    """Ends a frame. Returns every message that comes before its acknowledgement."""
    peer.frame += 1
    stamp = struct.pack("<II", peer.frame, 0xA5A5A5A5)
    check(peer.send(message(FRAME_END, stamp)), "the viewer closed")
    got = []
    while True:
        kind, payload = peer.recv_message()
        if (kind, payload) == (FRAME_ACK, stamp):
            return got
        if kind not in UNASKED:
            got.append((kind, payload))


def silence(peer):
    """The viewer has taken everything and answers nothing but the frame."""
    got = answers(peer)
    check(got == [], f"the viewer answers {got}")


def acknowledgement(peer):
    """The next acknowledgement's payload."""
    while True:
        kind, payload = peer.recv_message()
        if kind not in UNASKED:
            check(kind == FRAME_ACK and len(payload) == 8, f"the viewer sends {kind}")
            return payload


def noise_tile():
    return rnd.randbytes(16384)


def tile(x, y, pixels, key=0, raw=1):
    return message(TILE, struct.pack("<HHBQ", x, y, raw, key) + pixels)


def rects(*rows):
    return message(COPY_RECTS, b"".join(struct.pack("<6i", *row) for row in rows))


def text(x=0, y=0, w=100, h=50, cols=10, rows=5, count=0, size=None, block=b"", raw=None):
    """A text layer; its block compressed from `raw`, or as given."""
    if raw is not None:
        block, size = compress(raw), len(raw) if size is None else size
    return message(TEXT_LAYER, struct.pack("<4i3Hi", x, y, w, h, cols, rows, count,
                                           size or 0) + block)


def send_both(peer, picture, data):
    """Sends messages of an honest host and applies them to our own picture."""
    peer.send(data)
    at = 0
    while at < len(data):
        size = struct.unpack("<I", data[at + 4:at + 8])[0]
        picture.apply(data[at], data[at + 8:at + 8 + size])
        at += 8 + size


def wait_shown(running, picture):
    wait_for("the viewer to show the picture", lambda: running.shows(picture))


def honest(target):
    """An honest host is shown to the pixel."""
    with target.session(name=b"honest") as (running, peer):
        picture = Picture(300, 200)
        for y in range(4):
            for x in range(5):
                send_both(peer, picture, tile(x, y, noise_tile(), key=x * 7 + y * 100 + 1))
        send_both(peer, picture, tile(2, 1, compress(b"\x5a" * 16384), raw=0))
        send_both(peer, picture, rects((10, 20, 50, 60, 120, 90)))
        send_both(peer, picture, message(TILE_REF, struct.pack("<HHQ", 4, 3, 1)))
        silence(peer)
        wait_shown(running, picture)


# ---------------------------------------------------------------------------------------
# Without the password


def fails(target, line):
    """A visit that has to end with this line and 1."""
    @contextlib.contextmanager
    def visit():
        with target.visit() as (running, peer):
            yield peer
        ends(running, 1, line)
    return visit()


def cut_or_reset(peer, number):
    """Cuts the connection in one of the ways in which it can be."""
    if number % 2:
        peer.close(abort=True)
    else:
        peer.end_of_sending()
        peer.rest()


def cut_in_the_handshake(target):
    for cut in sample(range(48), 48 if target.thorough else 4):
        with fails(target, AUTH_FAILED) as peer:
            peer.other = peer.recv_raw(32)
            peer.send_raw(peer.public[:cut])
            if cut >= 32:
                peer.derive_session(PASSWORD, peer.other, peer.public)
                check(peer.recv_raw(16) == peer.keyed(b"c-confirm", 16), "confirmation")
                peer.send_raw(peer.keyed(b"s-confirm", 16)[:cut - 32])
            cut_or_reset(peer, cut)


def flips_in_the_handshake(target):
    rows = [("key", at) for at in range(32)] + [("confirmation", at) for at in range(16)]
    rows.append(("top bit", 31))
    for where, at in sample(rows, 49 if target.thorough else 3):
        bit = at * 8 + (7 if where == "top bit" else rnd.randrange(8))
        with fails(target, AUTH_FAILED) as peer:
            peer.other = peer.recv_raw(32)
            peer.send_raw(flipped(peer.public, bit) if where != "confirmation" else
                          peer.public)
            peer.derive_session(PASSWORD, peer.other, peer.public)
            proof = peer.recv_raw(16)
            check((proof == peer.keyed(b"c-confirm", 16)) == (where == "confirmation"),
                  "the viewer's confirmation")
            proof = peer.keyed(b"s-confirm", 16)
            peer.send_raw(flipped(proof, bit) if where == "confirmation" else proof)
            check(peer.rest() == b"", "the viewer answers a wrong confirmation")


def keys_of_small_order(target):
    """The viewer says nothing that depends on its password."""
    for key in sample(LOW_ORDER, 9 if target.thorough else 3):
        with fails(target, AUTH_FAILED) as peer:
            peer.recv_raw(32)
            peer.send_raw(key)
            check(peer.rest() == b"", "the viewer answers a key of small order")


def mirrors(target):
    """Everything that the viewer says comes back to it."""
    with fails(target, AUTH_FAILED) as peer:
        peer.send_raw(peer.recv_raw(32))
        with contextlib.suppress(Closed):
            peer.send_raw(peer.recv_raw(16))
        check(peer.rest() == b"", "an answer to its own confirmation")


def other_passwords(target):
    for password in sample(["", PASSWORD + "x", PASSWORD[:-1]], 3 if target.thorough else 2):
        with fails(target, AUTH_FAILED) as peer:
            peer.other = peer.recv_raw(32)
            peer.send_raw(peer.public)
            peer.derive_session(password, peer.other, peer.public)
            check(peer.recv_raw(16) != peer.keyed(b"c-confirm", 16), "a wrong password fits")
            peer.send_raw(peer.keyed(b"s-confirm", 16))
            check(peer.rest() == b"", "an answer to a wrong confirmation")


# ---------------------------------------------------------------------------------------
# With the password: the hello


@contextlib.contextmanager
def bad_hello(target):
    with target.authenticated() as (running, peer):
        yield peer
        peer.end_of_sending()
        check(peer.rest() == b"", "the viewer answers a bad hello")
    ends(running, 1, BAD_HELLO)


def cut_in_the_hello(target):
    for cut in sample(range(72), 72 if target.thorough else 4):
        with target.authenticated() as (running, peer):
            peer.send_raw(peer.seal(peer.server_hello())[:cut])
            cut_or_reset(peer, cut)
        ends(running, 1, BAD_HELLO)


def flips_in_the_hello(target):
    for at in sample(range(72), 72 if target.thorough else 4):
        with bad_hello(target) as peer:
            peer.send_raw(flipped(peer.seal(peer.server_hello()), at * 8 + rnd.randrange(8)))


def bad_hellos(target):
    side_max = 0x7FFFFFC0
    sizes = [(0, 1), (1, 0), (-1, 1), (1, -1), (-0x80000000, 200), (300, -0x80000000),
             (side_max + 1, 1), (1, side_max + 1), (0x7FFFFFFF, 0x7FFFFFFF),
             (side_max, side_max)]
    body = Peer.server_hello(None)[8:]
    rows = [Peer.server_hello(None, *size) for size in sizes]
    rows += [message(SERVER_HELLO, body, length) for length in
             (0, 1, 43, 45, 44 << 8, 65536, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)]
    rows += [message(kind, body) for kind in range(256) if kind != SERVER_HELLO]
    rows += [message(FRAME_END, bytes(8)), tile(0, 0, noise_tile()), bytes(52),
             rects((0, 0, 1, 1, 2, 2)), message(SERVER_HELLO, body[:43])]
    for row in sample(rows, 70 if target.thorough else 8):
        with bad_hello(target) as peer:
            peer.send(row)
    for plain in (b"", b"\x34\0\0\0"):
        with bad_hello(target) as peer:
            peer.send_raw(plain + peer.server_hello())  # not sealed


def names(target):
    """Names that a printf or a title might take for more than text."""
    for name in (b"%s%n%x%p%s%s", b"", b"n" * 32, b"a\0b", b"\x7f\x1b[2J\x07", b"\xff\xfe\xe4",
                 b"C:\\..\\con"):
        with target.session(name=name) as (running, peer):
            silence(peer)


def odd_hellos(target):
    with target.authenticated() as (running, peer):
        hello = peer.server_hello(tile=0, caps=0xFFFF)
        for byte in hello[:1] + b"\xff\xfe\xfd" + hello[4:]:
            peer.send(b"")
            peer.send(bytes([byte]))
        peer.frame = 0
        silence(peer)
        peer.end_of_sending()
        peer.rest()
    ends(running, 0, "connected to hostile (300x200)")


def sizes_of_the_screen(target):
    """From one pixel to more than there is memory for pictures: shown, or refused in words."""
    sizes = [(1, 1), (1, 30000), (30000, 1), (64, 64), (65, 63), (8192, 8192)]
    if SECONDS or not target.thorough:  # the sanitizer pays for every byte of them
        sizes += [(20000, 20000), (65535, 65535)]
    for width, height in sizes:
        with target.authenticated() as (running, peer):
            peer.send(peer.server_hello(width, height))
            peer.frame = 0
            try:
                peer.send(tile((width - 1) // 64, (height - 1) // 64, noise_tile()) +
                          rects((0, 0, 0, 0, width, 1)) +
                          tile(0xFFFF, 0, noise_tile()) + tile(0, 0xFFFF, noise_tile()))
                silence(peer)
                shown = True
            except (Closed, Failure):
                shown = False
            running.close_window()
            peer.rest()
        if shown:
            ends(running, 0, f"connected to hostile ({width}x{height})")
        else:
            ends(running, 1, BAD_HELLO)
            check(width * height > 1 << 28, "a screen of that size was refused")


# ---------------------------------------------------------------------------------------
# With the password: records


def records_out_of_order(target):
    rows = ["replayed", "dropped", "reordered", "first again"]
    for what in rows:
        with target.session() as (running, peer):
            silence(peer)
            frame = message(FRAME_END, bytes(8))
            one, two = peer.seal(frame), peer.seal(frame)
            peer.send_raw({"replayed": one + one, "dropped": two, "reordered": two + one,
                           "first again": one + peer.seal(frame, 0)}[what])


def flips_in_records(target):
    for at in sample(range(36), 36 if target.thorough else 4):
        with target.session() as (running, peer):
            silence(peer)
            record = peer.seal(message(FRAME_END, bytes(8)))
            peer.send_raw(flipped(record, at * 8 + rnd.randrange(8)))
            peer.end_of_sending()
            with contextlib.suppress(Closed):
                raise Failure("an answer to a record that does not open: "
                              f"{acknowledgement(peer)}")


def cuts_in_records(target):
    for at in sample(range(1, 36), 35 if target.thorough else 3):
        with target.session() as (running, peer):
            silence(peer)
            peer.send_raw(peer.seal(message(FRAME_END, bytes(8)))[:at])


def record_sizes(target):
    for size in sample([RECORD_MAX + 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF],
                       4 if target.thorough else 2):
        with target.session() as (running, peer):
            silence(peer)
            peer.send_raw(struct.pack("<I", size))
            with contextlib.suppress(Closed):
                while True:
                    peer.recv_message()
    with target.session() as (running, peer):
        peer.send(message(CURSOR, bytes(65528)) * 256)
        silence(peer)
        peer.send_raw(b"".join(peer.seal(b"") for _ in range(3000)))
        silence(peer)
        pieces = message(TILE_REF, bytes(12))
        peer.send_raw(b"".join(peer.seal(pieces[i:i + 1]) for i in range(len(pieces))))
        check(answers(peer) == [(CACHE_MISS, bytes(12))], "a miss in pieces")
        peer.send_raw(peer.seal(bytes(RECORD_MAX))[:RECORD_MAX])


# ---------------------------------------------------------------------------------------
# With the password: messages


def every_type_in_every_size(target):
    """What is short, long, empty or unknown changes nothing."""
    least = {COPY_RECTS: 24, TILE: 13, TEXT_LAYER: 26, TILE_REF: 12, FRAME_END: 0}
    with target.session() as (running, peer):
        picture = Picture(300, 200)
        send_both(peer, picture, tile(1, 1, noise_tile(), key=9))
        for kind in range(256):
            sizes = [0, 1, 7, 8, 11, 12, 13, 23, 24, 25, 26, 27, 65535, 65536, 100000]
            for size in sizes if kind < 9 else sample(sizes, 3):
                if size < least.get(kind, 1 << 32):
                    peer.send(message(kind, rnd.randbytes(size), reserved=rnd.randbytes(3)))
        silence(peer)
        wait_shown(running, picture)
        # A frame's end of any size is answered, with what lies in the buffer.
        for size in (0, 1, 7, 9, 65536):
            data = rnd.randbytes(size)
            peer.send(message(FRAME_END, data))
            check(acknowledgement(peer)[:size] == data[:8], "an acknowledgement of other bytes")
        silence(peer)


def payloads_without_end(target):
    """Lengths up to the largest; the connection is cut long before their end."""
    for size in sample([1 << 24, 1 << 30, 0x7FFFFFFF, 0x80000000, 0xFFFFEFFF, 0xFFFFF000,
                        0xFFFFFFFF], 2):
        with target.session() as (running, peer):
            silence(peer)
            peer.send(message(TILE, noise_tile() * 4, size))


def tiles(target):
    with target.session() as (running, peer):
        picture = Picture(300, 200)
        one, two = noise_tile(), noise_tile()
        send_both(peer, picture, tile(4, 3, one, key=5))
        # None of these is a tile.
        block = compress(two)
        edge = [(5, 3), (4, 4), (65535, 65535), (5, 0), (0, 4), (1024, 0), (0, 32768)]
        for x, y in edge:
            peer.send(tile(x, y, two, key=6) + tile(x, y, block, raw=0) +
                      message(TILE_REF, struct.pack("<HHQ", x, y, 5)))
        for raw in (two[:16383], two[:1], b""):
            peer.send(tile(4, 3, raw, key=6) + tile(4, 3, raw, key=6, raw=255))
        for size in (0, 1, 16383, 16385, 65536, 1 << 24):
            peer.send(tile(4, 3, compress(bytes([7]) * size), key=6, raw=0))
        for cut in range(0, len(block), 97):
            peer.send(tile(4, 3, block[:cut], key=6, raw=0))
        for length in (1, 2, 5, 30, 300, 16384, 70000):
            peer.send(tile(4, 3, b"\xff" * length, key=6, raw=0) +
                      tile(4, 3, bytes(length), key=6, raw=0) +
                      tile(4, 3, b"\x1fA\x01\x00" + b"\xff" * length + b"\0", key=6, raw=0) +
                      tile(4, 3, b"\x0f\x01\x00" + b"\xff" * length, key=6, raw=0))
        silence(peer)
        wait_shown(running, picture)
        # Nothing of it was cached either.
        peer.send(message(TILE_REF, struct.pack("<HHQ", 0, 0, 6)))
        check(answers(peer) == [(CACHE_MISS, struct.pack("<HHQ", 0, 0, 6))],
              "a tile that was none is cached")
        # Raw is any number but 0, and what is too long is cut.
        send_both(peer, picture, tile(0, 0, two))
        peer.send(tile(4, 3, two + b"more", raw=200))
        picture.tile(4, 3)[:] = picture.tile(0, 0)
        silence(peer)
        wait_shown(running, picture)


def references(target):
    """To caches that were never filled, that are off, and that are overfilled."""
    with target.session() as (running, peer):
        rows = [struct.pack("<HHQ", rnd.randrange(5), rnd.randrange(4), key)
                for key in [0, 1, 4096, 8192, (1 << 63), (1 << 64) - 1] +
                [rnd.getrandbits(64) for _ in range(300)]]
        peer.send(b"".join(message(TILE_REF, row) for row in rows))
        check(answers(peer) == [(CACHE_MISS, row) for row in rows], "misses")
        # Three hashes of one set: the one not used for longest is gone.
        picture = Picture(300, 200)
        for i in range(3):
            send_both(peer, picture, tile(i, 0, noise_tile(), key=4096 * (i + 1) + 7))
        peer.send(message(TILE_REF, struct.pack("<HHQ", 4, 0, 4096 + 7)))
        check(len(answers(peer)) == 1, "three tiles in two places")
        send_both(peer, picture, message(TILE_REF, struct.pack("<HHQ", 4, 1, 3 * 4096 + 7)))
        silence(peer)
        wait_shown(running, picture)
    with target.session(caps=1) as (running, peer):
        peer.send(tile(0, 0, noise_tile(), key=5) +
                  message(TILE_REF, struct.pack("<HHQ", 1, 1, 5)))
        check(len(answers(peer)) == 1, "a cache that was not granted")


def moves(target):
    low, high = -0x80000000, 0x7FFFFFFF
    with target.session() as (running, peer):
        picture = Picture(300, 200)
        for y in range(4):
            for x in range(5):
                send_both(peer, picture, tile(x, y, noise_tile()))
        outside = [(0, 0, 0, 0, 301, 1), (0, 0, 0, 0, 1, 201), (1, 0, 0, 0, 300, 1),
                   (0, 0, 1, 0, 300, 1), (0, 1, 0, 0, 1, 200), (0, 0, 0, 1, 1, 200),
                   (-1, 0, 0, 0, 5, 5), (0, -1, 0, 0, 5, 5), (0, 0, -1, 0, 5, 5),
                   (0, 0, 0, -1, 5, 5), (0, 0, 0, 0, 0, 5), (0, 0, 0, 0, 5, 0),
                   (0, 0, 0, 0, -5, 5), (0, 0, 0, 0, 5, -5), (high, 0, 0, 0, 1, 1),
                   (0, high, 0, 0, 1, 1), (0, 0, high, high, 1, 1), (high, high, 0, 0, high,
                                                                     high),
                   (1, 1, 1, 1, high, high), (299, 199, 0, 0, 2, 2), (low, low, low, low, low,
                                                                      low),
                   (low, 0, 0, 0, low, 1), (64, 64, 0, 0, low + 64, 5)]
        peer.send(rects(*outside))
        silence(peer)
        wait_shown(running, picture)
        for _ in range(40):
            rows = []
            for _ in range(25):
                w, h = rnd.randrange(1, 301), rnd.randrange(1, 201)
                rows.append((rnd.randrange(301 - w), rnd.randrange(201 - h),
                             rnd.randrange(301 - w), rnd.randrange(201 - h), w, h))
            send_both(peer, picture, rects(*rows))
        edge = rects((0, 0, 0, 0, 300, 200), (0, 0, 1, 1, 299, 199), (1, 1, 0, 0, 299, 199))
        send_both(peer, picture, message(COPY_RECTS, edge[8:] + bytes(23)))
        silence(peer)
        wait_shown(running, picture)


def text_layers(target):
    """Consoles of any size, place and content, and blocks that are none."""
    low, high = -0x80000000, 0x7FFFFFFF
    full = b"".join(struct.pack("<H", row) + struct.pack("<HB", 0x41, 0x1F) * 10
                    for row in range(5))
    with target.session() as (running, peer):
        picture = Picture(300, 200)
        # The longest row in the smallest block, before a larger one has made room.
        for size in (3, 40, 1000):
            peer.send(text(cols=65535, rows=3, count=65535, raw=b"\1\0" + bytes(size - 2)))
        silence(peer)
        most = 65535 if SECONDS or not target.thorough else 1000  # the sanitizer pays for all
        for cols, rows in ((1, 1), (65535, 1), (1, 65535), (65535, most), (0, 5), (5, 0),
                           (65535, 0), (256, 256)):
            for size in (0, 1, -1, low, high, 2 + 3 * cols, 100):
                peer.send(text(cols=cols, rows=rows, count=65535, size=size, block=b"\0"))
                peer.send(text(cols=cols, rows=rows, count=65535, size=size,
                               block=compress(bytes(100))))
                peer.send(text(cols=cols, rows=rows, count=1, size=size))
            silence(peer)
        for place in ((low, low, high, high), (high, high, high, high), (high, low, low, low),
                      (0, 0, 0, 0), (-50, -50, 400, 300), (0, 0, -1, -1), (0, 0, 1, 1)):
            peer.send(text(*place, count=5, raw=full) + text(*place, cols=3, rows=900))
            silence(peer)
        for row in (0, 4, 5, 6, 0x7FFF, 0x8000, 0xFFFF):
            peer.send(text(count=1, raw=struct.pack("<H", row) + full[2:32]))
        for size in (0, 1, 2, 31, 32, 33, 63, 64, len(full)):
            peer.send(text(count=65535, raw=full[:size]))
            peer.send(text(count=65535, size=len(full), block=compress(full[:size])))
        peer.send(text(cols=65535, rows=3, count=3, raw=bytes(2 + 65535 * 3) * 2 + b"\2"))
        silence(peer)
        # Odd characters, all attributes, then off, twice.
        cells = b"".join(struct.pack("<HB", code, code & 255) for code in
                         (0, 1, 0xD800, 0xDFFF, 0xFFFF, 0x202E, 0x0301, 9, 10, 13))
        peer.send(text(w=80, h=80, count=5, raw=b"".join(
            struct.pack("<H", row) + cells for row in range(5))))
        silence(peer)
        peer.send(message(TEXT_LAYER, bytes(26)) * 2)
        send_both(peer, picture, tile(0, 0, noise_tile()))
        silence(peer)
        wait_shown(running, picture)


def ignored_messages(target):
    with target.session() as (running, peer):
        for size in (0, 1, 8, 9, 10, 1000, 200000):
            peer.send(message(CURSOR, rnd.randbytes(size)) +
                      message(WINDOW_LIST, rnd.randbytes(size)) +
                      message(SERVER_HELLO, rnd.randbytes(size)))
        silence(peer)


def frames_without_end(target):
    """Frame ends by the thousand, and a host that takes their acknowledgements."""
    with target.session() as (running, peer):
        for burst in range(10):
            peer.send(message(FRAME_END, bytes(8)) * 300)
            for _ in range(300):
                check(acknowledgement(peer) == bytes(8), "another acknowledgement")


def never_reads(target):
    """A host that takes nothing: the window still closes, at the latest when the viewer's send
    has waited for 10 s. (At once, unless it just wants the picture or the text's state.)"""
    with target.authenticated(receive_buffer=4096) as (running, peer):
        peer.send(peer.server_hello())
        peer.sock.settimeout(2)
        with contextlib.suppress(TimeoutError):
            for burst in range(400):  # until the viewer waits in its send
                peer.send_raw(peer.seal(message(TILE_REF, bytes(12)) * 3000))
        running.close_window()
        closed = time.monotonic()
        running.status()
        check(time.monotonic() - closed < 25, "closing waits for a host that does not read")
    ends(running, 0, "connected to hostile (300x200)")


def stalls(target):
    """A host that falls silent: within a message the window closes at once, and before the
    session the viewer waits, without a limit, until the connection ends."""
    with target.session() as (running, peer):
        silence(peer)
        peer.send(message(TILE, bytes(5000), 16397))
        running.close_window()
        running.status()
    if SECONDS:
        with fails(target, AUTH_FAILED) as peer:
            peer.recv_raw(32)
            time.sleep(30)
            peer.end_of_sending()
            peer.rest()


def one_byte_at_a_time(target):
    with target.visit() as (running, peer):
        peer.other = peer.recv_raw(32)
        peer.derive_session(PASSWORD, peer.other, peer.public)

        def drip(data):
            for byte in data:
                peer.send_raw(bytes([byte]))
                time.sleep(0.002)

        drip(peer.public)
        peer.recv_raw(16)
        drip(peer.keyed(b"s-confirm", 16))
        peer.start_records(b"s2c", b"c2s")
        peer.recv_message()
        drip(peer.seal(peer.server_hello()))
        drip(peer.seal(message(FRAME_END, bytes(8))))
        check(acknowledgement(peer) == bytes(8), "another acknowledgement")
        peer.end_of_sending()
        peer.rest()
    ends(running, 0, "connected to hostile (300x200)")


def random_message():
    kind = rnd.choice([COPY_RECTS, TILE, TILE, TEXT_LAYER, TILE_REF, FRAME_END,
                       rnd.randrange(256)])
    odd = rnd.choice([rnd.randrange(8), rnd.randrange(70000), rnd.getrandbits(32)])
    if kind == TEXT_LAYER and rnd.randrange(2):
        edge = [rnd.choice([0, 1, -1, 100, 0x7FFFFFFF, -0x80000000, rnd.randrange(-500, 500)])
                for _ in range(4)]
        return text(*edge, cols=rnd.choice([1, 10, 300, 65535]), rows=rnd.choice([1, 7, 300]),
                    count=odd & 65535, raw=rnd.randbytes(rnd.randrange(500)))
    if kind == TILE and rnd.randrange(2):
        data = noise_tile() if rnd.randrange(2) else compress(rnd.randbytes(100) * 164)
        return tile(rnd.randrange(6), rnd.randrange(5), data, rnd.randrange(9000),
                    rnd.randrange(2))
    if kind == TILE_REF and rnd.randrange(2):
        return message(TILE_REF, struct.pack("<HHQ", rnd.randrange(6), rnd.randrange(5),
                                             rnd.randrange(9000)))
    if kind == COPY_RECTS and rnd.randrange(2):
        return rects(*[[rnd.randrange(-5, 320) for _ in range(6)] for _ in range(9)])
    payload = rnd.randbytes(rnd.randrange(1 << rnd.randrange(1, 12)))
    if kind == TEXT_LAYER:  # not gigabytes each time: few rows, a block of at most 16 MiB
        payload = payload[:19] + b"\0" + payload[20:25] + b"\0" + payload[26:]
    return message(kind, payload)


def random_conversations(target, rounds):
    """Streams of messages, right and wrong, whose connection is cut at any byte."""
    for _ in range(rounds):
        with target.authenticated() as (running, peer):
            peer.send(peer.server_hello(caps=rnd.randrange(4)))
            stream = b"".join(random_message() for _ in range(60))
            if rnd.randrange(3) == 0:
                at = rnd.randrange(len(stream) * 8)
                stream = flipped(stream, at)  # before it is sealed: lengths and types that lie
            record = peer.seal(stream)
            cut = rnd.choice([len(record), rnd.randrange(len(record))])
            peer.send_raw(record[:cut])
            peer.end_of_sending()
            with contextlib.suppress(Closed):
                while True:
                    kind, payload = peer.recv_message()
                    check(kind == CACHE_ADVERT or
                          (kind, len(payload)) in ((FRAME_ACK, 8), (CACHE_MISS, 12),
                                                   (MOUSE, 12)),
                          f"the viewer sends {kind}")
        ends(running, 0, "connected to hostile (300x200)")


def a_few_random_conversations(target):
    random_conversations(target, 25 if target.thorough else 4)


ATTACKS = [
    cut_in_the_handshake, flips_in_the_handshake, keys_of_small_order, mirrors,
    other_passwords, cut_in_the_hello, flips_in_the_hello, bad_hellos, names, odd_hellos,
    sizes_of_the_screen, records_out_of_order, flips_in_records, cuts_in_records, record_sizes,
    every_type_in_every_size, payloads_without_end, tiles, references, moves, text_layers,
    ignored_messages, frames_without_end, never_reads, stalls, one_byte_at_a_time,
    a_few_random_conversations,
]


def run(test, target):
    print(f"attacks on the viewer: QV_SEED={SEED}", flush=True)
    honest(target)
    honest(target)
    before = target.holds()
    for number, attack in enumerate(chosen(ATTACKS)):
        with test.subTest(attack=attack.__name__):
            started = time.monotonic()
            attack(target)
            # A process of its own for each session remembers nothing.
            if target.thorough or number % 9 == 8:
                honest(target)
            check_holds(target, before)
            print(f"  {attack.__name__}: {time.monotonic() - started:.1f} s", flush=True)
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        random_conversations(target, 20)
        honest(target)
        check_holds(target, before)
