# SPDX-License-Identifier: Apache-2.0
"""What the programs that run workloads have in common: their arguments, the machine, the table."""
import argparse
import os
import platform
import time
from pathlib import Path


def arguments(usage, workloads):
    """The arguments. @p workloads: all names, in their order."""
    parser = argparse.ArgumentParser(usage=usage)
    parser.add_argument("bin", type=Path, help="directory of the built programs")
    parser.add_argument("--only", default=",".join(workloads), metavar="W1,W2",
                        help=f"workloads, of {', '.join(workloads)} (default: all)")
    parser.add_argument("--json", type=Path, metavar="FILE", help="also write the figures to FILE")
    parser.add_argument("--short", action="store_true", help="check that each workload works")
    chosen = parser.parse_args()
    chosen.only = [name.strip().upper() for name in chosen.only.split(",")]
    unknown = set(chosen.only) - set(workloads)
    if unknown:
        parser.error(f"no such workload: {', '.join(sorted(unknown))}")
    return chosen


def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo", encoding="ascii")
                  if line.startswith("model name")), platform.machine())
    return {"processor": model, "processors": os.cpu_count(), "kernel": platform.release(),
            "load": os.getloadavg()[0], "date": time.strftime("%Y-%m-%d")}


def machine_text(about):
    return (f"{about['processor']}, {about['processors']} processors, Linux {about['kernel']}, "
            f"load {about['load']:.2f}")


def print_table(lines):
    """Prints @p lines of cells, the first of which is the head."""
    widths = [max(len(cell) for cell in column) for column in zip(*lines)]
    for line in lines:
        print("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |")
        if line is lines[0]:
            print("|" + "|".join("-" * (width + 2) for width in widths) + "|")
