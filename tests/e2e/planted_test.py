#!/usr/bin/python3
"""Where a program lies does not matter: libraries beside it, or in the directory from which
it is started, are not loaded in place of the system's. And what happens without them."""

import re
import shutil

import app
import harness

PLANTED = ["d3d11", "dxgi", "dwmapi", "winmm", "bcrypt"]
NOT_FOUND = "8007007e"  # HRESULT of ERROR_MOD_NOT_FOUND


class PlantedCase:
    """Machines on which a file beside the program wins over one of Wine's, as it does on
    Windows for all but the known DLLs."""

    def planted_machine(self, name, width, height):
        machine = self.machine(name, width, height)
        machine.environment["WINEDLLOVERRIDES"] += f";{','.join(PLANTED)}=n,b"
        # Beside the program, and where programs are started (the current directory).
        for folder in (machine.drive_c / "planted", machine.drive_c):
            folder.mkdir(exist_ok=True)
            for library in PLANTED:
                shutil.copy(harness.PROBES / "planted_library.dll", folder / f"{library}.dll")
        return machine

    def plant(self, machine, program):
        """Copies a program among the planted libraries. Returns where to start it."""
        return shutil.copy(program, machine.drive_c / "planted")

    def marks(self, machine):
        """Which library was loaded by which program, as (library, program) pairs."""
        found = list(machine.drive_c.glob("*.in.*"))
        found += (machine.drive_c / "planted").glob("*.in.*")
        return sorted(tuple(mark.name.lower().split(".dll.in.")) for mark in found)


class PlantedTest(PlantedCase, harness.E2ETest):
    def test_the_trap_catches_a_program_that_imports(self):
        machine = self.planted_machine("one", 640, 480)
        status, _ = machine.run(self.plant(machine, harness.PROBES / "planted_imports.exe"))
        self.assertEqual(status, len(PLANTED))
        self.assertEqual([library for library, _ in self.marks(machine)], sorted(PLANTED))

    def test_a_bare_name_is_looked_for_in_the_system_only_once_restricted(self):
        machine = self.planted_machine("one", 640, 480)
        loads = self.plant(machine, harness.PROBES / "planted_loads.exe")
        for library in PLANTED:
            name = f"{library}.dll"
            status, path = machine.run(loads, "restricted", name)
            self.assertEqual((status, path.lower()), (0, rf"c:\windows\system32\{name}"))
            self.assertEqual(self.marks(machine), [])
        for entry, library in [("BCryptGenRandom", "bcrypt"), ("timeBeginPeriod", "winmm"),
                               ("D3D11CreateDevice", "d3d11")]:
            name = f"{library}.dll"
            status, path = machine.run(loads, "system", name, entry)
            self.assertEqual((status, path.lower()), (0, rf"c:\windows\system32\{name}"))
            self.assertEqual(self.marks(machine), [])
        status, path = machine.run(loads, "bare", "bcrypt.dll")
        self.assertEqual((status, path.lower()), (0, r"c:\planted\bcrypt.dll"))
        self.assertEqual(self.marks(machine), [("bcrypt", "planted_loads.exe")])

    def test_a_session_loads_nothing_that_is_planted(self):
        pc = self.planted_machine("host", 640, 480)
        desk = self.planted_machine("viewer", 800, 600)
        # Windows' own code loads this by its bare name, into each program with a window.
        for machine in (pc, desk):
            machine.environment["WINEDLLOVERRIDES"] += ";uxtheme=n,b"
            shutil.copy(harness.PROBES / "planted_library.dll",
                        machine.drive_c / "planted/uxtheme.dll")
        host = harness.Host(pc, program=self.plant(pc, harness.PROGRAMS / "qv_host.exe"))
        viewer = harness.Viewer(desk, "127.0.0.1", "-p", host.password,
                                program=self.plant(desk, harness.PROGRAMS / "qv_client.exe"))
        viewer.wait_connected()
        self.probe_window(pc, "probe", 100, 100, 300, 200)
        self.wait_same_picture(host, viewer)
        viewer.point_at(150, 150)
        harness.wait_for("the pointer", lambda: pc.ask("cursor") == "150 150")
        viewer.close_window()
        self.assertEqual(viewer.program.wait(), 0)
        host.wait_log("client disconnected")
        self.assertEqual(pc.run(pc.drive_c / "planted/qv_host.exe", "-q"), (0, ""))
        # Direct3D was there, from the system: it failed where Wine's does.
        self.assertTrue(any(re.match("DuplicateOutput|D3D11CreateDevice 887a0004", line)
                            for line in host.log), host.log)
        self.assertEqual(self.marks(pc) + self.marks(desk), [])

    def test_the_application_loads_nothing_that_is_planted(self):
        pc = self.planted_machine("pc", *app.SIZE)
        # The list's library, which is loaded by its name.
        libraries = ["comctl32", "uxtheme"]
        pc.environment["WINEDLLOVERRIDES"] += f";{','.join(libraries)}=n,b"
        for library in libraries:
            shutil.copy(harness.PROBES / "planted_library.dll",
                        pc.drive_c / f"planted/{library}.dll")
        qv = app.App(pc, self.plant(pc, app.PROGRAM))
        harness.wait_for("the list", lambda: qv.control(app.HISTORY))
        harness.wait_for("the host", lambda: "server up" in qv.log)
        qv.connect("127.0.0.1", "x")
        qv.wait_box("qv - could not connect")
        qv.close_box()
        self.assertEqual(qv.exit(), 0)
        self.assertEqual(self.marks(pc), [])


class MissingLibraryTest(harness.E2ETest):
    def without(self, name, width, height, *libraries):
        machine = self.machine(name, width, height)
        machine.environment["WINEDLLOVERRIDES"] += f";{','.join(libraries)}="
        return machine

    def refused(self, host, viewer):
        self.assertEqual(viewer.program.wait(), 1)
        self.assertIn("authentication failed", viewer.program.output)
        self.assertTrue(host.program.is_running())
        self.assertFalse(host.log_has("client connected"))

    def test_without_direct3d_the_host_serves_by_gdi(self):
        pc = self.without("host", 640, 480, "d3d11", "dxgi", "dwmapi", "winmm")
        host = harness.Host(pc)
        self.assertEqual(host.log[:3], [f"D3D11CreateDevice {NOT_FOUND}", "GDI capture 640x480",
                                        "server up on port 7777, dxgi=0"])
        viewer = harness.Viewer(self.without("viewer", 800, 600, "d3d11", "dxgi", "dwmapi"),
                                "127.0.0.1", "-p", host.password)
        viewer.wait_connected()
        self.probe_window(pc, "probe", 100, 100, 300, 200)
        self.wait_same_picture(host, viewer)

    def test_without_a_random_generator_nobody_connects(self):
        pc, desk = self.machine("host", 640, 480), self.without("viewer", 800, 600, "bcrypt")
        host = harness.Host(pc)
        self.refused(host, harness.Viewer(desk, "127.0.0.1", "-p", host.password))

    def test_a_host_without_a_random_generator_lets_nobody_in(self):
        # Its password is the one that no random bytes give; knowing it must not help.
        host = harness.Host(self.without("host", 640, 480, "bcrypt"))
        self.assertEqual(len(set(host.password)), 1)
        desk = self.machine("viewer", 800, 600)
        for _ in range(2):
            self.refused(host, harness.Viewer(desk, "127.0.0.1", "-p", host.password))


if __name__ == "__main__":
    harness.main()
