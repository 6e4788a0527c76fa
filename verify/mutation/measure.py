# SPDX-License-Identifier: Apache-2.0
"""Runs the tests of a program one by one, in isolated namespaces. Prints the duration of each test and
the mutants that it reaches: {"Suite.Test": [seconds, [mutant, ...]], ...}

    measure.py PROGRAM
"""
import json
import os
import subprocess
import sys
import tempfile
import time

MOST = 65536  # as in mutant.h


def names(program):
    listed = subprocess.run([program, "--gtest_list_tests"], capture_output=True, text=True,
                            check=True).stdout
    suite, found = "", []
    for line in listed.splitlines():
        word = line.split("#")[0].strip()
        if line.startswith(" "):
            found.append(suite + word)
        elif not line.startswith("Running main"):
            suite = word
    return found


def measure(command):
    with tempfile.NamedTemporaryFile() as reach:
        reach.write(bytes(MOST))
        reach.flush()
        start = time.monotonic()
        result = subprocess.run(command, env={**os.environ, "RUNELD_MUTANT_REACH": reach.name},
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, check=False)
        if result.returncode != 0:
            raise SystemExit(f"mutate: {command} fails without a mutant:\n{result.stdout.decode()}")
        seconds = time.monotonic() - start
        reach.seek(0)
        return seconds, [number for number, byte in enumerate(reach.read()) if byte]


def main():
    program = sys.argv[1]
    found = {name: measure([program, "--gtest_brief=1", f"--gtest_filter={name}"])
             for name in names(program)}
    print(json.dumps(found))


if __name__ == "__main__":
    main()
