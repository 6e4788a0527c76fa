# SPDX-License-Identifier: Apache-2.0
"""What is measured of the daemon while it works, once in a while and from outside."""
import dataclasses
import mmap
import os
import struct
import time

BUCKETS = 40
LAYOUT = struct.Struct(f"={3 + BUCKETS}Q")  # pass_clock.c has it
WORST = 16  # where the longest pass stands
LONGEST_ZOMBIE = 30.0  # seconds: less than the busy part of the short form


@dataclasses.dataclass(frozen=True)
class Sample:
    """One line of the table. Times of a pass are in milliseconds, `seconds` since the beginning."""
    seconds: float
    connections: int
    answers: int
    resident: int
    descriptors: int
    zombies: int
    passes: int
    median: float
    most: float  # 99 of 100 passes took no longer
    worst: float
    busy: float  # processor time of the daemon, as a share of one processor
    harness: float  # the same of this program


def within(buckets, share):
    """An upper bound, in milliseconds, of what @p share of the passes took."""
    wanted = sum(buckets) * share
    for number, count in enumerate(buckets):
        wanted -= count
        if count and wanted <= 0:
            return (1 << number) / 1000
    return 0.0


class Meter:
    """Samples one daemon, which has pass_clock preloaded on the file that this class makes."""

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
        self._zombies = {}  # and when each was first seen

    def sample(self, daemon, connections, answers):
        """Takes a sample of @p daemon. AssertionError for a zombie that stays."""
        now = time.monotonic()
        passes, _, worst, *buckets = LAYOUT.unpack(self._clock[:])
        self._clock[WORST:WORST + 8] = bytes(8)
        recent = [new - old for new, old in zip(buckets, self._buckets)]
        spent, here = daemon.cpu_seconds(), sum(os.times()[:2])
        span = max(now - self._last, 1e-9)
        zombies = {pid: self._zombies.get(pid, now) for pid in daemon.zombies()}
        # One whose connection asks for its end is one until that is served.
        assert all(now - since < LONGEST_ZOMBIE for since in zombies.values()), \
            "a program that ended is not taken in"
        self.samples.append(Sample(
            now - self._begun, connections, answers, daemon.resident_bytes(),
            len(daemon.descriptors()), len(zombies), passes - self._passes, within(recent, 0.5),
            within(recent, 0.99), worst / 1e6, (spent - self._spent) / span,
            (here - self._spent_here) / span))
        self._last, self._buckets, self._passes = now, buckets, passes
        self._spent, self._spent_here, self._zombies = spent, here, zombies
