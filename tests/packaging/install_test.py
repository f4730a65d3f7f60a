#!/usr/bin/python3
"""The installer and the archive on a machine: what they put in place works, and uninstalling
leaves what was there before. Wine's netsh does nothing; a double writes down what it was told."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import zipfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests/e2e"))
import app  # noqa: E402
import harness  # noqa: E402

NETSH = harness.PROBES.parent / "packaging/netsh_double.exe"
RULE = r'name="qv host (TCP 7777)"'
UNINSTALL = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\qv"
RUN = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Run"
LICENSES = [f"licenses/{name}.txt" for name in
            ("gcc-runtime", "gpl-3", "mingw-w64", "monocypher", "nsis")]
ALWAYS = sorted(["README.txt", "qv.exe", "uninstall.exe"] + LICENSES)
TOO_OLD, STILL_RUNNING = 3, 4
WIZARD, QUESTION = "qv Uninstall ", "qv Uninstall"
WM_COMMAND, NEXT, YES, NO = 0x0111, 1, 6, 7


class InstallTest(harness.E2ETest):
    @classmethod
    def setUpClass(cls):
        held = tempfile.TemporaryDirectory()
        cls.addClassCleanup(held.cleanup)
        cls.packages = pathlib.Path(held.name)
        subprocess.run([ROOT / "tools/package", "--output", cls.packages], check=True,
                       stdout=subprocess.DEVNULL)

    def setUp(self):
        super().setUp()
        self.pc = self.machine("pc", 1024, 768)
        self.pc.environment["WINEDLLOVERRIDES"] += ";netsh.exe=n" + app.NO_DIRECT3D
        netsh = self.pc.drive_c / "windows/system32/netsh.exe"
        netsh.unlink()  # a link to what all machines share
        shutil.copy(NETSH, netsh)
        (self.setup_program,) = self.packages.glob("*-setup.exe")
        (self.archive,) = self.packages.glob("*.zip")
        self.before = self.everything()
        self.folder = self.pc.drive_c / "Program Files/qv"
        self.start_menu = (self.pc.drive_c / "ProgramData/Microsoft/Windows/Start Menu/Programs"
                           / "qv.lnk")
        self.user_data = self.pc.drive_c / "users" / self.user() / "AppData/Local/qv"

    def user(self):
        (name,) = {p.name for p in (self.pc.drive_c / "users").iterdir()} - {"Public"}
        return name

    def everything(self):
        """Every file and folder of the machine, but what programs leave lying about."""
        found = set()
        for folder, folders, files in os.walk(self.pc.drive_c):
            folders[:] = [name for name in folders if name.lower() not in ("temp", "inf")]
            found.update(os.path.join(folder, name) for name in folders + files)
        return found - {str(self.pc.drive_c / "netsh.txt")}

    def new_files(self):
        return sorted(os.path.relpath(path, self.pc.drive_c)
                      for path in self.everything() - self.before)

    def in_folder(self, folder=None):
        folder = folder or self.folder
        return sorted(p.relative_to(folder).as_posix() for p in folder.rglob("*")
                      if not p.is_dir())

    def registry(self, key, value):
        """A value, or None."""
        status, output = self.pc.run("reg", "query", key, "/v", value)
        return output.strip().split("    ")[-1].strip() if status == 0 else None

    def netsh_calls(self):
        """What netsh was told, without its own name."""
        log = self.pc.drive_c / "netsh.txt"
        lines = log.read_text().splitlines() if log.exists() else []
        return [line.partition(" advfirewall ")[2] for line in lines]

    def install(self, *switches):
        status, output = self.pc.run(self.setup_program, "/S", *switches)
        self.assertEqual((status, output), (0, ""))

    def uninstall(self, *switches, folder=None):
        """The uninstaller goes on from a copy of itself; it is over when its folder is gone."""
        folder = folder or self.folder
        status, _ = self.pc.run(folder / "uninstall.exe", "/S", *switches)
        self.assertEqual(status, 0)
        harness.wait_for("the folder's end", lambda: not folder.exists())
        harness.wait_for("the uninstaller's end",
                         lambda: self.registry(UNINSTALL, "DisplayName") is None)

    def test_a_plain_installation_runs_and_leaves_only_its_data(self):
        self.install()
        self.assertEqual(self.in_folder(), ALWAYS)
        self.assertTrue(self.start_menu.exists())
        self.assertEqual(self.registry(UNINSTALL, "UninstallString"),
                         r'"C:\Program Files\qv\uninstall.exe"')
        self.assertIsNone(self.registry(RUN, "qv"))
        self.assertEqual(self.netsh_calls(), [])

        self.pc.start("start", r"/unix", self.start_menu)  # as a click in the start menu
        self.pc.wait_window("qv remote desktop", "qvapp")
        harness.wait_for("the ID", (self.pc.data_dir / "id.txt").exists)
        status, _ = self.pc.run(self.folder / "qv.exe")  # a second one only says so
        self.assertEqual(status, 0)

        # It runs all the while, and is told to end.
        self.uninstall()
        self.assertIsNone(self.pc.window(class_name="qvapp"))
        self.assertFalse(self.start_menu.exists())
        data = [os.path.relpath(path, self.pc.drive_c) for path in
                (self.pc.data_dir, self.user_data)]
        for path in self.new_files():
            self.assertTrue(path.startswith(tuple(data)), path)
        self.assertTrue((self.pc.data_dir / "id.txt").exists())

    def test_everything_chosen_is_installed_and_taken_away_again(self):
        # A folder takes no quotes, but the blanks between words that it came in.
        self.install("/HOST", "/CLIENT", "/LOGON", r"/D=C:\apps\the", "qv")
        folder = self.pc.drive_c / "apps/the qv"
        self.assertEqual(self.in_folder(folder),
                         sorted(ALWAYS + ["qv_client.exe", "qv_host.exe"]))
        self.assertEqual(self.registry(RUN, "qv"), r'"C:\apps\the qv\qv.exe"')
        program = r'program="C:\apps\the qv\qv_host.exe"'
        rule = (f"firewall add rule {RULE} dir=in action=allow {program} protocol=TCP "
                "localport=7777 profile=domain,private")
        self.assertEqual(self.netsh_calls(), [rule])

        host = harness.Host(self.pc, program=folder / "qv_host.exe")
        viewer = harness.Viewer(self.pc, "127.0.0.1", "-p", host.password,
                                program=folder / "qv_client.exe")
        viewer.wait_connected()
        viewer.close_window()
        self.assertEqual(viewer.program.wait(), 0)
        self.assertTrue((self.user_data / "tiles.bin").exists())

        # Again, with less: what was there goes, and the host ends for it.
        self.install()
        self.assertEqual(host.program.wait(), 0)
        self.assertEqual(self.in_folder(folder), ALWAYS)
        self.assertEqual(self.netsh_calls(), [rule, f"firewall delete rule {RULE} {program}"])
        self.assertIsNone(self.registry(RUN, "qv"))

        # And elsewhere.
        self.install(r"/D=C:\apps\other")
        self.assertFalse(folder.exists())
        folder = folder.parent / "other"
        self.assertEqual(self.in_folder(folder), ALWAYS)
        self.assertEqual(self.registry(UNINSTALL, "InstallLocation"), r"C:\apps\other")

        self.uninstall("/REMOVEDATA", folder=folder)
        self.assertEqual(self.new_files(), ["apps"])

    def test_a_program_that_does_not_end_is_left_and_said(self):
        self.install("/CLIENT")
        # It waits for a relay that says nothing, and has no window to close.
        with harness.socket.create_server(("127.0.0.1", 0)) as silent:
            port = silent.getsockname()[1]
            viewer = harness.Viewer(self.pc, "127.0.0.1", port, "-p", "x",
                                    program=self.folder / "qv_client.exe")
            peer, _ = silent.accept()
            before = self.in_folder()
            status, _ = self.pc.run(self.setup_program, "/S")
            self.assertEqual(status, STILL_RUNNING)
            self.assertEqual(self.in_folder(), before)
            self.assertTrue(viewer.program.is_running())
            peer.close()
            self.assertEqual(viewer.program.wait(), 1)
        self.install()
        self.assertEqual(self.in_folder(), ALWAYS)

    def press(self, title, button):
        self.assertIsNotNone(self.pc.ask("post", title, WM_COMMAND, button))

    def test_uninstalling_by_hand_asks_before_it_removes_data(self):
        for answer, kept in [(NO, True), (YES, False)]:
            self.install()
            self.pc.data_dir.mkdir(exist_ok=True)
            (self.pc.data_dir / "id.txt").write_text("123456789")
            self.pc.start(self.folder / "uninstall.exe")
            self.pc.wait_window(WIZARD)
            self.press(WIZARD, NEXT)
            # The question has the wizard's title without its blank, and stands before it.
            harness.wait_for("the question",
                             lambda: self.pc.window(QUESTION).title == QUESTION)
            self.assertTrue((self.pc.data_dir / "id.txt").exists())
            self.press(QUESTION, answer)
            harness.wait_for("its end", lambda: self.pc.window(QUESTION).title == WIZARD)
            self.assertEqual((self.pc.data_dir / "id.txt").exists(), kept)
            self.press(WIZARD, NEXT)
            harness.wait_for("the uninstaller's end", lambda: self.pc.window(WIZARD) is None)
            self.assertFalse(self.folder.exists())
        self.assertEqual(self.new_files(), [])

    def test_a_windows_that_is_too_old_is_refused(self):
        for version, status in [("vista", TOO_OLD), ("win7", 0)]:
            self.pc.run("reg", "add", r"HKCU\Software\Wine", "/v", "Version", "/d", version,
                        "/f")
            self.assertEqual(self.pc.run(self.setup_program, "/S")[0], status)
            self.assertEqual(self.folder.exists(), status == 0)

    def test_the_archive_runs_where_it_is_unpacked(self):
        with zipfile.ZipFile(self.archive) as archive:
            archive.extractall(self.pc.drive_c)
        (folder,) = self.pc.drive_c.glob("qv-*")
        host = harness.Host(self.pc, program=folder / "qv_host.exe")
        self.pc.start(folder / "qv.exe")
        self.pc.wait_window("qv remote desktop", "qvapp")
        status, output = self.pc.run(folder / "qv_client.exe")
        self.assertEqual((status, output.split()[0]), (1, "usage:"))
        self.assertEqual(self.pc.run(folder / "qv_host.exe", "-q"), (0, ""))
        self.assertEqual(host.program.wait(), 0)


if __name__ == "__main__":
    harness.main()
