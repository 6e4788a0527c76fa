# SPDX-License-Identifier: Apache-2.0
"""Fails every system call: each call of each scenario, with each error that its manual page names.

The scenarios run against the real binary. A first run counts their system calls by kind. Then each
scenario runs repeatedly, each time with a different failure: one call, several calls in a row, or two
kinds in one run. After each run these rules hold:

  - The daemon still runs or made a regular exit. It neither hung nor ran in a busy loop.
  - Its replies are correct, and each file has its old or its new content.
  - The log or a reply reports the failure. Nothing rebooted.
  - The same scenario then succeeds, without leaks of descriptors or memory.
"""
import collections
import random

from harness import arguments, scenarios, verifier
from harness.errors import ERRORS, WITHOUT_ERRORS, may_be_silent
from harness.session import expect
from harness.state import Failure

SAMPLE = 500

# Runs of the long form. Many fail several calls, in all far more than 20,000.
LONG = 14_000

# Frequent calls of one kind are similar: only the first ones and the last one fail.
MOST_OF_A_KIND = 40
FEWER_OF_A_KIND = {"ladder": 5, "move_much": 8}

# Failures after which libc leaks memory: dprintf's buffer, when the position of its stream is unknown.
LEAKS_OF_LIBC = {"lseek"}


class Job(collections.namedtuple("Job", "scenario role failures")):
    """System calls that fail in a scenario."""

    def __str__(self):
        return f"{self.scenario}[{self.role}]: " + ", ".join(map(str, self.failures))

    def arm(self, state):
        state.arm(self.failures)

    def hits(self, state):
        hits = collections.Counter()
        for plan, failure in zip(state.shared.plans, self.failures):
            hits[failure.name] += plan.hits
        return +hits

    def may_be_silent(self, state):
        return all(may_be_silent(one.name, one.error) for one in state.hit(self.failures))

    def log_is_lost(self, state):
        return "sendto" in self.hits(state)

    def deaths_of_libc(self):
        return ()

    def may_leak(self, state):
        return not LEAKS_OF_LIBC.isdisjoint(self.hits(state))


def jobs_of(name, role, state):
    """The jobs that fail one call of a scenario, from the counts of a run without failures."""
    counts = state.counts()
    unknown = [kind for kind in counts if kind not in ERRORS and kind not in WITHOUT_ERRORS]
    expect(not unknown, f"calls that the table of errors lacks: {unknown}")
    most = FEWER_OF_A_KIND.get(name, MOST_OF_A_KIND)
    return [Job(name, role, (Failure(kind, number, error),))
            for kind, count in counts.items() for error in ERRORS.get(kind, ())
            for number in range(1, count + 1) if number <= most or number == count]


def more_jobs(jobs, number, choice):
    """Combined jobs: several failures in a row, and two kinds in one run."""
    by_scenario = collections.defaultdict(list)
    for job in jobs:
        by_scenario[job.scenario].append(job)
    made = []
    while len(made) < number:
        job = choice.choice(jobs)
        failure = job.failures[0]
        if choice.random() < 0.5:
            times = choice.choice((2, 3, 5, 20, 50))
            failures = (Failure(failure.name, failure.first, failure.error, times),)
        else:
            other = choice.choice(by_scenario[job.scenario]).failures[0]
            failures = (failure, other)
        made.append(Job(job.scenario, job.role, failures))
    return made


def one_error_each(jobs, choice):
    """One of the jobs for each failing call."""
    by_call = collections.defaultdict(list)
    for job in jobs:
        failure = job.failures[0]
        by_call[job.scenario, job.role, failure.name, failure.first].append(job)
    return [choice.choice(alike) for alike in by_call.values()]


def choose(jobs, options):
    choice = random.Random(options.seed)
    if options.each_once:
        jobs = one_error_each(jobs, choice)
    elif not options.long:
        single = choice.sample(jobs, min(len(jobs), SAMPLE * 4 // 5))
        jobs = single + more_jobs(jobs, SAMPLE - len(single), choice)
    else:
        jobs = jobs + more_jobs(jobs, max(0, LONG - len(jobs)), choice)
    order = {name: place for place, name in enumerate([*scenarios.WORK, *(life.name for life in scenarios.LIVES)])}
    return sorted(jobs, key=lambda job: order[job.scenario])


def main():
    options = arguments.parse("faults", __doc__, each_once=True)
    return verifier.run(options, "faults", jobs_of,
                        lambda jobs: choose(jobs, options))


if __name__ == "__main__":
    raise SystemExit(main())
