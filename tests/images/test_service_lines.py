# SPDX-License-Identifier: Apache-2.0
"""Each line of the unit is needed: its test fails, and for the right reason, on a unit without the line."""
import os
import subprocess
import sys
import unittest

import test_service
from trees.service import unit_lines

HERE = os.path.dirname(os.path.abspath(__file__))
TIMEOUT = 400


def run_without(line, test):
    """Runs @p test in another process, with a unit that lacks @p line. Returns its status and output."""
    result = subprocess.run([sys.executable, "-B", "-m", "trees.runner", f"{test}"], cwd=HERE,
                            env={**os.environ, "RUNELD_UNIT_WITHOUT": line}, timeout=TIMEOUT, check=False,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, errors="replace")
    return result.returncode, result.stdout


class WithoutALine(unittest.TestCase):
    """One test for each row of test_service.LINES, made below."""

    maxDiff = None

    def fails_without(self, line, test, reason):
        self.assertIn(line, unit_lines())
        status, output = run_without(line, f"test_service.{test}")
        self.assertEqual(status, 1, f"{test} passes without {line}:\n{output[-2000:]}")
        self.assertIn("0 passed, 1 failed", output)
        self.assertIn(reason, output)


def add(line, test, reason):
    name = "".join(letter if letter.isalnum() else "_" for letter in line.partition("=")[0])
    setattr(WithoutALine, f"test_{name}", lambda self: self.fails_without(line, test, reason))


for row in test_service.LINES:
    add(*row)


if __name__ == "__main__":
    unittest.main()
