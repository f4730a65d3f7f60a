#!/usr/bin/python3
"""qv_host.exe as a program: its command line, its texts, its exit status, its end."""

import contextlib
import os
import pathlib
import socket
import time

import harness
import relay

USAGE = """\
usage: qv_host       be a host, reached directly on TCP port 7777
       qv_host -r    be a host, reached through the relay
       qv_host -q    end the host that runs"""
RUNS_ALREADY = "qv_host: runs already; qv_host -q ends it"
NONE_RUNS = "qv_host: none runs"
DIRECT = "server up on port 7777, dxgi=0"  # after what the capture has to say


def texts(host):
    """What the host prints, as its files tell it."""
    return (f"ID:       {host.info['id']} (C:\\ProgramData\\qv\\id.txt)\n"
            "password: in C:\\ProgramData\\qv\\host.txt\n"
            "log:      C:\\ProgramData\\qv\\qv_server.log")


class HostProgramTest(harness.E2ETest):
    def setUp(self):
        super().setUp()
        self.pc = self.machine("pc", 640, 480)
        self.exe = harness.PROGRAMS / "qv_host.exe"

    def host(self, *arguments, **options):
        (self.pc.data_dir / "qv_server.log").unlink(missing_ok=True)  # the last one's lines
        return harness.Host(self.pc, *arguments, **options)

    def quit(self, host):
        self.assertEqual(self.pc.run(self.exe, "-q"), (0, ""))
        # -q has waited for the end; the bit of time is for Wine to pass it on.
        self.assertEqual(host.program.wait(5), 0)

    def test_anything_else_on_the_command_line_gives_the_usage(self):
        for arguments in (["-x"], ["-rr"], [""], ["r"], ["-r", "-q"], ["-q", "-q"],
                          ["-r", "host"], ["-R"]):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.pc.run(self.exe, *arguments), (1, USAGE))
        self.assertFalse(self.pc.data_dir.exists())

    def test_quitting_when_none_runs(self):
        self.assertEqual(self.pc.run(self.exe, "-q"), (1, NONE_RUNS))
        self.assertFalse(self.pc.data_dir.exists())

    def test_a_host_says_where_things_are_and_ends_when_told_to(self):
        host = self.host()
        # At once, through a pipe, while it runs.
        host.program.wait_line(r"log:      C:\\ProgramData\\qv\\qv_server\.log")
        self.assertTrue(host.program.is_running())
        self.assertEqual(host.log[-1], DIRECT)
        with socket.create_connection(("127.0.0.1", harness.HOST_PORT), timeout=10):
            pass
        self.quit(host)
        self.assertEqual(host.program.output, texts(host))
        self.assertEqual(self.pc.run(self.exe, "-q"), (1, NONE_RUNS))

    def test_a_second_host_is_refused_and_changes_nothing(self):
        host = self.host()
        before = host.info, host.log
        for arguments in ([], ["-r"]):
            self.assertEqual(self.pc.run(self.exe, *arguments), (1, RUNS_ALREADY))
        self.assertEqual((host.info, host.log), before)
        self.assertTrue(host.program.is_running())
        self.quit(host)

    def test_the_next_host_can_start_when_quit_returns(self):
        passwords = set()
        ids = set()
        for _ in range(3):
            host = self.host()
            self.assertEqual(host.log[-1], DIRECT)
            passwords.add(host.password)
            ids.add(host.info["id"])
            self.quit(host)
        self.assertEqual((len(passwords), len(ids)), (3, 1))

    def test_quitting_ends_a_connection(self):
        host = self.host()
        with socket.create_connection(("127.0.0.1", harness.HOST_PORT), timeout=10) as peer:
            host.program.wait_line("log: .*")
            self.quit(host)
            with contextlib.suppress(ConnectionResetError):
                self.assertEqual(peer.recv(1), b"")

    def test_relay_mode_waits_in_the_room_of_its_id(self):
        if not harness.relay_name_resolves():
            self.skipTest("the relay's name leads here only inside a network namespace")
        with relay.test_relay() as running:
            host = self.host("-r")
            self.assertIn(f"server up via relay qv-relay:7000 room '{host.info['id']}', dxgi=0",
                          host.log)
            host.wait_log("relay: connected to qv-relay:7000, room ")
            hello = harness.wait_for("hello", lambda: list(running.hellos))[0]
            self.assertEqual((hello.role, hello.room), ("H", host.info["id"]))
            self.quit(host)
        self.assertEqual(host.program.output, texts(host))

    def test_a_server_that_fails_decides_the_exit_status(self):
        with socket.socket() as taken:
            taken.bind(("0.0.0.0", harness.HOST_PORT))
            taken.listen()
            status, output = self.pc.run(self.exe)
        self.assertEqual(status, 1)
        self.assertEqual(len(output.splitlines()), 3)
        log = (self.pc.data_dir / "qv_server.log").read_text()
        self.assertRegex(log, r"\Abind/listen failed \d+\n\Z")
        self.quit(self.host())  # and the name is free again

    def test_output_to_a_file(self):
        path = self.directory / "out.txt"
        with open(path, "wb") as out:
            host = self.host(stdout=out)
        self.assertEqual(path.read_text().strip(), texts(host))  # already, while it runs
        self.quit(host)

    def test_standard_input_and_output_closed(self):
        log = self.pc.data_dir / "qv_server.log"
        for closed in ("input", "output", "input, output and error"):
            with self.subTest(closed=closed):
                log.unlink(missing_ok=True)
                if closed == "input, output and error":
                    program = self.pc.start(harness.PROBES / "probe_tool.exe", "bare",
                                            self.windows_exe())
                else:
                    program = harness.Program("qv_host.exe", [
                        "sh", "-c", 'exec wine "$0" ' + ("<&-" if closed == "input" else ">&-"),
                        str(self.exe)], self.pc.environment)
                    self.pc.programs.append(program)
                harness.wait_for("log", lambda: log.exists() and DIRECT in log.read_text())
                # Nothing that is printed strays into a file that the host opened.
                for text in ("ID: ", "password", "log: "):
                    self.assertNotIn(text, log.read_text())
                info = (self.pc.data_dir / "host.txt").read_text()
                self.assertRegex(info, r"\Aid=\d{9}\npassword=\w{8}\nrelay=.*\nname=.*\n\Z")
                self.assertRegex((self.pc.data_dir / "id.txt").read_text(), r"\A\d{9}\Z")
                self.assertEqual(self.pc.run(self.exe, "-q"), (0, ""))
                self.assertEqual(program.wait(5), 0)

    def test_a_host_file_that_another_user_left_is_made_anew(self):
        self.pc.data_dir.mkdir(parents=True)
        path = self.pc.data_dir / "host.txt"
        path.write_text("planted")
        path.chmod(0o666)
        try:
            os.chown(path, 12345, -1)
        except OSError:
            self.skipTest("only root can give a file to another user")
        with open(path) as planted:  # as whoever left it keeps it open
            host = self.host()
            self.assertNotIn(host.password, planted.read())
        self.assertEqual(path.stat().st_uid, os.getuid())
        self.assertEqual(len(host.password), 8)
        self.quit(host)

    def test_a_host_keeps_no_console(self):
        # A program that keeps its console shows that window until it ends.
        self.pc.run("start", "cmd.exe", "/k", "title kept")
        self.pc.wait_window(class_name="WineConsoleClass")
        self.pc.ask("post", "kept", 0x0010, 0)
        harness.wait_for("console gone",
                         lambda: self.pc.window(class_name="WineConsoleClass") is None)
        self.pc.run("start", self.windows_exe())
        log = self.pc.data_dir / "qv_server.log"
        harness.wait_for("log", lambda: log.exists() and DIRECT in log.read_text())
        time.sleep(3)  # such a window comes a little after its program
        self.assertIsNone(self.pc.window(class_name="WineConsoleClass"))
        self.assertEqual(self.pc.run(self.exe, "-q"), (0, ""))

    def windows_exe(self):
        return "Z:" + str(pathlib.Path(self.exe).resolve()).replace("/", "\\")


if __name__ == "__main__":
    harness.main()
