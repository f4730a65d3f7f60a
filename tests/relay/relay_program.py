"""The relay program in a test: started, spoken to by sockets, read by its log and metrics.

    with Relay("--rooms", "2") as relay:
        host = relay.host("123456789")
        viewer = relay.viewer("123456789", early=b"key")

The program is the one that QV_RELAY names, or build/linux-release/relay/qv_relay_asan. Every
Relay must end by itself with status 0 and without a word of a sanitizer.
"""

import contextlib
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import threading
import time
import urllib.request

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PROGRAM = os.environ.get("QV_RELAY", str(ROOT / "build/linux-release/relay/qv_relay_asan"))
PATIENCE = 60  # seconds, for what must happen: machines may be busy
HOST, VIEWER = b"H", b"V"


def hello(role, room, name="PC", magic=b"QVRL", version=2):
    room, name = (x.encode() if isinstance(x, str) else x for x in (room, name))
    return struct.pack("<4sBc18s32s", magic, version, role, room, name)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def receive(connection, size):
    """Exactly so many bytes."""
    data = bytearray()
    while len(data) < size:
        part = connection.recv(min(size - len(data), 1 << 20))
        if not part:
            raise EOFError(f"ended after {len(data)} of {size} bytes")
        data += part
    return bytes(data)


def receive_all(connection):
    data = bytearray()
    while part := connection.recv(1 << 20):
        data += part
    return bytes(data)


def is_closed(connection):
    """Waits for the other side's end, which must come without a byte before it."""
    try:
        return connection.recv(1) == b""
    except ConnectionError:
        return True


def is_silent(connection):
    """Whether nothing has arrived, no byte and no end."""
    connection.setblocking(False)
    try:
        connection.recv(1)
        return False
    except BlockingIOError:
        return True
    except ConnectionError:
        return False
    finally:
        connection.settimeout(PATIENCE)


class Relay:
    def __init__(self, *options, listen=True, metrics=True, port=0, program=PROGRAM):
        self.command = [program, *options]
        if listen:
            self.command += ["--listen", f"127.0.0.1:{port}"]
        if metrics is True:
            self.metrics_port = free_port()
            self.command += ["--metrics", f"127.0.0.1:{self.metrics_port}"]
        self.lines = []
        self.changed = threading.Condition()
        self.connections = []

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, text=True, errors="replace")
        self.reader = threading.Thread(target=self._read_log)
        self.reader.start()
        try:
            line = self.wait_log(r"listening on \S+ port (\d+)")
        except AssertionError:
            self.process.kill()
            raise
        self.port = int(line[1])
        return self

    def __exit__(self, kind, *_):
        for connection in self.connections:
            connection.close()
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        status = self.wait_for_end()
        self.reader.join()
        self.process.stderr.close()
        if kind is None:
            log = "\n".join(self.lines)
            assert status == 0, f"status {status}:\n{log}"
            assert "anitizer" not in log and "runtime error" not in log, log
            for line in self.lines:  # time and text, and nothing unprintable
                assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z [ -~]+", line), line
        elif kind:
            print("\n".join(self.lines[-40:]))

    def wait_for_end(self):
        """Its status. The metrics' server sleeps up to 2 s at a time: a visitor wakes it."""
        end = time.monotonic() + PATIENCE
        while self.process.poll() is None:
            if time.monotonic() > end:
                self.process.kill()
                return "none: killed"
            time.sleep(0.02)
            if self.metrics_port:
                with contextlib.suppress(OSError):
                    socket.create_connection(("127.0.0.1", self.metrics_port), 0.1).close()
        return self.process.returncode

    metrics_port = None

    def _read_log(self):
        for line in self.process.stderr:
            with self.changed:
                self.lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.lines_end = True
            self.changed.notify_all()

    lines_end = False

    def find_log(self, pattern, first=0):
        for line in self.lines[first:]:
            if match := re.search(pattern, line):
                return match
        return None

    def wait_log(self, pattern, first=0):
        """The first match at or after this line, once there is one."""
        with self.changed:
            self.changed.wait_for(lambda: self.lines_end or self.find_log(pattern, first),
                                  PATIENCE)
            match = self.find_log(pattern, first)
        assert match, f"no line like {pattern!r}:\n" + "\n".join(self.lines[first:])
        return match

    def connect(self, data=b"", address="127.0.0.1", receive_buffer=None):
        connection = socket.socket()
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.settimeout(PATIENCE)
        connection.bind((address, 0))
        connection.connect(("127.0.0.1", self.port))
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.connections.append(connection)
        if data:
            connection.sendall(data)
        return connection

    def enter(self, role, room, name, address, early, **options):
        """Sends a hello and waits until the relay has let it in."""
        first = len(self.lines)
        connection = self.connect(hello(role, room, name) + early, address, **options)
        self.wait_log(f"{'host' if role == HOST else 'viewer'} \\d+ of {re.escape(address)}: "
                      f"room '{re.escape(room)}', name '{re.escape(name)}'", first)
        return connection

    def host(self, room, name="PC", address="127.0.0.1", early=b"", **options):
        return self.enter(HOST, room, name, address, early, **options)

    def viewer(self, room, name="HOME", address="127.0.0.1", early=b"", **options):
        return self.enter(VIEWER, room, name, address, early, **options)

    def pair(self, room, handshake=True, **options):
        """A host and a viewer that have met and, if wanted, passed bytes like a handshake."""
        host, viewer = self.host(room, **options), self.viewer(room, **options)
        if handshake:
            viewer.sendall(bytes(48))
            host.sendall(bytes(48))
            receive(host, 48)
            receive(viewer, 48)
        return host, viewer

    def refused(self, reason, data, **options):
        """Whether a connection with this to say is closed without a byte, and counted."""
        name = f'qv_relay_refused_total{{reason="{reason}"}}'
        before = self.metric(name)
        connection = self.connect(data, **options)
        closed = is_closed(connection)
        connection.close()
        self.wait_metric(name, before + 1)
        return closed

    def page(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.metrics_port}/metrics",
                                    timeout=PATIENCE) as reply:
            return reply.read().decode()

    def metric(self, name):
        for line in self.page().splitlines():
            if line.startswith(name + " "):
                return float(line.split(" ")[-1])
        raise AssertionError(f"no metric {name}:\n{self.page()}")

    def wait_metric(self, name, value):
        end = time.monotonic() + PATIENCE
        while (now := self.metric(name)) != value:
            assert time.monotonic() < end, f"{name} is {now}, not {value}"
            time.sleep(0.02)

    def terminate(self):
        self.process.send_signal(signal.SIGTERM)
