#!/usr/bin/python3 -IB
# SPDX-License-Identifier: Apache-2.0
"""Measures the daemon, its floors and its peers, and prints one table.

    bench/run.py BIN_DIRECTORY [--only W1,W2] [--json FILE] [--short]

Runs only in isolated namespaces (scripts/world --no-log): scripts/bench builds everything and calls
it. --short runs each workload once, in a small size and without peers, to check that it works, and
judges memory only. Exit status: 0 when every target is met, 1 when one is not, 2 when a workload
failed.
"""
import argparse
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import measuring  # noqa: E402
import micro  # noqa: E402
import servers  # noqa: E402
from workloads import WORKLOADS  # noqa: E402

HEAD = ("#", "work", "figure", "runeld min/med/max", "floor min/med/max", "med. ratio",
        "best ratio", "target", "verdict", "peers, best ratio to floor")


ALL = (*WORKLOADS, "MICRO")


def arguments():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("bin", type=Path, help="directory of the built programs")
    parser.add_argument("--only", default=",".join(ALL), metavar="W1,W2",
                        help=f"workloads, of {', '.join(ALL)} (default: all)")
    parser.add_argument("--json", type=Path, metavar="FILE", help="also write the figures to FILE")
    parser.add_argument("--short", action="store_true", help="check that each workload works")
    chosen = parser.parse_args()
    chosen.only = [name.strip().upper() for name in chosen.only.split(",")]
    unknown = set(chosen.only) - set(ALL)
    if unknown:
        parser.error(f"no such workload: {', '.join(sorted(unknown))}")
    return chosen


def number(value):
    if value is None:
        return "-"
    if value == 0:
        return "0"
    return f"{value:.0f}" if abs(value) >= 1000 else f"{value:.3g}"


def spread(values):
    if not values:
        return "-"
    return "/".join(number(one) for one in (min(values), statistics.median(values), max(values)))


def ratio(value):
    return "-" if value is None else f"{value:.2f}"


def target(row):
    if row.limit is None:
        return "-"
    return (">= " if row.is_rate else "<= ") + number(row.limit)


def verdict(row):
    if row.holds is None:
        return "-"
    return "met" if row.holds else "NOT MET"


def cells(row):
    peers = ", ".join(f"{name} {ratio(row.ratio_to_floor(values))}"
                      for name, values in row.peers.items())
    return (row.number, row.work, row.figure, spread(row.subject), spread(row.floor),
            ratio(row.median_ratio), ratio(row.best_ratio), target(row), verdict(row), peers or "-")


def print_table(lines):
    widths = [max(len(cell) for cell in column) for column in zip(*lines)]
    for line in lines:
        print("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |")
        if line is lines[0]:
            print("|" + "|".join("-" * (width + 2) for width in widths) + "|")


def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo", encoding="ascii")
                  if line.startswith("model name")), platform.machine())
    return {"processor": model, "processors": os.cpu_count(), "kernel": platform.release(),
            "load": os.getloadavg()[0], "date": time.strftime("%Y-%m-%d")}


def measure(chosen, directory):
    """The rows of the table, and the results of the micro-benchmarks."""
    bench = measuring.Bench(chosen.bin.resolve(), directory, chosen.short)
    rows, parts = [], []
    for name in chosen.only:
        begin = time.monotonic()
        if name != "MICRO":
            rows += WORKLOADS[name](bench)
        elif micro.available(bench):
            parts = micro.run(bench)
        print(f"{name}: {time.monotonic() - begin:.1f} s", file=sys.stderr, flush=True)
    if chosen.short:
        for row in rows:
            row.limit = row.limit if row.is_memory else None
    return rows, parts


def report(chosen, about, rows, parts):
    print(f"{about['processor']}, {about['processors']} processors, Linux {about['kernel']}, "
          f"load {about['load']:.2f} at the start")
    if rows:
        print_table([HEAD] + [cells(row) for row in rows])
    if parts:
        print_table([micro.HEAD] + [micro.cells(part) for part in parts])
    if chosen.json:
        content = {"machine": about, "rows": [row.as_json() for row in rows], "micro": parts}
        chosen.json.write_text(json.dumps(content, indent=1) + "\n")


def main():
    chosen = arguments()
    if os.environ.get("RUNELD_WORLD") != "1":
        sys.exit("bench/run.py: runs only in isolated namespaces: use scripts/bench")
    os.sched_setaffinity(0, {servers.LOG})
    about = machine()
    collector = subprocess.Popen([chosen.bin / "bench_log"], stdout=subprocess.DEVNULL)
    try:
        servers.wait_until(lambda: os.path.exists("/dev/log"), "bench_log does not open /dev/log")
        with tempfile.TemporaryDirectory() as directory:
            rows, parts = measure(chosen, Path(directory))
    finally:
        collector.terminate()
        collector.wait()
    report(chosen, about, rows, parts)
    return 1 if any(row.holds is False for row in rows) else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, RuntimeError, subprocess.SubprocessError) as error:
        print(f"bench: {error}", file=sys.stderr)
        sys.exit(2)
