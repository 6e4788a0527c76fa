# SPDX-License-Identifier: Apache-2.0
"""Runs test modules and ends with their counts. A skip is a failure: nobody reads it otherwise.

    scripts/world --no-log python3 -B -m support.runner test_tasks [test_tasks.Class.test ...]
"""
import sys
import unittest

from support import world


def main(names):
    world.require()
    suite = unittest.defaultTestLoader.loadTestsFromNames(names)
    if suite.countTestCases() == 0:
        print("no tests found")
        return 1
    result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(suite)
    refused = len(result.skipped) + len(result.expectedFailures) + len(result.unexpectedSuccesses)
    print(f"ran {result.testsRun}, failed {len(result.failures) + len(result.errors)}, "
          f"skipped {refused}")
    return 0 if result.wasSuccessful() and refused == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
