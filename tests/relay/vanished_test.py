#!/usr/bin/python3
"""The relay program and peers that vanish without a word: their cable is pulled.

    tools/own_network tests/relay/vanished_test.py -v [Class[.test]]

The peers live in a network namespace of their own behind a virtual cable; where none can be
made the tests are skipped. Times are made short by options; QV_SECONDS=n (any n) takes those
that the relay has by itself, a minute each.
"""

import ctypes
import os
import socket
import subprocess
import time
import unittest

import relay_program
from relay_program import (HOST, VIEWER, Relay, hello, is_closed, is_silent, receive,
                           receive_all)

NEAR, FAR, FAR_TOO = "10.99.0.1", "10.99.0.2", "10.99.0.3"
CLONE_NEWNET = 0x40000000
IS_LONG = "QV_SECONDS" in os.environ
SHORT = () if IS_LONG else ("--keep-alive-seconds", "1", "--probe-seconds", "1", "--probes", "2",
                            "--user-timeout-seconds", "3")
LEAST_S = 59 if IS_LONG else 2.9
if IS_LONG:
    relay_program.PATIENCE = 300


def run(*command):
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode == 0


class FarNetwork:
    """A network namespace at the other end of a cable."""

    def __init__(self):
        self.sleeper = subprocess.Popen(["unshare", "-n", "sleep", "100000"],
                                        stdin=subprocess.DEVNULL)
        own = os.stat("/proc/self/ns/net").st_ino
        self.path = f"/proc/{self.sleeper.pid}/ns/net"
        end = time.monotonic() + 20
        while os.stat(self.path).st_ino == own:
            if time.monotonic() > end or self.sleeper.poll() is not None:
                raise unittest.SkipTest("no namespace for the far end")
            time.sleep(0.01)
        if not run("ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns",
                   str(self.sleeper.pid)):
            self.close()
            raise unittest.SkipTest("no virtual cable")
        run("ip", "addr", "add", NEAR + "/24", "dev", "near")
        run("ip", "link", "set", "near", "up")
        self.run("ip", "addr", "add", FAR + "/24", "dev", "far")
        self.run("ip", "addr", "add", FAR_TOO + "/24", "dev", "far")
        self.run("ip", "link", "set", "far", "up")

    def run(self, *command):
        return run("nsenter", "-t", str(self.sleeper.pid), "-n", *command)

    def connect(self, port, data=b"", address=FAR):
        """A socket of the far network. It stays there when this thread comes back."""
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/self/ns/net") as own, open(self.path) as far:
            assert libc.setns(far.fileno(), CLONE_NEWNET) == 0
            try:
                connection = socket.socket()
            finally:
                assert libc.setns(own.fileno(), CLONE_NEWNET) == 0
        connection.settimeout(relay_program.PATIENCE)
        connection.bind((address, 0))
        connection.connect((NEAR, port))
        connection.sendall(data)
        return connection

    def pull_the_cable(self):
        assert self.run("ip", "link", "set", "far", "down")
        self.pulled = time.monotonic()

    def plug_it_in(self):
        assert self.run("ip", "link", "set", "far", "up")

    def close(self):
        run("ip", "link", "del", "near")
        self.sleeper.kill()
        self.sleeper.wait()


class VanishedTest(unittest.TestCase):
    def setUp(self):
        self.far = FarNetwork()
        self.addCleanup(self.far.close)

    def start(self, *options):
        return Relay("--listen", "0.0.0.0:0", *options, listen=False)

    def come(self, relay, role, room, address=FAR, data=b""):
        first = len(relay.lines)
        connection = self.far.connect(relay.port, hello(role, room) + data, address)
        self.addCleanup(connection.close)
        relay.wait_log(f"of {address}: room '{room}'", first)
        return connection

    def assert_took_its_time(self):
        self.assertGreaterEqual(time.monotonic() - self.far.pulled, LEAST_S)

    def test_a_host_that_waits_and_vanishes_is_forgotten_in_time(self):
        with self.start(*SHORT) as relay:
            self.come(relay, HOST, "1")
            near = relay.host("2")
            self.far.pull_the_cable()
            relay.wait_log(r"host 1 of 10\.99\.0\.2: gone while it waited")
            self.assert_took_its_time()
            relay.wait_metric("qv_relay_rooms", 1)
            relay.wait_metric("qv_relay_connections", 1)
            self.assertTrue(is_silent(near))

    def test_a_host_that_only_keeps_silent_is_probed_and_stays(self):
        with self.start(*SHORT) as relay:
            host = self.come(relay, HOST, "1")
            silent = relay.host("2")
            time.sleep(90 if IS_LONG else 5)  # longer than it takes for one that vanished
            self.assertTrue(is_silent(host) and is_silent(silent))
            relay.viewer("1").sendall(b"x")
            self.assertEqual(receive(host, 1), b"x")
            self.assertFalse(relay.find_log("gone"))

    def test_a_cable_that_is_back_in_time_is_not_noticed(self):
        with self.start("--keep-alive-seconds", "1", "--probe-seconds", "1", "--probes", "100",
                        "--user-timeout-seconds", "60") as relay:
            host = self.come(relay, HOST, "1")
            self.far.pull_the_cable()
            time.sleep(4)
            self.far.plug_it_in()
            relay.viewer("1").sendall(b"x")
            self.assertEqual(receive(host, 1), b"x")

    def test_who_waits_in_line_takes_over(self):
        with self.start(*SHORT) as relay:
            self.come(relay, HOST, "1")
            heir = relay.host("1")
            relay.wait_log("host 2 of 127.0.0.1: .*waits in line")
            self.far.pull_the_cable()
            relay.wait_log("host 2 of 127.0.0.1: no longer in line")
            self.assert_took_its_time()
            relay.viewer("1").sendall(b"x")
            self.assertEqual(receive(heir, 1), b"x")

    def test_a_session_ends_whose_other_side_vanished(self):
        for far_role, near_role in ((HOST, VIEWER), (VIEWER, HOST)):
            with self.subTest(far_role), self.start(*SHORT) as relay:
                if far_role == HOST:
                    far = self.come(relay, HOST, "1")
                    near = relay.viewer("1")
                else:
                    near = relay.host("1")
                    far = self.come(relay, VIEWER, "1")
                for a, b in ((far, near), (near, far)):
                    a.sendall(bytes(48))
                    receive(b, 48)
                self.far.pull_the_cable()
                self.assertTrue(is_closed(near))
                self.assert_took_its_time()
                relay.wait_metric("qv_relay_connections", 0)
            self.far.plug_it_in()

    def test_data_that_nobody_acknowledges_ends_a_session(self):
        options = () if IS_LONG else ("--user-timeout-seconds", "3")
        # No probe comes into it: they begin after an hour.
        with self.start("--keep-alive-seconds", "3600", *options) as relay:
            viewer = self.come(relay, VIEWER, "1", data=bytes(48))
            host = relay.host("1")
            receive(host, 48)
            host.sendall(bytes(48))
            receive(viewer, 48)
            self.far.pull_the_cable()
            host.sendall(b"is anybody there?")
            self.assertEqual(receive_all(host), b"")
            self.assert_took_its_time()


if __name__ == "__main__":
    unittest.main()
