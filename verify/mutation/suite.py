# SPDX-License-Identifier: Apache-2.0
"""The tests of a built tree: the mutants that each test reaches, and whether it fails on them."""
import collections
import concurrent.futures
import dataclasses
import hashlib
import json
import math
import os
import pathlib
import subprocess
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
PYTHON = "/usr/bin/python3"
MOST = 65536  # as in mutant.h
NONE = MOST  # the number of no mutant
QUICK = 0.2  # seconds: faster tests run before all others
CHUNK = 5  # seconds of end-to-end tests that share one world
CLOCKS = ("fast", "tenfold", "hundredfold")


@dataclasses.dataclass
class Test:
    program: str  # of GoogleTest; the empty string for an end-to-end test
    name: str
    seconds: float
    reached: frozenset


class Suite:
    """Runs tests of @p tree. Tests that take longer than @p slow seconds run last, and each mutant
    gets end-to-end tests for at most @p e2e_seconds."""

    def __init__(self, tree, slow, e2e_seconds):
        self.tree = tree
        self.slow = slow
        self.e2e_seconds = e2e_seconds
        self.units = []
        self.e2e = []

    def measure(self, programs, jobs, log):
        """Runs every unit test alone, without a mutant, and records the mutants that it reaches."""
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for tests in pool.map(lambda program: self._measure(program, log), programs):
                self.units += tests

    def measure_modules(self, modules, jobs, log):
        """The same for end-to-end tests."""
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for tests in pool.map(lambda module: self._measure_module(module, log), modules):
                self.e2e += tests

    def _measure(self, program, log):
        def run():
            command = [PYTHON, "-B", HERE / "measure.py", self._path(program)]
            result = subprocess.run(
                self._world(command), stdin=subprocess.DEVNULL, env=self._environment(),
                cwd=self._e2e(), stdout=subprocess.PIPE, text=True, check=False)
            if result.returncode != 0:
                raise SystemExit(f"mutate: cannot measure {command}")
            return json.loads(result.stdout)

        found = self._measured_before([self._path(program)], run)
        log(f"{program}: {len(found)} tests measured")
        return [Test(program, name, seconds, frozenset(reached))
                for name, (seconds, reached) in found.items()]

    def _measure_module(self, module, log):
        def run():
            with tempfile.NamedTemporaryFile() as reach, tempfile.NamedTemporaryFile() as result:
                reach.write(bytes(MOST))
                reach.flush()
                self._run_e2e(["measure", result.name, module, *self.tree.area.slow], 3600,
                              RUNELD_MUTANT_REACH=reach.name)
                text = pathlib.Path(result.name).read_text()
            if not text:
                raise SystemExit(f"mutate: cannot measure {module}")
            return json.loads(text)

        binaries = [self._path("bin/runeld"), self._path("bin/runelctl")]
        found = self._measured_before([self._e2e() / f"{module}.py", *binaries], run)
        for name in (name for name, pair in found.items() if not pair):
            log(f"left out, because it fails without a mutant: {name}")
        tests = [Test("", name, pair[0], frozenset(pair[1])) for name, pair in found.items() if pair]
        log(f"{module}: {len(tests)} tests measured, {total(tests):.0f} s")
        return tests

    def _measured_before(self, files, run):
        """The result of @p run, kept until one of the files changes."""
        key = hashlib.sha1(b"".join(str(file).encode() + file.read_bytes()
                                    for file in files if file.exists()))
        cached = self.tree.cache / f"measured-{key.hexdigest()}"
        if not cached.exists():
            text = json.dumps(run())
            cached.write_text(text)
        return json.loads(cached.read_text())

    def unit_outcome(self, mutant):
        """Runs the unit tests that reach @p mutant until one fails: "killed", "survived" or "not
        reached"."""
        reaching = [test for test in self.units if mutant.number in test.reached]
        for least, most in ((0, QUICK), (QUICK, self.slow), (self.slow, math.inf)):
            tests = [test for test in reaching if least < test.seconds <= most]
            if tests and self._run(self._lines(tests), mutant.number) != 0:
                return "killed"
        return "survived" if reaching else "not reached"

    def e2e_reaching(self, mutant):
        return [test for test in self.e2e if mutant.number in test.reached]

    def e2e_outcome(self, mutant):
        """Runs the end-to-end tests that reach @p mutant until one fails, and returns its name."""
        for tests in self._chunks(mutant, self.e2e_reaching(mutant)):
            failed = self._fails(tests, mutant.number)
            if failed:
                return failed
        return ""

    def _chunks(self, mutant, tests):
        """End-to-end tests in groups that share a world, within the time that a mutant gets. First
        those that execute the largest part of the mutant's function and file for their duration."""
        function, file = self.tree.numbers_near(mutant)

        def promise(test):
            part = 3 * len(function & test.reached) / len(function) + len(file & test.reached) / len(file)
            return part / (test.seconds + 0.5)

        tests = sorted(tests, key=promise, reverse=True)
        chunk, spent = [], 0.0
        for test in tests:
            spent += test.seconds
            if spent > self.e2e_seconds and chunk:
                break
            if chunk and total(chunk) + test.seconds > CHUNK:
                yield chunk
                chunk = []
            chunk.append(test)
        if chunk:
            yield chunk

    def _fails(self, tests, number):
        """The end-to-end test that fails twice on mutant @p number, or "timeout" when they take too
        long with it and not without."""
        while tests:
            failed = self._failing(tests, number)
            if failed == "timeout" and self._failing(tests, NONE):  # this host is busy
                return ""
            if failed in ("", "timeout"):
                return failed
            at = next(at for at, test in enumerate(tests) if test.name == failed)
            if self._failing(tests[at:at + 1], number):
                return failed
            tests = tests[at + 1:]
        return ""

    def _failing(self, tests, number):
        with tempfile.NamedTemporaryFile() as result:
            status = self._run_e2e(["run", result.name, *(test.name for test in tests)],
                                   limit(tests), RUNELD_MUTANT=str(number))
            return pathlib.Path(result.name).read_text() or ("timeout" if status != 0 else "")

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

    def _run_e2e(self, arguments, seconds, **environment):
        """The exit status of e2e.py. It runs in separate namespaces, because the tests kill every
        other process there."""
        command = self._world(["--no-log", PYTHON, "-B", HERE / "e2e.py", *arguments])
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, cwd=self._e2e(),
                                   env=self._environment(**environment))
        try:
            return process.wait(seconds)
        except subprocess.TimeoutExpired:
            process.kill()  # also kills all processes in its namespaces
            return process.wait()

    def _environment(self, **more):
        clocks = {f"RUNELD_{name.upper()}_CLOCK": str(self._path(f"tests/e2e/lib{name}_clock.so"))
                  for name in CLOCKS}
        return {**os.environ, **clocks, "RUNELD_BIN": str(self._path("bin/runeld")),
                "RUNELCTL_BIN": str(self._path("bin/runelctl")), **more}

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
