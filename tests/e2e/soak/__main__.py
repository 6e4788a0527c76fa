# SPDX-License-Identifier: Apache-2.0
"""Runs a soak test in this world and checks the result. scripts/soak builds and calls it.

    scripts/world --no-log python3 -B -m soak MINUTES [--requests N] [--to DIRECTORY] [--seed N]
        [--full MINUTES]
"""
import argparse
import asyncio
import os
import platform
import random
import shutil
import sys
import tempfile
import time

from soak import relays, workers
from soak.meter import Meter
from soak.picture import picture, table
from soak.run import MOST_CONNECTIONS, Run
from support import world
from support.daemon import Daemon, is_instrumented, sanitizer_reports
from support.sizes import sized
from support.wait import TIMEOUT

QUIET = 900  # connections that last for the whole run
GROWTH = 2 << 20  # bytes that the allocator may retain

# The number of the other workers of each kind, and their mean pause in seconds.
CREW = ((workers.guest, 20, 0.5), (workers.writer, 10, 1.0), (workers.resetter, 15, 0.5),
        (workers.dawdler, 15, 0.5), (workers.intruder, 10, 1.0), (workers.slow_reader, 2, 5.0),
        (workers.programs, 5, 1.0))


class NoSyslog:
    """Replaces the log collector of other tests: the run reads the log itself."""

    @staticmethod
    def mark():
        return 0


def workforce(run, work, bulk, pause, quiet):
    """All workers of a run. @p bulk: number of workers that pipeline a hundred requests."""
    yield relays.Story(run, work, 0.2).go()
    for _ in range(quiet):
        yield workers.quiet(run, work, 10.0)
    for _ in range(bulk):
        yield workers.bulk(run, work, pause)
    for worker, count, mean in CREW:
        for _ in range(count):
            yield worker(run, work, mean)


class Soak:
    """One daemon under load, in phases. No peer is connected at the end of a phase."""

    def __init__(self, options, directory):
        self.options = options
        self.directory = directory
        self.meter = Meter(os.path.join(directory, "passes"))
        self.run = Run(options.seed, directory)
        self.work = workers.Work(directory)
        preload = {"LD_PRELOAD": os.environ["RUNELD_PASS_CLOCK_LIBRARY"]}
        self.daemon = Daemon(NoSyslog, directory, wait=False,
                             environment={**preload, **self.meter.environment})

    async def phase(self, seconds, requests):
        """Works until @p seconds have passed and @p requests are answered; then all disconnect."""
        self.run.working = True
        enough = self.run.answered + requests
        end = time.monotonic() + seconds
        tasks = [asyncio.create_task(worker) for worker in workforce(
            self.run, self.work, self.options.bulk, self.options.pause, self.options.quiet)]
        while self.run.working or not all(task.done() for task in tasks):
            if time.monotonic() >= end and self.run.answered >= enough:
                self.run.working = False
            done, _ = await asyncio.wait(tasks, timeout=self.options.every,
                                         return_when=asyncio.FIRST_EXCEPTION)
            self.check()
            for task in done:
                task.result()  # raises the failure of a worker
        with self.run.waiting("the connections to be dropped"):
            while self.run.open > 0:
                await asyncio.sleep(0.05)
                self.check()

    def check(self):
        self.run.check()
        assert self.daemon.process.poll() is None, f"the daemon ended: {self.daemon.process.poll()}"
        if not self.meter.samples or (
                time.monotonic() - self.sampled >= self.options.every * 0.9):
            self.sampled = time.monotonic()
            self.meter.sample(self.daemon, self.run.open, self.run.answered)

    async def go(self):
        """The whole run: a warm-up, then the part that is checked for growth."""
        await self.run.log.listening()
        self.idle = await self.fewest_descriptors()
        seconds = self.options.minutes * 60
        await self.phase(seconds * 0.2, 0)
        resident = await self.settled()
        await self.phase(seconds * 0.8, self.options.requests - self.run.answered)
        grown = await self.settled()
        if not is_instrumented():  # the sanitizer retains freed memory
            assert grown < resident + GROWTH, f"memory: {resident} before, {grown} after"
        self.run.check()
        status = self.daemon.stop()
        assert status == 0, f"exit status {status}"
        self.run.log.close()
        assert not sanitizer_reports(self.directory), sanitizer_reports(self.directory)
        self.rest = (resident, grown)

    async def fewest_descriptors(self):
        """The minimum number of descriptors: the daemon periodically opens one for its master."""
        counts = []
        for _ in range(20):
            counts.append(len(self.daemon.descriptors()))
            await asyncio.sleep(0.02)
        return min(counts)

    async def settled(self):
        """Memory of the daemon, once it has its initial number of descriptors and no child."""
        deadline = time.monotonic() + TIMEOUT
        while len(self.daemon.descriptors()) > self.idle or self.daemon.zombies():
            assert time.monotonic() < deadline, (
                f"left behind: {self.daemon.descriptors()}, zombies {self.daemon.zombies()}")
            await asyncio.sleep(0.05)
        return self.daemon.resident_bytes()

    def report(self):
        """The report, in Markdown."""
        run, samples = self.run, self.meter.samples
        seconds = samples[-1].seconds
        before, after = self.rest
        facts = [
            f"{time.strftime('%Y-%m-%d')}: {seconds / 60:.1f} minutes on {os.cpu_count()} "
            f"processors ({platform.machine()}), "
            f"seed {self.options.seed}",
            f"requests answered, each compared byte for byte: {run.answered:,} of {run.asked:,} "
            f"({run.answered / seconds:,.0f} a second)",
            f"requests given up by their clients on purpose: {run.given_up:,}",
            f"connections accepted: {run.accepted:,}; at once: "
            f"{max(sample.connections for sample in samples)}, of {MOST_CONNECTIONS} at most",
            *(f"{name}: {count:,}" for name, count in sorted(run.counts.items())),
            f"memory at rest: {before // 1024:,} KiB after a fifth of the time, "
            f"{after // 1024:,} KiB at the end",
            f"descriptors at rest: {self.idle} at first, then and at the end",
            f"passes of the loop: {sum(s.passes for s in samples):,}; the longest "
            f"{max(s.worst for s in samples):.1f} ms",
        ]
        lines = [f"| {level} | {kind} | {count:,} |"
                 for (level, kind), count in sorted(run.log.kinds.items())]
        return "\n".join([
            "# Soak: the last long run", "",
            "Written by `scripts/soak`. [testing.md](../testing.md) describes the method.", "",
            *(f"- {fact}" for fact in facts), "", "![the run](soak.svg)", "",
            "A pass is the time from one `select()` to the next, in ms. The median and the 99 % are",
            "upper bounds (powers of two of a microsecond) since the previous sample. Not every",
            "sample is shown.", "", table(samples),
            "Log lines by level (numbers as N):", "",
            "| level | line | count |", "|---|---|---:|", *lines, ""])

    def write(self):
        os.makedirs(self.options.to, exist_ok=True)
        for name, text in (("soak.md", self.report()), ("soak.svg", picture(self.meter.samples))):
            with open(os.path.join(self.options.to, name), "w", encoding="utf-8") as file:
                file.write(text)


async def soak(options, directory):
    one = Soak(options, directory)
    try:
        await one.go()
    finally:
        one.daemon.kill()
    return one


def arguments():
    parser = argparse.ArgumentParser(prog="soak")
    parser.add_argument("minutes", type=float)
    parser.add_argument("--full", type=float, metavar="MINUTES", help="instead, in a long run")
    parser.add_argument("--requests", type=int, default=0, help="go on until so many are answered")
    parser.add_argument("--bulk", type=int, default=4, help="workers that send by the hundred")
    parser.add_argument("--pause", type=float, default=0.5, help="their pause, in seconds; 0: none")
    parser.add_argument("--quiet", type=int, default=QUIET, help="connections that always stay")
    parser.add_argument("--every", type=float, default=1.0, help="seconds between two samples")
    parser.add_argument("--to", default="", help="directory for soak.md and soak.svg")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    options = parser.parse_args()
    if options.full is not None:
        options.minutes = sized(options.minutes, options.full)
    return options


def main():
    world.require()
    world.adopt_orphans()
    world.reset()
    options = arguments()
    print(f"seed {options.seed}", flush=True)
    directory = tempfile.mkdtemp(prefix="runeld-soak-")
    try:
        one = asyncio.run(soak(options, directory))
    finally:
        shutil.rmtree(directory)
    print(one.report())
    if options.to:
        one.write()
    return 0


if __name__ == "__main__":
    sys.exit(main())
