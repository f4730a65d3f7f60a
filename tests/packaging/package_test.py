#!/usr/bin/python3
"""What `make package` makes, without installing it: contents, terms, sums, the bill of
materials, the same bytes twice; and that the lowest Windows is found from the functions."""

import hashlib
import importlib.machinery
import importlib.util
import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest
import zipfile

import jsonschema
import pefile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SCHEMA = ROOT / "build/deps/cyclonedx"
COMPILER = "x86_64-w64-mingw32-gcc-posix"
PROGRAMS = ["qv.exe", "qv_client.exe", "qv_host.exe"]
EPOCH = 1600000000  # 2020-09-13 12:26:40 UTC
WHEN = (2020, 9, 13, 12, 26, 40)
CRT_OF_LINUX = "/usr/lib/x86_64-linux-gnu/crt1.o"


def load_tool(name):
    loader = importlib.machinery.SourceFileLoader(name, str(ROOT / "tools" / name))
    tool = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    loader.exec_module(tool)
    return tool


def make_package(output, **environment):
    subprocess.run([ROOT / "tools/package", "--output", output], check=True,
                   env=dict(os.environ, SOURCE_DATE_EPOCH=str(EPOCH), **environment),
                   stdout=subprocess.DEVNULL)


class PackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        held = tempfile.TemporaryDirectory()
        cls.addClassCleanup(held.cleanup)
        cls.folder = pathlib.Path(held.name)
        cls.first = cls.folder / "first"
        make_package(cls.first)
        text = (ROOT / "CMakeLists.txt").read_text()
        cls.version = re.search(r"^project\(qv VERSION (\S+) ", text, re.MULTILINE)[1]
        base = f"qv-{cls.version}"
        cls.archive = cls.first / f"{base}-windows-x64.zip"
        cls.installer = cls.first / f"{base}-windows-x64-setup.exe"
        cls.bill = cls.first / f"{base}.cdx.json"

    def test_the_same_input_gives_the_same_bytes(self):
        # Made elsewhere, later, in another time zone, by somebody with other habits.
        temporary = self.folder / "a place with another name"
        temporary.mkdir()
        habit = os.umask(0o077)
        try:
            make_package(self.folder / "second", TZ="Pacific/Auckland", LC_ALL="C",
                         TMPDIR=str(temporary))
        finally:
            os.umask(habit)
        names = sorted(path.name for path in self.first.iterdir())
        self.assertEqual(names, sorted([self.archive.name, self.installer.name,
                                        self.bill.name, "SHA256SUMS"]))
        for name in names:
            self.assertEqual((self.first / name).read_bytes(),
                             (self.folder / "second" / name).read_bytes(), name)

    def test_sums_are_those_of_the_files(self):
        done = subprocess.run(["sha256sum", "--check", "--strict", "SHA256SUMS"],
                              cwd=self.first, stdout=subprocess.PIPE, text=True, check=True)
        self.assertEqual(done.stdout.splitlines(), [
            f"{path.name}: OK" for path in (self.archive, self.installer, self.bill)])

    def test_the_archive_holds_programs_terms_and_a_text(self):
        with zipfile.ZipFile(self.archive) as archive:
            self.assertIsNone(archive.testzip())
            held = {entry.filename: archive.read(entry) for entry in archive.infolist()}
            for entry in archive.infolist():
                self.assertEqual(entry.date_time, WHEN)
        top = f"qv-{self.version}/"
        licenses = ["gcc-runtime", "gpl-3", "mingw-w64", "monocypher", "nsis"]
        self.assertEqual(sorted(held), sorted(
            [top + "README.txt"] + [top + name for name in PROGRAMS] +
            [f"{top}licenses/{name}.txt" for name in licenses]))
        for name in PROGRAMS:
            self.assertEqual(held[top + name], (ROOT / "build/windows" / name).read_bytes())
        for name, phrase in [("gcc-runtime", b"GCC RUNTIME LIBRARY EXCEPTION"),
                             ("gpl-3", b"GNU GENERAL PUBLIC LICENSE"),
                             ("mingw-w64", b"the mingw-w64 project"),
                             ("monocypher", b"Loup Vaillant"), ("nsis", b"zlib")]:
            text = held[f"{top}licenses/{name}.txt"]
            self.assertIn(phrase, text)
            self.assertEqual(text.count(b"\n"), text.count(b"\r\n"))
        readme = held[top + "README.txt"]
        self.assertTrue(readme.startswith(f"qv {self.version}\r\n".encode()))
        self.assertNotRegex(readme, rb"@\w+@")

    def test_the_installer_is_of_64_bits_and_asks_for_rights(self):
        image = pefile.PE(self.installer)
        amd64 = 0x8664
        self.assertEqual(image.FILE_HEADER.Machine, amd64)
        data = self.installer.read_bytes()
        self.assertIn(b'requestedExecutionLevel level="requireAdministrator"', data)
        (fixed,) = image.VS_FIXEDFILEINFO
        major, minor, patch = map(int, self.version.split("."))
        self.assertEqual((fixed.ProductVersionMS, fixed.ProductVersionLS),
                         (major << 16 | minor, patch << 16))

    def test_the_bill_of_materials_is_valid_and_whole(self):
        bill = json.loads(self.bill.read_text())
        schemas = {path.name.replace(".SNAPSHOT", ""): json.loads(path.read_text())
                   for path in SCHEMA.glob("*.json")}
        schema = schemas["bom-1.4.schema.json"]
        base = schema["$id"].rsplit("/", 1)[0]
        # Looked up here and nowhere else, whichever of its two names is used.
        store = {f"{base}/{name}": other for name, other in schemas.items()}
        store |= {f"{base}/{name.replace('.schema', '.SNAPSHOT.schema')}": other
                  for name, other in schemas.items()}
        resolver = jsonschema.RefResolver(schema["$id"], schema, store=store)
        jsonschema.Draft7Validator(schema, resolver=resolver).validate(bill)
        broken = dict(bill, components=[{"type": "unheard of", "name": "x"}])
        with self.assertRaises(jsonschema.ValidationError):
            jsonschema.Draft7Validator(schema, resolver=resolver).validate(broken)

        self.assertEqual(bill["metadata"]["timestamp"], "2020-09-13T12:26:40Z")
        entries = {entry["bom-ref"]: entry for entry in bill["components"]}
        needs = {entry["ref"]: entry["dependsOn"] for entry in bill["dependencies"]}
        self.assertEqual(set(needs) - {f"qv@{self.version}"}, set(entries))
        for names in needs.values():
            self.assertLessEqual(set(names), set(entries))
        for path in [self.archive, self.installer] + [ROOT / "build/windows" / name
                                                      for name in PROGRAMS]:
            (found,) = entries[path.name]["hashes"]
            self.assertEqual(found, {"alg": "SHA-256", "content": hashlib.sha256(
                path.read_bytes()).hexdigest()})
        for name in PROGRAMS:
            self.assertEqual(sorted(entries[reference]["name"] for reference in needs[name]), [
                "g++-mingw-w64-x86-64-posix", "gcc-mingw-w64-x86-64-posix",
                "mingw-w64-x86-64-dev", "monocypher"])

    def test_a_library_of_unknown_terms_stops_it(self):
        package = load_tool("package")
        map_text = (ROOT / "build/mingw-release/maps/qv.map").read_text()
        self.assertIn("libmonocypher.a", package.linked_files(map_text))
        with self.assertRaisesRegex(package.Failure, "of libc6-dev, whose terms"):
            package.components({"qv": f"{map_text}\nLOAD {CRT_OF_LINUX}\n"})
        with self.assertRaisesRegex(package.Failure, "could not be read"):
            package.components({"qv": ""})

    def test_a_library_of_which_nothing_was_taken_is_left_out(self):
        package = load_tool("package")
        self.assertEqual(package.linked_files(
            "Archive member included to satisfy reference by file (symbol)\n\n"
            "/lib/liba.a(one.o)\n                              main.obj (one)\n"
            "Discarded input sections\n\n"
            " .text          0x0000        0x0 /lib/libb.a(two.o)\n"
            "Linker script and memory map\n\n"
            "LOAD main.obj\nLOAD /lib/liba.a\nLOAD /lib/libb.a\n"),
            ["/lib/liba.a", "main.obj"])


class WindowsMinimumTest(unittest.TestCase):
    def setUp(self):
        held = tempfile.TemporaryDirectory()
        self.addCleanup(held.cleanup)
        self.folder = pathlib.Path(held.name)
        self.tool = load_tool("windows_minimum")

    def program(self, function):
        path = self.folder / f"{function}.exe"
        subprocess.run([COMPILER, "-nostdlib", "-Wl,-e,start", "-o", path, "-xc", "-", "-xnone",
                        "-lkernel32"], check=True, text=True,
                       input=f"int {function}(void);\n"
                             f"int start(void) {{ return {function}(); }}")
        return path

    def minimum(self, programs, *texts):
        sources = []
        for number, text in enumerate(texts):
            sources.append(self.folder / f"{number}.cpp")
            sources[-1].write_text(text)
        return self.tool.minimum(programs, sources, self.tool.read_table())

    def test_the_newest_function_decides(self):
        for function, version in [("GetTickCount", "xp"), ("GetTickCount64", "vista")]:
            with self.subTest(function):
                self.assertEqual(self.minimum([self.program(function)]),
                                 (version, [f"kernel32.dll {function}"], []))

    def test_what_is_looked_up_counts_when_it_is_needed(self):
        programs = [self.program("GetTickCount")]
        needed = 'x = (t)system_library_function(\n    L"bcrypt.dll", "BCryptGenRandom");'
        spared = 'x = (t)system_library_function(L"d3d11.dll", "D3D11CreateDevice");' \
                 'y = GetProcAddress(module, "SetDefaultDllDirectories");'
        self.assertEqual(self.minimum(programs, spared)[0], "xp")
        self.assertEqual(self.minimum(programs, spared, needed)[:2],
                         ("7", ["bcrypt.dll BCryptGenRandom"]))

    def test_functions_that_the_table_does_not_have_are_named(self):
        _, _, complaints = self.minimum(
            [self.program("GetTickCount"), self.program("GetSystemTimePreciseAsFileTime")],
            'x = system_library_function(L"shcore.dll", "SetProcessDpiAwareness");')
        self.assertEqual(len(complaints), 2, complaints)
        self.assertIn("imports GetSystemTimePreciseAsFileTime of kernel32.dll", complaints[0])
        self.assertIn("looks up SetProcessDpiAwareness", complaints[1])

    def test_readme_and_code_tell_the_same(self):
        done = subprocess.run([ROOT / "tools/windows_minimum"] +
                              [ROOT / "build/windows" / name for name in PROGRAMS],
                              stdout=subprocess.PIPE, text=True, check=True)
        name = load_tool("package").WINDOWS[done.stdout.split()[0]]
        self.assertIn(name, " ".join((ROOT / "README.md").read_text().split()))


if __name__ == "__main__":
    unittest.main()
