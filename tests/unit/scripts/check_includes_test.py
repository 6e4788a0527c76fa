# SPDX-License-Identifier: Apache-2.0
"""Tests of scripts/check_includes, on a changed copy of the tree's sources."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
SUFFIXES = ".h", ".cc", ".c"


def left_out(directory, names):
    """What a copy of @p directory does not need: all but sources, headers and directories."""
    return [name for name in names
            if not name.endswith(SUFFIXES) and not os.path.isdir(os.path.join(directory, name))]


class CheckIncludesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.copy = pathlib.Path(directory.name)
        for name in ("bench", "client", "fuzz", "gateway", "include", "lib", "runelctl", "src", "tests", "verify"):
            shutil.copytree(ROOT / name, cls.copy / name, ignore=left_out)
        (cls.copy / "scripts").mkdir()
        shutil.copy(ROOT / "scripts/check_includes", cls.copy / "scripts")
        subprocess.run(["git", "init", "-q", cls.copy], check=True)

    def append(self, path, text):
        """Adds lines to a file of the copy for this test. Returns the number of the first one."""
        file = self.copy / path
        file.parent.mkdir(exist_ok=True)
        old = file.read_text() if file.exists() else ""
        self.addCleanup(*(file.write_text, old) if file.exists() else (file.unlink,))
        file.write_text(old + text)
        return old.count("\n") + 1

    def allow(self, row, targets):
        """Sets the arrows of @p row, which must be empty so far."""
        script = self.copy / "scripts/check_includes"
        old = script.read_text()
        self.assertIn(f'"{row}": "",', old)
        script.write_text(old.replace(f'"{row}": "",', f'"{row}": "{targets}",'))
        self.addCleanup(script.write_text, old)

    def check(self):
        """The lines of the script, after its exit status."""
        subprocess.run(["git", "-C", self.copy, "add", "--intent-to-add", "."], check=True)
        done = subprocess.run([self.copy / "scripts/check_includes"], stdout=subprocess.PIPE, text=True,
                              check=False)
        return [done.returncode, *done.stdout.splitlines()]

    def test_the_tree_is_clean(self):
        self.assertEqual(self.check(), [0])

    def test_an_include_without_an_arrow_is_found(self):
        line = self.append("src/server/sockets.cc", '#include "agent/runel.h"\n')
        self.assertEqual(self.check(), [
            1, f"src/server/sockets.cc:{line}: src/server may not include src/agent (agent/runel.h)",
            "cycle of directories: src/agent -> src/server -> src/agent"])

    def test_an_include_in_angle_brackets_is_found(self):
        line = self.append("src/server/sockets.cc", "#  include <zell/led_control.h>\n")
        self.assertEqual(self.check(), [
            1, f"src/server/sockets.cc:{line}: src/server may not include include/zell"
               " (zell/led_control.h)"])

    def test_an_include_by_a_relative_path_is_found(self):
        line = self.append("lib/protocol/stat_text.cc", '#include "../device/common/leds.h"\n')
        self.assertEqual(self.check(), [
            1, f"lib/protocol/stat_text.cc:{line}: lib/protocol may not include lib/device/common"
               " (../device/common/leds.h)"])

    def test_a_missing_file_is_found(self):
        line = self.append("lib/base/log.cc", '#include "base/lost.h"\n')
        self.assertEqual(self.check(),
                         [1, f'lib/base/log.cc:{line}: "base/lost.h" is not a file of the tree'])

    def test_a_directory_without_a_row_is_found(self):
        self.append("src/extra/extra.cc", "#include <vector>\n")
        self.assertEqual(self.check(),
                         [1, "src/extra: not in the table of scripts/check_includes"])

    def test_a_cycle_of_directories_is_found(self):
        self.allow("lib/base", "lib/protocol")
        self.append("lib/base/blank.h", '#include "protocol/protocol.h"\n')
        self.assertEqual(self.check(),
                         [1, "cycle of directories: lib/base -> lib/protocol -> lib/base"])

    def test_a_cycle_of_headers_is_found(self):
        self.append("lib/base/blank.h", '#include "base/tcp.h"\n')
        self.append("lib/base/tcp.h", '#include "base/blank.h"\n')
        self.assertEqual(self.check(),
                         [1, "cycle of files: lib/base/blank.h -> lib/base/tcp.h -> lib/base/blank.h"])


if __name__ == "__main__":
    unittest.main()
