#!/usr/bin/python3
"""The viewer shows the host's screen, to the pixel, while programs work there."""

import re
import time

import harness

TITLE = (r"qv - (\S+)  (\d+)x(\d+)  (\d+) fps  (\d+) KB/s  cache hits (\d+)  misses (\d+)"
         r"(  \[text layer\])?")
NUMBER_BITS, BIT_SIZE = 16, 8  # as the probe window paints its picture number


def picture_number(picture, x, y):
    """The number of the picture that a probe window at x, y shows."""
    number = 0
    for bit in range(NUMBER_BITS):
        pixel = picture[y + BIT_SIZE // 2, x + bit * BIT_SIZE + BIT_SIZE // 2]
        number = number * 2 + int(pixel.sum() > 384)
    return number


class PictureCase:
    """Programs work on a host's screen in bursts; whenever they rest, both pictures are the
    same, and during a burst the viewer's moves on."""

    PROBE = (700, 40, 500, 400)

    def follow(self, host_size, bursts):
        host, viewer = self.session(host_size)
        width, height = host_size
        self.assertEqual(viewer.program.wait_line(r"connected to .*").split()[-1],
                         f"({width}x{height})")
        self.assertEqual(viewer.window().client_size, host_size)
        self.wait_same_picture(host, viewer)

        machine = host.machine
        (machine.drive_c / "words.txt").write_text("The quick brown fox\r\n" * 40)
        machine.start("notepad", r"C:\words.txt")
        machine.wait_window("words")
        machine.start("winemine")
        machine.wait_window("WineMine")
        x, y, w, h = self.PROBE
        self.probe_window(machine, "probe", x, y, w, h)
        empty = machine.screen.shot()[height - 1, width - 1]
        picture = self.wait_same_picture(host, viewer)
        self.assertEqual(picture_number(picture, x, y), 0)
        self.assertTrue((picture != empty).any(axis=2).sum() > w * h,
                        "the host's screen shows hardly anything")

        last = 0
        for burst in range(bursts):
            self.animate(machine, "probe", True)
            seen = []
            start = time.monotonic()
            end = start + 1.5 + burst / 10
            while time.monotonic() < end:
                seen.append(picture_number(viewer.shot(), x, y))
                # On a busy machine a screenshot alone may take most of that time.
                if len(set(seen)) <= 2:
                    end = min(time.monotonic() + 1, start + harness.WAIT_SECONDS)
            self.animate(machine, "probe", False)
            self.assertEqual(seen, sorted(seen), "the picture went back in time")
            self.assertGreater(len(set(seen)), 2, f"the picture hardly moved: {seen}")
            picture = self.wait_same_picture(host, viewer)
            now = picture_number(picture, x, y)
            self.assertGreater(now, last)
            last = now

        # Windows that move and vanish.
        self.assertIsNotNone(machine.ask("place", "probe", 200, 150, w, h))
        self.wait_same_picture(host, viewer)
        self.assertEqual(picture_number(viewer.shot(), 200, 150), last)
        machine.ask("post", "probe", 0x0010, 0)
        harness.wait_for("the probe's end", lambda: not machine.window("probe"))
        picture = self.wait_same_picture(host, viewer)

        # At rest it stays: nothing drifts, nothing blinks. (The pictures may only differ
        # while a caret does.)
        for _ in range(3):
            time.sleep(0.3)
            self.wait_same_picture(host, viewer)
        return host, viewer


class PictureTest(PictureCase, harness.E2ETest):
    def test_screen_of_whole_tile_columns(self):
        self.follow((1280, 800), bursts=4)


class OddSizePictureTest(PictureCase, harness.E2ETest):
    def test_screen_that_ends_inside_a_tile_column(self):
        self.follow((1366, 768), bursts=4)


class TitleTest(harness.E2ETest):
    def test_title_tells_frames_and_rate(self):
        host, viewer = self.session()
        self.probe_window(host.machine, "probe", 100, 100, 500, 400)
        self.wait_same_picture(host, viewer)
        self.animate(host.machine, "probe", True)

        def lively():
            match = re.fullmatch(TITLE, viewer.window().title)
            return match if match and int(match[4]) > 0 and int(match[5]) > 0 else None

        match = harness.wait_for("a title with frames and KB/s", lively)
        self.assertEqual(match[2] + "x" + match[3], "1280x800")
        self.assertEqual(match[1], host.info["name"])
        self.animate(host.machine, "probe", False)
        # A still screen sends no pictures: the rate comes to rest.
        harness.wait_for("a rate of 0 KB/s at rest",
                         lambda: re.fullmatch(TITLE, viewer.window().title)[5] == "0")


if __name__ == "__main__":
    harness.main()
