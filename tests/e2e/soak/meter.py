# SPDX-License-Identifier: Apache-2.0
"""Samples the daemon periodically from outside."""
import dataclasses
import mmap
import os
import struct
import time

BUCKETS = 40
LAYOUT = struct.Struct(f"={3 + BUCKETS}Q")  # as in pass_clock.c
WORST = 16  # offset of the longest pass
LONGEST_ZOMBIE = 30.0  # seconds; less than the load phase of the short form


@dataclasses.dataclass(frozen=True)
class Sample:
    """One row of the table. Pass times in milliseconds, `seconds` since the start."""
    seconds: float
    connections: int
    answers: int
    resident: int
    descriptors: int
    zombies: int
    passes: int
    median: float
    most: float  # 99th percentile
    worst: float
    busy: float  # processor time of the daemon, as a fraction of one processor
    harness: float  # that of this program


def within(buckets, share):
    """An upper bound, in milliseconds, for the duration of @p share of the passes."""
    wanted = sum(buckets) * share
    for number, count in enumerate(buckets):
        wanted -= count
        if count and wanted <= 0:
            return (1 << number) / 1000
    return 0.0


class Meter:
    """Samples one daemon, which runs with pass_clock and the file that this class creates."""

    def __init__(self, path):
        with open(path, "wb") as file:
            file.write(bytes(LAYOUT.size))
        with open(path, "r+b") as file:
            self._clock = mmap.mmap(file.fileno(), LAYOUT.size)
        self.environment = {"RUNELD_PASS_CLOCK": path}
        self.samples = []
        self._begun = self._last = time.monotonic()
        self._buckets = [0] * BUCKETS
        self._passes = 0
        self._spent = self._spent_here = 0.0
        self._zombies = {}  # by first time seen

    def sample(self, daemon, connections, answers):
        """Takes a sample of @p daemon. Raises AssertionError for a lasting zombie."""
        now = time.monotonic()
        passes, _, worst, *buckets = LAYOUT.unpack(self._clock[:])
        self._clock[WORST:WORST + 8] = bytes(8)
        recent = [new - old for new, old in zip(buckets, self._buckets)]
        spent, here = daemon.cpu_seconds(), sum(os.times()[:2])
        span = max(now - self._last, 1e-9)
        zombies = {pid: self._zombies.get(pid, now) for pid in daemon.zombies()}
        # A background program stays a zombie until the "wait" of its connection is served.
        assert all(now - since < LONGEST_ZOMBIE for since in zombies.values()), \
            "a program that ended is not taken in"
        self.samples.append(Sample(
            now - self._begun, connections, answers, daemon.resident_bytes(),
            len(daemon.descriptors()), len(zombies), passes - self._passes, within(recent, 0.5),
            within(recent, 0.99), worst / 1e6, (spent - self._spent) / span,
            (here - self._spent_here) / span))
        self._last, self._buckets, self._passes = now, buckets, passes
        self._spent, self._spent_here, self._zombies = spent, here, zombies
