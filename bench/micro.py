# SPDX-License-Identifier: Apache-2.0
"""Benchmarks of single parts: codec, record, clause buffer, formatters."""
import json
import subprocess

HEAD = ("part", "sizes", "a message takes, us", "MB/s", "allocations a message")


def available(bench):
    return (bench.bin / "bench_micro").exists()


def run(bench):
    """One dict for each part and size."""
    seconds = bench.amount(0.2, 0.001)
    output = subprocess.run([bench.bin / "bench_micro", "--benchmark_format=json",
                             f"--benchmark_min_time={seconds}"],
                            check=True, capture_output=True, text=True, timeout=300).stdout
    results = []
    for one in json.loads(output)["benchmarks"]:
        part, _, sizes = one["name"].partition("/")
        results.append({"part": part, "sizes": sizes.replace("/", " x "),
                        "us": 1e6 / one["items_per_second"],
                        "mb_per_s": one["bytes_per_second"] / 1e6,
                        "allocations": one["allocations"]})
    return results


def cells(result):
    return (result["part"], result["sizes"], f"{result['us']:.3g}", f"{result['mb_per_s']:.3g}",
            f"{result['allocations']:.2g}")
