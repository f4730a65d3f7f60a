#!/usr/bin/python3
"""Several relays behind HAProxy, as relay/haproxy/haproxy.cfg sets it up.

    tests/relay/haproxy_test.py -v [Class[.test]]
"""

import contextlib
import os
import random
import shutil
import socket
import subprocess
import time
import unittest

from relay_program import (HOST, PATIENCE, ROOT, VIEWER, Relay, free_port, hello, is_silent,
                           receive)

HAPROXY = shutil.which("haproxy", path=os.environ.get("PATH", "") + ":/usr/sbin") or "haproxy"
CONFIGURATION = str(ROOT / "relay/haproxy/haproxy.cfg")
KEY = bytes(range(32))
OPTIONS = ("--trust-proxy", "127.0.0.1", "--connections-per-address", "100000",
           "--accepts-per-address", "100000", "--accept-burst", "100000")


class Balanced(unittest.TestCase):
    """Four relays and HAProxy before them."""

    def setUp(self):
        self.seed = int(os.environ.get("QV_SEED", random.randrange(1 << 32)))
        print(f"QV_SEED={self.seed}")
        self.chance = random.Random(self.seed)
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)
        self.relays = [self.start_relay() for _ in range(4)]
        self.port = free_port()
        environment = dict(os.environ, QV_RELAY_LISTEN=f"127.0.0.1:{self.port}")
        for n, relay in enumerate(self.relays, 1):
            environment[f"QV_RELAY_{n}"] = f"127.0.0.1:{relay.port}"
        haproxy = subprocess.Popen([HAPROXY, "-db", "-q", "-f", CONFIGURATION],
                                   env=environment, stdin=subprocess.DEVNULL)
        self.stack.callback(haproxy.wait)
        self.stack.callback(haproxy.kill)
        end = time.monotonic() + PATIENCE
        while True:
            with contextlib.suppress(OSError):
                socket.create_connection(("127.0.0.1", self.port)).close()
                break
            self.assertIsNone(haproxy.poll())
            self.assertLess(time.monotonic(), end)
            time.sleep(0.05)

    def start_relay(self, port=0):
        return self.stack.enter_context(
            Relay("--metrics", "none", *OPTIONS, metrics=False, port=port))

    def connect(self, data):
        """Sends this whole, in two pieces or byte by byte."""
        connection = socket.create_connection(("127.0.0.1", self.port), PATIENCE)
        self.stack.callback(connection.close)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        cuts = self.chance.choice([[], [self.chance.randrange(1, 56)], range(1, 56)])
        for begin, end in zip([0, *cuts], [*cuts, len(data)]):
            connection.sendall(data[begin:end])
        return connection

    def entries(self, room):
        return sum(f"room '{room}', name" in line for relay in self.relays
                   for line in relay.lines if "Z host" in line)

    def register(self, room):
        """A host that waits, on whichever relay. One that is sent away comes again: for some
        seconds HAProxy does not know that a relay has gone."""
        before, end = self.entries(room), time.monotonic() + PATIENCE
        while time.monotonic() < end:
            host = self.connect(hello(HOST, room, "PC " + room))
            while is_silent(host):
                if self.entries(room) > before:
                    return host
                time.sleep(0.005)
            time.sleep(0.3)
        raise AssertionError(f"host {room} is nowhere")

    def meet(self, room, host):
        viewer = self.connect(hello(VIEWER, room) + KEY)
        self.assertEqual(receive(host, 32), KEY, room)
        host.sendall(b"answer")
        self.assertEqual(receive(viewer, 6), b"answer", room)
        viewer.close()
        host.close()


class BalancedRoomsTest(Balanced):
    def test_every_room_is_met_while_relays_go_and_come(self):
        rooms = [f"{n:09}" for n in self.chance.sample(range(10**9), 300)]
        rooms[0], rooms[1] = "123456789012345678", "123456789012345679"
        hosts = {room: self.register(room) for room in rooms}
        for relay in self.relays:  # all of them have work
            self.assertIsNotNone(relay.find_log("name 'PC "))
        for room in rooms[:150]:
            self.meet(room, hosts.pop(room))
            hosts[room] = self.register(room)

        gone = self.relays.pop(1)
        lost = [room for room, host in hosts.items()
                if any(f"room '{room}'" in line for line in gone.lines)]
        gone.process.kill()
        gone.process.wait()
        gone.process.returncode = 0  # the kill was ours
        for room in lost:
            with contextlib.suppress(ConnectionError):
                self.assertEqual(hosts[room].recv(1), b"")
            hosts[room] = self.register(room)
        for room in rooms[150:]:
            self.meet(room, hosts.pop(room))
            hosts[room] = self.register(room)

        self.relays.append(self.start_relay(gone.port))
        time.sleep(5)  # two health checks: it is taken in again
        for room in rooms:
            self.meet(room, hosts.pop(room))
            hosts[room] = self.register(room)

    def test_what_is_no_hello_is_sent_away_before_a_relay_sees_it(self):
        with socket.create_connection(("127.0.0.1", self.port), PATIENCE) as stranger:
            stranger.sendall(b"GET ")
            with contextlib.suppress(ConnectionError):
                self.assertEqual(stranger.recv(1), b"")
        for relay in self.relays:
            self.assertIsNone(relay.find_log("refused"))

    def test_relays_know_their_clients_addresses(self):
        host = self.connect(hello(HOST, "1"))
        with socket.socket() as viewer:
            viewer.bind(("127.0.5.5", 0))
            viewer.connect(("127.0.0.1", self.port))
            viewer.sendall(hello(VIEWER, "1") + KEY)
            self.assertEqual(receive(host, 32), KEY)
            self.assertTrue(any(relay.find_log("viewer .* of 127.0.5.5: room '1'")
                                for relay in self.relays))


class BalancedWaitTest(Balanced):
    def test_a_host_that_has_waited_for_more_than_a_minute_is_met(self):
        host = self.register("123456789")
        time.sleep(62)  # some thirty health checks
        self.meet("123456789", host)


if __name__ == "__main__":
    unittest.main()
