"""What the end-to-end tests stand on: screens, Wine prefixes, and the two programs.

A test class runs in a process of its own (main() below), inside a network namespace where
one exists: the host's port is a constant, and an X server's socket is found by its number.
A test builds its machines, each a virtual screen with a Wine prefix, starts programs on
them, works on them with the X server's input, and looks at their screens. Whatever happens,
nothing of it is left running afterwards, and a test that leaves something behind by itself
fails.

    with nothing else:  tests/e2e/picture_test.py -v [CLASS[.test]...]

Screenshots and logs of a failed test are kept in build/e2e/<test>/.
"""

import contextlib
import ctypes
import fcntl
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

import numpy
import PIL.Image

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PROGRAMS = pathlib.Path(os.environ.get("QV_PROGRAMS", ROOT / "build/windows"))
PROBES = pathlib.Path(os.environ.get("QV_PROBES", ROOT / "build/mingw-release/tests/e2e"))
WINE_DIR = pathlib.Path(os.environ.get("QV_E2E_WINE", ROOT / "build/wine"))
KEPT_DIR = ROOT / "build/e2e"

# Limits are for machines that have more to do than this; what is waited for takes a second
# or two as a rule.
TEST_SECONDS = 300  # a test that takes longer is stopped and fails
WAIT_SECONDS = 45.0
HOST_PORT = 7777
RELAY_PORT = 7000
RELAY_HOST = "qv-relay"  # the default that the programs are built with


class Failure(AssertionError):
    """What was waited for did not happen."""


def wait_for(what, condition, seconds=WAIT_SECONDS, pause=0.05):
    """Calls condition() until it returns something true, and returns that."""
    end = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {seconds} s")
        time.sleep(pause)


# ---------------------------------------------------------------------------------------
# Namespaces
#
# The best case has namespaces for network, mounts and processes: nothing outside can be
# met, and nothing can outlive the test. Without the right to make them (a container, say),
# tests take turns behind one lock.

FULL = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
NET_ONLY = ["--net", "--mount"]
INSIDE = "QV_E2E_INSIDE"  # in the environment of the process inside: what it is inside of


def namespace_command():
    """The unshare command that works here, or None; QV_E2E_NO_NAMESPACES=1 asks for none."""
    if os.environ.get("QV_E2E_NO_NAMESPACES"):
        return None
    for flags in (FULL, NET_ONLY):
        for mapping in ([], ["--map-root-user"]):
            command = ["unshare"] + mapping + flags
            with contextlib.suppress(OSError):
                probe = subprocess.run(command + ["ip", "link", "set", "lo", "up"],
                                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL, timeout=20)
                if probe.returncode == 0:
                    return command
    return None


def enter_namespace():
    """Returns once this process may use the constant ports: after starting itself again
    inside namespaces, or with the lock held."""
    if os.environ.get(INSIDE) == "namespace":
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        # The relay's name means this machine. The mount is private to this namespace.
        hosts = WINE_DIR / f"hosts-{os.getpid()}-{time.time_ns()}"
        hosts.parent.mkdir(parents=True, exist_ok=True)
        hosts.write_text(f"127.0.0.1 localhost {RELAY_HOST}\n::1 localhost\n")
        subprocess.run(["mount", "--bind", str(hosts), "/etc/hosts"], stderr=subprocess.DEVNULL)
        hosts.unlink()
        return
    if os.environ.get(INSIDE) == "lock":
        return
    command = namespace_command()
    if command:
        environment = dict(os.environ, **{INSIDE: "namespace"})
        os.execvpe(command[0], command + [sys.executable] + sys.argv, environment)
    print("no namespaces here: waiting for this test's turn", flush=True)
    WINE_DIR.mkdir(parents=True, exist_ok=True)
    lock = os.open(WINE_DIR / "e2e.lock", os.O_CREAT | os.O_RDWR, 0o644)
    fcntl.flock(lock, fcntl.LOCK_EX)  # until this process ends
    os.environ[INSIDE] = "lock"


def relay_name_resolves():
    """Whether programs find the relay by its default name."""
    with contextlib.suppress(OSError):
        return socket.gethostbyname(RELAY_HOST) == "127.0.0.1"
    return False


# ---------------------------------------------------------------------------------------
# Processes
#
# This process adopts whatever its children leave behind (Wine's server and services leave
# their parents at once), so that a walk down from here finds every process of the test.

PR_SET_CHILD_SUBREAPER = 36


def adopt_orphans():
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def descendants():
    """{pid: command} of every live process below this one; zombies do not count."""
    parents, commands = {}, {}
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        with contextlib.suppress(OSError):
            stat = (entry / "stat").read_text(errors="replace")
            name, fields = stat[stat.index("(") + 1:stat.rindex(")")], stat[stat.rindex(")"):]
            state, parent = fields.split()[1:3]
            parents[int(entry.name)] = int(parent)
            if state not in "ZX":
                commands[int(entry.name)] = name
    found = {}
    for pid, command in commands.items():
        above = parents.get(pid)
        while above and above != os.getpid():
            above = parents.get(above)
        if above == os.getpid() and pid != os.getpid():
            found[pid] = command
    return found


def reap():
    """Collects what has ended among adopted processes."""
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0] != 0:
            pass


def end_everything():
    """Kills every process below this one. Returns the names of those that were there."""
    names = sorted(descendants().values())
    end = time.monotonic() + 10
    while True:
        left = descendants()
        if not left:
            break
        if time.monotonic() > end:
            raise Failure(f"cannot be killed: {left}")
        for pid in left:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        reap()
        time.sleep(0.02)
    reap()
    return names


class Program:
    """A started program whose output is collected line by line."""

    def __init__(self, name, command, environment, stdin=subprocess.DEVNULL,
                 stdout=subprocess.PIPE, directory=None):
        self.name = name
        self.lines = []
        self.changed = threading.Condition()
        self.process = subprocess.Popen(command, env=environment, cwd=directory, stdin=stdin,
                                        stdout=stdout, stderr=subprocess.STDOUT,
                                        start_new_session=True)
        self.reader = None
        if self.process.stdout:
            self.reader = threading.Thread(target=self._read, daemon=True)
            self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line.decode("latin-1").rstrip("\r\n"))
                self.changed.notify_all()
        self.process.stdout.close()

    @property
    def output(self):
        with self.changed:
            return "\n".join(self.lines)

    def wait_line(self, pattern, seconds=WAIT_SECONDS):
        """The first line of output that the regular expression matches whole."""
        def find():
            with self.changed:
                for line in self.lines:
                    if re.fullmatch(pattern, line):
                        return line
            return None

        try:
            return wait_for(f"{self.name}: line {pattern!r}", find, seconds)
        except Failure as failure:
            raise Failure(f"{failure}; its output:\n{self.output}") from None

    def wait(self, seconds=WAIT_SECONDS):
        """The exit status."""
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise Failure(f"{self.name}: still running after {seconds} s; its output:\n"
                          f"{self.output}") from None
        if self.reader:
            self.reader.join(5)
        return status

    def is_running(self):
        return self.process.poll() is None

    def kill(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait(10)


# ---------------------------------------------------------------------------------------
# Screens


class Screen:
    """A virtual X screen."""

    def __init__(self, width, height):
        self.width, self.height = width, height
        read_end, write_end = os.pipe()
        # Only the abstract socket, which belongs to the network namespace: nothing under
        # /tmp is touched, and displays of others cannot be met.
        self.server = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_end), "-screen", "0", f"{width}x{height}x24",
             "-nolisten", "tcp", "-nolisten", "unix", "-noreset"],
            pass_fds=[write_end], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, start_new_session=True)
        os.close(write_end)
        with os.fdopen(read_end) as number:
            self.display = ":" + number.readline().strip()
        if self.display == ":":
            raise Failure("Xvfb did not start")
        self.environment = {name: value for name, value in os.environ.items()
                            if name not in ("XAUTHORITY", "WAYLAND_DISPLAY", "SESSION_MANAGER")}
        self.environment.update(DISPLAY=self.display, LC_ALL="C.UTF-8")

    def shot(self):
        """The picture that stands on the screen: rows x columns x (red, green, blue)."""
        done = subprocess.run(["import", "-window", "root", "-depth", "8", "rgb:-"],
                              env=self.environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, timeout=20, check=True)
        pixels = numpy.frombuffer(done.stdout, numpy.uint8)
        return pixels.reshape(self.height, self.width, 3)

    def xdotool(self, *words):
        """Works the screen's mouse and keyboard."""
        subprocess.run(["xdotool"] + [str(word) for word in words], env=self.environment,
                       stdin=subprocess.DEVNULL, timeout=30, check=True)

    def close(self):
        self.server.terminate()
        try:
            self.server.wait(5)
        except subprocess.TimeoutExpired:
            self.server.kill()
            self.server.wait(5)


def save_picture(path, picture):
    PIL.Image.fromarray(picture).save(path)


def difference(left, right):
    """Describes where two pictures differ; empty when they are the same."""
    if left.shape != right.shape:
        return f"sizes differ: {left.shape[1::-1]} and {right.shape[1::-1]}"
    unlike = (left != right).any(axis=2)
    count = int(unlike.sum())
    if count == 0:
        return ""
    rows, columns = numpy.nonzero(unlike.any(axis=1))[0], numpy.nonzero(unlike.any(axis=0))[0]
    return (f"{count} pixels differ, inside x {columns[0]}..{columns[-1]}, "
            f"y {rows[0]}..{rows[-1]}")


# ---------------------------------------------------------------------------------------
# Wine

WINE_ENVIRONMENT = {
    "WINEARCH": "win64",
    "WINEDEBUG": "-all",
    "WINEDLLOVERRIDES": "mscoree=;mshtml=;winemenubuilder.exe=d;winedbg.exe=d",
}
# A Wine desktop of the screen's size: Wine then draws the frames of windows and manages the
# focus itself. The size is put in place of this one in each copy.
TEMPLATE_DESKTOP = "1111x777"
TEMPLATE_KEYS = [
    [r"HKCU\Software\Wine\Explorer", "/v", "Desktop", "/d", "Default"],
    [r"HKCU\Software\Wine\Explorer\Desktops", "/v", "Default", "/d", TEMPLATE_DESKTOP],
    [r"HKCU\Software\Wine\WineDbg", "/v", "ShowCrashDialog", "/t", "REG_DWORD", "/d", "0"],
    # A caret that blinks would keep a screen from ever coming to rest (milliseconds).
    [r"HKCU\Control Panel\Desktop", "/v", "CursorBlinkRate", "/d", "100000000"],
]

TEMPLATE_FONTS = ["marlett.ttf", "tahoma.ttf", "tahomabd.ttf"]


def wine_environment(prefix, base):
    # Programs see a home directory of their own: Wine links the user's folders to it.
    return dict(base, WINEPREFIX=str(prefix), HOME=str(prefix.parent), **WINE_ENVIRONMENT)


def wine_template():
    """A prefix to copy, made by whoever comes first. Its profile folder has the name of the
    user, who may be another one inside the namespace."""
    template = WINE_DIR / f"e2e-{os.getuid()}" / "prefix"
    ready = template.parent / "ready"
    template.parent.mkdir(parents=True, exist_ok=True)
    settings = repr((TEMPLATE_KEYS, TEMPLATE_FONTS))
    with open(template.parent / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if ready.exists() and ready.read_text() == settings:
            return template
        ready.unlink(missing_ok=True)
        shutil.rmtree(template, ignore_errors=True)
        environment = wine_environment(template, os.environ)
        environment.pop("DISPLAY", None)

        def run(*command):
            subprocess.run(command, env=environment, stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=100,
                           check=True)

        run("wineboot", "-i")
        for key in TEMPLATE_KEYS:
            run("wine", "reg", "add", *key, "/f")
        subprocess.run(["wineserver", "-k"], env=environment, timeout=30)
        subprocess.run(["wineserver", "-w"], env=environment, timeout=30)
        # Wine looks for the fonts of its own window frames here alone.
        for font in TEMPLATE_FONTS:
            with contextlib.suppress(OSError):
                shutil.copy(f"/usr/share/wine/fonts/{font}", template / "drive_c/windows/Fonts")
        ready.write_text(settings)
    return template


def copy_prefix(target, desktop):
    """A prefix of one's own in a moment: the system's files, which nobody writes to, are
    links to the template's."""
    template = wine_template()
    system = pathlib.Path("drive_c/windows")
    target.mkdir(parents=True)

    def skip(folder, names):
        return [n for n in names if pathlib.Path(folder) / n == template / system]

    shutil.copytree(template, target, symlinks=True, ignore=skip, dirs_exist_ok=True)
    shutil.copytree(template / system, target / system, symlinks=True, copy_function=os.link)
    registry = target / "user.reg"
    text = registry.read_text(encoding="latin-1")
    if desktop:
        text = text.replace(TEMPLATE_DESKTOP, desktop)
    else:
        text = text.replace('"Desktop"="Default"', "")
    registry.write_text(text, encoding="latin-1")


def run_directory(name):
    """A new directory for the machines of one test. Removes those of long ago, whose tests
    were killed."""
    runs = WINE_DIR / "run"
    runs.mkdir(parents=True, exist_ok=True)
    for old in runs.iterdir():
        with contextlib.suppress(OSError):
            if time.time() - old.stat().st_mtime > 3600:
                shutil.rmtree(old, ignore_errors=True)
    directory = runs / f"{name}-{os.getpid()}-{time.time_ns()}"
    directory.mkdir()
    return directory


class Machine:
    """A Windows computer: a screen, a Wine prefix, and the programs that run there."""

    def __init__(self, name, directory, width, height, desktop=True, screen=None):
        self.name = name
        self.directory = directory
        self.prefix = directory / name / "prefix"
        self.drive_c = self.prefix / "drive_c"
        self.data_dir = self.drive_c / "ProgramData/qv"
        self.programs = []
        copy_prefix(self.prefix, f"{width}x{height}" if desktop else None)
        self.screen = screen or Screen(width, height)
        self.environment = wine_environment(self.prefix, self.screen.environment)
        # Wine's services live as long as any program, and hold the output of the program
        # that started them open. This one keeps them up, with nothing to hold.
        tool = PROBES / "probe_tool.exe"
        self.start(tool, "stay", stdout=subprocess.DEVNULL)
        self.start(tool, "list", stdout=subprocess.DEVNULL).wait()
        wait_for(f"{name}: desktop", lambda: self.ask("metrics") == f"{width} {height}")

    def start(self, program, *arguments, **options):
        """Starts a Windows program; a bare name is one of Wine's own."""
        started = Program(pathlib.Path(program).name,
                          ["wine", str(program)] + [str(a) for a in arguments],
                          self.environment, directory=self.drive_c, **options)
        self.programs.append(started)
        return started

    def run(self, program, *arguments, seconds=WAIT_SECONDS):
        """Runs a console program to its end. Returns (status, output)."""
        started = self.start(program, *arguments)
        return started.wait(seconds), started.output

    def ask(self, *request):
        """What probe_tool answers, or None when there is no such window."""
        status, output = self.run(PROBES / "probe_tool.exe", *request)
        return output if status == 0 else None

    def window(self, title="", class_name=None):
        """The first visible window whose title begins so, as a Window, or None."""
        for line in (self.ask("list") or "").splitlines():
            found_class, frame, client, found_title = line.split("\t", 3)
            if found_title.startswith(title) and class_name in (None, found_class):
                return Window(found_class, found_title, tuple(map(int, frame.split())),
                              tuple(map(int, client.split())))
        return None

    def wait_window(self, title="", class_name=None, seconds=WAIT_SECONDS):
        return wait_for(f"{self.name}: window {title!r} {class_name or ''}",
                        lambda: self.window(title, class_name), seconds, 0.1)

    def windows_path(self, path):
        """A file of this machine as its programs name it."""
        return "C:\\" + str(path.relative_to(self.drive_c)).replace("/", "\\")

    def close(self):
        for program in self.programs:
            if program.is_running():
                program.kill()
        for flag in ("-k", "-w"):
            with contextlib.suppress(subprocess.TimeoutExpired):
                subprocess.run(["wineserver", flag], env=self.environment, timeout=WAIT_SECONDS,
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
        self.screen.close()


class Window:
    """Where a window stands on its machine's screen; rectangles are left, top, right,
    bottom."""

    def __init__(self, class_name, title, frame, client):
        self.class_name, self.title = class_name, title
        self.frame, self.client = frame, client

    @property
    def client_size(self):
        return self.client[2] - self.client[0], self.client[3] - self.client[1]

    def cut(self, picture):
        """The part of a screen's picture that shows the client area."""
        left, top, right, bottom = self.client
        return picture[top:bottom, left:right]


# ---------------------------------------------------------------------------------------
# The product's two programs


class Host:
    """qv_host running on a machine."""

    def __init__(self, machine, *arguments, program=PROGRAMS / "qv_host.exe", **options):
        self.machine = machine
        self.program = machine.start(program, *arguments, **options)
        wait_for("the host's log", lambda: self.log_has("server up "), 30)

    @property
    def log(self):
        """The lines of the log so far."""
        with contextlib.suppress(FileNotFoundError):
            text = (self.machine.data_dir / "qv_server.log").read_text(encoding="latin-1")
            return text.splitlines()
        return []

    def log_has(self, beginning):
        return any(line.startswith(beginning) for line in self.log)

    def wait_log(self, beginning, count=1, seconds=WAIT_SECONDS):
        """Waits until so many lines of the log begin so."""
        def enough():
            return sum(line.startswith(beginning) for line in self.log) >= count
        try:
            wait_for(f"{count} log lines {beginning!r}", enough, seconds)
        except Failure as failure:
            tail = "\n".join(self.log[-20:])
            raise Failure(f"{failure}; the log ends so:\n{tail}") from None

    @property
    def info(self):
        """host.txt as a dictionary."""
        text = (self.machine.data_dir / "host.txt").read_text(encoding="latin-1")
        return dict(line.split("=", 1) for line in text.splitlines())

    @property
    def password(self):
        return self.info["password"]


class Viewer:
    """qv_client running on a machine."""

    def __init__(self, machine, *arguments, program=PROGRAMS / "qv_client.exe"):
        self.machine = machine
        self.program = machine.start(program, *arguments)

    def wait_connected(self, seconds=WAIT_SECONDS):
        """Waits for the window. Returns it."""
        self.program.wait_line(r"connected to .* \(\d+x\d+\)", seconds)
        return self.machine.wait_window(class_name="qvviewer")

    def close_window(self):
        """Closes the window as its close button does."""
        wm_close = 0x0010
        if self.machine.ask("post", "class=qvviewer", wm_close, 0) is None:
            raise Failure("the viewer has no window to close")

    def window(self):
        # Asked while windows change their order, Windows may leave one out.
        try:
            return wait_for("the viewer's window",
                            lambda: self.machine.window(class_name="qvviewer"), 5)
        except Failure as failure:
            raise Failure(f"{failure}; the viewer's output:\n{self.program.output}\n"
                          f"and the windows:\n{self.machine.ask('list')}") from None

    def wait_title(self, pattern, seconds=WAIT_SECONDS):
        """Waits until the regular expression matches the title. Returns the match."""
        return wait_for(f"viewer title {pattern!r}",
                        lambda: re.fullmatch(pattern, self.window().title), seconds, 0.2)

    def shot(self):
        """What the window shows."""
        return self.window().cut(self.machine.screen.shot())

    def screen_point(self, x, y):
        """Where the point of the host's screen is on the viewer's screen; at scale 1.0 in a
        window of just that size."""
        left, top, _, _ = self.window().client
        return left + x, top + y

    def point_at(self, x, y):
        """Moves the viewer's pointer there."""
        self.machine.screen.xdotool("mousemove", *self.screen_point(x, y))

    def click(self, x, y, button=1):
        self.point_at(x, y)
        self.machine.screen.xdotool("click", button)


# ---------------------------------------------------------------------------------------
# Tests


class E2ETest(unittest.TestCase):
    """A test with machines. Its cleanup ends them, keeps what explains a failure, and fails
    the test when a process is left."""

    def run(self, result=None):
        self.result = result or self.defaultTestResult()
        return super().run(self.result)

    def setUp(self):
        self.directory = run_directory(self.id())
        self.kept = KEPT_DIR / self.id()
        self.machines = []
        signal.signal(signal.SIGALRM, self._out_of_time)
        signal.alarm(TEST_SECONDS)
        self.addCleanup(self._end)

    def _out_of_time(self, *_):
        raise Failure(f"the test took longer than {TEST_SECONDS} s")

    def _end(self):
        signal.alarm(0)
        try:
            if any(test is self for test, _ in self.result.failures + self.result.errors):
                self._keep()
            for machine in self.machines:
                machine.close()
        finally:
            left = end_everything()
            shutil.rmtree(self.directory, ignore_errors=True)
        self.assertEqual(left, [], "these processes were left running")

    def _keep(self):
        """Saves screens, logs and outputs of a failed test."""
        shutil.rmtree(self.kept, ignore_errors=True)
        self.kept.mkdir(parents=True)
        for machine in self.machines:
            with contextlib.suppress(Exception):
                save_picture(self.kept / f"{machine.name}.png", machine.screen.shot())
            for number, program in enumerate(machine.programs):
                if program.output and program.name != "probe_tool.exe":
                    name = f"{machine.name}-{number}-{program.name}.txt"
                    (self.kept / name).write_text(program.output)
            with contextlib.suppress(OSError):
                shutil.copy(machine.data_dir / "qv_server.log",
                            self.kept / f"{machine.name}-qv_server.log")
        print(f"kept: {self.kept}", flush=True)

    def machine(self, name, width=1280, height=800, desktop=True):
        machine = Machine(name, self.directory, width, height, desktop)
        self.machines.append(machine)
        return machine

    def probe_window(self, machine, title, x, y, width, height):
        """Starts a probe window. Returns the path of its log."""
        log = machine.drive_c / f"{title}.log"
        machine.start(PROBES / "probe_window.exe", title, x, y, width, height,
                      machine.windows_path(log))
        machine.wait_window(title)
        return log

    def session(self, host_size=(1280, 800), viewer_size=(1920, 1080)):
        """A host and a viewer connected to it directly."""
        host = Host(self.machine("host", *host_size))
        viewer = Viewer(self.machine("viewer", *viewer_size), "127.0.0.1", "-p", host.password)
        viewer.wait_connected()
        return host, viewer

    def animate(self, machine, title, on):
        self.assertIsNotNone(machine.ask("post", title, 0x8000, 1 if on else 0))

    def wait_same_picture(self, host, viewer, seconds=WAIT_SECONDS):
        """Waits until the viewer's window shows, at scale 1.0, the host's screen to the
        pixel, and the host's screen did not change meanwhile. Returns the picture."""
        end = time.monotonic() + seconds
        while True:
            before = host.machine.screen.shot()
            shown = viewer.shot()
            after = host.machine.screen.shot()
            unlike = difference(shown, after)
            if not unlike and not difference(before, after):
                return after
            if time.monotonic() > end:
                self.kept.mkdir(parents=True, exist_ok=True)
                raise Failure(f"the viewer's picture is not the host's: {unlike}")
            time.sleep(0.05)


def main():
    enter_namespace()
    adopt_orphans()
    result = unittest.main(warnings="ignore", exit=False).result
    if result.testsRun == 0:
        print("there is no such test", flush=True)
    sys.exit(not result.wasSuccessful() or result.testsRun == 0)


if __name__ == "__main__":  # for the build: succeeds where there are namespaces
    sys.exit(0 if namespace_command() else 1)
