# SPDX-License-Identifier: Apache-2.0
"""The tests of a built tree: the mutants that each test reaches, and whether it fails on them."""
import collections
import dataclasses
import json
import math
import os
import pathlib
import subprocess
import time

MEASURE = pathlib.Path(__file__).resolve().parent / "measure.py"
PYTHON = "/usr/bin/python3"
MOST = 65536  # as in mutant.h
QUICK = 0.2  # seconds: faster tests run before all others


@dataclasses.dataclass
class Test:
    program: str  # of GoogleTest; the empty string for a module of the end-to-end tests
    name: str
    seconds: float
    reached: frozenset


class Suite:
    """Runs tests of @p tree. Tests that take longer than @p slow seconds run last."""

    def __init__(self, tree, slow):
        self.tree = tree
        self.slow = slow
        self.tests = []

    def measure(self, programs, modules, log):
        """Runs every test alone, without a mutant, and records the mutants that it reaches."""
        for program in programs:
            self._measure(program)
            log(f"{program}: {len(self.tests)} tests measured")
        for module in modules:
            self._measure_module(module)
            log(f"{module}: {self.tests[-1].seconds:.1f} s")

    def _measure(self, program):
        command = [PYTHON, "-B", MEASURE, self._path(program)]
        result = subprocess.run(self._world(command), stdin=subprocess.DEVNULL, env=self._environment(),
                                cwd=self._e2e(), stdout=subprocess.PIPE, text=True, check=False)
        if result.returncode != 0:
            raise SystemExit(f"mutate: cannot measure {command}")
        for name, (seconds, reached) in json.loads(result.stdout).items():
            self.tests.append(Test(program, name, seconds, frozenset(reached)))

    def _measure_module(self, module):
        reach = self.tree.build / "reach"
        reach.write_bytes(bytes(MOST))
        start = time.monotonic()
        if self._run_module(module, 3600, RUNELD_MUTANT_REACH=str(reach)) != 0:
            raise SystemExit(f"mutate: {module} fails without a mutant")
        seconds = time.monotonic() - start
        reached = frozenset(number for number, byte in enumerate(reach.read_bytes()) if byte)
        self.tests.append(Test("", module, seconds, reached))

    def outcome(self, number):
        """Runs the tests that reach mutant @p number until one fails: "killed", "survived", "not
        reached"."""
        reaching = [test for test in self.tests if number in test.reached]
        units = [test for test in reaching if test.program]
        for least, most in ((0, QUICK), (QUICK, self.slow), (self.slow, math.inf)):
            tests = [test for test in units if least < test.seconds <= most]
            if tests and self._run(self._lines(tests), number) != 0:
                return "killed"
        for test in sorted(reaching, key=lambda test: test.seconds):
            if not test.program and self._run_module(test.name, limit([test]),
                                                     RUNELD_MUTANT=str(number)) != 0:
                return "killed"
        return "survived" if reaching else "not reached"

    def _lines(self, tests):
        """Shell commands that run the tests until one fails, the fastest program first."""
        by_program = collections.defaultdict(list)
        for test in tests:
            by_program[test.program].append(test)
        groups = sorted(by_program.items(), key=lambda group: total(group[1]))
        return [f"timeout -k 2 {limit(group)} {self._path(program)} --gtest_brief=1 "
                f"--gtest_fail_fast '--gtest_filter={':'.join(test.name for test in group)}' || exit 1"
                for program, group in groups]

    def _run(self, lines, number):
        """The exit status of shell commands in isolated namespaces."""
        for _ in range(3):
            process = subprocess.run(
                self._world(["sh", "-c", "\n".join(lines)]), stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False, cwd=self._e2e(),
                env=self._environment(RUNELD_MUTANT=str(number)))
            if process.returncode != 125:  # scripts/world could not create the namespaces
                return process.returncode
        raise SystemExit("mutate: scripts/world cannot create the namespaces")

    def _run_module(self, module, seconds, **environment):
        """The exit status of a module of the end-to-end tests. It runs in separate namespaces, because
        its tests kill every other process there."""
        command = self._world(["--no-log", PYTHON, "-B", "-m", "support.runner", module])
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, cwd=self._e2e(),
                                   env=self._environment(**environment))
        try:
            return process.wait(seconds)
        except subprocess.TimeoutExpired:
            process.kill()  # also kills all processes in its namespaces
            return process.wait()

    def _environment(self, **more):
        return {**os.environ, "RUNELD_BIN": str(self._path("bin/runeld")),
                "RUNELD_FAST_CLOCK": str(self._path("tests/e2e/libfast_clock.so")), **more}

    def _world(self, command):
        return [str(self.tree.directory / "scripts" / "world"), *map(str, command)]

    def _e2e(self):
        return self.tree.directory / "tests" / "e2e"

    def _path(self, program):
        return self.tree.build / program


def total(tests):
    return sum(test.seconds for test in tests)


def limit(tests):
    """A generous time limit in seconds: a longer run hangs."""
    return round(20 + 10 * total(tests))
