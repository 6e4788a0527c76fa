# SPDX-License-Identifier: Apache-2.0
"""Runs test modules. A skipped test counts as failed.

    run.py MODULE...
"""
import sys
import unittest


def tests_of(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from tests_of(test)
        elif getattr(test, "__test__", True) or hasattr(test, "face"):
            yield test


def main(names):
    found = unittest.defaultTestLoader.loadTestsFromNames(names)
    suite = unittest.TestSuite(tests_of(found))
    result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(suite)
    refused = len(result.skipped) + len(result.expectedFailures) + len(result.unexpectedSuccesses)
    print(f"ran {result.testsRun}, skipped {refused}")
    return 0 if result.wasSuccessful() and result.testsRun and not refused else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
