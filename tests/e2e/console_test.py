#!/usr/bin/python3
"""A console in front is shown as text, and nothing happens to whoever reads it."""

import re
import time

import cell_reader
import harness

WM_CLOSE = 0x0010
APP_PAGE, APP_KEYS, APP_LOOK, APP_ROW = 0x8000, 0x8001, 0x8002, 0x8003
LAYER = r"qv - .*  \[text layer\]"
NO_LAYER = r"qv - .*  misses \d+"
HOST_SIZE = (1280, 800)
X, Y, COLUMNS, ROWS = 160, 128, 80, 24  # tiles 3 to 11 across and 2 to 7 down are covered
CELL = (8, 16)
# What console_double writes, by row.
PAGE = dict(enumerate((
    "This is page 1.",
    "",
    "C:\\work>dir",
    "",
    " Directory of C:\\work",
    "",
    "2026-11-02  09:14    <DIR>          .",
    "2026-11-02  09:14    <DIR>          ..",
    "2026-11-02  09:20             4,817 notes.txt",
    "2026-11-03  17:41           128,512 table.csv",
    "2026-11-05  08:02                96 start.cmd",
    "               3 File(s)        133,425 bytes",
    "",
    "C:\\work>start.cmd",
    "warning: 2 rows of table.csv have no date",
    "error: the printer is out of paper",
    "A status line, white on blue: {[(|)]} il1 O0 #$%&@",
    "",
    "C:\\work>_",
)))


class ConsoleCase:
    def console(self, machine):
        """Starts a console and brings it to the front. Returns the path of its log."""
        log = machine.drive_c / "console.log"
        machine.start(harness.PROBES / "console_double.exe", "console", X, Y, COLUMNS, ROWS,
                      machine.windows_path(log))
        window = machine.wait_window("console")
        self.assertEqual(window.client, (X, Y, X + COLUMNS * CELL[0], Y + ROWS * CELL[1]))
        self.assertIsNotNone(machine.ask("front", "console"))
        return log

    def post(self, machine, message, value):
        self.assertIsNotNone(machine.ask("post", "console", message, value))

    def wait_log(self, log, pattern):
        return harness.wait_for(f"{pattern!r} in the console's log",
                                lambda: re.search(pattern, log.read_text()), 60)

    def settled(self, viewer):
        """What the viewer shows once it no longer changes."""
        last = viewer.shot()
        for _ in range(200):
            time.sleep(0.2)
            now = viewer.shot()
            if not harness.difference(last, now):
                return now
            last = now
        raise harness.Failure("the viewer's picture does not come to rest")

    def keep(self, name, picture):
        """Saves what is to be looked at."""
        directory = harness.KEPT_DIR / "console"
        directory.mkdir(parents=True, exist_ok=True)
        harness.save_picture(directory / f"{name}.png", picture)


class ConsoleSmallTest(ConsoleCase, harness.E2ETest):
    """In a window of half the size: what the layer is for."""

    def test_with_and_without_the_layer(self):
        machine = self.machine("host", *HOST_SIZE)
        host = harness.Host(machine)
        self.console(machine)
        self.probe_window(machine, "probe", 900, 600, 200, 100)
        machine.ask("front", "console")
        # Nine tenths of this screen hold just half of the host's: cells of 4 x 8 pixels.
        viewer = harness.Viewer(self.machine("viewer", 740, 445), "127.0.0.1", "-p",
                                host.password)
        viewer.wait_connected()
        viewer.wait_title(LAYER)
        width, height = viewer.window().client_size
        self.assertEqual(height, HOST_SIZE[1] // 2)
        left, top = (width - HOST_SIZE[0] // 2) // 2 + X // 2, Y // 2
        inside = (slice(top, top + ROWS * CELL[1] // 2),
                  slice(left, left + COLUMNS * CELL[0] // 2))
        text = self.settled(viewer)
        self.keep("half-size-text", text)

        machine.ask("front", "probe")
        viewer.wait_title(NO_LAYER)
        pixels = self.settled(viewer)
        self.keep("half-size-pixels", pixels)
        # The layer's text can be read, that of the scaled pixels at best guessed. When this was
        # written 91 % and 54 % of the characters were read right: in cells of 4 x 8 pixels an n
        # is much like an m.
        reader = cell_reader.CellReader("".join(PAGE.values()).replace(" ", ""), 4, 8)
        read = {name: reader.share_read(picture[inside], PAGE)
                for name, picture in (("text", text), ("pixels", pixels))}
        self.assertGreater(read["text"], 0.8, read)
        self.assertGreater(read["text"], read["pixels"] + 0.15, read)
        # The white-on-blue row is one in both, at the same place.
        row = top + 16 * CELL[1] // 2 + 3
        for picture in (text, pixels):
            blue = (picture[row, inside[1]] == (0, 55, 218)).all(axis=1)
            self.assertGreater(blue.mean(), 0.5)

        machine.ask("front", "console")
        viewer.wait_title(LAYER)
        again = self.settled(viewer)
        self.assertEqual(harness.difference(again[inside], text[inside]), "")


class ConsoleTest(ConsoleCase, harness.E2ETest):
    def test_rows_keys_and_the_layers_end(self):
        host, viewer = self.session(HOST_SIZE)
        machine = host.machine
        log = self.console(machine)
        self.probe_window(machine, "probe", 900, 600, 200, 100)
        machine.ask("front", "console")
        viewer.wait_title(LAYER)
        before = self.settled(viewer)
        self.keep("full-size-text", before)

        # One row is written: it alone changes.
        self.post(machine, APP_ROW, 20)
        after = self.settled(viewer)
        unlike = (before != after).any(axis=2)
        rows = harness.numpy.nonzero(unlike.any(axis=1))[0]
        self.assertGreater(len(rows), 0)
        self.assertGreaterEqual(rows[0], Y + 20 * CELL[1])
        self.assertLess(rows[-1], Y + 21 * CELL[1])

        # While it is read the host is one of the console's programs, and its keys go to all
        # of those. So many cannot all fall between two readings.
        self.post(machine, APP_LOOK, 1000)
        found = self.wait_log(log, r"alone (\d+) others (\d+)")
        self.assertGreater(int(found[1]), 0)
        self.assertGreater(int(found[2]), 0, "the host was never seen reading")
        self.post(machine, APP_KEYS, 3000)
        seen = self.wait_log(log, r"keys 3000 seen (\d+)")
        self.assertGreater(int(seen[1]), 0)
        self.assertTrue(host.program.is_running())
        self.post(machine, APP_ROW, 21)
        self.assertNotEqual(harness.difference(self.settled(viewer), after), "")

        # Another window: the layer goes, the pixels come, nothing stays attached.
        machine.ask("front", "probe")
        viewer.wait_title(NO_LAYER)
        self.wait_same_picture(host, viewer)
        self.post(machine, APP_LOOK, 500)
        self.wait_log(log, r"alone 500 others 0")

        # So it does when the console closes.
        machine.ask("front", "console")
        viewer.wait_title(LAYER)
        self.post(machine, WM_CLOSE, 0)
        viewer.wait_title(NO_LAYER)
        self.wait_same_picture(host, viewer)


if __name__ == "__main__":
    harness.main()
