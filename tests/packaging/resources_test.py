#!/usr/bin/python3
"""What Explorer and Windows' loader read out of the programs: icon, version, manifest.

    tests/packaging/resources_test.py PROGRAM.exe...
"""

import io
import pathlib
import re
import runpy
import struct
import sys
import unittest
import xml.etree.ElementTree

import numpy
import pefile
import PIL.Image

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
RT_ICON, RT_GROUP_ICON, RT_VERSION, RT_MANIFEST = 3, 14, 16, 24
ENGLISH = 0x0409
DESCRIPTIONS = {"qv": "qv remote desktop", "qv_host": "qv host", "qv_client": "qv viewer"}
# The sizes that Explorer and the task bar ask for between 100 % and 250 %, and the large ones.
SIZES = [16, 20, 24, 32, 40, 48, 64, 128, 256]
programs = []


def resources(image):
    """{type: {number: bytes}}; each is expected in one language only."""
    found = {}
    for kind in image.DIRECTORY_ENTRY_RESOURCE.entries:
        for item in kind.directory.entries:
            (language,) = item.directory.entries
            where = language.data.struct
            assert language.id == ENGLISH
            found.setdefault(kind.id, {})[item.id] = image.get_data(where.OffsetToData,
                                                                    where.Size)
    return found


def group_members(group):
    """[(width, height, bits, size of the image, its number)] of an icon's directory."""
    reserved, kind, count = struct.unpack_from("<HHH", group)
    assert (reserved, kind) == (0, 1) and len(group) == 6 + 14 * count
    members = []
    for index in range(count):
        width, height, _, _, planes, bits, size, number = struct.unpack_from(
            "<BBBBHHIH", group, 6 + 14 * index)
        assert planes == 1
        members.append((width or 256, height or 256, bits, size, number))
    return members


def decode_icon(data):
    """Rows x columns x (red, green, blue, alpha) of one image, by the layout of the formats."""
    if data.startswith(b"\x89PNG"):
        return numpy.array(PIL.Image.open(io.BytesIO(data)).convert("RGBA"))
    size, width, height, planes, bits, packing = struct.unpack_from("<IiiHHI", data)
    assert (size, planes, bits, packing) == (40, 1, 32, 0)
    height //= 2  # pictures and mask
    mask_row = (width + 31) // 32 * 4
    assert len(data) == 40 + 4 * width * height + mask_row * height
    pixels = numpy.frombuffer(data, numpy.uint8, 4 * width * height, 40)
    mask = numpy.frombuffer(data, numpy.uint8, mask_row * height, 40 + 4 * width * height)
    mask = numpy.unpackbits(mask.reshape(height, mask_row), axis=1)[::-1, :width]
    picture = pixels.reshape(height, width, 4)[::-1][:, :, [2, 1, 0, 3]]
    # Where alpha is not looked at, what is masked stays untouched.
    assert ((mask == 1) == (picture[:, :, 3] == 0)).all()
    return picture


class ResourcesTest(unittest.TestCase):
    def each_program(self):
        self.assertGreaterEqual(len(programs), 2)
        for path in programs:
            yield path.stem, pefile.PE(path)

    def test_the_icon_is_the_drawn_one_in_every_size(self):
        drawing = runpy.run_path(str(ROOT / "app/resources/draw_icon"))
        self.assertEqual(drawing["SIZES"], SIZES)
        for _, image in self.each_program():
            found = resources(image)
            (group,) = found[RT_GROUP_ICON].values()
            members = group_members(group)
            self.assertEqual([member[0] for member in members], SIZES)
            for width, height, bits, size, number in members:
                data = found[RT_ICON][number]
                self.assertEqual((height, bits, size), (width, 32, len(data)))
                picture = decode_icon(data)
                self.assertEqual(picture.shape, (height, width, 4))
                drawn = numpy.array(drawing["draw"](width))
                # Another version of the drawing library may round otherwise.
                unlike = numpy.abs(picture.astype(int) - drawn).mean()
                self.assertLess(unlike, 1.0, f"{width} x {height}: draw_icon draws another")

    def test_every_size_can_be_made_out(self):
        drawing = runpy.run_path(str(ROOT / "app/resources/draw_icon"))
        found = resources(pefile.PE(programs[0]))
        (group,) = found[RT_GROUP_ICON].values()
        for width, height, _, _, number in group_members(group):
            with self.subTest(width):
                picture = decode_icon(found[RT_ICON][number])
                alpha = picture[:, :, 3]
                self.assertEqual(alpha[-1, 0], 0, "the lower left corner is clear")
                self.assertEqual(alpha[height // 3, width // 3], 255)
                for colour in [drawing["FRAME"], drawing["CHANGED"], drawing["POINTER"]]:
                    same = (picture == [*colour, 255]).all(axis=2).sum()
                    self.assertGreater(same, width * height // 100, colour)

    def test_versions_name_the_program(self):
        version = re.search(r"^project\(qv VERSION (\d+)\.(\d+)\.(\d+) ",
                            (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
        major, minor, patch = map(int, version.groups())
        text = f"{major}.{minor}.{patch}"
        for name, image in self.each_program():
            (fixed,) = image.VS_FIXEDFILEINFO
            for high, low in [(fixed.FileVersionMS, fixed.FileVersionLS),
                              (fixed.ProductVersionMS, fixed.ProductVersionLS)]:
                self.assertEqual((high, low), (major << 16 | minor, patch << 16))
            strings = {}
            for part in image.FileInfo[0]:
                for table in getattr(part, "StringTable", []):
                    self.assertEqual(table.LangID, b"040904B0")
                    strings.update((key.decode(), value.decode())
                                   for key, value in table.entries.items())
            self.assertEqual(strings, {
                "FileDescription": DESCRIPTIONS[name], "FileVersion": text,
                "InternalName": name, "OriginalFilename": f"{name}.exe",
                "ProductName": "qv", "ProductVersion": text})

    def test_the_manifest_asks_for_no_rights_and_new_controls(self):
        for _, image in self.each_program():
            (manifest,) = resources(image)[RT_MANIFEST].values()
            tree = xml.etree.ElementTree.fromstring(manifest)
            elements = {}
            for element in tree.iter():
                elements.setdefault(element.tag.split("}")[1], []).append(element.attrib)
            self.assertEqual(elements["requestedExecutionLevel"],
                             [{"level": "asInvoker", "uiAccess": "false"}])
            (controls,) = elements["assemblyIdentity"]
            self.assertEqual(controls, {
                "type": "win32", "name": "Microsoft.Windows.Common-Controls",
                "version": "6.0.0.0", "processorArchitecture": "amd64",
                "publicKeyToken": "6595b64144ccf1df", "language": "*"})
            # Dots per inch are set by a call, and text stays in the system's code page.
            for absent in ("dpiAware", "dpiAwareness", "activeCodePage", "autoElevate"):
                self.assertNotIn(absent, elements)

    def test_no_time_of_building_is_told(self):
        for _, image in self.each_program():
            self.assertEqual(image.FILE_HEADER.TimeDateStamp, 0)
            self.assertEqual(image.OPTIONAL_HEADER.CheckSum, image.generate_checksum())

    def test_the_application_has_no_console(self):
        gui, console = 2, 3
        for name, image in self.each_program():
            self.assertEqual(image.OPTIONAL_HEADER.Subsystem, gui if name == "qv" else console)


if __name__ == "__main__":
    programs += [pathlib.Path(path) for path in sys.argv[1:] if path.endswith(".exe")]
    unittest.main(argv=[arg for arg in sys.argv if not arg.endswith(".exe")])
