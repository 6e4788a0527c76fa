# SPDX-License-Identifier: Apache-2.0
"""Runs end-to-end tests one by one in one isolated world, in tests/e2e.

    e2e.py measure RESULT MODULE CLASS...
        RESULT gets the duration of each test and the mutants it reaches: {"module.Class.test":
        [seconds, [mutant, ...]], ...}, with null instead of the pair for a test that fails. Leaves out
        the named classes.
    e2e.py run RESULT TEST...
        RESULT gets the name of the first test that fails.
"""
import json
import mmap
import os
import pathlib
import sys
import time
import unittest

sys.path.insert(0, os.getcwd())

from support import world  # noqa: E402: below tests/e2e


def flat(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from flat(test)
        else:
            yield test


def passes(test):
    """Whether @p test passes, with what its class sets up."""
    result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(unittest.TestSuite([test]))
    return result.wasSuccessful() and not result.skipped


def measured(tests):
    found = {}
    with open(os.environ["RUNELD_MUTANT_REACH"], "r+b") as file:
        reach = mmap.mmap(file.fileno(), 0)
    for test in tests:
        reach[:] = bytes(len(reach))
        start = time.monotonic()
        fine = passes(test)
        seconds = time.monotonic() - start
        found[test.id()] = [seconds, [n for n, byte in enumerate(reach[:]) if byte]] if fine else None
    return found


def main():
    world.require()
    what, result, *names = sys.argv[1:]
    if what == "measure":
        tests = [test for test in flat(unittest.defaultTestLoader.loadTestsFromName(names[0]))
                 if type(test).__name__ not in names[1:]]
        pathlib.Path(result).write_text(json.dumps(measured(tests)))
        return 0
    tests = flat(unittest.defaultTestLoader.loadTestsFromNames(names))
    failing = next((test.id() for test in tests if not passes(test)), None)
    pathlib.Path(result).write_text(failing or "")
    return int(failing is not None)


if __name__ == "__main__":
    sys.exit(main())
