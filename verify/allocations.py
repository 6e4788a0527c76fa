# SPDX-License-Identifier: Apache-2.0
"""Fails every allocation that the real binary makes in each scenario, including those of libc.

The scenarios and the checks are those of the system calls. For each allocation, one run fails only that
one, and one run fails all from that one to the end of the scenario. An exception may end the daemon:
then it exits with status 1, logs the exception and leaves complete files.
"""
import collections
import random
import signal

from harness import arguments, scenarios, verifier

SAMPLE = 120
LONG_STEP = 3  # a long run fails each allocation once, and all from every third one on
FOR_EVER = 1 << 40
# The scenario with most of libc's one-time allocations. It once revealed a lookup that hung.
ALWAYS = "named_master"
LIVES = frozenset(life.name for life in scenarios.LIVES)


class Job(collections.namedtuple("Job", "scenario role first times")):
    """Allocations that fail in a scenario."""

    def __str__(self):
        return (f"{self.scenario}[{self.role}]: allocation {self.first} " +
                ("once" if self.times == 1 else "and all that follow"))

    def arm(self, state):
        state.arm(first_allocation=self.first, failing_allocations=self.times)

    def hits(self, state):
        hits = state.process.allocation_hits
        return collections.Counter(allocations=hits) if hits else collections.Counter()

    def may_be_silent(self, state):
        return True  # libc and the C++ library fall back or work without the memory

    def log_is_lost(self, state):
        return False

    def deaths_of_libc(self):
        # glibc 2.36 dereferences a null pointer or fails an assertion when the first lookup of a name
        # cannot allocate its table of services.
        return (-signal.SIGSEGV, -signal.SIGABRT) if self.scenario == ALWAYS else ()

    def may_leak(self, state):
        return False


def jobs_of(name, role, state):
    # The first allocation of a process is the C++ library's emergency pool for exceptions, before main.
    # Without the pool nothing can be thrown.
    least = 2 if name in LIVES else 1
    return [Job(name, role, first, times)
            for first in range(least, state.process.allocations + 1) for times in (1, FOR_EVER)]


def main():
    options = arguments.parse("allocations", __doc__)

    def choose(jobs):
        if options.long:
            return [job for job in jobs if job.times == 1 or job.first % LONG_STEP == 0]
        chosen = set(random.Random(options.seed).sample(range(len(jobs)), min(len(jobs), SAMPLE)))
        return [job for number, job in enumerate(jobs)
                if number in chosen or (job.scenario == ALWAYS and job.times == 1)]

    return verifier.run(options, "allocations", jobs_of, choose)


if __name__ == "__main__":
    raise SystemExit(main())
