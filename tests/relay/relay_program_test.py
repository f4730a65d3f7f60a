#!/usr/bin/python3
"""The relay program as its peers see it: every promise and every limit, over real sockets.

    tests/relay/relay_program_test.py -v [Class[.test]]

Built with the sanitizers (see relay_program.py). Several addresses are several of 127.0.0.0/8.
Times are made short by options; where something must not happen, something that begins later
and must happen is awaited first.
"""

import contextlib
import os
import random
import selectors
import signal
import socket
import struct
import tempfile
import threading
import time
import unittest

from relay_program import (HOST, PATIENCE, VIEWER, Relay, hello, is_closed, is_silent, receive,
                           receive_all)

KEY = bytes(range(32))


def send_in_background(connection, data):
    def send():
        with contextlib.suppress(OSError):
            connection.sendall(data)

    thread = threading.Thread(target=send, daemon=True)
    thread.start()
    return thread


def reset(connection):
    """Ends a connection by RST."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class HelloTest(unittest.TestCase):
    def test_a_hello_may_come_in_any_pieces(self):
        with Relay() as relay:
            for n, cuts in enumerate([[], [1], [4], [6], [24], [55], [5, 30], range(1, 56)]):
                room = f"room{n}"
                for role in (HOST, VIEWER):
                    data, ends = hello(role, room), [*cuts, 56]
                    connection = relay.connect()
                    for begin, end in zip([0, *ends], ends):
                        connection.sendall(data[begin:end])
                        if end != 56:
                            time.sleep(0.002)
                    if role == HOST:
                        host = connection
                connection.sendall(KEY)
                self.assertEqual(receive(host, 32), KEY)
                host.sendall(b"answer")
                self.assertEqual(receive(connection, 6), b"answer")

    def test_early_bytes_of_a_viewer_come_first(self):
        with Relay() as relay:
            host = relay.host("1")  # behind the hello, in the same piece
            viewer = relay.viewer("1", early=KEY)
            viewer.sendall(b"later")
            self.assertEqual(receive(host, 37), KEY + b"later")
            viewer = relay.viewer("2", early=b"one ")  # before there is a host, in three
            for piece in (b"two ", b"three "):
                viewer.sendall(piece)
                time.sleep(0.02)
            host = relay.host("2")
            viewer.sendall(b"four")
            self.assertEqual(receive(host, 18), b"one two three four")
            data = hello(VIEWER, "3") + KEY  # cut where the hello ends, and near it
            for cut in (55, 56, 57, 87):
                host = relay.host("3")
                viewer = relay.connect(data[:cut])
                time.sleep(0.02)
                viewer.sendall(data[cut:])
                self.assertEqual(receive(host, 32), KEY)
                viewer.close()
                self.assertTrue(is_closed(host))

    def test_early_bytes_of_a_host_are_kept_as_well(self):
        with Relay() as relay:
            host = relay.host("1", early=b"early ")
            time.sleep(0.02)
            host.sendall(b"host")
            viewer = relay.viewer("1")
            self.assertEqual(receive(viewer, 10), b"early host")

    def test_a_hello_that_takes_too_long_is_refused(self):
        with Relay("--hello-seconds", "0.4") as relay:
            for data in (b"", hello(HOST, "1")[:55]):
                self.assertTrue(relay.refused("hello_late", data))
            slow = relay.connect()
            with contextlib.suppress(OSError):  # a byte at a time buys no time
                for byte in hello(HOST, "1"):
                    slow.sendall(bytes([byte]))
                    time.sleep(0.05)
            self.assertTrue(is_closed(slow))
            relay.wait_metric('qv_relay_refused_total{reason="hello_late"}', 3)
            relay.wait_log("refused, no whole hello in time: 0 bytes")
            relay.wait_log("refused, no whole hello in time: 55 bytes")
            self.assertEqual(relay.metric('qv_relay_hellos_total{role="host"}'), 0)

    def test_the_time_for_the_hello_is_over_with_it(self):
        with Relay("--hello-seconds", "0.3") as relay:
            host = relay.host("1")
            self.assertTrue(relay.refused("hello_late", b""))  # one that came later
            self.assertTrue(is_silent(host))

    def test_anything_else_is_no_hello(self):
        sound = hello(HOST, "1")
        with Relay() as relay:
            for text, data in [
                ("no relay hello", b"GET / HTTP/1.1\r\nHost: relay\r\n\r\n" + bytes(56)),
                ("no relay hello", hello(HOST, "1", magic=b"LRVQ")),
                ("unknown version", hello(HOST, "1", version=1)),
                ("unknown version", hello(HOST, "1", version=3)),
                ("unknown role", hello(b"h", "1")),
                ("unknown role", hello(b"\0", "1")),
                ("no room", hello(HOST, "")),
                ("no room", hello(VIEWER, b"\0" + b"1" * 17)),
            ]:
                first = len(relay.lines)
                self.assertTrue(relay.refused("bad_hello", data), text)
                relay.wait_log("refused, the hello is none: " + text, first)
            cut = relay.connect(sound[:20])
            cut.shutdown(socket.SHUT_WR)
            self.assertTrue(is_closed(cut))
            relay.wait_log("refused, the hello is none: ends after 20 bytes")
            relay.connect().close()  # says nothing: no complaint
            relay.pair("1")
            self.assertEqual(relay.metric('qv_relay_refused_total{reason="bad_hello"}'), 9)

    def test_rooms_are_whole_names_of_up_to_18_bytes(self):
        with Relay("--viewer-wait-seconds", "0") as relay:
            full = "123456789012345678"
            host = relay.host(full, name="N" * 32)
            for other in (full[:17], "9" + full[1:], full[:17] + "9"):
                self.assertTrue(relay.refused("no_host_came", hello(VIEWER, other)))
            relay.viewer(full).sendall(b"x")
            self.assertEqual(receive(host, 1), b"x")

    def test_what_peers_call_themselves_does_not_garble_the_log(self):
        with Relay() as relay:
            relay.connect(hello(HOST, b"a\nb\x1b[2J", b"\xff'\r\n"))
            relay.wait_log(r"room 'a\?b\?\[2J', name '\?\?\?\?'")


class WaitingHostTest(unittest.TestCase):
    def test_a_waiting_host_gets_no_byte_and_waits_on(self):
        with Relay("--viewer-wait-seconds", "0.3", "--hello-seconds", "0.3",
                   "--handshake-seconds", "0.3") as relay:
            host = relay.host("1")
            self.assertTrue(relay.refused("no_host_came", hello(VIEWER, "2")))
            self.assertTrue(relay.refused("room_taken", hello(HOST, "1", "OTHER")))
            self.assertTrue(relay.refused("hello_late", b""))
            self.assertTrue(is_silent(host))
            viewer = relay.viewer("1", early=KEY)
            self.assertEqual(receive(host, 32), KEY)
            viewer.close()

    def test_its_connection_is_kept_alive(self):
        with Relay() as relay:
            host = relay.host("1")
            ours, theirs = (f"0100007F:{port:04X}" for port in
                            (relay.port, host.getsockname()[1]))
            with open("/proc/net/tcp") as table:
                rows = [line.split() for line in table]
            timer, ticks = [row[5] for row in rows if row[1:3] == [ours, theirs]][0].split(":")
            self.assertEqual(timer, "02")  # keep-alive, due within 30 s
            self.assertTrue(0 < int(ticks, 16) <= 30 * os.sysconf("SC_CLK_TCK"))

    def test_one_that_leaves_is_forgotten(self):
        for leave in (socket.socket.close, reset,
                      lambda connection: connection.shutdown(socket.SHUT_WR)):
            with Relay("--viewer-wait-seconds", "0") as relay:
                host = relay.host("1")
                relay.wait_metric('qv_relay_waiting{role="host"}', 1)
                leave(host)
                relay.wait_metric("qv_relay_rooms", 0)
                self.assertTrue(relay.refused("no_host_came", hello(VIEWER, "1")))

    def test_many_wait_and_each_is_met_by_its_own_viewer(self):
        with Relay("--accept-burst", "1000", "--connections-per-address", "1000") as relay:
            hosts = {f"{n:09}": relay.connect(hello(HOST, f"{n:09}")) for n in range(150)}
            relay.wait_metric('qv_relay_waiting{role="host"}', 150)
            rooms = list(hosts)
            random.shuffle(rooms)
            viewers = [relay.connect(hello(VIEWER, room) + room.encode()) for room in rooms]
            for room, host in hosts.items():
                self.assertEqual(receive(host, 9), room.encode())
            self.assertEqual(len(viewers), relay.metric("qv_relay_pairs"))

    def test_a_relay_that_comes_again_is_found_at_once(self):
        with Relay() as relay:
            hosts = [relay.host(str(n)) for n in range(10)]
            relay.pair("in session")
            relay.process.kill()  # as a power failure would
            relay.process.wait()
            for host in hosts:
                self.assertTrue(is_closed(host))
            with Relay(port=relay.port) as second:
                second.pair("0")
            relay.process.returncode = 0  # the kill was ours


class SecondHostTest(unittest.TestCase):
    def test_the_same_name_and_address_replaces(self):
        with Relay() as relay:
            first = relay.host("1")
            second = relay.host("1")
            self.assertTrue(is_closed(first))
            relay.wait_log("host 1 of 127.0.0.1: its place in room '1' is taken")
            relay.viewer("1").sendall(b"x")
            self.assertEqual(receive(second, 1), b"x")
            self.assertEqual(relay.metric("qv_relay_replaced_hosts_total"), 1)

    def test_it_replaces_one_in_a_session_too(self):
        with Relay() as relay:
            first, viewer = relay.pair("1")
            waiting = relay.viewer("1", early=KEY)
            second = relay.host("1")
            self.assertTrue(is_closed(first))
            self.assertTrue(is_closed(viewer))
            self.assertEqual(receive(second, 32), KEY)
            self.assertTrue(is_silent(waiting))
            self.assertEqual(relay.metric("qv_relay_pairs"), 1)

    def test_the_same_name_from_elsewhere_waits_in_line(self):
        with Relay() as relay:
            first = relay.host("1", address="127.0.0.2")
            second = relay.host("1", address="127.0.0.3")
            relay.wait_log("host 2 of 127.0.0.3: .*waits in line")
            viewer = relay.viewer("1")
            viewer.sendall(b"to the first")
            self.assertEqual(receive(first, 12), b"to the first")
            self.assertTrue(is_silent(second))
            viewer.close()
            self.assertTrue(is_closed(first))
            first.close()
            relay.wait_log("host 2 of 127.0.0.3: no longer in line")
            relay.viewer("1").sendall(b"to the second")
            self.assertEqual(receive(second, 13), b"to the second")

    def test_one_in_line_takes_over_from_a_host_that_never_met_anybody(self):
        for end in (socket.socket.close, reset):
            with Relay() as relay:
                first = relay.host("1", address="127.0.0.2")
                second = relay.host("1", address="127.0.0.3")
                end(first)
                relay.wait_log("host 2 of 127.0.0.3: no longer in line")
                relay.viewer("1").sendall(b"x")
                self.assertEqual(receive(second, 1), b"x")

    def test_the_line_has_one_place(self):
        with Relay() as relay:
            relay.host("1", address="127.0.0.2")
            waiting = relay.host("1", address="127.0.0.3")
            self.assertTrue(relay.refused("line_taken", hello(HOST, "1"), address="127.0.0.4"))
            again = relay.host("1", address="127.0.0.3")
            self.assertTrue(is_closed(waiting))
            self.assertTrue(is_silent(again))

    def test_another_name_is_refused(self):
        with Relay() as relay:
            host = relay.host("1")
            for address in ("127.0.0.1", "127.0.0.2"):
                first = len(relay.lines)
                self.assertTrue(relay.refused("room_taken", hello(HOST, "1", "OTHER"),
                                              address=address))
                relay.wait_log(f"of {address}: refused, the room belongs to a host of another "
                               "name: room '1'", first)
            self.assertTrue(is_silent(host))


class ViewerFirstTest(unittest.TestCase):
    def test_it_is_held_for_its_time_and_then_closed(self):
        with Relay("--viewer-wait-seconds", "0.5") as relay:
            began = time.monotonic()
            viewer = relay.viewer("1")
            self.assertTrue(is_closed(viewer))
            self.assertGreaterEqual(time.monotonic() - began, 0.5)
            relay.wait_log("refused, no host came: room '1'")
            relay.wait_metric("qv_relay_rooms", 0)

    def test_it_meets_a_host_that_comes_in_time(self):
        with Relay("--viewer-wait-seconds", "0.5", "--handshake-seconds", "60") as relay:
            viewer = relay.viewer("1", early=KEY)
            host = relay.host("1")
            self.assertEqual(receive(host, 32), KEY)
            self.assertTrue(relay.refused("no_host_came", hello(VIEWER, "2")))  # came later
            self.assertTrue(is_silent(viewer))

    def test_it_meets_a_busy_host_when_that_registers_anew(self):
        with Relay() as relay:
            host, viewer = relay.pair("1")
            second = relay.viewer("1", early=KEY)
            self.assertTrue(is_silent(host))
            viewer.close()
            self.assertTrue(is_closed(host))
            host = relay.host("1")
            self.assertEqual(receive(host, 32), KEY)
            self.assertTrue(is_silent(second))

    def test_one_that_leaves_is_forgotten(self):
        with Relay() as relay:
            relay.viewer("1", early=b"gone").close()
            relay.wait_metric("qv_relay_rooms", 0)
            host = relay.host("1")
            relay.viewer("1", early=b"here")
            self.assertEqual(receive(host, 4), b"here")


class HandshakeTest(unittest.TestCase):
    def test_one_that_stalls_in_either_direction_is_ended(self):
        rows = [(0, 0), (48, 0), (0, 48), (47, 48), (48, 47), (48, 32), (1000, 47)]
        with Relay("--handshake-seconds", "6") as relay:  # time enough for all to be sent
            pairs = [relay.pair(str(n), handshake=False) for n in range(len(rows))]
            for (host, viewer), (to_host, to_viewer) in zip(pairs, rows):
                viewer.sendall(bytes(to_host))
                host.sendall(bytes(to_viewer))
            for (host, viewer), (to_host, to_viewer) in zip(pairs, rows):
                self.assertEqual(receive_all(host), bytes(to_host))
                self.assertEqual(receive_all(viewer), bytes(to_viewer))
                relay.wait_log(f"closed, {to_host} and {to_viewer} bytes of the handshake")
            self.assertEqual(relay.metric("qv_relay_stalled_handshakes_total"), 7)
            self.assertEqual(relay.metric("qv_relay_failed_logins_total"), 0)

    def test_one_that_is_complete_is_left_alone(self):
        with Relay("--handshake-seconds", "0.5") as relay:
            host, viewer = relay.pair("1")
            stalled, _ = relay.pair("2", handshake=False)
            self.assertTrue(is_closed(stalled))
            viewer.sendall(b"still")
            self.assertEqual(receive(host, 5), b"still")
            host.sendall(b"here")
            self.assertEqual(receive(viewer, 4), b"here")

    @staticmethod
    def fail_login(relay, room, address="127.0.0.1", extra=b""):
        """As it goes with a wrong password: the host closes instead of confirming."""
        host = relay.host(room, address="127.0.0.9")
        viewer = relay.viewer(room, address=address, early=KEY)
        receive(host, 32)
        host.sendall(KEY)
        receive(viewer, 32)
        viewer.sendall(bytes(16) + extra)
        receive(host, 16 + len(extra))
        host.close()
        assert is_closed(viewer)
        viewer.close()

    def test_wrong_passwords_are_counted(self):
        with Relay() as relay:
            self.fail_login(relay, "1")
            relay.wait_log("viewer 2 of 127.0.0.1: failed to log in to room '1'")
            relay.wait_metric("qv_relay_failed_logins_total", 1)
            self.fail_login(relay, "1", extra=b"more hides nothing")
            relay.wait_metric("qv_relay_failed_logins_total", 2)

    def test_other_ends_are_no_wrong_passwords(self):
        with Relay() as relay:
            for n, (to_host, to_viewer) in enumerate([(48, 48), (32, 32), (0, 0), (48, 0),
                                                      (47, 32), (48, 33), (100, 100)]):
                host, viewer = relay.pair(str(n), handshake=False)
                viewer.sendall(bytes(to_host))
                host.sendall(bytes(to_viewer))
                receive(host, to_host)
                receive(viewer, to_viewer)
                host.close()
                self.assertTrue(is_closed(viewer))
                viewer.close()
                relay.wait_metric("qv_relay_pairs", 0)
            self.assertEqual(relay.metric("qv_relay_failed_logins_total"), 0)

    def test_too_many_for_one_room_close_it_for_a_while(self):
        with Relay("--logins-per-room", "2", "--logins-per-address", "100") as relay:
            for n in range(3):
                self.fail_login(relay, "1", address=f"127.0.0.{10 + n}")
            relay.wait_log("room '1', which takes no viewer for 5 s")
            closed = time.monotonic()
            host = relay.host("1")
            self.assertTrue(relay.refused("back_off", hello(VIEWER, "1") + KEY,
                                          address="127.0.0.20"))
            relay.pair("2", address="127.0.0.10")
            self.assertTrue(is_silent(host))
            time.sleep(max(0, closed + 5.1 - time.monotonic()))
            relay.viewer("1", early=KEY)
            self.assertEqual(receive(host, 32), KEY)

    def test_too_many_from_one_address_close_every_room_to_it(self):
        with Relay("--logins-per-room", "100", "--logins-per-address", "2") as relay:
            for n in range(3):
                self.fail_login(relay, str(n), address="127.0.0.10")
            relay.wait_log("takes nobody from there for 5 s")
            host = relay.host("9")
            self.assertTrue(relay.refused("back_off", hello(VIEWER, "9"), address="127.0.0.10"))
            self.assertTrue(is_silent(host))
            relay.viewer("9", address="127.0.0.11").sendall(b"x")
            self.assertEqual(receive(host, 1), b"x")
            relay.host("10", address="127.0.0.10")  # a host there is no log-in


class LimitsTest(unittest.TestCase):
    def test_connections_in_all(self):
        with Relay("--connections", "3") as relay:
            hosts = [relay.host(str(n), address=f"127.0.0.{n + 1}") for n in range(3)]
            self.assertTrue(relay.refused("connections", hello(HOST, "9")))
            relay.wait_metric("qv_relay_connections", 3)
            hosts[0].close()
            relay.wait_metric("qv_relay_connections", 2)
            relay.host("9")

    def test_connections_of_one_address(self):
        with Relay("--connections-per-address", "2") as relay:
            first = relay.host("1")
            relay.connect()  # one without a hello counts
            relay.wait_metric("qv_relay_connections", 2)
            self.assertTrue(relay.refused("connections_of_address", hello(HOST, "9")))
            relay.host("9", address="127.0.0.2")
            first.close()
            relay.wait_metric("qv_relay_connections", 2)
            relay.host("2")

    def test_new_connections_of_one_address(self):
        with Relay("--accept-burst", "3", "--accepts-per-address", "0.01") as relay:
            for n in range(3):
                relay.host(str(n))
            self.assertTrue(relay.refused("accept_rate", hello(HOST, "9")))
            relay.host("9", address="127.0.0.2")
        with Relay("--accept-burst", "1", "--accepts-per-address", "2") as relay:
            relay.host("1")
            time.sleep(0.6)
            relay.host("2")

    def test_rooms(self):
        with Relay("--rooms", "2") as relay:
            host = relay.host("1")
            relay.viewer("2")
            for role in (HOST, VIEWER):
                self.assertTrue(relay.refused("rooms", hello(role, "3")))
            relay.viewer("1")  # no new room
            host.close()
            relay.wait_metric("qv_relay_rooms", 1)
            relay.host("3")

    def test_viewers_that_wait_for_one_host(self):
        with Relay("--viewers-per-room", "2") as relay:
            relay.pair("1")
            relay.viewer("1")
            relay.viewer("1")
            self.assertTrue(relay.refused("viewers_in_room", hello(VIEWER, "1")))
            relay.viewer("2")

    def test_the_bandwidth_of_a_pair_both_ways_together(self):
        size = 700_000
        with Relay("--pair-bytes-per-second", "1000000") as relay:
            host, viewer = relay.pair("1")
            began = time.monotonic()
            up, down = random.randbytes(size), random.randbytes(size)
            send_in_background(viewer, up)
            send_in_background(host, down)
            self.assertEqual(receive(host, size), up)
            self.assertEqual(receive(viewer, size), down)
            # Less what may pass at once, and the last buffers, which are paid for afterwards.
            self.assertGreaterEqual(time.monotonic() - began, 1.4 - 0.1 - 2 * 0.27)

    def test_the_bandwidth_of_all_pairs_together(self):
        size = 500_000
        with Relay("--total-bytes-per-second", "1000000", "--buffer-bytes", "65536") as relay:
            pairs = [relay.pair(str(n)) for n in range(4)]
            began = time.monotonic()
            for _, viewer in pairs:
                send_in_background(viewer, bytes(size))
            for host, _ in pairs:
                receive(host, size)
            self.assertGreaterEqual(time.monotonic() - began, 2.0 - 0.1 - 4 * 0.066)

    def test_a_slow_reader_slows_its_own_pair_only(self):
        with Relay("--buffer-bytes", "65536", "--handshake-seconds", "60") as relay:
            slow_host = relay.host("slow")
            slow_viewer = relay.viewer("slow", receive_buffer=65536)
            data = random.randbytes(64 << 20)  # more than the system's buffers hold
            sent, stuck = 0, 0
            slow_host.setblocking(False)
            while stuck < 20:  # until nothing has moved for a while
                try:
                    sent += slow_host.send(data[sent:sent + (1 << 20)])
                    stuck = 0
                except BlockingIOError:
                    stuck += 1
                    time.sleep(0.02)
            self.assertLess(sent, len(data))
            slow_host.settimeout(PATIENCE)
            host, viewer = relay.pair("quick")
            block = random.randbytes(4 << 20)
            for sender, receiver in ((host, viewer), (viewer, host)):
                send_in_background(sender, block)
                self.assertEqual(receive(receiver, len(block)), block)
            slow_viewer.sendall(bytes(48))  # the slow pair's other direction flows
            self.assertEqual(receive(slow_host, 48), bytes(48))
            slow_host.shutdown(socket.SHUT_WR)
            self.assertEqual(receive_all(slow_viewer), data[:sent])


class ListsTest(unittest.TestCase):
    def test_hosts_and_viewers_have_their_ranges(self):
        with Relay("--allow-hosts", "127.0.1.0/24", "127.0.2.2",
                   "--allow-viewers", "127.0.3.0/24") as relay:
            for n, address in enumerate(["127.0.1.0", "127.0.1.255", "127.0.2.2"]):
                host = relay.host(str(n), address=address)
            for address in ("127.0.2.1", "127.0.0.255", "127.0.3.1"):
                self.assertTrue(relay.refused("address_not_allowed", hello(HOST, "9"),
                                              address=address))
            for address in ("127.0.2.2", "127.0.1.1"):
                self.assertTrue(relay.refused("address_not_allowed", hello(VIEWER, "2"),
                                              address=address))
            self.assertTrue(is_silent(host))
            relay.viewer("2", address="127.0.3.77").sendall(b"x")
            self.assertEqual(receive(host, 1), b"x")

    def test_only_ids_on_the_list(self):
        with tempfile.NamedTemporaryFile("w", suffix=".txt") as ids:
            ids.write("123456789  # the office\n987654321\n")
            ids.flush()
            with Relay("--allowed-ids", ids.name) as relay:
                relay.pair("123456789")
                relay.pair("987654321")
                for role in (HOST, VIEWER):
                    for room in ("12345678", "1234567890", "# the office"):
                        self.assertTrue(relay.refused("id_not_allowed", hello(role, room)))


def proxy_header(address="192.0.2.7", command=0x21, family=None, body=None, extra=b""):
    if body is None:
        kind = socket.AF_INET6 if ":" in address else socket.AF_INET
        packed = socket.inet_pton(kind, address)
        body = packed + packed + struct.pack(">HH", 50000, 7000) + extra
        family = family if family is not None else (0x21 if ":" in address else 0x11)
    return (b"\r\n\r\n\0\r\nQUIT\n" +
            struct.pack(">BBH", command, family, len(body)) + body)


class ProxyTest(unittest.TestCase):
    TRUST = ("--trust-proxy", "127.0.9.0/24")
    PROXY = "127.0.9.1"

    def test_a_trusted_proxy_says_its_clients_address(self):
        with Relay(*self.TRUST) as relay:
            for n, (header, address) in enumerate([
                    (proxy_header("192.0.2.7"), "192.0.2.7"),
                    (proxy_header("2001:db8::9"), "2001:db8::9"),
                    (proxy_header("::ffff:192.0.2.8"), "192.0.2.8"),
                    (proxy_header("192.0.2.9", extra=b"\x04\0\x03abc"), "192.0.2.9"),
                    (proxy_header("192.0.2.10", extra=bytes(2036)), "192.0.2.10")]):
                room = str(n)
                host = relay.connect(header + hello(HOST, room), address=self.PROXY)
                relay.wait_log(f"host \\d+ of {address}: room '{room}'")
                viewer = relay.connect(address=self.PROXY)
                for byte in header + hello(VIEWER, room) + KEY:
                    viewer.sendall(bytes([byte]))
                self.assertEqual(receive(host, 32), KEY)

    def test_its_clients_are_judged_and_counted_by_their_own_address(self):
        with Relay(*self.TRUST, "--allow-hosts", "192.0.2.0/24",
                   "--connections-per-address", "1") as relay:
            self.assertTrue(relay.refused("address_not_allowed",
                                          proxy_header("198.51.100.1") + hello(HOST, "1"),
                                          address=self.PROXY))
            for n in range(3):
                relay.connect(proxy_header(f"192.0.2.{n}") + hello(HOST, str(n)),
                              address=self.PROXY)
                relay.wait_log(f"host \\d+ of 192.0.2.{n}: room")
            self.assertTrue(relay.refused("connections_of_address",
                                          proxy_header("192.0.2.1") + hello(HOST, "9"),
                                          address=self.PROXY))

    def test_addresses_of_one_ipv6_network_are_counted_together(self):
        with Relay(*self.TRUST, "--connections-per-address", "1") as relay:
            relay.connect(proxy_header("2001:db8::1") + hello(HOST, "1"), address=self.PROXY)
            relay.wait_log("host .* room '1'")
            self.assertTrue(relay.refused("connections_of_address",
                                          proxy_header("2001:db8::2") + hello(HOST, "2"),
                                          address=self.PROXY))
            relay.connect(proxy_header("2001:db8:0:1::1") + hello(HOST, "3"),
                          address=self.PROXY)
            relay.wait_log("host .* room '3'")

    def test_hosts_of_one_name_behind_a_proxy_are_told_apart(self):
        with Relay(*self.TRUST) as relay:
            for n in (1, 2):
                relay.connect(proxy_header(f"192.0.2.{n}") + hello(HOST, "1"),
                              address=self.PROXY)
                relay.wait_log(f"host \\d+ of 192.0.2.{n}: room")
            relay.wait_log("of 192.0.2.2: .*waits in line")

    def test_a_proxy_that_speaks_for_itself(self):
        with Relay(*self.TRUST) as relay:
            for body in (b"", bytes(12)):
                health = relay.connect(proxy_header(command=0x20, family=0, body=body),
                                       address=self.PROXY)
                health.close()
            host = relay.connect(proxy_header(command=0x20, family=0, body=b"") +
                                 hello(HOST, "1"), address=self.PROXY)
            relay.wait_log(f"host \\d+ of {self.PROXY}: room '1'")
            self.assertTrue(is_silent(host))
            self.assertIsNone(relay.find_log("refused"))

    def test_broken_headers_are_refused(self):
        sound = proxy_header()
        with Relay(*self.TRUST, "--hello-seconds", "0.5") as relay:
            for what, data in [
                ("no header", hello(HOST, "1")),
                ("a header of version 1", b"PROXY TCP4 192.0.2.1 192.0.2.2 1 2\r\n" + bytes(60)),
                ("another version", proxy_header(command=0x11)),
                ("another command", proxy_header(command=0x22)),
                ("no family", proxy_header(family=0, body=bytes(12))),
                ("a local socket", proxy_header(family=0x31, body=bytes(216))),
                ("datagrams", proxy_header(family=0x12)),
                ("a short address", proxy_header(family=0x11, body=bytes(11))),
                ("a short IPv6 address", proxy_header(family=0x21, body=bytes(35))),
                ("too much", proxy_header(extra=bytes(2037))),
            ]:
                with self.subTest(what):
                    self.assertTrue(relay.refused("bad_proxy_header", data + hello(HOST, "1"),
                                                  address=self.PROXY))
            for size in (1, 15, 16, 27):  # cut short, and left hanging
                connection = relay.connect(sound[:size], address=self.PROXY)
                connection.shutdown(socket.SHUT_WR)
                self.assertTrue(is_closed(connection))
                relay.wait_log(f"the proxy's header is none: ends after {size} bytes")
                self.assertTrue(relay.refused("hello_late", sound[:size], address=self.PROXY))

    def test_nobody_else_writes_headers(self):
        with Relay(*self.TRUST) as relay:
            self.assertTrue(relay.refused("bad_hello", proxy_header() + hello(HOST, "1"),
                                          address="127.0.8.1"))
        with Relay() as relay:
            self.assertTrue(relay.refused("bad_hello", proxy_header() + hello(HOST, "1")))


class EndTest(unittest.TestCase):
    def test_both_ends_close_together(self):
        for end in (socket.socket.close, reset):
            with Relay() as relay:
                host, viewer = relay.pair("1")
                end(viewer)
                self.assertTrue(is_closed(host))
                host.close()
                host, viewer = relay.pair("1")
                end(host)
                self.assertTrue(is_closed(viewer))
                viewer.close()
                relay.wait_metric("qv_relay_pairs", 0)
                relay.wait_metric("qv_relay_connections", 0)
                self.assertEqual(relay.metric("qv_relay_paired_total"), 2)

    def test_a_side_that_breaks_off_may_not_be_answered(self):
        with Relay("--half-closed-seconds", "300") as relay:
            for host_breaks in (True, False):
                host, viewer = relay.pair("1")
                reset(host if host_breaks else viewer)
                self.assertTrue(is_closed(viewer if host_breaks else host))
                relay.wait_metric("qv_relay_pairs", 0)
                relay.wait_metric("qv_relay_connections", 0)  # whose test end is still open

    def test_what_was_sent_before_the_end_arrives(self):
        data = random.randbytes(3 << 20)
        with Relay() as relay:
            for sender_is_host in (True, False):
                host, viewer = relay.pair("1")
                sender, receiver = (host, viewer) if sender_is_host else (viewer, host)
                sender.sendall(data)
                sender.close()
                self.assertEqual(receive_all(receiver), data)
                receiver.close()
                relay.wait_metric("qv_relay_connections", 0)

    def test_one_side_may_go_on_after_the_other_has_ended(self):
        data = random.randbytes(1 << 20)
        with Relay() as relay:
            for first_is_host in (True, False):
                host, viewer = relay.pair("1")
                first, second = (host, viewer) if first_is_host else (viewer, host)
                first.shutdown(socket.SHUT_WR)
                self.assertTrue(is_closed(second))
                send_in_background(second, data).join()
                second.shutdown(socket.SHUT_WR)
                self.assertEqual(receive_all(first), data)
                first.close()
                second.close()
                relay.wait_metric("qv_relay_connections", 0)

    def test_it_may_not_go_on_for_ever(self):
        with Relay("--half-closed-seconds", "0.3") as relay:
            host, viewer = relay.pair("1")
            viewer.shutdown(socket.SHUT_WR)
            self.assertTrue(is_closed(host))
            host.sendall(b"more")
            self.assertEqual(receive_all(viewer), b"more")  # until the relay ends it
            relay.wait_metric("qv_relay_pairs", 0)

    def test_told_to_end_it_lets_pairs_go_on(self):
        with Relay() as relay:
            host, viewer = relay.pair("1")
            waiting, in_line = relay.host("2"), relay.host("2", address="127.0.0.2")
            early = relay.viewer("3")
            undecided = relay.connect(hello(HOST, "4")[:20])
            relay.wait_metric("qv_relay_connections", 6)
            relay.terminate()
            for connection in (waiting, in_line, early):
                self.assertTrue(is_closed(connection))
            with self.assertRaises(ConnectionRefusedError):
                relay.connect()
            undecided.sendall(hello(HOST, "4")[20:])
            self.assertTrue(is_closed(undecided))
            self.assertEqual(
                relay.metric('qv_relay_refused_total{reason="draining"}'), 4)
            viewer.sendall(KEY)
            self.assertEqual(receive(host, 32), KEY)
            self.assertIsNone(relay.process.poll())
            viewer.close()
            self.assertTrue(is_closed(host))
            host.close()
            self.assertEqual(relay.wait_for_end(), 0)

    def test_told_to_end_it_waits_for_pairs_only_so_long(self):
        with Relay("--drain-seconds", "0.4") as relay:
            pairs = [relay.pair(str(n)) for n in range(3)]
            relay.terminate()
            for host, viewer in pairs:
                self.assertTrue(is_closed(host))
                self.assertTrue(is_closed(viewer))
            self.assertEqual(relay.wait_for_end(), 0)
            self.assertGreater(len(relay.lines), 0)

    def test_told_twice_it_ends_at_once(self):
        with Relay() as relay:
            host, _ = relay.pair("1")
            relay.terminate()
            relay.wait_log("ending: 1 pairs left")
            relay.process.send_signal(signal.SIGINT)
            self.assertEqual(relay.wait_for_end(), 0)
            self.assertTrue(is_closed(host))

    def test_told_to_end_with_everything_under_way_it_leaks_nothing(self):
        with Relay("--drain-seconds", "0") as relay:
            relay.connect()
            relay.connect(hello(HOST, "1")[:30])
            relay.viewer("2", early=KEY)
            relay.host("3", early=KEY)
            host, viewer = relay.pair("4")
            send_in_background(host, bytes(32 << 20))  # nobody reads it
            viewer.shutdown(socket.SHUT_WR)
            relay.terminate()
            self.assertEqual(relay.wait_for_end(), 0)


class FloodTest(unittest.TestCase):
    def test_a_waiting_host_that_talks_is_refused(self):
        with Relay() as relay:
            host = relay.host("1")
            send_in_background(host, bytes(16 << 20))
            relay.wait_log("refused, a host that waits has nothing to say")
            relay.wait_metric("qv_relay_rooms", 0)

    def test_a_waiting_viewer_that_talks_loses_nothing_and_costs_little(self):
        data = random.randbytes(16 << 20)
        with Relay("--viewer-wait-seconds", "60") as relay:
            viewer = relay.viewer("1")
            sender = send_in_background(viewer, data)
            sender.join(0.3)
            self.assertTrue(sender.is_alive())  # the system's buffers are full
            host = relay.host("1")
            self.assertEqual(receive(host, len(data)), data)

    def test_no_pair_notices_a_flood(self):
        with Relay("--accept-burst", "100000", "--accepts-per-address", "100000",
                   "--connections-per-address", "100000") as relay:
            host, viewer = relay.pair("1")
            for n in range(400):
                other = relay.connect(os.urandom(random.randrange(0, 200)), "127.0.0.7")
                (reset if n % 2 else socket.socket.close)(other)
                if n % 20 == 0:
                    viewer.sendall(KEY)
                    self.assertEqual(receive(host, 32), KEY)
            relay.wait_metric("qv_relay_connections", 2)
            relay.wait_metric("qv_relay_accepted_total", 402)
            # A flood does not fill the log's disk: some lines, then how many were left out.
            refused = sum("refused" in line for line in relay.lines)
            self.assertGreater(refused, 50)
            for stranger in [relay.connect(bytes(56), "127.0.0.7") for _ in range(1000)]:
                self.assertTrue(is_closed(stranger))
            total = relay.metric('qv_relay_refused_total{reason="bad_hello"}')
            self.assertGreaterEqual(total, 1000)
            self.assertLess(sum("refused" in line for line in relay.lines), total)
            end = time.monotonic() + PATIENCE
            while not relay.find_log(r"\d+ refusals without a line"):
                self.assertLess(time.monotonic(), end)
                relay.connect(bytes(56), "127.0.0.7")
                time.sleep(0.1)


class PassingOnTest(unittest.TestCase):
    def test_bytes_pass_unchanged_in_order_both_ways_in_many_pairs(self):
        seed = int(os.environ.get("QV_SEED", random.randrange(1 << 32)))
        print(f"QV_SEED={seed}")
        chance = random.Random(seed)
        with Relay("--buffer-bytes", "16384") as relay:
            flows = []
            for n in range(6):
                host, viewer = relay.pair(str(n))
                for sender, receiver in ((host, viewer), (viewer, host)):
                    data = chance.randbytes(chance.randrange(1, 3 << 20))
                    cuts = sorted(chance.randrange(len(data) + 1) for _ in range(200))
                    flows.append((sender, receiver, data, [0, *cuts, len(data)]))

            def send(sender, data, cuts):
                for begin, end in zip(cuts, cuts[1:]):
                    sender.sendall(data[begin:end])

            threads = [threading.Thread(target=send, args=(s, data, cuts))
                       for s, _, data, cuts in flows]
            for thread in threads:
                thread.start()
            for _, receiver, data, _ in flows:
                self.assertEqual(receive(receiver, len(data)), data)
            for thread in threads:
                thread.join()
            for _, receiver, _, _ in flows:
                self.assertTrue(is_silent(receiver))
            self.assertEqual(relay.metric('qv_relay_bytes_total{to="host"}') +
                             relay.metric('qv_relay_bytes_total{to="viewer"}'),
                             sum(len(data) for _, _, data, _ in flows) + 6 * 96)

    def test_five_hundred_pairs_at_once_each_get_their_own_bytes(self):
        # Each side of each pair sends bytes of its own, all at the same time, in pieces.
        size, count = 24_000, 500
        wide = [option for name in ("connections", "connections-per-address", "accept-burst")
                for option in ("--" + name, "10000")]
        with Relay(*wide) as relay:
            hosts = [relay.connect(hello(HOST, str(n))) for n in range(count)]
            relay.wait_metric('qv_relay_waiting{role="host"}', count)
            viewers = [relay.connect(hello(VIEWER, str(n))) for n in range(count)]
            relay.wait_metric("qv_relay_pairs", count)
            chooser = selectors.DefaultSelector()
            flows = {}  # connection: what it still has to send and is still to get
            for n, pair in enumerate(zip(hosts, viewers)):
                data = [random.Random(2 * n + side).randbytes(size) for side in range(2)]
                for side, connection in enumerate(pair):
                    connection.setblocking(False)
                    flows[connection] = [data[side], data[1 - side]]
                    chooser.register(connection, selectors.EVENT_READ | selectors.EVENT_WRITE)
            left = len(flows)
            end = time.monotonic() + PATIENCE
            while left > 0:
                self.assertLess(time.monotonic(), end)
                for key, events in chooser.select(1):
                    flow = flows[key.fileobj]
                    if events & selectors.EVENT_WRITE:
                        if flow[0]:
                            flow[0] = flow[0][key.fileobj.send(flow[0][:4000]):]
                        else:
                            chooser.modify(key.fileobj, selectors.EVENT_READ)
                    if events & selectors.EVENT_READ:
                        got = key.fileobj.recv(65536)
                        self.assertTrue(got and flow[1].startswith(got))
                        flow[1] = flow[1][len(got):]
                        left -= not flow[1]
            for connection in flows:
                self.assertTrue(is_silent(connection))
            self.assertEqual(relay.metric("qv_relay_pairs"), count)


class MetricsTest(unittest.TestCase):
    REASONS = ["accept_rate", "address_not_allowed", "back_off", "bad_hello",
               "bad_proxy_header", "connections", "connections_of_address", "draining",
               "early_flood", "hello_late", "id_not_allowed", "line_taken", "no_host_came",
               "room_taken", "rooms", "viewers_in_room"]

    @staticmethod
    def values(relay):
        pairs = (line.rsplit(" ", 1) for line in relay.page().splitlines())
        return {name: float(value) for name, value in pairs if name.startswith("qv_relay_")}

    def test_the_page_says_what_is_and_what_was(self):
        with Relay() as relay:
            host, viewer = relay.pair("1")
            viewer.sendall(bytes(100))
            receive(host, 100)
            relay.host("2")
            relay.host("2", address="127.0.0.2")
            relay.viewer("3")
            expected = {
                "qv_relay_connections": 5, "qv_relay_rooms": 3,
                'qv_relay_waiting{role="host"}': 1, 'qv_relay_waiting{role="viewer"}': 1,
                "qv_relay_pairs": 1, "qv_relay_accepted_total": 5,
                'qv_relay_hellos_total{role="host"}': 3,
                'qv_relay_hellos_total{role="viewer"}': 2, "qv_relay_paired_total": 1,
                'qv_relay_bytes_total{to="host"}': 148, 'qv_relay_bytes_total{to="viewer"}': 48,
                "qv_relay_failed_logins_total": 0, "qv_relay_stalled_handshakes_total": 0,
                "qv_relay_replaced_hosts_total": 0,
                **{f'qv_relay_refused_total{{reason="{reason}"}}': 0
                   for reason in self.REASONS},
            }
            end = time.monotonic() + 10  # counts follow what they count
            while (values := self.values(relay)) != expected and time.monotonic() < end:
                time.sleep(0.02)
            self.assertEqual(values, expected)

    def test_there_may_be_none(self):
        with Relay("--metrics", "none", metrics=False) as relay:
            relay.pair("1")

    def test_an_address_that_is_taken_is_an_error(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            for option in ("--listen", "--metrics"):
                relay = Relay(option, f"127.0.0.1:{taken.getsockname()[1]}",
                              listen=option != "--listen", metrics=option != "--metrics")
                with self.assertRaises(AssertionError) as caught:
                    relay.__enter__()
                relay.process.wait(PATIENCE)
                relay.reader.join()
                relay.process.stderr.close()
                self.assertEqual(relay.process.returncode, 1)
                self.assertIn("qv_relay: ", str(caught.exception))


class DefaultsTest(unittest.TestCase):
    def test_without_an_option_it_serves_port_7000_of_all_addresses(self):
        with Relay(listen=False, metrics=False) as relay:
            relay.metrics_port = 9700
            self.assertEqual(relay.port, 7000)
            host = relay.host("1", address="127.0.0.5")
            families = [(socket.AF_INET, "127.0.0.1")]
            if os.path.exists("/proc/net/if_inet6"):
                families.append((socket.AF_INET6, "::1"))
            for n, (family, address) in enumerate(families):
                viewer = socket.socket(family)
                relay.connections.append(viewer)
                viewer.connect((address, 7000))
                viewer.sendall(hello(VIEWER, "1") + KEY)
                self.assertEqual(receive(host, 32), KEY)
                viewer.close()
                self.assertTrue(is_closed(host))
                host.close()
                host = relay.host("1", address="127.0.0.5")
            relay.wait_metric("qv_relay_paired_total", len(families))

    def test_a_file_may_have_the_options(self):
        with tempfile.NamedTemporaryFile("w", suffix=".conf") as config:
            config.write("rooms = 1\nlisten = 127.0.0.1:0\nmetrics = none\nquiet = true\n")
            config.flush()
            with Relay("--config", config.name, listen=False, metrics=False) as relay:
                host = relay.connect(hello(HOST, "1"))
                viewer = relay.connect(hello(VIEWER, "1") + KEY)
                self.assertEqual(receive(host, 32), KEY)
                self.assertTrue(is_closed(relay.connect(hello(HOST, "2"))))
                relay.wait_log("refused, too many rooms")
                viewer.close()
                self.assertIsNone(relay.find_log("name 'PC'"))  # quiet


if __name__ == "__main__":
    unittest.main()
