# SPDX-License-Identifier: Apache-2.0
"""Runs test modules and prints their counts. A skipped test counts as failed.

    scripts/world --no-log python3 -B -m support.runner test_tasks [test_tasks.Class.test ...]
        [--without Class [Class.test ...]]
"""
import argparse
import sys
import unittest

from support import world


def flat(suite):
    """All tests of @p suite, one by one."""
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from flat(test)
        else:
            yield test


def is_of(test, part):
    """Whether @p part, a class or Class.test, names @p test."""
    return f"{test.id().partition('.')[2]}.".startswith(f"{part}.")


def main(arguments):
    world.require()
    parser = argparse.ArgumentParser(prog="runner")
    parser.add_argument("names", nargs="+")
    parser.add_argument("--without", nargs="+", default=[])
    options = parser.parse_args(arguments)
    tests = [test for test in flat(unittest.defaultTestLoader.loadTestsFromNames(options.names))
             if not any(is_of(test, part) for part in options.without)]
    if not tests:
        print("no tests found")
        return 1
    result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(unittest.TestSuite(tests))
    refused = len(result.skipped) + len(result.expectedFailures) + len(result.unexpectedSuccesses)
    print(f"ran {result.testsRun}, failed {len(result.failures) + len(result.errors)}, "
          f"skipped {refused}")
    return 0 if result.wasSuccessful() and refused == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
