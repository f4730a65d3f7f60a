#!/usr/bin/python3
"""Sessions begin, fail and end as they should."""

import os
import signal
import socket
import struct
import subprocess
import time

import harness
import relay

AUTHENTICATION_FAILED = "authentication failed (wrong password, or host not online)"
HOST_AUTH_FAILED = "auth failed (wrong password or not an qv client)"


def wrong(password):
    return ("x" if password[0] != "x" else "y") + password[1:]


class FailureTest(harness.E2ETest):
    """The viewer says why there is no session and returns 1."""

    def check(self, machine, arguments, last_line):
        status, output = machine.run(harness.PROGRAMS / "qv_client.exe", *arguments)
        self.assertEqual(output.splitlines()[-1:], [last_line])
        self.assertEqual(status, 1)

    def test_wrong_password(self):
        host = harness.Host(self.machine("host"))
        machine = self.machine("viewer", 1920, 1080)
        for password in (wrong(host.password), "", host.password[:-1], host.password + "a"):
            self.check(machine, ["127.0.0.1", "-p", password], AUTHENTICATION_FAILED)
        host.wait_log(HOST_AUTH_FAILED, count=4)
        self.assertFalse(host.log_has("client connected"))
        # It spoils nothing for who knows the password.
        viewer = harness.Viewer(machine, "127.0.0.1", "-p", host.password)
        viewer.wait_connected()
        self.wait_same_picture(host, viewer)

    def test_unknown_host(self):
        self.check(self.machine("viewer"), ["no-such-host.invalid", "-p", "x"],
                   "cannot resolve host")

    def test_nobody_listens(self):
        self.check(self.machine("viewer"), ["127.0.0.1", "-p", "x"], "connection failed")
        self.check(self.machine("viewer2"), ["127.0.0.1", "5900", "6000", "-p", "x"],
                   "connection failed")

    def test_a_peer_that_is_no_host(self):
        # It says nothing and hangs up; and: it answers rubbish.
        machine = self.machine("viewer")
        for answer in ("", "HTTP/1.1 400 Bad Request\\r\\n\\r\\n" * 8):
            script = ("import socket; s = socket.create_server(('127.0.0.1', 7777)); "
                      f"c = s.accept()[0]; c.recv(32); c.sendall(b'{answer}'); c.close()")
            server = subprocess.Popen(["/usr/bin/python3", "-c", script])
            self.addCleanup(server.wait)
            # Port 7777 in state 0A, listening; the round before leaves one that is closing.
            harness.wait_for("server", lambda: ":1E61 00000000:0000 0A " in
                             open("/proc/net/tcp", encoding="ascii").read())
            self.check(machine, ["127.0.0.1", "-p", "x"], AUTHENTICATION_FAILED)
            server.wait(10)


class UsageTest(harness.E2ETest):
    VIEWER_USAGE = [
        "usage: qv_client <host> [port] -p <password>          direct",
        "       qv_client -r <ID> [relayhost[:port]] -p <password>   via relay "
        "(default qv-relay:7000)",
    ]

    def test_viewer_usage(self):
        machine = self.machine("viewer")
        for arguments in ([], ["-p", "x"], ["-p"]):
            status, output = machine.run(harness.PROGRAMS / "qv_client.exe", *arguments)
            self.assertEqual(output.splitlines(), self.VIEWER_USAGE, arguments)
            self.assertEqual(status, 1)


class HostTest(harness.E2ETest):
    """The host program by itself."""

    def stop(self, host):
        status, _ = host.machine.run(harness.PROGRAMS / "qv_host.exe", "-q")
        self.assertEqual(status, 0)

    def test_it_keeps_its_id_and_changes_its_password(self):
        machine = self.machine("host")
        first = harness.Host(machine)
        before = first.info
        self.stop(first)
        first.program.wait(10)
        (machine.data_dir / "qv_server.log").unlink()
        second = harness.Host(machine)
        self.assertEqual(second.info["id"], before["id"])
        self.assertNotEqual(second.info["password"], before["password"])

    def test_output_that_goes_into_a_full_file_does_not_matter(self):
        machine = self.machine("host")
        with open("/dev/full", "wb") as full:
            host = harness.Host(machine, stdout=full)
        self.assertTrue(host.program.is_running())
        self.stop(host)
        self.assertEqual(host.program.wait(10), 0)


class SessionTest(harness.E2ETest):
    def test_viewer_reconnects_after_its_window_was_closed(self):
        host, viewer = self.session()
        for count in (1, 2):
            self.wait_same_picture(host, viewer)
            viewer.close_window()
            self.assertEqual(viewer.program.wait(), 0)
            host.wait_log("client disconnected", count)
            viewer = harness.Viewer(viewer.machine, "127.0.0.1", "-p", host.password)
            viewer.wait_connected()
        self.wait_same_picture(host, viewer)
        host.wait_log("client connected: ", 3)
        self.assertTrue(any(line.endswith("caps=3 (text=1 cache=1)") for line in host.log))
        self.assertTrue(host.log_has("session stats: "))

    def test_tiles_are_kept_from_one_session_to_the_next(self):
        host, viewer = self.session()
        self.wait_same_picture(host, viewer)
        viewer.program.wait_line("tile cache: 0 tiles resident from earlier sessions")
        viewer.close_window()
        self.assertEqual(viewer.program.wait(), 0)
        files = [file for file in viewer.machine.drive_c.glob("users/*/AppData/Local/qv/*")
                 if file.is_file()]
        self.assertEqual([file.name for file in files], ["tiles.bin"])
        self.assertEqual(files[0].stat().st_size, 134283280)
        with open(files[0], "rb") as file:
            header = file.read(16)
            keys = struct.unpack("<8192Q", file.read(65536))
        self.assertEqual(header, bytes.fromhex("31435651 00200000 00400000 00000000"))
        kept = sum(1 for key in keys if key)
        self.assertGreater(kept, 0)

        again = harness.Viewer(viewer.machine, "127.0.0.1", "-p", host.password)
        again.wait_connected()
        again.program.wait_line(f"tile cache: {kept} tiles resident from earlier sessions")
        host.wait_log(f"cache: client advertised {kept} tiles (mirror now {kept})")
        self.wait_same_picture(host, again)
        again.wait_title(r"qv - .*  cache hits [1-9]\d*  misses 0")

    def test_viewer_that_vanishes_makes_room(self):
        host, viewer = self.session()
        self.wait_same_picture(host, viewer)
        os.killpg(viewer.program.process.pid, signal.SIGKILL)
        host.wait_log("client disconnected")
        again = harness.Viewer(viewer.machine, "127.0.0.1", "-p", host.password)
        again.wait_connected()
        self.wait_same_picture(host, again)

    def test_host_stop_ends_the_session(self):
        host, viewer = self.session()
        self.wait_same_picture(host, viewer)
        status, _ = host.machine.run(harness.PROGRAMS / "qv_host.exe", "-q")
        self.assertEqual(status, 0)
        self.assertEqual(host.program.wait(10), 0)
        self.assertEqual(viewer.program.wait(10), 0)

    def test_host_that_vanishes_ends_the_session(self):
        host, viewer = self.session()
        self.wait_same_picture(host, viewer)
        os.killpg(host.program.process.pid, signal.SIGKILL)
        self.assertEqual(viewer.program.wait(10), 0)

    def test_second_viewer_waits_until_the_first_leaves(self):
        host, first = self.session()
        second = harness.Viewer(self.machine("second", 1920, 1080), "127.0.0.1", "-p",
                                host.password)
        self.wait_same_picture(host, first)
        time.sleep(2)
        self.assertEqual(second.program.output, "")
        self.assertTrue(second.program.is_running())
        self.assertTrue(first.program.is_running())
        first.close_window()
        self.assertEqual(first.program.wait(), 0)
        second.wait_connected()
        self.wait_same_picture(host, second)


class MemoryTest(harness.E2ETest):
    """What a session at 1920x1080 adds to what both programs have before it."""

    PICTURE = 1920 * 1088 * 4  # whole tiles
    RECORD = PICTURE           # no frame is larger than all of its pixels, heads aside
    # Two pictures, what is known of the viewer's cache, a frame's messages (twice what was
    # needed when they last grew), and the sealed record.
    HOST = 2 * PICTURE + 0x80000 * 8 + 2 * RECORD + 65536 + RECORD
    # A picture, the cache, a record, and what the window is drawn in.
    VIEWER_WINDOW = (2200, 1300)
    VIEWER = PICTURE + 8192 * (16384 + 8) + RECORD + 2200 * 1300 * 4
    BESIDE = 16 << 20

    def peaks(self, machine, program):
        """The most that a program had in memory, and that it had committed, in bytes."""
        return [1024 * int(number) for number in machine.ask("peaks", program).split()]

    def check(self, program, before, after, buffers):
        for kind, low, high in zip(("in memory", "committed"), before, after):
            print(f"{program}: {(high - low) / 2**20:.1f} MiB {kind}, of "
                  f"{(buffers + self.BESIDE) / 2**20:.1f}")
            self.assertGreater(high - low, self.PICTURE, "what is measured is not the session")
            self.assertLessEqual(high - low, buffers + self.BESIDE)

    def test_peaks_stay_within_the_buffers_and_16_mib(self):
        host = harness.Host(self.machine("host", 1920, 1080))
        machine = self.machine("viewer", *self.VIEWER_WINDOW)
        host_before = self.peaks(host.machine, "qv_host.exe")
        with socket.create_server(("127.0.0.1", 0)) as silent:
            viewer = harness.Viewer(machine, "127.0.0.1", silent.getsockname()[1], "-p", "x")
            with silent.accept()[0]:
                viewer_before = self.peaks(machine, "qv_client.exe")
                viewer.program.kill()

        viewer = harness.Viewer(machine, "127.0.0.1", "-p", host.password)
        viewer.wait_connected()
        self.probe_window(host.machine, "probe", 10, 10, 1880, 1000)
        self.wait_same_picture(host, viewer)
        self.check("qv_host.exe", host_before, self.peaks(host.machine, "qv_host.exe"),
                   self.HOST)
        self.check("qv_client.exe", viewer_before, self.peaks(machine, "qv_client.exe"),
                   self.VIEWER)


class RelayTest(harness.E2ETest):
    """Host and viewer meet at a relay."""

    def setUp(self):
        super().setUp()
        if not harness.relay_name_resolves():
            self.skipTest("the relay's name leads nowhere without a namespace and /etc/hosts")

    def join(self, machine, host_id, password, *relay_address):
        return harness.Viewer(machine, "-r", host_id, *relay_address, "-p", password)

    def test_session_through_the_relay(self):
        with relay.test_relay() as running:
            host = harness.Host(self.machine("host"), "-r")
            room = host.info["id"]
            self.assertIn(f"server up via relay qv-relay:7000 room '{room}', dxgi=0",
                          host.log)
            host.wait_log(f"relay: connected to qv-relay:7000, room '{room}', waiting for a "
                          "viewer")
            harness.wait_for("the host at the relay", lambda: running.is_waiting(room))
            machine = self.machine("viewer", 1920, 1080)
            for address in ([], ["127.0.0.1"], ["localhost:7000"]):
                viewer = self.join(machine, room, host.password, *address)
                viewer.wait_connected()
                name, _, port = (address or ["qv-relay:7000"])[0].partition(":")
                self.assertEqual(viewer.program.lines[0],
                                 f"via relay {name}:{port or 7000}, ID {room}, waiting for "
                                 "host...")
                self.probe_window(host.machine, f"probe {name}", 100, 100, 500, 400)
                self.wait_same_picture(host, viewer)
                viewer.close_window()
                self.assertEqual(viewer.program.wait(), 0)
                harness.wait_for("the host's return", lambda: running.is_waiting(room))
            self.assertEqual([hello.role for hello in running.hellos],
                             ["H", "V", "H", "V", "H", "V", "H"])
            self.assertEqual({hello.room for hello in running.hellos}, {room})
            self.assertEqual(running.hellos[0].name, host.info["name"])
            self.assertEqual(running.rejected, 0)

    def test_wrong_password_and_wrong_room(self):
        with relay.test_relay(patience=1.0) as running:
            host = harness.Host(self.machine("host"), "-r")
            room = host.info["id"]
            harness.wait_for("the host at the relay", lambda: running.is_waiting(room))
            machine = self.machine("viewer", 1920, 1080)
            for name, password in ((room, wrong(host.password)), ("000000000", "x")):
                viewer = self.join(machine, name, password)
                self.assertEqual(viewer.program.wait(), 1)
                self.assertEqual(viewer.program.lines[-1], AUTHENTICATION_FAILED)
            host.wait_log(HOST_AUTH_FAILED)
            harness.wait_for("the host's return", lambda: running.is_waiting(room))

    def test_a_relay_that_comes_late(self):
        host = harness.Host(self.machine("host"), "-r")
        host.wait_log("relay: connect qv-relay:7000 failed (10061)", count=2)
        self.assertEqual(self.join(self.machine("viewer", 1920, 1080), host.info["id"],
                                   host.password).program.wait(), 1)
        with relay.test_relay() as running:
            harness.wait_for("the host at the relay",
                             lambda: running.is_waiting(host.info["id"]))

    def test_a_relay_that_goes_ends_the_session(self):
        with relay.test_relay() as running:
            host = harness.Host(self.machine("host"), "-r")
            room = host.info["id"]
            harness.wait_for("the host at the relay", lambda: running.is_waiting(room))
            viewer = self.join(self.machine("viewer", 1920, 1080), room, host.password)
            viewer.wait_connected()
        self.assertEqual(viewer.program.wait(), 0)
        host.wait_log("client disconnected")
        host.wait_log("relay: connect qv-relay:7000 failed")

    def test_an_administrators_relay_is_used_by_both_sides(self):
        with relay.test_relay() as running:
            machines = [self.machine("host"), self.machine("viewer", 1920, 1080)]
            for machine in machines:
                machine.data_dir.mkdir(parents=True, exist_ok=True)
                (machine.data_dir / "relay.txt").write_bytes(b" 127.0.0.1\r\n")
            host = harness.Host(machines[0], "-r")
            room = host.info["id"]
            self.assertEqual(host.info["relay"], "127.0.0.1:7000")
            self.assertIn(f"server up via relay 127.0.0.1:7000 room '{room}', dxgi=0", host.log)
            harness.wait_for("the host at the relay", lambda: running.is_waiting(room))
            viewer = self.join(machines[1], room, host.password)
            viewer.wait_connected()
            self.assertEqual(viewer.program.lines[0],
                             f"via relay 127.0.0.1:7000, ID {room}, waiting for host...")

    def test_a_relay_that_comes_again_is_found_again(self):
        host = None
        for _ in range(2):
            with relay.test_relay() as running:
                host = host or harness.Host(self.machine("host"), "-r")
                room = host.info["id"]
                harness.wait_for("the host at the relay", lambda: running.is_waiting(room))
            host.wait_log("relay: connect qv-relay:7000 failed")
        with relay.test_relay(patience=30) as running:
            machine = self.machine("viewer", 1920, 1080)
            early = self.join(machine, room, host.password)  # perhaps before the host
            early.wait_connected()
            early.close_window()
            self.assertEqual(early.program.wait(), 0)
            harness.wait_for("the host's return", lambda: running.is_waiting(room))


if __name__ == "__main__":
    harness.main()
