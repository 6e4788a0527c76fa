#!/usr/bin/python3 -IB
# SPDX-License-Identifier: Apache-2.0
"""Measures the daemon, its floors and its peers, and prints one table.

    bench/run.py BIN_DIRECTORY [--only W1,W2] [--json FILE] [--short]

Runs only in isolated namespaces (scripts/world --no-log): scripts/bench builds everything and calls
it. --short runs each workload once, in a small size and without peers, to check that it works, and
judges memory only. Exit status: 0 when every target is met, 1 when one is not, 2 when a workload
failed.
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import measuring  # noqa: E402
import micro  # noqa: E402
import report  # noqa: E402
import servers  # noqa: E402
from workloads import WORKLOADS  # noqa: E402

HEAD = ("#", "work", "figure", "runeld min/med/max", "floor min/med/max", "med. ratio",
        "best ratio", "target", "verdict", "peers, best ratio to floor")


ALL = (*WORKLOADS, "MICRO")


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


def show(chosen, about, rows, parts):
    print(f"{report.machine_text(about)} at the start")
    if rows:
        report.print_table([HEAD] + [cells(row) for row in rows])
    if parts:
        report.print_table([micro.HEAD] + [micro.cells(part) for part in parts])
    if chosen.json:
        content = {"machine": about, "rows": [row.as_json() for row in rows], "micro": parts}
        chosen.json.write_text(json.dumps(content, indent=1) + "\n")


def main():
    chosen = report.arguments(__doc__, ALL)
    if os.environ.get("RUNELD_WORLD") != "1":
        sys.exit("bench/run.py: runs only in isolated namespaces: use scripts/bench")
    os.sched_setaffinity(0, {servers.LOG})
    about = report.machine()
    collector = subprocess.Popen([chosen.bin / "bench_log"], stdout=subprocess.DEVNULL)
    try:
        servers.wait_until(lambda: os.path.exists("/dev/log"), "bench_log does not open /dev/log")
        with tempfile.TemporaryDirectory() as directory:
            rows, parts = measure(chosen, Path(directory))
    finally:
        collector.terminate()
        collector.wait()
    show(chosen, about, rows, parts)
    return 1 if any(row.holds is False for row in rows) else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, RuntimeError, subprocess.SubprocessError) as error:
        print(f"bench: {error}", file=sys.stderr)
        sys.exit(2)
