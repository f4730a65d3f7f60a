"""qv.exe on a virtual screen, worked with mouse and keyboard as a person would.

What it shows is read from its windows (probe_tool controls, rows) and, for the clipboard, with
the X server's own tool; what it does, from its files, its windows and the other side.
"""

import collections
import re
import subprocess
import time

import harness

PROGRAM = harness.PROGRAMS / "qv.exe"
TITLE = "qv remote desktop"
SIZE = (800, 600)  # of its screen: room for the window, the dialog and the task bar

NIM_ADD, NIM_MODIFY, NIM_DELETE = 0, 1, 2

NO_DIRECT3D = ";d3d11=;dxgi="

# Controls by their numbers.
SET_PASSWORD, COPY_ID, COPY_PASSWORD = 101, 102, 103
TARGET, PASSWORD, CONNECT = 104, 105, 106
HISTORY, HISTORY_CONNECT, RENAME, REMOVE = 107, 108, 109, 110
OK, CANCEL = 1, 2

MESSAGE_BOX = "#32770"
MENU = "#32768"

Control = collections.namedtuple("Control", "class_name number enabled style place text")


class App:
    """The application on a machine."""

    def __init__(self, machine, program=PROGRAM):
        self.machine = machine
        # Wine can hang for good when one thread of a process starts Direct3D just while another
        # makes its first window. There is no duplication under Wine in any case.
        if NO_DIRECT3D not in machine.environment["WINEDLLOVERRIDES"]:
            machine.environment["WINEDLLOVERRIDES"] += NO_DIRECT3D
        self.screen = machine.screen
        environment = machine.environment
        machine.environment = dict(environment, WINEDEBUG="-all,trace+systray")
        self.program = machine.start(program)
        machine.environment = environment
        self.wait_shown()

    # ----------------------------------------------------------------- what it shows

    def window(self):
        return self.machine.window(TITLE, "qvapp")

    def wait_shown(self):
        return harness.wait_for("the main window", self.window)

    def wait_hidden(self):
        harness.wait_for("the main window to go", lambda: self.window() is None)

    def controls(self, window="class=qvapp"):
        found = []
        for line in (self.machine.ask("controls", window) or "").splitlines():
            class_name, number, enabled, style, place, text = line.split("\t", 5)
            found.append(Control(class_name, int(number), enabled == "1", int(style, 16),
                                 tuple(map(int, place.split())), text))
        return found

    def control(self, number, window="class=qvapp"):
        for control in self.controls(window):
            if control.number == number:
                return control
        raise harness.Failure(f"{window} has no control {number}")

    def label(self, index):
        """The text of one of the labels, counted from 0 in the order of their making."""
        labels = [c for c in self.controls() if c.class_name == "Static"]
        return labels[index].text if labels else None

    @property
    def id_label(self):
        return self.label(1)

    @property
    def password_label(self):
        return self.label(3)

    @property
    def status(self):
        return self.label(4)

    def wait_status(self, text):
        harness.wait_for(f"status {text!r}", lambda: self.status == text)

    def rows(self):
        """The history's rows, each as the list of its texts."""
        text = self.machine.ask("rows", "class=qvapp")
        return [row.split("\t") for row in (text or "").splitlines()]

    def wait_rows(self, count):
        harness.wait_for(f"{count} rows", lambda: len(self.rows()) == count)
        return self.rows()

    def in_front(self):
        return (self.machine.ask("front") or "").split("\t")

    def wait_in_front(self, class_name):
        harness.wait_for(f"{class_name} in front", lambda: self.in_front()[0] == class_name)

    def is_idle(self):
        button = self.control(CONNECT)
        return button.enabled and button.text == "Connect"

    def wait_idle(self):
        harness.wait_for("the Connect button", self.is_idle)

    # ----------------------------------------------------------------- its files

    @property
    def info(self):
        """host.txt as a dictionary."""
        text = (self.machine.data_dir / "host.txt").read_text(encoding="latin-1")
        return dict(line.split("=", 1) for line in text.splitlines())

    @property
    def log(self):
        return (self.machine.data_dir / "qv_server.log").read_text(encoding="latin-1")

    # ----------------------------------------------------------------- hands

    def click_at(self, x, y, button=1, times=1):
        self.screen.xdotool("mousemove", x, y)
        self.screen.xdotool("click", "--repeat", times, "--delay", 60, button)

    def click(self, number, window="class=qvapp", times=1):
        left, top, right, bottom = self.control(number, window).place
        self.click_at((left + right) // 2, (top + bottom) // 2, times=times)

    def click_row(self, index, times=1):
        left, top, _, _ = self.control(HISTORY).place
        self.click_at(left + 40, top + 20 + 14 * index + 7, times=times)

    def key(self, *keys):
        self.screen.xdotool("key", "--delay", 30, *keys)

    def type(self, text):
        self.screen.xdotool("type", "--delay", 15, text)

    def fill(self, number, text):
        """Puts a text in place of what a field holds."""
        self.click(number)
        self.key("Home", "shift+End", "BackSpace")
        if text:
            self.type(text)
        harness.wait_for(f"{text!r} in field {number}",
                         lambda: self.control(number).text == text)

    def connect(self, target, password):
        self.fill(TARGET, target)
        self.fill(PASSWORD, password)
        self.click(CONNECT)

    def caption_button(self, from_right):
        """Clicks into the title bar: 1 is the close box, 3 the one that minimises."""
        _, top, right, _ = self.wait_shown().frame
        self.click_at(right - 13 - 17 * (from_right - 1), top + 12)

    def close(self):
        self.caption_button(1)

    def minimise(self):
        self.caption_button(3)

    # ----------------------------------------------------------------- tray

    def tray_point(self):
        # Without Wine's desktop and its task bar, the tray is a window.
        tray = self.machine.window("Wine System Tray")
        if tray:
            return tray.client[0] + 10, tray.client[1] + 10
        return self.screen.width - 11, self.screen.height - 10

    def tray_is_empty(self):
        """Whether there is nothing in the tray but its background."""
        x, y = self.tray_point()
        part = self.screen.shot()[y - 7:y + 7, x - 7:x + 7]
        return bool((part == part[0, 0]).all())

    def tray_calls(self):
        """What the program has asked of the shell for its icon so far (NIM_...)."""
        return [int(call) for call in re.findall(r"Shell_NotifyIconW dwMessage = (\d+),",
                                                 self.program.output)]

    def click_tray(self, button=1, times=1):
        self.click_at(*self.tray_point(), button, times)

    def tray_menu(self):
        """Opens the tray's menu. Returns its window."""
        self.click_tray(3)
        return self.machine.wait_window(class_name=MENU)

    def choose(self, first):
        """Chooses the first or else the last entry of the tray's menu."""
        left, top, _, bottom = self.tray_menu().frame
        self.click_at(left + 30, top + 11 if first else bottom - 11)

    def balloon(self):
        return self.machine.window(class_name="tooltips_class32")

    def exit(self):
        """Ends the program by the tray's menu. Returns its exit status."""
        self.choose(first=False)
        return self.program.wait()

    # ----------------------------------------------------------------- boxes

    def wait_box(self, caption):
        """Waits for a message box. Returns its text."""
        self.machine.wait_window(caption, MESSAGE_BOX)
        texts = [c.text for c in self.controls(f"class={MESSAGE_BOX}")
                 if c.class_name == "Static" and c.text]
        if len(texts) != 1:
            raise harness.Failure(f"a box with the texts {texts}")
        return texts[0]

    def boxes(self):
        lines = (self.machine.ask("list") or "").splitlines()
        return [line for line in lines if line.startswith(MESSAGE_BOX + "\t")]

    def close_box(self):
        buttons = [c for c in self.controls(f"class={MESSAGE_BOX}") if c.class_name == "Button"]
        left, top, right, bottom = buttons[0].place
        self.click_at((left + right) // 2, (top + bottom) // 2)
        harness.wait_for("the box to go", lambda: not self.boxes())

    def wait_dialog(self, title):
        return self.machine.wait_window(title, "qvinput")

    def dialog_text(self):
        return [c.text for c in self.controls("class=qvinput") if c.class_name == "Edit"][0]

    def wait_no_dialog(self):
        harness.wait_for("the dialog to go",
                         lambda: self.machine.window(class_name="qvinput") is None)

    # ----------------------------------------------------------------- sessions

    def viewer_window(self):
        return self.machine.window(class_name="qvviewer")

    def wait_viewer(self):
        return self.machine.wait_window(class_name="qvviewer")

    def close_viewer(self):
        if self.machine.ask("post", "class=qvviewer", 0x0010, 0) is None:  # WM_CLOSE
            raise harness.Failure("there is no viewer window to close")
        self.wait_idle()


def history_path(machine):
    """Where the history is; the folder is made."""
    users = [folder for folder in (machine.drive_c / "users").iterdir()
             if folder.name != "Public"]
    folder = users[0] / "AppData/Local/qv"
    folder.mkdir(parents=True, exist_ok=True)
    return folder / "history.txt"


def clipboard(machine):
    """What the X server has for whoever pastes."""
    done = subprocess.run(["xclip", "-o", "-selection", "clipboard"],
                          env=machine.screen.environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=20)
    return done.stdout.decode("latin-1") if done.returncode == 0 else None


def pause(seconds):
    """For what must not happen: the time in which it would."""
    time.sleep(seconds)
