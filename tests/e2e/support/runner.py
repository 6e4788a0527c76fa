# SPDX-License-Identifier: Apache-2.0
"""Runs test modules and prints their counts. A skipped test counts as failed.

    scripts/world --no-log python3 -B -m support.runner test_tasks [test_tasks.Class.test ...]
        [--without Class [Class.test ...]] [--exceptions FILE]

A line of FILE is "fails TEST REASON" for a test that must fail here, or "out TEST REASON" for one that is
left out, because it would show nothing here. TEST is module.Class or module.Class.test. A test that passes
against its line counts as failed, and so does a line without a test.
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


def read_exceptions(path, modules):
    """The lines of @p path for these modules, as (kind, test, reason)."""
    with open(path, encoding="utf-8") as file:
        lines = [line.split(None, 2) for line in file if line.strip() and not line.startswith("#")]
    return [(kind, test, reason.strip()) for kind, test, reason in lines
            if test.partition(".")[0] in modules]


def apply_exceptions(tests, exceptions):
    """The tests to run, and the identities of those that must fail. Prints each exception."""
    expected = set()
    for kind, name, reason in exceptions:
        meant = [test for test in tests if f"{test.id()}.".startswith(f"{name}.")]
        assert meant and kind in ("fails", "out"), f"not a test or a kind: {kind} {name}"
        print(f"{'left out' if kind == 'out' else 'must fail'}: {name}: {reason}")
        if kind == "out":
            tests = [test for test in tests if test not in meant]
        expected.update(test.id() for test in meant if kind == "fails")
    return tests, expected


def main(arguments):
    world.require()
    parser = argparse.ArgumentParser(prog="runner")
    parser.add_argument("names", nargs="+")
    parser.add_argument("--without", nargs="+", default=[])
    parser.add_argument("--exceptions")
    options = parser.parse_args(arguments)
    tests = [test for test in flat(unittest.defaultTestLoader.loadTestsFromNames(options.names))
             if not any(is_of(test, part) for part in options.without)]
    expected = set()
    if options.exceptions:
        modules = {name.partition(".")[0] for name in options.names}
        tests, expected = apply_exceptions(tests, read_exceptions(options.exceptions, modules))
    if not tests:
        print("no tests found")
        return 1
    result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(unittest.TestSuite(tests))
    failed = {getattr(test, "test_case", test).id() for test, _ in result.failures + result.errors}
    for name in sorted(expected - failed):
        print(f"passes, but must fail: {name}")
    if expected:
        print(f"failed as expected {len(expected & failed)}, others {len(failed - expected)}")
    refused = len(result.skipped) + len(result.expectedFailures) + len(result.unexpectedSuccesses)
    print(f"ran {result.testsRun}, failed {len(result.failures) + len(result.errors)}, "
          f"skipped {refused}")
    return 0 if failed == expected and refused == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
