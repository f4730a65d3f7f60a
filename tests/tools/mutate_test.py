#!/usr/bin/python3
"""tools/mutate --check on small trees: what a table must be like to fit the code; and how the
tool reads what a test program printed."""

import importlib.machinery
import importlib.util
import pathlib
import subprocess
import sys
import tempfile
import threading
import unittest

TOOL = pathlib.Path(__file__).resolve().parent.parent.parent / "tools/mutate"

CODE = """bool ready(int n)
{
    if (n < 0)
        return false;
    if (n > 9)
        return false;
    return true;
}
"""
ENTRY = """
: negative-is-ready
clause: a negative number is not ready
file: host/ready.cpp
tests: ready_test tsan:ready_test random:ready_test
-    if (n < 0)
-        return false;
"""


def load_tool():
    sys.dont_write_bytecode = True  # tools/ holds sources only
    loader = importlib.machinery.SourceFileLoader("mutate", str(TOOL))
    spec = importlib.util.spec_from_loader("mutate", loader)
    module = importlib.util.module_from_spec(spec)
    sys.modules["mutate"] = module
    loader.exec_module(module)
    return module


class CheckTest(unittest.TestCase):
    def run_on(self, table):
        """(status, complaints) for a tree with this table."""
        with tempfile.TemporaryDirectory() as root:
            for name, text in {"host/ready.cpp": CODE, "tests/host/ready_test.cpp": "",
                               "tools/mutations/rules.txt": table}.items():
                path = pathlib.Path(root, name)
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text)
            done = subprocess.run([TOOL, "--check", "--root", root], capture_output=True,
                                  text=True, check=False)
            return done.returncode, done.stderr

    def test_a_table_that_fits_passes(self):
        self.assertEqual(self.run_on("# what this is\n\n= Numbers\n" + ENTRY), (0, ""))

    def test_an_entry_that_does_not_fit_is_named(self):
        for old, new, complaint in [
            ("(n < 0)", "(n <= 0)", "occurs 0 times in host/ready.cpp"),
            ("-    if (n < 0)\n", "", "occurs 2 times in host/ready.cpp"),
            ("-    if (n < 0)", "-if (n < 0)", "occurs 0 times"),
            ("host/ready.cpp", "host/gone.cpp", "occurs 0 times in host/gone.cpp"),
            ("-    if (n < 0)\n-        return false;\n", "", "changes nothing"),
            ("-    if (n < 0)\n-    ", "     if (n < 0)\n     ", "changes nothing"),
            ("random:ready_test", "gone_test", "no such test program: gone_test"),
            ("tsan:", "fast:", "unknown kind of test: fast"),
            ("file: host/ready.cpp\n", "", "no line 'file:'"),
            ("clause: ", "claws: ", "not understood"),
            ("clause: ", "clause: twice\nclause: ", "not understood"),
        ]:
            with self.subTest(complaint=complaint, new=new):
                self.assertIn(old, ENTRY)
                status, complaints = self.run_on("= Numbers\n" + ENTRY.replace(old, new, 1))
                self.assertEqual(status, 2)
                self.assertIn(complaint, complaints)
                self.assertIn("rules.txt:", complaints)

    def test_every_complaint_is_made_at_once(self):
        table = "= Numbers\n" + ENTRY.replace("n < 0", "n < 1") + ENTRY.replace("ready_", "red_")
        status, complaints = self.run_on(table)
        self.assertEqual(status, 2)
        for part in ("occurs 0 times", "no such test program: red_test", "two mutations are"):
            self.assertIn(part, complaints)

    def test_an_empty_table_is_no_pass(self):
        self.assertEqual(self.run_on("# nothing\n")[0], 2)
        self.assertEqual(self.run_on("stray\n" + ENTRY)[0], 2)


class ReadingTest(unittest.TestCase):
    """Output of doctest with -d: a heading, complaints, and a duration for each case."""

    def setUp(self):
        self.tool = load_tool()

    def failure(self, output):
        return self.tool.what_failed(output, ["one holds", "two holds", "three holds"])

    def test_the_first_failed_case_is_found(self):
        output = ("TEST CASE:  one holds\n\n0.000001 s: one holds\n"
                  "TEST CASE:  two holds\n\nx.cpp:9: ERROR: CHECK( a ) is NOT correct!\n"
                  "0.2 s: two holds\nTEST CASE:  three holds\nx.cpp:9: ERROR: CHECK( b )\n")
        self.assertEqual(self.failure(output), ("two holds", ""))

    def test_a_sanitizer_names_what_it_found_in_the_case_that_runs(self):
        ended = "TEST CASE:  one holds\n0.1 s: one holds\n"
        race = "WARNING: ThreadSanitizer: data race (pid=1)\n"
        self.assertEqual(self.failure(ended + race), ("two holds", "ThreadSanitizer: data race"))
        self.assertEqual(self.failure(race + ended), ("one holds", "ThreadSanitizer: data race"))
        spoken = ended + "TEST CASE:  two holds\nMESSAGE: x\n"
        self.assertEqual(self.failure(spoken + race), ("two holds", "ThreadSanitizer: data race"))
        overflow = "==1==ERROR: AddressSanitizer: heap-buffer-overflow on address 0x1\n"
        self.assertEqual(self.failure(ended + overflow),
                         ("two holds", "AddressSanitizer: heap-buffer-overflow"))
        shift = "a.cpp:1:2: runtime error: shift exponent 64 is too large\n"
        self.assertEqual(self.failure(ended + shift),
                         ("two holds", "runtime error: shift exponent 64 is too large"))
        offset = "a.cpp:1:2: runtime error: addition of offset to 0x62d00000ac00 overflowed\n"
        self.assertEqual(self.failure(ended + offset),
                         ("two holds", "runtime error: addition of offset to 0x... overflowed"))

    def test_what_ends_without_a_word_is_told_too(self):
        self.assertEqual(self.failure("TEST CASE:  two holds\n0.1 s: two holds\n"),
                         ("three holds", "ends early"))
        leak = "TEST CASE:  three holds\n0.1 s: three holds\nERROR: LeakSanitizer: detected x\n"
        self.assertEqual(self.failure(leak), ("", "LeakSanitizer: detected"))

    def test_a_verdict_needs_a_reason(self):
        def mutation(**fields):
            return self.tool.Mutation("g", "r", "n", "w", {"tests": "a_test", **fields}, [])
        judge = self.tool.judge
        both = "a_test random:b_test"
        self.assertEqual(judge(mutation(), ["a_test: x"], ""), "caught")
        self.assertEqual(judge(mutation(), [], ""), "SURVIVED")
        self.assertEqual(judge(mutation(tests=both), ["a_test: x"], "3 sessions"), "caught")
        self.assertEqual(judge(mutation(tests=both), [], "3 sessions"), "caught")
        self.assertEqual(judge(mutation(tests=both), ["a_test: x"], ""),
                         "SURVIVED random sessions")
        self.assertEqual(judge(mutation(tests=both, form="raw"), ["a_test: x"], ""), "caught")
        self.assertEqual(judge(mutation(tests=both, form="raw"), [], ""), "SURVIVED")
        self.assertEqual(judge(mutation(equivalent="so"), [], ""), "equivalent")
        self.assertEqual(judge(mutation(equivalent="so"), ["a_test: x"], ""), "NOT EQUIVALENT")

    def test_the_session_that_breaks_is_named_and_how_many_are_played_is_passed_on(self):
        # Stands for a program of random sessions, of which the 610th breaks.
        program = ("#!/bin/sh\n[ $4 ] && exit\n[ ${QV_SEED:-610} = 610 ] || exit 0\n"
                   "[ ${QV_SEEDS:-2000} -lt 610 ] && exit\n"
                   "echo QV_SEED=610: does not hold at step 7: x\nexit 1\n")
        with tempfile.TemporaryDirectory() as root:
            for name, text in {"build/linux-asan/tests/r_test": program,
                               "tests/session/r_test.cpp": ""}.items():
                path = pathlib.Path(root, name)
                path.parent.mkdir(parents=True)
                path.write_text(text)
                path.chmod(0o755)
            for sessions, expected in (("", "610"), ("100", ""), ("2000", "610"),
                                       ("=610", "610"), ("=611", "")):
                failure, _, seed = self.tool.run_test(pathlib.Path(root), "random", "r_test", 60,
                                                      sessions)
                self.assertEqual((failure is not None, seed), (expected != "", expected))

    def test_a_program_that_hangs_is_ended_and_said_to(self):
        with tempfile.TemporaryDirectory() as root:
            for name, text in {"build/linux-asan/tests/h_test": "#!/bin/sh\n[ $4 ] && exit\n"
                               "echo 'TEST CASE:  two holds'\nexec sleep 600\n",
                               "tests/host/h_test.cpp": ""}.items():
                path = pathlib.Path(root, name)
                path.parent.mkdir(parents=True)
                path.write_text(text)
                path.chmod(0o755)
            failure, _, _ = self.tool.run_test(pathlib.Path(root), "", "h_test", 1)
        self.assertEqual(failure, ("two holds", "has not ended after 1 s"))

    def test_a_tree_has_one_mutation_at_a_time(self):
        busy, both = set(), threading.Barrier(2, timeout=60)

        def work(tree, item):
            self.assertNotIn(tree, busy)
            busy.add(tree)
            both.wait()  # the other one is in the other tree
            busy.remove(tree)
            return item * 10

        done = list(self.tool.side_by_side(["one", "two"], work, range(6)))
        self.assertEqual(sorted(done), [(item, item * 10) for item in range(6)])

    def test_results_of_other_code_do_not_count(self):
        with tempfile.TemporaryDirectory() as root:
            self.tool.ROOT = pathlib.Path(root)
            self.tool.RESULTS = pathlib.Path(root, "results.json")
            code = pathlib.Path(root, "host/x.cpp")
            code.parent.mkdir()
            code.write_text("old")
            known = self.tool.load_results()
            known["results"]["x"] = {"verdict": "caught"}
            self.tool.save_json(self.tool.RESULTS, known)
            self.assertEqual(self.tool.load_results(), known)
            code.write_text("new")
            self.assertEqual(self.tool.load_results()["results"], {})
            code.write_text("old")
            self.assertEqual(self.tool.load_results(), known)


unittest.main()
