# SPDX-License-Identifier: Apache-2.0
"""A copy of the tree with every mutant in it, built once."""
import collections
import concurrent.futures
import dataclasses
import hashlib
import json
import pathlib
import re
import shlex
import subprocess

from mutation import operators

HERE = pathlib.Path(__file__).resolve().parent
COPIED = ("CMakeLists.txt", "cmake", "src", "lib", "include", "tests", "fuzz", "bench", "verify",
          "scripts", "docs", "packaging", "man", "client", "runelctl", "README.md", "SECURITY.md",
          "LICENSE")


class Tree:
    """A copy of @p root in @p directory, built there with @p jobs parallel jobs, with the mutants of
    @p area."""

    def __init__(self, root, directory, area, jobs):
        self.root = root
        self.area = area
        self.cache = directory / "found"
        self.directory = directory / "tree"
        self.build = self.directory / "build" / "m"
        self.jobs = jobs
        self._arguments = {}
        self._numbers = collections.defaultdict(set)

    def copy(self):
        """Updates the copy. Unchanged files keep their time and are not built again."""
        for name in COPIED:
            path = self.root / name
            for file in path.rglob("*") if path.is_dir() else [path]:
                if file.is_file() and "__pycache__" not in file.parts:
                    self._bring(file)

    def _bring(self, path):
        relative = path.relative_to(self.root)
        target = self.directory / relative
        if self.area.contains(str(relative)) and target.exists():
            return  # _write() adds its mutants
        write_if_new(target, path.read_bytes())
        target.chmod(path.stat().st_mode)

    def configure(self):
        options = ["-S", self.directory, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                   "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
                   *self.area.options]
        run(["cmake", *options, "-DRUNELD_UNITY=OFF"])  # so that each source has its command
        for entry in json.loads((self.build / "compile_commands.json").read_text()):
            path = str(pathlib.Path(entry["file"]).relative_to(self.directory))
            if self.area.contains(path):
                self._arguments[path] = arguments(shlex.split(entry["command"]))
        run(["cmake", *options])

    def find_mutants(self):
        """All mutants of all sources, numbered."""
        with concurrent.futures.ProcessPoolExecutor(self.jobs) as pool:
            found = list(pool.map(self._find_in, sorted(self._arguments)))
        mutants = [mutant for group in found for mutant in group]
        for number, mutant in enumerate(mutants):
            mutant.number = number
        return mutants

    def numbers_near(self, mutant):
        """The numbers of the mutants in the same function, and of those in the same file."""
        return self._numbers[mutant.path, mutant.function], self._numbers[mutant.path]

    def _find_in(self, path):
        """The mutants of one source. Cached while neither the source nor the operators change."""
        text = (self.root / path).read_bytes() + (HERE / "operators.py").read_bytes()
        cached = self.cache / hashlib.sha1(path.encode() + text).hexdigest()
        if cached.exists():
            return [operators.Mutant(**row) for row in json.loads(cached.read_text())]
        found = operators.Source(self.root, path, ["-xc++", *self._arguments[path]]).mutants
        rows = json.dumps([dataclasses.asdict(mutant) for mutant in found])
        write_if_new(cached, rows.encode())
        return found

    def make(self, mutants, targets):
        """Builds @p targets with the mutants that compile. Returns these mutants."""
        refused = self.cache / "refused"  # mutants that did not compile in earlier runs
        bad = set(json.loads(refused.read_text())) if refused.exists() else set()
        while True:
            mutants = [mutant for mutant in mutants if repr(mutant.place()) not in bad]
            self._write(mutants)
            output = self._ninja([*self.area.targets, *targets], "-k0")
            if output is None:
                for mutant in mutants:
                    self._numbers[mutant.path].add(mutant.number)
                    self._numbers[mutant.path, mutant.function].add(mutant.number)
                return mutants
            found = failing(mutants, output)
            if not found:
                raise SystemExit(f"mutate: the build failed:\n{output[-4000:]}")
            bad |= found
            write_if_new(refused, json.dumps(sorted(bad)).encode())

    def _write(self, mutants):
        by_path = collections.defaultdict(list)
        for mutant in mutants:
            by_path[mutant.path].append(mutant)
        for path in self._arguments:
            text = operators.instrument((self.root / path).read_bytes(), by_path[path],
                                        HERE / "mutant.h")
            write_if_new(self.directory / path, text)

    def _ninja(self, targets, *options):
        """Runs ninja. Returns None, or the output of a failed build."""
        result = subprocess.run(["ninja", "-C", str(self.build), f"-j{self.jobs}", *options, *targets],
                                capture_output=True, text=True, check=False)
        return None if result.returncode == 0 else result.stdout + result.stderr

    def test_programs(self):
        listed = subprocess.run(["ninja", "-C", str(self.build), "-t", "targets", "all"],
                                capture_output=True, text=True, check=True).stdout
        objects = rf"^tests/{self.area.unit_tests}/CMakeFiles/((?:unit|contract)_\w+)\.dir/"
        return sorted({f"tests/{name}" for name in re.findall(objects, listed, re.M)})


def arguments(command):
    """What the syntax tree needs of a compiler's @p command."""
    found = [word for word in command if word.startswith(("-D", "-std", "-I"))]
    for at, word in enumerate(command):
        if word == "-isystem":
            found += command[at:at + 2]
    return found


def failing(mutants, output):
    """The mutants on the lines of the compiler's errors."""
    lines = collections.defaultdict(set)
    for path, line in re.findall(r"^(\S+\.cc):(\d+):\d+: error", output, re.M):
        lines[re.sub(r".*/(?=(?:src|lib|client|runelctl)/)", "", path)].add(int(line))
    return {repr(mutant.place()) for mutant in mutants
            if any(mutant.line <= at <= mutant.last_line for at in lines[mutant.path])}


def write_if_new(path, data):
    if not path.exists() or path.read_bytes() != data:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)


def run(command):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                            check=False)
    if result.returncode != 0:
        raise SystemExit(f"mutate: {command[0]} failed:\n{result.stdout[-4000:]}{result.stderr[-4000:]}")
