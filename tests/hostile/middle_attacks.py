"""Somebody on the line between a viewer and a host who both mean well: reads, changes, holds
back, repeats and invents whatever passes, and does not know the password.

The host and the viewer are those of host_attacks.py and viewer_attacks.py. Whatever is done
to the handshake, no session comes about; whatever is done to a record, the side that it was
meant for ends the session before anything of it takes effect.
"""

import contextlib
import os
import re
import socket
import struct
import threading
import time

from attack import SEED, WAIT_SECONDS, Failure, check, check_holds, chosen, rnd, sample, wait_for
from host_attacks import AUTH_FAILED, DISCONNECTED, STATS, settled
from peer import Closed, Peer, flipped, message
from viewer_attacks import AUTH_FAILED as VIEWER_REFUSES
from viewer_attacks import BAD_HELLO, ends

UP, DOWN = "viewer to host", "host to viewer"
CONNECTED = r"client connected: \S+, caps=3 \(text=1 cache=1\)"
NO_PICTURE = "0 0 0"  # what a viewer has between sessions
SESSION = [CONNECTED, STATS, DISCONNECTED]


class Half:
    """One direction. What passes is cut into units: a key, a confirmation, then records.
    `tamper(index, unit)` returns what goes on in a unit's place."""

    def __init__(self, source, sink):
        self.source, self.sink = source, sink
        self.units = []
        self.passed = 0  # units that went on, in whatever form
        self.lock = threading.Lock()
        self.tamper = lambda index, unit: unit
        self.thread = threading.Thread(target=self._run, daemon=True)

    def read(self, count):
        out = b""
        while len(out) < count:
            part = self.source.recv(count - len(out))
            if not part:
                raise Closed("end")
            out += part
        return out

    def next_unit(self):
        if len(self.units) < 2:
            return self.read((32, 16)[len(self.units)])
        head = self.read(4)
        return head + self.read(struct.unpack("<I", head)[0] + 16)

    def _run(self):
        with contextlib.suppress(Closed, OSError):
            while True:
                unit = self.next_unit()
                with self.lock:
                    index = len(self.units)
                    self.units.append(unit)
                    tamper = self.tamper
                self.sink.sendall(tamper(index, unit))
                self.passed += 1
        self.stop()

    def stop(self):
        """Ends the direction: a length that lies would wait for more."""
        with contextlib.suppress(OSError):
            self.sink.shutdown(socket.SHUT_WR)

    def arm(self, tamper):
        """From the next unit on."""
        with self.lock:
            self.tamper = tamper

    def once(self, change):
        """The next unit is changed, and no other."""
        first = len(self.units)
        self.arm(lambda index, unit: change(unit) if index == first else unit)


class Middle:
    """The line between the two."""

    def __init__(self, viewer_sock, host_sock):
        self.up = Half(viewer_sock, host_sock)
        self.down = Half(host_sock, viewer_sock)
        self.socks = viewer_sock, host_sock

    def start(self):
        self.up.thread.start()
        self.down.thread.start()

    def half(self, direction):
        return self.up if direction == UP else self.down

    def wait_passed(self, half, count):
        wait_for(f"{count} units", lambda: half.passed >= count)

    def end(self):
        for half in (self.up, self.down):
            half.thread.join(WAIT_SECONDS)
            check(not half.thread.is_alive(), "one side keeps the connection")
        for sock in self.socks:
            sock.close()


@contextlib.contextmanager
def meeting(host, viewer, prepare=lambda middle: None):
    """The viewer connects through the middle, which prepare() has set up. Yields (the
    viewer's Session, the Middle); at the end both connections have to be over."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen()
        listener.settimeout(WAIT_SECONDS)
        running = viewer.start(listener.getsockname()[1], host.password)
        viewer_sock, _ = listener.accept()
    viewer_sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    middle = Middle(viewer_sock, host.connect().sock)
    for sock in middle.socks:
        sock.settimeout(None)
    prepare(middle)
    middle.start()
    yield running, middle
    running.status()
    middle.end()


def connected_line(host):
    width, height = host.size
    return f"connected to host-box ({width}x{height})"


@contextlib.contextmanager
def session(host, viewer):
    """A session over the middle whose picture has arrived and that is at rest."""
    host.draw(f"paint {rnd.randrange(1 << 30)}")
    with host.lines(*SESSION):
        with meeting(host, viewer) as (running, middle):
            wait_for("the picture", lambda: shows(viewer, host))
            wait_quiet(middle)
            yield running, middle
    ends(running, 0, connected_line(host))


def wait_quiet(middle):
    """Until nothing has passed for a moment."""
    seen = [-1, time.monotonic()]

    def quiet():
        now = len(middle.up.units) + len(middle.down.units)
        if now != seen[0]:
            seen[:] = [now, time.monotonic()]
        return time.monotonic() - seen[1] > 0.3
    wait_for("rest", quiet)


def shows(viewer, host):
    return viewer.picture() == host.expected_frame()


def honest(host, viewer):
    """A line that only carries: the right picture, keys arrive, the window closes."""
    keys = len(host.pressed())
    with session(host, viewer) as (running, middle):
        calls = host.input_calls()
        viewer.press_key()
        wait_for("a key", lambda: host.input_calls() >= calls + 2)
        running.close_window()
    check(len(host.pressed()) == keys, "keys stay down")
    return middle


def largest_frames(host, viewer):
    """Buffers on both sides grow to the size of the largest frame, once."""
    with session(host, viewer) as (running, middle):
        count = middle.down.passed
        host.draw("noise")
        middle.wait_passed(middle.down, count + 20)
        host.draw("paint 1")
        wait_for("the picture", lambda: shows(viewer, host))
        running.close_window()


# ---------------------------------------------------------------------------------------


def no_session(host, viewer, prepare, accepted=False):
    """The viewer refuses in its words. So does the host, unless what was changed is only what
    comes after its own check: then it has accepted, and closes without a word."""
    with host.lines(*([] if accepted else [AUTH_FAILED])):
        with meeting(host, viewer, prepare) as (running, _):
            pass
        ends(running, 1, VIEWER_REFUSES)
    host.skip(300)  # the pause after a failure


def flips_in_the_handshake(host, viewer):
    """Any byte of either key or confirmation."""
    for direction, size in ((UP, 48), (DOWN, 48)):
        for byte in sample(range(size), 8):
            index, at = (0, byte) if byte < 32 else (1, byte - 32)
            bit = at * 8 + rnd.randrange(8)
            if (index, bit) == (0, 255):
                bit -= 1  # the one bit of a key that the curve does not look at

            def prepare(middle):
                middle.half(direction).arm(
                    lambda i, unit: flipped(unit, bit) if i == index else unit)
            no_session(host, viewer, prepare, accepted=(direction, index) == (DOWN, 1))


def the_unused_bit_of_a_key(host, viewer):
    """The top bit of a key does not change the secret, but both keys are part of what is
    confirmed."""
    for direction in (UP, DOWN):
        no_session(host, viewer, lambda middle: middle.half(direction).arm(
            lambda i, unit: flipped(unit, 255) if i == 0 else unit))


def keys_of_our_own(host, viewer):
    """The middle answers both sides with keys whose secrets it has, and passes on their
    confirmations, or its own for a password that it guesses."""
    for guess in (None, "", "Secret", host.password + "x"):
        with socket.socket() as unused:
            ours = Peer(unused)

            def prepare(middle):
                def replace(toward_host):
                    def tamper(index, unit):
                        if index == 0:
                            return ours.public
                        if index == 1 and guess is not None:
                            side = Peer(unused)
                            side.secret, side.public = ours.secret, ours.public
                            side.other = (middle.down if toward_host else middle.up).units[0]
                            pair = ((side.public, side.other) if toward_host
                                    else (side.other, side.public))
                            side.derive_session(guess, *pair)
                            return side.keyed(b"c-confirm" if toward_host else b"s-confirm", 16)
                        return unit
                    return tamper
                middle.up.arm(replace(True))
                middle.down.arm(replace(False))
            no_session(host, viewer, prepare)


def answers_for_both(host, viewer):
    """Each side is sent back what it sent."""
    with host.lines(AUTH_FAILED):
        peer = host.connect()
        peer.send_raw(bytes(range(32)))
        key = peer.recv_raw(32)
        peer.close()
    host.skip(300)
    with viewer.visit() as (running, peer):
        peer.send_raw(key)  # a host's, of another meeting
        peer.recv_raw(48)
        peer.send_raw(os.urandom(16))
        check(peer.rest() == b"", "the viewer goes on")
    ends(running, 1, VIEWER_REFUSES)


def an_earlier_meeting(host, viewer):
    """All that a viewer and a host have sent, played again to the other."""
    old = honest(host, viewer)
    with host.lines(AUTH_FAILED):
        peer = host.connect()
        peer.send_raw(b"".join(old.up.units))
        answer = peer.rest()
        check(len(answer) <= 32, f"{len(answer)} bytes answer a repeated log-in")
        peer.close()
    host.skip(300)
    with viewer.visit() as (running, peer):
        peer.send_raw(b"".join(old.down.units))
        peer.rest()
    ends(running, 1, VIEWER_REFUSES)


def no_plain_text(host, viewer):
    """Nothing of a session can be read on the line, from its first record on, and the
    handshake shows neither password nor names."""
    middle = honest(host, viewer)
    for half in (middle.up, middle.down):
        wire = b"".join(half.units)
        for word in (b"host-box", host.password.encode()):
            check(word not in wire, f"{word!r} is on the line")
        bodies = b"".join(unit[4:] for unit in half.units[2:])
        check(len(half.units) > 3 and len(bodies) > 100, "too little has passed to say")
        # Half of a short message is zeros; of a sealed one, one byte in 256.
        zeros = bodies.count(0)
        check(zeros < len(bodies) / 256 * 2 + 8, f"{zeros} zeros in {len(bodies)} bytes")
    check(len({unit[4:] for unit in middle.up.units[2:]}) == len(middle.up.units) - 2,
          "two records are equal")


def hellos(host, viewer):
    """The first record each way, which carries the hello."""
    for change in (lambda unit: flipped(unit, rnd.randrange(32, len(unit) * 8)),
                   lambda unit: message(0x80, unit[4:38]),
                   lambda unit: unit[:-1] + bytes([unit[-1] ^ 0x80])):
        def prepare(direction):
            return lambda middle: middle.half(direction).arm(
                lambda index, unit: change(unit) if index == 2 else unit)
        # The host says nothing, since nobody is there yet; both lines end.
        with host.lines():
            with meeting(host, viewer, prepare(UP)) as (running, middle):
                middle.wait_passed(middle.up, 3)
                middle.up.stop()
            ends(running, 1, BAD_HELLO)
        with host.lines(*SESSION):
            with meeting(host, viewer, prepare(DOWN)) as (running, middle):
                middle.wait_passed(middle.down, 3)
                middle.down.stop()
            ends(running, 1, BAD_HELLO)


def provoke(host, viewer, direction):
    """Makes one side send."""
    if direction == UP:
        viewer.press_key()
    else:
        host.draw(f"paint {rnd.randrange(1 << 30)}")


def ends_untouched(viewer, running, picture):
    """The session ends, and until then the viewer shows what it showed."""
    wait_for("the session's end", lambda: still(viewer, picture) == NO_PICTURE)
    running.status()


def still(viewer, picture):
    shown = viewer.picture()
    check(shown in (picture, NO_PICTURE), "the picture changes")
    return shown


def changes_of(old):
    """What can be done to one record (a unit), by name. None: it is held back."""
    return {
        "length": lambda unit: flipped(unit, rnd.randrange(24)),
        "body": lambda unit: flipped(unit, rnd.randrange(32, (len(unit) - 16) * 8)),
        "tag": lambda unit: flipped(unit, rnd.randrange((len(unit) - 16) * 8, len(unit) * 8)),
        "held back": lambda unit: b"",
        "of another session": lambda unit: old,
        "cut": lambda unit: struct.pack("<I", len(unit) - 21) + unit[4:-1],
        "longer": lambda unit: struct.pack("<I", len(unit) - 19) + unit[4:] + b"\0",
        "empty": lambda unit: bytes(20) + unit,
        "plain": lambda unit: struct.pack("<I", 8 + 4) + message(0x83, b"\x41\0\1\0") +
                 bytes(16) + unit,
    }


def records(host, viewer):
    """Whatever is done to one record of a session ends it, and it does nothing."""
    olds = {UP: None, DOWN: None}
    middle = honest(host, viewer)
    olds[UP], olds[DOWN] = middle.up.units[-1], middle.down.units[-1]
    for direction in (UP, DOWN):
        for name, change in changes_of(olds[direction]).items():
            with session(host, viewer) as (running, middle):
                calls, picture = host.input_calls(), viewer.picture()
                half = middle.half(direction)
                count = len(half.units)
                half.once(change)
                provoke(host, viewer, direction)
                middle.wait_passed(half, count + 1)
                # Nothing wrong has come as yet where one was held back, and the rest of a
                # record that claims to be longer is due: the next one shows it, or the end.
                if name == "held back":
                    provoke(host, viewer, direction)
                elif name == "length":
                    half.stop()
                ends_untouched(viewer, running, picture)
                check(host.input_calls() == calls, f"{name}: input comes of it")


def twice_and_in_another_order(host, viewer):
    for direction in (UP, DOWN):
        # Twice: the first is right and takes effect, the second ends the session.
        with session(host, viewer) as (running, middle):
            calls = host.input_calls()
            middle.half(direction).once(lambda unit: unit + unit)
            provoke(host, viewer, direction)
            running.status()
            # A key's press arrives; its release is the host's own, when the session is over.
            check(host.input_calls() <= calls + 2 and not host.pressed(), "a key is repeated")
        # In another order: two records change places.
        with session(host, viewer) as (running, middle):
            half = middle.half(direction)
            calls, picture, first = host.input_calls(), viewer.picture(), len(half.units)
            held = []

            def swap(index, unit):
                if index == first:
                    held.append(unit)
                    return b""
                return unit + held.pop() if held else unit
            half.arm(swap)
            provoke(host, viewer, direction)
            middle.wait_passed(half, first + 1)
            provoke(host, viewer, direction)
            ends_untouched(viewer, running, picture)
            check(host.input_calls() == calls, "input comes of it")


def sent_back(host, viewer):
    """A side gets its own records back: they are sealed with another key."""
    for direction in (UP, DOWN):
        with session(host, viewer) as (running, middle):
            calls, picture = host.input_calls(), viewer.picture()
            there, back = ((middle.up, middle.down) if direction == UP else
                           (middle.down, middle.up))

            def mirror(index, unit):
                back.sink.sendall(unit)
                return b""
            there.once(lambda unit: mirror(0, unit))
            provoke(host, viewer, direction)
            ends_untouched(viewer, running, picture)
            check(host.input_calls() == calls, "input comes of it")


ATTACKS = [
    flips_in_the_handshake, the_unused_bit_of_a_key, keys_of_our_own, answers_for_both,
    an_earlier_meeting, no_plain_text, hellos, records, twice_and_in_another_order, sent_back,
]


def run(test, host, viewer):
    print(f"attacks on the line: QV_SEED={SEED}", flush=True)
    for _ in range(2):
        largest_frames(host, viewer)
        honest(host, viewer)
    before = host.holds(), viewer.holds()
    for attack in chosen(ATTACKS):
        with test.subTest(attack=attack.__name__):
            started = time.monotonic()
            attack(host, viewer)
            check(host.is_running(), "the host has ended")
            settled(host)
            honest(host, viewer)
            check_holds(host, before[0])
            check_holds(viewer, before[1])
            print(f"  {attack.__name__}: {time.monotonic() - started:.1f} s", flush=True)
