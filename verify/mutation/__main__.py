# SPDX-License-Identifier: Apache-2.0
"""Makes small changes to the sources and checks whether a test fails: see scripts/mutate."""
import argparse
import collections
import concurrent.futures
import json
import pathlib
import random
import secrets
import sys
import time

from mutation.suite import Suite
from mutation.tree import Tree

ROOT = pathlib.Path(__file__).resolve().parents[2]


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("--module", action="append", default=[], metavar="DIRECTORY",
                        help="only mutants of files below DIRECTORY; may be repeated")
    parser.add_argument("--sample", type=int, metavar="N",
                        help="run N mutants, selected at random (default: all)")
    parser.add_argument("--seed", type=int, default=secrets.randbelow(10 ** 6), metavar="N",
                        help="seed of the selection (default: random, printed)")
    parser.add_argument("--jobs", type=int, default=2, metavar="N",
                        help="number of parallel builds and tests (default: 2)")
    parser.add_argument("--slow", type=float, default=3, metavar="SECONDS",
                        help="run tests that take longer last (default: 3)")
    parser.add_argument("--tests", action="append", default=[], metavar="PROGRAM",
                        help="only this test program; may be repeated (default: all)")
    parser.add_argument("--e2e", action="append", default=[], metavar="MODULE",
                        help="also run this module of the end-to-end tests; may be repeated")
    parser.add_argument("--only", type=pathlib.Path, metavar="FILE",
                        help="only the surviving mutants of the result FILE of an earlier run")
    parser.add_argument("--work-directory", type=pathlib.Path, metavar="DIRECTORY",
                        default=ROOT / "build" / "mutation",
                        help="directory of the copy of the tree (default: build/mutation)")
    parser.add_argument("--minutes", type=float, metavar="N",
                        help="start no mutant after N minutes (default: no limit)")
    return parser.parse_args()


def log(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


def chosen(mutants, options):
    """The mutants to run, in random order, so that a part of the run is a fair sample."""
    if options.module:
        mutants = [m for m in mutants if any(m.path.startswith(module) for module in options.module)]
    if options.only:
        earlier = {(row["path"], row["line"], row["change"], row["nth"])
                   for row in json.loads(options.only.read_text()) if row["result"] != "killed"}
        mutants = [m for m in mutants if m.place() in earlier]
    random.Random(options.seed).shuffle(mutants)
    return mutants[:options.sample]


def count_alike(mutants):
    """Numbers the mutants that make the same change on the same line."""
    seen = collections.Counter()
    for mutant in mutants:
        name = (mutant.path, mutant.line, mutant.change)
        mutant.nth = seen[name]
        seen[name] += 1


def run(suite, mutants, options):
    """The results of the mutants, in order. Fewer when the time limit is reached."""
    end = time.monotonic() + 60 * options.minutes if options.minutes else None
    results = []

    def one(mutant):
        if end and time.monotonic() > end:
            return None
        result = suite.outcome(mutant.number)
        if result != "killed":
            log(f"{result}: {mutant.path}:{mutant.line} {mutant.function}: {mutant.change}")
        return result

    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for mutant, result in zip(mutants, pool.map(one, mutants)):
            if result:
                results.append((mutant, result))
                if len(results) % 100 == 0:
                    log(f"{len(results)} mutants run")
    return results


def report(results, path):
    rows = [{"path": m.path, "line": m.line, "nth": m.nth, "function": m.function,
             "change": m.change, "result": result} for m, result in results]
    path.write_text(json.dumps(rows, indent=1) + "\n")
    modules = collections.defaultdict(collections.Counter)
    for row in rows:
        modules[str(pathlib.Path(row["path"]).parent)][row["result"]] += 1
        modules["all"][row["result"]] += 1
    print(f"{'':20}{'mutants':>9}{'killed':>9}{'survived':>10}{'not reached':>13}")
    for module, counts in sorted(modules.items(), key=lambda item: (item[0] == "all", item[0])):
        print(f"{module:20}{sum(counts.values()):>9}{counts['killed']:>9}{counts['survived']:>10}"
              f"{counts['not reached']:>13}")
    print(f"results: {path}")


def main():
    options = arguments()
    tree = Tree(ROOT, options.work_directory.resolve(), options.jobs)
    tree.copy()
    tree.configure()
    programs = [f"tests/{name}" for name in options.tests] or tree.test_programs()
    found = tree.find_mutants()
    count_alike(found)
    log(f"{len(found)} mutants found")
    built = tree.make(found, [*programs, "fast_clock"])
    log(f"{len(built)} of them compile")
    suite = Suite(tree, options.slow)
    suite.measure(programs, options.e2e, log)
    mutants = chosen(built, options)
    log(f"running {len(mutants)}, seed {options.seed}")
    report(run(suite, mutants, options), options.work_directory / "result.json")
    return 0


sys.exit(main())
