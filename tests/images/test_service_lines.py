# SPDX-License-Identifier: Apache-2.0
"""Each line of the unit is needed: its test fails, and for the right reason, on a unit without the line."""
import os
import subprocess
import sys
import unittest

import test_service
from trees.service import unit_lines

HERE = os.path.dirname(os.path.abspath(__file__))
TIMEOUT = 1000


def run_without(line, test, instead=""):
    """Runs @p test in another process, with a unit that has @p instead in place of @p line. Returns its
    status and output."""
    environment = {**os.environ, "RUNELD_UNIT_WITHOUT": line, "RUNELD_UNIT_WITH": instead}
    result = subprocess.run([sys.executable, "-B", "-m", "trees.runner", f"{test}"], cwd=HERE,
                            env=environment, timeout=TIMEOUT, check=False,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, errors="replace")
    return result.returncode, result.stdout


class WithoutALine(unittest.TestCase):
    """One test for each row of test_service.LINES and CHANGED, made below."""

    maxDiff = None

    def fails_without(self, line, test, reason, instead=""):
        self.assertIn(line, unit_lines())
        status, output = run_without(line, f"test_service.{test}", instead)
        self.assertEqual(status, 1, f"{test} passes without {line}:\n{output[-2000:]}")
        self.assertIn("0 passed, 1 failed", output)
        self.assertIn(reason, output)


def add(name, *row):
    setattr(WithoutALine, f"test_{name}", lambda self: self.fails_without(*row))


for line, test, reason in test_service.LINES:
    add(line.partition("=")[0], line, test, reason)
for number, (line, instead, test, reason) in enumerate(test_service.CHANGED):
    add(f"changed_{number}_{line.partition('=')[0]}", line, test, reason, instead)


if __name__ == "__main__":
    unittest.main()
