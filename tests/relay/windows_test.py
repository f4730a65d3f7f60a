#!/usr/bin/python3
"""The relay program for Windows, under Wine: that it does what the native one does.

    tests/relay/windows_test.py -v [Class[.test]]

What is common to both is tested natively, with the sanitizers (relay_program_test.py). Here:
sockets, timers, end and options as Windows has them.
"""

import os
import pathlib
import random
import signal
import subprocess
import time
import unittest

from relay_program import (HOST, ROOT, VIEWER, Relay, hello, is_closed, is_silent, receive,
                           receive_all)

PROGRAM = os.environ.get("QV_RELAY_EXE", str(ROOT / "build/relay/qv_relay.exe"))
KEY = bytes(range(32))


class WindowsRelay(Relay):
    def __init__(self, *options):
        super().__init__(PROGRAM, *options, program=str(ROOT / "tools/wine_run"), metrics=False)

    def terminate(self):
        """What Ctrl+C does, to the program itself."""
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        for child in children.read_text().split():
            os.kill(int(child), signal.SIGINT)

    def __exit__(self, kind, *rest):
        if self.process.poll() is None:
            self.terminate()
        self.wait_for_end()  # not by a signal to its starter
        super().__exit__(kind, *rest)


class WindowsProgramTest(unittest.TestCase):
    def test_host_and_viewer_meet_in_either_order_and_no_byte_is_lost(self):
        data = random.randbytes(5 << 20)
        with WindowsRelay() as relay:
            host = relay.host("1")
            self.assertTrue(is_silent(host))
            viewer = relay.viewer("1", early=KEY)
            self.assertEqual(receive(host, 32), KEY)
            early = relay.viewer("2", early=KEY)
            early.sendall(b"more")
            late = relay.host("2")
            self.assertEqual(receive(late, 36), KEY + b"more")
            for sender, receiver in ((host, viewer), (viewer, host)):
                sender.sendall(data[:100_000])
                self.assertEqual(receive(receiver, 100_000), data[:100_000])
            host.sendall(data)
            host.close()
            self.assertEqual(receive_all(viewer), data)

    def test_ends_reach_the_other_side(self):
        with WindowsRelay() as relay:
            for n, host_first in enumerate((True, False)):
                host, viewer = relay.pair(str(n))
                first, second = (host, viewer) if host_first else (viewer, host)
                first.close()
                self.assertTrue(is_closed(second))

    def test_it_refuses_and_replaces(self):
        with WindowsRelay("--viewer-wait-seconds", "0.3", "--hello-seconds", "0.3",
                          "--handshake-seconds", "0.3") as relay:
            self.assertTrue(is_closed(relay.connect(bytes(56))))
            relay.wait_log("refused, the hello is none: no relay hello")
            self.assertTrue(is_closed(relay.connect(hello(HOST, "1")[:55])))
            relay.wait_log("refused, no whole hello in time: 55 bytes")
            self.assertTrue(is_closed(relay.viewer("1")))
            relay.wait_log("refused, no host came: room '1'")
            first = relay.host("1")
            second = relay.host("1")
            self.assertTrue(is_closed(first))
            self.assertTrue(is_closed(relay.connect(hello(HOST, "1", "OTHER"))))
            relay.host("1", address="127.0.0.2")
            relay.wait_log("waits in line")
            viewer = relay.viewer("1")
            self.assertTrue(is_closed(second))
            self.assertTrue(is_closed(viewer))
            relay.wait_log("closed, 0 and 0 bytes of the handshake in time")

    def test_ctrl_c_lets_pairs_go_on(self):
        with WindowsRelay() as relay:
            host, viewer = relay.pair("1")
            waiting = relay.host("2")
            relay.terminate()
            self.assertTrue(is_closed(waiting))
            relay.wait_log("ending: 1 pairs left")
            viewer.sendall(KEY)
            self.assertEqual(receive(host, 32), KEY)
            viewer.close()
            self.assertTrue(is_closed(host))
            host.close()
            self.assertEqual(relay.wait_for_end(), 0)

    def test_ctrl_c_twice_ends_at_once(self):
        with WindowsRelay() as relay:
            host, _ = relay.pair("1")
            relay.terminate()
            relay.wait_log("ending: 1 pairs left")
            relay.terminate()
            self.assertEqual(relay.wait_for_end(), 0)
            self.assertTrue(is_closed(host))

    def test_its_usage_names_every_option(self):
        done = subprocess.run([ROOT / "tools/wine_run", PROGRAM, "--help"], capture_output=True,
                              text=True, check=False)
        self.assertEqual(done.returncode, 0)
        for option in ("--listen", "--metrics", "--trust-proxy", "--allowed-ids", "--config"):
            self.assertIn(option, done.stdout)


if __name__ == "__main__":
    unittest.main()
