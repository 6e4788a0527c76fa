# SPDX-License-Identifier: Apache-2.0
"""Runs the test modules of tests/images and ends with a table of what was tried.

    python3 -B -m trees.runner [FILTER...]

A FILTER is a part of a test's name (module.Class.test). A row of the table is a test: its result, the
seconds it took, and the figures that it measured (`TreeCase.figure`). A skipped test counts as failed.
"""
import os
import sys
import time
import unittest

from trees import case

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def flat(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from flat(test)
        else:
            yield test


class Result(unittest.TextTestResult):
    """Remembers a row for each test."""

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.rows = {}
        self.started = 0.0

    def startTest(self, test):
        super().startTest(test)
        self.started = time.monotonic()
        self.rows[test.id()] = ["passed", 0.0]

    def stopTest(self, test):
        super().stopTest(test)
        self.rows[test.id()][1] = time.monotonic() - self.started

    def _mark(self, test, word, error=None):
        self.rows.setdefault(test.id(), ["", 0.0])[0] = word
        if error:  # at once: a whole run takes long
            self.stream.writeln(self._exc_info_to_string(error, test))

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._mark(test, "FAILED", err)

    def addError(self, test, err):
        super().addError(test, err)
        self._mark(test, "FAILED", err)

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            self._mark(test, "FAILED", err)

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self._mark(test, "SKIPPED")

    def addExpectedFailure(self, test, err):
        super().addExpectedFailure(test, err)
        self._mark(test, "FAILED")

    def addUnexpectedSuccess(self, test):
        super().addUnexpectedSuccess(test)
        self._mark(test, "FAILED")


def show_table(rows):
    print("\n== what was tried")
    width = max(len(name) for name in rows)
    for name, (word, seconds) in rows.items():
        print(f"{name:{width}}  {word:7}  {seconds:6.1f} s  {'; '.join(case.figures.get(name, []))}".rstrip())
    failed = sum(word != "passed" for word, _ in rows.values())
    print(f"\n{len(rows) - failed} passed, {failed} failed")
    return failed


def main(filters):
    if os.geteuid() != 0:
        print("booted trees need root", file=sys.stderr)
        return 1
    tests = [test for test in flat(unittest.defaultTestLoader.discover(HERE, pattern="test_*.py"))
             if not filters or any(part in test.id() for part in filters)]
    if not tests:
        print("no tests found")
        return 1
    runner = unittest.TextTestRunner(verbosity=2, stream=sys.stdout, resultclass=Result)
    return 1 if show_table(runner.run(unittest.TestSuite(tests)).rows) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
