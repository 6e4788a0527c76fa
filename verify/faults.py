# SPDX-License-Identifier: Apache-2.0
"""Every system call fails: each call of each scenario, with each error that its manual page names.

The scenarios run against the real binary. First their system calls are counted by kind; then each
runs again and again, each time with another call failing: once, or several times in a row, or two
in one run. After each: the daemon lives or has ended in good order, nothing hung or spun, what it
answered is true, files are old or new, the log or an answer told of what was wrong, nothing was
rebooted; then the same scenario works as if nothing had been, with the descriptors and the memory
of the beginning.
"""
import collections
import random

from harness import arguments, scenarios, verifier
from harness.errors import ERRORS, WITHOUT_ERRORS, may_be_silent
from harness.session import expect
from harness.state import Failure

SAMPLE = 500

# Runs of the long form: many let several calls fail, together far more than 20,000.
LONG = 14_000

# Of a kind that comes in great numbers the calls are alike: the first so many, and the last.
MOST_OF_A_KIND = 40
FEWER_OF_A_KIND = {"ladder": 5, "move_much": 8}

# Failures after which libc does not give its own memory back: dprintf's buffer, when its stream's
# place cannot be told.
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
    """All jobs of a scenario in which one call fails, by the counts of a run without failures."""
    counts = state.counts()
    unknown = [kind for kind in counts if kind not in ERRORS and kind not in WITHOUT_ERRORS]
    expect(not unknown, f"calls that the table of errors lacks: {unknown}")
    most = FEWER_OF_A_KIND.get(name, MOST_OF_A_KIND)
    return [Job(name, role, (Failure(kind, number, error),))
            for kind, count in counts.items() for error in ERRORS.get(kind, ())
            for number in range(1, count + 1) if number <= most or number == count]


def more_jobs(jobs, number, choice):
    """Jobs made of others: failures in a row, and two kinds in one run."""
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
    """Of the jobs in which the same call fails, one."""
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
