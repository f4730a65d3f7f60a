#!/usr/bin/python3
"""The system's own host and viewer over the relay program.

    tools/own_network tests/relay/system_test.py -v [Class[.test]]

Host server, identity, log, viewer session and sockets are those of the product, natively, on a
desktop and in a window that are scripted. Both look for relays at port 7000 only, which is
what the network of one's own is for.
"""

import concurrent.futures
import contextlib
import os
import pathlib
import random
import re
import subprocess
import tempfile
import time
import unittest

from relay_program import PATIENCE, ROOT, VIEWER, Relay, hello, is_closed, receive

SIDES = pathlib.Path(os.environ.get("QV_RELAY_SIDES",
                                    ROOT / "build/linux-release/tests/relay"))
SIX_HOURS_MS = 6 * 3600 * 1000
AUTH_FAILED = "auth failed (wrong password or not an qv client)"


def wait_for(what, find):
    """The first thing found that is not nothing."""
    end = time.monotonic() + PATIENCE
    while not (found := find()):
        assert time.monotonic() < end, f"{what}: not within {PATIENCE} s"
        time.sleep(0.02)
    return found


class Host:
    """One of the system's hosts, in a data directory of its own."""

    def __init__(self, relay_text=b"127.0.0.1"):
        self.folder = tempfile.TemporaryDirectory()
        base = pathlib.Path(self.folder.name)
        (base / "data").mkdir()
        self.prefix = str(base / "data\\qv")  # how the product writes a path
        os.mkdir(self.prefix)
        pathlib.Path(self.prefix + "\\relay.txt").write_bytes(relay_text)
        self.process = subprocess.Popen(
            [SIDES / "relay_host"], env=dict(os.environ, PROGRAMDATA=str(base / "data")),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def close(self):
        self.process.stdin.close()
        status = self.process.wait(PATIENCE)
        self.process.stdout.close()
        self.folder.cleanup()
        assert status == 0, status

    def file(self, name):
        path = pathlib.Path(self.prefix + "\\" + name)
        return path.read_text() if path.exists() else ""

    @property
    def log(self):
        return self.file("qv_server.log").splitlines()

    def wait_log(self, pattern, first=0):
        """The first matching line at or after this one."""
        return wait_for(f"a line like {pattern!r} in {self.log[first:]}", lambda: next(
            (line for line in self.log[first:] if re.search(pattern, line)), None))

    def value(self, name):
        return wait_for(name, lambda: re.search(f"^{name}=(.+)$", self.file("host.txt"),
                                                re.M))[1]

    id = property(lambda self: self.value("id"))
    password = property(lambda self: self.value("password"))

    def put_forward(self, ms):
        self.process.stdin.write(f"clock {ms}\n")
        self.process.stdin.flush()
        assert self.process.stdout.readline() == "clock\n"


def view(host_id, password, *relay_address):
    """Runs the viewer to its end. Returns (status, what it printed)."""
    done = subprocess.run([SIDES / "relay_viewer", "-r", host_id,
                           *(relay_address or ["127.0.0.1"]), "-p", password],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          timeout=2 * PATIENCE)
    return done.returncode, done.stdout


class SystemTest(unittest.TestCase):
    def setUp(self):
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)

    def relay(self, *options):
        return Relay("--drain-seconds", "0", *options, port=7000)

    def host(self):
        host = Host()
        self.stack.callback(host.close)
        return host

    def entries(self, relay, host):
        return sum(f"room '{host.id}', name" in line and "Z host" in line
                   for line in list(relay.lines))

    def wait_entry(self, relay, host, count):
        wait_for(f"entry {count} of {host.id}", lambda: self.entries(relay, host) >= count)

    def assert_session(self, host, password=None):
        status, text = view(host.id, password or host.password)
        self.assertEqual(status, 0, text)
        self.assertIn("picture", text)
        self.assertIn(f"via relay 127.0.0.1:7000, ID {host.id}, waiting for host...\n", text)

    def assert_no_session(self, host_id, password):
        status, text = view(host_id, password)
        self.assertEqual(status, 1)
        self.assertIn("authentication failed (wrong password, or host not online)", text)

    def test_one_connection_serves_one_session_and_then_the_host_comes_again(self):
        with self.relay() as relay:
            host = self.host()
            for n in range(1, 5):
                self.wait_entry(relay, host, n)
                self.assert_session(host)
            self.wait_entry(relay, host, 5)
            self.assertEqual(relay.metric("qv_relay_paired_total"), 4)
            self.assertEqual(relay.metric("qv_relay_accepted_total"), 9)
            self.assertEqual(relay.metric("qv_relay_replaced_hosts_total"), 0)
            self.assertEqual(relay.metric("qv_relay_failed_logins_total"), 0)

    def test_three_viewers_at_once_are_served_one_after_the_other(self):
        with self.relay() as relay:
            host = self.host()
            self.wait_entry(relay, host, 1)
            viewers = [subprocess.Popen([SIDES / "relay_viewer", "-r", host.id, "127.0.0.1",
                                         "-p", host.password], stdout=subprocess.DEVNULL)
                       for _ in range(3)]
            for viewer in viewers:
                self.assertEqual(viewer.wait(PATIENCE), 0)
            self.wait_entry(relay, host, 4)

    def test_a_wrong_password_ends_both_and_is_counted(self):
        with self.relay() as relay:
            host = self.host()
            self.wait_entry(relay, host, 1)
            self.assert_no_session(host.id, "wrong")
            host.wait_log(re.escape(AUTH_FAILED))
            self.wait_entry(relay, host, 2)
            self.assertEqual(relay.metric("qv_relay_failed_logins_total"), 1)
            self.assert_session(host)
            self.assertEqual(relay.metric("qv_relay_failed_logins_total"), 1)

    def test_a_command_line_leads_to_its_relay_and_room(self):
        room = "123456789012345678"
        default = tempfile.TemporaryDirectory()
        self.addCleanup(default.cleanup)
        os.mkdir(data := default.name + "\\qv")
        pathlib.Path(data + "\\relay.txt").write_text("localhost")
        with self.relay() as usual, Relay(port=7100) as other:
            for arguments, relay, said in (
                    (["-r", room], usual, "localhost:7000"),
                    (["-r", room + "9", "127.0.0.1"], usual, "127.0.0.1:7000"),
                    (["-r", room, "127.0.0.1", "7100"], usual, "127.0.0.1:7000"),
                    (["127.0.0.1:7100", "-r", room], other, "127.0.0.1:7100")):
                with self.subTest(arguments), relay.host(room) as host:
                    viewer = subprocess.Popen(
                        [SIDES / "relay_viewer", *arguments, "-p", "any"], text=True,
                        env=dict(os.environ, PROGRAMDATA=default.name),
                        stdout=subprocess.PIPE)
                    receive(host, 32)  # its key, what a viewer says first
                    host.close()
                    text = viewer.communicate(timeout=PATIENCE)[0]
                    self.assertIn(f"via relay {said}, ID {room}, waiting for host...\n", text)
                    self.assertEqual(viewer.returncode, 1)
            self.assertEqual(usual.metric("qv_relay_paired_total"), 3)
            self.assertEqual(other.metric("qv_relay_paired_total"), 1)

    def test_a_viewer_whose_host_is_not_there_is_sent_away_after_a_while(self):
        with self.relay("--viewer-wait-seconds", "1"):
            began = time.monotonic()
            self.assert_no_session("123456789", "any")
            self.assertGreaterEqual(time.monotonic() - began, 1)

    def test_a_viewer_may_come_before_its_host(self):
        with self.relay("--viewer-wait-seconds", "60", "--handshake-seconds", "60") as relay:
            host = self.host()
            self.wait_entry(relay, host, 1)
            busy = relay.connect(hello(VIEWER, host.id))  # keeps the only place
            relay.wait_log("paired")
            viewer = subprocess.Popen([SIDES / "relay_viewer", "-r", host.id, "127.0.0.1",
                                       "-p", host.password], stdout=subprocess.DEVNULL)
            relay.wait_metric('qv_relay_waiting{role="viewer"}', 1)
            busy.close()
            self.assertEqual(viewer.wait(PATIENCE), 0)

    def test_a_password_ages_while_the_host_waits(self):
        with self.relay() as relay:
            host = self.host()
            self.wait_entry(relay, host, 1)
            old = host.password
            host.put_forward(SIX_HOURS_MS - 60_000)
            self.assert_session(host, old)
            self.wait_entry(relay, host, 2)
            host.put_forward(60_000 + 1000)
            self.assertEqual(host.password, old)  # until somebody comes
            self.assert_no_session(host.id, old)
            new = host.password
            self.assertNotEqual(new, old)
            self.wait_entry(relay, host, 3)
            self.assert_session(host, new)

    def test_a_relay_that_goes_and_comes_again_is_found_again(self):
        host = self.host()
        host.wait_log(r"^relay: connect 127\.0\.0\.1:7000 failed \(\d+\)$")
        for _ in range(2):
            with self.relay() as relay:
                self.wait_entry(relay, host, 1)
                self.assert_session(host)
                self.wait_entry(relay, host, 2)
                first = len(host.log)
            host.wait_log(r"^relay: connect 127\.0\.0\.1:7000 failed \(\d+\)$", first)
        self.assertNotIn("cannot resolve", "\n".join(host.log))

    def test_a_relay_that_is_away_costs_one_line_each_three_seconds(self):
        host = self.host()
        host.wait_log("failed")
        began, before = time.monotonic(), len(host.log)
        wait_for("two more lines", lambda: len(host.log) >= before + 2)
        self.assertGreater(time.monotonic() - began, 3)
        self.assertEqual({line.split(" (")[0] for line in host.log[before:]},
                         {"relay: connect 127.0.0.1:7000 failed"})

    def test_a_host_that_the_relay_drops_comes_again(self):
        with self.relay() as relay:
            host = self.host()
            self.wait_entry(relay, host, 1)
            name = host.value("name")
            thief = relay.host(host.id, name=name)  # its own name and address: a replacement
            host.wait_log(re.escape(AUTH_FAILED))
            self.wait_entry(relay, host, 3)  # the thief was the second
            self.assertTrue(is_closed(thief))
            self.assert_session(host)

    def test_fifty_hosts_that_wait_over_a_restart_are_all_met_again(self):
        with self.relay() as relay:  # with the limits that it has by itself
            hosts = [self.host() for _ in range(50)]
            for host in hosts:
                self.wait_entry(relay, host, 1)
            self.assertEqual(len({host.id for host in hosts}), 50)
            relay.wait_metric('qv_relay_waiting{role="host"}', 50)
            self.assert_session(hosts[0])
            self.wait_entry(relay, hosts[0], 2)
            relay.process.kill()  # as a power failure would
            relay.process.wait()
            relay.process.returncode = 0  # the kill was ours
        with self.relay("--accept-burst", "1000") as relay:  # fifty viewers at once are many
            relay.wait_metric('qv_relay_waiting{role="host"}', 50)
            random.shuffle(hosts)
            with concurrent.futures.ThreadPoolExecutor(10) as viewers:
                list(viewers.map(self.assert_session, hosts))
            relay.wait_metric('qv_relay_waiting{role="host"}', 50)
            self.assertEqual(relay.metric("qv_relay_paired_total"), 50)
            self.assertFalse(relay.find_log("refused"))


if __name__ == "__main__":
    unittest.main()
