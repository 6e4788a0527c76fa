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

from mutation.areas import area_of
from mutation.suite import Suite
from mutation.tree import Tree

ROOT = pathlib.Path(__file__).resolve().parents[2]


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("--module", action="append", default=[], metavar="DIRECTORY",
                        help="only mutants of files below DIRECTORY; may be repeated (default: src and "
                             "lib)")
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
                        help="also run this module of the end-to-end tests; may be repeated (default: "
                             "none for src and lib, those of the directory for client and runelctl)")
    parser.add_argument("--e2e-seconds", type=float, default=60, metavar="SECONDS",
                        help="run end-to-end tests for at most SECONDS per mutant, the most promising "
                             "first (default: 60)")
    parser.add_argument("--only", type=pathlib.Path, metavar="FILE",
                        help="only the surviving mutants of the result FILE of an earlier run")
    parser.add_argument("--work-directory", type=pathlib.Path, metavar="DIRECTORY",
                        help="directory of the copy of the tree (default: build/mutation/daemon, or "
                             "build/mutation/runelctl)")
    parser.add_argument("--minutes", type=float, metavar="N",
                        help="start no mutant after N minutes (default: no limit)")
    return parser.parse_args()


def log(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


def chosen(mutants, options):
    """The mutants to select from, in random order, so that a part of the run is a fair sample."""
    if options.module:
        mutants = [m for m in mutants if any(m.path.startswith(module) for module in options.module)]
    if options.only:
        earlier = {(row["path"], row["line"], row["change"], row["nth"])
                   for row in json.loads(options.only.read_text()) if row["result"] != "killed"}
        mutants = [m for m in mutants if m.place() in earlier]
    mutants = list(mutants)
    random.Random(options.seed).shuffle(mutants)
    if options.sample:  # some of them do not compile
        mutants = mutants[:options.sample * 5 // 4 + 5]
    return mutants


def with_statements(wanted, found):
    """The mutants @p wanted, and all that take a statement out: they show which parts of a function a
    test executes. All others would only make the build longer."""
    numbers = {mutant.number for mutant in wanted}
    return [m for m in found if m.number in numbers or m.change.endswith("(removed)")]


def count_alike(mutants):
    """Numbers the mutants that make the same change on the same line."""
    seen = collections.Counter()
    for mutant in mutants:
        name = (mutant.path, mutant.line, mutant.change)
        mutant.nth = seen[name]
        seen[name] += 1


def run(suite, mutants, options, modules_of, save):
    """The results of the mutants, in order. "not finished" when the time limit is reached."""
    end = time.monotonic() + 60 * options.minutes if options.minutes else None
    results = {mutant.number: "not finished" for mutant in mutants}

    def stage(outcome, some):
        def one(mutant):
            if not end or time.monotonic() < end:
                results[mutant.number] = outcome(mutant)

        with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            for count, _ in enumerate(pool.map(one, some), 1):
                if count % 100 == 0:
                    log(f"{count} mutants run")

    def tell(result, mutant, by=""):
        log(f"{result}: {mutant.path}:{mutant.line} {mutant.function}: {mutant.change}{by}")
        return result

    def by_units(mutant):
        result = suite.unit_outcome(mutant)
        return result if result == "killed" else tell(result, mutant)

    def by_modules(mutant):
        failed = suite.e2e_outcome(mutant)
        if failed:
            return tell("killed", mutant, f" by {failed}")
        unreached = by_unit[mutant.number] == "not reached" and not suite.e2e_reaching(mutant)
        return tell("not reached" if unreached else "survived", mutant)

    stage(by_units, mutants)
    save([(mutant, results[mutant.number]) for mutant in mutants])
    by_unit = dict(results)
    left = [m for m in mutants if by_unit[m.number] in ("survived", "not reached")]
    modules = options.e2e or sorted({name for m in left for name in modules_of(m.path)})
    log(f"{len(left)} left for {len(modules)} modules")
    suite.measure_modules(modules, options.jobs, log)
    if modules:
        results.update({mutant.number: "not finished" for mutant in left})
        stage(by_modules, left)
    return [(mutant, results[mutant.number]) for mutant in mutants]


def save(results, path):
    rows = [{"path": m.path, "line": m.line, "nth": m.nth, "function": m.function,
             "change": m.change, "result": result} for m, result in results]
    path.write_text(json.dumps(rows, indent=1) + "\n")


def report(results):
    modules = collections.defaultdict(collections.Counter)
    for mutant, result in results:
        modules[str(pathlib.Path(mutant.path).parent)][result] += 1
        modules["all"][result] += 1
    kinds = ("killed", "survived", "not reached", "not finished")
    print(f"{'':24}{'mutants':>9}" + "".join(f"{kind:>{len(kind) + 2}}" for kind in kinds))
    for module, counts in sorted(modules.items(), key=lambda item: (item[0] == "all", item[0])):
        print(f"{module:24}{sum(counts.values()):>9}" +
              "".join(f"{counts[kind]:>{len(kind) + 2}}" for kind in kinds))


def main():
    options = arguments()
    area = area_of(options.module)
    directory = (options.work_directory or ROOT / "build" / "mutation" / area.name).resolve()
    tree = Tree(ROOT, directory, area, options.jobs)
    tree.copy()
    tree.configure()
    programs = [f"tests/{name}" for name in options.tests] or tree.test_programs()
    found = tree.find_mutants()
    count_alike(found)
    log(f"{len(found)} mutants found")
    wanted = chosen(found, options)
    built = tree.make(with_statements(wanted, found), programs)
    numbers = {mutant.number for mutant in built}
    mutants = [m for m in wanted if m.number in numbers][:options.sample]
    log(f"{len(built)} built, {len(mutants)} to run")
    suite = Suite(tree, options.slow, options.e2e_seconds)
    suite.measure(programs, options.jobs, log)
    log(f"running, seed {options.seed}")
    file = directory / "result.json"
    results = run(suite, mutants, options, area.modules_of, lambda results: save(results, file))
    save(results, file)
    report(results)
    print(f"results: {file}")
    return 0


sys.exit(main())
