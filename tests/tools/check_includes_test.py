#!/usr/bin/python3
"""tools/check_includes on small trees: what it lets pass, and each thing it complains about."""

import pathlib
import subprocess
import tempfile
import unittest

CHECK = pathlib.Path(__file__).resolve().parent.parent.parent / "tools/check_includes"

SOUND = {
    "protocol/bytes.h": "#include <stdint.h>\n",
    "protocol/win32.h": "#include <windows.h>\n",
    "protocol/net.h": "",
    "protocol/net_win32.cpp": '#include "protocol/net.h"\n#include "protocol/win32.h"\n'
                              "#include <mstcpip.h>\n",
    "identity/data_dir.h": "#include <atomic>\n",
    "identity/data_dir.cpp": '// A comment.\n\n#include "identity/data_dir.h"\n'
                             '#include "protocol/bytes.h"\n#include <monocypher.h>\n',
    "host/lz4_block.h": "",
    "host/screen.h": '#include "identity/data_dir.h"\n',
    "host/screen.cpp": '#include "host/screen.h"\n#include "protocol/bytes.h"\n',
    "host/screen_size_win32.cpp": '#include "host/screen.h"\n',
    "host/host_main_win32.cpp": '#include <stdio.h>\n#include "protocol/win32.h"\n',
    "viewer/frame_decode.h": '#include "host/lz4_block.h"\n#include "protocol/bytes.h"\n',
    "viewer/viewer_cli.h": "",
    "viewer/viewer_cli.cpp": '#include "viewer/viewer_cli.h"\n#include "identity/data_dir.h"\n',
    "relay/server.h": '#include "protocol/relay_hello.h"\n',
    "relay/server.cpp": '#include "relay/server.h"\n#include <asio/read.hpp>\n'
                        "#include <netinet/tcp.h>\n",
    "relay/accept_win32.cpp": '#include "protocol/win32.h"\n#include <mswsock.h>\n',
    "app/main.cpp": '#include "viewer/frame_decode.h"\n#include "host/screen.h"\n',
}


class CheckIncludesTest(unittest.TestCase):
    def run_on(self, files):
        """Returns (status, lines) of the check on a tree of these files."""
        with tempfile.TemporaryDirectory() as root:
            for name, text in files.items():
                path = pathlib.Path(root, name)
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text)
            done = subprocess.run([CHECK, root], capture_output=True, text=True, check=False)
            return done.returncode, done.stdout.splitlines()

    def complaint(self, name, text):
        """The only line printed when this file is put into the sound tree."""
        status, lines = self.run_on({**SOUND, name: text})
        self.assertEqual(status, 1, lines)
        self.assertEqual(len(lines), 1, lines)
        return lines[0]

    def test_a_sound_tree_passes(self):
        self.assertEqual(self.run_on(SOUND), (0, []))

    def test_nothing_to_check_is_no_pass(self):
        self.assertEqual(self.run_on({"docs/x.h": ""}), (2, []))

    def test_includes_point_one_way(self):
        for user, used in [
            ("protocol", "identity/data_dir.h"), ("protocol", "host/screen.h"),
            ("protocol", "viewer/frame_decode.h"), ("identity", "host/screen.h"),
            ("identity", "viewer/frame_decode.h"), ("host", "viewer/frame_decode.h"),
            ("host", "app/main.h"), ("viewer", "host/screen.h"), ("viewer", "app/main.h"),
            ("viewer", "identity/data_dir.h"), ("relay", "host/lz4_block.h"),
        ]:
            with self.subTest(user=user, used=used):
                self.assertEqual(self.complaint(f"{user}/new.h", f'\n#include "{used}"\n'),
                                 f"{user}/new.h:2: {user}/ may not use {used}")

    def test_the_exceptions_are_single_files(self):
        self.assertEqual(
            self.complaint("viewer/viewer_cli.cpp",
                           '#include "viewer/viewer_cli.h"\n#include "host/screen.h"\n'),
            "viewer/viewer_cli.cpp:2: viewer/ may not use host/screen.h")
        self.assertEqual(
            self.complaint("viewer/viewer_cli2.h", '#include "identity/data_dir.h"\n'),
            "viewer/viewer_cli2.h:1: viewer/ may not use identity/data_dir.h")

    def test_only_edges_see_windows(self):
        for text in ('#include "protocol/win32.h"', "#include <windows.h>",
                     "  #  include  <winsock2.h>", "#include <sys/socket.h>"):
            for name, first in (("host/screen.cpp", '#include "host/screen.h"\n'),
                                ("host/new.h", "\n"), ("host/new_win32.h", "\n")):
                with self.subTest(text=text, name=name):
                    line = self.complaint(name, first + text + "\n")
                    self.assertTrue(line.startswith(f"{name}:2: "), line)
                    self.assertTrue(line.endswith(" outside a Windows edge (*_win32.cpp)"), line)

    def test_a_file_includes_its_own_header_first(self):
        for name in ("host/screen.cpp", "host/screen_win32.cpp"):
            self.assertEqual(
                self.complaint(name, '// x\n#include "protocol/bytes.h"\n'
                                     '#include "host/screen.h"\n'),
                f"{name}:2: its own header, host/screen.h, is not included first")
            self.assertEqual(
                self.complaint(name, "#include <stdint.h>\n"),
                f"{name}:1: its own header, host/screen.h, is not included first")
            self.assertEqual(
                self.complaint(name, "int x;\n"),
                f"{name}:1: its own header, host/screen.h, is not included first")

    def test_a_file_without_a_header_begins_with_one_of_its_folder(self):
        self.assertEqual(
            self.complaint("host/new_win32.cpp", '#include "protocol/win32.h"\n'),
            "host/new_win32.cpp:1: the header that it implements, in host/, is not included "
            "first")
        self.assertEqual(
            self.complaint("relay/new.cpp", "#include <asio/read.hpp>\n"),
            "relay/new.cpp:1: the header that it implements, in relay/, is not included first")

    def test_paths_start_at_the_top(self):
        for text in ('"screen.h"', '"../host/screen.h"', '"host/../identity/data_dir.h"',
                     '"elsewhere/x.h"'):
            self.assertEqual(self.complaint("host/new.h", f"#include {text}\n"),
                             f"host/new.h:1: {text} is not a path from the top of the tree")

    def test_an_include_by_macro_is_refused(self):
        self.assertEqual(self.complaint("host/new.h", "#include NAME\n"),
                         "host/new.h:1: an include that cannot be checked: NAME")

    def test_every_violation_has_its_line(self):
        status, lines = self.run_on({**SOUND, "host/new.h": '#include "app/a.h"\n'
                                                            "#include <windows.h>\n"})
        self.assertEqual(status, 1)
        self.assertEqual([line.split(" ")[0] for line in lines],
                         ["host/new.h:1:", "host/new.h:2:"])


unittest.main()
