#!/usr/bin/python3
"""Screen capture's edges where there is a screen and a renderer."""

import harness

PASSED = r"test cases: +[1-9][0-9]* \| +[1-9][0-9]* passed \| +0 failed"


class CaptureTest(harness.E2ETest):
    def test_frames_of_a_duplication_double_are_captured_to_the_pixel(self):
        machine = self.machine("one", 800, 600)
        status, output = machine.run(harness.PROBES / "duplication_test.exe", seconds=250)
        self.assertEqual(status, 0, output)
        self.assertRegex(output, PASSED)

    def test_gdi_copies_a_screen_of_no_whole_tiles(self):
        machine = self.machine("one", 1366, 768)
        program = harness.PROBES.parent / "capture_win32_test.exe"
        status, output = machine.run(program, seconds=250)
        self.assertEqual(status, 0, output)
        self.assertRegex(output, PASSED)


if __name__ == "__main__":
    harness.main()
