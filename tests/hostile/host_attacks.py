"""Viewers that mean harm: everything that somebody can do to a host's port, with and without
the password.

Each attack is a function of the host that it is aimed at (a HostTarget) and says what the
host has to answer: a line in its log, silence, or the end of the connection. ATTACKS lists
them; run() plays them, and after each an honest viewer must be served and get the picture,
and the process must hold what it held before.
"""

import contextlib
import re
import socket
import struct
import threading
import time

import numpy

from attack import (SECONDS, SEED, WAIT_SECONDS, Failure, check, check_holds, chosen, rnd,
                    sample, wait_for)
from peer import (CACHE_ADVERT, CACHE_MISS, CHAR, CLIENT_HELLO, FRAME_ACK, FRAME_END, KEY, LOW_ORDER,
                  MOUSE, RECORD_MAX, SERVER_HELLO, Closed, Peer, Picture, flipped, message)

AUTH_FAILED = re.escape("auth failed (wrong password or not an qv client)")
STATS = r"session stats: \d+ tiles sent, \d+ as cache refs \(\d+%\)"
DISCONNECTED = "client disconnected"
PAYLOAD_MAX = 65536
HELLO_SECONDS = 15


def connected(name="hostile", caps=3):
    return re.escape(f"client connected: {name}, caps={caps} "
                     f"(text={caps & 1} cache={caps >> 1 & 1})")


SESSION = [connected(), STATS, DISCONNECTED]


class HostTarget:
    """A host under attack. Derived classes say how to look at it."""

    address = ("127.0.0.1", 7777)
    password = ""
    scripted = False  # the desktop and the clock obey, and input goes nowhere

    def log(self):
        """The log's lines, without those that only measure."""
        raise NotImplementedError

    def pressed(self):
        """Virtual keys and buttons that are down."""
        raise NotImplementedError

    def holds(self):
        """{what: (count, how much more is allowed)}: what a leak would raise."""
        raise NotImplementedError

    def is_running(self):
        raise NotImplementedError

    def expected_picture(self):
        """What a viewer has to show, rows x columns x (red, green, blue)."""
        raise NotImplementedError

    def input_calls(self):
        """How many calls have injected input, or None where nobody counts."""
        return None

    def skip(self, ms):
        """Puts the clock forward where it obeys."""

    def draw(self, what):
        """Tells the desktop what to do, where it obeys."""

    # -- for the attacks

    def connect(self, receive_buffer=None):
        sock = socket.socket()
        if receive_buffer:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        sock.settimeout(WAIT_SECONDS)
        sock.connect(self.address)
        return Peer(sock)

    def authenticated(self):
        peer = self.connect()
        peer.viewer_handshake(self.password)
        return peer

    def log_in(self, caps=3, name=b"hostile", peer=None):
        peer = peer or self.connect()
        peer.viewer_handshake(self.password)
        peer.send(peer.client_hello(caps, name))
        kind, hello = peer.recv_message()
        check(kind == SERVER_HELLO and len(hello) == 44, f"hello of type {kind}")
        peer.width, peer.height, tile, granted = struct.unpack("<iiHH", hello[:12])
        check((tile, granted) == (64, 3), f"hello {hello!r}")
        return peer

    @contextlib.contextmanager
    def lines(self, *expected):
        """Exactly these lines (regular expressions) come into the log, and nothing else by
        the time that they have come; for none, by the time that the next one is served."""
        before = len(self.log())
        yield
        if not expected:
            expected = [connected("next"), STATS, DISCONNECTED]
            self.log_in(name=b"next").close()
        wait_for(f"lines {expected}", lambda: len(self.log()) >= before + len(expected))
        got = self.log()[before:]
        for pattern, line in zip(expected, got):
            check(re.fullmatch(pattern, line), f"log line {line!r} where {pattern!r} is due")
        check(len(got) == len(expected), f"log lines too many: {got[len(expected):]}")

    def synchronise(self, peer):
        """Returns when the host has acted on all that was sent before. Costs one line."""
        count = self.count("cache: client advertised 0 tiles")
        check(peer.send(message(CACHE_ADVERT)), "the host closed")
        wait_for("the host to be alive",
                 lambda: self.count("cache: client advertised 0 tiles") > count)

    def count(self, beginning):
        return sum(line.startswith(beginning) for line in self.log())


SYNCHRONISED = r"cache: client advertised 0 tiles \(mirror now \d+\)"


class Reader:
    """Receives for a peer what the host sends, on a thread: keeps the picture, acknowledges
    frames and reports misses, as a viewer does."""

    def __init__(self, peer, acknowledges=True):
        self.peer = peer
        self.picture = Picture(peer.width, peer.height)
        self.frames = 0
        self.acknowledges = acknowledges
        self.failure = None
        self.lock = threading.Lock()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        try:
            while True:
                kind, payload = self.peer.recv_message()
                with self.lock:
                    answer = self.picture.apply(kind, payload)
                    if kind == FRAME_END:
                        self.frames += 1
                        if self.acknowledges:
                            answer = message(FRAME_ACK, payload)
                if answer:
                    self.peer.send(answer)
        except (Closed, OSError):
            pass
        except Exception as error:  # a record that does not open, say
            self.failure = error

    def wait_frames(self, more):
        target = self.frames + more
        wait_for(f"{more} more frames", lambda: self.frames >= target or self.failure)
        self.check()

    def check(self):
        if self.failure:
            raise Failure(f"the host sent rubbish: {self.failure}")

    def shows(self, expected):
        with self.lock:
            return numpy.array_equal(self.picture.visible(), expected)

    def wait_picture(self, target):
        wait_for("the right picture",
                 lambda: self.failure or self.shows(target.expected_picture()))
        self.check()

    def end(self):
        """After the peer's connection was shut down."""
        self.thread.join(WAIT_SECONDS)
        check(not self.thread.is_alive(), "the host does not close")
        self.check()


@contextlib.contextmanager
def session(target, **hello):
    """A session whose frames are received. Ends by closing."""
    peer = target.log_in(**hello)
    reader = Reader(peer)
    try:
        yield peer, reader
    finally:
        peer.end_of_sending()
        reader.end()
        peer.close()


def honest(target):
    """An honest viewer is served and gets the picture."""
    target.draw(f"paint {rnd.randrange(1 << 30)}")
    with target.lines(connected("honest"), STATS, DISCONNECTED):
        with session(target, name=b"honest") as (_, reader):
            reader.wait_picture(target)


def end_kinds(peer, kind):
    """Ends a connection in one of the ways in which one can."""
    if kind % 3 == 0:
        peer.close()
    elif kind % 3 == 1:
        peer.close(abort=True)
    else:
        peer.end_of_sending()
        check(peer.rest() == b"", "the host answers a connection that is cut")
        peer.close()


def refused(target, peer):
    """The host closes without another byte."""
    check(peer.rest() == b"", "an answer where silence is due")
    peer.close()


# ---------------------------------------------------------------------------------------
# Without the password


def cut_in_the_handshake(target):
    for cut in sample(range(48), 14 if target.scripted else 5):
        with target.lines(AUTH_FAILED):
            peer = target.connect()
            peer.send_raw(peer.public[:cut])
            if cut >= 32:
                peer.other = peer.recv_raw(32)
                peer.derive_session(target.password, peer.public, peer.other)
                peer.send_raw(peer.keyed(b"c-confirm", 16)[:cut - 32])
            end_kinds(peer, cut)
        target.skip(300)


def flips_in_the_handshake(target):
    """A byte that changes on its way, to the host and from it."""
    rows = [(where, at) for where, size in (("key", 32), ("their key", 32), ("confirmation", 16))
            for at in range(size)]
    rows.append(("top bit", 31))  # the one bit that the key exchange itself ignores
    for where, at in sample(rows, 20 if target.scripted else 5):
        bit = at * 8 + (7 if where == "top bit" else rnd.randrange(8))
        with target.lines(AUTH_FAILED):
            peer = target.connect()
            sent = flipped(peer.public, bit) if where in ("key", "top bit") else peer.public
            peer.send_raw(sent)
            peer.other = peer.recv_raw(32)
            seen = flipped(peer.other, bit) if where == "their key" else peer.other
            peer.derive_session(target.password, peer.public, seen)
            confirmation = peer.keyed(b"c-confirm", 16)
            peer.send_raw(flipped(confirmation, bit) if where == "confirmation" else
                          confirmation)
            refused(target, peer)
        target.skip(300)


def keys_of_small_order(target):
    for key in sample(LOW_ORDER, 9 if target.scripted else 3):
        with target.lines(AUTH_FAILED):
            peer = target.connect()
            peer.send_raw(key)
            check(len(peer.rest()) == 32, "more or less than the host's key")
            peer.close()
        target.skip(300)


def wrong_passwords(target):
    right = target.password
    for password in sample(["", right[:-1], right + " ", right.swapcase(), "x" * 32,
                            right + "\0", "x" * 5000], 7 if target.scripted else 3):
        with target.lines(AUTH_FAILED):
            peer = target.connect()
            peer.send_raw(peer.public)
            peer.other = peer.recv_raw(32)
            peer.derive_session(password, peer.public, peer.other)
            peer.send_raw(peer.keyed(b"c-confirm", 16))
            refused(target, peer)
            closed = time.monotonic()
    # The pause: whoever tries again at once waits.
    with target.lines(AUTH_FAILED):
        peer = target.connect()
        peer.send_raw(peer.public)
        peer.recv_raw(32)
        check(time.monotonic() - closed > 0.25, "no pause after a wrong password")
        peer.close()


def rubbish(target):
    """Bytes of other protocols, and many of them."""
    for text in (b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n" * 40, bytes(100000),
                 b"\xff" * 1000000, b"QVRL\x02V" + bytes(50)):
        with target.lines(AUTH_FAILED):
            peer = target.connect()
            peer.send_raw(text)
            check(len(peer.rest()) in (0, 32), "an answer to rubbish")
            peer.close()
        target.skip(300)


def stalls_before_the_session(target):
    """Whoever says nothing has 15 s in all; here a clock that obeys makes them short."""
    if not target.scripted:
        return
    for step in range(5):
        with target.lines(*([AUTH_FAILED] if step < 3 else [])):
            peer = target.connect()
            if step >= 1:
                peer.send_raw(peer.public)
                peer.other = peer.recv_raw(32)
                peer.derive_session(target.password, peer.public, peer.other)
            confirmation = peer.keyed(b"c-confirm", 16)
            if step == 0:
                peer.send_raw(peer.public[:1])
                late = peer.public[1:2]
            elif step < 3:
                peer.send_raw(confirmation[:(step - 1) * 8])
                late = confirmation[(step - 1) * 8:][:1]
            else:
                peer.send_raw(confirmation)
                peer.recv_raw(16)
                peer.start_records(b"c2s", b"s2c")
                hello = peer.seal(peer.client_hello())
                peer.send_raw(hello[:(step - 3) * 30])
                late = hello[(step - 3) * 30:][:1]
            time.sleep(0.1)  # the host is in its receive by now, or sees the clock at once
            target.skip(HELLO_SECONDS * 1000)
            peer.send_raw(late)
            refused(target, peer)
        target.skip(300)


def one_byte_at_a_time(target):
    """Slow, but within the 15 s: served. Slower: not."""
    if not target.scripted:
        return
    for pause, served in ((90, True), (160, False)):
        lines = SESSION if served else []
        with target.lines(*lines):
            peer = target.connect()
            sent = 0

            def drip(data):
                for byte in data:
                    if not peer.send_raw(bytes([byte])):
                        return
                    target.skip(pause)
                    time.sleep(0.002)

            drip(peer.public)
            peer.other = peer.recv_raw(32)
            peer.derive_session(target.password, peer.public, peer.other)
            drip(peer.keyed(b"c-confirm", 16))
            peer.recv_raw(16)
            peer.start_records(b"c2s", b"s2c")
            drip(peer.seal(peer.client_hello()))
            if served:
                check(peer.recv_message()[0] == SERVER_HELLO, "no hello")
            else:
                check(peer.rest() == b"", "served after 15 s")
            peer.close()


def others_while_one_is_served(target):
    with target.lines(connected("first"), SYNCHRONISED, STATS, DISCONNECTED,
                      connected("second"), STATS, DISCONNECTED):
        first = target.log_in(name=b"first")
        second = target.connect()
        second.send_raw(second.public)
        target.synchronise(first)
        second.sock.setblocking(False)
        try:
            early = second.sock.recv(1)
            raise Failure(f"a second viewer gets {early!r} while one is served")
        except BlockingIOError:
            pass
        second.sock.settimeout(WAIT_SECONDS)
        first.close()
        second.other = second.recv_raw(32)
        second.derive_session(target.password, second.public, second.other)
        second.send_raw(second.keyed(b"c-confirm", 16))
        second.recv_raw(16)
        second.start_records(b"c2s", b"s2c")
        second.send(second.client_hello(name=b"second"))
        check(second.recv_message()[0] == SERVER_HELLO, "no hello for the second")
        second.close()


def a_crowd(target):
    """Connections that come and go while one is served, most of which never get in."""
    with session(target) as (peer, reader):
        crowd = []
        for _ in range(30):
            sock = socket.socket()
            sock.setblocking(False)
            sock.connect_ex(target.address)
            crowd.append(sock)
        target.synchronise(peer)
        for sock in crowd:
            sock.close()
    # Those that got as far as the backlog are authentication failures now, one by one.
    settled(target)


def settled(target):
    """Waits until the host has dealt with connections that are dead already."""
    name = f"settled{rnd.randrange(1 << 30)}"
    target.log_in(name=name.encode()).close()
    wait_for("the host to settle", lambda: any(re.fullmatch(connected(name), line)
                                               for line in target.log()) and
             target.log()[-1] == DISCONNECTED)


# ---------------------------------------------------------------------------------------
# With the password: the hello


def cut_in_the_hello(target):
    """Silence, and no pause: the next one is served at once."""
    with target.lines():
        for cut in sample(range(62), 62 if target.scripted else 15):
            peer = target.authenticated()
            peer.send_raw(peer.seal(peer.client_hello())[:cut])
            end_kinds(peer, cut)


def flips_in_the_hello(target):
    with target.lines():
        for at in sample(range(62), 62 if target.scripted else 15):
            peer = target.authenticated()
            peer.send_raw(flipped(peer.seal(peer.client_hello()), at * 8 + rnd.randrange(8)))
            peer.end_of_sending()
            refused(target, peer)


def bad_hellos(target):
    name = bytes(34)
    rows = [message(CLIENT_HELLO, name, length) for length in
            (0, 1, 33, 35, 34 << 8, 65536, 65537, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)]
    rows += [message(kind, name) for kind in range(256) if kind != CLIENT_HELLO]
    rows += [message(CLIENT_HELLO, name[:33]), message(CLIENT_HELLO, name + b"x"),
             message(FRAME_ACK, bytes(8)), message(MOUSE, bytes(12)),
             message(CACHE_ADVERT, bytes(80)), message(CACHE_MISS, bytes(12)), bytes(42)]
    with target.lines():
        for row in sample(rows, 60 if target.scripted else 12):
            peer = target.authenticated()
            peer.send(row)
            peer.end_of_sending()
            refused(target, peer)


def a_hello_that_is_not_sealed(target):
    with target.lines():
        for plain in (b"", b"\0\0\0\0", b"\x2a\0\0\0"):
            peer = target.authenticated()
            peer.send_raw(plain + peer.client_hello())
            peer.end_of_sending()
            refused(target, peer)


def odd_hellos(target):
    """Hellos that count, whatever they look like."""
    rows = [(3, b"%s%n%x%p", "%s%n%x%p"), (0, b"", ""), (0xFFFF, b"n" * 32, "n" * 32),
            (1, b"\x01\x7f\x1b[2J", "\x01\x7f\x1b[2J"), (2, b"a\0b", "a")]
    for caps, name, shown in rows:
        with target.lines(connected(shown, caps), STATS, DISCONNECTED):
            peer = target.log_in(caps, name)
            end_kinds(peer, 0)
    with target.lines(*SESSION):
        peer = target.authenticated()
        hello = peer.client_hello()
        for byte in hello[:1] + b"\xff\xfe\xfd" + hello[4:]:  # the type's other bytes are free
            peer.send(b"")
            peer.send(bytes([byte]))
        check(peer.recv_message()[0] == SERVER_HELLO, "no hello")
        peer.close()


# ---------------------------------------------------------------------------------------
# With the password: records


def ended(target, peer):
    """The host closes the session; all that it sent before opens."""
    with contextlib.suppress(Closed):
        while True:
            peer.recv_message()
    peer.close()


def records_out_of_order(target):
    key = message(KEY, struct.pack("<I", 0x7C))  # the release of a key that nobody presses
    for what in ("replayed", "dropped", "reordered", "first again", "counter 2^64-1"):
        with target.lines(*SESSION):
            peer = target.log_in()
            one, two = peer.seal(key), peer.seal(key)
            if what == "replayed":
                peer.send_raw(one + one)
            elif what == "dropped":
                peer.send_raw(two)
            elif what == "reordered":
                peer.send_raw(two + one)
            elif what == "first again":
                peer.send_raw(one + peer.seal(key, 0))
            else:
                peer.send_raw(peer.seal(key, (1 << 64) - 1))
            ended(target, peer)


def flips_in_records(target):
    size = 4 + 12 + 16
    for at in sample(range(size), 32 if target.scripted else 6):
        with target.lines(*SESSION):
            peer = target.log_in()
            record = peer.seal(message(KEY, struct.pack("<I", 0x7C)))
            peer.send_raw(flipped(record, at * 8 + rnd.randrange(8)))
            peer.end_of_sending()
            ended(target, peer)


def cuts_in_records(target):
    for at in sample(range(1, 33), 32 if target.scripted else 6):
        with target.lines(*SESSION):
            peer = target.log_in()
            record = peer.seal(message(KEY, struct.pack("<I", 0x7C)))
            peer.send_raw(record[:at])
            if at % 2:
                peer.close(abort=True)
            else:
                peer.end_of_sending()
                ended(target, peer)


def record_sizes(target):
    # What is too long ends the session without its body.
    for size in (RECORD_MAX + 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF):
        with target.lines(*SESSION):
            peer = target.log_in()
            peer.send_raw(struct.pack("<I", size))
            ended(target, peer)
    # The longest, exactly full of messages; many empty ones; a message in pieces of a byte.
    with target.lines(connected(), SYNCHRONISED, SYNCHRONISED, SYNCHRONISED, STATS,
                      DISCONNECTED):
        with session(target) as (peer, _):
            peer.send(message(0x99, bytes(65528)) * 256)
            target.synchronise(peer)
            peer.send_each([b""] * 3000)  # while the reader acknowledges frames
            target.synchronise(peer)
            pieces = message(0x99, bytes(100))
            peer.send_each(pieces[i:i + 1] for i in range(len(pieces)))
            target.synchronise(peer)
    # And the longest, cut short.
    for cut in (4, 5, 1000, RECORD_MAX + 19):
        with target.lines(*SESSION):
            peer = target.log_in()
            peer.send_raw(peer.seal(bytes(RECORD_MAX))[:cut])
            end_kinds(peer, 1)


# ---------------------------------------------------------------------------------------
# With the password: messages


def every_type_in_every_size(target):
    sizes = [0, 1, 2, 3, 4, 5, 7, 8, 9, 11, 12, 13, 34, 255, 65535, 65536]
    least = {MOUSE: 12, KEY: 4, CHAR: 2}
    calls = target.input_calls()
    due = 0
    with session(target) as (peer, reader):
        for kind in range(256):
            for size in sizes if kind >= 0x80 and kind < 0x88 else sample(sizes, 4):
                # On a real desktop only what does nothing: releases, and moves to (0, 0).
                payload = rnd.randbytes(size) if target.scripted else bytes(size)
                if kind == CACHE_ADVERT:
                    payload = payload[:64]  # the mirror is another attack's business
                peer.send(message(kind, payload, reserved=rnd.randbytes(3)))
                due += size >= least.get(kind, 1 << 32)
        target.synchronise(peer)
        if calls is not None:
            check(target.input_calls() - calls == due, "input was dropped, or invented")


def payloads_too_long(target):
    for kind in sample([0, FRAME_ACK, MOUSE, KEY, CHAR, CACHE_ADVERT, CACHE_MISS, CLIENT_HELLO,
                        0xFF], 9 if target.scripted else 3):
        for size in sample([PAYLOAD_MAX + 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF], 2):
            with target.lines(*SESSION):
                peer = target.log_in()
                peer.send(message(kind, length=size))
                ended(target, peer)


def mouse(x, y, kind=0, button=0, wheel=0):
    return message(MOUSE, struct.pack("<iiBBh", x, y, kind, button, wheel))


def input_floods(target):
    edges = [0, 1, -1, 199, 32767, 32768, 65535, 65536, 0x7FFFFFFF, -0x80000000]
    with session(target) as (peer, reader):
        for x in edges:
            for y in edges:
                peer.send(mouse(x, y))
        if target.scripted:
            for kind in range(256):
                for button in (0, 1, 2, 3, 31, 32, 63, 64, 255):
                    peer.send(mouse(5, 5, kind, button, rnd.randrange(-32768, 32768)))
            for value in (0x10000, 0x1FFFF, 0x100FF, 0x10100, 0xFFFFFFFF, 0xFF0000, 0x800041):
                peer.send(message(KEY, struct.pack("<I", value)))
        for burst in range(20):
            peer.send(b"".join(mouse(i % 640, i % 480) for i in range(500)))
        def press_and_look():
            for key in range(0x7C, 0x88):  # F13 to F24, which are left pressed
                peer.send(message(KEY, struct.pack("<I", 0x10000 | key)) * 20)
            target.synchronise(peer)
            return len(target.pressed()) >= 12

        # Again and again: whenever the pointer has come to another window, Wine takes all keys
        # for released that its X server does not see pressed, some time after the move.
        wait_for("12 keys that are down", press_and_look)
    # What it pressed is released when it goes.
    wait_for("the release of keys", lambda: not [key for key in target.pressed() if key < 256])
    if target.scripted:
        check(target.pressed() == [], f"still down: {target.pressed()}")


def acknowledgements(target):
    """Forged numbers and times at most slow the forger's own frames down."""
    with session(target) as (peer, reader):
        target.draw("noise")
        reader.wait_frames(2)
        odd = [0, 1, 0x7FFFFFFF, 0x80000000, 0x80000001, 0xFFFFFFFF]
        for seq in odd:
            for stamp in odd:
                peer.send(message(FRAME_ACK, struct.pack("<II", seq, stamp)))
        for _ in range(10):
            peer.send(b"".join(message(FRAME_ACK, rnd.randbytes(8)) for _ in range(500)))
        reader.wait_frames(3)
        target.synchronise(peer)
        # Frames are the same and come on; and the picture ends up right.
        target.draw("paint 77")
        reader.wait_picture(target)


def acknowledgements_withheld(target):
    """Without any the host goes on, a frame each quarter of a second."""
    if not target.scripted:
        return
    with target.lines(*SESSION):
        peer = target.log_in()
        reader = Reader(peer, acknowledges=False)
        target.draw("noise")
        reader.wait_frames(4)
        target.draw("paint 78")
        reader.wait_picture(target)
        peer.end_of_sending()
        reader.end()
        peer.close()


def adverts_in_one_run(target):
    """Hashes that all want the same place make each step through the mirror long. Frames
    come all the same, while it lasts and afterwards."""
    messages = 48 if SECONDS else 4
    with session(target) as (peer, reader):
        target.draw("noise")
        reader.wait_frames(2)
        count = target.count("cache: client advertised 8192 tiles")
        frames = reader.frames
        number = 0
        for _ in range(messages):
            hashes = [(number + i) << 19 | 5 for i in range(1, 8193)]
            number += 8192
            peer.send(message(CACHE_ADVERT, struct.pack("<8192Q", *hashes)))
        wait_for("the advertisements", seconds=600, condition=lambda: target.count(
            "cache: client advertised 8192 tiles") == count + messages)
        check(reader.frames > frames, "no frame while the mirror was filled")
        # Each of these takes the whole run once.
        for i in range(1, 300):
            peer.send(message(CACHE_MISS, struct.pack("<HHQ", 65535, 65535, i << 19 | 5)))
        target.synchronise(peer)
        target.draw("paint 79")
        reader.wait_picture(target)


def adverts_of_all_sizes(target):
    with session(target) as (peer, reader):
        for size in (0, 1, 7, 8, 9, 15, 16, 2047, 2048, 2056, 65528, 65535, 65536):
            peer.send(message(CACHE_ADVERT, rnd.randbytes(size)))
        peer.send(message(CACHE_ADVERT, bytes(65536)))  # hash 0 is no hash
        if target.scripted:
            for _ in range(50):  # past three quarters of the mirror it takes no more
                peer.send(message(CACHE_ADVERT, rnd.randbytes(65536)))
        target.synchronise(peer)
        target.draw("paint 80")
        reader.wait_picture(target)


def adverts_that_lie(target):
    """The viewer holds none of what it says; each reference is missed and made good."""
    if not target.scripted:
        return
    target.draw("paint 81")
    with session(target) as (peer, reader):
        reader.wait_picture(target)
        learned = list(reader.picture.cache)
    target.draw("paint 82")
    with session(target) as (peer, reader):
        peer.send(message(CACHE_ADVERT, struct.pack(f"<{len(learned)}Q", *learned)))
        target.synchronise(peer)
        target.draw("paint 81")
        reader.wait_picture(target)


def misses_that_lie(target):
    """Tiles reported missing that are not, that are none, and for hashes never sent."""
    with session(target) as (peer, reader):
        target.draw("moves")
        reader.wait_frames(3)
        for burst in range(30):
            known = list(reader.picture.cache)[:50] or [1]
            for _ in range(60):
                x, y = rnd.choice([(rnd.randrange(6), rnd.randrange(5)), (65535, 65535),
                                   (0, 65535), (32768, 0), (5, 4), (4, 3)])
                key = rnd.choice([0, 1, (1 << 64) - 1, rnd.getrandbits(64), rnd.choice(known)])
                peer.send(message(CACHE_MISS, struct.pack("<HHQ", x, y, key)))
        target.synchronise(peer)
        target.draw("paint 83")
        reader.wait_picture(target)


def never_reads(target):
    """A viewer that takes nothing, and then goes."""
    with target.lines(*SESSION):
        peer = target.log_in(peer=target.connect(receive_buffer=4096))
        target.draw("noise")
        # The host fills what buffers there are and waits in its send.
        time.sleep(2 if target.scripted else 0.5)
        peer.close(abort=True)
    target.draw("paint 1")


def reads_slowly(target, rate=200000):
    """A viewer on a slow line lives: it reads so many bytes a second while frames of more than
    8 MB are due, which takes longer than a send may go without progress."""
    with target.lines(connected(), SYNCHRONISED, STATS, DISCONNECTED):
        target.draw("noise")
        # It can hold back no more than a second's worth.
        peer = target.log_in(peer=target.connect(receive_buffer=65536))
        peer.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        started = time.monotonic()
        size = struct.unpack("<I", peer.recv_raw(4))[0]
        check(size > 8000000, f"a frame of {size} bytes")
        body = bytearray()
        while len(body) < size + 16:
            body += peer.recv_raw(min(rate // 20, size + 16 - len(body)))
            time.sleep(max(0, started + len(body) / rate - time.monotonic()))
        check(time.monotonic() - started > 35, "that was no slow line")
        target.draw("paint 1")
        target.synchronise(peer)
        peer.close(abort=True)


def takes_nothing(target):
    """A viewer that takes nothing, and stays, is given up after 30 s."""
    target.draw("noise")
    with target.lines(*SESSION):
        peer = target.log_in(peer=target.connect(receive_buffer=4096))
        started = time.monotonic()
        wait_for("the host to give up", lambda: target.log()[-1] == DISCONNECTED, 120)
        check(time.monotonic() - started > 28, "given up too early")
        peer.close()
    target.draw("paint 1")


def random_conversations(target, rounds):
    """Streams of messages of all kinds, right and wrong, that end at any byte."""
    for _ in range(rounds):
        peer = target.connect()
        cut = rnd.randrange(1 << rnd.randrange(1, 18))
        budget = [cut]

        def send(data):
            part = data[:budget[0]]
            budget[0] -= len(part)
            if not peer.send_raw(part) or len(part) < len(data):
                raise Closed("cut")

        reader = None
        try:
            send(peer.public)
            peer.other = peer.recv_raw(32)
            peer.derive_session(target.password, peer.public, peer.other)
            send(peer.keyed(b"c-confirm", 16))
            peer.recv_raw(16)
            peer.start_records(b"c2s", b"s2c")
            send(peer.seal(peer.client_hello(rnd.randrange(4))))
            _, hello = peer.recv_message()
            peer.width, peer.height = struct.unpack("<ii", hello[:8])
            reader = Reader(peer, acknowledges=False)
            target.draw(rnd.choice(["noise", "moves", f"paint {rnd.randrange(1000)}"]))
            while True:
                kind = rnd.choice([FRAME_ACK, MOUSE, KEY, CHAR, CACHE_ADVERT, CACHE_MISS,
                                   rnd.randrange(256)])
                if not target.scripted and kind in (MOUSE, KEY, CHAR):
                    continue
                size = rnd.choice([2, 4, 8, 12, rnd.randrange(40), rnd.randrange(3000)])
                payload = rnd.randbytes(size)
                if kind == CACHE_MISS:
                    payload = struct.pack("<HH", rnd.randrange(6), rnd.randrange(5)) + payload
                send(peer.seal(message(kind, payload)))
        except Closed:
            pass
        end_kinds(peer, rnd.randrange(2))
        if reader:
            reader.end()
        target.skip(300)


def a_few_random_conversations(target):
    random_conversations(target, 12 if target.scripted else 4)


ATTACKS = [
    cut_in_the_handshake, flips_in_the_handshake, keys_of_small_order, wrong_passwords,
    rubbish, stalls_before_the_session, one_byte_at_a_time, others_while_one_is_served,
    a_crowd, cut_in_the_hello, flips_in_the_hello, bad_hellos, a_hello_that_is_not_sealed,
    odd_hellos, records_out_of_order, flips_in_records, cuts_in_records, record_sizes,
    every_type_in_every_size, payloads_too_long, input_floods, acknowledgements,
    acknowledgements_withheld, adverts_in_one_run, adverts_of_all_sizes, adverts_that_lie,
    misses_that_lie, never_reads, a_few_random_conversations,
]


def run(test, target):
    print(f"attacks on the host: QV_SEED={SEED}", flush=True)
    # What grows once: buffers to the size of the largest frame.
    for _ in range(2):
        never_reads(target)
        settled(target)
        honest(target)
    before = target.holds()
    for attack in chosen(ATTACKS):
        with test.subTest(attack=attack.__name__):
            started = time.monotonic()
            attack(target)
            check(target.is_running(), "the host has ended")
            settled(target)
            honest(target)
            check_holds(target, before)
            print(f"  {attack.__name__}: {time.monotonic() - started:.1f} s", flush=True)
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        random_conversations(target, 20)
        settled(target)
        honest(target)
        check_holds(target, before)
