#!/usr/bin/python3
"""A relay for tests: the relay program when it is built, else a small one of our own.

    relay.py [PORT]         serves on 127.0.0.1 until it is stopped

In a test:  with relay.test_relay() as running: ...

Each side first sends a hello of 56 bytes:

    offset  size  field
         0     4  "QVRL"
         4     1  version, 2
         5     1  role, 'H' host or 'V' viewer
         6    18  room, padded with NUL bytes
        24    32  computer name, padded with NUL bytes

Afterwards the relay copies bytes both ways, adds none of its own, and closes both sides when
either closes. A second host in a room takes the place of the first. A viewer whose room
stays empty is sent away after some seconds.
"""

import asyncio
import collections
import os
import pathlib
import re
import sys
import threading

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests/relay"))
import relay_program  # noqa: E402

PROGRAM = ROOT / "build/relay/qv_relay"  # make relay
PORT = 7000
HELLO_SIZE = 56
CHUNK = 65536

Hello = collections.namedtuple("Hello", "magic version role room name")


def parse_hello(data):
    return Hello(data[0:4], data[4], chr(data[5]), data[6:24].rstrip(b"\0").decode("latin-1"),
                 data[24:56].rstrip(b"\0").decode("latin-1"))


class Waiting:
    """A host that waits for its viewer."""

    def __init__(self, reader, writer):
        self.reader, self.writer = reader, writer
        # A host is silent until it is paired, so a read tells when it went away.
        self.first_read = asyncio.ensure_future(reader.read(CHUNK))
        self.paired = asyncio.get_running_loop().create_future()


class Relay:
    def __init__(self, patience=3.0):
        self.patience = patience  # seconds that a viewer may wait for a host
        self.hellos = []          # every hello so far, in order of arrival
        self.rejected = 0         # connections whose hello was none
        self.rooms = {}           # room: Waiting

    async def serve(self, port, started=None):
        server = await asyncio.start_server(self.on_connection, "127.0.0.1", port)
        if started:
            started()
        async with server:
            await server.serve_forever()

    async def on_connection(self, reader, writer):
        try:
            hello = parse_hello(await reader.readexactly(HELLO_SIZE))
            if hello.magic != b"QVRL" or hello.version != 2 or hello.role not in "HV":
                self.rejected += 1
                return
            self.hellos.append(hello)
            if hello.role == "H":
                await self.keep_host(hello.room, reader, writer)
            else:
                await self.pair_viewer(hello.room, reader, writer)
        except (ConnectionError, asyncio.IncompleteReadError):
            pass
        finally:
            writer.close()

    async def keep_host(self, room, reader, writer):
        if room in self.rooms:
            self.rooms.pop(room).writer.close()
        host = self.rooms[room] = Waiting(reader, writer)
        await asyncio.wait([host.first_read, host.paired],
                           return_when=asyncio.FIRST_COMPLETED)
        if not host.paired.done():  # went away, or broke its silence
            if self.rooms.get(room) is host:
                del self.rooms[room]
            return
        await host.paired.result()  # until the pair is done

    async def pair_viewer(self, room, reader, writer):
        end = asyncio.get_running_loop().time() + self.patience
        while room not in self.rooms:
            if asyncio.get_running_loop().time() > end:
                return
            await asyncio.sleep(0.02)
        host = self.rooms.pop(room)
        done = asyncio.Event()
        host.paired.set_result(done.wait())
        try:
            copies = [asyncio.ensure_future(self.copy(reader, host.writer)),
                      asyncio.ensure_future(self.copy(host.reader, writer, host.first_read))]
            await asyncio.wait(copies, return_when=asyncio.FIRST_COMPLETED)
            for copy in copies:
                copy.cancel()
            await asyncio.gather(*copies, return_exceptions=True)
        finally:
            done.set()

    @staticmethod
    async def copy(reader, writer, first_read=None):
        try:
            data = await (first_read or reader.read(CHUNK))
            while data:
                writer.write(data)
                await writer.drain()
                data = await reader.read(CHUNK)
        except ConnectionError:
            pass


class ProgramRelay(relay_program.Relay):
    """The relay program, seen by its log."""

    rejected = 0  # or the end of the with block complains

    def __init__(self, port=PORT, patience=3.0):
        super().__init__("--viewer-wait-seconds", str(patience), "--drain-seconds", "0",
                         port=port, program=PROGRAM)

    @property
    def hellos(self):
        found = (re.search(r"(host|viewer) \d+ of \S+: room '(.*)', name '(.*)'", line)
                 for line in list(self.lines))
        return [Hello(b"QVRL", 2, match[1][0].upper(), match[2], match[3])
                for match in found if match]

    def is_waiting(self, room):
        """Whether nothing has been heard of the room's last host since it came."""
        last, waiting = None, False
        for line in list(self.lines):
            if last and re.search(rf"\b{last}\b", line):
                waiting = False
            if match := re.search(rf"(host \d+) of \S+: room '{re.escape(room)}', name", line):
                last, waiting = match[1], True
        return waiting

    def __exit__(self, kind, *rest):
        super().__exit__(kind, *rest)
        assert kind or not self.find_log("the hello is none")


def test_relay(**options):
    """A relay for a with block. The programs meet at the real one wherever that is built."""
    return ProgramRelay(**options) if os.access(PROGRAM, os.X_OK) else TestRelay(**options)


class TestRelay(Relay):
    """A relay on a thread of its own, for the time of a with block."""

    def __init__(self, port=PORT, **options):
        super().__init__(**options)
        self.port = port

    def __enter__(self):
        self.ready = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()
        if not self.ready.wait(10):
            raise RuntimeError("the relay did not start")
        return self

    def _run(self):
        async def main():
            self.loop = asyncio.get_running_loop()
            self.serving = asyncio.ensure_future(self.serve(self.port, self.ready.set))
            await asyncio.wait([self.serving])

        asyncio.run(main())  # its end cancels what still copies

    def __exit__(self, *_):
        self.loop.call_soon_threadsafe(self.serving.cancel)
        self.thread.join(10)

    def is_waiting(self, room):
        return room in self.rooms


if __name__ == "__main__":
    asyncio.run(Relay().serve(int(sys.argv[1]) if len(sys.argv) > 1 else PORT))
