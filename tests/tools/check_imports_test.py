#!/usr/bin/python3
"""tools/check_imports on small programs: what it lets pass, and each thing it complains about."""

import pathlib
import struct
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
CHECK = ROOT / "tools/check_imports"
TOOL = "x86_64-w64-mingw32-"

SOUND = "int main(void) { return 0; }"


class CheckImportsTest(unittest.TestCase):
    def setUp(self):
        held = tempfile.TemporaryDirectory()
        self.addCleanup(held.cleanup)
        self.directory = pathlib.Path(held.name)

    def build(self, text, *libraries, manifest=True):
        program, compiled = self.directory / "program.exe", self.directory / "resources.o"
        objects = []
        if manifest:
            subprocess.run([TOOL + "windres", "--include-dir", ROOT, "-O", "coff", "-o", compiled], text=True,
                           input='1 24 "app/resources/qv.manifest"\n', check=True)
            objects.append(compiled)
        subprocess.run([TOOL + "gcc-posix", "-s", "-static", "-o", program, *objects, "-xc", "-",
                        "-xnone"] + [f"-l{library}" for library in libraries],
                       input=text, text=True, check=True)
        return program

    def check(self, program):
        done = subprocess.run([CHECK, program], capture_output=True, text=True, check=False)
        return done.returncode, done.stderr

    def test_known_libraries_pass(self):
        text = "int GetTickCount(void); int socket(int, int, int);\n" \
               "int main(void) { return socket(1, 1, GetTickCount()); }"
        self.assertEqual(self.check(self.build(text, "ws2_32")), (0, ""))

    def test_libraries_that_a_file_beside_the_program_replaces_are_named(self):
        for library, function in [("bcrypt", "BCryptGenRandom"), ("winmm", "timeBeginPeriod"),
                                  ("dwmapi", "DwmFlush"), ("d3d11", "D3D11CreateDevice"),
                                  ("dxgi", "CreateDXGIFactory1"),
                                  ("comctl32", "InitCommonControls"),
                                  ("version", "VerQueryValueA"),
                                  ("iphlpapi", "GetNumberOfInterfaces")]:
            with self.subTest(library):
                text = f"int {function}(void); int main(void) {{ return {function}(); }}"
                program = self.build(text, library)
                self.assertEqual(self.check(program), (
                    1, f"{program}: imports {library}.dll, which is no known DLL\n"))

    def test_delayed_imports_are_found(self):
        program = self.build(SOUND)
        bytes_of = bytearray(program.read_bytes())
        headers = int.from_bytes(bytes_of[60:64], "little")
        # After signature and file header: 112 bytes, then 8 for each directory.
        struct.pack_into("<II", bytes_of, headers + 4 + 20 + 112 + 13 * 8, 0x1000, 0x40)
        program.write_bytes(bytes_of)
        self.assertEqual(self.check(program), (1, f"{program}: has delayed imports\n"))

    def test_a_program_without_a_manifest_is_found(self):
        program = self.build(SOUND, manifest=False)
        self.assertEqual(self.check(program), (1, f"{program}: has no manifest\n"))

    def test_the_directory_it_was_built_in_is_found(self):
        text = f'const char *volatile where = "{ROOT}/x"; int main(void) {{ return *where; }}'
        program = self.build(text)
        self.assertEqual(self.check(program),
                         (1, f"{program}: names the directory it was built in\n"))

    def test_what_is_no_program_does_not_pass(self):
        program = self.directory / "program.exe"
        program.write_text(SOUND)
        self.assertNotEqual(self.check(program)[0], 0)


if __name__ == "__main__":
    unittest.main()
