# SPDX-License-Identifier: Apache-2.0
"""Tests of scripts/check_licenses, on a small tree."""
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
LINE = "SPDX-License-" "Identifier: "
DEP5 = """Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/

Files: *
Copyright: The runeld authors
License: Apache-2.0

Files: *.md .reuse/dep5 LICENSE
Copyright: The runeld authors
License: Apache-2.0
"""


class CheckLicensesTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = pathlib.Path(directory.name)
        for name in "LICENSE", "scripts/check_licenses", "LICENSES/Apache-2.0.txt":
            (self.tree / name).parent.mkdir(exist_ok=True)
            shutil.copy(ROOT / name, self.tree / name, follow_symlinks=False)
        self.write(".reuse/dep5", DEP5)
        self.write("README.md", "No comment.\n")
        self.write("tool.py", f"#!/usr/bin/python3\n# {LINE}Apache-2.0\n")
        self.write(".gitignore", f"# {LINE}Apache-2.0\n/build/\n")
        subprocess.run(["git", "init", "-q", self.tree], check=True)

    def write(self, path, text):
        file = self.tree / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def check(self):
        """The exit status of the script and its output."""
        subprocess.run(["git", "-C", self.tree, "add", "--intent-to-add", "."], check=True)
        done = subprocess.run([self.tree / "scripts/check_licenses"], stdout=subprocess.PIPE, text=True,
                              check=False)
        return done.returncode, done.stdout

    def test_a_tree_with_all_lines_is_clean(self):
        self.assertEqual(self.check(), (0, ""))

    def test_a_file_without_a_line_is_found(self):
        self.write("src/new.cc", "int x;\n")
        self.assertEqual(self.check(), (1, "src/new.cc: no SPDX line within the first 5 lines\n"))

    def test_the_fifth_line_is_early_enough_and_the_sixth_is_not(self):
        self.write("fifth.cc", "\n" * 4 + f"// {LINE}Apache-2.0\n")
        self.write("sixth.cc", "\n" * 5 + f"// {LINE}Apache-2.0\n")
        self.assertEqual(self.check(), (1, "sixth.cc: no SPDX line within the first 5 lines\n"))

    def test_another_licence_is_found(self):
        self.write("foreign.h", f"/* {LINE}MIT */\n")
        status, output = self.check()
        self.assertEqual(status, 1)
        self.assertIn("foreign.h: the SPDX line names MIT, .reuse/dep5 Apache-2.0\n", output)
        self.assertIn("* Missing licenses: MIT\n", output)

    def test_a_line_that_reuse_cannot_read_is_found(self):
        self.write("odd.h", f'// {LINE}Apache-2.0\nx("{LINE}Apache (2.0"),\n')
        status, output = self.check()
        self.assertEqual(status, 1)
        self.assertIn("Could not parse 'Apache (2.0", output)

    def test_a_text_of_a_licence_that_nothing_has_is_found(self):
        self.write("LICENSES/MIT.txt", f"{LINE}Apache-2.0\n")
        status, output = self.check()
        self.assertEqual(status, 1)
        self.assertIn("* Unused licenses: MIT\n", output)

    def test_a_pattern_that_fits_no_file_is_found(self):
        self.write(".reuse/dep5", DEP5.replace("*.md", "*.md *.png"))
        self.assertEqual(self.check(), (1, ".reuse/dep5: no file fits *.png\n"))

    def test_files_that_git_ignores_need_no_line(self):
        self.write("build/made.cc", f"// {LINE}MIT\n")
        self.assertEqual(self.check(), (0, ""))


if __name__ == "__main__":
    unittest.main()
