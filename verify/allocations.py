# SPDX-License-Identifier: Apache-2.0
"""Every allocation fails: each one that the real binary makes in each scenario, libc's included.

The scenarios and the checks are those of the system calls. Each allocation fails once, and all from
it on fail until the scenario is over. An exception may end the daemon: then in good order, logged,
with status 1, and the files whole.
"""
import collections
import random
import signal

from harness import arguments, scenarios, verifier

SAMPLE = 120
LONG_STEP = 3  # of those from one allocation on each third is run, of those that fail once all
FOR_EVER = 1 << 40
# The life in which libc makes most of what it makes once; a lookup that hung was found in it.
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
        return True  # libc and the library take what they need elsewhere, or do without

    def log_is_lost(self, state):
        return False

    def deaths_of_libc(self):
        # glibc 2.36 goes through a null pointer or a failed assertion when the first lookup of a name
        # gets no memory for its table of services.
        return (-signal.SIGSEGV, -signal.SIGABRT) if self.scenario == ALWAYS else ()

    def may_leak(self, state):
        return False


def jobs_of(name, role, state):
    # The first of a life is the C++ library's, before main: the reserve that exceptions are made of
    # when there is no memory. Without it nothing can be thrown at all.
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
