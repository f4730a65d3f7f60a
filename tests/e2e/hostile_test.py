#!/usr/bin/python3
"""Peers that mean harm, against the executables: the attacks of tests/hostile/, which run
natively too, here on what users get."""

import sys

import harness

sys.path.append(str(harness.ROOT / "tests/hostile"))
import host_attacks  # noqa: E402
import viewer_attacks  # noqa: E402


class WineHost(host_attacks.HostTarget):
    def __init__(self, host):
        self.host = host
        self.password = host.password
        self.moving = False

    def log(self):
        return [line for line in self.host.log
                if not line.startswith(("frame ", "latency: ")) and line]

    def pressed(self):
        return [int(key) for key in self.host.machine.ask("pressed").split()]

    def holds(self):
        handles, kilobytes = map(int, self.host.machine.ask("holds", "qv_host.exe").split())
        # A thread that Wine has not yet buried; what its heaps keep for the next time.
        return {"handles": (handles, 2), "private KiB": (kilobytes, 16384)}

    def is_running(self):
        return self.host.program.is_running()

    def draw(self, what):
        moving = what in ("noise", "moves")
        if moving != self.moving:
            self.moving = moving
            self.host.machine.ask("post", "probe", 0x8000, int(moving))

    def expected_picture(self):
        return self.host.machine.screen.shot()


class HostileViewerTest(harness.E2ETest):
    """Viewers against qv_host.exe."""

    def test_attacks(self):
        machine = self.machine("host", 640, 480)
        self.probe_window(machine, "probe", 20, 20, 400, 300)
        host = harness.Host(machine)
        host_attacks.run(self, WineHost(host))
        self.assertEqual(machine.run(harness.PROGRAMS / "qv_host.exe", "-q"), (0, ""))
        self.assertEqual(host.program.wait(), 0)


class WineSession(viewer_attacks.Session):
    def __init__(self, machine, port):
        self.viewer = harness.Viewer(machine, "127.0.0.1", port, "-p", viewer_attacks.PASSWORD)

    def printed(self):
        return self.viewer.program.output.splitlines()

    def status(self):
        return self.viewer.program.wait(harness.WAIT_SECONDS * 2)

    def close_window(self):
        self.viewer.window()
        self.viewer.close_window()

    def shows(self, picture):
        window = self.viewer.window()
        left, top = ((inside - outside) // 2 for inside, outside in
                     zip(window.client_size, (picture.width, picture.height)))
        shown = self.viewer.shot()[top:top + picture.height, left:left + picture.width]
        return not harness.difference(shown, picture.visible())


class WineViewer(viewer_attacks.ViewerTarget):
    def __init__(self, machine):
        self.machine = machine

    def start(self, port):
        # Attacks take hashes for unknown that others have given tiles.
        for kept in self.machine.prefix.rglob("tiles.bin"):
            kept.unlink()
        return WineSession(self.machine, port)


class HostileHostTest(harness.E2ETest):
    """Hosts against qv_client.exe."""

    def test_attacks(self):
        viewer_attacks.run(self, WineViewer(self.machine("viewer", 1280, 800)))


if __name__ == "__main__":
    harness.main()
