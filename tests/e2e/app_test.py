#!/usr/bin/python3
"""The desktop application: qv.exe."""

import socket
import threading

import harness
import relay

import app
from app import App

STATIC, BUTTON, EDIT = "Static", "Button", "Edit"

# Styles, as the system's headers define them.
WS_TABSTOP, WS_VISIBLE = 0x00010000, 0x10000000
SS_NOPREFIX = 0x80
BS_DEFPUSHBUTTON, ES_AUTOHSCROLL, ES_PASSWORD = 0x1, 0x80, 0x20
LVS_REPORT, LVS_SINGLESEL, LVS_SHOWSELALWAYS = 0x1, 0x4, 0x8


class AppCase:
    def pc(self, name="pc"):
        return self.machine(name, *app.SIZE)

    def wait_clipboard(self, machine, text):
        harness.wait_for(f"{text!r} on the clipboard", lambda: app.clipboard(machine) == text)


class AppWindowTest(AppCase, harness.E2ETest):
    def test_what_a_first_start_shows(self):
        pc = self.pc()
        qv = App(pc)
        window = qv.window()
        self.assertEqual(window.client_size, (484, 520))
        harness.wait_for("identity", lambda: (pc.data_dir / "host.txt").exists())
        number = qv.info["id"]
        self.assertRegex(number, r"\A\d{9}\Z")
        harness.wait_for("the labels", lambda: qv.id_label != "--- --- ---")
        qv.wait_status(f"Online via qv-relay, waiting for a viewer  ({qv.info['name']})")
        self.assertEqual(qv.id_label, f"{number[:3]} {number[3:6]} {number[6:]}")
        self.assertEqual(qv.password_label, qv.info["password"])
        self.assertEqual(qv.rows(), [])
        self.assertIn(f"server up via relay qv-relay:7000 room '{number}'", qv.log)
        self.check_places(qv)

        # Nothing is selected, so these do nothing.
        for button in (app.HISTORY_CONNECT, app.RENAME, app.REMOVE):
            qv.click(button)
        self.assertEqual(qv.boxes(), [])
        self.assertIsNone(pc.window(class_name="qvinput"))
        self.assertTrue(qv.is_idle())

        qv.click(app.COPY_ID)
        self.wait_clipboard(pc, number)
        qv.click(app.COPY_PASSWORD)
        self.wait_clipboard(pc, qv.info["password"])

        self.assertEqual(qv.exit(), 0)

    def test_a_start_while_another_is_only_starting(self):
        # There is the mutex, and no window yet: the start ends without a word.
        pc = self.pc()
        tool = pc.start(harness.PROBES / "probe_tool.exe", "claim",
                        r"Local\qv_app_single_instance")
        tool.wait_line("claimed 1")
        self.assertEqual(pc.run(app.PROGRAM), (0, ""))
        self.assertFalse(pc.data_dir.exists())

    def check_places(self, qv):
        left, top, _, _ = qv.window().client
        # class, text, style, x, y, width, height, number; None is what changes
        tab = WS_TABSTOP
        places = [
            (STATIC, "This computer", 0, 16, 12, 300, 20, 0),
            (STATIC, None, SS_NOPREFIX, 16, 36, 300, 36, 0),
            (BUTTON, "Copy ID", tab, 330, 40, 90, 26, 102),
            (STATIC, "Password:", 0, 16, 84, 80, 20, 0),
            (STATIC, None, SS_NOPREFIX, 96, 84, 150, 20, 0),
            (BUTTON, "Copy", tab, 250, 80, 70, 26, 103),
            (BUTTON, "Set password...", tab, 330, 80, 120, 26, 101),
            (STATIC, None, SS_NOPREFIX, 16, 112, 440, 20, 0),
            (STATIC, "Connect to another computer", 0, 16, 146, 300, 20, 0),
            (STATIC, "ID (or host:port on the LAN)", 0, 16, 170, 200, 18, 0),
            (STATIC, "Password", 0, 236, 170, 120, 18, 0),
            (EDIT, "", tab | ES_AUTOHSCROLL, 16, 190, 210, 24, 104),
            (EDIT, "", tab | ES_AUTOHSCROLL | ES_PASSWORD, 236, 190, 130, 24, 105),
            (BUTTON, "Connect", tab | BS_DEFPUSHBUTTON, 376, 189, 90, 26, 106),
            (STATIC, "History  (double-click to connect)", 0, 16, 226, 300, 20, 0),
            ("SysListView32", "", tab | LVS_REPORT | LVS_SINGLESEL | LVS_SHOWSELALWAYS, 16, 248,
             450, 200, 107),
            (BUTTON, "Connect", tab, 16, 456, 90, 26, 108),
            (BUTTON, "Rename...", tab, 116, 456, 90, 26, 109),
            (BUTTON, "Remove", tab, 216, 456, 90, 26, 110),
        ]
        found = [c for c in qv.controls() if c.class_name != "SysHeader32"]
        self.assertEqual(len(found), len(places))
        for control, place in zip(found, places):
            class_name, text, style, x, y, width, height, number = place
            self.assertEqual(control.class_name, class_name)
            if text is not None:
                self.assertEqual(control.text, text)
            self.assertEqual(control.number, number)
            self.assertEqual(control.place,
                             (left + x, top + y, left + x + width, top + y + height), place)
            # The class adds styles of its own above the lowest byte.
            wanted = style | WS_VISIBLE
            self.assertEqual(control.style & wanted, wanted, place)
            self.assertEqual(control.style & WS_TABSTOP, style & WS_TABSTOP, place)

    def test_an_id_of_more_than_nine_characters(self):
        pc = self.pc()
        pc.data_dir.mkdir(parents=True)
        (pc.data_dir / "id.txt").write_text("12345678901234")
        qv = App(pc)
        harness.wait_for("the label", lambda: qv.id_label == "123 456 789")
        qv.click(app.COPY_ID)
        self.wait_clipboard(pc, "12345678901234")

    def test_it_is_hidden_and_shown_and_runs_once(self):
        pc = self.pc()
        qv = App(pc)
        harness.wait_for("the icon", lambda: not qv.tray_is_empty())
        self.assertIsNone(qv.balloon())

        # The close box hides it, with a balloon.
        qv.close()
        qv.wait_hidden()
        harness.wait_for("the balloon", qv.balloon)
        self.assertTrue(qv.program.is_running())

        # A second start shows it again, and ends.
        self.assertEqual(pc.run(app.PROGRAM), (0, ""))
        qv.wait_shown()
        qv.wait_in_front("qvapp")
        self.assertEqual(pc.ask("list").count("\nqvapp\t") + pc.ask("list").startswith("qvapp\t"),
                         1)

        # So does a click on the icon, after it was minimised; now without a balloon.
        harness.wait_for("the balloon to go", lambda: qv.balloon() is None)
        qv.minimise()
        qv.wait_hidden()
        qv.click_tray()
        qv.wait_shown()
        qv.wait_in_front("qvapp")
        self.assertGreater(qv.window().frame[2], 400)  # at its place, not as an icon

        # From minimised by a second start; from closed by the menu.
        qv.minimise()
        qv.wait_hidden()
        self.assertEqual(pc.run(app.PROGRAM), (0, ""))
        self.assertGreater(qv.wait_shown().frame[2], 400)
        qv.close()
        qv.wait_hidden()
        qv.choose(first=True)
        qv.wait_shown()
        qv.wait_in_front("qvapp")

        self.assertEqual(qv.exit(), 0)
        self.assertIsNone(qv.window())
        # The icon came, showed one balloon, and was taken away.
        self.assertEqual(qv.tray_calls(), [app.NIM_ADD, app.NIM_MODIFY, app.NIM_DELETE])
        harness.wait_for("the icon to go", qv.tray_is_empty)
        # The place is free for the next.
        again = App(pc)
        self.assertTrue(again.program.is_running())
        self.assertEqual(again.exit(), 0)


class AppManagedTest(AppCase, harness.E2ETest):
    """On a screen with a window manager and without Wine's own desktop."""

    def test_under_a_window_manager(self):
        screen = harness.Screen(*app.SIZE)
        manager = harness.Program("openbox", ["openbox"], screen.environment)
        pc = harness.Machine("pc", self.directory, *app.SIZE, desktop=False, screen=screen)
        self.machines.append(pc)
        pc.programs.append(manager)
        qv = App(pc)
        self.assertEqual(qv.window().client_size, (484, 520))
        harness.wait_for("identity", lambda: (pc.data_dir / "host.txt").exists())
        qv.click(app.COPY_ID)
        self.wait_clipboard(pc, qv.info["id"])

        qv.connect("no-such-host.invalid", "x")
        self.assertEqual(qv.wait_box("qv - could not connect"), "cannot resolve host")
        qv.close_box()
        qv.wait_idle()

        qv.key("alt+F4")
        qv.wait_hidden()
        harness.wait_for("the balloon", qv.balloon)
        self.assertEqual(pc.run(app.PROGRAM), (0, ""))
        qv.wait_shown()
        qv.wait_in_front("qvapp")
        screen.xdotool("search", "--name", app.TITLE, "windowminimize")
        qv.wait_hidden()
        qv.click_tray()
        qv.wait_shown()
        self.assertEqual(qv.window().client_size, (484, 520))
        self.assertEqual(qv.exit(), 0)
        self.assertEqual(qv.tray_calls(), [app.NIM_ADD, app.NIM_MODIFY, app.NIM_DELETE])


class AppPasswordTest(AppCase, harness.E2ETest):
    def setUp(self):
        super().setUp()
        self.qv = App(self.pc())
        harness.wait_for("the password", lambda: self.qv.password_label)

    def open(self):
        self.qv.click(app.SET_PASSWORD)
        return self.qv.wait_dialog("Set password")

    def wait_password(self, text):
        harness.wait_for(f"password {text!r}", lambda: self.qv.password_label == text)
        self.assertEqual(self.qv.info["password"], text)

    def test_setting_a_password_and_going_back(self):
        qv = self.qv
        first = qv.password_label
        dialog = self.open()
        main = qv.window()
        self.assertEqual(dialog.frame, (main.frame[0] + 60, main.frame[1] + 120,
                                        main.frame[0] + 440, main.frame[1] + 270))
        left, top = dialog.client[:2]
        prompt = ("New password for this computer (empty = back to an automatic temporary "
                  "password):")
        self.assertEqual(
            [(c.class_name, c.text, c.place[0] - left, c.place[1] - top,
              c.place[2] - c.place[0], c.place[3] - c.place[1])
             for c in qv.controls("class=qvinput")],
            [(STATIC, prompt, 12, 12, 350, 20), (EDIT, "", 12, 36, 350, 24),
             (BUTTON, "OK", 190, 76, 80, 26), (BUTTON, "Cancel", 282, 76, 80, 26)])

        # The main window takes neither clicks nor keys meanwhile.
        qv.click(app.COPY_ID)
        qv.click_at(main.frame[2] - 13, main.frame[1] + 12)
        qv.click_at(dialog.client[0] + 100, dialog.client[1] + 48)
        qv.type("from the dialog")
        harness.wait_for("typed", lambda: qv.dialog_text() == "from the dialog")
        self.assertEqual(qv.control(app.TARGET).text, "")
        self.assertIsNotNone(qv.window())
        self.assertNotEqual(app.clipboard(qv.machine), qv.info["id"])

        qv.click(app.OK, "class=qvinput")
        qv.wait_no_dialog()
        self.wait_password("from the dialog")
        qv.wait_in_front("qvapp")
        self.assertIn("password set by user", qv.log)
        qv.click(app.COPY_PASSWORD)  # it works again
        self.wait_clipboard(qv.machine, "from the dialog")

        # Three ways to leave it that change nothing: the field is empty, not the old text.
        for leave in ("button", "Escape", "close box"):
            dialog = self.open()
            self.assertEqual(qv.dialog_text(), "")
            qv.type("x")
            harness.wait_for("typed", lambda: qv.dialog_text() == "x")
            if leave == "button":
                qv.click(app.CANCEL, "class=qvinput")
            elif leave == "Escape":
                qv.key("Escape")
            else:
                qv.click_at(dialog.frame[2] - 13, dialog.frame[1] + 12)
            qv.wait_no_dialog()
            self.assertEqual(qv.password_label, "from the dialog", leave)
            self.assertEqual(qv.info["password"], "from the dialog")

        # Enter confirms; a password has 32 characters.
        self.open()
        qv.type("0123456789" * 7)
        harness.wait_for("typed", lambda: len(qv.dialog_text()) == 70)
        qv.key("Return")
        qv.wait_no_dialog()
        self.wait_password("01234567890123456789012345678901")

        # Empty goes back to an automatic one, at once. Enter on a button confirms as well.
        self.open()
        qv.key("Tab", "Tab", "Return")
        qv.wait_no_dialog()
        self.assertRegex(qv.password_label, r"\A\w{8}\Z")
        self.assertNotEqual(qv.password_label, first)
        self.assertEqual(qv.info["password"], qv.password_label)

    def test_exit_while_the_dialog_is_open(self):
        self.open()
        self.assertEqual(self.qv.exit(), 0)
        harness.wait_for("the icon to go", self.qv.tray_is_empty)

    def test_the_tray_answers_while_the_dialog_is_open(self):
        qv = self.qv
        self.open()
        qv.choose(first=True)
        self.assertIsNotNone(qv.machine.window(class_name="qvinput"))
        qv.key("Escape")
        qv.wait_no_dialog()
        qv.click(app.COPY_ID)
        self.wait_clipboard(qv.machine, qv.info["id"])


class Door:
    """A port that leads to the host's, once it is opened."""

    def __init__(self, address):
        self.opened = threading.Event()
        self.listener = socket.create_server(address)
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        near, _ = self.listener.accept()
        self.opened.wait()
        far = socket.create_connection(("127.0.0.1", harness.HOST_PORT))
        for source, target in ((near, far), (far, near)):
            threading.Thread(target=self._copy, args=(source, target), daemon=True).start()

    @staticmethod
    def _copy(source, target):
        try:
            while data := source.recv(65536):
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def close(self):
        self.opened.set()
        self.listener.close()


AUTHENTICATION_FAILED = "authentication failed (wrong password, or host not online)"
WHEN = r"\A20\d\d-[01]\d-[0-3]\d [0-2]\d:[0-5]\d\Z"


class AppConnectTest(AppCase, harness.E2ETest):
    def check_box(self, qv, caption, text):
        self.assertEqual(qv.wait_box(caption), text)
        self.assertEqual(len(qv.boxes()), 1)

    def fails(self, qv, text):
        """The connection that was just started fails with this text, once."""
        self.check_box(qv, "qv - could not connect", text)
        button = qv.control(app.CONNECT)
        self.assertEqual((button.text, button.enabled), ("Connecting...", False))
        qv.close_box()
        qv.wait_idle()
        self.assertEqual(qv.boxes(), [])

    def test_targets_that_lead_nowhere(self):
        qv = App(self.pc())
        empty = "Enter the ID of the computer to connect to."
        qv.click(app.CONNECT)
        self.check_box(qv, "qv", empty)
        qv.close_box()
        for field in (app.TARGET, app.PASSWORD):
            qv.click(field)
            qv.key("Return")
            self.check_box(qv, "qv", empty)
            qv.close_box()
        # Both ways in which a system may come to that: it asks for the default button (0x534B:
        # there is one), or it sends the command of an OK button.
        dm_getdefid, wm_command = 0x400, 0x111
        self.assertEqual(qv.machine.ask("send", "class=qvapp", dm_getdefid, 0),
                         str(0x534B0000 + app.CONNECT))
        qv.machine.ask("post", "class=qvapp", wm_command, app.OK)
        self.check_box(qv, "qv", empty)
        qv.close_box()
        self.assertTrue(qv.is_idle())

        # Tab goes from field to field.
        qv.click(app.TARGET)
        qv.type("no-such-host.invalid")
        qv.key("Tab")
        qv.type("x")
        harness.wait_for("typed", lambda: qv.control(app.PASSWORD).text == "x")
        self.assertEqual(qv.control(app.TARGET).text, "no-such-host.invalid")
        qv.click(app.CONNECT)
        self.fails(qv, "cannot resolve host")
        qv.connect("127.0.0.1", "x")
        self.fails(qv, "connection failed")
        # The grouped form of an ID is a host's name; a port need not be a number.
        for target in ("123 456 789", "127.0.0.1:nonsense"):
            qv.connect(target, "x")
            self.fails(qv, "cannot resolve host")
        self.assertEqual(qv.rows(), [])
        self.assertFalse(app.history_path(qv.machine).exists())
        # Exit with a message box of the main window's open.
        qv.fill(app.TARGET, "")
        qv.click(app.CONNECT)
        self.check_box(qv, "qv", empty)
        self.assertEqual(qv.exit(), 0)

    def test_direct_sessions_one_at_a_time(self):
        host = harness.Host(self.machine("host", 320, 240))
        pc = self.pc()
        qv = App(pc)
        qv.connect("127.0.0.1", "x" + host.password)
        self.fails(qv, AUTHENTICATION_FAILED)
        self.assertEqual(qv.rows(), [])

        # By Enter in the password field.
        qv.fill(app.PASSWORD, host.password)
        qv.key("Return")
        qv.wait_viewer()
        button = qv.control(app.CONNECT)
        self.assertEqual((button.text, button.enabled), ("Connecting...", False))
        row = qv.wait_rows(1)[0]
        self.assertEqual(row[:3], ["-", host.info["name"], "127.0.0.1"])
        self.assertRegex(row[3], WHEN)
        self.assertEqual(app.history_path(pc).read_text(),
                         f"127.0.0.1\t{host.info['name']}\t\t{row[3]}\n")

        # A second session is refused, and the first goes on.
        self.front(qv)
        qv.click_row(0)
        qv.click(app.HISTORY_CONNECT)
        self.check_box(qv, "qv", "A session is already open. Close it first.")
        qv.close_box()
        self.assertEqual(pc.ask("list").count("qvviewer\t"), 1)
        self.assertIsNotNone(pc.ask("place", "class=qvviewer", 440, 0, 350, 300))
        self.probe_window(host.machine, "probe", 20, 20, 100, 100)
        self.assertEqual([line.split()[0:2] for line in host.log
                          if line.startswith("client ")], [["client", "connected:"]])
        self.wait_picture(host, qv)
        qv.close_viewer()
        host.wait_log("client disconnected")

        # Another target comes first; a double click brings the old one back to the top.
        qv.connect("127.0.0.1:7777", host.password)
        qv.wait_viewer()
        rows = qv.wait_rows(2)
        self.assertEqual([row[2] for row in rows], ["127.0.0.1:7777", "127.0.0.1"])
        qv.close_viewer()
        self.front(qv)
        qv.click_row(1, times=2)
        qv.wait_viewer()
        harness.wait_for("the order", lambda: [row[2] for row in qv.rows()] ==
                         ["127.0.0.1", "127.0.0.1:7777"])
        self.assertEqual(qv.control(app.TARGET).text, "127.0.0.1")

        # Exit with the session open. What was recorded is there at the next start.
        kept = qv.rows()
        self.assertEqual(qv.exit(), 0)
        host.wait_log("client disconnected", 3)
        harness.wait_for("the icon to go", qv.tray_is_empty)
        self.assertEqual(App(pc).rows(), kept)

    def front(self, qv):
        """Brings the main window before the viewer's, which may lie over it."""
        qv.machine.ask("front", "class=qvapp")
        qv.wait_in_front("qvapp")

    def wait_picture(self, host, qv):
        """The viewer shows the host's screen as it is now, in the middle of its larger window,
        to the pixel."""
        def same():
            client = qv.viewer_window().client
            width, height = host.machine.screen.width, host.machine.screen.height
            left = (client[0] + client[2] - width) // 2
            top = (client[1] + client[3] - height) // 2
            shown = qv.machine.screen.shot()[top:top + height, left:left + width]
            return not harness.difference(shown, host.machine.screen.shot())
        harness.wait_for("the host's picture", same)

    def test_a_connection_while_an_entry_is_renamed(self):
        host = harness.Host(self.machine("host", 320, 240))
        pc = self.pc()
        app.history_path(pc).write_text("1\tONE\told\t2026-01-01 00:00\n")
        qv = App(pc)
        door = Door(("127.100.100.100", 54321))
        self.addCleanup(door.close)
        qv.connect("127.100.100.100:54321", host.password)
        qv.click_row(0)
        qv.click(app.RENAME)
        qv.wait_dialog("Nickname")
        door.opened.set()
        # Such a target is recorded by its first 18 characters.
        rows = qv.wait_rows(2)
        self.assertEqual([row[2] for row in rows], ["127.100.100.100:54", "1"])
        qv.wait_viewer()
        pc.ask("front", "class=qvinput")
        qv.wait_in_front("qvinput")
        left, top = qv.wait_dialog("Nickname").client[:2]
        qv.click_at(left + 200, top + 48, times=2)
        qv.type("new")
        qv.key("Return")
        qv.wait_no_dialog()
        self.assertEqual([row[0] for row in qv.rows()], ["-", "new"])
        qv.close_viewer()
        self.assertEqual(qv.exit(), 0)


class AppRelayTest(AppCase, harness.E2ETest):
    def setUp(self):
        super().setUp()
        if not harness.relay_name_resolves():
            self.skipTest("the relay's name leads nowhere without a namespace and /etc/hosts")

    def test_by_id_through_the_relay(self):
        with relay.test_relay(patience=1.0) as running:
            seen = App(self.machine("seen", *app.SIZE))
            desk = self.machine("desk", *app.SIZE)
            desk.data_dir.mkdir(parents=True)
            (desk.data_dir / "relay.txt").write_text("127.0.0.1\n")
            looks = App(desk)
            name = seen.info["name"]
            seen.wait_status(f"Online via qv-relay, waiting for a viewer  ({name})")
            looks.wait_status(f"Online via 127.0.0.1, waiting for a viewer  ({name})")
            room = seen.info["id"]
            harness.wait_for("the host at the relay", lambda: running.is_waiting(room))

            # Nobody has this ID; and a wrong password.
            for target, password in (("000000000", "x"), (room, "x")):
                looks.connect(target, password)
                self.assertEqual(looks.wait_box("qv - could not connect"),
                                 AUTHENTICATION_FAILED)
                looks.close_box()
                looks.wait_idle()
                self.assertEqual(looks.boxes(), [])
            self.assertEqual(looks.rows(), [])
            harness.wait_for("the host's return", lambda: running.is_waiting(room))

            looks.connect(room, seen.password_label)
            looks.wait_viewer()
            seen.wait_status(f"Connected: {name} is viewing this computer")
            self.assertEqual(looks.wait_rows(1)[0][:3], ["-", name, room])
            looks.close_viewer()
            seen.wait_status(f"Online via qv-relay, waiting for a viewer  ({name})")
            harness.wait_for("the host's return", lambda: running.is_waiting(room))

            # The one that is looked at exits: the session ends, and nobody is there any more.
            looks.connect(room, seen.password_label)
            looks.wait_viewer()
            seen.wait_status(f"Connected: {name} is viewing this computer")
            self.assertEqual(seen.exit(), 0)
            looks.wait_idle()
            self.assertEqual(looks.boxes(), [])
            self.assertIsNone(looks.viewer_window())
            app.pause(1)
            self.assertFalse(running.is_waiting(room))
            looks.connect(room, "x")
            self.assertEqual(looks.wait_box("qv - could not connect"), AUTHENTICATION_FAILED)
            # Exit with a box open that waits on the viewer's thread.
            self.assertEqual(looks.exit(), 0)


class AppHistoryTest(AppCase, harness.E2ETest):
    def start(self, content):
        pc = self.pc()
        self.path = app.history_path(pc)
        self.path.write_bytes(content)
        return App(pc)

    def test_renaming_removing_and_connecting(self):
        qv = self.start(b"111\tALPHA\tfirst\t2026-03-01 10:00\r\n"
                        b"222\tBETA\t\t2026-02-01 10:00\r\n"
                        b"127.0.0.1:5900\t\tthird\t2026-01-01 10:00\r\n")
        self.assertEqual(qv.rows(), [["first", "ALPHA", "111", "2026-03-01 10:00"],
                                     ["-", "BETA", "222", "2026-02-01 10:00"],
                                     ["third", "?", "127.0.0.1:5900", "2026-01-01 10:00"]])

        def rename(row, initial, text, leave):
            qv.click_row(row)
            qv.click(app.RENAME)
            qv.wait_dialog("Nickname")
            self.assertEqual([c.text for c in qv.controls("class=qvinput")][0],
                             "Name for this computer:")
            self.assertEqual(qv.dialog_text(), initial)
            if text:
                qv.type(text)  # the old text is selected, so this replaces it
            else:
                qv.key("BackSpace")
            harness.wait_for("typed", lambda: qv.dialog_text() == text)
            qv.key(leave)
            qv.wait_no_dialog()

        rename(0, "first", "my desk", "Return")
        self.assertEqual(qv.rows()[0][0], "my desk")
        rename(1, "", "y" * 70, "Return")
        self.assertEqual(qv.rows()[1][0], "y" * 63)
        rename(1, "y" * 63, "other", "Escape")
        rename(2, "third", "", "Return")
        self.assertEqual([row[0] for row in qv.rows()], ["my desk", "y" * 63, "-"])
        self.assertEqual(self.path.read_bytes(),
                         b"111\tALPHA\tmy desk\t2026-03-01 10:00\r\n"
                         b"222\tBETA\t" + b"y" * 63 + b"\t2026-02-01 10:00\r\n"
                         b"127.0.0.1:5900\t\t\t2026-01-01 10:00\r\n")

        # A double click takes the password that is in its field, and the row's target. So does
        # the button.
        listener = socket.create_server(("127.0.0.1", 5900))
        self.addCleanup(listener.close)
        listener.settimeout(harness.WAIT_SECONDS)
        qv.fill(app.PASSWORD, "pw")
        for connect in ("double click", "button"):
            qv.fill(app.TARGET, "")
            qv.click_row(2, times=2 if connect == "double click" else 1)
            if connect == "button":
                qv.click(app.HISTORY_CONNECT)
            listener.accept()[0].close()
            self.assertEqual(qv.wait_box("qv - could not connect"), AUTHENTICATION_FAILED)
            self.assertEqual(qv.control(app.TARGET).text, "127.0.0.1:5900", connect)
            qv.close_box()
            qv.wait_idle()

        qv.click_row(1)
        qv.click(app.REMOVE)
        self.assertEqual([row[2] for row in qv.wait_rows(2)], ["111", "127.0.0.1:5900"])
        left = qv.rows()
        self.assertEqual(qv.exit(), 0)
        self.assertEqual(App(qv.machine).rows(), left)

    def test_a_file_of_300_lines(self):
        lines = [f"1000{i}\tPC{i}\tname {i}\t2026-01-02 03:04\r\n" for i in range(300)]
        qv = self.start("".join(lines).encode())
        rows = qv.rows()
        self.assertEqual(len(rows), 256)
        self.assertEqual((rows[0][2], rows[255][2]), ("10000", "1000255"))
        qv.click_row(0)
        qv.click(app.REMOVE)
        qv.wait_rows(255)
        self.assertEqual(self.path.read_bytes().decode(), "".join(lines[1:256]))

    def test_a_broken_file(self):
        qv = self.start(b"rubbish\n1\tA\tB\n\xff\xfe\0\0\t\t\t\n" + b"x" * 1000 + b"\n"
                        b"2\t\t\tthen\n\t\t\t\n" + bytes(range(27, 256)) * 4 + b"\n3\tC\t\tlast")
        self.assertEqual([row for row in qv.rows() if row[2] in ("2", "3")],
                         [["-", "?", "2", "then"], ["-", "C", "3", "last"]])
        self.assertEqual(qv.exit(), 0)


if __name__ == "__main__":
    harness.main()
