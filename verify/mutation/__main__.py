# SPDX-License-Identifier: Apache-2.0
"""Changes the sources in small ways and looks whether the tests notice: see scripts/mutate."""
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
    parser.add_argument("--room", action="append", default=[],
                        help="only mutants of files below this folder")
    parser.add_argument("--sample", type=int, help="this many mutants, chosen by chance, not all")
    parser.add_argument("--seed", type=int, default=secrets.randbelow(10 ** 6))
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--slow", type=float, default=3, metavar="SECONDS",
                        help="tests that take longer are run last")
    parser.add_argument("--tests", action="append", default=[], metavar="PROGRAM",
                        help="only these test programs")
    parser.add_argument("--e2e", action="append", default=[], metavar="MODULE",
                        help="then this module of the end-to-end tests, too")
    parser.add_argument("--only", type=pathlib.Path, metavar="FILE",
                        help="only the survivors of an earlier run's result")
    parser.add_argument("--folder", type=pathlib.Path, default=ROOT / "build" / "mutation")
    parser.add_argument("--minutes", type=float, help="begin no mutant after this time")
    return parser.parse_args()


def log(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


def chosen(mutants, options):
    """The mutants to run, in an order in which any first part is a fair sample."""
    if options.room:
        mutants = [m for m in mutants if any(m.path.startswith(room) for room in options.room)]
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
    """The results of the mutants, in order; fewer when the time is up."""
    end = time.monotonic() + 60 * options.minutes if options.minutes else None
    results = []

    def one(mutant):
        if end and time.monotonic() > end:
            return None
        result = suite.is_noticed(mutant.number)
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
    rooms = collections.defaultdict(collections.Counter)
    for row in rows:
        rooms[str(pathlib.Path(row["path"]).parent)][row["result"]] += 1
        rooms["all"][row["result"]] += 1
    print(f"{'':20}{'mutants':>9}{'killed':>9}{'survived':>10}{'not reached':>13}")
    for room, counts in sorted(rooms.items(), key=lambda item: (item[0] == "all", item[0])):
        print(f"{room:20}{sum(counts.values()):>9}{counts['killed']:>9}{counts['survived']:>10}"
              f"{counts['not reached']:>13}")
    print(f"results: {path}")


def main():
    options = arguments()
    tree = Tree(ROOT, options.folder.resolve(), options.jobs)
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
    report(run(suite, mutants, options), options.folder / "result.json")
    return 0


sys.exit(main())
