# SPDX-License-Identifier: Apache-2.0
"""Runs a load against servers in turn, and computes the figures."""
import dataclasses
import json
import math
import statistics
import subprocess
from typing import Callable, Optional

import servers


@dataclasses.dataclass
class Row:
    """One line of the table: a figure for the daemon, its floor and its peers."""
    number: str
    work: str
    figure: str
    subject: list
    floor: list = dataclasses.field(default_factory=list)
    peers: dict = dataclasses.field(default_factory=dict)
    limit: Optional[float] = None  # of the judged figure: minimum for a rate, maximum otherwise
    judge: str = "ratio"           # the judged figure: "ratio" or "value"
    is_memory: bool = False
    curve: Optional[dict] = None   # for a growth: pairs of size and figure, by server

    @property
    def is_rate(self):
        return self.figure.startswith("rate")

    def best(self, figures):
        return max(figures) if self.is_rate else min(figures)

    def ratio_to_floor(self, figures):
        return self.best(figures) / self.best(self.floor)

    @property
    def best_ratio(self):
        return self.ratio_to_floor(self.subject) if self.floor else None

    @property
    def median_ratio(self):
        pairs = zip(self.subject, self.floor)
        return statistics.median(s / f for s, f in pairs) if self.floor else None

    @property
    def judged(self):
        return self.best_ratio if self.judge == "ratio" else self.best(self.subject)

    @property
    def holds(self):
        if self.limit is None:
            return None
        return self.judged >= self.limit if self.is_rate else self.judged <= self.limit

    def as_json(self):
        figures = dataclasses.asdict(self)
        figures.update(best_ratio=self.best_ratio, median_ratio=self.median_ratio,
                       holds=self.holds)
        return figures


class Bench:
    """The directories and the repetitions of a run, and the functions that run a load."""

    def __init__(self, bin_directory, directory, short):
        self.bin, self.directory, self.short = bin_directory, directory, short
        self.repetitions = 1 if short else 5

    def amount(self, full, short):
        return short if self.short else full

    def load(self, kind, server, **options):
        """Runs the load generator and returns its figures."""
        command = [self.bin / "bench_load", kind, "--pid", getattr(server, "pid", 0)]
        for name, value in options.items():
            command += ["--" + name.replace("_", "-"), value]
        process = servers.start(command, stdout=subprocess.PIPE, text=True)
        output, _ = process.communicate(timeout=300)
        if process.returncode != 0:
            raise RuntimeError(f"{kind} against {server.name}: the load failed")
        return json.loads(output)

    def file(self, name, content):
        path = self.directory / name
        path.write_bytes(content)
        return path

    def daemon(self):
        return servers.Daemon(self.bin)

    def floor(self, kind):
        return servers.Floor(self.bin, kind)

    def peer(self, kind, *arguments):
        """A list with the peer; empty when it is not installed and in a short run."""
        return [kind(*arguments)] if kind.installed() and not self.short else []

    def in_turn(self, loads: dict, repetitions=None):
        """Runs each load once in each repetition, with a new server. Returns the figures by name."""
        figures = {name: [] for name in loads}
        for _ in range(repetitions or self.repetitions):
            for name, (make, drive) in loads.items():
                with make() as server:
                    figures[name].append(drive(server))
        return figures


def figures_of(results, key: str, scale: Callable = float):
    return [scale(result[key]) for result in results]


def row(number, work, figure, key, results, limit=None, scale=float):
    """The row for one key of the result of in_turn()."""
    values = {name: figures_of(result, key, scale) for name, result in results.items()}
    return Row(number, work, figure, values.pop("runeld"), values.pop("floor", []), values, limit)


def exponent(sizes, costs):
    """The exponent by which a cost grows with the size (least squares): 1 is linear, 2 quadratic."""
    x, y = [math.log(size) for size in sizes], [math.log(cost) for cost in costs]
    mean_x, mean_y = statistics.fmean(x), statistics.fmean(y)
    above = sum((a - mean_x) * (b - mean_y) for a, b in zip(x, y))
    return above / sum((a - mean_x) ** 2 for a in x)
