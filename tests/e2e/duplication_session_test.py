#!/usr/bin/python3
"""What a duplication shows reaches a viewer to the pixel: the host's program on a double of
Desktop Duplication (duplication_host_win32.cpp) that plays scenes, and the real viewer."""

import re
import subprocess
import time

import numpy

import harness

HOST = harness.PROBES / "duplication_host.exe"
DUMPED = r"dump .*: (\d+)x(\d+), references 1, duplications 1, stagings 1, faults"


class DuplicationHost(harness.Host):
    def __init__(self, machine):
        super().__init__(machine, program=HOST, stdin=subprocess.PIPE)
        self.dumps = 0

    def tell(self, order):
        self.program.process.stdin.write(order.encode() + b"\n")
        self.program.process.stdin.flush()

    def order(self, text):
        """Has the double do something; returns when it is done."""
        def answers():
            return self.program.output.split("\n").count(text)

        before = answers()
        self.tell(text)
        harness.wait_for(f"answer to {text}", lambda: answers() > before)

    def shown(self):
        """What the double shows, as a picture. Checks that nothing was left open."""
        self.dumps += 1
        name = f"shown{self.dumps}.raw"
        self.tell(f"dump C:\\{name}")
        line = self.program.wait_line(rf"dump C:\\{name}.*")
        match = re.fullmatch(DUMPED, line)
        if not match:
            raise harness.Failure(line)
        pixels = numpy.fromfile(self.machine.drive_c / name, numpy.uint8)
        return pixels.reshape(int(match[2]), int(match[1]), 4)[:, :, 2::-1]


def on_screen(picture, width, height):
    """The part of a picture that a viewer with a hello of this size has; black beyond it."""
    screen = numpy.zeros((height, width, 3), numpy.uint8)
    rows, columns = min(height, picture.shape[0]), min(width, picture.shape[1])
    screen[:rows, :columns] = picture[:rows, :columns]
    return screen


class DuplicationSessionTest(harness.E2ETest):
    def wait_shows(self, viewer, picture):
        """Waits until the viewer's window shows just this."""
        end = time.monotonic() + harness.WAIT_SECONDS
        while True:
            unlike = harness.difference(viewer.shot(), picture)
            if not unlike:
                return
            if time.monotonic() > end:
                self.kept.mkdir(parents=True, exist_ok=True)
                harness.save_picture(self.kept / "expected.png", picture)
                raise harness.Failure(f"the viewer does not show what was captured: {unlike}")
            time.sleep(0.05)

    def start(self):
        host = DuplicationHost(self.machine("host", 800, 600))
        self.assertEqual(host.log[:2], ["DXGI duplication 640x480",
                                        "server up on port 7777, dxgi=1"])
        return host, self.connect(host, self.machine("viewer", 1024, 768))

    def connect(self, host, desk):
        viewer = harness.Viewer(desk, "127.0.0.1", "-p", host.password)
        viewer.wait_connected()
        return viewer

    def test_every_kind_of_frame_arrives(self):
        host, viewer = self.start()
        self.wait_shows(viewer, host.shown())
        for seed in range(1, 5):
            host.order(f"play {seed} 60")
            self.wait_shows(viewer, host.shown())
        # Some of those frames took the duplication with them: by a loss, or a map that failed.
        self.assertTrue(host.log_has("AcquireNextFrame 887a0026"))
        self.assertTrue(host.log_has("AcquireNextFrame 8007000e"))
        # A picture that stands still stays.
        picture = host.shown()
        for _ in range(3):
            time.sleep(0.2)
            self.wait_shows(viewer, picture)

    def test_a_desktop_that_is_lost_comes_back_in_any_size(self):
        host, viewer = self.start()
        for step, (width, height) in enumerate([(800, 600), (500, 300), (641, 480),
                                                (64, 64), (640, 480)]):
            host.order(f"size {width} {height}")
            host.wait_log(f"DXGI duplication {width}x{height}")
            self.assertEqual(host.shown().shape, (height, width, 3))
            self.wait_shows(viewer, on_screen(host.shown(), 640, 480))
            host.order(f"play {100 + step} 25")
            self.wait_shows(viewer, on_screen(host.shown(), 640, 480))
        host.order("lose")
        self.wait_shows(viewer, host.shown())

    def test_the_next_viewer_is_told_the_new_size_and_the_last_one_gets_gdi(self):
        host, viewer = self.start()
        self.wait_shows(viewer, host.shown())
        viewer.close_window()
        self.assertEqual(viewer.program.wait(), 0)
        host.tell("size 500 300")  # between sessions: nobody captures
        viewer = self.connect(host, viewer.machine)
        self.assertEqual(viewer.window().client_size, (500, 300))
        self.wait_shows(viewer, host.shown())
        host.order("refuse")
        host.wait_log("GDI capture 800x600")
        lost = host.log.index("GDI capture 800x600") - 2
        self.assertEqual(host.log[lost:lost + 2], ["AcquireNextFrame 887a0026",
                                                   "DuplicateOutput 887a0004"])
        self.probe_window(host.machine, "probe", 100, 50, 300, 200)
        self.wait_shows(viewer, on_screen(host.machine.screen.shot(), 500, 300))


if __name__ == "__main__":
    harness.main()
