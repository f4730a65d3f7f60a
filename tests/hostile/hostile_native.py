#!/usr/bin/python3
"""The attacks against the native programs, which run under AddressSanitizer and
UndefinedBehaviorSanitizer: whatever those find ends the program, and with it the test.

    tools/own_network tests/hostile/hostile_native.py -v [CLASS]

QV_SECONDS=n takes the whole of every table and goes on at random for n seconds more.
"""

import os
import pathlib
import subprocess
import threading
import unittest
import zlib

import numpy

import host_attacks
import middle_attacks
import viewer_attacks
from attack import SECONDS, Failure, wait_for

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PROGRAMS = pathlib.Path(os.environ.get("QV_HOSTILE_PROGRAMS",
                                       ROOT / "build/linux-asan/tests/hostile"))
# A peer may ask for more memory than there is; it is refused, as it would be without the
# sanitizer.
ENVIRONMENT = dict(os.environ, ASAN_OPTIONS="allocator_may_return_null=1:detect_leaks=1",
                   UBSAN_OPTIONS="print_stacktrace=1")


class NativeProgram:
    """A program that takes requests and gives answers, a line each."""

    def __init__(self, name, *arguments):
        self.lines = []
        self.changed = threading.Condition()
        self.process = subprocess.Popen([PROGRAMS / name] + [str(a) for a in arguments],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        env=ENVIRONMENT)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line.decode("latin-1").rstrip("\n"))
                self.changed.notify_all()

    def request(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()

    def ask(self, text):
        """The answer to a request, which begins with the request's first word."""
        word = text.split()[0]
        start = len(self.lines)
        self.request(text)
        return self.wait_line(word, start)[len(word):].strip()

    def wait_line(self, beginning, start=0):
        def find():
            with self.changed:
                return next((line for line in self.lines[start:]
                             if line.startswith(beginning)), None)
        return wait_for(f"line {beginning!r}", lambda: find() or
                        self.process.poll() is not None and "") or self._ended(beginning)

    def _ended(self, beginning):
        raise Failure(f"the program ended while {beginning!r} was waited for")

    def is_running(self):
        return self.process.poll() is None

    def holds(self):
        """What the process has of what it has to give back."""
        proc = pathlib.Path(f"/proc/{self.process.pid}")
        return {"descriptors": (len(list((proc / "fd").iterdir())), 0),
                "threads": (len(list((proc / "task").iterdir())), 0),
                # Lists that the fakes keep of each session.
                "bytes": (int(self.ask("memory")), 32768)}

    def end(self):
        """Closes its input and returns its exit status."""
        self.process.stdin.close()
        return self.process.wait(60)

    def kill(self):
        if self.is_running():
            self.process.kill()
            self.process.wait(10)


class NativeHost(host_attacks.HostTarget):
    password = "secret"
    scripted = True

    def __init__(self, width, height):
        self.size = width, height
        self.program = NativeProgram("hostile_host", width, height)
        self.number = 1
        self.program.wait_line("log server up on port 7777")

    def log(self):
        with self.program.changed:
            return [line[4:] for line in self.program.lines
                    if line.startswith("log ") and not line.startswith("log latency")]

    def pressed(self):
        return [int(word) for word in self.program.ask("input").split()[1:]]

    def input_calls(self):
        return int(self.program.ask("input").split()[0])

    def holds(self):
        return self.program.holds()

    def is_running(self):
        return self.program.is_running()

    def skip(self, ms):
        self.program.ask(f"clock {ms}")

    def draw(self, what):
        if what.startswith("paint "):
            self.number = int(what[6:])
        self.program.request(what)

    def expected_picture(self):
        width, height = self.size
        x = numpy.arange(width, dtype=numpy.uint32) // 7 * numpy.uint32(0x9E3779B1)
        y = numpy.arange(height, dtype=numpy.uint32) // 5 * numpy.uint32(0x85EBCA6B)
        number = numpy.uint32(self.number * 0xC2B2AE35 & 0xFFFFFFFF)
        pixels = x[None, :] + y[:, None] + number
        return numpy.stack([pixels >> 16 & 255, pixels >> 8 & 255, pixels & 255],
                           axis=2).astype(numpy.uint8)

    def expected_frame(self):
        """The same as NativeViewer.picture() answers."""
        width, height = self.size
        padded = numpy.zeros(((height + 63) // 64 * 64, (width + 63) // 64 * 64, 4), numpy.uint8)
        padded[:height, :width, 2::-1] = self.expected_picture()
        return f"{width} {height} {zlib.crc32(padded.tobytes())}"

    def end(self):
        """Stops the server. Returns the exit status, which tells what the sanitizers say."""
        self.program.request("stop")
        self.connect().close()
        return self.program.end()


class NativeSession(viewer_attacks.Session):
    def __init__(self, program, port, password):
        self.program = program
        self.first = len(program.lines)
        self.result = None
        program.request(f"run {port} {password}")

    def printed(self):
        """What the session printed, once it has ended."""
        with self.program.changed:
            lines = self.program.lines[self.first:self.last]
        return [line for line in lines if not line.startswith(("picture ", "memory "))]

    def status(self):
        if self.result is None:
            self.result = int(self.program.wait_line("ended ", self.first).split()[1])
            with self.program.changed:
                self.last = next(i for i, line in enumerate(self.program.lines)
                                 if i >= self.first and line.startswith("ended "))
        return self.result

    def close_window(self):
        self.program.request("close")

    def shows(self, picture):
        shown = self.program.ask("picture")
        return shown == (f"{picture.width} {picture.height} "
                         f"{zlib.crc32(picture.pixels.tobytes())}")


class NativeViewer(viewer_attacks.ViewerTarget):
    thorough = True

    def __init__(self):
        self.program = NativeProgram("hostile_viewer")
        self.running = None

    def start(self, port, password=viewer_attacks.PASSWORD):
        if self.running:
            self.running.status()  # one at a time
        self.running = NativeSession(self.program, port, password)
        return self.running

    def picture(self):
        """What it has: width, height and a checksum of the picture with its padding."""
        return self.program.ask("picture")

    def press_key(self):
        self.program.request("key 1")

    def holds(self):
        return self.program.holds()


class HostileViewerTest(unittest.TestCase):
    """Viewers against the host."""

    def test_attacks(self):
        host = NativeHost(300, 200)
        self.addCleanup(host.program.kill)
        host_attacks.run(self, host)
        self.assertEqual(host.end(), 0)


class SlowViewerTest(unittest.TestCase):
    """Viewers that take their time, which is real time: mostly waiting."""

    def test_a_slow_viewer_lives_and_a_dead_one_is_given_up(self):
        host = NativeHost(1920, 1080)
        self.addCleanup(host.program.kill)
        host_attacks.reads_slowly(host)
        if SECONDS:
            host_attacks.takes_nothing(host)
        host_attacks.settled(host)
        host_attacks.honest(host)
        self.assertEqual(host.end(), 0)


class HostileHostTest(unittest.TestCase):
    """Hosts against the viewer."""

    def test_attacks(self):
        viewer = NativeViewer()
        self.addCleanup(viewer.program.kill)
        viewer_attacks.run(self, viewer)
        self.assertEqual(viewer.program.end(), 0)


class MiddleTest(unittest.TestCase):
    """Somebody on the line between an honest viewer and an honest host."""

    def test_attacks(self):
        host, viewer = NativeHost(300, 200), NativeViewer()
        self.addCleanup(host.program.kill)
        self.addCleanup(viewer.program.kill)
        middle_attacks.run(self, host, viewer)
        self.assertEqual(viewer.program.end(), 0)
        self.assertEqual(host.end(), 0)


if __name__ == "__main__":
    unittest.main(warnings="ignore")
