# SPDX-License-Identifier: Apache-2.0
"""Checks that every test named in docs/faults.md exists, and that every row names one.

    python3 tests/unit/docs/fault_table.py [DOCUMENT]
"""
import ast
import os
import re
import sys

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../.."))
GOOGLE_TEST = re.compile(r"^TEST(?:_[FP])?\((\w+),\s*(\w+)\)", re.MULTILINE)
CTEST = re.compile(r"^\s*runeld_(test|verify|fuzz)\((\w+)", re.MULTILINE)
PREFIXES = {"test": "", "verify": "verify_", "fuzz": "fuzz_"}
ROWS = 55


def files(*directories, suffixes):
    for directory in directories:
        for path, _, names in os.walk(os.path.join(ROOT, directory)):
            for name in names:
                if name.endswith(suffixes):
                    yield os.path.join(path, name)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def google_tests():
    for path in files("tests", "verify", suffixes=".cc"):
        for suite, name in GOOGLE_TEST.findall(read(path)):
            yield from (suite, f"{suite}.{name}")


def python_tests():
    for path in files("tests/e2e", suffixes=".py"):
        module = os.path.basename(path)[:-len(".py")]
        for node in ast.parse(read(path)).body:
            tests = [one.name for one in ast.walk(node) if
                     isinstance(one, ast.FunctionDef) and one.name.startswith("test_")]
            if isinstance(node, ast.ClassDef) and tests:
                yield f"{module}.{node.name}"
                yield from (f"{module}.{node.name}.{test}" for test in tests)


def ctest_names():
    for path in files("tests", "verify", "fuzz", suffixes=("CMakeLists.txt", ".cmake")):
        for kind, name in CTEST.findall(read(path)):
            yield PREFIXES[kind] + name


def problems(document):
    there = {*google_tests(), *python_tests(), *ctest_names()}
    rows = [[cell.strip() for cell in line.strip().strip("|").split("|")]
            for line in document.splitlines() if re.match(r"\| \d+ \|", line)]
    if [row[0] for row in rows] != [str(number) for number in range(1, ROWS + 1)]:
        yield f"the rows are not numbered 1 to {ROWS}"
    for row in rows:
        if len(row) != 4 or not all(row):
            yield f"row {row[0]}: not four cells with text"
            continue
        named = re.findall(r"`([^`]+)`", row[3])
        if not named:
            yield f"row {row[0]}: no test"
        for name in named:
            if name not in there:
                yield f"row {row[0]}: there is no {name}"


def main(arguments):
    path = arguments[0] if arguments else os.path.join(ROOT, "docs/faults.md")
    found = list(problems(read(path)))
    print("\n".join(found) or "every test is there")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
