#!/usr/bin/python3
"""What is done in the viewer's window happens on the host."""

import os
import signal

import harness

VK_CONTROL, VK_ALT, VK_A, VK_B, VK_X, VK_F10 = 17, 18, 65, 66, 88, 121


def lands(x, y, width=1280, height=800):
    """Where a host's pointer comes to rest that is sent to x, y.

    Positions are injected as fractions of 65535 of the screen, truncated, of which the system
    makes whole pixels again, by another divisor: it can be one pixel short of what was sent.
    """
    return ((x * 65535 // (width - 1)) * width >> 16,
            (y * 65535 // (height - 1)) * height >> 16)


class InputTest(harness.E2ETest):
    def setUp(self):
        super().setUp()
        self.host, self.viewer = self.session()
        self.xdotool = self.viewer.machine.screen.xdotool

    def wait_logged(self, log, *lines):
        """Waits until the probe's log has these lines, in this order."""
        def logged():
            left = iter(log.read_text().splitlines())
            return all(line in left for line in lines)
        try:
            harness.wait_for(f"{lines} in the probe's log", logged)
        except harness.Failure as failure:
            raise harness.Failure(f"{failure}; it has:\n{log.read_text()}") from None

    def wait_text(self, machine, text):
        """Waits until the editor on the host holds the text."""
        def has():
            return machine.ask("text", "class=Notepad", "Edit")
        try:
            harness.wait_for("text in the editor", lambda: has() == text)
        except harness.Failure as failure:
            raise harness.Failure(f"{failure}: {text!r}; it has {has()!r}") from None

    def test_typed_text_arrives_in_a_program(self):
        machine = self.host.machine
        machine.start("notepad")
        machine.wait_window("Untitled")
        machine.ask("place", "class=Notepad", 100, 80, 700, 500)
        self.wait_same_picture(self.host, self.viewer)
        self.viewer.click(400, 300)
        text = "Hello, World! 0123456789 (quick) [brown] {fox} jumps; over: the 'lazy' dog?"
        self.xdotool("type", text)
        self.wait_text(machine, text)
        # Keys that type nothing: replace the last word.
        self.xdotool("key", "ctrl+shift+Left", "Delete")
        self.xdotool("type", "cat.")
        self.xdotool("key", "Home", "Return", "Up")
        self.xdotool("type", "Above")
        edited = "Above\n" + text.replace("dog?", "cat.")
        self.wait_text(machine, edited)
        self.wait_same_picture(self.host, self.viewer)

    def test_mouse_arrives_to_the_pixel(self):
        log = self.probe_window(self.host.machine, "probe", 0, 0, 1280, 800)
        self.wait_same_picture(self.host, self.viewer)
        for x, y in ((0, 0), (1, 1), (639, 400), (333, 777), (1279, 0), (0, 799), (1279, 799)):
            self.viewer.point_at(x, y)
            at = "{} {}".format(*lands(x, y))
            harness.wait_for(f"pointer at {at}", lambda: self.host.machine.ask("cursor") == at)
            self.assertIn(f"move {at}", log.read_text().splitlines())

    def test_buttons_and_wheel(self):
        log = self.probe_window(self.host.machine, "probe", 0, 0, 1280, 800)
        self.wait_same_picture(self.host, self.viewer)
        for number, name in ((1, "left"), (2, "middle"), (3, "right")):
            self.viewer.click(100 * number, 50 + number, number)
            at = "{} {}".format(*lands(100 * number, 50 + number))
            self.wait_logged(log, f"move {at}", f"down {name} {at}", f"up {name} {at}")
        self.viewer.click(600, 500, 4)
        self.viewer.click(600, 500, 5)
        at = "{} {}".format(*lands(600, 500))
        self.wait_logged(log, f"wheel 120 {at}", f"wheel -120 {at}")

    def test_drag_that_ends_outside_the_window(self):
        log = self.probe_window(self.host.machine, "probe", 0, 0, 1280, 800)
        self.wait_same_picture(self.host, self.viewer)
        left, top, right, bottom = self.viewer.window().client
        screen = self.viewer.machine.screen
        self.assertLess(right + 20, screen.width)
        self.viewer.point_at(1200, 300)
        self.xdotool("mousedown", 1)
        pressed = "down left {} {}".format(*lands(1200, 300))
        self.wait_logged(log, pressed)
        self.xdotool("mousemove", right + 20, top + 310, "mouseup", 1)
        self.wait_logged(log, pressed, "up left {} {}".format(*lands(1279, 310)))

    def test_system_keys_go_to_the_host(self):
        log = self.probe_window(self.host.machine, "probe", 0, 0, 1280, 800)
        self.wait_same_picture(self.host, self.viewer)
        self.viewer.click(10, 300)
        self.xdotool("key", "F10", "alt+x")
        self.wait_logged(log, f"key down {VK_F10}", f"key up {VK_F10}", f"key down {VK_ALT}",
                         f"key down {VK_X}", f"key up {VK_X}")
        self.wait_logged(log, f"key down {VK_X}", f"key up {VK_ALT}")

    def test_what_is_held_is_released_when_the_viewer_is_gone(self):
        log = self.probe_window(self.host.machine, "probe", 0, 0, 1280, 800)
        self.wait_same_picture(self.host, self.viewer)
        self.viewer.click(640, 400)
        self.xdotool("keydown", "a", "keydown", "ctrl")
        self.viewer.point_at(650, 410)
        self.xdotool("mousedown", 3)
        at = "{} {}".format(*lands(650, 410))
        self.wait_logged(log, f"key down {VK_A}", f"key down {VK_CONTROL}",
                         f"down right {at}")
        # No farewell: the process is gone from one moment to the next.
        os.killpg(self.viewer.program.process.pid, signal.SIGKILL)
        self.host.wait_log("client disconnected")
        for line in (f"key up {VK_A}", f"key up {VK_CONTROL}", f"up right {at}"):
            self.wait_logged(log, line)
        self.assertEqual(self.host.machine.ask("pressed"), "")
        self.assertEqual(self.host.machine.ask("cursor"), at)

    def test_keys_held_are_released_when_the_window_loses_the_focus(self):
        log = self.probe_window(self.host.machine, "probe", 0, 0, 1280, 800)
        other = self.probe_window(self.viewer.machine, "other", 1400, 900, 200, 100)
        self.wait_same_picture(self.host, self.viewer)
        self.viewer.click(640, 400)
        self.xdotool("keydown", "b")
        self.wait_logged(log, f"key down {VK_B}")
        self.assertNotIn(f"key up {VK_B}", log.read_text())
        self.xdotool("mousemove", 1450, 950, "click", 1)
        self.wait_logged(other, "down left 1450 950")
        self.wait_logged(log, f"key up {VK_B}")
        self.xdotool("keyup", "b")


class ScaledTest(harness.E2ETest):
    """A host's screen that does not fit the viewer's is shown smaller."""

    def view(self, viewer):
        """(width, height, left, top) of the scaled picture in the client area."""
        width, height = viewer.window().client_size
        scale = min(width / 1280, height / 800, 1.0)
        view_width, view_height = int(1280 * scale), int(800 * scale)
        return view_width, view_height, (width - view_width) // 2, (height - view_height) // 2

    def check_click(self, viewer, log, client_x, client_y):
        """Clicks at a point of the client area; checks where it lands on the host."""
        width, height, left, top = self.view(viewer)
        # Division that truncates toward zero, then the clamp.
        x = min(max(int((client_x - left) * 1280 / width), 0), 1279)
        y = min(max(int((client_y - top) * 800 / height), 0), 799)
        x, y = lands(x, y)
        client = viewer.window().client
        viewer.machine.screen.xdotool("mousemove", client[0] + client_x, client[1] + client_y,
                                      "click", 1)
        harness.wait_for(f"click at {client_x}, {client_y} as {x}, {y}; last were "
                         f"{log.read_text().splitlines()[-3:]}",
                         lambda: f"down left {x} {y}" in log.read_text().splitlines())

    def test_a_smaller_screen_gets_a_smaller_picture(self):
        host, viewer = self.session((1280, 800), (1024, 640))
        # Nine tenths of the screen: 921 x 576.
        self.assertEqual(viewer.window().client_size, (921, 576))
        self.assertEqual(self.view(viewer), (921, 575, 0, 0))
        log = self.probe_window(host.machine, "probe", 0, 0, 1280, 800)
        for client_x, client_y in ((0, 0), (1, 1), (460, 288), (123, 456), (920, 0),
                                   (0, 574), (920, 574), (700, 33)):
            self.check_click(viewer, log, client_x, client_y)

        # What is far from any edge in the probe's picture has its colour in the view too.
        harness.wait_for("the scaled picture", lambda: (
            viewer.shot()[int(500 * 0.7195), int(900 * 0.7195)].tolist() == [40, 60, 90] and
            viewer.shot()[int(100 * 0.7195), int(375 * 0.7195)].tolist() != [40, 60, 90]))
        sample = host.machine.screen.shot()[8:750:8, 450:1270:8]
        shown = viewer.shot()[8:540:8, int(450 * 0.7195) + 8:900:8]
        self.assertEqual(sample.reshape(-1, 3).min(axis=0).tolist(), [40, 60, 90])
        self.assertEqual(shown.reshape(-1, 3).min(axis=0).tolist(), [40, 60, 90])
        self.assertEqual(shown.reshape(-1, 3).max(axis=0).tolist(), [40, 60, 90])

    def test_bars_beside_the_picture(self):
        host, viewer = self.session((1280, 800), (1920, 1080))
        log = self.probe_window(host.machine, "probe", 0, 0, 1280, 800)
        self.wait_same_picture(host, viewer)
        # Low and wide: bars left and right, clicks there land on the picture's edges.
        viewer.machine.ask("place", "class=qvviewer", 20, 20, 1400, 500)
        width, height, left, top = self.view(viewer)
        self.assertGreater(left, 100)
        for client_x in (left // 2, left - 1, left, left + 1, left + width - 1, left + width,
                         left + width + left // 2):
            self.check_click(viewer, log, client_x, 200)
        # The picture's last column is a fraction of a pixel and rounded up.
        harness.wait_for("black bars", lambda: not viewer.shot()[:, :left].any() and
                         not viewer.shot()[:, left + width + 1:].any())

    def test_a_window_larger_than_the_screen_is_not_enlarged(self):
        host, viewer = self.session((800, 600), (1280, 900))
        self.probe_window(host.machine, "probe", 40, 40, 700, 500)
        self.wait_same_picture(host, viewer)
        viewer.machine.ask("place", "class=qvviewer", 10, 10, 1100, 800)
        width, height = viewer.window().client_size
        left, top = (width - 800) // 2, (height - 600) // 2
        self.assertGreater(left, 50)

        def centred():
            shown = viewer.shot().copy()
            inner = shown[top:top + 600, left:left + 800].copy()
            shown[top:top + 600, left:left + 800] = 0
            return not shown.any() and not harness.difference(inner, host.machine.screen.shot())

        harness.wait_for("the picture in the middle, black around it", centred)


if __name__ == "__main__":
    harness.main()
