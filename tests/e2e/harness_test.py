#!/usr/bin/python3
"""The harness itself: what the other tests take for granted."""

import pathlib
import socket
import subprocess
import textwrap

import harness
import relay


class HarnessTest(harness.E2ETest):
    def test_windows_are_where_the_screen_shows_them(self):
        machine = self.machine("one", 800, 600)
        self.assertEqual(machine.ask("metrics"), "800 600")
        self.probe_window(machine, "probe", 100, 50, 640, 400)
        window = machine.window("probe")
        self.assertEqual(window.client, (100, 50, 740, 450))
        # The background of the probe, right of everything that it draws.
        self.assertEqual(machine.screen.shot()[60, 739].tolist(), [40, 60, 90])
        self.assertNotEqual(machine.screen.shot()[60, 740].tolist(), [40, 60, 90])

    def test_mouse_and_keys_reach_a_window(self):
        machine = self.machine("one", 800, 600)
        log = self.probe_window(machine, "probe", 0, 0, 400, 300)
        machine.screen.xdotool("mousemove", 123, 45, "click", 1)
        harness.wait_for("click", lambda: "up left 123 45" in log.read_text().splitlines())
        machine.screen.xdotool("key", "a")
        harness.wait_for("key", lambda: "key up 65" in log.read_text().splitlines())

    def test_two_machines_have_their_own_screens_and_files(self):
        one, two = self.machine("one", 640, 480), self.machine("two", 800, 600)
        self.assertNotEqual(one.screen.display, two.screen.display)
        (one.drive_c / "mark").write_text("")
        self.assertFalse((two.drive_c / "mark").exists())
        self.assertEqual(two.ask("metrics"), "800 600")
        self.assertEqual(one.ask("metrics"), "640 480")

    def test_what_a_program_leaves_running_is_found(self):
        subprocess.run(["setsid", "-f", "sleep", "600"], check=True)
        harness.wait_for("orphan", lambda: list(harness.descendants().values()) == ["sleep"])
        self.assertEqual(harness.end_everything(), ["sleep"])
        self.assertEqual(harness.descendants(), {})

    def test_a_picture_that_differs_in_one_pixel_differs(self):
        machine = self.machine("one", 640, 480)
        picture = machine.screen.shot()
        other = picture.copy()
        self.assertEqual(harness.difference(picture, other), "")
        other[7, 9, 2] ^= 1
        self.assertIn("x 9..9, y 7..7", harness.difference(picture, other))

    def test_a_test_that_hangs_is_stopped_and_tidied_up(self):
        kept = self.directory / "kept"
        script = textwrap.dedent(f"""\
            import sys
            sys.path.insert(0, {str(pathlib.Path(__file__).parent)!r})
            import harness, pathlib, signal, time
            harness.KEPT_DIR = pathlib.Path({str(kept)!r})

            class Hangs(harness.E2ETest):
                def test(self):
                    machine = self.machine("one", 640, 480)
                    machine.start("notepad")
                    machine.wait_window("Untitled")
                    signal.alarm(1)  # the time is up
                    time.sleep(60)

            harness.main()
            """)
        before = set((harness.WINE_DIR / "run").iterdir())
        done = subprocess.run(["/usr/bin/python3", "-c", script], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=100)
        self.assertEqual(done.returncode, 1)
        self.assertIn("the test took longer than", done.stdout)
        self.assertNotIn("left running", done.stdout)
        self.assertEqual(harness.descendants(), {})
        self.assertEqual([path.name for path in kept.glob("*/one.png")], ["one.png"])
        left = set((harness.WINE_DIR / "run").iterdir()) - before
        self.assertEqual([path for path in left if "Hangs" in path.name], [])

    def test_a_class_without_a_test_fails(self):
        script = textwrap.dedent(f"""\
            import sys
            sys.path.insert(0, {str(pathlib.Path(__file__).parent)!r})
            import harness

            class Empty(harness.E2ETest):
                pass

            harness.main()
            """)
        done = subprocess.run(["/usr/bin/python3", "-c", script], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=100)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"there is no such test", done.stdout)


def relay_side(role, room, bytes_after=b""):
    """Connects to the relay as a host ("H") or a viewer ("V")."""
    side = socket.create_connection(("127.0.0.1", relay.PORT), timeout=10)
    side.sendall(b"QVRL\x02" + role.encode() + room.encode().ljust(18, b"\0") +
                 b"a computer".ljust(32, b"\0") + bytes_after)
    return side


class RelayHarnessTest(harness.E2ETest):
    """The relay that other tests go through."""

    def test_bytes_pass_both_ways_also_those_sent_before_pairing(self):
        with relay.TestRelay() as running:
            viewer = relay_side("V", "room one", b"early")
            harness.wait_for("hello", lambda: len(running.hellos) == 1)
            host = relay_side("H", "room one")
            self.assertEqual(host.recv(100), b"early")
            host.sendall(b"x" * 3_000_000 + b"end")
            received = b""
            while not received.endswith(b"end"):
                received += viewer.recv(1 << 20)
            self.assertEqual(len(received), 3_000_003)
            self.assertEqual(running.hellos[0], (b"QVRL", 2, "V", "room one", "a computer"))
            host.close()
            self.assertEqual(viewer.recv(1), b"")

    def test_a_host_hears_that_its_viewer_left(self):
        with relay.TestRelay() as running:
            host = relay_side("H", "r")
            harness.wait_for("host", lambda: running.is_waiting("r"))
            viewer = relay_side("V", "r", b"k")
            self.assertEqual(host.recv(1), b"k")
            self.assertFalse(running.is_waiting("r"))
            viewer.close()
            self.assertEqual(host.recv(1), b"")

    def test_a_viewer_without_host_is_sent_away(self):
        with relay.TestRelay(patience=0.2):
            self.assertEqual(relay_side("V", "nobody").recv(1), b"")

    def test_a_host_that_leaves_frees_its_room(self):
        with relay.TestRelay() as running:
            host = relay_side("H", "r")
            harness.wait_for("host", lambda: running.is_waiting("r"))
            host.close()
            harness.wait_for("room", lambda: not running.is_waiting("r"))


if __name__ == "__main__":
    harness.main()
